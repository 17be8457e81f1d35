// The AVX2/FMA build of the FFT stages. This file alone is compiled with
// -mavx2 -mfma; it holds no code with external linkage other than the entry
// point, so nothing built for AVX2 can be picked up by baseline callers.
#include "linear/platform_fft_plan.h"
#if defined(__x86_64__)
#include "linear/platform_fft_stages.h"
#include "linear/simd_avx2.h"
#endif

namespace varkesh::linear::platform::detail {

#if defined(__x86_64__)
void fftStagesAvx2(const FFTPlan &plan, const float *inReal, const float *inImag, float *outReal, float *outImag) {
	FFTStages<VecAvx2>::run(plan, inReal, inImag, outReal, outImag);
}
#else
// Never chosen: cpuHasAvx2Fma() is false off x86-64.
void fftStagesAvx2(const FFTPlan &plan, const float *inReal, const float *inImag, float *outReal, float *outImag) {
	fftStagesSse2(plan, inReal, inImag, outReal, outImag);
}
#endif

} // namespace varkesh::linear::platform::detail
