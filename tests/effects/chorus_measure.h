#pragma once
// What the chorus tests share: the bundle, the host's view of a parameter
// list, the spread of a tone's spectrum, and a bout of hostile automation.
#include "host/bundle.h"
#include "host/instance.h"
#include "support/alloc_counter.h"
#include "support/plugin_runner.h"
#include "support/signals.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace lumbrel_test {

inline std::unique_ptr<lumbrel::host::Bundle> loadBundle() {
	std::string error;
	auto loaded = lumbrel::host::Bundle::load(LUMBREL_BUNDLE_PATH, error);
	EXPECT_TRUE(loaded) << error;
	return loaded;
}

// Sets a parameter by the text a user would type.
inline void setText(PluginRunner &runner, clap_id id, const std::string &text) {
	double position = 0;
	ASSERT_TRUE(runner.instance->paramFromText(id, text, position));
	runner.set(id, position);
}

struct ExpectedParam {
	clap_id id;
	const char *name, *defaultText;
};

// Checks the host's list from index `first` on: ids, names and default texts.
inline void expectParams(lumbrel::host::Instance &instance, std::uint32_t first, const std::vector<ExpectedParam> &expected) {
	ASSERT_GE(instance.paramCount(), first + expected.size());
	for (std::size_t i = 0; i < expected.size(); ++i) {
		clap_param_info info{};
		instance.paramInfo(first + std::uint32_t(i), info);
		EXPECT_EQ(info.id, expected[i].id) << expected[i].name;
		EXPECT_STREQ(info.name, expected[i].name);
		EXPECT_EQ(instance.paramText(info.id, info.default_value), expected[i].defaultText) << expected[i].name;
	}
}

// How far a tone's energy spreads around `hz`: the energy-weighted standard
// deviation of frequency, in cents, over the Hann-windowed spectrum of
// x[from, from + length) within `searchCents` of `hz`. The spectrum is
// sampled every half DFT bin, finely enough for a window four bins wide.
// A steady sine gives about a bin; frequency and level wander widen it.
inline double spreadCents(const std::vector<float> &x, std::size_t from, std::size_t length, double hz,
	double searchCents, double sampleRate) {
	std::vector<double> windowed(length);
	for (std::size_t i = 0; i < length; ++i) {
		windowed[i] = (0.5 - 0.5 * std::cos(2 * pi * (double(i) + 0.5) / double(length))) * x[from + i];
	}
	const double low = hz * std::exp2(-searchCents / 1200), high = hz * std::exp2(searchCents / 1200);
	double weight = 0, sum = 0, sumSquares = 0;
	for (double f = low; f <= high; f += sampleRate / double(length) / 2) {
		// A rotating phasor instead of a sine per sample.
		const std::complex<double> turn = std::polar(1.0, -2 * pi * f / sampleRate);
		std::complex<double> phasor = 1, acc = 0;
		for (std::size_t i = 0; i < length; ++i) {
			acc += windowed[i] * phasor;
			phasor *= turn;
		}
		const double power = std::norm(acc), c = cents(f, hz);
		weight += power;
		sum += power * c;
		sumSquares += power * c * c;
	}
	const double mean = sum / weight;
	return std::sqrt(std::max(sumSquares / weight - mean * mean, 0.0));
}

struct AutomationResult {
	bool finite = true;
	double peak = 0;
	std::size_t allocations = 0; // in the measured part, after a warm-up
};

// Noise, a tone and gated bursts, in blocks of 256, with four value events a
// block: `ranged` at random positions from -2 to 3 or at far extremes,
// `stepped` (if not 0) at integers from -3 to 3.
inline AutomationResult automate(lumbrel::host::Instance &instance, const std::vector<clap_id> &ranged, clap_id stepped,
	unsigned seed) {
	const double extremes[] = {-1e9, -100, -3, -1, -0.25, 0, 1, 1.02, 1.06, 1.25, 2, 7, 100, 1e9};
	std::mt19937 random(seed);
	std::uniform_real_distribution<double> position(-2, 3);
	std::normal_distribution<float> noise(0, 0.2f);
	const std::uint32_t block = 256;
	std::vector<float> left(block), right(block), outLeft(block), outRight(block);
	float *inputs[2] = {left.data(), right.data()};
	float *outputs[2] = {outLeft.data(), outRight.data()};
	lumbrel::host::InputEvents events;
	lumbrel::host::OutputEvents output;
	AutomationResult result;
	std::size_t n = 0;
	auto run = [&](int blocks) {
		for (int b = 0; b < blocks; ++b) {
			for (std::uint32_t i = 0; i < block; ++i, ++n) {
				left[i] = 0.3f * std::sin(0.13f * float(n)) + noise(random);
				right[i] = (n / 4800) % 2 ? 0.0f : 0.5f * std::sin(0.021f * float(n));
			}
			events.clear();
			for (int e = 0; e < 4; ++e) {
				const auto time = std::uint32_t(random() % block);
				if (stepped && random() % 5 == 0) {
					events.paramValue(time, stepped, double(int(random() % 7) - 3));
				} else {
					const double value = random() % 3 ? position(random) : extremes[random() % std::size(extremes)];
					events.paramValue(time, ranged[random() % ranged.size()], value);
				}
			}
			output.clear();
			instance.process(inputs, 2, outputs, 2, block, events, output);
			for (std::uint32_t i = 0; i < block; ++i) {
				result.finite = result.finite && std::isfinite(outLeft[i]) && std::isfinite(outRight[i]);
				result.peak = std::max({result.peak, double(std::fabs(outLeft[i])), double(std::fabs(outRight[i]))});
			}
		}
	};
	run(200);
	AllocationScope scope;
	run(2000);
	result.allocations = allocationCountingAvailable() ? scope.count() : 0;
	return result;
}

} // namespace lumbrel_test
