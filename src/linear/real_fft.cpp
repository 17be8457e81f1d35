#include "linear/real_fft.h"

#include "linear/vector_hints.h"

#include <cmath>

namespace varkesh::linear {

namespace {

constexpr double pi = 3.14159265358979323846;

LUMBREL_VECTOR_CLONES void deinterleave(float *__restrict re, float *__restrict im, const float *__restrict time,
	std::size_t half) {
	for (std::size_t m = 0; m < half; ++m) {
		re[m] = time[2 * m];
		im[m] = time[2 * m + 1];
	}
}

LUMBREL_VECTOR_CLONES void interleave(float *__restrict time, const float *__restrict re, const float *__restrict im,
	std::size_t half) {
	for (std::size_t m = 0; m < half; ++m) {
		time[2 * m] = re[m];
		time[2 * m + 1] = im[m];
	}
}

// The pairs k and H - k for k = 1 .. count (all strictly below H / 2), from the
// half-size spectrum (re, im) to the packed real spectrum: lo holds element k
// at lo[k], hi holds element H - k at hi[-k] (hi points at element H).
// Split output.
LUMBREL_VECTOR_CLONES void untangleSplit(float *__restrict loR, float *__restrict loI, float *__restrict hiR,
	float *__restrict hiI, const float *__restrict re, const float *__restrict im, const float *__restrict twR,
	const float *__restrict twI, std::size_t half, std::size_t count) {
	const float *reHi = re + half, *imHi = im + half;
	for (std::size_t k = 1; k <= count; ++k) {
		float a = re[k], b = reHi[-std::ptrdiff_t(k)], c = im[k], d = imHi[-std::ptrdiff_t(k)];
		float tr = twR[k], ti = twI[k];
		float sr = (a + b) * 0.5f, dr = (a - b) * 0.5f, si = (c + d) * 0.5f, di = (c - d) * 0.5f;
		float u = dr * tr - si * ti, v = si * tr + dr * ti;
		loR[k] = sr + u;
		loI[k] = di + v;
		hiR[-std::ptrdiff_t(k)] = sr - u;
		hiI[-std::ptrdiff_t(k)] = v - di;
	}
}

// Inverse of the above, k = 1 .. count strictly below H / 2, from a packed
// spectrum given as (real, imag) read at k and at H - k, into the half-size
// spectrum rows.
LUMBREL_VECTOR_CLONES void tangleSplit(float *__restrict loR, float *__restrict loI, float *__restrict hiR,
	float *__restrict hiI, const float *__restrict inR, const float *__restrict inI, const float *__restrict twR,
	const float *__restrict twI, std::size_t half, std::size_t count) {
	const float *inRHi = inR + half, *inIHi = inI + half;
	for (std::size_t k = 1; k <= count; ++k) {
		float a = inR[k], c = inI[k], b = inRHi[-std::ptrdiff_t(k)], d = inIHi[-std::ptrdiff_t(k)];
		float tr = twR[k], ti = twI[k];
		float sr = a + b, dr = a - b, si = c + d, di = c - d;
		float u = si * ti + dr * tr, v = si * tr - dr * ti;
		loR[k] = sr + u;
		loI[k] = di + v;
		hiR[-std::ptrdiff_t(k)] = sr - u;
		hiI[-std::ptrdiff_t(k)] = v - di;
	}
}

} // namespace

void RealFFT<float, false, false>::resize(std::size_t size) {
	halfSize = size / 2;
	complexFFT.resize(halfSize);
	timeReal.assign(halfSize, 0.0f);
	timeImag.assign(halfSize, 0.0f);
	freqReal.assign(halfSize, 0.0f);
	freqImag.assign(halfSize, 0.0f);
	std::size_t count = size ? size / 4 + 1 : 0;
	twiddleReal.resize(count);
	twiddleImag.resize(count);
	for (std::size_t k = 0; k < count; ++k) {
		// The angle in double, rounded to float; cosine and sine in float.
		float t = float(-0.5 * pi - 2.0 * pi * double(k) / double(size));
		twiddleReal[k] = std::cos(t);
		twiddleImag[k] = std::sin(t);
	}
}

// Pairs k < H - k go through the vector loops; the middle element (k = H / 2
// for even H) pairs with itself, and there the second formula is the one that
// stands.
void RealFFT<float, false, false>::untangle(float *real, float *imag) const {
	const std::size_t h = halfSize;
	const float *re = freqReal.data(), *im = freqImag.data();
	float r0 = re[0], i0 = im[0];
	real[0] = r0 + i0;
	imag[0] = r0 - i0;
	untangleSplit(real, imag, real + h, imag + h, re, im, twiddleReal.data(), twiddleImag.data(), h, (h - 1) / 2);
	if (h % 2 == 0) {
		std::size_t k = h / 2;
		float c = im[k], tr = twiddleReal[k], ti = twiddleImag[k];
		real[k] = re[k] + c * ti; // sr - u, with sr = a, dr = 0, si = c
		imag[k] = c * tr;         // v - di, with di = 0
	}
}

void RealFFT<float, false, false>::tangle(const float *real, const float *imag) {
	const std::size_t h = halfSize;
	float *re = freqReal.data(), *im = freqImag.data();
	float x = real[0], y = imag[0];
	re[0] = x + y;
	im[0] = x - y;
	tangleSplit(re, im, re + h, im + h, real, imag, twiddleReal.data(), twiddleImag.data(), h, (h - 1) / 2);
	if (h % 2 == 0) {
		std::size_t k = h / 2;
		float a = real[k], c = imag[k], tr = twiddleReal[k], ti = twiddleImag[k];
		// b = a, d = c: sr = 2a, dr = 0, si = 2c, di = 0
		re[k] = 2 * a - 2 * c * ti;
		im[k] = 2 * c * tr;
	}
}

void RealFFT<float, false, false>::fft(std::size_t step, const float *time, float *real, float *imag) {
	const std::size_t complexSteps = complexFFT.steps();
	if (step == 0) {
		deinterleave(timeReal.data(), timeImag.data(), time, halfSize);
	} else if (step <= complexSteps) {
		complexFFT.fftStep<false>(complexFFT.step(step - 1), timeReal.data(), timeImag.data(), freqReal.data(),
			freqImag.data());
	} else if (halfSize) {
		untangle(real, imag);
	}
}

// The interleaved forms go through the split ones, with the time rows (free at
// that moment) in between, so that both give identical values.
void RealFFT<float, false, false>::fft(std::size_t step, const float *time, std::complex<float> *spectrum) {
	if (step <= complexFFT.steps()) {
		fft(step, time, nullptr, nullptr);
	} else if (halfSize) {
		untangle(timeReal.data(), timeImag.data());
		interleave(reinterpret_cast<float *>(spectrum), timeReal.data(), timeImag.data(), halfSize);
	}
}

void RealFFT<float, false, false>::ifft(std::size_t step, const float *real, const float *imag, float *time) {
	const std::size_t complexSteps = complexFFT.steps();
	if (step == 0) {
		if (halfSize) tangle(real, imag);
	} else if (step <= complexSteps) {
		complexFFT.fftStep<true>(complexFFT.step(step - 1), freqReal.data(), freqImag.data(), timeReal.data(),
			timeImag.data());
	} else {
		interleave(time, timeReal.data(), timeImag.data(), halfSize);
	}
}

void RealFFT<float, false, false>::ifft(std::size_t step, const std::complex<float> *spectrum, float *time) {
	if (step == 0) {
		if (!halfSize) return;
		deinterleave(timeReal.data(), timeImag.data(), reinterpret_cast<const float *>(spectrum), halfSize);
		tangle(timeReal.data(), timeImag.data());
	} else {
		ifft(step, nullptr, nullptr, time);
	}
}

} // namespace varkesh::linear
