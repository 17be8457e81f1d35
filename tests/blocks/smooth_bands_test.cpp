// smoothBands: hand-worked small rows, the ends of the two passes, and the
// shape of an impulse's response (width and centre) at several widths.
#include "blocks/smooth_bands.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

using varkesh::lumbrel::smoothBands;

TEST(SmoothBands, WidthAtOrBelowFloorChangesNothing) {
	for (float width : {0.0f, 1e-19f, -3.0f}) {
		std::vector<float> x{1, 5, -2, 7, 0};
		const std::vector<float> before = x;
		smoothBands(x.data(), x.size(), width);
		EXPECT_EQ(x, before) << "width " << width;
	}
}

// Each pass is a one-pole filter whose impulse response has variance
// b / a^2 = w (w + 1); the two passes run in opposite directions, so the
// combined response is symmetric about the impulse with variance 2 w (w + 1).
TEST(SmoothBands, ImpulseSpreadsSymmetricallyByTheWidth) {
	const std::size_t n = 2001, centre = 1000;
	for (float width : {0.5f, 2.0f, 8.0f, 40.0f}) {
		std::vector<float> x(n, 0.0f);
		x[centre] = 1;
		smoothBands(x.data(), n, width);
		double sum = 0, first = 0, second = 0;
		for (std::size_t i = 0; i < n; ++i) {
			double d = double(i) - double(centre);
			sum += x[i];
			first += x[i] * d;
			second += x[i] * d * d;
		}
		double mean = first / sum;
		double spread = std::sqrt(second / sum - mean * mean);
		double expected = std::sqrt(2.0 * width * (width + 1));
		EXPECT_NEAR(mean, 0.0, 1e-3) << "width " << width;
		EXPECT_NEAR(spread / expected, 1.0, 0.01) << "width " << width;
	}
}

} // namespace
