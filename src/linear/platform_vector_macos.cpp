// Row operations on macOS: one Accelerate call each.
#include "linear/platform_vector.h"

#include "linear/accelerate.h"

#include <cstring>

namespace varkesh::linear::platform {

void add(float *out, const float *a, const float *b, std::size_t size) { vDSP_vadd(a, 1, b, 1, out, 1, size); }
// vDSP_vsub computes its second operand minus its first.
void sub(float *out, const float *a, const float *b, std::size_t size) { vDSP_vsub(b, 1, a, 1, out, 1, size); }
void mul(float *out, const float *a, const float *b, std::size_t size) { vDSP_vmul(a, 1, b, 1, out, 1, size); }
void div(float *out, const float *a, const float *b, std::size_t size) {
	int n = int(size);
	vvdivf(out, a, b, &n);
}
void addScalar(float *out, const float *a, float c, std::size_t size) { vDSP_vsadd(a, 1, &c, out, 1, size); }
void mulScalar(float *out, const float *a, float c, std::size_t size) { vDSP_vsmul(a, 1, &c, out, 1, size); }
void neg(float *out, const float *a, std::size_t size) { vDSP_vneg(a, 1, out, 1, size); }
void fill(float *out, float c, std::size_t size) { vDSP_vfill(&c, out, 1, size); }
void fillComplex(float *outReal, float *outImag, float re, float im, std::size_t size) {
	DSPSplitComplex value{&re, &im};
	DSPSplitComplex out{outReal, outImag};
	vDSP_zvfill(&value, &out, 1, size);
}
void addMul(float *out, const float *a, const float *b, const float *c, std::size_t size) {
	vDSP_vam(a, 1, b, 1, c, 1, out, 1, size);
}
void complexAbs(float *out, const float *re, const float *im, std::size_t size) {
	DSPSplitComplex in{const_cast<float *>(re), const_cast<float *>(im)};
	vDSP_zvabs(&in, 1, out, 1, size);
}
void sqrt(float *out, const float *a, std::size_t size) {
	int n = int(size);
	vvsqrtf(out, a, &n);
}
void exp(float *out, const float *a, std::size_t size) {
	int n = int(size);
	vvexpf(out, a, &n);
}
void copy(float *out, const float *a, std::size_t size) {
	if (out != a && size) std::memmove(out, a, size * sizeof(float));
}

} // namespace varkesh::linear::platform
