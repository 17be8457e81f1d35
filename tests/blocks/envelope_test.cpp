// The band envelope: two poles with the period's time constant on the way
// down, all but instant on the way up, optional smoothing across bands, a
// floor; measured on spectra made by hand, fed to the envelope in place of
// the engine's rows.
#include "blocks/envelope.h"

#include "blocks/block_harness.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <vector>

using namespace lumbrel_test;
using varkesh::lumbrel::BumpVector;
using varkesh::lumbrel::Envelope;

namespace {

constexpr float rate = 48000;

// Shows the envelope a spectrum of its own making: each frame, channel 0 gets
// the energy levels[frame] in every band (or in `spikeBand` only, the other
// bands being 0). Frames past the end of `levels` leave everything alone.
class SyntheticProbe : public LumbrelEffect<float> {
public:
	Envelope<float> envelope;
	std::vector<float> levels;
	long spikeBand = -1;
	std::size_t watchBand = 0;
	std::vector<float> trace; // envelope[0][watchBand] after each frame
	std::size_t frame = 0;

	SyntheticProbe() : LumbrelEffect(1, 1, rate, varkesh_lumbrel_config_default()) {}

	void init() {
		reserveScratch();
		envelope.init(*this);
		real.resize(bands);
		imag.resize(bands);
		varkesh_lumbrel_engine_float_reset(engine);
	}

	// Silence in, until `count` frames have been made.
	void runFrames(std::size_t count) {
		levels.resize(count, levels.empty() ? 0.0f : levels.back());
		trace.reserve(count);
		const std::vector<float> silence(64, 0.0f);
		std::vector<float> out(64);
		const float *in[] = {silence.data()};
		float *outs[] = {out.data()};
		while (frame < count) process(in, outs, silence.size());
	}

protected:
	BumpVector<float> real, imag;

	void onSpectrum() override {
		if (frame >= levels.size()) return;
		const float amplitude = std::sqrt(levels[frame]);
		for (std::size_t b = 0; b < bands; ++b) {
			real[b] = (spikeBand < 0 || long(b) == spikeBand) ? amplitude : 0.0f;
			imag[b] = 0;
		}
		varkesh_lumbrel_engine_float_setInputReal(engine, 0, real.data());
		varkesh_lumbrel_engine_float_setInputImag(engine, 0, imag.data());
		envelope.update(*this);
		trace.push_back(envelope.envelope[0][watchBand]);
		++frame;
	}
	bool onSilence() override { return true; } // keep the frames coming
};

// Frames from `start` until trace falls to `ratio` of trace[start - 1].
std::size_t framesToFall(const std::vector<float> &trace, std::size_t start, float ratio) {
	const float target = trace[start - 1] * ratio;
	for (std::size_t i = start; i < trace.size(); ++i) {
		if (trace[i] <= target) return i - start + 1;
	}
	return trace.size();
}

// Frames of two identical poles p = T / (T + 1) to fall to `ratio` from rest
// at 1 with no input: stage is p^n and envelope p^n (1 + n (1 - p)), since
// each frame adds (1 - p) p^(n+1) to p times the last value.
std::size_t twoPoleFallFrames(double periodFrames, double ratio) {
	const double p = periodFrames / (periodFrames + 1);
	std::size_t n = 0;
	while (std::pow(p, double(n)) * (1 + double(n) * (1 - p)) > ratio) ++n;
	return n;
}

} // namespace

