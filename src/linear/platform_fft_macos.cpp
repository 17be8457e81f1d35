// The platform FFT on macOS: Accelerate's vDSP.
#include "linear/platform_fft.h"

#include "linear/accelerate.h"

#include <new>

namespace varkesh::linear::platform {

struct FFTSetup {
	::FFTSetup vdsp;
};

FFTSetup *createFFTSetup(std::size_t log2Size) {
	::FFTSetup vdsp = vDSP_create_fftsetup(vDSP_Length(log2Size), kFFTRadix2);
	if (!vdsp) return nullptr;
	auto *setup = new (std::nothrow) FFTSetup{vdsp};
	if (!setup) vDSP_destroy_fftsetup(vdsp);
	return setup;
}

void destroyFFTSetup(FFTSetup *setup) {
	if (!setup) return;
	vDSP_destroy_fftsetup(setup->vdsp);
	delete setup;
}

void fftSplit(FFTSetup *setup, const float *inReal, const float *inImag, float *outReal, float *outImag,
	std::size_t log2Size, bool inverse) {
	DSPSplitComplex in{const_cast<float *>(inReal), const_cast<float *>(inImag)};
	DSPSplitComplex out{outReal, outImag};
	vDSP_fft_zop(setup->vdsp, &in, 1, &out, 1, vDSP_Length(log2Size), inverse ? kFFTDirection_Inverse : kFFTDirection_Forward);
}

void complexMultiply(float *outReal, float *outImag, const float *aReal, const float *aImag, const float *bReal,
	const float *bImag, std::size_t size, bool conjugateA) {
	DSPSplitComplex a{const_cast<float *>(aReal), const_cast<float *>(aImag)};
	DSPSplitComplex b{const_cast<float *>(bReal), const_cast<float *>(bImag)};
	DSPSplitComplex out{outReal, outImag};
	vDSP_zvmul(&a, 1, &b, 1, &out, 1, vDSP_Length(size), conjugateA ? -1 : 1);
}

} // namespace varkesh::linear::platform
