#pragma once
// The element loops of the expression layer that have no platform routine.
// Compiled in the library with vectorisation on (row_loops.cpp), so that callers
// in any translation unit get the vector code.
#include <cstddef>

namespace varkesh::linear::rows {

// [any thread] out = re^2 + im^2. out may equal re or im.
void normSplit(float *out, const float *re, const float *im, std::size_t size);
// [any thread] out = a^2. out may equal a.
void square(float *out, const float *a, std::size_t size);
// [any thread] out = a > b ? a : b, so a NaN in a gives b and a NaN in b stays.
void max(float *out, const float *a, const float *b, std::size_t size);
// [any thread] out = a > c ? a : c.
void maxScalar(float *out, const float *a, float c, std::size_t size);

} // namespace varkesh::linear::rows
