#pragma once
// The engine's frequency scale: a rational, Bark-like map that is nearly linear
// at low frequencies and flattens out towards the top. Bands are laid out
// `resolution` per unit of it up to the knee.
//
//   x(f) = (15.338548 f + 289.6142) / (0.5528328 f + 1176.7571)
//   f(x) = (1176.7571 x - 289.6142) / (15.338548 - 0.5528328 x)
//   df/dx = 17889.637 / (15.338548 - 0.5528328 x)^2
#include <cstddef>

namespace varkesh::lumbrel::frequencyScale {

// x(0): where the first band sits.
constexpr float zeroHz = 0.24611214f;

// The scale value at Nyquist, in single precision.
inline float atNyquist(float sampleRate) {
	return (7.669274f * sampleRate + 289.6142f) / (0.2764164f * sampleRate + 1176.7571f);
}

// f(x) in double from the float constants widened, rounded to float.
inline float hzAt(float x) {
	double xd = x;
	return float((1176.757080078125 * xd + -289.61419677734375) / (15.338547706604004 + -0.5528327822685242 * xd));
}

// Width in Hz of a step of `step` scale units at x, in single precision.
inline float widthAt(float x, float step) {
	float d = 15.338548f - 0.5528328f * x;
	return (step * 17889.637f) / (d * d);
}

} // namespace varkesh::lumbrel::frequencyScale
