// vDSP and vForce as Apple documents them, for the Linux build that runs the macOS platform files
// (LUMBREL_ACCELERATE_REFERENCE): any wrong sign, scale, stride, operand order or size in those files then fails the
// same tests as on a Mac. Plain loops, in double where rounding could hide a fault.
#include "linear/accelerate.h"

#include <cmath>
#include <complex>
#include <cstdlib>
#include <new>
#include <vector>

struct OpaqueFFTSetup {
	vDSP_Length log2n;
	std::vector<std::complex<double>> work;
};

extern "C" {

// A setup serves every size up to 2^Log2n; radix 2 only; 0 on failure.
FFTSetup vDSP_create_fftsetup(vDSP_Length log2n, FFTRadix radix) {
	if (radix != kFFTRadix2 || log2n > 24) return nullptr;
	auto *setup = new (std::nothrow) OpaqueFFTSetup{log2n, {}};
	if (setup) setup->work.resize(std::size_t(1) << log2n);
	return setup;
}
void vDSP_destroy_fftsetup(FFTSetup setup) { delete setup; }

// C[k] = sum_j A[j] exp(-Direction 2 pi i j k / N), N = 2^Log2N <= the setup's size, A[j] at j * IA, C[k] at k * IC. No
// scaling either way: the inverse returns N times the signal (vDSP Programming Guide, "Scaling Fourier Transforms").
void vDSP_fft_zop(FFTSetup setup, const DSPSplitComplex *a, vDSP_Stride ia, const DSPSplitComplex *c, vDSP_Stride ic,
	vDSP_Length log2N, FFTDirection direction) {
	if (log2N > setup->log2n) std::abort();
	const std::size_t n = std::size_t(1) << log2N;
	std::complex<double> *x = setup->work.data();
	for (std::size_t j = 0; j < n; ++j) {
		std::size_t r = 0; // bit reversal of j over log2N bits
		for (vDSP_Length b = 0; b < log2N; ++b) r |= ((j >> b) & 1) << (log2N - 1 - b);
		x[r] = {a->realp[j * ia], a->imagp[j * ia]};
	}
	for (std::size_t half = 1; half < n; half *= 2) {
		for (std::size_t k = 0; k < half; ++k) {
			const std::complex<double> w = std::polar(1.0, -double(direction) * M_PI * double(k) / double(half));
			for (std::size_t start = 0; start < n; start += 2 * half) {
				const std::complex<double> even = x[start + k], odd = w * x[start + k + half];
				x[start + k] = even + odd;
				x[start + k + half] = even - odd;
			}
		}
	}
	for (std::size_t k = 0; k < n; ++k) c->realp[k * ic] = float(x[k].real()), c->imagp[k * ic] = float(x[k].imag());
}

// C = A * B, or conj(A) * B when Conjugate is -1.
void vDSP_zvmul(const DSPSplitComplex *a, vDSP_Stride ia, const DSPSplitComplex *b, vDSP_Stride ib,
	const DSPSplitComplex *c, vDSP_Stride ic, vDSP_Length n, int conjugate) {
	for (vDSP_Length k = 0; k < n; ++k) {
		std::complex<double> x(a->realp[k * ia], a->imagp[k * ia]), y(b->realp[k * ib], b->imagp[k * ib]);
		const std::complex<double> z = (conjugate == -1 ? std::conj(x) : x) * y;
		c->realp[k * ic] = float(z.real()), c->imagp[k * ic] = float(z.imag());
	}
}

#define LOOP for (vDSP_Length k = 0; k < n; ++k)
void vDSP_vadd(const float *a, vDSP_Stride ia, const float *b, vDSP_Stride ib, float *c, vDSP_Stride ic, vDSP_Length n) {
	LOOP c[k * ic] = a[k * ia] + b[k * ib];
}
// C = A - B, where B is the FIRST argument.
void vDSP_vsub(const float *b, vDSP_Stride ib, const float *a, vDSP_Stride ia, float *c, vDSP_Stride ic, vDSP_Length n) {
	LOOP c[k * ic] = a[k * ia] - b[k * ib];
}
void vDSP_vmul(const float *a, vDSP_Stride ia, const float *b, vDSP_Stride ib, float *c, vDSP_Stride ic, vDSP_Length n) {
	LOOP c[k * ic] = a[k * ia] * b[k * ib];
}
// Scalars by pointer: C = A + *B, C = A * *B, C = *A.
void vDSP_vsadd(const float *a, vDSP_Stride ia, const float *b, float *c, vDSP_Stride ic, vDSP_Length n) {
	LOOP c[k * ic] = a[k * ia] + *b;
}
void vDSP_vsmul(const float *a, vDSP_Stride ia, const float *b, float *c, vDSP_Stride ic, vDSP_Length n) {
	LOOP c[k * ic] = a[k * ia] * *b;
}
void vDSP_vneg(const float *a, vDSP_Stride ia, float *c, vDSP_Stride ic, vDSP_Length n) { LOOP c[k * ic] = -a[k * ia]; }
void vDSP_vfill(const float *a, float *c, vDSP_Stride ic, vDSP_Length n) { LOOP c[k * ic] = *a; }
// Complex: the first element of the split A fills both rows of C.
void vDSP_zvfill(const DSPSplitComplex *a, const DSPSplitComplex *c, vDSP_Stride ic, vDSP_Length n) {
	LOOP c->realp[k * ic] = *a->realp, c->imagp[k * ic] = *a->imagp;
}
// D = (A + B) * C
void vDSP_vam(const float *a, vDSP_Stride ia, const float *b, vDSP_Stride ib, const float *c, vDSP_Stride ic, float *d,
	vDSP_Stride id, vDSP_Length n) {
	LOOP d[k * id] = (a[k * ia] + b[k * ib]) * c[k * ic];
}
void vDSP_zvabs(const DSPSplitComplex *a, vDSP_Stride ia, float *c, vDSP_Stride ic, vDSP_Length n) {
	LOOP c[k * ic] = float(std::hypot(double(a->realp[k * ia]), double(a->imagp[k * ia])));
}
#undef LOOP

// vForce: contiguous arrays, the count through a pointer, output first; vvdivf(z, y, x, n) is z = y / x.
void vvdivf(float *z, const float *y, const float *x, const int *n) { for (int k = 0; k < *n; ++k) z[k] = y[k] / x[k]; }
void vvsqrtf(float *y, const float *x, const int *n) { for (int k = 0; k < *n; ++k) y[k] = std::sqrt(x[k]); }
void vvexpf(float *y, const float *x, const int *n) { for (int k = 0; k < *n; ++k) y[k] = std::exp(x[k]); }

} // extern "C"
