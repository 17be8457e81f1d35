// SplitFFT: factorisation, step lists, and transforms of power-of-two times odd
// sizes against a double-precision DFT.
#include "linear/split_fft.h"

#include "dft_reference.h"

#include <gtest/gtest.h>

#include <complex>
#include <vector>

namespace {

using varkesh::linear::SplitFFT;
using lumbrel_test::directDft;
using lumbrel_test::relativeRmsError;

std::vector<int> stepTypes(const SplitFFT<float, false> &fft) {
	std::vector<int> types;
	for (std::size_t s = 0; s < fft.steps(); ++s) types.push_back(fft.step(s).type);
	return types;
}

TEST(SplitFFT, FactorisesAndListsSteps) {
	SplitFFT<float, false> fft;
	fft.resize(256);
	EXPECT_EQ(fft.inner(), 256u);
	EXPECT_EQ(fft.outer(), 1u);
	EXPECT_EQ(stepTypes(fft), (std::vector<int>{0}));

	fft.resize(384); // 128 * 3: transpose, row 0, rows 1 and 2, twiddles, radix 3
	EXPECT_EQ(fft.inner(), 128u);
	EXPECT_EQ(fft.outer(), 3u);
	EXPECT_EQ(stepTypes(fft), (std::vector<int>{2, 6, 7, 7, 8, 10}));
	EXPECT_EQ(fft.step(2).offset, 128u);
	EXPECT_EQ(fft.step(3).offset, 256u);

	fft.resize(640); // 128 * 5
	EXPECT_EQ(stepTypes(fft), (std::vector<int>{4, 6, 7, 7, 7, 7, 8, 12}));

	fft.resize(7 * 16); // general outer size
	EXPECT_EQ(stepTypes(fft), (std::vector<int>{5, 6, 7, 7, 7, 7, 7, 7, 8, 13}));

	fft.resize(0);
	EXPECT_EQ(fft.steps(), 0u);
}

void checkSize(std::size_t n) {
	SplitFFT<float, false> fft(n);
	auto noise = lumbrel_test::whiteNoise(2 * n, unsigned(n));
	std::vector<float> re(n), im(n), outR(n), outI(n);
	std::vector<std::complex<double>> x(n);
	for (std::size_t i = 0; i < n; ++i) {
		re[i] = noise[i];
		im[i] = noise[n + i];
		x[i] = {re[i], im[i]};
	}
	for (bool inverse : {false, true}) {
		if (inverse) {
			fft.fft<true>(re.data(), im.data(), outR.data(), outI.data());
		} else {
			fft.fft<false>(re.data(), im.data(), outR.data(), outI.data());
		}
		std::vector<std::complex<double>> out(n);
		for (std::size_t i = 0; i < n; ++i) out[i] = {outR[i], outI[i]};
		EXPECT_LT(relativeRmsError(out, directDft(x, inverse)), 1e-6) << "size " << n << (inverse ? " inverse" : "");
	}
}

TEST(SplitFFT, MatchesDirectDftForOddFactors) {
	for (std::size_t outer : {1u, 3u, 5u, 7u, 9u, 15u}) {
		for (std::size_t inner : {1u, 2u, 4u, 8u, 64u, 128u, 256u, 512u}) checkSize(inner * outer);
	}
	checkSize(3 * 1024);
	checkSize(5 * 1024);
}

// Types 1, 3 (transpositions for outer sizes 2 and 4) and 9, 11 (radix 2 and 4
// final passes) are never listed for an odd outer size, but exist as steps; run
// them by hand on a size whose rows are long enough.
TEST(SplitFFT, UnlistedTranspositionsAndRadix2And4Passes) {
	const std::size_t inner = 8;
	SplitFFT<float, false> fft(inner * 5);
	const std::size_t n = inner * 5;
	auto noise = lumbrel_test::whiteNoise(2 * n, 11);
	std::vector<float> re(noise.begin(), noise.begin() + n), im(noise.begin() + n, noise.end());

	for (int radix : {2, 4}) {
		// Transposition then the whole-row transforms: compare with the DFT of
		// each sub-sequence x[j], x[j + radix], ...
		std::vector<float> outR(n), outI(n);
		SplitFFT<float, false>::Step transpose{std::uint8_t(radix == 2 ? 1 : 3), 0};
		fft.fftStep<false>(transpose, re.data(), im.data(), outR.data(), outI.data());
		for (std::size_t j = 0; j < std::size_t(radix); ++j) {
			fft.fftStep<false>({7, j * inner}, re.data(), im.data(), outR.data(), outI.data());
			std::vector<std::complex<double>> sub(inner), out(inner);
			for (std::size_t m = 0; m < inner; ++m) {
				sub[m] = {re[m * radix + j], im[m * radix + j]};
				out[m] = {outR[j * inner + m], outI[j * inner + m]};
			}
			EXPECT_LT(relativeRmsError(out, directDft(sub, false)), 1e-6) << "radix " << radix << " row " << j;
		}
		// The final pass alone: a DFT of size radix down each column.
		std::vector<float> colR = re, colI = im;
		SplitFFT<float, false>::Step pass{std::uint8_t(radix == 2 ? 9 : 11), 0};
		for (bool inverse : {false, true}) {
			std::vector<float> r = colR, i = colI;
			if (inverse) {
				fft.fftStep<true>(pass, nullptr, nullptr, r.data(), i.data());
			} else {
				fft.fftStep<false>(pass, nullptr, nullptr, r.data(), i.data());
			}
			for (std::size_t c = 0; c < inner; ++c) {
				std::vector<std::complex<double>> column(radix), result(radix);
				for (int j = 0; j < radix; ++j) {
					column[j] = {colR[j * inner + c], colI[j * inner + c]};
					result[j] = {r[j * inner + c], i[j * inner + c]};
				}
				EXPECT_LT(relativeRmsError(result, directDft(column, inverse)), 1e-6);
			}
		}
	}
}

} // namespace
