#include "render/demo_signal.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace lumbrel::render {

namespace {

constexpr double pi = 3.14159265358979323846;
constexpr double voiceEnd = 2.7, phraseEnd = 5.4;

double noteHz(double midi) { return 440.0 * std::pow(2.0, (midi - 69.0) / 12.0); }

std::size_t frameAt(double seconds, double sampleRate) { return std::size_t(seconds * sampleRate); }

// Uniform noise from -1 to 1; a fixed seed keeps the demo the same each run.
struct Noise {
	std::uint32_t seed;
	double operator()() {
		seed = seed * 1664525u + 1013904223u;
		return double(seed >> 8) / double(1u << 24) * 2.0 - 1.0;
	}
};

// A plucked string: 1/k partials, upper ones dying faster, added into `out`.
void addPluck(std::vector<float> &out, double sampleRate, double start, double duration, double hz, double gain,
	double decaySeconds) {
	const std::size_t first = frameAt(start, sampleRate);
	const std::size_t count = std::min(frameAt(duration, sampleRate), out.size() - std::min(first, out.size()));
	const int partials = int(std::min(24.0, 0.45 * sampleRate / hz));
	for (int k = 1; k <= partials; ++k) {
		const double tau = decaySeconds / std::sqrt(double(k));
		const double step = 2 * pi * hz * k * (1 + 0.0004 * k * k) / sampleRate; // a little stiffness
		for (std::size_t i = 0; i < count; ++i) {
			const double t = double(i) / sampleRate;
			const double envelope = std::min(1.0, t / 0.002) * std::min(1.0, (duration - t) / 0.02) * std::exp(-t / tau);
			out[first + i] += float(gain / k * envelope * std::sin(step * double(i)));
		}
	}
}

// A soft held tone (a few partials, slow attack and release).
void addPad(std::vector<float> &out, double sampleRate, double start, double duration, double hz, double gain) {
	const std::size_t first = frameAt(start, sampleRate);
	const std::size_t count = std::min(frameAt(duration, sampleRate), out.size() - std::min(first, out.size()));
	for (std::size_t i = 0; i < count; ++i) {
		const double t = double(i) / sampleRate;
		const double envelope = std::min(1.0, t / 0.3) * std::min(1.0, (duration - t) / 0.3);
		double v = 0;
		for (int k = 1; k <= 6; ++k) v += std::sin(2 * pi * hz * k * t) / (k * k);
		out[first + i] += float(gain * envelope * v);
	}
}

// Sung vowels: a buzz through three formant peaks, one syllable per vowel.
void addVowels(std::vector<float> &out, double sampleRate) {
	struct Vowel {
		double f1, f2, f3;
	};
	const Vowel vowels[] = {{730, 1090, 2440}, {530, 1840, 2480}, {270, 2290, 3010}, {570, 840, 2410}, {300, 870, 2240}};
	const double pitches[] = {57, 59, 60, 62, 57};
	for (int s = 0; s < 5; ++s) {
		const double start = 0.1 + 0.5 * s, length = 0.45;
		const std::size_t first = frameAt(start, sampleRate), count = frameAt(length, sampleRate);
		const Vowel &v = vowels[s];
		const double f0 = noteHz(pitches[s] - 12);
		for (std::size_t i = 0; i < count && first + i < out.size(); ++i) {
			const double t = double(i) / sampleRate;
			const double vibrato = 1 + 0.01 * std::sin(2 * pi * 5.5 * t) * std::min(1.0, t / 0.2);
			const double envelope = std::min(1.0, t / 0.04) * std::min(1.0, (length - t) / 0.06);
			double sum = 0;
			for (int k = 1; k * f0 < std::min(5000.0, 0.45 * sampleRate); ++k) {
				const double hz = k * f0;
				auto peak = [hz](double centre, double width) {
					const double d = (hz - centre) / width;
					return std::exp(-d * d);
				};
				const double a = peak(v.f1, 90) + 0.5 * peak(v.f2, 120) + 0.25 * peak(v.f3, 160) + 0.02;
				sum += a * std::sin(2 * pi * hz * vibrato * t + k);
			}
			out[first + i] += float(0.12 * envelope * sum);
		}
	}
}

// The first 2.6 s of `voice`, mixed to mono, levelled to a peak of 0.5 and
// faded at both ends, from 0.1 s on.
void addVoice(std::vector<float> &out, double sampleRate, const Audio &voice) {
	const std::size_t first = frameAt(0.1, sampleRate);
	const std::size_t count = std::min(voice.frames(), frameAt(voiceEnd - 0.1, sampleRate));
	std::vector<float> mono(count, 0.0f);
	for (const auto &channel : voice.channels) {
		for (std::size_t i = 0; i < count; ++i) mono[i] += channel[i] / float(voice.channels.size());
	}
	float peak = 1e-9f;
	for (const float v : mono) peak = std::max(peak, std::abs(v));
	const std::size_t fade = frameAt(0.01, sampleRate);
	for (std::size_t i = 0; i < count && first + i < out.size(); ++i) {
		const double envelope = std::min(1.0, double(std::min(i, count - 1 - i)) / double(fade));
		out[first + i] += float(0.5 / peak * envelope * mono[i]);
	}
}

} // namespace

