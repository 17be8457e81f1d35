// The platform's power-of-two transform against a double-precision DFT, for
// every size from 1 to 8192, both directions, and (on Linux) both builds of the
// vector stages; and the split complex product.
#include "linear/platform_fft.h"
#if !defined(LUMBREL_PLATFORM_ACCELERATE)
#include "linear/platform_fft_plan.h"
#endif

#include "dft_reference.h"

#include <gtest/gtest.h>

#include <complex>
#include <vector>

namespace {

using namespace varkesh::linear;
using lumbrel_test::directDft;
using lumbrel_test::relativeRmsError;

struct Rows {
	std::vector<float> re, im;
	explicit Rows(std::size_t n) : re(n), im(n) {}
	std::complex<double> operator[](std::size_t i) const { return {re[i], im[i]}; }
	std::size_t size() const { return re.size(); }
};

// Measures the worst relative RMS error of a plan over a few random inputs,
// and checks the input rows are left alone.
double worstError(platform::FFTSetup *setup, std::size_t log2Size, bool inverse) {
	const std::size_t n = std::size_t(1) << log2Size;
	double worst = 0;
	for (unsigned seed = 1; seed <= 2; ++seed) {
		auto noise = lumbrel_test::whiteNoise(2 * n, seed + 17 * unsigned(log2Size));
		Rows in(n), out(n);
		std::vector<std::complex<double>> x(n);
		for (std::size_t i = 0; i < n; ++i) {
			in.re[i] = noise[2 * i];
			in.im[i] = noise[2 * i + 1];
			x[i] = {in.re[i], in.im[i]};
		}
		Rows copy = in;
		platform::fftSplit(setup, in.re.data(), in.im.data(), out.re.data(), out.im.data(), log2Size, inverse);
		EXPECT_EQ(copy.re, in.re);
		EXPECT_EQ(copy.im, in.im);
		worst = std::max(worst, relativeRmsError(out, directDft(x, inverse)));
	}
	return worst;
}

TEST(PlatformFFT, MatchesDirectDftAtEverySize) {
	for (std::size_t log2Size = 0; log2Size <= 13; ++log2Size) {
		platform::FFTSetup *setup = platform::createFFTSetup(log2Size);
		ASSERT_NE(setup, nullptr);
		EXPECT_LT(worstError(setup, log2Size, false), 1e-6) << "forward, size " << (1 << log2Size);
		EXPECT_LT(worstError(setup, log2Size, true), 1e-6) << "inverse, size " << (1 << log2Size);
		platform::destroyFFTSetup(setup);
	}
}

#if !defined(LUMBREL_PLATFORM_ACCELERATE)
// The baseline build must be right even on a machine that runs AVX2, since
// some users' machines will run it.
TEST(PlatformFFT, BothVectorBuildsMatchDirectDft) {
	using platform::detail::FFTImplementation;
	for (auto implementation : {FFTImplementation::baseline, FFTImplementation::avx2}) {
		if (implementation == FFTImplementation::avx2 && !platform::detail::cpuHasAvx2Fma()) continue;
		for (std::size_t log2Size = 0; log2Size <= 12; ++log2Size) {
			platform::FFTSetup *setup = platform::detail::createFFTSetupFor(log2Size, implementation);
			ASSERT_NE(setup, nullptr);
			EXPECT_EQ(platform::detail::implementationOf(setup), implementation);
			EXPECT_LT(worstError(setup, log2Size, false), 1e-6) << int(implementation) << " size " << (1 << log2Size);
			EXPECT_LT(worstError(setup, log2Size, true), 1e-6) << int(implementation) << " size " << (1 << log2Size);
			platform::destroyFFTSetup(setup);
		}
	}
}
#endif

TEST(PlatformFFT, InverseOfForwardIsInputTimesSize) {
	for (std::size_t log2Size : {1u, 4u, 6u, 7u, 10u, 12u}) {
		const std::size_t n = std::size_t(1) << log2Size;
		platform::FFTSetup *setup = platform::createFFTSetup(log2Size);
		auto noise = lumbrel_test::whiteNoise(2 * n, 5);
		Rows x(n), spectrum(n), back(n);
		for (std::size_t i = 0; i < n; ++i) {
			x.re[i] = noise[i];
			x.im[i] = noise[n + i];
		}
		platform::fftSplit(setup, x.re.data(), x.im.data(), spectrum.re.data(), spectrum.im.data(), log2Size, false);
		platform::fftSplit(setup, spectrum.re.data(), spectrum.im.data(), back.re.data(), back.im.data(), log2Size, true);
		std::vector<std::complex<double>> scaled(n);
		for (std::size_t i = 0; i < n; ++i) scaled[i] = std::complex<double>(x[i]) * double(n);
		EXPECT_LT(relativeRmsError(back, scaled), 1e-6) << "size " << n;
		platform::destroyFFTSetup(setup);
	}
}

TEST(PlatformFFT, ComplexMultiplyWithAndWithoutConjugate) {
	const std::size_t n = 37; // not a multiple of any vector width
	auto noise = lumbrel_test::whiteNoise(4 * n, 9);
	std::vector<float> ar(noise.begin(), noise.begin() + n), ai(noise.begin() + n, noise.begin() + 2 * n);
	std::vector<float> br(noise.begin() + 2 * n, noise.begin() + 3 * n), bi(noise.begin() + 3 * n, noise.end());
	for (bool conjugate : {false, true}) {
		std::vector<float> outR(n), outI(n);
		platform::complexMultiply(outR.data(), outI.data(), ar.data(), ai.data(), br.data(), bi.data(), n, conjugate);
		for (std::size_t i = 0; i < n; ++i) {
			std::complex<double> a(ar[i], conjugate ? -ai[i] : ai[i]), b(br[i], bi[i]);
			std::complex<double> expected = a * b;
			EXPECT_NEAR(outR[i], expected.real(), 1e-6);
			EXPECT_NEAR(outI[i], expected.imag(), 1e-6);
		}
		// In place over b, as the twiddle step does.
		std::vector<float> cr = br, ci = bi;
		platform::complexMultiply(cr.data(), ci.data(), ar.data(), ai.data(), cr.data(), ci.data(), n, conjugate);
		EXPECT_EQ(cr, outR);
		EXPECT_EQ(ci, outI);
	}
}

} // namespace
