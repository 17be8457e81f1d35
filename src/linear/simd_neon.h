#pragma once
// Four-float vectors with AArch64 NEON, the same operations as VecSse2, with
// fused multiply-adds (every AArch64 processor has them). Internal linkage
// throughout.
#if defined(__ARM_NEON)
#include <arm_neon.h>

#include <cstddef>

namespace varkesh::linear::platform::detail {
namespace {

struct VecNeon {
	static constexpr std::size_t width = 4;
	float32x4_t v;

	static VecNeon load(const float *p) { return {vld1q_f32(p)}; }
	static VecNeon broadcast(const float *p) { return {vld1q_dup_f32(p)}; }
	static VecNeon set1(float f) { return {vdupq_n_f32(f)}; }
	void store(float *p) const { vst1q_f32(p, v); }

	friend VecNeon operator+(VecNeon a, VecNeon b) { return {vaddq_f32(a.v, b.v)}; }
	friend VecNeon operator-(VecNeon a, VecNeon b) { return {vsubq_f32(a.v, b.v)}; }
	friend VecNeon operator*(VecNeon a, VecNeon b) { return {vmulq_f32(a.v, b.v)}; }
	// a * b + c and a * b - c (vfmsq gives c - a * b)
	static VecNeon mulAdd(VecNeon a, VecNeon b, VecNeon c) { return {vfmaq_f32(c.v, a.v, b.v)}; }
	static VecNeon mulSub(VecNeon a, VecNeon b, VecNeon c) { return {vnegq_f32(vfmsq_f32(c.v, a.v, b.v))}; }

	// A 4 x 4 transposition, as VecSse2::interleave4 (zip1/zip2 are unpacklo/hi).
	static void interleave4(VecNeon &a, VecNeon &b, VecNeon &c, VecNeon &d) {
		float32x4_t t0 = vzip1q_f32(a.v, c.v), t1 = vzip2q_f32(a.v, c.v);
		float32x4_t t2 = vzip1q_f32(b.v, d.v), t3 = vzip2q_f32(b.v, d.v);
		a.v = vzip1q_f32(t0, t2);
		b.v = vzip2q_f32(t0, t2);
		c.v = vzip1q_f32(t1, t3);
		d.v = vzip2q_f32(t1, t3);
	}
};

} // namespace
} // namespace varkesh::linear::platform::detail

#endif // __ARM_NEON
