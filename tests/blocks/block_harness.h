#pragma once
// Shared helpers of the building-block tests: an effect whose frame is a test's function, and the partials of the audio
// that comes out.
#include "blocks/lumbrel_effect.h"
#include "blocks/peak_shifter.h"
#include "blocks/peaks.h"
#include "engine/engine_harness.h"
#include "support/quality_measures.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

namespace lumbrel_test {

using varkesh::lumbrel::LumbrelConfig;
using varkesh::lumbrel::LumbrelEffect;

// An effect whose frame is whatever the test puts in `frame`; it adds nothing to the output unless the frame does.
class ProbeEffect : public LumbrelEffect<float> {
public:
	ProbeEffect(std::size_t channelsIn, std::size_t channelsOut, float sampleRate = 48000,
		const LumbrelConfig &config = varkesh_lumbrel_config_default())
		: LumbrelEffect(channelsIn, channelsOut, sampleRate, config) {
		reserveScratch();
		varkesh_lumbrel_engine_float_reset(engine);
	}
	std::function<void(ProbeEffect &)> frame;
	std::size_t frames = 0;
	bool keepRunning = false; // onSilence's answer: true runs frames through silence
	void onSpectrum() override {
		++frames;
		if (frame) frame(*this);
	}
	bool onSilence() override { return keepRunning; }
};

template<class Effect>
Channels runEffect(Effect &effect, const Channels &inputs, std::size_t blockSize = 256) {
	return runBlocks(inputs, effect.channelsOut, blockSize,
		[&effect](const float **in, float **out, std::size_t n) { effect.process(in, out, n); });
}

// Sum of sines, each {Hz, amplitude}, with phases spread so that the peaks of the sum stay moderate.
inline Signal tones(const std::vector<std::pair<double, double>> &partials, double sampleRate, std::size_t length) {
	Signal s(length, 0.0f);
	for (std::size_t k = 0; k < partials.size(); ++k) {
		double phase = 0.7 * double(k * k);
		for (std::size_t i = 0; i < length; ++i) {
			s[i] += float(partials[k].second * std::sin(2 * pi * partials[k].first * double(i) / sampleRate + phase));
		}
	}
	return s;
}

// The strongest component within [lowHz, highHz] of a spectrum from amplitudeSpectrum (bins binHz apart), its frequency
// refined by a parabola through the log amplitudes of the three bins around it.
struct Partial { double hz, amplitude; };
inline Partial strongestIn(const std::vector<double> &spectrum, double binHz, double lowHz, double highHz) {
	const std::size_t lo = std::max<std::size_t>(1, std::size_t(lowHz / binHz));
	const std::size_t hi = std::min(spectrum.size() - 2, std::size_t(highHz / binHz) + 1);
	const std::size_t best = std::size_t(std::max_element(spectrum.begin() + std::ptrdiff_t(lo), spectrum.begin() + std::ptrdiff_t(hi) + 1) - spectrum.begin());
	const double a = std::log(spectrum[best - 1] + 1e-300), b = std::log(spectrum[best] + 1e-300), c = std::log(spectrum[best + 1] + 1e-300);
	const double offset = a - 2 * b + c < 0 ? 0.5 * (a - c) / (a - 2 * b + c) : 0.0;
	return {(double(best) + offset) * binHz, spectrum[best]};
}

} // namespace lumbrel_test
