#pragma once
// Shared helpers of the building-block tests: an effect whose frame is a test's
// function, a pitch-shifting effect built from the blocks, and a frequency
// measurement on the audio that comes out.
#include "blocks/lumbrel_effect.h"
#include "blocks/peak_shifter.h"
#include "blocks/peaks.h"
#include "engine/engine_harness.h"
#include "support/alloc_counter.h"

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

// An effect whose frame is whatever the test puts in `frame`; it adds nothing
// to the output unless the frame does.
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

// Shifts pitch with Peaks and PeakShifter alone (no timbre): every output
// channel gets input channel o % channelsIn times the shifter's gains, placed
// at the shifter's frequencies.
class ShiftEffect : public LumbrelEffect<float> {
public:
	using LumbrelEffect::LumbrelEffect;

	varkesh::lumbrel::Peaks<float> peaks;
	varkesh::lumbrel::PeakShifter<float> shifter;

	void init() {
		reserveScratch();
		peaks.init(*this);
		shifter.gains.init(*this);
	}
	void reset() {
		varkesh_lumbrel_engine_float_reset(engine);
		std::fill(peaks.energyBuffer.begin(), peaks.energyBuffer.end(), 0.0f);
		auto &gains = shifter.gains;
		std::fill(gains.gainsReal.begin(), gains.gainsReal.end(), 1.0f);
		std::fill(gains.gainsImag.begin(), gains.gainsImag.end(), 0.0f);
		std::fill(gains.previousEnergy.begin(), gains.previousEnergy.end(), 0.0f);
	}

	void onSpectrum() override {
		peaks.update(*this, true);
		shifter.update(*this, peaks);
		for (std::size_t o = 0; o < channelsOut; ++o) {
			std::size_t i = o % channelsIn;
			shifter.gains.addOutput(*this, o, inputReal(i), inputImag(i), 1);
		}
	}
};

// Runs `inputs` through an effect in blocks of `blockSize`.
template<class Effect>
Channels runEffect(Effect &effect, const Channels &inputs, std::size_t blockSize = 256) {
	std::size_t length = inputs.empty() ? 0 : inputs[0].size();
	Channels outputs(effect.channelsOut, Signal(length, 0.0f));
	std::vector<const float *> in(inputs.size());
	std::vector<float *> out(effect.channelsOut);
	for (std::size_t pos = 0; pos < length; pos += blockSize) {
		std::size_t n = std::min(blockSize, length - pos);
		for (std::size_t c = 0; c < inputs.size(); ++c) in[c] = inputs[c].data() + pos;
		for (std::size_t c = 0; c < out.size(); ++c) out[c] = outputs[c].data() + pos;
		effect.process(in.data(), out.data(), n);
	}
	return outputs;
}

// Sum of sines, each {Hz, amplitude}, with phases spread so that the peaks of
// the sum stay moderate.
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

inline Signal harmonicTone(double fundamental, std::size_t count, double sampleRate, std::size_t length) {
	std::vector<std::pair<double, double>> partials;
	for (std::size_t k = 1; k <= count; ++k) partials.push_back({fundamental * double(k), 0.25 / double(k)});
	return tones(partials, sampleRate, length);
}

inline double cents(double measured, double ideal) { return 1200 * std::log2(measured / ideal); }

// A frequency-domain view of one stretch of audio, for finding partials: a
// 4-term Blackman-Harris window (side lobes near -92 dB) and a zero-padded FFT,
// so that neighbouring partials do not bias each other.
class SpectrumAnalysis {
public:
	SpectrumAnalysis(const float *x, std::size_t length, double sampleRate) : sampleRate(sampleRate) {
		std::size_t size = 1;
		while (size < 4 * length) size *= 2;
		std::vector<std::complex<double>> buffer(size);
		double windowSum = 0;
		for (std::size_t i = 0; i < length; ++i) {
			double t = 2 * pi * double(i) / double(length);
			double w = 0.35875 - 0.48829 * std::cos(t) + 0.14128 * std::cos(2 * t) - 0.01168 * std::cos(3 * t);
			buffer[i] = w * double(x[i]);
			windowSum += w;
		}
		fft(buffer);
		binHz = sampleRate / double(size);
		magnitude.resize(size / 2 + 1);
		// Scaled so that a sine of amplitude A peaks at A.
		for (std::size_t k = 0; k < magnitude.size(); ++k) magnitude[k] = 2 * std::abs(buffer[k]) / windowSum;
	}

	struct Partial {
		double hz;
		double amplitude;
	};

	// The strongest local maximum within [lowHz, highHz], its frequency refined
	// by a parabola through the log magnitudes of the three bins around it.
	Partial strongestIn(double lowHz, double highHz) const {
		std::size_t lo = std::max<std::size_t>(1, std::size_t(lowHz / binHz));
		std::size_t hi = std::min(magnitude.size() - 2, std::size_t(highHz / binHz) + 1);
		std::size_t best = lo;
		for (std::size_t k = lo; k <= hi; ++k) {
			if (magnitude[k] > magnitude[best]) best = k;
		}
		double a = std::log(magnitude[best - 1] + 1e-300), b = std::log(magnitude[best] + 1e-300),
			   c = std::log(magnitude[best + 1] + 1e-300);
		double denominator = a - 2 * b + c;
		double offset = denominator < 0 ? 0.5 * (a - c) / denominator : 0.0;
		return {(double(best) + offset) * binHz, magnitude[best]};
	}

	double amplitudeNear(double hz, double halfWidthHz) const { return strongestIn(hz - halfWidthHz, hz + halfWidthHz).amplitude; }

private:
	double sampleRate;
	double binHz = 0;
	std::vector<double> magnitude;

	static void fft(std::vector<std::complex<double>> &x) {
		const std::size_t n = x.size();
		for (std::size_t i = 1, j = 0; i < n; ++i) {
			std::size_t bit = n >> 1;
			for (; j & bit; bit >>= 1) j ^= bit;
			j ^= bit;
			if (i < j) std::swap(x[i], x[j]);
		}
		for (std::size_t len = 2; len <= n; len <<= 1) {
			double angle = -2 * pi / double(len);
			std::complex<double> step(std::cos(angle), std::sin(angle));
			for (std::size_t i = 0; i < n; i += len) {
				std::complex<double> w(1, 0);
				for (std::size_t k = 0; k < len / 2; ++k) {
					std::complex<double> u = x[i + k], v = x[i + k + len / 2] * w;
					x[i + k] = u + v;
					x[i + k + len / 2] = u - v;
					w *= step;
				}
			}
		}
	}
};

} // namespace lumbrel_test
