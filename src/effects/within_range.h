#pragma once

namespace varkesh::lumbrel::quorl {

// Host events and saved states may carry values outside a parameter's range
// (a position's map even has poles), and parameters store them as they come.
// The wrappers hand them to the DSP inside the declared range, so that the
// arithmetic the range protects stays finite. NaN becomes `low`. Clamping
// before the conversion to a float field also keeps huge doubles out of it.
inline double withinRange(double value, double low, double high) {
	return value >= low ? (value <= high ? value : high) : low;
}

} // namespace varkesh::lumbrel::quorl
