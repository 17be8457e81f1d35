// RealFFT: packing of the real spectrum, step counts, and accuracy against a
// double-precision DFT at the power-of-two sizes and at every size the STFT's
// size rule produces.
#include "linear/real_fft.h"

#include "dft_reference.h"

#include <gtest/gtest.h>

#include <complex>
#include <set>
#include <vector>

namespace {

using varkesh::linear::RealFFT;
using lumbrel_test::directDft;
using lumbrel_test::relativeRmsError;

// The packed form of the DFT of a real signal: element 0 = (X[0], X[N/2]).
std::vector<std::complex<double>> packedReference(const std::vector<float> &x) {
	const std::size_t n = x.size(), h = n / 2;
	std::vector<std::complex<double>> xd(x.begin(), x.end());
	auto full = directDft(xd, false);
	std::vector<std::complex<double>> packed(full.begin(), full.begin() + h);
	packed[0] = {full[0].real(), full[h].real()};
	return packed;
}

// The FFT sizes DynamicSTFT picks (a power of two times 1, 3 or 5), for all
// block lengths up to 6000.
std::set<std::size_t> stftSizes() {
	std::set<std::size_t> sizes;
	for (std::size_t n = 1; n <= 6000; ++n) {
		std::size_t q = ((n + 1) / 2 + 1) / 2, p = 1;
		while (p < std::min<std::size_t>(q, 16)) p *= 2;
		while (8 * p < q) p *= 2;
		std::size_t m = (q + p - 1) / p;
		if (m == 7) m = 8;
		sizes.insert(4 * p * m);
	}
	return sizes;
}

void checkForwardAndInverse(std::size_t n) {
	RealFFT<float, false, false> fft(n);
	const std::size_t h = n / 2;
	auto x = lumbrel_test::whiteNoise(n, unsigned(n) + 1);
	auto reference = packedReference(x);

	std::vector<std::complex<float>> spectrum(h);
	fft.fft(x.data(), spectrum.data());
	EXPECT_LT(relativeRmsError(spectrum, reference), 1e-6) << "forward, size " << n;

	std::vector<float> re(h), im(h);
	fft.fft(x.data(), re.data(), im.data());
	for (std::size_t k = 0; k < h; ++k) {
		EXPECT_EQ(re[k], spectrum[k].real());
		EXPECT_EQ(im[k], spectrum[k].imag());
	}

	// Inverse of the float spectrum: n times the input.
	std::vector<float> back(n), backSplit(n);
	fft.ifft(spectrum.data(), back.data());
	fft.ifft(re.data(), im.data(), backSplit.data());
	std::vector<double> scaled(n);
	for (std::size_t i = 0; i < n; ++i) scaled[i] = double(x[i]) * double(n);
	EXPECT_LT(relativeRmsError(back, scaled), 1e-6) << "round trip, size " << n;
	EXPECT_EQ(back, backSplit);
}

TEST(RealFFT, MatchesDirectDftAtPowersOfTwo) {
	for (std::size_t n = 2; n <= 8192; n *= 2) checkForwardAndInverse(n);
}

TEST(RealFFT, MatchesDirectDftAtEverySizeTheStftPicks) {
	auto sizes = stftSizes();
	EXPECT_TRUE(sizes.count(640) && sizes.count(768) && sizes.count(1280) && sizes.count(1536));
	for (std::size_t n : sizes) checkForwardAndInverse(n);
}

TEST(RealFFT, InverseMatchesDirectDftOfAnyPackedSpectrum) {
	// A spectrum that is not the transform of float samples: the inverse is the
	// real inverse DFT of its conjugate-symmetric continuation.
	for (std::size_t n : {8u, 96u, 768u, 1280u}) {
		RealFFT<float, false, false> fft(n);
		const std::size_t h = n / 2;
		auto noise = lumbrel_test::whiteNoise(n, 77);
		std::vector<std::complex<float>> packed(h);
		std::vector<std::complex<double>> full(n);
		for (std::size_t k = 0; k < h; ++k) packed[k] = {noise[2 * k], noise[2 * k + 1]};
		full[0] = packed[0].real();
		full[h] = packed[0].imag();
		for (std::size_t k = 1; k < h; ++k) {
			full[k] = std::complex<double>(packed[k]);
			full[n - k] = std::conj(full[k]);
		}
		auto expected = directDft(full, true);
		std::vector<float> time(n);
		fft.ifft(packed.data(), time.data());
		EXPECT_LT(relativeRmsError(time, expected), 1e-6) << "size " << n;
	}
}

TEST(RealFFT, StepCounts) {
	RealFFT<float, false, false> fft(512); // H = 256: one power-of-two step
	EXPECT_EQ(fft.steps(), 3u);
	fft.resize(768); // H = 384 = 128 * 3: six complex steps
	EXPECT_EQ(fft.steps(), 8u);
	fft.resize(1280); // H = 640 = 128 * 5
	EXPECT_EQ(fft.steps(), 10u);
}

TEST(RealFFT, SizeTwoIsSumAndDifference) {
	RealFFT<float, false, false> fft(2);
	float x[2] = {3.0f, 1.0f};
	std::complex<float> out[1];
	fft.fft(x, out);
	EXPECT_EQ(out[0], std::complex<float>(4.0f, 2.0f));
	float back[2];
	fft.ifft(out, back);
	EXPECT_EQ(back[0], 6.0f);
	EXPECT_EQ(back[1], 2.0f);
}

TEST(RealFFT, ConstantAndNyquistLandInElementZero) {
	for (std::size_t n : {64u, 768u}) {
		RealFFT<float, false, false> fft(n);
		std::vector<float> constant(n, 0.5f), nyquist(n);
		for (std::size_t i = 0; i < n; ++i) nyquist[i] = (i % 2) ? -1.0f : 1.0f;
		std::vector<std::complex<float>> out(n / 2);

		fft.fft(constant.data(), out.data());
		EXPECT_NEAR(out[0].real(), 0.5 * n, 1e-3);
		EXPECT_NEAR(out[0].imag(), 0.0, 1e-3);
		double rest = 0;
		for (std::size_t k = 1; k < n / 2; ++k) rest += std::norm(out[k]);
		EXPECT_LT(rest, 1e-6);

		fft.fft(nyquist.data(), out.data());
		EXPECT_NEAR(out[0].real(), 0.0, 1e-3);
		EXPECT_NEAR(out[0].imag(), double(n), 1e-3);
	}
}

TEST(RealFFT, ResizeToZeroAndBack) {
	RealFFT<float, false, false> fft;
	fft.resize(0);
	EXPECT_EQ(fft.steps(), 2u);
	fft.resize(640);
	checkForwardAndInverse(640);
}

} // namespace
