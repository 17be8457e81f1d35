#pragma once
// Approximate confined Gaussian window: a Gaussian minus two shifted copies, so
// that it reaches (nearly) zero at its ends while keeping a Gaussian's compact
// spectrum. `k` sets the width: larger k is narrower.
#include <cmath>
#include <cstddef>

namespace varkesh::linear {

struct ApproximateConfinedGaussian {
	double k;

	explicit ApproximateConfinedGaussian(double k) : k(k) {}

	// [set-up] Writes `size` points. The sample grid: point i sits at
	// x = (2 i + o) / size on 0..2, with o = 1 for an odd size, otherwise 0 for a
	// synthesis window and 2 for an analysis window (so that the even-size
	// analysis window peaks at size / 2 - 1 and the synthesis one at size / 2).
	// `warp` in -1..1 skews the peak (0 for symmetric); a warped window is scaled
	// so that a window and its reverse stay power-complementary in shape.
	template <typename Sample>
	void fill(Sample *window, std::size_t size, double warp, bool isForSynthesis) const {
		double e1 = std::exp(-k);
		double m = e1 / (std::exp(-9 * k) + e1);
		double p = 1 - 2 * m * std::exp(-4 * k);
		auto gauss = [this](double v) { return std::exp(-k * v * v); };
		for (std::size_t i = 0; i < size; ++i) {
			double s = 2.0 * double(i) + ((size & 1) ? 1 : (isForSynthesis ? 0 : 2));
			double x = s / double(size);
			double u = (x + warp - 1) / (x * warp - warp + 1);
			window[i] = Sample((gauss(u) - m * (gauss(u - 2) + gauss(u + 2))) / p);
		}
		if (warp != 0) {
			for (std::size_t i = 0; i < size; ++i) {
				double w = double(window[i]);
				window[i] = Sample(w * std::sqrt((1 + warp) / (1 + warp * (2 * w - 1))));
			}
		}
	}
};

} // namespace varkesh::linear
