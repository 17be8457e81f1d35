#include "render/demo_signal.h"

#include <cmath>
#include <cstdint>

namespace lumbrel::render {

namespace {

constexpr double pi = 3.14159265358979323846;

double noteHz(double midi) { return 440.0 * std::pow(2.0, (midi - 69.0) / 12.0); }

// A band-limited harmonic tone with 1/k partials, added into `out`.
void addTone(std::vector<float> &out, double sampleRate, double start, double duration, double hz, double gain,
	double decaySeconds) {
	const auto first = std::size_t(start * sampleRate);
	const auto count = std::size_t(duration * sampleRate);
	const int partials = int(std::min(24.0, 0.45 * sampleRate / hz));
	for (std::size_t i = 0; i < count && first + i < out.size(); ++i) {
		const double t = double(i) / sampleRate;
		const double attack = std::min(1.0, t / 0.005);
		const double release = std::min(1.0, (duration - t) / 0.02);
		double env = gain * attack * release * std::exp(-t / decaySeconds);
		double v = 0;
		for (int k = 1; k <= partials; ++k) v += std::sin(2 * pi * hz * k * t) / k;
		out[first + i] += float(env * v);
	}
}

} // namespace

Audio demoSignal(double sampleRate) {
	const double seconds = 8;
	Audio audio;
	audio.sampleRate = sampleRate;
	audio.channels.assign(2, std::vector<float>(std::size_t(seconds * sampleRate), 0.0f));
	auto &left = audio.channels[0], &right = audio.channels[1];

	// Held chord (A minor, then F major), slightly apart in the two channels.
	const double chords[2][3] = {{57, 60, 64}, {53, 57, 60}};
	for (int c = 0; c < 2; ++c) {
		for (double note : chords[c]) {
			addTone(left, sampleRate, c * 4.0, 4.0, noteHz(note), 0.06, 6.0);
			addTone(right, sampleRate, c * 4.0, 4.0, noteHz(note) * 1.001, 0.06, 6.0);
		}
	}
	// Plucked melody, centred.
	const double melody[] = {69, 72, 76, 74, 72, 69, 67, 69, 72, 77, 76, 72, 74, 72, 69, 64};
	for (int n = 0; n < 16; ++n) {
		std::vector<float> line(left.size(), 0.0f);
		addTone(line, sampleRate, n * 0.5, 0.48, noteHz(melody[n]), 0.12, 0.25);
		for (std::size_t i = 0; i < line.size(); ++i) {
			left[i] += line[i];
			right[i] += line[i];
		}
	}
	// Drum-like hits every half second: a falling low thump and a noise burst.
	std::uint32_t seed = 12345;
	auto noise = [&seed] {
		seed = seed * 1664525u + 1013904223u;
		return double(seed >> 8) / double(1u << 24) * 2.0 - 1.0;
	};
	for (int hit = 0; hit < 16; ++hit) {
		const auto start = std::size_t((hit * 0.5 + 0.25) * sampleRate);
		const bool snare = hit % 2 == 1;
		double phase = 0;
		for (std::size_t i = 0; i < std::size_t(0.3 * sampleRate) && start + i < left.size(); ++i) {
			const double t = double(i) / sampleRate;
			phase += 2 * pi * (50 + 120 * std::exp(-t / 0.03)) / sampleRate;
			double v = (snare ? 0.15 : 0.4) * std::sin(phase) * std::exp(-t / 0.12);
			v += (snare ? 0.25 : 0.05) * noise() * std::exp(-t / (snare ? 0.06 : 0.02));
			left[start + i] += float(v);
			right[start + i] += float(v);
		}
	}
	// A vowel-like buzz sweeping its formant, in the last two seconds, left.
	for (std::size_t i = std::size_t(6 * sampleRate); i < left.size(); ++i) {
		const double t = double(i) / sampleRate - 6;
		const double f0 = 110, formant = 500 + 1500 * t / 2;
		double v = 0;
		for (int k = 1; k * f0 < 0.45 * sampleRate && k < 60; ++k) {
			const double d = (k * f0 - formant) / 250;
			v += std::exp(-d * d) * std::sin(2 * pi * k * f0 * t);
		}
		left[i] += float(0.08 * v * std::min(1.0, t / 0.05) * std::min(1.0, (2 - t) / 0.05));
	}
	// A faint noise floor.
	for (std::size_t i = 0; i < left.size(); ++i) {
		left[i] += float(0.002 * noise());
		right[i] += float(0.002 * noise());
	}
	return audio;
}

} // namespace lumbrel::render
