// The transforms against a double-precision DFT: the platform's power-of-two plan (both vector builds on Linux), its
// owner, the split (2^k times odd) and real transforms at every size the STFT picks.
#include "linear/platform_fft.h"
#include "linear/pow2_fft.h"
#include "linear/real_fft.h"
#include "linear/split_fft.h"
#if !defined(LUMBREL_PLATFORM_ACCELERATE)
#include "linear/platform_fft_plan.h"
#endif

#include "dft_reference.h"

#include <gtest/gtest.h>

#include <set>

namespace {

using namespace varkesh::linear;
using lumbrel_test::directDft;
using lumbrel_test::relativeRmsError;
using lumbrel_test::whiteNoise;
using Complexes = std::vector<std::complex<double>>;

// Worst relative error of a platform plan in one direction; the input rows stay as they were.
double platformError(platform::FFTSetup *setup, std::size_t log2Size, bool inverse) {
	const std::size_t n = std::size_t(1) << log2Size;
	auto re = whiteNoise(n, 1, unsigned(log2Size)), im = whiteNoise(n, 1, unsigned(log2Size) + 50);
	const auto reIn = re, imIn = im;
	std::vector<float> outR(n), outI(n);
	platform::fftSplit(setup, re.data(), im.data(), outR.data(), outI.data(), log2Size, inverse);
	EXPECT_TRUE(re == reIn && im == imIn) << "input rows written";
	Complexes x(n), y(n);
	for (std::size_t i = 0; i < n; ++i) x[i] = {re[i], im[i]}, y[i] = {outR[i], outI[i]};
	return relativeRmsError(y, directDft(x, inverse));
}

TEST(PlatformFFT, MatchesDirectDftAtEverySizeInBothBuilds) {
#if defined(LUMBREL_PLATFORM_ACCELERATE)
	auto create = [](std::size_t log2Size, int) { return platform::createFFTSetup(log2Size); };
	const int builds[] = {0};
#else
	using platform::detail::FFTImplementation;
	auto create = [](std::size_t log2Size, int build) {
		return platform::detail::createFFTSetupFor(log2Size, FFTImplementation(build));
	};
	std::vector<int> builds = {int(FFTImplementation::baseline)};
	if (platform::detail::cpuHasAvx2Fma()) builds.push_back(int(FFTImplementation::avx2));
#endif
	for (int build : builds) {
		for (std::size_t log2Size = 0; log2Size <= 13; ++log2Size) {
			platform::FFTSetup *setup = create(log2Size, build);
			ASSERT_NE(setup, nullptr);
			for (bool inverse : {false, true}) {
				EXPECT_LT(platformError(setup, log2Size, inverse), 1e-6)
					<< "build " << build << ", size " << (1 << log2Size) << (inverse ? " inverse" : "");
			}
			platform::destroyFFTSetup(setup);
		}
	}
}

TEST(Pow2FFT, InterleavedFormsInPlaceAndAfterAMove) {
	for (std::size_t n : {2u, 128u, 1024u}) {
		Pow2FFT<float> made(n), fft(std::move(made));
		EXPECT_FALSE(made.hasSetup());
		auto noise = whiteNoise(2 * n, 1, unsigned(n));
		std::vector<std::complex<float>> x(n), y(n);
		Complexes xd(n);
		for (std::size_t i = 0; i < n; ++i) xd[i] = x[i] = {noise[2 * i], noise[2 * i + 1]};
		fft.fft(x.data(), y.data());
		EXPECT_LT(relativeRmsError(y, directDft(xd, false)), 1e-6) << n;
		fft.ifft(y.data(), y.data());
		for (auto &v : xd) v *= double(n);
		EXPECT_LT(relativeRmsError(y, xd), 1e-6) << n;
	}
}

void checkSplit(std::size_t n) {
	SplitFFT<float, false> fft(n);
	auto re = whiteNoise(n, 1, unsigned(n)), im = whiteNoise(n, 1, unsigned(n) + 1);
	std::vector<float> outR(n), outI(n);
	Complexes x(n), y(n);
	for (std::size_t i = 0; i < n; ++i) x[i] = {re[i], im[i]};
	for (bool inverse : {false, true}) {
		if (inverse) {
			fft.fft<true>(re.data(), im.data(), outR.data(), outI.data());
		} else {
			fft.fft<false>(re.data(), im.data(), outR.data(), outI.data());
		}
		for (std::size_t i = 0; i < n; ++i) y[i] = {outR[i], outI[i]};
		EXPECT_LT(relativeRmsError(y, directDft(x, inverse)), 1e-6) << "size " << n << (inverse ? " inverse" : "");
	}
}

TEST(SplitFFT, MatchesDirectDftForOddFactors) {
	for (std::size_t outer : {1u, 3u, 5u, 7u, 9u, 15u}) {
		for (std::size_t inner : {1u, 2u, 4u, 8u, 64u, 512u}) checkSplit(inner * outer);
	}
	checkSplit(5 * 1024);
}

// Forward against the packed DFT (element 0 holds X[0] and X[N/2]), the split form equal to the interleaved one, and the
// round trip back to N times the input.
void checkReal(std::size_t n) {
	RealFFT<float, false, false> fft(n);
	const std::size_t h = n / 2;
	auto x = whiteNoise(n, 1, unsigned(n) + 1);
	auto full = directDft(Complexes(x.begin(), x.end()), false);
	Complexes packed(full.begin(), full.begin() + std::ptrdiff_t(h));
	packed[0] = {full[0].real(), full[h].real()};
	std::vector<std::complex<float>> spectrum(h);
	fft.fft(x.data(), spectrum.data());
	EXPECT_LT(relativeRmsError(spectrum, packed), 1e-6) << "forward, size " << n;
	std::vector<float> re(h), im(h), back(n), backSplit(n);
	fft.fft(x.data(), re.data(), im.data());
	for (std::size_t k = 0; k < h; ++k) ASSERT_EQ(std::complex<float>(re[k], im[k]), spectrum[k]) << n << " " << k;
	fft.ifft(spectrum.data(), back.data());
	fft.ifft(re.data(), im.data(), backSplit.data());
	std::vector<double> scaled(x.begin(), x.end());
	for (double &v : scaled) v *= double(n);
	EXPECT_LT(relativeRmsError(back, scaled), 1e-6) << "round trip, size " << n;
	EXPECT_EQ(back, backSplit);
}

TEST(RealFFT, MatchesDirectDftAtPowersOfTwoAndEverySizeTheStftPicks) {
	std::set<std::size_t> sizes;
	for (std::size_t n = 2; n <= 8192; n *= 2) sizes.insert(n);
	// Odd factors 3 and 5 with rows too short for the vector passes.
	for (std::size_t n : {6u, 10u, 12u, 20u, 24u, 40u}) sizes.insert(n);
	for (std::size_t block = 1; block <= 6000; block += 7) sizes.insert(lumbrel_test::stftFftSize(block));
	EXPECT_TRUE(sizes.count(768) && sizes.count(1280) && sizes.count(1536));
	for (std::size_t n : sizes) checkReal(n);
}

// A packed spectrum that no float signal gives: the inverse is the real inverse DFT of its conjugate-symmetric
// continuation.
TEST(RealFFT, InverseOfAnyPackedSpectrum) {
	for (std::size_t n : {8u, 96u, 1280u}) {
		RealFFT<float, false, false> fft(n);
		const std::size_t h = n / 2;
		auto noise = whiteNoise(n, 1, 77);
		std::vector<std::complex<float>> packed(h);
		Complexes full(n);
		for (std::size_t k = 0; k < h; ++k) packed[k] = {noise[2 * k], noise[2 * k + 1]};
		full[0] = packed[0].real();
		full[h] = packed[0].imag();
		for (std::size_t k = 1; k < h; ++k) full[n - k] = std::conj(full[k] = std::complex<double>(packed[k]));
		std::vector<float> time(n);
		fft.ifft(packed.data(), time.data());
		EXPECT_LT(relativeRmsError(time, directDft(full, true)), 1e-6) << "size " << n;
	}
}

} // namespace
