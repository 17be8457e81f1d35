#pragma once
// The sound that keeps a bridged plug-in busy: an A major chord (A3, C#4, E4,
// A4), each note with six harmonics falling as 1/h, the notes swelling at
// different slow rates so that the spectrum keeps moving, over white noise
// 40 dB below the chord. Stereo, the right channel's notes slightly detuned
// and its noise independent of the left. Peak about 0.5 (-6 dBFS).
#include <cstdint>

namespace lumbrel::bridge {

class TestSignal {
public:
	explicit TestSignal(double sampleRate);

	// Writes the next `frames` samples of each channel.
	void fill(float *left, float *right, std::uint32_t frames);

	static constexpr int notes = 4, harmonics = 6;

private:
	double sampleRate;
	double phase[2][notes] = {};
	double step[2][notes] = {};
	double swellPhase[notes] = {};
	double swellStep[notes] = {};
	double noiseGain, toneGain;
	std::uint32_t noiseState[2] = {0x9E3779B9u, 0x7F4A7C15u};

	float noise(int channel);
};

} // namespace lumbrel::bridge
