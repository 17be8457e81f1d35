// The block loop: sleep and wake on silence, the tail it waits for, the blockMultiple latency reduction, block sizes, no
// allocation.
#include "engine/engine_impl.h"
#include "engine_harness.h"
#include "support/alloc_counter.h"

#include <gtest/gtest.h>

namespace {

using namespace lumbrel_test;

struct Silence : ::testing::Test {
	Engine engine{2, 2, 48000, varkesh_lumbrel_config_default()};
	PassThrough effect{engine, 2};
	void SetUp() override {
		effect.attach();
		varkesh_lumbrel_engine_float_reset(engine);
	}
	Channels zeros(std::size_t n) const { return {Signal(n, 0.0f), Signal(n, 0.0f)}; }
};

// Zeros from reset: asked once and, told "false", asleep (zeros out, no spectra). One sample above 1e-15 wakes it within
// the call; "true" keeps it running.
TEST_F(Silence, SleepsAtOnceWakesWithinTheCallAndRunsOnWhenAsked) {
	const float *noInputs[2] = {nullptr, nullptr};
	float *noOutputs[2] = {nullptr, nullptr};
	varkesh_lumbrel_engine_float_process(engine, noInputs, noOutputs, 0);
	EXPECT_EQ(effect.silenceQuestions, 1u);
	Channels y = run(engine, zeros(48000), 2, 256);
	EXPECT_EQ(rms(y[0].data(), y[0].size()) + rms(y[1].data(), y[1].size()), 0.0);
	EXPECT_EQ(effect.spectra, 0u);
	EXPECT_EQ(effect.silenceQuestions, 1u);
	Channels nudged = zeros(480);
	nudged[1][479] = 1e-14f;
	run(engine, nudged, 2, 480);
	EXPECT_EQ(effect.spectra, 4u); // 480 samples are four intervals of 120
	effect.keepRunning = true;
	effect.spectra = 0;
	run(engine, zeros(48000), 2, 240);
	EXPECT_EQ(effect.spectra, 400u); // one second at 400 spectra per second
}

// After a tone the engine runs until the tracked bands' tails are below 1e-15 and a whole window more, then asks and
// sleeps.
TEST_F(Silence, SleepsOneWindowAfterTheTailHasDecayed) {
	struct TailWatch : PassThrough {
		std::size_t lastLoud = 0, askedAt = 0, low = 0;
		static bool onSpectrum(void *self) {
			auto &w = *static_cast<TailWatch *>(self);
			PassThrough::onSpectrum(self);
			for (std::size_t c = 0; c < w.channels; ++c) {
				const float *re = varkesh_lumbrel_engine_float_inputReal(w.engine, c), *im = varkesh_lumbrel_engine_float_inputImag(w.engine, c);
				for (std::size_t b = 0; b < w.low; ++b) {
					if (std::abs(re[b]) > 1e-15f || std::abs(im[b]) > 1e-15f) w.lastLoud = w.spectra;
				}
			}
			return true;
		}
		static bool onSilence(void *self) {
			auto &w = *static_cast<TailWatch *>(self);
			if (!w.askedAt) w.askedAt = w.spectra;
			return PassThrough::onSilence(self);
		}
	} watch{{engine, 2}};
	const auto &impl = static_cast<const varkesh::lumbrel::EngineImpl<float> &>(*engine.handle);
	watch.low = impl.lowBandCount();
	varkesh_lumbrel_engine_float_setCallbacks(engine, &watch, TailWatch::onSpectrum, TailWatch::onSilence);
	varkesh_lumbrel_engine_float_reset(engine);
	Signal tone = sine(200, 48000, 9600);
	tone.resize(3 * 48000, 0.0f);
	Channels y = run(engine, {tone, tone}, 2, 120);
	EXPECT_GT(watch.lastLoud, 9600u / 120 + 6);
	ASSERT_GT(watch.askedAt, watch.lastLoud);
	EXPECT_GE((watch.askedAt - watch.lastLoud) * impl.interval(), impl.windowLength())
		<< "last loud step " << watch.lastLoud << ", asked at step " << watch.askedAt;
	EXPECT_LT(watch.spectra, 2 * 400u);
	EXPECT_GT(rms(y[0].data() + 9600, 480), 0.05);
	EXPECT_EQ(rms(y[0].data() + 2 * 48000, 48000), 0.0);
}

// Lengths all multiples of blockMultiple lower the latency by its common divisor with the interval; noise comes out at
// exactly that latency.
TEST(BlockLoop, BlockMultipleKeepsTheOutputAlignedWithTheLatency) {
	for (auto [multiple, expected] : {std::pair{8u, 472u}, {40u, 440u}, {64u, 472u}, {120u, 360u}, {240u, 360u}}) {
		varkesh_lumbrel_config config = varkesh_lumbrel_config_default();
		config.blockMultiple = multiple;
		Engine engine(1, 1, 48000, config);
		PassThrough effect{engine, 1};
		effect.attach();
		varkesh_lumbrel_engine_float_reset(engine);
		const std::size_t latency = varkesh_lumbrel_engine_float_latencySamples(engine);
		EXPECT_EQ(latency, expected) << "blockMultiple " << multiple;
		const Signal x = whiteNoise(24000, 0.25, 11);
		const Channels y = run(engine, {x}, 1, multiple * 3);
		EXPECT_EQ(correlationLag(y[0], x, 2400, 21600, 960), latency) << "blockMultiple " << multiple;
		EXPECT_LT(residualDb(y[0], x, latency, 2400, 2400 + 21600), -10.0) << "blockMultiple " << multiple;
	}
}

// Any block sizes give the same samples; without outputs the effect still runs.
TEST(BlockLoop, OutputDoesNotDependOnBlockSizes) {
	Signal x = whiteNoise(9000, 0.3, 3);
	for (std::size_t i = 0; i < x.size(); ++i) x[i] += float(0.3 * std::sin(0.01 * double(i)));
	Channels reference;
	for (std::size_t blockSize : {4096u, 1u, 37u, 120u, 1000u}) {
		Engine engine(1, 2, 48000, varkesh_lumbrel_config_default());
		PassThrough effect{engine, 1};
		effect.attach();
		varkesh_lumbrel_engine_float_reset(engine);
		const Channels y = run(engine, {x}, 2, blockSize);
		EXPECT_EQ(effect.spectra, 9000u / 120u);
		if (reference.empty()) reference = y;
		for (std::size_t c = 0; c < 2; ++c) {
			for (std::size_t i = 0; i < x.size(); ++i) ASSERT_EQ(y[c][i], reference[c][i]) << "block " << blockSize << ", channel " << c << ", sample " << i;
		}
	}
	Engine engine(1, 0, 48000, varkesh_lumbrel_config_default());
	PassThrough effect{engine, 0};
	effect.attach();
	varkesh_lumbrel_engine_float_reset(engine);
	const float *in[1] = {x.data()};
	varkesh_lumbrel_engine_float_process(engine, in, nullptr, 1200);
	EXPECT_EQ(effect.spectra, 10u);
}

// process and reset allocate nothing: sound, silence, sleep, wake-up, any block size.
TEST(BlockLoop, ProcessAllocatesNothing) {
	if (!lumbrel_test::allocationCountingAvailable()) GTEST_SKIP() << "allocation counting unavailable";
	Engine engine(2, 2, 48000, varkesh_lumbrel_config_default());
	PassThrough effect{engine, 2};
	effect.attach();
	varkesh_lumbrel_engine_float_reset(engine);
	Signal x = whiteNoise(48000, 0.3, 5);
	std::fill(x.begin() + 12000, x.begin() + 36000, 0.0f);
	Channels outputs(2, Signal(x.size()));
	lumbrel_test::AllocationScope scope;
	const std::size_t sizes[] = {1, 7, 64, 119, 120, 121, 512, 2048};
	for (std::size_t pos = 0, i = 0; pos < x.size(); ++i) {
		const std::size_t n = std::min(sizes[i % 8], x.size() - pos);
		const float *in[2] = {x.data() + pos, x.data() + pos};
		float *out[2] = {outputs[0].data() + pos, outputs[1].data() + pos};
		varkesh_lumbrel_engine_float_process(engine, in, out, n);
		pos += n;
		if (i == 40) varkesh_lumbrel_engine_float_reset(engine);
	}
	EXPECT_EQ(scope.count(), 0u);
	EXPECT_GT(effect.spectra, 100u);
	EXPECT_GT(rms(outputs[0].data() + 40000, 8000), 0.05);
}

} // namespace
