#pragma once
// Accelerate's vDSP and vForce, as far as the macOS platform files use them.
// On a Mac the framework's own header is used. Where it is absent (a cross
// build with an SDK that lacks it, or the Linux build that tests those files
// against tests/linear/accelerate_reference.cpp) only the functions called are
// declared here, with the framework's exact C signatures and constants.
#if __has_include(<Accelerate/Accelerate.h>)
#include <Accelerate/Accelerate.h>
#else

#ifdef __cplusplus
extern "C" {
#endif

typedef unsigned long vDSP_Length;
typedef long vDSP_Stride;

typedef struct DSPSplitComplex {
	float *realp;
	float *imagp;
} DSPSplitComplex;

typedef struct OpaqueFFTSetup *FFTSetup;
typedef int FFTDirection;
typedef int FFTRadix;
enum { kFFTDirection_Forward = +1, kFFTDirection_Inverse = -1 };
enum { kFFTRadix2 = 0 };

FFTSetup vDSP_create_fftsetup(vDSP_Length __Log2n, FFTRadix __Radix);
void vDSP_destroy_fftsetup(FFTSetup __setup);
void vDSP_fft_zop(FFTSetup __Setup, const DSPSplitComplex *__A, vDSP_Stride __IA, const DSPSplitComplex *__C,
	vDSP_Stride __IC, vDSP_Length __Log2N, FFTDirection __Direction);
void vDSP_zvmul(const DSPSplitComplex *__A, vDSP_Stride __IA, const DSPSplitComplex *__B, vDSP_Stride __IB,
	const DSPSplitComplex *__C, vDSP_Stride __IC, vDSP_Length __N, int __Conjugate);

void vDSP_vadd(const float *__A, vDSP_Stride __IA, const float *__B, vDSP_Stride __IB, float *__C, vDSP_Stride __IC,
	vDSP_Length __N);
void vDSP_vsub(const float *__B, vDSP_Stride __IB, const float *__A, vDSP_Stride __IA, float *__C, vDSP_Stride __IC,
	vDSP_Length __N);
void vDSP_vmul(const float *__A, vDSP_Stride __IA, const float *__B, vDSP_Stride __IB, float *__C, vDSP_Stride __IC,
	vDSP_Length __N);
void vDSP_vsadd(const float *__A, vDSP_Stride __IA, const float *__B, float *__C, vDSP_Stride __IC, vDSP_Length __N);
void vDSP_vsmul(const float *__A, vDSP_Stride __IA, const float *__B, float *__C, vDSP_Stride __IC, vDSP_Length __N);
void vDSP_vneg(const float *__A, vDSP_Stride __IA, float *__C, vDSP_Stride __IC, vDSP_Length __N);
void vDSP_vfill(const float *__A, float *__C, vDSP_Stride __IC, vDSP_Length __N);
void vDSP_zvfill(const DSPSplitComplex *__A, const DSPSplitComplex *__C, vDSP_Stride __IC, vDSP_Length __N);
void vDSP_vam(const float *__A, vDSP_Stride __IA, const float *__B, vDSP_Stride __IB, const float *__C,
	vDSP_Stride __IC, float *__D, vDSP_Stride __ID, vDSP_Length __N);
void vDSP_zvabs(const DSPSplitComplex *__A, vDSP_Stride __IA, float *__C, vDSP_Stride __IC, vDSP_Length __N);

void vvdivf(float *, const float *, const float *, const int *);
void vvsqrtf(float *, const float *, const int *);
void vvexpf(float *, const float *, const int *);

#ifdef __cplusplus
}
#endif

#endif
