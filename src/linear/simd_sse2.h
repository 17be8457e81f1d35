#pragma once
// Four-float vectors on the x86-64 baseline (SSE2), with the few operations the
// FFT stages need. Internal to the Linux FFT; every function has internal
// linkage so that this code never merges with the AVX2 build of the stages.
#include <emmintrin.h>

#include <cstddef>

namespace varkesh::linear::platform::detail {
namespace {

struct VecSse2 {
	static constexpr std::size_t width = 4;
	__m128 v;

	static VecSse2 load(const float *p) { return {_mm_loadu_ps(p)}; }
	static VecSse2 broadcast(const float *p) { return {_mm_set1_ps(*p)}; }
	static VecSse2 set1(float f) { return {_mm_set1_ps(f)}; }
	void store(float *p) const { _mm_storeu_ps(p, v); }

	friend VecSse2 operator+(VecSse2 a, VecSse2 b) { return {_mm_add_ps(a.v, b.v)}; }
	friend VecSse2 operator-(VecSse2 a, VecSse2 b) { return {_mm_sub_ps(a.v, b.v)}; }
	friend VecSse2 operator*(VecSse2 a, VecSse2 b) { return {_mm_mul_ps(a.v, b.v)}; }
	// a * b + c and a * b - c
	static VecSse2 mulAdd(VecSse2 a, VecSse2 b, VecSse2 c) { return {_mm_add_ps(_mm_mul_ps(a.v, b.v), c.v)}; }
	static VecSse2 mulSub(VecSse2 a, VecSse2 b, VecSse2 c) { return {_mm_sub_ps(_mm_mul_ps(a.v, b.v), c.v)}; }

	// In: four vectors y0..y3 of lanes 0..3. Out: the same 16 values in the
	// order y0[0] y1[0] y2[0] y3[0] y0[1] ... (a 4 x 4 transposition).
	static void interleave4(VecSse2 &a, VecSse2 &b, VecSse2 &c, VecSse2 &d) {
		__m128 t0 = _mm_unpacklo_ps(a.v, c.v), t1 = _mm_unpackhi_ps(a.v, c.v);
		__m128 t2 = _mm_unpacklo_ps(b.v, d.v), t3 = _mm_unpackhi_ps(b.v, d.v);
		a.v = _mm_unpacklo_ps(t0, t2);
		b.v = _mm_unpackhi_ps(t0, t2);
		c.v = _mm_unpacklo_ps(t1, t3);
		d.v = _mm_unpackhi_ps(t1, t3);
	}
};

} // namespace
} // namespace varkesh::linear::platform::detail
