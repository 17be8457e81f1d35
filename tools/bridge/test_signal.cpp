#include "bridge/test_signal.h"

#include <cmath>

namespace lumbrel::bridge {

namespace {
constexpr double twoPi = 6.283185307179586;
constexpr double noteHz[TestSignal::notes] = {220.0, 277.1826, 329.6276, 440.0};
constexpr double swellHz[TestSignal::notes] = {0.13, 0.21, 0.34, 0.55};
// Sum of 1/h over the harmonics: a note's peak, before the swell.
constexpr double harmonicSum = 1 + 1 / 2.0 + 1 / 3.0 + 1 / 4.0 + 1 / 5.0 + 1 / 6.0;
} // namespace

TestSignal::TestSignal(double sampleRate) : sampleRate(sampleRate) {
	for (int n = 0; n < notes; ++n) {
		step[0][n] = twoPi * noteHz[n] / sampleRate;
		step[1][n] = twoPi * noteHz[n] * 1.002 / sampleRate; // a few cents apart: a little width
		swellStep[n] = twoPi * swellHz[n] / sampleRate;
		swellPhase[n] = n * 1.7;
	}
	// The notes' swells never all peak at once; 0.5 over their worst sum.
	toneGain = 0.5 / (notes * harmonicSum);
	noiseGain = 0.5 * 0.01; // -40 dB
}

float TestSignal::noise(int channel) {
	std::uint32_t &x = noiseState[channel];
	x ^= x << 13;
	x ^= x >> 17;
	x ^= x << 5;
	return float(x) * (2.0f / 4294967296.0f) - 1.0f;
}

void TestSignal::fill(float *left, float *right, std::uint32_t frames) {
	float *out[2] = {left, right};
	for (std::uint32_t i = 0; i < frames; ++i) {
		for (int c = 0; c < 2; ++c) {
			double sum = 0;
			for (int n = 0; n < notes; ++n) {
				const double swell = 0.55 + 0.45 * std::sin(swellPhase[n]);
				double tone = 0;
				for (int h = 1; h <= harmonics; ++h) tone += std::sin(h * phase[c][n]) / h;
				sum += swell * tone;
			}
			out[c][i] = float(toneGain * sum) + float(noiseGain) * noise(c);
			for (int n = 0; n < notes; ++n) {
				phase[c][n] += step[c][n];
				if (phase[c][n] > twoPi) phase[c][n] -= twoPi;
			}
		}
		for (int n = 0; n < notes; ++n) {
			swellPhase[n] += swellStep[n];
			if (swellPhase[n] > twoPi) swellPhase[n] -= twoPi;
		}
	}
}

} // namespace lumbrel::bridge
