#pragma once
// Flush-to-zero for the lifetime of a scope: the spectral code runs long
// recursive decays, and denormal arithmetic would cost far more than the block.
#if defined(__x86_64__) || defined(__i386__)
#include <xmmintrin.h>
#endif

namespace quorl {

class FlushDenormals {
public:
#if defined(__x86_64__) || defined(__i386__)
	// Sets flush-to-zero and denormals-are-zero (0x8040); the old control word
	// comes back at the end of the scope.
	FlushDenormals() : saved(_mm_getcsr()) { _mm_setcsr(saved | 0x8040); }
	~FlushDenormals() { _mm_setcsr(saved); }
private:
	unsigned int saved;
#elif defined(__aarch64__)
	// Sets FZ (bit 24) of FPCR and leaves it set.
	FlushDenormals() {
		unsigned long fpcr;
		__asm__ __volatile__("mrs %0, fpcr" : "=r"(fpcr));
		__asm__ __volatile__("msr fpcr, %0" : : "r"(fpcr | (1ul << 24)));
	}
#else
	FlushDenormals() {}
#endif
	FlushDenormals(const FlushDenormals &) = delete;
	FlushDenormals &operator=(const FlushDenormals &) = delete;
};

} // namespace quorl
