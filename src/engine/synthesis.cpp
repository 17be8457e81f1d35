// Output synthesis: values added by the effect are shared between the two FFT
// bins around their frequency, then each step's rows are convolved with the
// window's kernel (which confines them to the window in time instead of letting
// them fill and wrap the FFT buffer), flattened and inverse-transformed.
#include "engine/engine_impl.h"
#include "linear/vector_hints.h"

#include <algorithm>

#include <cmath>
#include <cstdint>

namespace varkesh::lumbrel {

namespace {

struct SplitValues {
	const float *real, *imag;
	float re(std::size_t i) const { return real[i]; }
	float im(std::size_t i) const { return imag[i]; }
};

struct InterleavedValues {
	const std::complex<float> *values;
	float re(std::size_t i) const { return values[i].real(); }
	float im(std::size_t i) const { return values[i].imag(); }
};

} // namespace

template <>
void EngineImpl<float>::placeAtBands(std::size_t channel, SplitValues read) {
	scatterPair(allRuns, read.real, read.imag, padded(spectrumReal, channel), padded(spectrumImag, channel));
}

// std::complex<float> is laid out as (re, im): the values are pairs already.
template <>
void EngineImpl<float>::placeAtBands(std::size_t channel, InterleavedValues read) {
	scatterPair(allRuns, reinterpret_cast<const float *>(read.values), padded(spectrumReal, channel),
		padded(spectrumImag, channel));
}

namespace {

// Bin index and fraction of each frequency, for a run of up to positionChunk
// values, in a loop that vectorises (floor is one instruction from SSE4.1 on).
// A position outside the bins gets an index of `bins` or more, skipped by the
// caller. Negative positions (and NaN) follow the platform's conversion of
// floor(p) to an unsigned index: on x86 it lies beyond any row, on 64-bit Arm
// it saturates at bin 0.
constexpr std::size_t positionChunk = 64;

LUMBREL_VECTOR_CLONES void binPositions(const float *__restrict hz, std::size_t count, float fftSize, float rate,
	float bins, std::uint32_t *__restrict index, float *__restrict fraction) {
	for (std::size_t b = 0; b < count; ++b) {
		float p = hz[b] * fftSize / rate;
		float down = std::floor(p);
		// Clamped in the order that sends NaN where the platform does; the
		// comparisons have the form of min and max instructions.
#if defined(__aarch64__)
		float at = down > 0 ? down : 0.0f;
		at = at < bins ? at : bins;
#else
		float at = down < bins ? down : bins;
		at = at > -1.0f ? at : -1.0f; // -1 becomes an index beyond any row
#endif
		index[b] = std::uint32_t(std::int32_t(at));
		fraction[b] = p - down;
	}
}

} // namespace

// Values in a row tend to fall on the same or the next bin as the one before,
// so the two bins in hand are summed in registers and written when the bin
// changes: the same additions in the same order as one value at a time. The
// products with the fractions are made first for a chunk, in loops that
// vectorise, so that the serial part is the additions.
template <class Read>
void EngineImpl<float>::placeAtHz(std::size_t channel, Read read, const float *hz, std::size_t count) {
	if (count == 0) return;
	float *outR = padded(spectrumReal, channel) + padded::before;
	float *outI = padded(spectrumImag, channel) + padded::before;
	std::size_t top = fftBins - 1;
	std::size_t held = fftBins; // the bin in hand; none yet
	float loR = 0, loI = 0, hiR = 0, hiI = 0;
	auto flush = [&] {
		outR[held] = loR;
		outI[held] = loI;
		if (held < top) {
			outR[held + 1] = hiR;
			outI[held + 1] = hiI;
		}
	};
	std::uint32_t index[positionChunk];
	float fraction[positionChunk], lowR[positionChunk], lowI[positionChunk], highR[positionChunk],
		highI[positionChunk];
	for (std::size_t start = 0; start < count; start += positionChunk) {
		std::size_t n = std::min(positionChunk, count - start);
		binPositions(hz + start, n, float(fftSamples), sampleRate, float(fftBins), index, fraction);
		for (std::size_t k = 0; k < n; ++k) {
			float f = fraction[k];
			float re = read.re(start + k), im = read.im(start + k);
			lowR[k] = (1 - f) * re;
			lowI[k] = (1 - f) * im;
			highR[k] = f * re;
			highI[k] = f * im;
		}
		for (std::size_t k = 0; k < n; ++k) {
			std::size_t i = index[k];
			if (i >= fftBins) continue;
			if (i != held) {
				if (held < fftBins) {
					if (i == held + 1) {
						// The upper bin in hand becomes the lower one.
						outR[held] = loR;
						outI[held] = loI;
						loR = hiR;
						loI = hiI;
					} else {
						flush();
						loR = outR[i];
						loI = outI[i];
					}
				} else {
					loR = outR[i];
					loI = outI[i];
				}
				held = i;
				// The entry above the top bin is padding, read but never written.
				hiR = outR[i + 1];
				hiI = outI[i + 1];
			}
			loR += lowR[k];
			loI += lowI[k];
			hiR += highR[k];
			hiI += highI[k];
		}
	}
	if (held < fftBins) flush();
}

// The quick path compares against the engine's row at the stride of the padded
// rows rather than that of the band rows, so while nobody swaps entries channel
// 0 lands at the nominal positions and the other channels at their measured
// frequencies. That difference is the engine's behaviour and is kept.
void EngineImpl<float>::add(std::size_t channel, const float *real, const float *imag) {
	SplitValues read{real, imag};
	if (channel >= channelsIn) {
		placeAtBands(channel, read); // no table entry: not allowed, kept harmless
		return;
	}
	const float *hz = inputHzTable[channel];
	if (hz == inputHzStorage.data() + channel * paddedBins) {
		placeAtBands(channel, read);
	} else {
		placeAtHz(channel, read, hz, bandCount);
	}
}

void EngineImpl<float>::add(std::size_t channel, const std::complex<float> *values) {
	InterleavedValues read{values};
	if (channel >= channelsIn) {
		placeAtBands(channel, read);
		return;
	}
	const float *hz = inputHzTable[channel];
	if (hz == inputHzStorage.data() + channel * paddedBins) {
		placeAtBands(channel, read);
	} else {
		placeAtHz(channel, read, hz, bandCount);
	}
}

void EngineImpl<float>::addMoved(std::size_t channel, const float *real, const float *imag, const float *hz,
	std::size_t count) {
	placeAtHz(channel, SplitValues{real, imag}, hz, count);
}

void EngineImpl<float>::addMoved(std::size_t channel, const std::complex<float> *values, const float *hz,
	std::size_t count) {
	placeAtHz(channel, InterleavedValues{values}, hz, count);
}

void EngineImpl<float>::synthesise() {
	const float *flatten = outputFlatten.data();
	for (std::size_t c = 0; c < channelsOut; ++c) {
		convolve<false>(padded(spectrumReal, c), convolvedReal.data());
		convolve<true>(padded(spectrumImag, c), convolvedImag.data());
		const float *re = convolvedReal.data() + padded::before, *im = convolvedImag.data() + padded::before;
		std::complex<float> *bins = stft.spectrumRow(c);
		for (std::size_t k = 0; k < fftBins; ++k) bins[k] = {re[k] * flatten[k], im[k] * flatten[k]};
		// Channel 0 also adds this step's window product.
		stft.synthesiseStep(c);
	}
}

} // namespace varkesh::lumbrel
