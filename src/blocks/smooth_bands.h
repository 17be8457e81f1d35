#pragma once
#include <cstddef>

namespace varkesh::lumbrel {

// [audio-thread] Smooths `count` values in place across bands with a one-pole
// recursion run backward and then forward, so that the result has no net
// shift along the band axis. `width` is in bands; at or below 1e-18 nothing
// happens. The backward pass starts from x[count - 1] and leaves x[0] and the
// last value alone; the forward pass carries its state on and covers every
// value. Allocates nothing.
//
// The recursion is serial by nature, so this is a scalar loop.
inline void smoothBands(float *x, std::size_t count, float width) {
	if (!(width > 1e-18f) || count == 0) return;
	const float a = 1 / (width + 1), b = 1 - a;
	float s = x[count - 1];
	for (std::size_t i = count - 1; i-- > 1;) {
		s = x[i] * a + s * b;
		x[i] = s;
	}
	for (std::size_t i = 0; i < count; ++i) {
		s = x[i] * a + s * b;
		x[i] = s;
	}
}

} // namespace varkesh::lumbrel
