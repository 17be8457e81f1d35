// The band envelope: two poles with the period's time constant on the way
// down, all but instant on the way up, optional smoothing across bands, a
// floor. Measured on spectra made by hand (fed to the envelope in place of the
// engine's rows) and on tones through the engine.
#include "blocks/envelope.h"

#include "blocks/block_harness.h"
#include "support/alloc_counter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <vector>

using namespace lumbrel_test;
using varkesh::lumbrel::BumpVector;
using varkesh::lumbrel::Envelope;

namespace {

constexpr float rate = 48000;

double fromDb(double db) { return std::pow(10.0, db / 20); }

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

namespace {

// The envelope of the engine's own analysis, with the raw band energy beside
// it, at one band of channel 0; channel 1's envelope is kept whole.
class ToneProbe : public LumbrelEffect<float> {
public:
	Envelope<float> envelope;
	std::size_t watchBand = 0;
	std::vector<float> trace, raw;

	ToneProbe(std::size_t channels) : LumbrelEffect(channels, channels, rate, varkesh_lumbrel_config_default()) {}

	void init(std::size_t frames) {
		reserveScratch();
		envelope.init(*this);
		trace.reserve(frames);
		raw.reserve(frames);
		varkesh_lumbrel_engine_float_reset(engine);
	}

protected:
	void onSpectrum() override {
		const float re = inputReal(0)[watchBand], im = inputImag(0)[watchBand];
		envelope.update(*this);
		if (trace.size() < trace.capacity()) {
			trace.push_back(envelope.envelope[0][watchBand]);
			raw.push_back(re * re + im * im);
		}
		for (std::size_t c = 0; c < channelsOut; ++c) {
			varkesh_lumbrel_engine_float_addOutputSplit(engine, c, inputReal(c), inputImag(c));
		}
	}
	bool onSilence() override { return true; }
};

// First frame from `from` at which x comes within `db` of `target` (energy, dB).
std::size_t firstWithin(const std::vector<float> &x, std::size_t from, float target, double db) {
	for (std::size_t i = from; i < x.size(); ++i) {
		if (std::abs(10 * std::log10(x[i] / target)) <= db) return i;
	}
	return x.size();
}

} // namespace

TEST(Envelope, FollowsAToneStepThroughTheEngine) {
	// A 1 kHz tone at -40 dBFS steps to -10 dBFS for 0.5 s and back; channel 1 is silent.
	const double seconds = 1.5;
	const std::size_t length = std::size_t(seconds * rate);
	const std::size_t upAt = length / 3, downAt = 2 * length / 3;
	Signal tone = sine(1000, rate, length, 1.0);
	for (std::size_t i = 0; i < length; ++i) tone[i] *= float(i >= upAt && i < downAt ? fromDb(-10) : fromDb(-40));

	double fallMs[2];
	const float periods[2] = {20, 40};
	for (int p = 0; p < 2; ++p) {
		ToneProbe probe(2);
		probe.envelope.smoothing = 0;
		probe.envelope.periodMs = periods[p];
		probe.watchBand = std::size_t(std::lround(probe.nominalBand(1000)));
		const std::size_t frames = std::size_t(seconds * probe.subRate) + 4;
		probe.init(frames);
		runEffect(probe, {tone, Signal(length, 0.0f)});
		ASSERT_GT(probe.trace.size(), frames - 8);

		const std::size_t up = std::size_t(double(upAt) / rate * probe.subRate);
		const std::size_t down = std::size_t(double(downAt) / rate * probe.subRate);
		const float low = probe.raw[up - 10], high = probe.raw[down - 10];
		EXPECT_NEAR(10 * std::log10(high / low), 30, 1) << "the tone's band carries the step";

		// Attack: where the band's energy leaps, the envelope lands on it in
		// the same frame, and it comes within 10 dB of the loud level no more
		// than two frames (5 ms) after the band's energy does.
		std::size_t leap = up;
		while (leap < down && !(probe.raw[leap] > 10 * probe.trace[leap - 1])) ++leap;
		ASSERT_LT(leap, down);
		EXPECT_NEAR(10 * std::log10(probe.trace[leap] / probe.raw[leap]), 0, 0.5) << periods[p] << " ms";
		const std::size_t rawRise = firstWithin(probe.raw, up, high, 10);
		const std::size_t envelopeRise = firstWithin(probe.trace, up, high, 10);
		EXPECT_LE(envelopeRise, rawRise + 2) << periods[p] << " ms";

		// Release: the raw energy is 20 dB down within the analysis window,
		// the envelope only at the period's pace.
		std::size_t rawFall = down, envelopeFall = down;
		while (rawFall < probe.raw.size() && probe.raw[rawFall] > 0.01f * high) ++rawFall;
		while (envelopeFall < probe.trace.size() && probe.trace[envelopeFall] > 0.01f * high) ++envelopeFall;
		fallMs[p] = 1000.0 * double(envelopeFall - rawFall) / probe.subRate;
		EXPECT_GT(fallMs[p], 4 * periods[p]) << periods[p] << " ms";
		EXPECT_LT(fallMs[p], 8 * periods[p]) << periods[p] << " ms";

		for (float value : probe.envelope.envelope[1]) ASSERT_EQ(value, 1e-30f) << "channels are their own";
	}
	// Doubling the period about doubles the release (100 and 230 ms as built).
	EXPECT_GT(fallMs[1] / fallMs[0], 1.6);
	EXPECT_LT(fallMs[1] / fallMs[0], 2.6);
}

TEST(Envelope, AllocatesNothingAfterInit) {
	if (!allocationCountingAvailable()) GTEST_SKIP() << "allocation counting unavailable";
	ToneProbe probe(2);
	probe.envelope.smoothing = 1;
	probe.init(1000);
	const Signal tone = sine(440, rate, 256, 0.3);
	Signal out0(256), out1(256);
	const float *in[] = {tone.data(), tone.data()};
	float *out[] = {out0.data(), out1.data()};
	probe.process(in, out, 256); // first frames
	AllocationScope scope;
	for (int i = 0; i < 200; ++i) probe.process(in, out, 256);
	EXPECT_EQ(scope.count(), 0u);
	EXPECT_GT(probe.trace.size(), 100u);
}