TEST(Envelope, FallsWithTwoPolesOfThePeriodAndRestsAtTheFloor) {
	double fallMs[2];
	const float periods[2] = {20, 80};
	for (int i = 0; i < 2; ++i) {
		SyntheticProbe probe;
		probe.envelope.smoothing = 0;
		probe.envelope.periodMs = periods[i];
		probe.init();
		const std::size_t steady = 50;
		probe.levels.assign(steady, 1.0f);
		probe.levels.resize(steady + 3000, 0.0f);
		probe.runFrames(steady + 3000);
		ASSERT_NEAR(probe.trace[steady - 1], 1.0f, 1e-5f);

		const double periodFrames = periods[i] * 0.001 * probe.subRate;
		const std::size_t frames = framesToFall(probe.trace, steady, 0.01f); // -20 dB
		EXPECT_NEAR(double(frames), double(twoPoleFallFrames(periodFrames, 0.01)), 1.0) << periods[i] << " ms";
		fallMs[i] = 1000.0 * double(frames) / probe.subRate;
		// Two poles of time constant tau fall to 1% in about 6.64 tau.
		EXPECT_NEAR(fallMs[i] / periods[i], 6.64, 0.6) << periods[i] << " ms";
		EXPECT_EQ(probe.trace.back(), 1e-30f) << "stops at the floor";
	}
	EXPECT_NEAR(fallMs[1] / fallMs[0], 4.0, 0.2);
}

TEST(Envelope, RisesWithinAFrameOrTwo) {
	SyntheticProbe probe;
	probe.envelope.smoothing = 0;
	probe.init();
	const std::size_t steady = 100;
	probe.levels.assign(steady, 1e-6f);
	probe.levels.resize(2 * steady, 1.0f); // +60 dB
	probe.levels.resize(3 * steady, 1e-6f);
	probe.levels.resize(4 * steady, 1e-5f); // +10 dB
	probe.runFrames(4 * steady + 50);

	// A million times the envelope: the rate is 1, so one frame lands on it.
	EXPECT_NEAR(probe.trace[steady], 1.0f, 1e-5f);
	// +10 dB is within 0.5 dB after two frames.
	EXPECT_GT(10 * std::log10(probe.trace[3 * steady + 1] / 1e-5f), -0.5);

	// Falling the same 10 dB takes the period's pace: many frames.
	const std::size_t fall = framesToFall(probe.trace, 2 * steady, 0.1f);
	EXPECT_GT(fall, 15u);
}

TEST(Envelope, SmoothingSpreadsEnergyAcrossBandsByItsWidth) {
	// Half-width (bands until the level halves, above the spike) and the sum of
	// all bands, for a spike in one band.
	struct Spread {
		std::size_t halfWidth;
		double sum, peak;
	};
	auto spread = [](float smoothing) {
		SyntheticProbe probe;
		probe.envelope.smoothing = smoothing;
		probe.spikeBand = long(probe.bands / 2);
		probe.init();
		probe.levels.assign(1, 1.0f);
		probe.runFrames(200);
		const auto &row = probe.envelope.envelope[0];
		const std::size_t k = probe.bands / 2;
		Spread s{0, 0, row[k]};
		while (k + s.halfWidth + 1 < row.size() && row[k + s.halfWidth + 1] > 0.5f * row[k]) ++s.halfWidth;
		for (float v : row) s.sum += v > 1e-29f ? v : 0;
		return s;
	};
	const Spread none = spread(0), narrow = spread(0.25f), wide = spread(1);
	EXPECT_EQ(none.peak, 1.0f);
	EXPECT_EQ(none.halfWidth, 0u);
	EXPECT_NEAR(none.sum, 1.0, 1e-6);
	// Widths 5 and 20 bands at a resolution of 20: a one-pole of coefficient
	// 1 - 1 / (w + 1) halves in ln 2 / ln(1 + 1/w) bands, 3.8 and 14.6 (the
	// two passes together a little more).
	EXPECT_GE(narrow.halfWidth, 3u);
	EXPECT_LE(narrow.halfWidth, 6u);
	EXPECT_GE(wide.halfWidth, 14u);
	EXPECT_LE(wide.halfWidth, 22u);
	// Smoothing moves energy, it doesn't make it.
	EXPECT_NEAR(narrow.sum, 1.0, 0.01);
	EXPECT_NEAR(wide.sum, 1.0, 0.01);
}