Audio demoSignal(double sampleRate, const Audio *voice) {
	Audio audio;
	audio.sampleRate = sampleRate;
	audio.channels.assign(2, std::vector<float>(frameAt(demoSeconds, sampleRate), 0.0f));
	auto &left = audio.channels[0], &right = audio.channels[1];
	std::vector<float> centre(left.size(), 0.0f);

	if (voice && voice->frames() > 0) {
		addVoice(centre, sampleRate, *voice);
	} else {
		addVowels(centre, sampleRate);
	}

	// A minor, held through the phrase, then F major under the drums; the two
	// sides a hair apart in pitch.
	const double chords[2][3] = {{57, 60, 64}, {53, 57, 60}};
	for (int c = 0; c < 2; ++c) {
		const double start = c == 0 ? voiceEnd : phraseEnd, length = (c == 0 ? phraseEnd : demoSeconds) - start;
		for (const double note : chords[c]) {
			addPad(left, sampleRate, start, length, noteHz(note), c == 0 ? 0.05 : 0.03);
			addPad(right, sampleRate, start, length, noteHz(note) * 1.002, c == 0 ? 0.05 : 0.03);
		}
	}
	const double melody[] = {69, 72, 76, 74, 72, 77, 76, 81};
	for (int n = 0; n < 8; ++n) {
		addPluck(centre, sampleRate, voiceEnd + n * 0.3375, n == 7 ? 0.9 : 0.6, noteHz(melody[n]), 0.12, 0.5);
	}

	// Drums at 120 beats a minute: hi-hat on every eighth, kick on beats one
	// and three, snare on two and four; a bass note under each kick.
	Noise noise{12345};
	for (int eighth = 0; eighth < 10; ++eighth) {
		const double start = phraseEnd + 0.25 * eighth;
		const std::size_t first = frameAt(start, sampleRate);
		const bool kick = eighth % 4 == 0, snare = eighth % 4 == 2;
		double phase = 0, previous = 0;
		for (std::size_t i = 0; i < frameAt(0.25, sampleRate) && first + i < left.size(); ++i) {
			const double t = double(i) / sampleRate;
			const double white = noise();
			double v = 0.12 * (white - previous) * std::exp(-t / 0.02); // hi-hat: differenced noise
			previous = white;
			if (kick) {
				phase += 2 * pi * (48 + 110 * std::exp(-t / 0.025)) / sampleRate;
				v += 0.6 * std::sin(phase) * std::exp(-t / 0.15);
			}
			if (snare) v += 0.2 * std::sin(2 * pi * 190 * t) * std::exp(-t / 0.05) + 0.3 * white * std::exp(-t / 0.07);
			centre[first + i] += float(v);
		}
		if (kick) addPluck(centre, sampleRate, start, 0.45, noteHz(eighth == 0 ? 41 : 36), 0.12, 0.4);
	}

	for (std::size_t i = 0; i < left.size(); ++i) {
		left[i] += centre[i] + float(0.004 * noise());
		right[i] += centre[i] + float(0.004 * noise());
	}
	// Leave headroom for effects that add energy (octaver, transient boost).
	float peak = 1e-9f;
	for (const auto &channel : audio.channels) {
		for (const float v : channel) peak = std::max(peak, std::abs(v));
	}
	for (auto &channel : audio.channels) {
		for (auto &v : channel) v *= 0.7f / peak;
	}
	return audio;
}

} // namespace lumbrel::render
