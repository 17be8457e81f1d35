#pragma once
// Test signals and measurements for audio that comes out of a plug-in.
#include <cmath>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace lumbrel_test {

constexpr double pi = 3.14159265358979323846;

inline std::vector<float> sine(double hz, double sampleRate, std::size_t frames, double amplitude = 0.5, double phase = 0) {
	std::vector<float> out(frames);
	for (std::size_t i = 0; i < frames; ++i) out[i] = float(amplitude * std::sin(2 * pi * hz * double(i) / sampleRate + phase));
	return out;
}

// A harmonic tone: `partials` partials of equal amplitude over `f0`.
inline std::vector<float> harmonicTone(double f0, int partials, double sampleRate, std::size_t frames, double amplitude = 0.1) {
	std::vector<float> out(frames, 0.0f);
	for (int k = 1; k <= partials; ++k) {
		if (k * f0 >= 0.45 * sampleRate) break;
		for (std::size_t i = 0; i < frames; ++i) out[i] += float(amplitude * std::sin(2 * pi * k * f0 * double(i) / sampleRate + k));
	}
	return out;
}

inline std::vector<float> whiteNoise(std::size_t frames, double amplitude, std::uint32_t seed) {
	std::mt19937 random(seed);
	std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
	std::vector<float> out(frames);
	for (float &x : out) x = float(amplitude) * uniform(random);
	return out;
}

inline double rms(const std::vector<float> &x, std::size_t from = 0, std::size_t to = std::size_t(-1)) {
	to = std::min(to, x.size());
	double sum = 0;
	for (std::size_t i = from; i < to; ++i) sum += double(x[i]) * x[i];
	return to > from ? std::sqrt(sum / double(to - from)) : 0;
}

inline double dB(double ratio) { return 20 * std::log10(ratio + 1e-300); }

// RMS of a - b (b delayed by `delay`) over [from, to), relative to RMS of b, in dB.
inline double residualDb(const std::vector<float> &out, const std::vector<float> &in, std::size_t delay, std::size_t from,
	std::size_t to) {
	double err = 0, ref = 0;
	for (std::size_t i = from; i < to; ++i) {
		const double expected = i >= delay ? in[i - delay] : 0.0;
		err += (out[i] - expected) * (out[i] - expected);
		ref += expected * expected;
	}
	return 10 * std::log10(err / (ref + 1e-300) + 1e-300);
}

// Magnitude of x near `hz` (a Hann-windowed DFT at that one frequency).
inline double magnitudeAt(const std::vector<float> &x, std::size_t from, std::size_t length, double hz, double sampleRate) {
	std::complex<double> sum = 0;
	double windowSum = 0;
	for (std::size_t i = 0; i < length; ++i) {
		const double w = 0.5 - 0.5 * std::cos(2 * pi * (double(i) + 0.5) / double(length));
		sum += w * double(x[from + i]) * std::polar(1.0, -2 * pi * hz * double(i) / sampleRate);
		windowSum += w;
	}
	return 2 * std::abs(sum) / windowSum;
}

// The frequency of the strongest component within `searchHz` of `nearHz`: a fine scan of the Hann-windowed DFT, refined
// by a parabola through the three best points.
inline double peakFrequency(const std::vector<float> &x, std::size_t from, std::size_t length, double nearHz,
	double searchHz, double sampleRate) {
	const double step = sampleRate / double(length) / 8;
	double bestHz = nearHz, best = -1;
	for (double hz = nearHz - searchHz; hz <= nearHz + searchHz; hz += step) {
		const double m = magnitudeAt(x, from, length, hz, sampleRate);
		if (m > best) {
			best = m;
			bestHz = hz;
		}
	}
	const double a = std::log(magnitudeAt(x, from, length, bestHz - step, sampleRate) + 1e-30);
	const double b = std::log(best + 1e-30);
	const double c = std::log(magnitudeAt(x, from, length, bestHz + step, sampleRate) + 1e-30);
	const double denominator = a - 2 * b + c;
	return denominator < 0 ? bestHz + 0.5 * step * (a - c) / denominator : bestHz;
}

inline double cents(double hz, double reference) { return 1200 * std::log2(hz / reference); }

} // namespace lumbrel_test
