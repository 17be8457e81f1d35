// Pow2FFT: the owner of a platform plan, its life cycle and interleaved forms.
#include "linear/pow2_fft.h"

#include "dft_reference.h"

#include <gtest/gtest.h>

#include <complex>
#include <vector>

namespace {

using varkesh::linear::Pow2FFT;

TEST(Pow2FFT, SizeZeroLeavesNoSetupAndResizeRebuilds) {
	Pow2FFT<float> fft;
	fft.resize(0);
	EXPECT_FALSE(fft.hasSetup());
	fft.resize(64);
	EXPECT_TRUE(fft.hasSetup());
	EXPECT_EQ(fft.log2Size(), 6u);
	fft.resize(8);
	EXPECT_EQ(fft.log2Size(), 3u);
	fft.resize(0);
	EXPECT_FALSE(fft.hasSetup());
}

TEST(Pow2FFT, InterleavedFormsMatchDirectDftAndWorkInPlace) {
	for (std::size_t n : {2u, 16u, 128u, 1024u}) {
		Pow2FFT<float> fft(n);
		auto noise = lumbrel_test::whiteNoise(2 * n, unsigned(n));
		std::vector<std::complex<float>> x(n), y(n);
		std::vector<std::complex<double>> xd(n);
		for (std::size_t i = 0; i < n; ++i) xd[i] = x[i] = {noise[2 * i], noise[2 * i + 1]};
		fft.fft(x.data(), y.data());
		EXPECT_LT(lumbrel_test::relativeRmsError(y, lumbrel_test::directDft(xd, false)), 1e-6);
		// In place, inverse: back to n x.
		fft.ifft(y.data(), y.data());
		for (auto &v : xd) v *= double(n);
		EXPECT_LT(lumbrel_test::relativeRmsError(y, xd), 1e-6);
	}
}

TEST(Pow2FFT, MovedObjectKeepsItsPlan) {
	Pow2FFT<float> a(32);
	Pow2FFT<float> b(std::move(a));
	EXPECT_TRUE(b.hasSetup());
	EXPECT_FALSE(a.hasSetup());
	std::vector<float> re(32, 1.0f), im(32, 0.0f), outR(32), outI(32);
	b.fft(re.data(), im.data(), outR.data(), outI.data());
	EXPECT_FLOAT_EQ(outR[0], 32.0f);
	EXPECT_NEAR(outR[1], 0.0f, 1e-6);
}

} // namespace
