#pragma once
// What the two chorus tests do alike: run an instance with chorus settings,
// measure the spread of a tone's spectrum, and automate it hostilely.
#include "support/alloc_counter.h"
#include "support/effect_checks.h"
#include "support/signals.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <random>
#include <utility>
#include <vector>

namespace lumbrel_test {

// A fresh instance of `pluginId` with the given "chorusConfig" texts, run over
// `input` (one row for both channels, or two); `latency`, if given, receives
// the instance's latency.
inline std::vector<std::vector<float>> runChorus(const lumbrel::host::Bundle &bundle, const char *pluginId,
	const std::vector<std::vector<float>> &input, std::initializer_list<std::pair<const char *, const char *>> settings,
	std::size_t *latency = nullptr) {
	PluginRunner runner(bundle, pluginId);
	EXPECT_TRUE(runner.ok);
	for (const auto &[key, text] : settings) setText(runner, {"chorusConfig", key}, text);
	if (latency) *latency = runner.instance->latency();
	return runner.run(input);
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
	std::size_t bad = 0; // samples that were not finite
	double peak = 0;
	std::size_t allocations = 0; // in the measured part, after a warm-up
};

// Noise over a tone on the left and gated bursts on the right, in blocks of
// random length, with four value events a block: `ranged` at random positions
// from -2 to 3 or at far extremes, `stepped` (if not 0) at integers from -3
// to 3.
inline AutomationResult automate(
	PluginRunner &runner, const std::vector<clap_id> &ranged, clap_id stepped, unsigned seed) {
	const double extremes[] = {-1e9, -100, -3, -1, -0.25, 0, 1, 1.02, 1.06, 1.25, 2, 7, 100, 1e9};
	const std::size_t length = 96000; // ten bursts
	std::vector<float> left(length), right(length);
	std::mt19937 noiseSeed(seed);
	std::normal_distribution<float> noise(0, 0.2f);
	for (std::size_t n = 0; n < length; ++n) {
		left[n] = 0.3f * std::sin(0.13f * float(n)) + noise(noiseSeed);
		right[n] = (n / 4800) % 2 ? 0.0f : 0.5f * std::sin(0.021f * float(n));
	}
	RandomBlocks blocks(runner, seed, left, right);
	auto &random = blocks.random;
	std::uniform_real_distribution<double> position(-2, 3);
	auto events = [&](std::uint32_t frames) {
		for (int e = 0; e < 4; ++e) {
			const auto time = std::uint32_t(random() % frames);
			if (stepped && random() % 5 == 0) {
				runner.events.paramValue(time, stepped, double(int(random() % 7) - 3));
			} else {
				const double value = random() % 3 ? position(random) : extremes[random() % std::size(extremes)];
				runner.events.paramValue(time, ranged[random() % ranged.size()], value);
			}
		}
	};
	blocks.play(200, events);
	AllocationScope scope;
	blocks.play(2000, events);
	const std::size_t allocations = allocationCountingAvailable() ? scope.count() : 0;
	return {blocks.bad, blocks.peak, allocations};
}

} // namespace lumbrel_test
