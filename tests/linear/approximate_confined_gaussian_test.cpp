// The approximate confined Gaussian window: where it peaks, how it ends, and
// what warping does.
#include "linear/approximate_confined_gaussian.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using varkesh::linear::ApproximateConfinedGaussian;

std::size_t peakIndex(const std::vector<float> &w) {
	return std::size_t(std::max_element(w.begin(), w.end()) - w.begin()); // first of equal maxima
}

TEST(ApproximateConfinedGaussian, PeakPositionDependsOnParityAndRole) {
	ApproximateConfinedGaussian acg(720 * 0.6944444444444444 / 120);
	std::vector<float> odd(721), evenAnalysis(720), evenSynthesis(720);
	acg.fill(odd.data(), odd.size(), 0, false);
	acg.fill(evenAnalysis.data(), evenAnalysis.size(), 0, false);
	acg.fill(evenSynthesis.data(), evenSynthesis.size(), 0, true);
	EXPECT_EQ(peakIndex(odd), 360u);           // (721 - 1) / 2
	EXPECT_EQ(peakIndex(evenAnalysis), 359u);  // 720 / 2 - 1
	EXPECT_EQ(peakIndex(evenSynthesis), 360u); // 720 / 2
	// The centre sample is at x = 1, u = 0: G(0) - m (G(2) + G(-2)) over p is 1.
	EXPECT_NEAR(odd[360], 1.0, 1e-6);
	// Confined: the ends are near zero, and the shape is symmetric.
	EXPECT_LT(odd.front(), 1e-3);
	for (std::size_t i = 0; i < 721; ++i) EXPECT_NEAR(odd[i], odd[720 - i], 1e-6);
}

TEST(ApproximateConfinedGaussian, WarpMovesThePeak) {
	ApproximateConfinedGaussian acg(4.0);
	std::vector<float> left(301), right(301);
	acg.fill(left.data(), left.size(), -0.3, false);
	acg.fill(right.data(), right.size(), 0.3, false);
	// u = 0 at x = 1 - warp: a positive warp moves the peak earlier.
	EXPECT_GT(peakIndex(left), 150u + 10);
	EXPECT_LT(peakIndex(right), 150u - 10);
}

} // namespace
