#pragma once
// Shared helpers of the engine tests: an owning handle, the pass-through callback, block-wise running, measurements.
#include "engine/engine.h"
#include "support/signals.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace lumbrel_test {

using Signal = std::vector<float>;
using Channels = std::vector<Signal>;

struct Engine {
	varkesh_lumbrel_engine_float *handle = nullptr;
	Engine(std::size_t channelsIn, std::size_t channelsOut, float sampleRate, const varkesh_lumbrel_config &config)
		: handle(varkesh_lumbrel_engine_float_new(channelsIn, channelsOut, sampleRate, &config)) {}
	~Engine() { varkesh_lumbrel_engine_float_delete(handle); }
	Engine(const Engine &) = delete;
	Engine &operator=(const Engine &) = delete;
	operator varkesh_lumbrel_engine_float *() const { return handle; }
};

inline varkesh_lumbrel_config configFor(double latencyMs, bool directCopy = true) {
	varkesh_lumbrel_config config = varkesh_lumbrel_config_default();
	config.latencyMs = latencyMs;
	config.intervalMs = latencyMs * 0.25; // four steps per latency block, as the effects default to
	config.directCopy = directCopy;
	return config;
}

// Adds each input channel's spectrum back unchanged; counts the calls.
struct PassThrough {
	varkesh_lumbrel_engine_float *engine;
	std::size_t channels;
	std::size_t spectra = 0;
	bool keepRunning = false; // onSilence's answer
	std::size_t silenceQuestions = 0;
	static bool onSpectrum(void *self) {
		auto &p = *static_cast<PassThrough *>(self);
		++p.spectra;
		for (std::size_t c = 0; c < p.channels; ++c) {
			varkesh_lumbrel_engine_float_addOutputSplit(p.engine, c, varkesh_lumbrel_engine_float_inputReal(p.engine, c),
				varkesh_lumbrel_engine_float_inputImag(p.engine, c));
		}
		return true;
	}
	static bool onSilence(void *self) {
		auto &p = *static_cast<PassThrough *>(self);
		++p.silenceQuestions;
		return p.keepRunning;
	}
	void attach() { varkesh_lumbrel_engine_float_setCallbacks(engine, this, onSpectrum, onSilence); }
};

// Runs whole signals through process(inputs, outputs, frames) in blocks of `blockSize`.
template<class Process>
Channels runBlocks(const Channels &inputs, std::size_t channelsOut, std::size_t blockSize, Process process) {
	const std::size_t length = inputs.empty() ? 0 : inputs[0].size();
	Channels outputs(channelsOut, Signal(length, 0.0f));
	std::vector<const float *> in(inputs.size());
	std::vector<float *> out(channelsOut);
	for (std::size_t pos = 0; pos < length; pos += blockSize) {
		for (std::size_t c = 0; c < inputs.size(); ++c) in[c] = inputs[c].data() + pos;
		for (std::size_t c = 0; c < channelsOut; ++c) out[c] = outputs[c].data() + pos;
		process(in.data(), out.data(), std::min(blockSize, length - pos));
	}
	return outputs;
}
inline Channels run(varkesh_lumbrel_engine_float *engine, const Channels &inputs, std::size_t channelsOut, std::size_t blockSize) {
	return runBlocks(inputs, channelsOut, blockSize,
		[engine](const float **in, float **out, std::size_t n) { varkesh_lumbrel_engine_float_process(engine, in, out, n); });
}

inline double rms(const float *x, std::size_t n) {
	double sum = 0;
	for (std::size_t i = 0; i < n; ++i) sum += double(x[i]) * x[i];
	return std::sqrt(sum / double(n));
}

// Level of out[from, from + n) against in[from - delay, from - delay + n), in dB.
inline double levelDb(const Signal &out, const Signal &in, std::size_t delay, std::size_t from, std::size_t n) {
	return dB(rms(out.data() + from, n) / rms(in.data() + from - delay, n));
}

// The lag (0..maxLag) at which out best matches in, by cross-correlation over out[from, from + n).
inline std::size_t correlationLag(const Signal &out, const Signal &in, std::size_t from, std::size_t n, std::size_t maxLag) {
	std::size_t best = 0;
	double bestSum = -1e300;
	for (std::size_t lag = 0; lag <= maxLag && lag <= from; ++lag) {
		double sum = 0;
		for (std::size_t i = 0; i < n; ++i) sum += double(out[from + i]) * in[from + i - lag];
		if (sum > bestSum) {
			bestSum = sum;
			best = lag;
		}
	}
	return best;
}

inline std::size_t peakIndex(const Signal &x) {
	std::size_t best = 0;
	for (std::size_t i = 1; i < x.size(); ++i) {
		if (std::abs(x[i]) > std::abs(x[best])) best = i;
	}
	return best;
}

} // namespace lumbrel_test
