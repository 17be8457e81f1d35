// The band spectrum that onSpectrum sees: measured frequencies of tracked bands,
// the scale of the values, band 0, and the pointer tables.
#include "engine/engine_impl.h"
#include "engine/engine_windows.h"
#include "engine_harness.h"

#include <gtest/gtest.h>

#include <numeric>

namespace {

using namespace lumbrel_test;
using varkesh::lumbrel::EngineImpl;

// Copies channel rows at every step, and checks band 0 as it goes.
struct Recorder {
	varkesh_lumbrel_engine_float *engine;
	std::size_t channels, bands;
	std::vector<Signal> real{}, imag{}, hz{};
	std::size_t steps = 0, band0ImagNonZero = 0;

	static bool onSpectrum(void *self) {
		auto &r = *static_cast<Recorder *>(self);
		++r.steps;
		r.real.resize(r.channels);
		r.imag.resize(r.channels);
		r.hz.resize(r.channels);
		for (std::size_t c = 0; c < r.channels; ++c) {
			const float *re = varkesh_lumbrel_engine_float_inputReal(r.engine, c);
			const float *im = varkesh_lumbrel_engine_float_inputImag(r.engine, c);
			const float *hz = varkesh_lumbrel_engine_float_inputHz(r.engine, c);
			r.real[c].assign(re, re + r.bands);
			r.imag[c].assign(im, im + r.bands);
			r.hz[c].assign(hz, hz + r.bands);
			if (im[0] != 0.0f) ++r.band0ImagNonZero;
			varkesh_lumbrel_engine_float_addOutputSplit(r.engine, c, re, im);
		}
		return true;
	}
	static bool keepRunning(void *) { return true; }
};

struct Analysis : ::testing::Test {
	Engine engine{2, 2, 48000, varkesh_lumbrel_config_default()};
	const EngineImpl<float> &geometry = *engine.handle;
	std::size_t bands = varkesh_lumbrel_engine_float_bands(engine);
	Recorder recorder{engine, 2, bands};
	void SetUp() override {
		varkesh_lumbrel_engine_float_setCallbacks(engine, &recorder, Recorder::onSpectrum, Recorder::keepRunning);
		varkesh_lumbrel_engine_float_reset(engine);
	}
	float hzOf(std::size_t b) const { return varkesh_lumbrel_engine_float_nominalHz(engine, b); }
};

// A steady sine midway between two tracked bands pulls both bands' measured
// frequency to itself, to within a quarter of the local band spacing. (Below
// about 55 Hz, less than one window bin from its own mirror image at negative
// frequency, the estimate wanders by more than that.)
TEST_F(Analysis, TrackedBandsMeasureASteadySine) {
	for (std::size_t b : {14u, 16u, 60u, 150u, 300u, 400u}) {
		ASSERT_LT(b + 1, geometry.lowBandCount());
		float spacing = hzOf(b + 1) - hzOf(b);
		double hz = 0.5 * (double(hzOf(b)) + double(hzOf(b + 1)));
		varkesh_lumbrel_engine_float_reset(engine);
		Signal x = sine(hz, 48000, 24000, 0.3);
		run(engine, {x, x}, 2, 256);
		for (std::size_t c = 0; c < 2; ++c) {
			float below = recorder.hz[c][b], above = recorder.hz[c][b + 1];
			EXPECT_NEAR(below, hz, 0.25 * spacing) << "band " << b << " (" << hzOf(b) << " Hz), channel " << c;
			EXPECT_NEAR(above, hz, 0.25 * spacing) << "band " << b + 1 << " (" << hzOf(b + 1) << " Hz), channel " << c;
			std::printf("[ tracking ] %.2f Hz between %.2f and %.2f Hz: measured %.2f and %.2f Hz (spacing %.2f Hz)\n",
				hz, hzOf(b), hzOf(b + 1), below, above, spacing);
		}
	}
}

// Direct-copied bands read the STFT of the input scaled by 1 / windowSamples:
// a sine of amplitude A at a band's frequency shows about A / 2 times the
// window's mean, and their frequency stays nominal.
TEST_F(Analysis, DirectBandsShowTheWindowedSpectrum) {
	std::size_t window = geometry.windowLength();
	std::vector<float> a(window);
	varkesh::lumbrel::fillAnalysisWindow(a.data(), window, geometry.interval());
	double mean = std::accumulate(a.begin(), a.end(), 0.0) / double(window);

	for (std::size_t b : {geometry.lowBandCount() + 20, geometry.lowBandCount() + 150}) {
		Signal x = sine(hzOf(b), 48000, 4800, 0.5);
		varkesh_lumbrel_engine_float_reset(engine);
		run(engine, {x, x}, 2, 256);
		double magnitude = std::hypot(recorder.real[0][b], recorder.imag[0][b]);
		EXPECT_NEAR(magnitude / (0.25 * mean), 1.0, 0.1) << "band " << b;
		EXPECT_EQ(recorder.hz[0][b], hzOf(b));
	}
}

// Band 0 is 0 Hz: its imaginary part is exactly 0 after every step.
TEST_F(Analysis, BandZeroIsReal) {
	Signal x = whiteNoise(9600, 0.3, 9);
	for (std::size_t i = 0; i < x.size(); ++i) x[i] += 0.2f;
	run(engine, {x, x}, 2, 100);
	EXPECT_EQ(recorder.steps, 80u);
	EXPECT_EQ(recorder.band0ImagNonZero, 0u);
	EXPECT_NE(recorder.real[0][0], 0.0f);
}

// Silence from reset, kept running: every value stays 0, every frequency nominal.
TEST_F(Analysis, SilenceGivesZerosAtNominalFrequencies) {
	run(engine, {Signal(4800, 0.0f), Signal(4800, 0.0f)}, 2, 480);
	ASSERT_EQ(recorder.steps, 40u);
	for (std::size_t b = 0; b < bands; ++b) {
		ASSERT_EQ(recorder.real[1][b], 0.0f) << b;
		ASSERT_EQ(recorder.imag[1][b], 0.0f) << b;
		ASSERT_EQ(recorder.hz[1][b], hzOf(b)) << b;
	}
}

// A swapped row lives until the next analysis, which restores the engine's own.
TEST_F(Analysis, SwappedRowsComeBackAtTheNextStep) {
	struct Swapper {
		varkesh_lumbrel_engine_float *engine;
		std::vector<float> mine;
		std::size_t steps = 0, restored = 0;
		static bool onSpectrum(void *self) {
			auto &s = *static_cast<Swapper *>(self);
			float *own = varkesh_lumbrel_engine_float_inputReal(s.engine, 1);
			if (s.steps++ > 0 && own != s.mine.data()) ++s.restored;
			varkesh_lumbrel_engine_float_setInputReal(s.engine, 1, s.mine.data());
			EXPECT_EQ(varkesh_lumbrel_engine_float_inputReal(s.engine, 1), s.mine.data());
			return true;
		}
	} swapper{engine, std::vector<float>(bands, 0.0f)};
	varkesh_lumbrel_engine_float_setCallbacks(engine, &swapper, Swapper::onSpectrum, Recorder::keepRunning);
	run(engine, {Signal(1200, 0.0f), Signal(1200, 0.0f)}, 2, 1200);
	EXPECT_EQ(swapper.steps, 10u);
	EXPECT_EQ(swapper.restored, 9u);
}

// The refinement rounds only ever help the split between bands: with none, or
// many, a tracked sine still passes at its level.
TEST(AnalysisIterations, AnyNumberOfRoundsPassesATrackedSine) {
	for (std::uint64_t iterations : {0u, 1u, 8u}) {
		varkesh_lumbrel_config config = varkesh_lumbrel_config_default();
		config.iterations = iterations;
		Engine engine(1, 1, 48000, config);
		PassThrough effect{engine, 1};
		effect.attach();
		varkesh_lumbrel_engine_float_reset(engine);
		Signal x = sine(523.25, 48000, 14400);
		Channels y = run(engine, {x}, 1, 256);
		EXPECT_LT(std::abs(levelDb(y[0], x, 480, 4800, 9600)), 1.0) << iterations << " rounds";
		EXPECT_LT(errorDb(y[0], x, 480, 4800, 9600), -20.0) << iterations << " rounds";
	}
}

} // namespace
