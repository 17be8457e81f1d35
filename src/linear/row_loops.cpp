#include "linear/row_loops.h"

#include "linear/vector_hints.h"

namespace varkesh::linear::rows {

LUMBREL_VECTOR_CLONES void normSplit(float *out, const float *re, const float *im, std::size_t size) {
LUMBREL_IVDEP
	for (std::size_t i = 0; i < size; ++i) out[i] = re[i] * re[i] + im[i] * im[i];
}
LUMBREL_VECTOR_CLONES void square(float *out, const float *a, std::size_t size) {
LUMBREL_IVDEP
	for (std::size_t i = 0; i < size; ++i) out[i] = a[i] * a[i];
}
LUMBREL_VECTOR_CLONES void max(float *out, const float *a, const float *b, std::size_t size) {
LUMBREL_IVDEP
	for (std::size_t i = 0; i < size; ++i) out[i] = a[i] > b[i] ? a[i] : b[i];
}
LUMBREL_VECTOR_CLONES void maxScalar(float *out, const float *a, float c, std::size_t size) {
LUMBREL_IVDEP
	for (std::size_t i = 0; i < size; ++i) out[i] = a[i] > c ? a[i] : c;
}

} // namespace varkesh::linear::rows
