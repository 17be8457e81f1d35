// The analysis window: a confined Gaussian peaking at exactly 1 in the middle,
// at any overlap and for odd lengths.
#include "engine/engine_windows.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using varkesh::lumbrel::fillAnalysisWindow;

TEST(EngineWindows, AnalysisWindowIsAConfinedBellOfPeakOne) {
	for (auto [length, interval] : {std::pair{720u, 120u}, {662u, 110u}, {144u, 24u}, {1440u, 240u}}) {
		std::vector<float> w(length);
		fillAnalysisWindow(w.data(), length, interval);
		SCOPED_TRACE(length);
		EXPECT_EQ(w[0], 0.0f);
		EXPECT_NEAR(w[length / 2], 1.0f, 1e-6f);
		for (std::size_t j = 1; j < length / 2; ++j) {
			ASSERT_LE(w[j], w[j + 1] + 1e-7f) << j;                           // rises to the middle
			ASSERT_NEAR(w[length / 2 - j], w[length / 2 + j], 2e-2f) << j; // nearly symmetric
		}
		EXPECT_LT(w[1], 3e-3f); // confined: almost nothing left at the ends
		EXPECT_LT(w[length - 1], 3e-3f);
	}
}

} // namespace
