// stftWindowConvolve against a plain circular convolution of the whole
// conjugate-symmetric spectrum with the symmetric kernel.
#include "engine/window_convolve.h"

#include <gtest/gtest.h>

#include <complex>
#include <random>
#include <vector>

namespace {

using varkesh::lumbrel::stftWindowConvolve;
using varkesh::lumbrel::WindowKernel;
namespace padded = varkesh::lumbrel::padded;

WindowKernel kernelWithTaps(std::size_t taps) {
	WindowKernel kernel;
	const float shape[6] = {0.4f, 0.3f, 0.12f, 0.04f, 0.01f, 0.002f};
	for (std::size_t i = 0; i < taps; ++i) kernel.coefficients[i] = shape[i];
	kernel.taps = taps;
	return kernel;
}

// Half-spectra of bins 0..fftBins-1 from a real signal: DC and Nyquist are real.
struct HalfSpectrum {
	std::vector<float> re, im;
};

HalfSpectrum reference(const HalfSpectrum &x, const WindowKernel &kernel, std::size_t fftSamples) {
	std::size_t bins = fftSamples / 2 + 1;
	std::vector<std::complex<double>> full(fftSamples);
	for (std::size_t k = 0; k < bins; ++k) {
		full[k] = {x.re[k], x.im[k]};
		if (k > 0 && k < fftSamples / 2) full[fftSamples - k] = std::conj(full[k]);
	}
	long half = kernel.taps <= 3 ? 2 : long(kernel.taps) - 1;
	HalfSpectrum out{std::vector<float>(bins), std::vector<float>(bins)};
	for (std::size_t k = 0; k < bins; ++k) {
		std::complex<double> sum = 0;
		for (long t = -half; t <= half; ++t) {
			long index = (long(k) + t + long(fftSamples)) % long(fftSamples);
			sum += double(kernel.coefficients[std::abs(t)]) * full[std::size_t(index)];
		}
		out.re[k] = float(sum.real());
		out.im[k] = float(sum.imag());
	}
	return out;
}

TEST(WindowConvolve, MatchesCircularConvolutionOfTheWholeSpectrum) {
	std::size_t fftSamples = 64, bins = fftSamples / 2 + 1;
	std::mt19937 random(4);
	std::uniform_real_distribution<float> uniform(-1, 1);
	for (std::size_t taps : {2u, 3u, 4u, 5u, 6u}) {
		HalfSpectrum x{std::vector<float>(bins), std::vector<float>(bins)};
		for (std::size_t k = 0; k < bins; ++k) {
			x.re[k] = uniform(random);
			x.im[k] = (k == 0 || k == bins - 1) ? 0.0f : uniform(random);
		}
		WindowKernel kernel = kernelWithTaps(taps);
		HalfSpectrum expected = reference(x, kernel, fftSamples);

		std::vector<float> inRe(padded::rowLength(bins), 0.0f), inIm(inRe), outRe(inRe), outIm(inRe);
		std::copy(x.re.begin(), x.re.end(), inRe.begin() + padded::before);
		std::copy(x.im.begin(), x.im.end(), inIm.begin() + padded::before);
		stftWindowConvolve<false>(inRe.data(), outRe.data(), kernel, bins, true);
		stftWindowConvolve<true>(inIm.data(), outIm.data(), kernel, bins, true);
		for (std::size_t k = 0; k < bins; ++k) {
			ASSERT_NEAR(outRe[k + padded::before], expected.re[k], 1e-5f) << taps << " taps, bin " << k;
			ASSERT_NEAR(outIm[k + padded::before], expected.im[k], 1e-5f) << taps << " taps, bin " << k;
		}
		// The output's padding continues it through 0 Hz and Nyquist.
		for (std::size_t m = 1; m <= 5; ++m) {
			EXPECT_EQ(outRe[padded::before - m], outRe[padded::before + m]);
			EXPECT_EQ(outIm[padded::before - m], -outIm[padded::before + m]);
		}
		for (std::size_t m = 1; m <= 6; ++m) {
			std::size_t top = bins + 4;
			EXPECT_EQ(outRe[top + m], outRe[top - m]);
			EXPECT_EQ(outIm[top + m], -outIm[top - m]);
		}
	}
}

} // namespace
