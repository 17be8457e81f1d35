#pragma once
// Padded spectrum rows: fftBins + 11 floats, bin k at index 5 + k. The five
// entries before bin 0 and the six after the top bin hold the row's
// conjugate-symmetric continuation through 0 Hz and Nyquist, so a short FIR
// over bins (the window kernel) needs no edge cases. Real rows mirror with the
// same sign, imaginary rows with the opposite sign.
#include <cstddef>

namespace varkesh::lumbrel::padded {

constexpr std::size_t before = 5; // index of bin 0
constexpr std::size_t after = 6;  // entries after the top bin
constexpr std::size_t extra = before + after;

inline std::size_t rowLength(std::size_t fftBins) { return fftBins + extra; }

// Fills the padding from the bins: index 5 - m mirrors 5 + m (m = 1..5), index
// fftBins + 4 + m mirrors fftBins + 4 - m (m = 1..6).
template <bool imaginary>
inline void mirror(float *row, std::size_t fftBins) {
	constexpr float sign = imaginary ? -1.0f : 1.0f;
	for (std::size_t m = 1; m <= 5; ++m) row[before - m] = sign * row[before + m];
	std::size_t top = fftBins + 4;
	for (std::size_t m = 1; m <= 6; ++m) row[top + m] = sign * row[top - m];
}

} // namespace varkesh::lumbrel::padded
