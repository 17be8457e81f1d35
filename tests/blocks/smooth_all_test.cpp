// SmoothedGains::smoothAll must give every set exactly what smooth() gives it
// alone, whatever mix of settings the sets carry (widths that group and widths
// that don't, detail boost on and off, more sets than one pass takes).
#include "block_harness.h"

#include "blocks/smoothed_gains.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>

namespace {

using namespace lumbrel_test;
using varkesh::lumbrel::SmoothedGains;

struct Settings {
	float phaseSmoothing, detailBoost, transientSmoothing, transientBoost;
};

TEST(SmoothAll, MatchesSmoothingEachSetAlone) {
	constexpr Settings table[] = {
		{1, 0.8f, 1, 0},
		{1, 0.8f, 1, 0},
		{1, 0, 1, 0.5f},
		{3, 0.8f, 0, 0},
		{3, -0.5f, 2, 0},
		{1, 0.8f, 1, 0},
		{0, 0.8f, 1, 0},
		{1, 0.8f, 1, 0},
		{1, 0, 0, 0},
		{2, 0.3f, 1, 1},
	};
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
			SCOPED_TRACE(k);
			EXPECT_EQ(0, std::memcmp(together[k].gainsReal.data(), alone[k].gainsReal.data(), bands * sizeof(float)));
			EXPECT_EQ(0, std::memcmp(together[k].gainsImag.data(), alone[k].gainsImag.data(), bands * sizeof(float)));
		}
	}
}

} // namespace
