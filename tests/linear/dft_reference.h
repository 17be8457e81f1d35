#pragma once
// The yardsticks of the signal toolkit's tests: a direct DFT in double precision and the relative RMS error against it.
#include "linear/dynamic_stft.h"
#include "support/signals.h"

#include <cmath>
#include <complex>
#include <cstddef>
#include <vector>

namespace lumbrel_test {

// X[k] = sum x[n] exp(-+2 pi i n k / N), unnormalised; minus forward.
inline std::vector<std::complex<double>> directDft(const std::vector<std::complex<double>> &x, bool inverse) {
	const std::size_t n = x.size();
	std::vector<std::complex<double>> roots(n), out(n);
	for (std::size_t k = 0; k < n; ++k) roots[k] = std::polar(1.0, (inverse ? 2.0 : -2.0) * M_PI * double(k) / double(n));
	for (std::size_t k = 0; k < n; ++k) {
		for (std::size_t j = 0, index = 0; j < n; ++j, index = (index + k) % n) out[k] += x[j] * roots[index];
	}
	return out;
}

// sqrt(sum |a - ref|^2 / sum |ref|^2)
template <class A, class R>
double relativeRmsError(const A &a, const R &ref) {
	double err = 0, energy = 0;
	for (std::size_t i = 0; i < ref.size(); ++i) {
		err += std::norm(std::complex<double>(a[i]) - std::complex<double>(ref[i]));
		energy += std::norm(std::complex<double>(ref[i]));
	}
	return std::sqrt(err / energy);
}

// The FFT size the STFT picks for a block (hint 0) or for a hint.
inline std::size_t stftFftSize(std::size_t block, std::size_t hint = 0) {
	varkesh::linear::DynamicSTFT<float, false, 2> stft;
	stft.configure(0, 0, block, 0, block / 4 + 1, 0, hint);
	return stft.fftSamples;
}

} // namespace lumbrel_test
