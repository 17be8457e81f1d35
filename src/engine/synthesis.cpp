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
#include <emmintrin.h>
#endif

namespace varkesh::lumbrel {

namespace {

struct SplitValues {
	const float *real, *imag;
	float re(std::size_t i) const { return real[i]; }
	float im(std::size_t i) const { return imag[i]; }
	SplitValues from(std::size_t i) const { return {real + i, imag + i}; }
};

struct InterleavedValues {
	const std::complex<float> *values;
	float re(std::size_t i) const { return values[i].real(); }
	float im(std::size_t i) const { return values[i].imag(); }
	InterleavedValues from(std::size_t i) const { return {values + i}; }
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

#if defined(__SSE2__)
namespace {

// Lane n of v in every lane.
template <int n>
inline __m128 lane(__m128 v) {
	return _mm_castsi128_ps(_mm_shuffle_epi32(_mm_castps_si128(v), _MM_SHUFFLE(n, n, n, n)));
}

// Values k and k + 1 as (re, im, re, im), then k + 2 and k + 3.
inline void valuePairs(SplitValues read, std::size_t k, __m128 &low, __m128 &high) {
	__m128 re = _mm_loadu_ps(read.real + k), im = _mm_loadu_ps(read.imag + k);
	low = _mm_unpacklo_ps(re, im);
	high = _mm_unpackhi_ps(re, im);
}

inline void valuePairs(InterleavedValues read, std::size_t k, __m128 &low, __m128 &high) {
	low = _mm_loadu_ps(reinterpret_cast<const float *>(read.values + k));
	high = _mm_loadu_ps(reinterpret_cast<const float *>(read.values + k + 2));
}

// Each value's four products, side by side in the order the two bins' sums
// hold them: (1 - f) re, (1 - f) im, f re, f im. The compiler's own version of
// this loop stores one float at a time.
template <class Read>
inline void weighValues(float *__restrict parts, Read read, const float *__restrict fraction, std::size_t count) {
	std::size_t k = 0, whole = count & ~std::size_t(3);
	for (; k < whole; k += 4) {
		__m128 f = _mm_load_ps(fraction + k), g = _mm_sub_ps(_mm_set1_ps(1), f);
		__m128 low, high;
		valuePairs(read, k, low, high);
		// Per pair of values: (1 - f) times both, f times both, then one value per vector.
		__m128 g01 = _mm_mul_ps(low, _mm_unpacklo_ps(g, g)), f01 = _mm_mul_ps(low, _mm_unpacklo_ps(f, f));
		__m128 g23 = _mm_mul_ps(high, _mm_unpackhi_ps(g, g)), f23 = _mm_mul_ps(high, _mm_unpackhi_ps(f, f));
		float *p = parts + 4 * k;
		_mm_store_ps(p, _mm_movelh_ps(g01, f01));
		_mm_store_ps(p + 4, _mm_movehl_ps(f01, g01));
		_mm_store_ps(p + 8, _mm_movelh_ps(g23, f23));
		_mm_store_ps(p + 12, _mm_movehl_ps(f23, g23));
	}
	for (; k < count; ++k) {
		float f = fraction[k], g = 1 - f, re = read.re(k), im = read.im(k);
		float *p = parts + 4 * k;
		p[0] = g * re, p[1] = g * im, p[2] = f * re, p[3] = f * im;
	}
}

// Built for AVX as well, where the same loop takes three-operand forms.
LUMBREL_VECTOR_CLONES void weigh(float *parts, SplitValues read, const float *fraction, std::size_t count) {
	weighValues(parts, read, fraction, count);
}

LUMBREL_VECTOR_CLONES void weigh(float *parts, InterleavedValues read, const float *fraction, std::size_t count) {
	weighValues(parts, read, fraction, count);
}

} // namespace
#endif

// Values in a row tend to fall on the same or the next bin as the one before,
// so the two bins in hand are summed in registers and written when the bin
// changes: the same additions in the same order as one value at a time. The
// products with the fractions are made first for a chunk, in loops that
// vectorise, so that the serial part is the additions. With SSE2 the two bins'
// sums share one register, lane by lane the same additions, so that a value on
// the bin in hand costs one vector addition.
template <class Read>
void EngineImpl<float>::placeAtHz(std::size_t channel, Read read, const float *hz, std::size_t count) {
	if (count == 0) return;
	float *outR = padded(spectrumReal, channel) + padded::before;
	float *outI = padded(spectrumImag, channel) + padded::before;
	std::size_t top = fftBins - 1;
	std::uint32_t index[positionChunk];
	alignas(16) float fraction[positionChunk];
#if defined(__SSE2__)
	// None in hand yet: a bin that no index equals, nor the one above it.
	std::size_t held = fftBins + 1;
	__m128 sums = _mm_setzero_ps(); // lower bin re, im, upper bin re, im
	auto bin = [&](std::size_t i) { return _mm_unpacklo_ps(_mm_load_ss(outR + i), _mm_load_ss(outI + i)); };
	auto storeLower = [&] {
		_mm_store_ss(outR + held, sums);
		_mm_store_ss(outI + held, lane<1>(sums));
	};
	auto flush = [&] {
		storeLower();
		if (held < top) {
			_mm_store_ss(outR + held + 1, lane<2>(sums));
			_mm_store_ss(outI + held + 1, lane<3>(sums));
		}
	};
	alignas(32) float parts[4 * positionChunk];
	for (std::size_t start = 0; start < count; start += positionChunk) {
		std::size_t n = std::min(positionChunk, count - start);
		binPositions(hz + start, n, float(fftSamples), sampleRate, float(fftBins), index, fraction);
		weigh(parts, read.from(start), fraction, n);
		// One counter, in bytes of the index row, addresses both rows.
		const char *indexEnd = reinterpret_cast<const char *>(index + n);
		const float *partsEnd = parts + 4 * n;
		for (std::ptrdiff_t k = -4 * std::ptrdiff_t(n); k != 0; k += 4) {
			std::size_t i = *reinterpret_cast<const std::uint32_t *>(indexEnd + k);
			__m128 p = _mm_load_ps(partsEnd + k);
			if (i == held) {
				sums = _mm_add_ps(sums, p);
			} else if (i == held + 1) {
				// The upper bin in hand becomes the lower one. Past the top bin
				// (i == fftBins) this takes up padding, which is never written.
				storeLower();
				sums = _mm_add_ps(_mm_shuffle_ps(sums, bin(i + 1), _MM_SHUFFLE(1, 0, 3, 2)), p);
				held = i;
			} else if (i < fftBins) {
				if (held < fftBins) flush();
				// The entry above the top bin is padding, read but never written.
				sums = _mm_add_ps(_mm_movelh_ps(bin(i), bin(i + 1)), p);
				held = i;
			}
		}
	}
	if (held < fftBins) flush();
#else
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
	float lowR[positionChunk], lowI[positionChunk], highR[positionChunk], highI[positionChunk];
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
#endif
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
