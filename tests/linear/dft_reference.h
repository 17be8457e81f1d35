#pragma once
// Direct DFT in double precision, the yardstick for the transforms, and the
// relative RMS error between a float result and it.
#include <cmath>
#include <complex>
#include <cstddef>
#include <random>
#include <vector>

namespace lumbrel_test {

// X[k] = sum x[n] exp(-+2 pi i n k / N), unnormalised; sign -1 forward.
inline std::vector<std::complex<double>> directDft(const std::vector<std::complex<double>> &x, bool inverse) {
	const std::size_t n = x.size();
	std::vector<std::complex<double>> roots(n), out(n);
	for (std::size_t k = 0; k < n; ++k) {
		double angle = (inverse ? 2.0 : -2.0) * M_PI * double(k) / double(n);
		roots[k] = {std::cos(angle), std::sin(angle)};
	}
	for (std::size_t k = 0; k < n; ++k) {
		std::complex<double> sum = 0;
		std::size_t index = 0;
		for (std::size_t j = 0; j < n; ++j) {
			sum += x[j] * roots[index];
			index += k;
			if (index >= n) index -= n;
		}
		out[k] = sum;
	}
	return out;
}

// sqrt(sum |a - ref|^2 / sum |ref|^2)
template <class A, class R>
double relativeRmsError(const A &a, const R &ref) {
	double err = 0, energy = 0;
	for (std::size_t i = 0; i < ref.size(); ++i) {
		std::complex<double> d = std::complex<double>(a[i]) - std::complex<double>(ref[i]);
		err += std::norm(d);
		energy += std::norm(std::complex<double>(ref[i]));
	}
	return std::sqrt(err / energy);
}

inline std::vector<float> whiteNoise(std::size_t n, unsigned seed) {
	std::mt19937 rng(seed);
	std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
	std::vector<float> v(n);
	for (auto &x : v) x = dist(rng);
	return v;
}

} // namespace lumbrel_test
