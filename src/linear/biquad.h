#pragma once
// One biquad section in direct form I with its state, a0 normalised to 1.
//
// The nine fields are a plain record in this order (a1, a2, b0, b1, b2, x1, x2,
// y1, y2) so that an owner can set coefficients directly. All arithmetic is in
// the sample type: y = b0 x + b1 x1 + b2 x2 - (a1 y1 + a2 y2).
#include <cstddef>

namespace varkesh::filters {

// The flag selects a variant; only `false` (the plain scalar section) exists.
template <typename Sample, bool variant>
struct BiquadStatic;

template <typename Sample>
struct BiquadStatic<Sample, false> {
	Sample a1 = 0, a2 = 0;
	Sample b0 = 1, b1 = 0, b2 = 0;
	Sample x1 = 0, x2 = 0;
	Sample y1 = 0, y2 = 0;

	// Clears the state, keeps the coefficients.
	void reset() { x1 = x2 = y1 = y2 = 0; }

	Sample operator()(Sample x) {
		Sample y = b0 * x + b1 * x1 + b2 * x2 - (a1 * y1 + a2 * y2);
		x2 = x1;
		x1 = x;
		y2 = y1;
		y1 = y;
		return y;
	}

	// Filters `count` samples; `output` may equal `input`.
	void process(const Sample *input, Sample *output, std::size_t count) {
		Sample lx1 = x1, lx2 = x2, ly1 = y1, ly2 = y2;
		for (std::size_t i = 0; i < count; ++i) {
			Sample x = input[i];
			Sample y = b0 * x + b1 * lx1 + b2 * lx2 - (a1 * ly1 + a2 * ly2);
			lx2 = lx1;
			lx1 = x;
			ly2 = ly1;
			ly1 = y;
			output[i] = y;
		}
		x1 = lx1;
		x2 = lx2;
		y1 = ly1;
		y2 = ly2;
	}
};

} // namespace varkesh::filters
