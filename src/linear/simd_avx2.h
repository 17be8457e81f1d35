#pragma once
// Eight-float vectors with AVX2 and FMA, the same operations as VecSse2. Only
// the translation unit built with -mavx2 -mfma includes this; every function
// has internal linkage.
#include <immintrin.h>

#include <cstddef>

namespace varkesh::linear::platform::detail {
namespace {

struct VecAvx2 {
	static constexpr std::size_t width = 8;
	__m256 v;

	static VecAvx2 load(const float *p) { return {_mm256_loadu_ps(p)}; }
	static VecAvx2 broadcast(const float *p) { return {_mm256_broadcast_ss(p)}; }
	static VecAvx2 set1(float f) { return {_mm256_set1_ps(f)}; }
	void store(float *p) const { _mm256_storeu_ps(p, v); }

	friend VecAvx2 operator+(VecAvx2 a, VecAvx2 b) { return {_mm256_add_ps(a.v, b.v)}; }
	friend VecAvx2 operator-(VecAvx2 a, VecAvx2 b) { return {_mm256_sub_ps(a.v, b.v)}; }
	friend VecAvx2 operator*(VecAvx2 a, VecAvx2 b) { return {_mm256_mul_ps(a.v, b.v)}; }
	static VecAvx2 mulAdd(VecAvx2 a, VecAvx2 b, VecAvx2 c) { return {_mm256_fmadd_ps(a.v, b.v, c.v)}; }
	static VecAvx2 mulSub(VecAvx2 a, VecAvx2 b, VecAvx2 c) { return {_mm256_fmsub_ps(a.v, b.v, c.v)}; }

	// In: y0..y3 of lanes 0..7. Out: y0[0] y1[0] y2[0] y3[0] y0[1] ... y3[7],
	// 32 values in four vectors (a 4 x 8 transposition).
	static void interleave4(VecAvx2 &a, VecAvx2 &b, VecAvx2 &c, VecAvx2 &d) {
		__m256 t0 = _mm256_unpacklo_ps(a.v, c.v), t1 = _mm256_unpackhi_ps(a.v, c.v);
		__m256 t2 = _mm256_unpacklo_ps(b.v, d.v), t3 = _mm256_unpackhi_ps(b.v, d.v);
		__m256 u0 = _mm256_unpacklo_ps(t0, t2); // lanes 0 | 4
		__m256 u1 = _mm256_unpackhi_ps(t0, t2); // lanes 1 | 5
		__m256 u2 = _mm256_unpacklo_ps(t1, t3); // lanes 2 | 6
		__m256 u3 = _mm256_unpackhi_ps(t1, t3); // lanes 3 | 7
		a.v = _mm256_permute2f128_ps(u0, u1, 0x20);
		b.v = _mm256_permute2f128_ps(u2, u3, 0x20);
		c.v = _mm256_permute2f128_ps(u0, u1, 0x31);
		d.v = _mm256_permute2f128_ps(u2, u3, 0x31);
	}

	// In: y0..y3, each holding two groups of four (low and high half). Out: the
	// low halves of y0..y3 in turn, then the high halves.
	static void interleaveHalves(VecAvx2 &a, VecAvx2 &b, VecAvx2 &c, VecAvx2 &d) {
		__m256 o0 = _mm256_permute2f128_ps(a.v, b.v, 0x20);
		__m256 o1 = _mm256_permute2f128_ps(c.v, d.v, 0x20);
		__m256 o2 = _mm256_permute2f128_ps(a.v, b.v, 0x31);
		__m256 o3 = _mm256_permute2f128_ps(c.v, d.v, 0x31);
		a.v = o0;
		b.v = o1;
		c.v = o2;
		d.v = o3;
	}
};

} // namespace
} // namespace varkesh::linear::platform::detail
