// Output synthesis: values added by the effect are shared between the two FFT
// bins around their frequency, then each step's rows are convolved with the
// window's kernel (which confines them to the window in time instead of letting
// them fill and wrap the FFT buffer), flattened and inverse-transformed.
#include "engine/engine_impl.h"
#include "linear/vector_hints.h"

#include <algorithm>

#include <cmath>
#include <cstdint>

#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

namespace varkesh::lumbrel {

namespace {

// rows(start, n, re, im) gives values start.. start + n - 1 as two rows,
// pointing into re and im, scratch rows of n, or elsewhere.
struct SplitValues {
	const float *real, *imag;
	float re(std::size_t i) const { return real[i]; }
	float im(std::size_t i) const { return imag[i]; }
	void rows(std::size_t start, std::size_t, const float *&re, const float *&im, float *, float *) const {
		re = real + start;
		im = imag + start;
	}
};

struct InterleavedValues {
	const std::complex<float> *values;
	float re(std::size_t i) const { return values[i].real(); }
	float im(std::size_t i) const { return values[i].imag(); }
	void rows(std::size_t start, std::size_t n, const float *&re, const float *&im, float *reRow, float *imRow) const {
		for (std::size_t k = 0; k < n; ++k) reRow[k] = values[start + k].real(), imRow[k] = values[start + k].imag();
		re = reRow;
		im = imRow;
	}
};

} // namespace

template <class Read>
void EngineImpl<float>::placeAtBands(std::size_t channel, Read read) {
	scatterPair(allRuns, [&read](std::size_t b, float &re, float &im) { re = read.re(b), im = read.im(b); },
		padded(spectrumReal, channel), padded(spectrumImag, channel));
}

namespace {

// Bin index and fraction of each frequency, for a run of up to positionChunk
// values, in a loop that vectorises (floor is one instruction from SSE4.1 on).
// A position outside the bins (NaN included) gets the index `bins`, whose
// values the caller drops. On 64-bit Arm negative positions saturate at bin 0
// instead, as the platform's conversion of floor(p) to an index does there.
constexpr std::size_t positionChunk = 64;

LUMBREL_VECTOR_CLONES void binPositions(const float *__restrict hz, std::size_t count, float fftSize, float rate,
	float bins, std::uint32_t *__restrict index, float *__restrict fraction) {
	for (std::size_t b = 0; b < count; ++b) {
		float p = hz[b] * fftSize / rate;
		float down = std::floor(p);
		// Comparisons in the form of min and max instructions; NaN fails both.
#if defined(__aarch64__)
		float at = down > 0 ? down : 0.0f;
		at = at < bins ? at : bins;
#else
		float at = down < bins ? down : bins;
		at = at >= 0.0f ? at : bins;
#endif
		index[b] = std::uint32_t(std::int32_t(at));
		fraction[b] = p - down;
	}
}

// Each value's two complex parts, (1 - f) v for its bin and f v for the one
// above, side by side as a lane holds them: four values' products transposed
// with SSE2 (the compiler's own version stores one float at a time).
LUMBREL_VECTOR_CLONES void placeParts(const float *__restrict re, const float *__restrict im,
	const float *__restrict fraction, std::size_t count, float *__restrict parts) {
	std::size_t k = 0;
#if defined(__SSE2__)
	const __m128 one = _mm_set1_ps(1.0f);
	for (; k + 4 <= count; k += 4) {
		__m128 f = _mm_loadu_ps(fraction + k), r = _mm_loadu_ps(re + k), i = _mm_loadu_ps(im + k);
		__m128 g = _mm_sub_ps(one, f);
		__m128 lowR = _mm_mul_ps(g, r), lowI = _mm_mul_ps(g, i), highR = _mm_mul_ps(f, r), highI = _mm_mul_ps(f, i);
		_MM_TRANSPOSE4_PS(lowR, lowI, highR, highI);
		_mm_store_ps(parts + 4 * k, lowR);
		_mm_store_ps(parts + 4 * k + 4, lowI);
		_mm_store_ps(parts + 4 * k + 8, highR);
		_mm_store_ps(parts + 4 * k + 12, highI);
	}
#endif
	for (; k < count; ++k) {
		float f = fraction[k];
		parts[4 * k] = (1 - f) * re[k];
		parts[4 * k + 1] = (1 - f) * im[k];
		parts[4 * k + 2] = f * re[k];
		parts[4 * k + 3] = f * im[k];
	}
}

// The lanes' sums over the slots first..last added to the output bins below
// `bins`, and the lanes cleared over those slots. The lanes are summed as they
// lie, real and imaginary side by side, and split once.
LUMBREL_VECTOR_CLONES void addLanes(float *__restrict lanes, std::size_t laneStride, float *__restrict outR,
	float *__restrict outI, std::size_t first, std::size_t last, std::size_t bins) {
	float *l0 = lanes, *l1 = lanes + laneStride, *l2 = lanes + 2 * laneStride, *l3 = lanes + 3 * laneStride;
	std::size_t end = std::min(last + 1, bins), s = first;
#if defined(__SSE2__)
	for (; s + 4 <= end; s += 4) {
		std::size_t j = 2 * s;
		__m128 a = _mm_add_ps(_mm_add_ps(_mm_loadu_ps(l0 + j), _mm_loadu_ps(l1 + j)),
			_mm_add_ps(_mm_loadu_ps(l2 + j), _mm_loadu_ps(l3 + j)));
		__m128 b = _mm_add_ps(_mm_add_ps(_mm_loadu_ps(l0 + j + 4), _mm_loadu_ps(l1 + j + 4)),
			_mm_add_ps(_mm_loadu_ps(l2 + j + 4), _mm_loadu_ps(l3 + j + 4)));
		_mm_storeu_ps(outR + s, _mm_add_ps(_mm_loadu_ps(outR + s), _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0))));
		_mm_storeu_ps(outI + s, _mm_add_ps(_mm_loadu_ps(outI + s), _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1))));
	}
