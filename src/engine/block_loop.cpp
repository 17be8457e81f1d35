// EngineImpl::process: the silence test, then the block cut at interval
// boundaries, with one step of analysis, callback and synthesis at each.
#include "engine/engine_impl.h"

#include "linear/flush_to_zero.h"

#include <algorithm>
#include <cmath>

namespace varkesh::lumbrel {

namespace {
constexpr float silenceThreshold = 1e-15f;
constexpr std::size_t scanRun = 64;

// Whether any |x| is above the threshold. Scans in short runs, stopping at the
// first run that has one. Within a run the comparisons are OR-ed together,
// which the compiler vectorises; a running maximum it would not, since NaNs and
// signed zeros make max order-dependent. A NaN counts as quiet.
bool anyAbove(const float *x, std::size_t count) {
	for (std::size_t start = 0; start < count; start += scanRun) {
		std::size_t end = std::min(count, start + scanRun);
		int above = 0;
		for (std::size_t i = start; i < end; ++i) above |= std::abs(x[i]) > silenceThreshold;
		if (above) return true;
	}
	return false;
}
} // namespace

bool EngineImpl<float>::isQuiet(const float *const *inputs, std::size_t length) const {
	if (length) {
		for (std::size_t c = 0; c < channelsIn; ++c) {
			if (anyAbove(inputs[c], length)) return false;
		}
	}
	// The tail of a tracked band keeps the engine awake: X falls by `keep` per
	// step once the residual has ended.
	if (std::size_t low = grid.lowBands) {
		for (std::size_t c = 0; c < channelsIn; ++c) {
			const float *xr = inputRealStorage.data() + c * bandCount;
			const float *xi = inputImagStorage.data() + c * bandCount;
			if (anyAbove(xr, low) || anyAbove(xi, low)) return false;
		}
	}
	return true;
}

void EngineImpl<float>::process(const float *const *inputs, float *const *outputs, std::size_t length) {
	linear::FlushToZeroScope flushToZero;

	bool quiet = channelsIn != 0 && isQuiet(inputs, length);
	if (!quiet) {
		silentSamples = 0;
		isSilent = false;
	} else if (isSilent) {
		silentSamples += length;
	} else if (silentSamples < windowSamples) {
		silentSamples += length; // the tail of the last sound still runs
	} else if (callbacks.onSilence && callbacks.onSilence(callbacks.userData)) {
		silentSamples = length; // buys one more window of processing
	} else {
		isSilent = true;
		silentSamples += length;
	}
	if (isSilent) {
		// Asleep: rings, filters and spectra stay; the interval's phase stands still.
		for (std::size_t c = 0; c < channelsOut; ++c) std::fill(outputs[c], outputs[c] + length, 0.0f);
		return;
	}

	for (std::size_t pos = 0; pos < length;) {
		std::size_t toStep = intervalSamples - stft.samplesSinceAnalysis;
		std::size_t remaining = length - pos;
		std::size_t chunk = std::min(remaining, toStep);
		writeInput(inputs, pos, chunk);

		// With a reduction r, the last r samples of an interval are read after the
		// step, so the synthesis reaches the output r samples sooner.
		std::size_t first = chunk > latencyReduction ? chunk - latencyReduction : 0;
		readOutput(outputs, pos, first);
		stft.moveOutput(first);

		if (toStep <= remaining) step();

		std::size_t second = chunk - first;
		readOutput(outputs, pos + first, second);
		stft.moveOutput(second);
		pos += chunk;
	}
}

void EngineImpl<float>::writeInput(const float *const *inputs, std::size_t offset, std::size_t count) {
	std::size_t ringLength = stft.inputLengthSamples;
	std::size_t start = stft.inputPos % ringLength;
	std::size_t firstRun = std::min(count, ringLength - start);
	for (std::size_t c = 0; c < channelsIn; ++c) {
		float *shelved = timeRow.data();
		inputFilter[c].process(inputs[c] + offset, shelved, count);
		float *ring = stft.inputRow(c);
		std::copy(shelved, shelved + firstRun, ring + start);
		std::copy(shelved + firstRun, shelved + count, ring);
	}
	stft.inputPos = (start + count) % ringLength;
	stft.samplesSinceAnalysis += count;
}

void EngineImpl<float>::readOutput(float *const *outputs, std::size_t offset, std::size_t count) {
	if (count == 0) return;
	std::size_t ringLength = stft.blockSamples;
	std::size_t start = stft.outputPos;
	std::size_t firstRun = std::min(count, ringLength - start);
	const float *products = stft.windowProducts.data();
	for (std::size_t c = 0; c < channelsOut; ++c) {
		const float *ring = stft.outputRow(c);
		float *out = outputs[c] + offset;
		for (std::size_t i = 0; i < firstRun; ++i) out[i] = ring[start + i] / products[start + i];
		for (std::size_t i = firstRun; i < count; ++i) out[i] = ring[i - firstRun] / products[i - firstRun];
		outputFilter[c].process(out, out, count);
	}
}

void EngineImpl<float>::step() {
	for (std::size_t c = 0; c < channelsIn; ++c) stft.analyseStep(c, 0);

	std::fill(spectrumReal.begin(), spectrumReal.end(), 0.0f);
	std::fill(spectrumImag.begin(), spectrumImag.end(), 0.0f);
	const float *flatten = inputFlatten.data();
	for (std::size_t c = 0; c < channelsIn; ++c) {
		const std::complex<float> *bins = stft.spectrumRow(c);
		float *re = padded(spectrumReal, c) + padded::before, *im = padded(spectrumImag, c) + padded::before;
		for (std::size_t k = 0; k < fftBins; ++k) {
			re[k] = bins[k].real() * flatten[k];
			im[k] = bins[k].imag() * flatten[k];
		}
		padded::mirror<false>(padded(spectrumReal, c), fftBins);
		padded::mirror<true>(padded(spectrumImag, c), fftBins);
	}

	lumbrelAnalysis();

	std::fill(spectrumReal.begin(), spectrumReal.end(), 0.0f);
	std::fill(spectrumImag.begin(), spectrumImag.end(), 0.0f);
	callbacks.onSpectrum(callbacks.userData);

	synthesise();
}

} // namespace varkesh::lumbrel
