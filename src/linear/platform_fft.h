#pragma once
// The platform's power-of-two transform and the split complex product: the only
// two services the FFT layers above need from the machine. Accelerate provides
// them on macOS (platform_fft_macos.cpp); on other systems they are our own
// SIMD code (platform_fft_linux.cpp), chosen at run time for the processor.
#include <cstddef>

namespace varkesh::linear::platform {

// Opaque plan for one power-of-two size; immutable tables plus a scratch area.
struct FFTSetup;

// [set-up, allocates] A plan for 2^log2Size points. Returns null when the
// platform cannot make one; callers then have no transform.
FFTSetup *createFFTSetup(std::size_t log2Size);
// [set-up] Releases a plan; null is ignored.
void destroyFFTSetup(FFTSetup *setup);

// [audio-thread, no allocation] Out-of-place complex transform of 2^log2Size
// points on split rows, unnormalised: forward is X[k] = sum x[n] exp(-2 pi i n k / N),
// inverse has exp(+2 pi i n k / N). log2Size must be the one the plan was made
// for. Input and output rows must not overlap. One transform at a time per plan
// (the plan holds scratch).
void fftSplit(FFTSetup *setup, const float *inReal, const float *inImag, float *outReal, float *outImag,
	std::size_t log2Size, bool inverse);

// [audio-thread] out = a * b element-wise on split rows, with a conjugated when
// conjugateA is set. out may be the same rows as a or b.
void complexMultiply(float *outReal, float *outImag, const float *aReal, const float *aImag, const float *bReal,
	const float *bImag, std::size_t size, bool conjugateA);

} // namespace varkesh::linear::platform
