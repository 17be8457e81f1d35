// SmoothedGains: transparency, the transient pull and boost, smoothing width and energy weighting, detail boost and cut,
// addOutput on the engine's output; smoothBands under it, and smoothAll.
#include "block_harness.h"

#include "blocks/smooth_bands.h"
#include "blocks/smoothed_gains.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <vector>

namespace {

using namespace lumbrel_test;
using varkesh::lumbrel::SmoothedGains;

constexpr double degrees = 180 / pi;

// A fresh SmoothedGains on a default grid (677 bands), every effect off so that a test turns on only what it measures.
struct GainsFixture : ::testing::Test {
	ProbeEffect effect{1, 1};
	SmoothedGains<float> gains;
	std::vector<float> energy;
	std::size_t bands = 0;
	void SetUp() override {
		gains.init(effect);
		bands = effect.bands;
		energy.assign(bands, 1.0f);
		gains.phaseSmoothing = gains.transientReset = gains.detailBoost = gains.transientSmoothing = gains.transientBoost = 0;
		setGains(1, 0);
	}
	void setGains(float re, float im) {
		std::fill(gains.gainsReal.begin(), gains.gainsReal.end(), re);
		std::fill(gains.gainsImag.begin(), gains.gainsImag.end(), im);
	}
	void setPhase(std::size_t from, std::size_t to, double radians, float magnitude = 1) {
		for (std::size_t b = from; b < to; ++b) {
			gains.gainsReal[b] = magnitude * float(std::cos(radians));
			gains.gainsImag[b] = magnitude * float(std::sin(radians));
		}
	}
	// Runs one frame on the current energy, so that previousEnergy holds it.
	void settle() {
		std::vector<float> re(gains.gainsReal.begin(), gains.gainsReal.end());
		std::vector<float> im(gains.gainsImag.begin(), gains.gainsImag.end());
		gains.smooth(effect, energy.data(), false);
		gains.gainsReal.assign(re.begin(), re.end());
		gains.gainsImag.assign(im.begin(), im.end());
	}
	double phaseDegrees(std::size_t b) const { return std::atan2(gains.gainsImag[b], gains.gainsReal[b]) * degrees; }
	double magnitude(std::size_t b) const { return std::hypot(gains.gainsReal[b], gains.gainsImag[b]); }
};

// At the defaults steady unit gains pass unchanged (transient boost must not act on steady energy); silence gives
// exactly zero gains.
TEST_F(GainsFixture, DefaultsPassSteadyGainsAndSilenceGivesZero) {
	SmoothedGains<float> defaults;
	gains.phaseSmoothing = defaults.phaseSmoothing;
	gains.transientReset = defaults.transientReset;
	gains.detailBoost = defaults.detailBoost;
	gains.transientSmoothing = defaults.transientSmoothing;
	gains.transientBoost = 2;
	for (std::size_t b = 0; b < bands; ++b) energy[b] = 1 + 0.5f * float(std::sin(0.05 * double(b)));
	setGains(0, 0);
	settle();
	setPhase(0, bands, 1.0);
	gains.smooth(effect, energy.data(), false);
	for (std::size_t b = 0; b < bands; ++b) {
		ASSERT_NEAR(phaseDegrees(b), 1.0 * degrees, 0.01) << b;
		ASSERT_NEAR(dB(magnitude(b)), 0, 0.001) << b;
	}
	std::fill(energy.begin(), energy.end(), 0.0f);
	setPhase(0, bands, 0.3);
	gains.smooth(effect, energy.data(), true);
	for (std::size_t b = 0; b < bands; ++b) ASSERT_TRUE(gains.gainsReal[b] == 0 && gains.gainsImag[b] == 0) << b;
}

// A transient T = ((E - previous) / E)^2 adds T transientReset |gain| to the real part: j turns to atan2(1, T
// transientReset). Nothing is pulled below half the low cut; above it both energies fade alike.
TEST_F(GainsFixture, TransientsPullThePhaseTowardZero) {
	struct Case { float previous, energy, reset, transient; };
	for (const Case c : {Case{0, 1, 1, 1}, Case{0, 1, 3, 1}, Case{1, 1, 1, 0}, Case{1, 4, 1, 0.5625f}, Case{4, 1, 1, 0}}) {
		gains.transientReset = c.reset;
		std::fill(gains.previousEnergy.begin(), gains.previousEnergy.end(), c.previous);
		std::fill(energy.begin(), energy.end(), c.energy);
		setPhase(0, bands, pi / 2);
		gains.smooth(effect, energy.data(), false);
		const double expected = std::atan2(1.0, double(c.transient * c.reset)) * degrees;
		for (std::size_t b : {std::size_t(gains.lowCutBands) + 1, std::size_t(400), bands - 1}) {
			EXPECT_NEAR(phaseDegrees(b), expected, 0.01) << "band " << b << ", energy " << c.previous << " to " << c.energy;
			EXPECT_NEAR(magnitude(b), 1.0, 1e-5);
		}
	}
	const float cut = gains.lowCutBands;
	ASSERT_GT(cut, 8);
	std::fill(gains.previousEnergy.begin(), gains.previousEnergy.end(), 0.0f);
	setPhase(0, bands, pi / 2);
	gains.smooth(effect, energy.data(), false);
	for (std::size_t b = 1; float(b) < cut * 0.5f; ++b) EXPECT_NEAR(phaseDegrees(b), 90.0, 1e-3) << "band " << b;
	EXPECT_NEAR(phaseDegrees(std::size_t(cut * 0.75f)), 45.0, 0.01);
}

// Transient boost on onsets only; unitGains: magnitude 1 whatever was written. Detail boost on a full transient: B = 1 +
// T (1 - r) transientReset detailBoost / (transientReset + 1) = 1.8 for r = -1, and the pull of 1.8 turns -1 into +0.8,
// which gets magnitude 1.8; the same from the raw magnitude.
TEST_F(GainsFixture, TransientBoostAndUnitGains) {
	gains.transientBoost = 2;
	setGains(0.5f, 0);
	gains.smooth(effect, energy.data(), false); // onset: 0.5 x (1 + 1 x 2)
	EXPECT_NEAR(magnitude(300), 1.5, 1e-5);
	setGains(0.5f, 0);
	gains.smooth(effect, energy.data(), false); // steady
	EXPECT_NEAR(magnitude(300), 0.5, 1e-6);
	gains.transientBoost = 0;
	setGains(3, 0);
	settle();
	gains.smooth(effect, energy.data(), true);
	EXPECT_NEAR(magnitude(300), 1.0, 1e-6);
	for (bool unit : {true, false}) {
		gains.transientReset = 1;
		gains.detailBoost = 0.8f;
		std::fill(gains.previousEnergy.begin(), gains.previousEnergy.end(), 0.0f);
		setGains(-1, 0);
		gains.smooth(effect, energy.data(), unit);
		EXPECT_NEAR(gains.gainsReal[300], 1.8, 1e-5) << "unitGains " << unit;
		EXPECT_NEAR(gains.gainsImag[300], 0.0, 1e-6);
	}
}

// The width of the 10-90% region of a 0 to 90 degree phase step at band k.
std::size_t transitionWidth(GainsFixture &f, float phaseSmoothing, std::size_t k) {
	f.gains.phaseSmoothing = phaseSmoothing;
	f.setPhase(0, k, 0);
	f.setPhase(k, f.bands, pi / 2);
	f.settle();
	f.gains.smooth(f.effect, f.energy.data(), false);
	std::size_t width = 0;
	for (std::size_t b = 0; b < f.bands; ++b) {
		double p = f.phaseDegrees(b);
		if (p > 9 && p < 81) ++width;
	}
	return width;
}

TEST_F(GainsFixture, SmoothingWidthScalesWithPhaseSmoothing) {
	const std::size_t k = 300;
	EXPECT_EQ(transitionWidth(*this, 0, k), 0u); // a step stays a step
	EXPECT_NEAR(phaseDegrees(k), 90.0, 1e-4);
	std::size_t wide = transitionWidth(*this, 200, k);   // w = 40 bands
	std::size_t narrow = transitionWidth(*this, 100, k); // w = 20 bands
	EXPECT_GT(narrow, 20u);
	EXPECT_LT(narrow, 120u);
	EXPECT_NEAR(double(wide) / double(narrow), 2.0, 0.25);
	// Far from the step the phases are left alone, and the level is restored.
	EXPECT_NEAR(phaseDegrees(k - 200), 0.0, 0.1);
	EXPECT_NEAR(phaseDegrees(k + 200), 90.0, 0.1);
	EXPECT_NEAR(magnitude(k), 1.0, 1e-5);
}

TEST_F(GainsFixture, SmoothingIsWeightedByEnergy) {
	// Loud at 0 degrees beside quiet at 90: the quiet side's border follows the loud.
	const std::size_t k = 300;
	gains.phaseSmoothing = 100;
	for (std::size_t b = k; b < bands; ++b) energy[b] = 1e-3f;
	setPhase(0, k, 0);
	setPhase(k, bands, pi / 2);
	settle();
	gains.smooth(effect, energy.data(), false);
	EXPECT_LT(phaseDegrees(k), 5.0);
	EXPECT_LT(phaseDegrees(k + 5), 15.0);
	EXPECT_GT(phaseDegrees(k - 5), -0.01);
	EXPECT_LT(phaseDegrees(k - 5), 0.1);
}

// Opposite phases cancel at their border when smoothed; detail boost gives back up to 1 / (1 - d) there (-0.5 is d = -1:
// a cut to 0.5), nothing far off.
TEST_F(GainsFixture, DetailBoostRestoresLevelWherePhasesDisagree) {
	const struct {
		float boost;
		double low, high;
	} cases[] = {{0, 0.99, 1.01}, {0.8f, 4.0, 5.001}, {-0.5f, 0.499, 0.55}};
	const std::size_t k = 300;
	for (const auto &c : cases) {
		gains.phaseSmoothing = 100;
		gains.detailBoost = c.boost;
		setPhase(0, k, 0);
		setPhase(k, bands, pi);
		settle();
		gains.smooth(effect, energy.data(), false);
		double border = 0;
		for (std::size_t b = k - 3; b <= k + 3; ++b) {
			const double m = magnitude(b);
			if (c.boost >= 0 ? m > border : (border == 0 || m < border)) border = m;
		}
		EXPECT_TRUE(border >= c.low && border <= c.high) << "boost " << c.boost << ": " << border;
		EXPECT_NEAR(magnitude(k - 200), 1.0, 1e-4) << "boost " << c.boost;
	}
}

// addOutput through the engine: a complex gain scales and turns a tone; so does `gain`.
TEST(SmoothedGainsOutput, AddOutputAppliesComplexGainAndScale) {
	const float rate = 48000;
	const std::size_t length = 24000, from = 12000, n = 9600; // 9600 = 44 periods of 1100 Hz
	const double hz = 1100;
	Signal input = sine(hz, rate, length, 0.5, 0.0);
	Signal quadrature = sine(hz, rate, length, 0.5, pi / 2);
	struct Case { float re, im, gain; };
	std::vector<Signal> outputs;
	std::size_t latency = 0;
	for (Case c : {Case{1, 0, 1}, Case{0, 0.5f, 1}, Case{0, 0.5f, 2}, Case{-1, 0, 0.25f}}) {
		ProbeEffect effect(1, 1, rate);
		latency = varkesh_lumbrel_engine_float_latencySamples(effect.engine);
		SmoothedGains<float> gains;
		gains.init(effect);
		std::fill(gains.gainsReal.begin(), gains.gainsReal.end(), c.re);
		std::fill(gains.gainsImag.begin(), gains.gainsImag.end(), c.im);
		effect.frame = [&](ProbeEffect &e) { gains.addOutput(e, 0, e.inputReal(0), e.inputImag(0), c.gain); };
		outputs.push_back(runEffect(effect, {input})[0]);
	}
	auto correlation = [&](const Signal &out, const Signal &reference) {
		double sum = 0, norm = 0;
		for (std::size_t i = from; i < from + n; ++i) {
			sum += double(out[i]) * reference[i - latency];
			norm += double(reference[i - latency]) * reference[i - latency];
		}
		return sum / norm; // the reference's share in the output, as a gain
	};
	EXPECT_NEAR(levelDb(outputs[0], input, latency, from, n), 0.0, 0.1);
	EXPECT_NEAR(correlation(outputs[0], input), 1.0, 0.01);
	EXPECT_NEAR(levelDb(outputs[1], input, latency, from, n), -6.02, 0.1);
	EXPECT_NEAR(correlation(outputs[1], input), 0.0, 0.01);
	EXPECT_NEAR(correlation(outputs[1], quadrature), 0.5, 0.01); // j advances the phase by 90 degrees
	EXPECT_NEAR(levelDb(outputs[2], input, latency, from, n), 0.0, 0.1);
	EXPECT_NEAR(correlation(outputs[3], input), -0.25, 0.005);
}

// smoothBands leaves a row alone at widths at or below its floor; two opposed one-pole passes spread an impulse
// symmetrically with variance 2 w (w + 1).
TEST(SmoothBands, ImpulseSpreadsSymmetricallyByTheWidth) {
	for (float width : {0.0f, 1e-19f, -3.0f}) {
		std::vector<float> x{1, 5, -2, 7, 0};
		const std::vector<float> before = x;
		varkesh::lumbrel::smoothBands(x.data(), x.size(), width);
		EXPECT_EQ(x, before) << "width " << width;
	}
	const std::size_t n = 2001, centre = 1000;
	for (float width : {0.5f, 2.0f, 8.0f, 40.0f}) {
		std::vector<float> x(n, 0.0f);
		x[centre] = 1;
		varkesh::lumbrel::smoothBands(x.data(), n, width);
		double sum = 0, first = 0, second = 0;
		for (std::size_t i = 0; i < n; ++i) {
			const double d = double(i) - double(centre);
			sum += x[i];
			first += x[i] * d;
			second += x[i] * d * d;
		}
		EXPECT_NEAR(first / sum, 0.0, 1e-3) << "width " << width;
		EXPECT_NEAR(std::sqrt(second / sum - std::pow(first / sum, 2)) / std::sqrt(2.0 * width * (width + 1)), 1.0, 0.01) << "width " << width;
	}
}

// smoothBandsMany on one to five rows (the blocked form, and a vector of lanes plus one) equals smoothBandsRows row by
// row within rounding, at lengths below, at and past a block of four, and leaves rows alone at or below the floor.
TEST(SmoothBands, ManyRowsMatchOneAtATime) {
	std::mt19937 random(3);
	std::uniform_real_distribution<float> uniform(0.1f, 1);
	for (std::size_t count : {1, 2, 3, 4, 5, 6, 9, 31}) {
		for (float width : {1e-18f, 2e-18f, 0.7f, 30.0f}) {
			for (std::size_t rowCount = 1; rowCount <= 5; ++rowCount) {
				std::vector<std::vector<float>> many(rowCount, std::vector<float>(count));
				for (auto &row : many)
					for (float &v : row) v = uniform(random);
				auto one = many;
				std::vector<float *> rows;
				for (auto &row : many) rows.push_back(row.data());
				varkesh::lumbrel::smoothBandsMany(rows.data(), rowCount, count, width);
				for (std::size_t k = 0; k < rowCount; ++k) {
					float *const serial[1] = {one[k].data()};
					varkesh::lumbrel::smoothBandsRows(serial, count, width);
					for (std::size_t i = 0; i < count; ++i)
						ASSERT_NEAR(many[k][i], one[k][i], 1e-6f * one[k][i]) << count << " bands, width " << width << ", "
																				<< rowCount << " rows, row " << k << ", band " << i;
				}
			}
		}
	}
}

// smoothAll gives every set what smooth() gives it alone, whatever mix of settings (widths that group and don't, more
// sets than one pass takes): the same up to rounding, as a few rows run in another form of the smoothing than many.
TEST(SmoothAll, MatchesSmoothingEachSetAlone) {
	struct Settings { float phaseSmoothing, detailBoost, transientSmoothing, transientBoost; };
	constexpr Settings table[] = {{1, 0.8f, 1, 0}, {1, 0.8f, 1, 0}, {1, 0, 1, 0.5f}, {3, 0.8f, 0, 0}, {3, -0.5f, 2, 0},
		{1, 0.8f, 1, 0}, {0, 0.8f, 1, 0}, {1, 0.8f, 1, 0}, {1, 0, 0, 0}, {2, 0.3f, 1, 1}};
	constexpr std::size_t count = std::size(table);
	ProbeEffect effect{1, 1};
	std::array<SmoothedGains<float>, count> together, alone;
	std::array<SmoothedGains<float> *, count> sets;
	std::mt19937 random(7);
	std::uniform_real_distribution<float> uniform(-1, 1);
	for (std::size_t k = 0; k < count; ++k) {
		for (auto *g : {&together[k], &alone[k]}) {
			g->init(effect);
			g->phaseSmoothing = table[k].phaseSmoothing;
			g->detailBoost = table[k].detailBoost;
			g->transientSmoothing = table[k].transientSmoothing;
			g->transientBoost = table[k].transientBoost;
		}
		sets[k] = &together[k];
	}
	const std::size_t bands = effect.bands;
	std::vector<float> energy(bands);
	for (int frame = 0; frame < 3; ++frame) {
		for (float &e : energy) e = uniform(random) + 1;
		for (std::size_t k = 0; k < count; ++k) {
			for (std::size_t b = 0; b < bands; ++b) {
				together[k].gainsReal[b] = alone[k].gainsReal[b] = uniform(random);
				together[k].gainsImag[b] = alone[k].gainsImag[b] = uniform(random);
			}
			alone[k].smooth(effect, energy.data(), false);
		}
		SmoothedGains<float>::smoothAll(effect, energy.data(), false, sets.data(), count);
		for (std::size_t k = 0; k < count; ++k) {
			float worst = 0;
			for (std::size_t b = 0; b < bands; ++b) {
				worst = std::max({worst, std::abs(together[k].gainsReal[b] - alone[k].gainsReal[b]),
					std::abs(together[k].gainsImag[b] - alone[k].gainsImag[b])});
			}
			EXPECT_LT(worst, 1e-5f) << "set " << k;
		}
	}
}

} // namespace
