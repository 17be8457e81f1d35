// Timbre: the envelope's floor, slopes around a single band, and how it rides over a harmonic series: over the partials,
// not into the gaps.
#include "block_harness.h"

#include "blocks/timbre.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

using namespace lumbrel_test;
using varkesh::lumbrel::Timbre;

struct TimbreFixture : ::testing::Test {
	ProbeEffect effect{1, 1}; // resolution 20: W = 20 bands at smoothing 1
	Timbre<float> timbre;
	std::vector<float> energy;
	std::size_t bands = 0;
	void SetUp() override {
		timbre.init(effect);
		bands = effect.bands;
		energy.assign(bands, 0.0f);
	}
};

// Silence gives the floor; at zero width the envelope is the plain square root.
TEST_F(TimbreFixture, FloorAndPlainSquareRoot) {
	timbre.update(effect, energy.data(), false);
	for (std::size_t b = 0; b < bands; ++b) ASSERT_NEAR(timbre.envelope[b], 1e-15f, 1e-21f) << b;
	timbre.smoothing = 0;
	for (std::size_t b = 0; b < bands; ++b) energy[b] = float(b % 7) * 0.25f;
	timbre.update(effect, energy.data(), false);
	for (std::size_t b = 0; b < bands; ++b) ASSERT_EQ(timbre.envelope[b], std::sqrt(energy[b] + 1e-30f)) << b;
}

TEST_F(TimbreFixture, SingleBandCastsSymmetricSlopesOfTheWidth) {
	// The hold passes make energy fall by e^2 per W bands to both sides.
	const std::size_t centre = 300;
	energy[centre] = 1;
	for (float smoothing : {1.0f, 2.0f, 0.5f}) {
		timbre.smoothing = smoothing;
		timbre.update(effect, energy.data(), false);
		const double width = 20.0 * smoothing;
		for (std::size_t d : {1, 10, 40, 100}) {
			double expected = std::exp(-2 * double(d) / width);
			EXPECT_NEAR(timbre.hold[centre + d] / expected, 1.0, 1e-4) << "W " << width << ", right at " << d;
			EXPECT_NEAR(timbre.hold[centre - d] / expected, 1.0, 1e-4) << "W " << width << ", left at " << d;
		}
	}
	// The amplitude envelope falls by e per W = 20 bands far out; the top is rounded off, not raised.
	timbre.smoothing = 1;
	timbre.update(effect, energy.data(), false);
	const auto &env = timbre.envelope;
	EXPECT_NEAR(std::log(env[centre + 220] / env[centre + 200]), -1.0, 0.03);
	EXPECT_NEAR(std::log(env[centre - 220] / env[centre - 200]), -1.0, 0.03);
	for (std::size_t d : {0, 5, 20, 50}) EXPECT_NEAR(env[centre + d] / env[centre - d], 1.0, 0.02) << d;
	EXPECT_LT(env[centre], 1.0f);
	EXPECT_GT(env[centre], 0.5f);
}

TEST_F(TimbreFixture, RidesOverPartialsAndFollowsTheirLevel) {
	// Partials every 10 bands falling 0.2 neper each, over a floor 60 dB down: the envelope follows their level (a 30 dB
	// fall) near their own amplitude and bridges the gaps.
	const std::size_t first = 50, spacing = 10, count = 40;
	std::fill(energy.begin(), energy.end(), 1e-6f);
	std::vector<double> level(count);
	for (std::size_t k = 0; k < count; ++k) {
		level[k] = std::exp(-0.2 * double(k));
		energy[first + k * spacing] = float(level[k]);
	}
	timbre.update(effect, energy.data(), false);
	const auto &env = timbre.envelope;
	double lowestOffset = 1e9, highestOffset = -1e9, worstDip = 0;
	for (std::size_t k = 2; k + 2 < count; ++k) {
		std::size_t at = first + k * spacing;
		double offset = dB(env[at] / std::sqrt(level[k]));
		lowestOffset = std::min(lowestOffset, offset);
		highestOffset = std::max(highestOffset, offset);
		double line = 0.5 * (dB(env[at]) + dB(env[at + spacing]));
		worstDip = std::max(worstDip, line - dB(env[at + spacing / 2]));
	}
	EXPECT_LT(highestOffset - lowestOffset, 1.0);
	EXPECT_GT(lowestOffset, -3.0);
	EXPECT_LT(highestOffset, 3.0);
	EXPECT_LT(worstDip, 1.0);
}

} // namespace
