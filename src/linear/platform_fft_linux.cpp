// The platform FFT without Accelerate: plans, dispatch and the baseline (SSE2)
// build of the stages. The AVX2/FMA build is platform_fft_linux_avx2.cpp.
#include "linear/platform_fft.h"
#include "linear/vector_hints.h"
#include "linear/platform_fft_plan.h"
#include "linear/platform_fft_stages.h"
#if defined(__x86_64__)
#include "linear/simd_sse2.h"
#elif defined(__aarch64__) && defined(__ARM_NEON)
#include "linear/simd_neon.h"
#else
#include "linear/simd_generic.h"
#endif

#include <cmath>
#include <cstdint>
#include <new>

namespace varkesh::linear::platform {

struct FFTSetup {
	detail::FFTPlan plan;
	detail::FFTKernel kernel = nullptr;
	detail::FFTImplementation implementation = detail::FFTImplementation::baseline;
	std::size_t log2Size = 0;
	float *memory = nullptr; // twiddle tables, then the two scratch rows
};

namespace detail {

#if defined(__x86_64__)
void fftStagesSse2(const FFTPlan &plan, const float *inReal, const float *inImag, float *outReal, float *outImag) {
	FFTStages<VecSse2>::run(plan, inReal, inImag, outReal, outImag);
}

bool cpuHasAvx2Fma() {
	static const bool has = [] {
		__builtin_cpu_init();
		return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
	}();
	return has;
}
#else
// Other processors: NEON on AArch64, else the generic four-lane build, stands
// in for the baseline.
void fftStagesSse2(const FFTPlan &plan, const float *inReal, const float *inImag, float *outReal, float *outImag) {
#if defined(__aarch64__) && defined(__ARM_NEON)
	FFTStages<VecNeon>::run(plan, inReal, inImag, outReal, outImag);
#else
	FFTStages<VecGeneric>::run(plan, inReal, inImag, outReal, outImag);
#endif
}
bool cpuHasAvx2Fma() { return false; }
#endif

namespace {

constexpr double pi = 3.14159265358979323846;

constexpr std::size_t alignFloats = 16; // 64 bytes

std::size_t roundUp(std::size_t n) { return (n + alignFloats - 1) / alignFloats * alignFloats; }

// exp(-2 pi i k / n), computed in double and rounded once.
void twiddle(std::size_t k, std::size_t n, float &re, float &im) {
	double angle = -2.0 * pi * double(k % n) / double(n);
	re = float(std::cos(angle));
	im = float(std::sin(angle));
}

struct StageShape {
	StageKind kind;
	std::size_t stride, count;
	std::size_t twiddleFloats;
};

// The stage list for 2^log2Size points with vectors of `width` floats.
unsigned planStages(std::size_t log2Size, std::size_t width, StageShape *shapes) {
	const std::size_t n = std::size_t(1) << log2Size;
	unsigned count = 0;
	if (n < 64) {
		for (std::size_t s = 1; s < n; s *= 2) {
			std::size_t m = n / s / 2;
			shapes[count++] = {StageKind::scalarRadix2, s, m, 2 * m};
		}
		return count;
	}
	shapes[count++] = {StageKind::firstRadix4, 1, n / 4, 6 * (n / 4)};
	std::size_t s = 4;
	while (true) {
		std::size_t remaining = n / s;
		if (remaining == 4) {
			shapes[count++] = {StageKind::lastRadix4, s, 1, 0};
			break;
		}
		if (remaining == 8) {
			shapes[count++] = {StageKind::lastRadix8, s, 1, 0};
			break;
		}
		std::size_t m = remaining / 4;
		if (s < width) {
			shapes[count++] = {StageKind::pairRadix4, s, m, 6 * width * (m / 2)};
		} else {
			shapes[count++] = {StageKind::radix4, s, m, 6 * m};
		}
		s *= 4;
	}
	return count;
}

// Fills a stage's table in the layout its vector code reads.
void fillTwiddles(const StageShape &shape, std::size_t width, float *table) {
	const std::size_t m = shape.count, n = shape.kind == StageKind::scalarRadix2 ? 2 * m : 4 * m;
	switch (shape.kind) {
	case StageKind::scalarRadix2:
		for (std::size_t p = 0; p < m; ++p) twiddle(p, n, table[p], table[m + p]);
		break;
	case StageKind::firstRadix4:
		for (std::size_t p = 0; p < m; ++p) {
			float *block = table + (p / width) * 6 * width + p % width;
			for (std::size_t k = 1; k < 4; ++k) twiddle(k * p, n, block[(2 * k - 2) * width], block[(2 * k - 1) * width]);
		}
		break;
	case StageKind::pairRadix4:
		// width 8, stride 4: lanes 0-3 belong to butterfly p, lanes 4-7 to p + 1
		for (std::size_t p = 0; p < m; p += 2) {
			float *block = table + (p / 2) * 6 * width;
			for (std::size_t lane = 0; lane < width; ++lane) {
				std::size_t pp = p + lane / 4;
				for (std::size_t k = 1; k < 4; ++k)
					twiddle(k * pp, n, block[(2 * k - 2) * width + lane], block[(2 * k - 1) * width + lane]);
			}
		}
		break;
	case StageKind::radix4:
		for (std::size_t p = 0; p < m; ++p)
			for (std::size_t k = 1; k < 4; ++k) twiddle(k * p, n, table[6 * p + 2 * k - 2], table[6 * p + 2 * k - 1]);
		break;
	case StageKind::lastRadix4:
	case StageKind::lastRadix8: break;
	}
}

} // namespace

FFTSetup *createFFTSetupFor(std::size_t log2Size, FFTImplementation implementation) {
	if (log2Size > 30) return nullptr;
	bool avx2 = false;
	if (implementation == FFTImplementation::avx2) {
		if (!cpuHasAvx2Fma()) return nullptr;
		avx2 = true;
	} else if (implementation == FFTImplementation::automatic) {
		avx2 = cpuHasAvx2Fma();
	}
	const std::size_t width = avx2 ? 8 : 4;
	const std::size_t n = std::size_t(1) << log2Size;

	StageShape shapes[FFTPlan::maxStages];
	unsigned count = planStages(log2Size, width, shapes);
	std::size_t floats = 0;
	for (unsigned t = 0; t < count; ++t) floats += roundUp(shapes[t].twiddleFloats);
	std::size_t scratchFloats = roundUp(n);
	floats += 2 * scratchFloats;

	auto *setup = new (std::nothrow) FFTSetup;
	if (!setup) return nullptr;
	setup->memory = static_cast<float *>(::operator new[](floats * sizeof(float), std::align_val_t(64), std::nothrow));
	if (!setup->memory) {
		delete setup;
		return nullptr;
	}
	setup->log2Size = log2Size;
	setup->implementation = avx2 ? FFTImplementation::avx2 : FFTImplementation::baseline;
	setup->kernel = avx2 ? &fftStagesAvx2 : &fftStagesSse2;

	FFTPlan &plan = setup->plan;
	plan.size = n;
	plan.stageCount = count;
	float *cursor = setup->memory;
	for (unsigned t = 0; t < count; ++t) {
		fillTwiddles(shapes[t], width, cursor);
		plan.stages[t] = {shapes[t].kind, shapes[t].stride, shapes[t].count, cursor};
		cursor += roundUp(shapes[t].twiddleFloats);
	}
	plan.scratchReal = cursor;
	plan.scratchImag = cursor + scratchFloats;
	return setup;
}

FFTImplementation implementationOf(const FFTSetup *setup) { return setup->implementation; }

} // namespace detail

FFTSetup *createFFTSetup(std::size_t log2Size) {
	return detail::createFFTSetupFor(log2Size, detail::FFTImplementation::automatic);
}

void destroyFFTSetup(FFTSetup *setup) {
	if (!setup) return;
	::operator delete[](setup->memory, std::align_val_t(64));
	delete setup;
}

void fftSplit(FFTSetup *setup, const float *inReal, const float *inImag, float *outReal, float *outImag,
	std::size_t log2Size, bool inverse) {
	// The inverse is the forward transform with real and imaginary parts swapped
	// on both sides: swap(z) = i conj(z), and conj(FFT(conj(x))) is the inverse.
	if (inverse) {
		setup->kernel(setup->plan, inImag, inReal, outImag, outReal);
	} else {
		setup->kernel(setup->plan, inReal, inImag, outReal, outImag);
	}
}

namespace {
// ivdep: the only overlap allowed is exact (out the same row as an input), and
// that carries no dependence from one element to another.
LUMBREL_VECTOR_CLONES void multiplyPlain(float *outReal, float *outImag, const float *aReal, const float *aImag,
	const float *bReal, const float *bImag, std::size_t size) {
LUMBREL_IVDEP
	for (std::size_t k = 0; k < size; ++k) {
		float ar = aReal[k], ai = aImag[k], br = bReal[k], bi = bImag[k];
		outReal[k] = ar * br - ai * bi;
		outImag[k] = ar * bi + ai * br;
	}
}
LUMBREL_VECTOR_CLONES void multiplyConjugate(float *outReal, float *outImag, const float *aReal,
	const float *aImag, const float *bReal, const float *bImag, std::size_t size) {
LUMBREL_IVDEP
	for (std::size_t k = 0; k < size; ++k) {
		float ar = aReal[k], ai = aImag[k], br = bReal[k], bi = bImag[k];
		outReal[k] = ar * br + ai * bi;
		outImag[k] = ar * bi - ai * br;
	}
}
} // namespace

void complexMultiply(float *outReal, float *outImag, const float *aReal, const float *aImag, const float *bReal,
	const float *bImag, std::size_t size, bool conjugateA) {
	if (conjugateA) {
		multiplyConjugate(outReal, outImag, aReal, aImag, bReal, bImag, size);
	} else {
		multiplyPlain(outReal, outImag, aReal, aImag, bReal, bImag, size);
	}
}

} // namespace varkesh::linear::platform
