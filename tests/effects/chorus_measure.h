#pragma once
// What the two chorus tests do alike: run an instance with chorus settings,
// and measure the spread of a tone's spectrum.
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

} // namespace lumbrel_test
