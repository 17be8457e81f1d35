#pragma once
// Measurements of pitch-shifted audio, shared by the quality benchmark and its tests: a tracker of one partial of known
// frequency, and a steady tone's spectrum split into its partials and everything else.
#include "support/signals.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <numeric>
#include <vector>

namespace lumbrel_test {

// The phase (radians) of a partial whose frequency at sample i is hz[i].
inline std::vector<double> phaseOf(const std::vector<double> &hz, double sampleRate) {
	std::vector<double> phase(hz.size());
	double sum = 0;
	for (std::size_t i = 0; i < hz.size(); ++i) {
		phase[i] = sum;
		sum += 2 * pi * hz[i] / sampleRate;
	}
	return phase;
}

// A glide of half an octave per second between `low` and `high` Hz, up (direction > 0) or down, held for a quarter of
// a second at each end: its frequency per sample.
inline std::vector<double> glideHz(int direction, double low, double high, double sampleRate) {
	const double seconds = 2 * std::log2(high / low);
	std::vector<double> hz(std::size_t((seconds + 0.5) * sampleRate));
	for (std::size_t i = 0; i < hz.size(); ++i) {
		const double t = std::clamp(double(i) / sampleRate - 0.25, 0.0, seconds);
		hz[i] = direction > 0 ? low * std::exp2(0.5 * t) : high * std::exp2(-0.5 * t);
	}
	return hz;
}

inline std::vector<float> fromPhase(const std::vector<double> &phase, double amplitude) {
	std::vector<float> x(phase.size());
	for (std::size_t i = 0; i < x.size(); ++i) x[i] = float(amplitude * std::sin(phase[i]));
	return x;
}

inline double mean(const std::vector<double> &x) { return std::accumulate(x.begin(), x.end(), 0.0) / double(x.size()); }

// One partial followed frame by frame: x taken down to 0 Hz by the phase the partial should have (expected[i]), under a
// Hann window of `window` samples every `hop`. Per frame: the amplitude, and the frequency error in cents against
// expectedHz at the frame's centre (from the phase step between frames).
struct PartialTrack {
	std::vector<double> amplitude, cents;
	double levelWanderDb() const {
		const auto [lo, hi] = std::minmax_element(amplitude.begin(), amplitude.end());
		return dB(*hi / (*lo + 1e-300));
	}
	double meanAmplitude() const { return mean(amplitude); }
	double meanCents() const { return mean(cents); }
	double centsRms() const { // spread of the frequency error around its mean
		double sum = 0;
		for (double c : cents) sum += (c - meanCents()) * (c - meanCents());
		return std::sqrt(sum / double(cents.size()));
	}
};

inline PartialTrack trackPartial(const std::vector<float> &x, const std::vector<double> &expected,
	const std::vector<double> &expectedHz, std::size_t from, std::size_t to, std::size_t window, std::size_t hop,
	double sampleRate) {
	PartialTrack track;
	std::vector<double> w(window);
	double windowSum = 0;
	for (std::size_t i = 0; i < window; ++i) {
		w[i] = 0.5 - 0.5 * std::cos(2 * pi * (double(i) + 0.5) / double(window));
		windowSum += w[i];
	}
	std::complex<double> previous;
	bool first = true;
	for (std::size_t start = from; start + window <= to; start += hop) {
		std::complex<double> sum = 0;
		for (std::size_t i = 0; i < window; ++i) sum += w[i] * double(x[start + i]) * std::polar(1.0, -expected[start + i]);
		track.amplitude.push_back(2 * std::abs(sum) / windowSum);
		if (!first) {
			const double errorHz = std::arg(sum * std::conj(previous)) * sampleRate / (2 * pi * double(hop));
			const double hz = expectedHz[start + window / 2];
			track.cents.push_back(cents(hz + errorHz, hz));
		}
		previous = sum;
		first = false;
	}
	return track;
}

// In-place radix-2 transform; size a power of two.
inline void fftInPlace(std::vector<std::complex<double>> &x) {
	const std::size_t n = x.size();
	for (std::size_t i = 1, j = 0; i < n; ++i) {
		std::size_t bit = n >> 1;
		for (; j & bit; bit >>= 1) j ^= bit;
		j ^= bit;
		if (i < j) std::swap(x[i], x[j]);
	}
	for (std::size_t length = 2; length <= n; length <<= 1) {
		const std::complex<double> step = std::polar(1.0, -2 * pi / double(length));
		for (std::size_t i = 0; i < n; i += length) {
			std::complex<double> rotate = 1;
			for (std::size_t k = 0; k < length / 2; ++k, rotate *= step) {
				const auto a = x[i + k], b = x[i + k + length / 2] * rotate;
				x[i + k] = a + b;
				x[i + k + length / 2] = a - b;
			}
		}
	}
}

// Amplitude spectrum of x[from, from + length) under a 4-term Blackman-Harris window: sidelobes 92 dB down, main lobe 4
// bins either side.
inline std::vector<double> amplitudeSpectrum(const std::vector<float> &x, std::size_t from, std::size_t length) {
	std::vector<std::complex<double>> bins(length);
	double windowSum = 0;
	for (std::size_t i = 0; i < length; ++i) {
		const double phase = 2 * pi * double(i) / double(length);
		const double w = 0.35875 - 0.48829 * std::cos(phase) + 0.14128 * std::cos(2 * phase) - 0.01168 * std::cos(3 * phase);
		bins[i] = w * double(x[from + i]);
		windowSum += w;
	}
	fftInPlace(bins);
	std::vector<double> amplitude(length / 2);
	for (std::size_t k = 0; k < length / 2; ++k) amplitude[k] = 2 * std::abs(bins[k]) / windowSum;
	return amplitude;
}

// A steady tone's spectrum split into the main lobes around `partialsHz` and everything else from 20 Hz to 20 kHz: the
// strongest other component in dB below the strongest partial, and the power of all the rest against the partials'.
struct ToneSpectrum {
	double strongestSpuriousDb, floorDb;
	std::vector<double> partialAmplitude;
};

inline ToneSpectrum toneSpectrum(const std::vector<float> &x, std::size_t from, std::size_t length,
	const std::vector<double> &partialsHz, double sampleRate) {
	const auto spectrum = amplitudeSpectrum(x, from, length);
	const double binHz = sampleRate / double(length);
	std::vector<bool> inPartial(spectrum.size(), false);
	ToneSpectrum result{};
	double top = 0;
	for (double hz : partialsHz) {
		const double centre = hz / binHz;
		double peak = 0;
		for (std::size_t k = std::size_t(std::max(0.0, centre - 4.5)); k <= std::size_t(centre + 4.5) && k < spectrum.size(); ++k) {
			inPartial[k] = true;
			peak = std::max(peak, spectrum[k]);
		}
		result.partialAmplitude.push_back(peak);
		top = std::max(top, peak);
	}
	double spurious = 0, restPower = 0, partialPower = 0;
	for (std::size_t k = std::size_t(20 / binHz); k < std::min(spectrum.size(), std::size_t(20000 / binHz)); ++k) {
		const double p = spectrum[k] * spectrum[k];
		if (inPartial[k]) {
			partialPower += p;
		} else {
			restPower += p;
			spurious = std::max(spurious, spectrum[k]);
		}
	}
	result.strongestSpuriousDb = dB(spurious / (top + 1e-300));
	result.floorDb = 10 * std::log10(restPower / (partialPower + 1e-300) + 1e-300);
	return result;
}

} // namespace lumbrel_test
