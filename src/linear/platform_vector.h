#pragma once
// Element-wise row operations of the platform's vector library. On macOS each is
// one Accelerate call (platform_vector_macos.cpp); elsewhere they are loops that
// the compiler vectorises (platform_vector_linux.cpp), built for the baseline
// processor with an AVX2 clone picked at load time.
//
// [any thread, no allocation] All rows are plain float arrays with stride 1,
// destination first, size last. A size of 0 writes nothing. The destination may
// be the same row as any source (exact aliasing), never a partial overlap.
#include <cstddef>

namespace varkesh::linear::platform {

// out = a + b (vDSP_vadd)
void add(float *out, const float *a, const float *b, std::size_t size);
// out = a - b (vDSP_vsub, whose own operand order is the reverse)
void sub(float *out, const float *a, const float *b, std::size_t size);
// out = a * b (vDSP_vmul)
void mul(float *out, const float *a, const float *b, std::size_t size);
// out = a / b (vvdivf)
void div(float *out, const float *a, const float *b, std::size_t size);
// out = a + c (vDSP_vsadd)
void addScalar(float *out, const float *a, float c, std::size_t size);
// out = a * c (vDSP_vsmul)
void mulScalar(float *out, const float *a, float c, std::size_t size);
// out = -a (vDSP_vneg)
void neg(float *out, const float *a, std::size_t size);
// out = c (vDSP_vfill)
void fill(float *out, float c, std::size_t size);
// (outReal, outImag) = (re, im) (vDSP_zvfill)
void fillComplex(float *outReal, float *outImag, float re, float im, std::size_t size);
// out = (a + b) * c (vDSP_vam)
void addMul(float *out, const float *a, const float *b, const float *c, std::size_t size);
// out = sqrt(re^2 + im^2) (vDSP_zvabs)
void complexAbs(float *out, const float *re, const float *im, std::size_t size);
// out = sqrt(a) (vvsqrtf)
void sqrt(float *out, const float *a, std::size_t size);
// out = exp(a) (vvexpf); within 2 ulp of the correctly rounded value, 0 below
// about -103.97, +inf above about 88.72, NaN stays NaN.
void exp(float *out, const float *a, std::size_t size);
// out = a (a plain copy, for completeness of the row layer)
void copy(float *out, const float *a, std::size_t size);

} // namespace varkesh::linear::platform
