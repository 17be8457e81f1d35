#pragma once
// The engine's analysis and synthesis windows.
#include <cstddef>

namespace varkesh::lumbrel {

// Confined Gaussian of `length` points for a hop of `interval`, with element 0 at
// 0 and the peak of exactly 1 at length / 2. Its width scales with the overlap,
// so the kernel that models it in the bin domain stays short (5 to 11 taps).
void fillAnalysisWindow(float *window, std::size_t length, std::size_t interval);

// Raised cosine of width two intervals and peak 2 at index `interval`, zero for
// the rest of the `length` points. Its copies one interval apart sum to 2.
void fillSynthesisWindow(float *window, std::size_t length, std::size_t interval);

} // namespace varkesh::lumbrel
