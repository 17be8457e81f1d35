#pragma once
// Flush-to-zero for the length of a scope: denormals in the recursive shelves,
// the decaying band states and the effects' smoothing would otherwise cost many
// times a normal number. The engine and the library effect both hold one.
//
// x86: sets FTZ and DAZ (0x8040 of MXCSR) and restores the word as found.
// 64-bit Arm: sets FZ (bit 24 of FPCR) and leaves it set on exit.
#include <cstdint>

#if defined(__x86_64__) || defined(__i386__)
#include <xmmintrin.h>
#endif

namespace varkesh::linear {

class FlushToZeroScope {
public:
#if defined(__x86_64__) || defined(__i386__)
	FlushToZeroScope() : saved(_mm_getcsr()) { _mm_setcsr(saved | 0x8040u); }
	~FlushToZeroScope() { _mm_setcsr(saved); }

private:
	unsigned int saved;
#elif defined(__aarch64__)
	FlushToZeroScope() {
		std::uint64_t word;
		asm volatile("mrs %0, fpcr" : "=r"(word));
		saved = word | 0x1000000u;
		asm volatile("msr fpcr, %0" : : "r"(saved));
	}
	~FlushToZeroScope() { asm volatile("msr fpcr, %0" : : "r"(saved)); }

private:
	std::uint64_t saved;
#else
	FlushToZeroScope() {}
#endif

public:
	FlushToZeroScope(const FlushToZeroScope &) = delete;
	FlushToZeroScope &operator=(const FlushToZeroScope &) = delete;
};

} // namespace varkesh::linear
