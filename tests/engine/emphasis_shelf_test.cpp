// The emphasis shelf lifts the top by its gain and leaves the bottom alone; the
// flatten table is 1 / |H|. (That the +g and -g shelves cancel shows in the
// pass-through tests.)
#include "engine/emphasis_shelf.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

using varkesh::lumbrel::designEmphasisShelf;
using varkesh::lumbrel::fillFlatten;
using varkesh::lumbrel::Shelf;

double dB(double x) { return 20 * std::log10(x); }

TEST(EmphasisShelf, LiftsTheTopByTheGain) {
	for (float sampleRate : {44100.0f, 48000.0f, 96000.0f}) {
		Shelf shelf;
		designEmphasisShelf(shelf, 12.0, sampleRate);
		std::size_t fft = 1536, bins = fft / 2 + 1;
		std::vector<float> flatten(bins);
		fillFlatten(flatten.data(), bins, fft, shelf);
		auto gainAt = [&](double hz) { return -dB(flatten[std::size_t(hz / sampleRate * double(fft) + 0.5)]); };
		SCOPED_TRACE(sampleRate);
		EXPECT_NEAR(gainAt(0), 0.0, 0.01);
		EXPECT_NEAR(gainAt(sampleRate * 0.5), 12.0, 0.1);
		EXPECT_NEAR(gainAt(150), 0.0, 0.5);
		EXPECT_NEAR(gainAt(15000), 12.0, 0.5);
		double corner = gainAt(1200);
		EXPECT_GT(corner, 3.0);
		EXPECT_LT(corner, 9.0);
	}
}

} // namespace
