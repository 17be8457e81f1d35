#include "linear/split_fft.h"

#include "linear/vector_hints.h"
#include "linear/platform_fft.h"

#include <cmath>
#include <utility>

#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

namespace varkesh::linear {

namespace {

constexpr double pi = 3.14159265358979323846;

// work row j (at j * inner) gets input[m * outer + j] at m: the outer-size
// sub-sequences side by side. The unrolled forms let the compiler turn the
// strided reads into vector shuffles.
LUMBREL_VECTOR_CLONES void transpose2(float *__restrict w0, float *__restrict w1, const float *__restrict input,
	std::size_t inner) {
	for (std::size_t m = 0; m < inner; ++m) {
		w0[m] = input[2 * m];
		w1[m] = input[2 * m + 1];
	}
}
LUMBREL_VECTOR_CLONES void transpose3(float *__restrict w0, float *__restrict w1, float *__restrict w2,
	const float *__restrict input, std::size_t inner) {
	for (std::size_t m = 0; m < inner; ++m) {
		w0[m] = input[3 * m];
		w1[m] = input[3 * m + 1];
		w2[m] = input[3 * m + 2];
	}
}
LUMBREL_VECTOR_CLONES void transpose4(float *__restrict w0, float *__restrict w1, float *__restrict w2,
	float *__restrict w3, const float *__restrict input, std::size_t inner) {
	for (std::size_t m = 0; m < inner; ++m) {
		w0[m] = input[4 * m];
		w1[m] = input[4 * m + 1];
		w2[m] = input[4 * m + 2];
		w3[m] = input[4 * m + 3];
	}
}
// Stride 5 the compiler leaves to scalar loads and stores: with SSE2, four
// groups of five (five vectors) become the five rows' next four entries in 13
// shuffles. Entry 5m + j of the input is lane (5m + j) % 4 of vector
// (5m + j) / 4, so row j takes one lane from each of four vectors.
LUMBREL_VECTOR_CLONES void transpose5(float *__restrict w0, float *__restrict w1, float *__restrict w2,
	float *__restrict w3, float *__restrict w4, const float *__restrict input, std::size_t inner) {
	std::size_t m = 0;
#if defined(__SSE2__)
	for (; m + 4 <= inner; m += 4) {
		const float *in = input + 5 * m;
		__m128 a0 = _mm_loadu_ps(in), a1 = _mm_loadu_ps(in + 4), a2 = _mm_loadu_ps(in + 8),
			   a3 = _mm_loadu_ps(in + 12), a4 = _mm_loadu_ps(in + 16);
		__m128 p = _mm_shuffle_ps(a0, a1, _MM_SHUFFLE(2, 1, 1, 0)); // a0.0 a0.1 a1.1 a1.2
		__m128 q = _mm_shuffle_ps(a2, a3, _MM_SHUFFLE(0, 3, 3, 2)); // a2.2 a2.3 a3.3 a3.0
		_mm_storeu_ps(w0 + m, _mm_shuffle_ps(p, q, _MM_SHUFFLE(2, 0, 2, 0)));
		__m128 r = _mm_shuffle_ps(q, a4, _MM_SHUFFLE(0, 0, 1, 1)); // a2.3 a2.3 a4.0 a4.0
		_mm_storeu_ps(w1 + m, _mm_shuffle_ps(p, r, _MM_SHUFFLE(2, 0, 3, 1)));
		__m128 s = _mm_shuffle_ps(a0, a1, _MM_SHUFFLE(0, 3, 3, 2)); // a0.2 a0.3 a1.3 a1.0
		__m128 t = _mm_shuffle_ps(a3, a4, _MM_SHUFFLE(2, 1, 1, 0)); // a3.0 a3.1 a4.1 a4.2
		_mm_storeu_ps(w2 + m, _mm_shuffle_ps(s, t, _MM_SHUFFLE(2, 0, 2, 0)));
		__m128 u = _mm_shuffle_ps(s, a2, _MM_SHUFFLE(0, 0, 1, 1)); // a0.3 a0.3 a2.0 a2.0
		_mm_storeu_ps(w3 + m, _mm_shuffle_ps(u, t, _MM_SHUFFLE(3, 1, 2, 0)));
		__m128 x = _mm_shuffle_ps(a1, a2, _MM_SHUFFLE(1, 1, 0, 0)); // a1.0 a1.0 a2.1 a2.1
		__m128 y = _mm_shuffle_ps(a3, a4, _MM_SHUFFLE(3, 3, 2, 2)); // a3.2 a3.2 a4.3 a4.3
		_mm_storeu_ps(w4 + m, _mm_shuffle_ps(x, y, _MM_SHUFFLE(2, 0, 2, 0)));
	}
#endif
	for (; m < inner; ++m) {
		w0[m] = input[5 * m];
		w1[m] = input[5 * m + 1];
		w2[m] = input[5 * m + 2];
		w3[m] = input[5 * m + 3];
		w4[m] = input[5 * m + 4];
	}
}
LUMBREL_VECTOR_CLONES void transposeGeneral(float *__restrict work, const float *__restrict input, std::size_t inner,
	std::size_t outer) {
	for (std::size_t j = 0; j < outer; ++j) {
		float *row = work + j * inner;
		for (std::size_t m = 0; m < inner; ++m) row[m] = input[m * outer + j];
	}
}

// Each row of the output is its own restrict-qualified pointer: the rows are
// disjoint, and saying so spares the vectoriser a run-time overlap check per
// pair of rows (too many for radix 4 and 5).
#define LUMBREL_ROW(n) float *__restrict r##n, float *__restrict i##n

LUMBREL_VECTOR_CLONES void columnDft2(LUMBREL_ROW(0), LUMBREL_ROW(1), std::size_t inner) {
	for (std::size_t i = 0; i < inner; ++i) {
		float ar = r0[i], ai = i0[i], br = r1[i], bi = i1[i];
		r0[i] = ar + br;
		i0[i] = ai + bi;
		r1[i] = ar - br;
		i1[i] = ai - bi;
	}
}

// sign is +1 forward, -1 inverse: the sign of the sine terms' rotation.
LUMBREL_VECTOR_CLONES void columnDft3(LUMBREL_ROW(0), LUMBREL_ROW(1), LUMBREL_ROW(2), std::size_t inner, float sign) {
	const float c = -0.5f, s = 0.8660254f * sign;
	for (std::size_t i = 0; i < inner; ++i) {
		float x0r = r0[i], x0i = i0[i];
		float sr = r1[i] + r2[i], si = i1[i] + i2[i];
		float dr = r1[i] - r2[i], di = i1[i] - i2[i];
		float tr = x0r + c * sr, ti = x0i + c * si;
		r0[i] = x0r + sr;
		i0[i] = x0i + si;
		// X1 = t - i s d, X2 = t + i s d
		r1[i] = tr + s * di;
		i1[i] = ti - s * dr;
		r2[i] = tr - s * di;
		i2[i] = ti + s * dr;
	}
}

LUMBREL_VECTOR_CLONES void columnDft4(LUMBREL_ROW(0), LUMBREL_ROW(1), LUMBREL_ROW(2), LUMBREL_ROW(3), std::size_t inner,
	float sign) {
	for (std::size_t i = 0; i < inner; ++i) {
		float apcR = r0[i] + r2[i], apcI = i0[i] + i2[i];
		float amcR = r0[i] - r2[i], amcI = i0[i] - i2[i];
		float bpdR = r1[i] + r3[i], bpdI = i1[i] + i3[i];
		float bmdR = (r1[i] - r3[i]) * sign, bmdI = (i1[i] - i3[i]) * sign;
		r0[i] = apcR + bpdR;
		i0[i] = apcI + bpdI;
		r2[i] = apcR - bpdR;
		i2[i] = apcI - bpdI;
		// X1 = (a - c) - i (b - d), X3 = (a - c) + i (b - d), forward
		r1[i] = amcR + bmdI;
		i1[i] = amcI - bmdR;
		r3[i] = amcR - bmdI;
		i3[i] = amcI + bmdR;
	}
}

LUMBREL_VECTOR_CLONES void columnDft5(LUMBREL_ROW(0), LUMBREL_ROW(1), LUMBREL_ROW(2), LUMBREL_ROW(3), LUMBREL_ROW(4),
	std::size_t inner, float sign) {
	// cos(2 pi / 5), cos(4 pi / 5), sin(2 pi / 5), sin(4 pi / 5)
	const float c1 = 0.309017f, c2 = -0.809017f;
	const float s1 = 0.95105654f * sign, s2 = 0.58778524f * sign;
	for (std::size_t i = 0; i < inner; ++i) {
		float x0r = r0[i], x0i = i0[i];
		float a1r = r1[i] + r4[i], a1i = i1[i] + i4[i], b1r = r1[i] - r4[i], b1i = i1[i] - i4[i];
		float a2r = r2[i] + r3[i], a2i = i2[i] + i3[i], b2r = r2[i] - r3[i], b2i = i2[i] - i3[i];
		float t1r = x0r + c1 * a1r + c2 * a2r, t1i = x0i + c1 * a1i + c2 * a2i;
		float t2r = x0r + c2 * a1r + c1 * a2r, t2i = x0i + c2 * a1i + c1 * a2i;
		// u1 = s1 b1 + s2 b2, u2 = s2 b1 - s1 b2; X1 = t1 - i u1, X4 = t1 + i u1,
		// X2 = t2 - i u2, X3 = t2 + i u2
		float u1r = s1 * b1r + s2 * b2r, u1i = s1 * b1i + s2 * b2i;
		float u2r = s2 * b1r - s1 * b2r, u2i = s2 * b1i - s1 * b2i;
		r0[i] = x0r + a1r + a2r;
		i0[i] = x0i + a1i + a2i;
		r1[i] = t1r + u1i;
		i1[i] = t1i - u1r;
		r4[i] = t1r - u1i;
		i4[i] = t1i + u1r;
		r2[i] = t2r + u2i;
		i2[i] = t2i - u2r;
		r3[i] = t2r - u2i;
		i3[i] = t2i + u2r;
	}
}

#undef LUMBREL_ROW

} // namespace

void SplitFFT<float, false>::resize(std::size_t size) {
	stepList.clear();
	twiddles.clear();
	twiddleReal.clear();
	twiddleImag.clear();
	dftTwiddles.clear();
	dftWork.clear();
	innerSize = 1;
	outerSize = size;
	if (size == 0) {
		work.clear();
		innerFFT.resize(0);
		return;
	}
	while (outerSize % 2 == 0) {
		innerSize *= 2;
		outerSize /= 2;
	}
	innerFFT.resize(innerSize);
	work.assign(2 * size, 0.0f);

	const std::size_t twiddleCount = (outerSize - 1) * innerSize;
	twiddles.resize(twiddleCount);
	twiddleReal.resize(twiddleCount);
	twiddleImag.resize(twiddleCount);
	for (std::size_t j = 1; j < outerSize; ++j) {
		for (std::size_t i = 0; i < innerSize; ++i) {
			// The angle in double, rounded to float; cosine and sine in float.
			float angle = float(-2.0 * pi * double(i * j) / double(size));
			std::complex<float> w{std::cos(angle), std::sin(angle)};
			std::size_t index = (j - 1) * innerSize + i;
			twiddles[index] = w;
			twiddleReal[index] = w.real();
			twiddleImag[index] = w.imag();
		}
	}
	dftTwiddles.resize(outerSize);
	for (std::size_t k = 0; k < outerSize; ++k) {
		double angle = -2.0 * pi * double(k) / double(outerSize);
		dftTwiddles[k] = {float(std::cos(angle)), float(std::sin(angle))};
	}
	dftWork.resize(outerSize);

	if (outerSize == 1) {
		stepList.push_back({0, 0});
		return;
	}
	auto bySize = [this](std::uint8_t base, std::uint8_t general) -> std::uint8_t {
		return outerSize <= 5 ? std::uint8_t(base + outerSize - 2) : general;
	};
	stepList.push_back({bySize(1, 5), 0});
	stepList.push_back({6, 0});
	for (std::size_t j = 1; j < outerSize; ++j) stepList.push_back({7, j * innerSize});
	stepList.push_back({8, 0});
	stepList.push_back({bySize(9, 13), 0});
}

template <bool inverse>
void SplitFFT<float, false>::fftStep(const Step &step, const float *inReal, const float *inImag, float *outReal,
	float *outImag) {
	const std::size_t total = innerSize * outerSize, n = innerSize;
	float *workReal = work.data(), *workImag = work.data() + total;
	switch (step.type) {
	case 0: innerFFT.fft<inverse>(inReal, inImag, outReal, outImag); break;
	case 1:
		for (auto [work, in] : {std::pair{workReal, inReal}, std::pair{workImag, inImag}})
			transpose2(work, work + n, in, n);
		break;
	case 2:
		for (auto [work, in] : {std::pair{workReal, inReal}, std::pair{workImag, inImag}})
			transpose3(work, work + n, work + 2 * n, in, n);
		break;
	case 3:
		for (auto [work, in] : {std::pair{workReal, inReal}, std::pair{workImag, inImag}})
			transpose4(work, work + n, work + 2 * n, work + 3 * n, in, n);
		break;
	case 4:
		for (auto [work, in] : {std::pair{workReal, inReal}, std::pair{workImag, inImag}})
			transpose5(work, work + n, work + 2 * n, work + 3 * n, work + 4 * n, in, n);
		break;
	case 5:
		transposeGeneral(workReal, inReal, innerSize, outerSize);
		transposeGeneral(workImag, inImag, innerSize, outerSize);
		break;
	case 6: innerFFT.fft<inverse>(workReal, workImag, outReal, outImag); break;
	case 7:
		innerFFT.fft<inverse>(workReal + step.offset, workImag + step.offset, outReal + step.offset,
			outImag + step.offset);
		break;
	case 8:
		platform::complexMultiply(outReal + innerSize, outImag + innerSize, twiddleReal.data(), twiddleImag.data(),
			outReal + innerSize, outImag + innerSize, (outerSize - 1) * innerSize, inverse);
		break;
	case 9: finalPass2<inverse>(outReal, outImag); break;
	case 10: finalPass3<inverse>(outReal, outImag); break;
	case 11: finalPass4<inverse>(outReal, outImag); break;
	case 12: finalPass5<inverse>(outReal, outImag); break;
	case 13: finalPassN<inverse>(outReal, outImag); break;
	default: break;
	}
}

template <bool inverse>
void SplitFFT<float, false>::finalPass2(float *real, float *imag) {
	const std::size_t n = innerSize;
	columnDft2(real, imag, real + n, imag + n, n);
}
template <bool inverse>
void SplitFFT<float, false>::finalPass3(float *real, float *imag) {
	const std::size_t n = innerSize;
	columnDft3(real, imag, real + n, imag + n, real + 2 * n, imag + 2 * n, n, inverse ? -1.0f : 1.0f);
}
template <bool inverse>
void SplitFFT<float, false>::finalPass4(float *real, float *imag) {
	const std::size_t n = innerSize;
	columnDft4(real, imag, real + n, imag + n, real + 2 * n, imag + 2 * n, real + 3 * n, imag + 3 * n, n,
		inverse ? -1.0f : 1.0f);
}
template <bool inverse>
void SplitFFT<float, false>::finalPass5(float *real, float *imag) {
	const std::size_t n = innerSize;
	columnDft5(real, imag, real + n, imag + n, real + 2 * n, imag + 2 * n, real + 3 * n, imag + 3 * n, real + 4 * n,
		imag + 4 * n, n, inverse ? -1.0f : 1.0f);
}

template <bool inverse>
void SplitFFT<float, false>::finalPassN(float *real, float *imag) {
	const std::size_t outer = outerSize;
	if (outer <= 1) return; // 0: no values; 1: the DFT of one value is itself
	for (std::size_t i = 0; i < innerSize; ++i) {
		std::complex<float> sum = 0;
		for (std::size_t j = 0; j < outer; ++j) {
			std::complex<float> v{real[j * innerSize + i], imag[j * innerSize + i]};
			dftWork[j] = v;
			sum += v;
		}
		real[i] = sum.real();
		imag[i] = sum.imag();
		for (std::size_t k = 1; k < outer; ++k) {
			std::complex<float> acc = 0;
			std::size_t index = 0; // (j * k) mod outer
			for (std::size_t j = 0; j < outer; ++j) {
				std::complex<float> w = dftTwiddles[index];
				if (inverse) w = std::conj(w);
				acc += dftWork[j] * w;
				index += k;
				if (index >= outer) index -= outer;
			}
			real[k * innerSize + i] = acc.real();
			imag[k * innerSize + i] = acc.imag();
		}
	}
}

template void SplitFFT<float, false>::fftStep<false>(const Step &, const float *, const float *, float *, float *);
template void SplitFFT<float, false>::fftStep<true>(const Step &, const float *, const float *, float *, float *);
template void SplitFFT<float, false>::finalPass5<false>(float *, float *);
template void SplitFFT<float, false>::finalPass5<true>(float *, float *);
template void SplitFFT<float, false>::finalPassN<false>(float *, float *);
template void SplitFFT<float, false>::finalPassN<true>(float *, float *);

} // namespace varkesh::linear
