#pragma once
// The Linux transform's plan: a Stockham radix-4 schedule (natural order in and
// out, no bit reversal) with one twiddle table per stage, laid out in the order
// the vector stages read it. Plain data only, so that the baseline and the AVX2
// builds of the stages can share it without sharing any code.
#include <cstddef>

namespace varkesh::linear::platform::detail {

enum class StageKind : unsigned {
	// Stride 1, twiddled radix 4, vectors across butterflies; its outputs are
	// interleaved by a 4 x width transposition.
	firstRadix4,
	// Stride 4 with 8-wide vectors: each vector holds two butterflies' strides.
	pairRadix4,
	// Stride >= vector width, twiddled radix 4, vectors along the stride.
	radix4,
	// Last stage (one butterfly group, no twiddles), radix 4 or 8.
	lastRadix4,
	lastRadix8,
	// Scalar radix 2, for sizes below the vector stages' minimum.
	scalarRadix2,
};

struct FFTStage {
	StageKind kind;
	std::size_t stride; // s: distance between the elements of one butterfly input in the output
	std::size_t count;  // m: butterflies along the sequence (n / radix)
	const float *twiddles;
};

struct FFTPlan {
	static constexpr unsigned maxStages = 40;
	std::size_t size = 0;
	unsigned stageCount = 0;
	FFTStage stages[maxStages];
	float *scratchReal = nullptr, *scratchImag = nullptr;
};

// Forward transforms (exp(-i...)), out of place, unnormalised; the inverse is
// the same call with real and imaginary rows swapped on both sides.
using FFTKernel = void (*)(const FFTPlan &plan, const float *inReal, const float *inImag, float *outReal,
	float *outImag);
void fftStagesSse2(const FFTPlan &plan, const float *inReal, const float *inImag, float *outReal, float *outImag);
void fftStagesAvx2(const FFTPlan &plan, const float *inReal, const float *inImag, float *outReal, float *outImag);
// Whether the processor (and the system) can run the AVX2/FMA stages.
bool cpuHasAvx2Fma();

} // namespace varkesh::linear::platform::detail

namespace varkesh::linear::platform {
struct FFTSetup;
namespace detail {

// Which build of the stages a plan runs; `automatic` picks AVX2 where the
// processor has it. For tests and benchmarks that compare the two.
enum class FFTImplementation { automatic, baseline, avx2 };
// As createFFTSetup; null when the processor cannot run the requested build.
FFTSetup *createFFTSetupFor(std::size_t log2Size, FFTImplementation implementation);
// The build a plan runs (never `automatic`).
FFTImplementation implementationOf(const FFTSetup *setup);

} // namespace detail
} // namespace varkesh::linear::platform
