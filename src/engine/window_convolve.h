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
inline void foldPadding(float *row, std::size_t fftBins) {
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
template <std::size_t T>
inline void symmetricFir(const float *__restrict in, float *__restrict out, const float *kernel, std::size_t fftBins) {
	float k[T + 1];
	for (std::size_t t = 0; t <= T; ++t) k[t] = kernel[t];
	std::size_t end = fftBins + padded::before;
	for (std::size_t i = padded::before; i < end; ++i) {
		float sum = k[0] * in[i];
		for (std::size_t t = 1; t <= T; ++t) sum += k[t] * (in[i - t] + in[i + t]);
		out[i] = sum;
	}
}

} // namespace detail

// `in` is modified when folding. `out` must not overlap `in`.
template <bool imaginary>
inline void stftWindowConvolve(float *in, float *out, const WindowKernel &kernel, std::size_t fftBins, bool fold) {
	if (fold) detail::foldPadding<imaginary>(in, fftBins);
	switch (kernel.taps) {
	case 6: detail::symmetricFir<5>(in, out, kernel.coefficients, fftBins); break;
	case 5: detail::symmetricFir<4>(in, out, kernel.coefficients, fftBins); break;
	case 4: detail::symmetricFir<3>(in, out, kernel.coefficients, fftBins); break;
	default: detail::symmetricFir<2>(in, out, kernel.coefficients, fftBins); break;
	}
	padded::mirror<imaginary>(out, fftBins);
}

} // namespace varkesh::lumbrel
