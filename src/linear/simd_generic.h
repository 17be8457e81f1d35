#pragma once
// Four-float vectors through the compiler's generic vector extension, for
// systems other than x86-64 and macOS (where Accelerate does the work); the
// same operations as VecSse2. Internal linkage throughout.
#include <cstddef>
#include <cstring>

namespace varkesh::linear::platform::detail {
namespace {

struct VecGeneric {
	static constexpr std::size_t width = 4;
	typedef float Raw __attribute__((vector_size(16)));
	Raw v;

	static VecGeneric load(const float *p) {
		VecGeneric r;
		std::memcpy(&r.v, p, sizeof(Raw));
		return r;
	}
	static VecGeneric broadcast(const float *p) { return set1(*p); }
	static VecGeneric set1(float f) { return {Raw{f, f, f, f}}; }
	void store(float *p) const { std::memcpy(p, &v, sizeof(Raw)); }

	friend VecGeneric operator+(VecGeneric a, VecGeneric b) { return {a.v + b.v}; }
	friend VecGeneric operator-(VecGeneric a, VecGeneric b) { return {a.v - b.v}; }
	friend VecGeneric operator*(VecGeneric a, VecGeneric b) { return {a.v * b.v}; }
	static VecGeneric mulAdd(VecGeneric a, VecGeneric b, VecGeneric c) { return {a.v * b.v + c.v}; }
	static VecGeneric mulSub(VecGeneric a, VecGeneric b, VecGeneric c) { return {a.v * b.v - c.v}; }

	// A 4 x 4 transposition, as VecSse2::interleave4.
	static void interleave4(VecGeneric &a, VecGeneric &b, VecGeneric &c, VecGeneric &d) {
		Raw t0 = __builtin_shufflevector(a.v, c.v, 0, 4, 1, 5), t1 = __builtin_shufflevector(a.v, c.v, 2, 6, 3, 7);
		Raw t2 = __builtin_shufflevector(b.v, d.v, 0, 4, 1, 5), t3 = __builtin_shufflevector(b.v, d.v, 2, 6, 3, 7);
		a.v = __builtin_shufflevector(t0, t2, 0, 4, 1, 5);
		b.v = __builtin_shufflevector(t0, t2, 2, 6, 3, 7);
		c.v = __builtin_shufflevector(t1, t3, 0, 4, 1, 5);
		d.v = __builtin_shufflevector(t1, t3, 2, 6, 3, 7);
	}
};

} // namespace
} // namespace varkesh::linear::platform::detail
