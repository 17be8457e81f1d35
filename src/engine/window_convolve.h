#pragma once
// stftWindowConvolve: multiplying a spectrum by the analysis window's own
// spectrum (the kernel) amounts to multiplying the block by the window in time.
// This is how band values placed on bins become something comparable with the
// STFT, and how output bands get confined to the window instead of wrapping.
//
// Rows are padded (see padded_spectrum.h). With folding, whatever was placed in
// the padding is first folded back into the bins, in place on the input, so the
// row continues conjugate-symmetrically through 0 Hz and Nyquist. Then a
// symmetric FIR runs over the bins, and the output's padding is mirrored.
#include "engine/padded_spectrum.h"

#include <cstddef>

namespace varkesh::lumbrel {

// Kernel of the analysis window: kernel[0..5] with `taps` leading coefficients
// above zero. 0-3 taps use the 5-tap form, 4 the 7-tap, 5 the 9-tap, 6 the 11-tap.
struct WindowKernel {
	float coefficients[6] = {0, 0, 0, 0, 0, 0};
	std::size_t taps = 0;
};

namespace detail {

template <bool imaginary>
inline void foldLowPadding(float *row) {
	for (std::size_t k = 0; k < 5; ++k) {
		float a = row[k], b = row[10 - k];
		if (imaginary) {
			float d = a - b;
			row[k] = d;
			row[10 - k] = -d;
		} else {
			row[k] = row[10 - k] = a + b;
		}
	}
}

template <bool imaginary>
inline void foldPadding(float *row, std::size_t fftBins) {
	foldLowPadding<imaginary>(row);
	for (std::size_t m = 1; m <= 6; ++m) {
		std::size_t a = fftBins + 4 - m, b = fftBins + 4 + m;
		if (imaginary) {
			float d = row[b] - row[a];
			row[b] = d;
			row[a] = -d;
		} else {
			row[a] = row[b] = row[a] + row[b];
		}
	}
}

// One form per half-length so the coefficients stay in registers.
// Output indices from bin 0 up to `end`.
template <std::size_t T>
inline void symmetricFir(const float *__restrict in, float *__restrict out, const float *kernel, std::size_t end) {
	float k[T + 1];
	for (std::size_t t = 0; t <= T; ++t) k[t] = kernel[t];
	for (std::size_t i = padded::before; i < end; ++i) {
		float sum = k[0] * in[i];
		for (std::size_t t = 1; t <= T; ++t) sum += k[t] * (in[i - t] + in[i + t]);
		out[i] = sum;
	}
}

inline void symmetricFir(const float *in, float *out, const WindowKernel &kernel, std::size_t end) {
	switch (kernel.taps) {
	case 6: symmetricFir<5>(in, out, kernel.coefficients, end); break;
	case 5: symmetricFir<4>(in, out, kernel.coefficients, end); break;
	case 4: symmetricFir<3>(in, out, kernel.coefficients, end); break;
	default: symmetricFir<2>(in, out, kernel.coefficients, end); break;
	}
}

} // namespace detail

// The kernel reaches at most this many bins either side.
constexpr std::size_t kernelReach = 5;

// `in` is modified when folding. `out` must not overlap `in`.
template <bool imaginary>
inline void stftWindowConvolve(float *in, float *out, const WindowKernel &kernel, std::size_t fftBins, bool fold) {
	if (fold) detail::foldPadding<imaginary>(in, fftBins);
	detail::symmetricFir(in, out, kernel, fftBins + padded::before);
	padded::mirror<imaginary>(out, fftBins);
}

// The same with folding, for a row that is zero from index `end` - kernelReach
// up to its end, far enough below the top that the folds there would only move
// zeros: output indices from bin 0 up to `end`, and no padding. Where the full
// form gives a signed zero, this may give the other sign.
template <bool imaginary>
inline void stftWindowConvolveLow(float *in, float *out, const WindowKernel &kernel, std::size_t end) {
	detail::foldLowPadding<imaginary>(in);
	detail::symmetricFir(in, out, kernel, end);
}

} // namespace varkesh::lumbrel
