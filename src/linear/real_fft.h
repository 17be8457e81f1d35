#pragma once
// Real-input FFT of even size N through a complex SplitFFT of size H = N / 2.
//
// Packed real spectrum: H complex values. Element 0 holds the 0 Hz value as its
// real part and the Nyquist value as its imaginary part; elements 1..H-1 are
// bins 1..H-1. The split forms hold the same in a real row and an imaginary row.
// Unnormalised: ifft(fft(x)) = N x.
//
// Like SplitFFT the transform runs in numbered steps, steps() of them (the
// SplitFFT's count plus 2). A full transform is
//     for (size_t s = 0; s < fft.steps(); ++s) fft.fft(s, time, spectrum);
// with the same arguments at every step; the steps of two transforms must not
// be interleaved on one object.
#include "linear/split_fft.h"

#include <complex>
#include <cstddef>
#include <vector>

namespace varkesh::linear {

template <typename Sample, bool variantA, bool variantB>
class RealFFT;

// Set-up (`resize`) allocates; the steps allocate nothing and may run on the
// audio thread.
template <>
class RealFFT<float, false, false> {
public:
	RealFFT() = default;
	explicit RealFFT(std::size_t size) { resize(size); }

	// [set-up] size must be even (a power of two times 1, 3 or 5 is what the
	// rest of the system asks for). Size 0 leaves a transform of no steps.
	void resize(std::size_t size);

	std::size_t size() const { return 2 * halfSize; }
	std::size_t steps() const { return complexFFT.steps() + 2; }

	// [audio-thread] Step `step` of the forward transform of `size()` real
	// samples into `size()` / 2 packed complex values.
	void fft(std::size_t step, const float *time, std::complex<float> *spectrum);
	// The same into split rows of `size()` / 2 floats each.
	void fft(std::size_t step, const float *time, float *real, float *imag);
	// [audio-thread] Step `step` of the inverse transform of a packed spectrum
	// into `size()` real samples.
	void ifft(std::size_t step, const std::complex<float> *spectrum, float *time);
	// The same from split rows.
	void ifft(std::size_t step, const float *real, const float *imag, float *time);

	// [audio-thread] All steps in order.
	void fft(const float *time, std::complex<float> *spectrum) {
		for (std::size_t s = 0, n = steps(); s < n; ++s) fft(s, time, spectrum);
	}
	void fft(const float *time, float *real, float *imag) {
		for (std::size_t s = 0, n = steps(); s < n; ++s) fft(s, time, real, imag);
	}
	void ifft(const std::complex<float> *spectrum, float *time) {
		for (std::size_t s = 0, n = steps(); s < n; ++s) ifft(s, spectrum, time);
	}
	void ifft(const float *real, const float *imag, float *time) {
		for (std::size_t s = 0, n = steps(); s < n; ++s) ifft(s, real, imag, time);
	}

private:
	std::size_t halfSize = 0;
	SplitFFT<float, false> complexFFT;
	// Split rows of H complex values: the time-domain pairs and their transform.
	std::vector<float> timeReal, timeImag, freqReal, freqImag;
	// Entry k, k = 0..N/4: (cos t, sin t) with t = -pi/2 - 2 pi k / N.
	std::vector<float> twiddleReal, twiddleImag;

	// The forward transform for H = p n, p = 1, 3 or 5, n a power of two, in
	// three passes over the data. The first pass takes the interleaved samples as
	// H complex values z, and writes row k (k < p) of the DFT of size p down the
	// columns of z seen as p rows of n, twiddled (a decimation-in-frequency step):
	// rowsReal/rowsImag at k n. The rows' power-of-two transforms go to
	// spectraReal/spectraImag at k rowStride, so that X[p q + k] is at
	// k rowStride + q; one spare entry after row 0 holds a copy of X[0] so
	// that X[H - p q] is at rowStride-relative index n - q for every q. The last
	// pass forms each packed element from X[k] and X[H - k] read through that
	// map and writes them in order.
	std::size_t oddFactor = 0, rowLength = 0, rowStride = 0;
	bool rowsAvx2 = false;
	std::vector<float> spectraReal, spectraImag;
	// First pass twiddles, entry (k - 1) n + m = exp(-2 pi i m k / H), k = 1..p-1.
	std::vector<float> rowTwiddleReal, rowTwiddleImag;
	// Per packed element k, at (k % p) n + k / p: (1 + c) / 2, then (1 - c) / 2,
	// then s / 2 in three rows of H, with (c, s) the twiddle of element k.
	std::vector<float> mixTable;
	// The split forward form's interleaved spectrum, 2 H floats.
	std::vector<float> packedWork;

	void firstPass(const float *time);
	void rowTransform(std::size_t row);
	void mixRows(float *packed);
	// One step of the odd-factor forward form; true once the last pass has written `packed`.
	bool oddFactorStep(std::size_t step, const float *time, float *packed);

	// The last forward step from the frequency rows into packed split rows, and
	// the first inverse step from packed split rows into the frequency rows.
	void untangle(float *real, float *imag) const;
	void tangle(const float *real, const float *imag);
};

} // namespace varkesh::linear
