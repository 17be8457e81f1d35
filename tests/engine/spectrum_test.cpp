// The band spectrum onSpectrum sees, and synthesis: values added at chosen frequencies come out as sines of twice their
// magnitude.
#include "engine/engine_impl.h"
#include "engine/engine_windows.h"
#include "engine_harness.h"

#include <gtest/gtest.h>

#include <complex>
#include <functional>
#include <numeric>

namespace {

using namespace lumbrel_test;

// An engine kept awake whose effect is a function called at each step.
struct Probe {
	Engine engine;
	std::function<void(varkesh_lumbrel_engine_float *)> effect;
	explicit Probe(std::size_t channels, const varkesh_lumbrel_config &config = varkesh_lumbrel_config_default())
		: engine(channels, channels, 48000, config) {}
	static bool onSpectrum(void *self) {
		auto &p = *static_cast<Probe *>(self);
		p.effect(p.engine);
		return true;
	}
	static bool keepRunning(void *) { return true; }
	Channels render(const Channels &inputs, std::size_t block = 256) {
		varkesh_lumbrel_engine_float_setCallbacks(engine, this, onSpectrum, keepRunning);
		varkesh_lumbrel_engine_float_reset(engine);
		return run(engine, inputs, inputs.size(), block);
	}
	const varkesh::lumbrel::EngineImpl<float> &impl() const { return *engine.handle; }
	float hz(std::size_t band) const { return varkesh_lumbrel_engine_float_nominalHz(engine, band); }
};

// A sine midway between two tracked bands pulls both bands' measured frequency within a quarter of their spacing, on
// both channels. Copied bands show the STFT scaled by 1 / windowSamples at their nominal frequency. Band 0 stays real;
// silence gives zeros at nominal frequencies.
TEST(Analysis, BandsMeasureWhatComesIn) {
	Probe probe(2);
	const std::size_t low = probe.impl().lowBandCount();
	std::vector<float> re[2], im[2], hz[2];
	std::size_t band0Complex = 0;
	probe.effect = [&](varkesh_lumbrel_engine_float *e) {
		for (std::size_t c = 0; c < 2; ++c) {
			const std::size_t n = varkesh_lumbrel_engine_float_bands(e);
			re[c].assign(varkesh_lumbrel_engine_float_inputReal(e, c), varkesh_lumbrel_engine_float_inputReal(e, c) + n);
			im[c].assign(varkesh_lumbrel_engine_float_inputImag(e, c), varkesh_lumbrel_engine_float_inputImag(e, c) + n);
			hz[c].assign(varkesh_lumbrel_engine_float_inputHz(e, c), varkesh_lumbrel_engine_float_inputHz(e, c) + n);
			band0Complex += im[c][0] != 0.0f;
		}
	};
	for (std::size_t b : {14u, 16u, 60u, 150u, 300u, 400u}) {
		const double between = 0.5 * (double(probe.hz(b)) + probe.hz(b + 1)), spacing = probe.hz(b + 1) - probe.hz(b);
		const Signal x = sine(between, 48000, 24000, 0.3);
		probe.render({x, x});
		for (std::size_t c = 0; c < 2; ++c) {
			EXPECT_NEAR(hz[c][b], between, 0.25 * spacing) << "band " << b << ", channel " << c;
			EXPECT_NEAR(hz[c][b + 1], between, 0.25 * spacing) << "band " << b + 1 << ", channel " << c;
		}
	}
	std::vector<float> a(probe.impl().windowLength());
	varkesh::lumbrel::fillAnalysisWindow(a.data(), a.size(), probe.impl().interval());
	const double mean = std::accumulate(a.begin(), a.end(), 0.0) / double(a.size());
	for (std::size_t b : {low + 20, low + 150}) {
		const Signal x = sine(probe.hz(b), 48000, 4800, 0.5);
		probe.render({x, x});
		EXPECT_NEAR(std::hypot(re[0][b], im[0][b]) / (0.25 * mean), 1.0, 0.1) << "band " << b;
		EXPECT_EQ(hz[0][b], probe.hz(b));
	}
	Signal offset = whiteNoise(9600, 0.3, 9);
	for (float &v : offset) v += 0.2f;
	probe.render({offset, offset}, 100);
	EXPECT_EQ(band0Complex, 0u);
	EXPECT_NE(re[0][0], 0.0f);
	probe.render({Signal(4800, 0.0f), Signal(4800, 0.0f)});
	for (std::size_t b = 0; b < re[1].size(); ++b) {
		ASSERT_TRUE(re[1][b] == 0 && im[1][b] == 0 && hz[1][b] == probe.hz(b)) << "band " << b;
	}
}

// Any number of refinement rounds passes a tracked sine at its level.
TEST(Analysis, AnyNumberOfRoundsPassesATrackedSine) {
	for (std::uint64_t iterations : {0u, 1u, 8u}) {
		varkesh_lumbrel_config config = varkesh_lumbrel_config_default();
		config.iterations = iterations;
		Probe probe(1, config);
		probe.effect = [](varkesh_lumbrel_engine_float *e) {
			varkesh_lumbrel_engine_float_addOutputSplit(e, 0, varkesh_lumbrel_engine_float_inputReal(e, 0), varkesh_lumbrel_engine_float_inputImag(e, 0));
		};
		const Signal x = sine(523.25, 48000, 14400);
		const Channels y = probe.render({x});
		EXPECT_LT(std::abs(levelDb(y[0], x, 480, 4800, 9600)), 1.0) << iterations << " rounds";
		EXPECT_LT(residualDb(y[0], x, 480, 4800, 4800 + 9600), -20.0) << iterations << " rounds";
	}
}

// 2000 and 6000 Hz turn by whole cycles per interval (120 samples): the same value at every step is one steady sine of
// twice its magnitude. Calls add up, split and interleaved forms agree, values at Nyquist plus one bin or above (or
// below 0 Hz on x86) are dropped, Nyquist is kept.
TEST(Synthesis, ValuesBecomeSinesAtTheirFrequencies) {
	constexpr std::size_t settled = 1440, measured = 4800, length = settled + measured;
	auto render = [&](std::function<void(varkesh_lumbrel_engine_float *)> effect) {
		Probe probe(1);
		probe.effect = std::move(effect);
		return probe.render({Signal(length, 0.0f)})[0];
	};
	float hz[2] = {2000.0f, 6000.0f}, re[2] = {0.15f, -0.05f}, im[2] = {0.2f, 0.1f};
	float twiceRe[2] = {0.3f, -0.1f}, twiceIm[2] = {0.4f, 0.2f};
	std::complex<float> pairs[2] = {{0.15f, 0.2f}, {-0.05f, 0.1f}};
	const Signal once = render([&](auto *e) { varkesh_lumbrel_engine_float_addOutputSplitMoved(e, 0, twiceRe, twiceIm, hz, 2); });
	EXPECT_NEAR(dB(magnitudeAt(once, settled, measured, 2000, 48000) / 1.0), 0.0, 0.05);
	EXPECT_NEAR(dB(magnitudeAt(once, settled, measured, 6000, 48000) / (2 * std::hypot(0.1, 0.2))), 0.0, 0.05);
	const Signal twice = render([&](auto *e) {
		varkesh_lumbrel_engine_float_addOutputSplitMoved(e, 0, re, im, hz, 2);
		varkesh_lumbrel_engine_float_addOutputInterleavedMoved(e, 0, pairs, hz, 2);
	});
	for (std::size_t i = 0; i < length; ++i) ASSERT_EQ(twice[i], once[i]) << i;
	// Thirteen values take the forms' vector steps of eight and four and the single one.
	std::vector<float> manyHz(13), manyRe(13), manyIm(13);
	std::vector<std::complex<float>> many(13);
	for (std::size_t k = 0; k < 13; ++k) {
		manyHz[k] = 1000.0f + 370.0f * float(k), manyRe[k] = 0.02f * float(k), manyIm[k] = 0.1f - 0.01f * float(k);
		many[k] = {manyRe[k], manyIm[k]};
	}
	const Signal split = render([&](auto *e) {
		varkesh_lumbrel_engine_float_addOutputSplitMoved(e, 0, manyRe.data(), manyIm.data(), manyHz.data(), 13);
	});
	const Signal interleaved = render([&](auto *e) {
		varkesh_lumbrel_engine_float_addOutputInterleavedMoved(e, 0, many.data(), manyHz.data(), 13);
	});
	for (std::size_t i = 0; i < length; ++i) ASSERT_EQ(interleaved[i], split[i]) << i;
	std::vector<float> dropped = {24000 + 48000.0f / 768, 30000, 1e9f};
#if defined(__x86_64__)
	dropped.push_back(-100);
#endif
	for (float f : dropped) {
		const Signal y = render([&](auto *e) { varkesh_lumbrel_engine_float_addOutputSplitMoved(e, 0, re, im, &f, 1); });
		EXPECT_EQ(rms(y.data(), y.size()), 0.0) << f << " Hz";
	}
	float nyquist = 24000;
	const Signal y = render([&](auto *e) { varkesh_lumbrel_engine_float_addOutputSplitMoved(e, 0, re, im, &nyquist, 1); });
	EXPECT_GT(rms(y.data() + settled, measured), 0.01);
	// A value past the top right after one at Nyquist leaves it and the next value as they are.
	float keptHz[2] = {24000, 2000}, pastHz[3] = {24000, 30000, 2000}, pastRe[3] = {0.15f, 0.3f, -0.05f},
		  pastIm[3] = {0.2f, 0.1f, 0.1f}, keptRe[2] = {0.15f, -0.05f}, keptIm[2] = {0.2f, 0.1f};
	const Signal kept = render([&](auto *e) { varkesh_lumbrel_engine_float_addOutputSplitMoved(e, 0, keptRe, keptIm, keptHz, 2); });
	const Signal past = render([&](auto *e) { varkesh_lumbrel_engine_float_addOutputSplitMoved(e, 0, pastRe, pastIm, pastHz, 3); });
	for (std::size_t i = 0; i < length; ++i) ASSERT_EQ(past[i], kept[i]) << i;
}

} // namespace
