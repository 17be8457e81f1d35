// The block loop: sleep and wake on silence, the blockMultiple latency
// reduction, independence from how the host cuts blocks, and no allocation.
#include "engine/engine_impl.h"
#include "engine_harness.h"
#include "support/alloc_counter.h"

#include <gtest/gtest.h>

namespace {

using namespace lumbrel_test;

bool allZero(const Channels &channels) {
	for (const Signal &s : channels) {
		for (float x : s) {
			if (x != 0.0f) return false;
		}
	}
	return true;
}

struct Silence : ::testing::Test {
	Engine engine{2, 2, 48000, varkesh_lumbrel_config_default()};
	PassThrough effect{engine, 2};
	void SetUp() override {
		effect.attach();
		varkesh_lumbrel_engine_float_reset(engine);
	}
};

// Fed zeros from reset, the engine asks onSilence at once and, told "false",
// sleeps: zeros out and no spectra, however long it runs.
TEST_F(Silence, ZerosAfterResetSleepAtOnce) {
	Channels y = run(engine, {Signal(48000, 0.0f), Signal(48000, 0.0f)}, 2, 256);
	EXPECT_TRUE(allZero(y));
	EXPECT_EQ(effect.spectra, 0u);
	EXPECT_EQ(effect.silenceQuestions, 1u);
}

// A single sample above 1e-15 in a block wakes the engine within that call: the
// block's steps run.
TEST_F(Silence, ASmallSampleWakesItWithinTheCall) {
	run(engine, {Signal(4800, 0.0f), Signal(4800, 0.0f)}, 2, 480);
	ASSERT_EQ(effect.spectra, 0u);

	Signal quiet(480, 0.0f), nudged(480, 0.0f);
	nudged[479] = 1e-14f;
	run(engine, {quiet, nudged}, 2, 480);
	EXPECT_EQ(effect.spectra, 4u); // 480 samples are four intervals of 120
}

// onSilence answering true keeps the engine stepping through silence.
TEST_F(Silence, OnSilenceTrueKeepsItRunning) {
	effect.keepRunning = true;
	run(engine, {Signal(48000, 0.0f), Signal(48000, 0.0f)}, 2, 256);
	EXPECT_EQ(effect.spectra, 400u); // one second at 400 spectra per second
	EXPECT_GT(effect.silenceQuestions, 10u);
}

// After sound stops the engine runs on while the tracked bands' tails decay
// below 1e-15 (they fall by `keep` per step), then one more window, then asks
// and sleeps. The output carries the delayed end of the tone.
TEST_F(Silence, SleepsAfterTheTailHasDecayed) {
	Signal tone = sine(200, 48000, 9600);
	tone.resize(3 * 48000, 0.0f);
	Channels y = run(engine, {tone, tone}, 2, 240);
	std::size_t spectraWhileSounding = 9600 / 120;
	EXPECT_GT(effect.spectra, spectraWhileSounding + 6);
	EXPECT_LT(effect.spectra, 2 * 400u);
	EXPECT_EQ(effect.silenceQuestions, 1u);
	EXPECT_GT(rms(y[0].data() + 9600, 480), 0.05);
	EXPECT_EQ(rms(y[0].data() + 2 * 48000, 48000), 0.0);
}

// A length of 0 runs only the silence test, which still counts samples.
TEST_F(Silence, ZeroLengthBlockOnlyAsks) {
	const float *in[2] = {nullptr, nullptr};
	float *out[2] = {nullptr, nullptr};
	varkesh_lumbrel_engine_float_process(engine, in, out, 0);
	EXPECT_EQ(effect.silenceQuestions, 1u);
	EXPECT_EQ(effect.spectra, 0u);
}

// With every process length a multiple of blockMultiple the latency falls by
// its common divisor with the interval, and noise comes out at exactly the new
// latency.
TEST(BlockMultiple, OutputStaysAlignedWithTheReportedLatency) {
	for (std::size_t multiple : {8u, 40u, 64u, 120u, 240u}) {
		varkesh_lumbrel_config config = varkesh_lumbrel_config_default();
		config.blockMultiple = multiple;
		Engine engine(1, 1, 48000, config);
		PassThrough effect{engine, 1};
		effect.attach();
		varkesh_lumbrel_engine_float_reset(engine);
		std::size_t latency = varkesh_lumbrel_engine_float_latencySamples(engine);

		Signal x = whiteNoise(24000, 0.25, 11);
		Channels y = run(engine, {x}, 1, multiple * 3);
		std::size_t from = 2400, n = 24000 - from;
		EXPECT_EQ(correlationLag(y[0], x, from, n, 960), latency) << "blockMultiple " << multiple;
		EXPECT_LT(std::abs(levelDb(y[0], x, latency, from, n)), 1.0) << "blockMultiple " << multiple;
		EXPECT_LT(errorDb(y[0], x, latency, from, n), -10.0) << "blockMultiple " << multiple;
	}
}

// The host's block sizes must not matter: one sample at a time, odd sizes and
// blocks of many intervals give the same samples.
TEST(BlockLoop, OutputDoesNotDependOnBlockSizes) {
	Signal x = whiteNoise(9000, 0.3, 3);
	for (std::size_t i = 0; i < x.size(); ++i) x[i] += float(0.3 * std::sin(0.01 * double(i)));
	Channels reference;
	for (std::size_t blockSize : {4096u, 1u, 37u, 120u, 1000u}) {
		Engine engine(1, 2, 48000, varkesh_lumbrel_config_default());
		PassThrough effect{engine, 1};
		effect.attach();
		varkesh_lumbrel_engine_float_reset(engine);
		Channels y = run(engine, {x}, 2, blockSize);
		if (reference.empty()) {
			reference = y;
			EXPECT_EQ(effect.spectra, 9000u / 120u);
			continue;
		}
		for (std::size_t c = 0; c < 2; ++c) {
			for (std::size_t i = 0; i < x.size(); ++i) {
				ASSERT_EQ(y[c][i], reference[c][i]) << "block " << blockSize << ", channel " << c << ", sample " << i;
			}
		}
	}
}

// Without output channels the analysis and the effect still run.
TEST(BlockLoop, RunsTheEffectWithoutOutputs) {
	Engine engine(1, 0, 48000, varkesh_lumbrel_config_default());
	struct Counter {
		std::size_t calls = 0;
		static bool onSpectrum(void *self) {
			++static_cast<Counter *>(self)->calls;
			return true;
		}
	} counter;
	varkesh_lumbrel_engine_float_setCallbacks(engine, &counter, Counter::onSpectrum, nullptr);
	varkesh_lumbrel_engine_float_reset(engine);
	Signal x = sine(440, 48000, 1200);
	const float *in[1] = {x.data()};
	varkesh_lumbrel_engine_float_process(engine, in, nullptr, x.size());
	EXPECT_EQ(counter.calls, 10u);
}

// process and reset allocate nothing: through sound, silence, sleep, wake-up,
// steps inside blocks and blocks inside steps.
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
	const float *in[2];
	float *out[2];
	std::size_t sizes[] = {1, 7, 64, 119, 120, 121, 512, 2048};
	for (std::size_t pos = 0, i = 0; pos < x.size(); ++i) {
		std::size_t n = std::min(sizes[i % 8], x.size() - pos);
		in[0] = in[1] = x.data() + pos;
		out[0] = outputs[0].data() + pos;
		out[1] = outputs[1].data() + pos;
		varkesh_lumbrel_engine_float_process(engine, in, out, n);
		pos += n;
		if (i == 40) varkesh_lumbrel_engine_float_reset(engine);
	}
	EXPECT_EQ(scope.count(), 0u);
	EXPECT_GT(effect.spectra, 100u);
	EXPECT_GT(rms(outputs[0].data() + 40000, 8000), 0.05);
}

} // namespace