#endif
	for (; s < end; ++s) {
		outR[s] += (l0[2 * s] + l1[2 * s]) + (l2[2 * s] + l3[2 * s]);
		outI[s] += (l0[2 * s + 1] + l1[2 * s + 1]) + (l2[2 * s + 1] + l3[2 * s + 1]);
	}
	for (float *l : {l0, l1, l2, l3}) {
		for (std::size_t j = 2 * first; j < 2 * (last + 1); ++j) l[j] = 0;
	}
}

} // namespace

// A row's values are spread over four lanes in turn, each lane summing
// into its own row of complex bins in value order, and the lanes are added to
// the output at the end. Values in a row tend to fall on the same or the next
// bin as the one before, so one sum per bin would be a chain of additions that
// wait for each other (and a branch on each change of bin); a lane's chain
// holds every fourth value. The sums differ from adding one value at a time
// in rounding only. A lane holds bins 0..fftBins-1, the slot above the top
// bin, which its values' upper parts reach and which is dropped, and one for
// the values outside the bins.
template <class Read>
void EngineImpl<float>::placeAtHz(std::size_t channel, Read read, const float *hz, std::size_t count) {
	if (count == 0) return;
	float *lanes = placeLanes.data();
	const std::size_t stride = 2 * (fftBins + 2);
	std::uint32_t index[positionChunk];
	float fraction[positionChunk], reRow[positionChunk], imRow[positionChunk];
	alignas(16) float parts[4 * positionChunk];
	std::size_t lowest = fftBins, highest = 0;
	for (std::size_t start = 0; start < count; start += positionChunk) {
		std::size_t n = std::min(positionChunk, count - start);
		binPositions(hz + start, n, float(fftSamples), sampleRate, float(fftBins), index, fraction);
		const float *re, *im;
		read.rows(start, n, re, im, reRow, imRow);
		placeParts(re, im, fraction, n, parts);
		// positionChunk is a multiple of four, so value start + k goes to lane k % 4.
		for (std::size_t k = 0; k < n; ++k) {
			std::size_t i = index[k];
			lowest = std::min(lowest, i);
			highest = std::max(highest, i);
			float *slot = lanes + (k & 3) * stride + 2 * i;
			const float *part = parts + 4 * k;
#if defined(__SSE2__)
			// Two 8-byte loads: each half was last written by an 8-byte store,
			// which a wider load could not take its value from while in flight.
			__m128 sum = _mm_loadh_pi(_mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64 *>(slot)),
				reinterpret_cast<const __m64 *>(slot + 2));
			sum = _mm_add_ps(sum, _mm_load_ps(part));
			_mm_storel_pi(reinterpret_cast<__m64 *>(slot), sum);
			_mm_storeh_pi(reinterpret_cast<__m64 *>(slot + 2), sum);
#else
			for (int j = 0; j < 4; ++j) slot[j] += part[j];
#endif
		}
	}
	addLanes(lanes, stride, padded(spectrumReal, channel) + padded::before,
		padded(spectrumImag, channel) + padded::before, lowest, highest + 1, fftBins);
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
