// Noise removal: the gain on rows made by hand, and inside a small clean-up
// effect driven through the engine, where the adaptive print follows the
// noise floor (the plug-in's tests measure a learned print).
#include "blocks/noise_removal.h"

#include "blocks/block_harness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <vector>

using namespace lumbrel_test;
using varkesh::lumbrel::BumpVector;
using varkesh::lumbrel::SimpleNoiseRemoval;

namespace {

constexpr float rate = 48000;

double fromDb(double db) { return std::pow(10.0, db / 20); }

// The clean-up pipeline: envelope, learning, subtraction, and the cleaned
// input rows added to the output, channel o taking input o % channelsIn.
class CleanupProbe : public LumbrelEffect<float> {
public:
	enum class Learn { off, adaptive };

	SimpleNoiseRemoval<float> removal;
	Learn learn = Learn::off;
	float epochSeconds = 10;
	std::vector<float> weights; // noiseWeight after each frame, while there is room

	explicit CleanupProbe(std::size_t channels)
		: LumbrelEffect(channels, channels, rate, varkesh_lumbrel_config_default()) {
		removal.envelope.smoothing = 0;
		removal.envelope.periodMs = 10;
	}

	void init(std::size_t frames = 0) {
		reserveScratch();
		removal.init(*this);
		weights.reserve(frames);
		varkesh_lumbrel_engine_float_reset(engine);
	}

protected:
	void onSpectrum() override {
		removal.envelope.update(*this);
		if (learn == Learn::adaptive) removal.updateNoiseAuto(*this, epochSeconds);
		if (weights.size() < weights.capacity()) weights.push_back(removal.noiseWeight);
		removal.subtract(*this, 1, 1);
		for (std::size_t o = 0; o < channelsOut; ++o) {
			const std::size_t c = o % channelsIn;
			varkesh_lumbrel_engine_float_addOutputSplit(engine, o, inputReal(c), inputImag(c));
		}
	}
};

Signal operator+(const Signal &a, const Signal &b) {
	Signal sum(a.size());
	for (std::size_t i = 0; i < a.size(); ++i) sum[i] = a[i] + b[i];
	return sum;
}

std::size_t samples(double seconds) { return std::size_t(seconds * rate); }

// Level of the last `seconds` of out against the same stretch of in, in dB.
double tailDb(const Signal &out, const Signal &in, double seconds) {
	const std::size_t n = samples(seconds), from = out.size() - n;
	return dB(rms(out.data() + from, n) / rms(in.data() + from, n));
}

// White noise, -40 dBFS rms unless told.
Signal noise(double seconds, std::uint32_t seed, double rmsDb = -40) {
	return whiteNoise(samples(seconds), fromDb(rmsDb) * std::sqrt(3.0), seed);
}

// One frame of subtract() on rows made by hand: envelope E and print N the
// same in every band, input 0.6 + 0.8i. Returns the complex gain of band 10.
std::complex<float> gainOf(float energy, float print, float strength, float mix) {
	ProbeEffect probe(1, 1);
	SimpleNoiseRemoval<float> removal;
	removal.init(probe);
	BumpVector<float> real(probe.bands, 0.6f), imag(probe.bands, 0.8f);
	std::complex<float> gain;
	probe.frame = [&](ProbeEffect &effect) {
		if (effect.frames > 1) return;
		varkesh_lumbrel_engine_float_setInputReal(effect.engine, 0, real.data());
		varkesh_lumbrel_engine_float_setInputImag(effect.engine, 0, imag.data());
		std::fill(removal.envelope.envelope[0].begin(), removal.envelope.envelope[0].end(), energy);
		std::fill(removal.noise[0].begin(), removal.noise[0].end(), print);
		removal.subtract(effect, strength, mix);
		gain = std::complex<float>(effect.inputReal(0)[10], effect.inputImag(0)[10]) / std::complex<float>(0.6f, 0.8f);
	};
	runEffect(probe, {Signal(1024, 0.1f)});
	return gain;
}

} // namespace

TEST(NoiseRemoval, GainIsPowerSubtractionTimesASoftGate) {
	// E = 4, N = 1, resolution 20: the ratio less one is 3 in every band,
	// which smoothing keeps, so the gate sees 3 + 3 sqrt(20) - strength^2,
	// squared into x and turned into x / (1 + x); power subtraction gives
	// sqrt(1 - N / E) = 0.8660. The gain is real, so phase is kept.
	const double gate1 = std::pow(3 + 3 * std::sqrt(20.0) - 1, 2), gate4 = std::pow(3 + 3 * std::sqrt(20.0) - 16, 2);
	const std::complex<float> strength1 = gainOf(4, 1, 1, 1), strength4 = gainOf(4, 1, 4, 1);
	EXPECT_NEAR(strength1.real(), gate1 / (1 + gate1) * std::sqrt(0.75), 1e-5);
	EXPECT_NEAR(strength4.real(), gate4 / (1 + gate4) * std::sqrt(0.75), 1e-5);
	EXPECT_NEAR(strength1.imag(), 0.0f, 1e-6f);
	// Mix on the curve (2 - mix) mix: 0.5 keeps 0.25 dry, 0 passes all.
	EXPECT_NEAR(gainOf(4, 1, 4, 0.5f).real(), 0.75 * strength4.real() + 0.25, 1e-5);
	EXPECT_EQ(gainOf(4, 1, 4, 0).real(), 1.0f);
	// Under the print a band goes silent, unless mixed with the dry sound.
	EXPECT_EQ(gainOf(0.5f, 1, 1, 1), std::complex<float>(0, 0));
	EXPECT_NEAR(gainOf(0.5f, 1, 1, 0.5f).real(), 0.25, 1e-6);
	// An untrained print (1e-30) passes everything.
	EXPECT_EQ(gainOf(1e-6f, 1e-30f, 1, 1).real(), 1.0f);
}

TEST(NoiseRemoval, AdaptivePrintFollowsTheNoiseFloor) {
	CleanupProbe probe(1);
	probe.learn = CleanupProbe::Learn::adaptive;
	probe.epochSeconds = 1;
	probe.init(100);

	const Signal quiet = noise(3, 8, -50);
	Signal out = runEffect(probe, {quiet})[0];
	// Nothing is learned in the first four envelope periods (40 ms, 16 frames).
	const std::size_t settled = std::size_t(0.04 * probe.subRate);
	EXPECT_EQ(probe.weights[settled - 2], 0.0f);
	EXPECT_GT(probe.weights[settled + 2], 0.0f);
	EXPECT_LT(tailDb(out, quiet, 1), -20);

	// 20 dB more noise: the print lags at first, and within two epochs it has
	// caught up, the floor being down again (after about one epoch as built).
	const Signal loud = noise(4, 9, -30);
	out = runEffect(probe, {loud})[0];
	const std::size_t n = samples(0.2), lateFrom = out.size() - samples(1);
	EXPECT_GT(dB(rms(out.data(), n) / rms(loud.data(), n)), -6);
	EXPECT_LT(dB(rms(out.data() + lateFrom, samples(1)) / rms(loud.data() + lateFrom, samples(1))), -20);
}

