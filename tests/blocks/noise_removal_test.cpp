// Noise removal: the gain on rows made by hand, and the adaptive print following the noise floor inside a small clean-up
// effect on the engine.
#include "blocks/noise_removal.h"

#include "blocks/block_harness.h"

#include <gtest/gtest.h>

using namespace lumbrel_test;
using varkesh::lumbrel::SimpleNoiseRemoval;

namespace {

// One frame of subtract() with envelope E and print N the same in every band, on an input of 0.6 + 0.8i: the complex
// gain of band 10.
std::complex<float> gainOf(float energy, float print, float strength, float mix) {
	ProbeEffect probe(1, 1);
	SimpleNoiseRemoval<float> removal;
	removal.init(probe);
	varkesh::lumbrel::BumpVector<float> real(probe.bands, 0.6f), imag(probe.bands, 0.8f);
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

// E = 4, N = 1, resolution 20: the ratio less one is 3 in every band, which smoothing keeps, so the gate sees 3 + 3
// sqrt(20) - strength^2, squared into x and turned into x / (1 + x); power subtraction gives sqrt(1 - N / E). The gain
// is real. Mix on the curve (2 - mix) mix; under the print a band goes silent unless mixed; an untrained print (1e-30)
// passes everything.
TEST(NoiseRemoval, GainIsPowerSubtractionTimesASoftGate) {
	const double gate1 = std::pow(3 + 3 * std::sqrt(20.0) - 1, 2), gate4 = std::pow(3 + 3 * std::sqrt(20.0) - 16, 2);
	const std::complex<float> strength1 = gainOf(4, 1, 1, 1), strength4 = gainOf(4, 1, 4, 1);
	EXPECT_NEAR(strength1.real(), gate1 / (1 + gate1) * std::sqrt(0.75), 1e-5);
	EXPECT_NEAR(strength4.real(), gate4 / (1 + gate4) * std::sqrt(0.75), 1e-5);
	EXPECT_NEAR(strength1.imag(), 0.0f, 1e-6f);
	EXPECT_NEAR(gainOf(4, 1, 4, 0.5f).real(), 0.75 * strength4.real() + 0.25, 1e-5);
	EXPECT_EQ(gainOf(4, 1, 4, 0).real(), 1.0f);
	EXPECT_EQ(gainOf(0.5f, 1, 1, 1), std::complex<float>(0, 0));
	EXPECT_NEAR(gainOf(0.5f, 1, 1, 0.5f).real(), 0.25, 1e-6);
	EXPECT_EQ(gainOf(1e-6f, 1e-30f, 1, 1).real(), 1.0f);
}

// Nothing is learned in the first four envelope periods (40 ms); then the floor goes down. 20 dB more noise: the print
// lags at first and catches up within two epochs of a second.
TEST(NoiseRemoval, AdaptivePrintFollowsTheNoiseFloor) {
	ProbeEffect probe(1, 1);
	SimpleNoiseRemoval<float> removal;
	removal.envelope.smoothing = 0;
	removal.envelope.periodMs = 10;
	removal.init(probe);
	std::vector<float> weights;
	probe.frame = [&](ProbeEffect &e) {
		removal.envelope.update(e);
		removal.updateNoiseAuto(e, 1);
		weights.push_back(removal.noiseWeight);
		removal.subtract(e, 1, 1);
		varkesh_lumbrel_engine_float_addOutputSplit(e.engine, 0, e.inputReal(0), e.inputImag(0));
	};
	auto tailDb = [](const Signal &out, const Signal &in, std::size_t from, std::size_t to) {
		return dB(rms(out, from, to) / rms(in, from, to));
	};
	const Signal quiet = whiteNoise(3 * 48000, std::sqrt(3.0) * std::pow(10.0, -2.5), 8); // -50 dB rms
	const Signal loud = whiteNoise(4 * 48000, std::sqrt(3.0) * std::pow(10.0, -1.5), 9);
	Signal out = runEffect(probe, {quiet})[0];
	const std::size_t settled = std::size_t(0.04 * probe.subRate);
	EXPECT_EQ(weights[settled - 2], 0.0f);
	EXPECT_GT(weights[settled + 2], 0.0f);
	EXPECT_LT(tailDb(out, quiet, 2 * 48000, 3 * 48000), -20);
	out = runEffect(probe, {loud})[0];
	EXPECT_GT(tailDb(out, loud, 0, 9600), -6);
	EXPECT_LT(tailDb(out, loud, 3 * 48000, 4 * 48000), -20);
}
