#include "linear/real_fft.h"

#include "linear/vector_hints.h"

#include <cmath>
#include <utility>

// Linux only: __builtin_cpu_supports needs the compiler runtime's CPU model,
// which the macOS toolchain does not link; macOS runs the portable passes.
#if defined(__x86_64__) && defined(__GNUC__) && defined(__linux__)
#include <immintrin.h>
#define LUMBREL_REAL_FFT_AVX2 1
#endif

namespace varkesh::linear {

namespace {

constexpr double pi = 3.14159265358979323846;

// The first forward pass: z[m + j n] = (time[2 (m + j n)], time[2 (m + j n) + 1])
// for j < p; row k at m gets sum_j z[m + j n] exp(-2 pi i j k / p), times the
// twiddle exp(-2 pi i m k / H). One restrict-qualified pointer per row, as in
// the column transforms of split_fft.cpp.
LUMBREL_VECTOR_CLONES void firstPass3(float *__restrict r0, float *__restrict i0, float *__restrict r1,
	float *__restrict i1, float *__restrict r2, float *__restrict i2, const float *__restrict t0,
	const float *__restrict t1, const float *__restrict t2, const float *__restrict w1r, const float *__restrict w1i,
	const float *__restrict w2r, const float *__restrict w2i, std::size_t n) {
	const float c = -0.5f, s = 0.8660254f;
	for (std::size_t m = 0; m < n; ++m) {
		float x0r = t0[2 * m], x0i = t0[2 * m + 1];
		float x1r = t1[2 * m], x1i = t1[2 * m + 1], x2r = t2[2 * m], x2i = t2[2 * m + 1];
		float sr = x1r + x2r, si = x1i + x2i, dr = x1r - x2r, di = x1i - x2i;
		float tr = x0r + c * sr, ti = x0i + c * si;
		// b1 = t - i s d, b2 = t + i s d
		float b1r = tr + s * di, b1i = ti - s * dr, b2r = tr - s * di, b2i = ti + s * dr;
		r0[m] = x0r + sr;
		i0[m] = x0i + si;
		r1[m] = b1r * w1r[m] - b1i * w1i[m];
		i1[m] = b1r * w1i[m] + b1i * w1r[m];
		r2[m] = b2r * w2r[m] - b2i * w2i[m];
		i2[m] = b2r * w2i[m] + b2i * w2r[m];
	}
}

LUMBREL_VECTOR_CLONES void firstPass5(float *__restrict r0, float *__restrict i0, float *__restrict r1,
	float *__restrict i1, float *__restrict r2, float *__restrict i2, float *__restrict r3, float *__restrict i3,
	float *__restrict r4, float *__restrict i4, const float *__restrict time, const float *__restrict twR,
	const float *__restrict twI, std::size_t n) {
	// cos(2 pi / 5), cos(4 pi / 5), sin(2 pi / 5), sin(4 pi / 5)
	const float c1 = 0.309017f, c2 = -0.809017f, s1 = 0.95105654f, s2 = 0.58778524f;
	const float *t0 = time, *t1 = time + 2 * n, *t2 = time + 4 * n, *t3 = time + 6 * n, *t4 = time + 8 * n;
	const float *w1r = twR, *w2r = twR + n, *w3r = twR + 2 * n, *w4r = twR + 3 * n;
	const float *w1i = twI, *w2i = twI + n, *w3i = twI + 2 * n, *w4i = twI + 3 * n;
	for (std::size_t m = 0; m < n; ++m) {
		float x0r = t0[2 * m], x0i = t0[2 * m + 1];
		float x1r = t1[2 * m], x1i = t1[2 * m + 1], x2r = t2[2 * m], x2i = t2[2 * m + 1];
		float x3r = t3[2 * m], x3i = t3[2 * m + 1], x4r = t4[2 * m], x4i = t4[2 * m + 1];
		float a1r = x1r + x4r, a1i = x1i + x4i, d1r = x1r - x4r, d1i = x1i - x4i;
		float a2r = x2r + x3r, a2i = x2i + x3i, d2r = x2r - x3r, d2i = x2i - x3i;
		float t1r = x0r + c1 * a1r + c2 * a2r, t1i = x0i + c1 * a1i + c2 * a2i;
		float t2r = x0r + c2 * a1r + c1 * a2r, t2i = x0i + c2 * a1i + c1 * a2i;
		// u1 = s1 d1 + s2 d2, u2 = s2 d1 - s1 d2; b1 = t1 - i u1, b4 = t1 + i u1,
		// b2 = t2 - i u2, b3 = t2 + i u2
		float u1r = s1 * d1r + s2 * d2r, u1i = s1 * d1i + s2 * d2i;
		float u2r = s2 * d1r - s1 * d2r, u2i = s2 * d1i - s1 * d2i;
		float b1r = t1r + u1i, b1i = t1i - u1r, b4r = t1r - u1i, b4i = t1i + u1r;
		float b2r = t2r + u2i, b2i = t2i - u2r, b3r = t2r - u2i, b3i = t2i + u2r;
		r0[m] = x0r + a1r + a2r;
		i0[m] = x0i + a1i + a2i;
		r1[m] = b1r * w1r[m] - b1i * w1i[m];
		i1[m] = b1r * w1i[m] + b1i * w1r[m];
		r2[m] = b2r * w2r[m] - b2i * w2i[m];
		i2[m] = b2r * w2i[m] + b2i * w2r[m];
		r3[m] = b3r * w3r[m] - b3i * w3i[m];
		i3[m] = b3r * w3i[m] + b3i * w3r[m];
		r4[m] = b4r * w4r[m] - b4i * w4i[m];
		i4[m] = b4r * w4i[m] + b4i * w4r[m];
	}
}

// The last forward pass, portable form: packed element k = p q + r from
// X[k] = (a, c) and X[H - k] = (b, d) as
//     ((a + b) / 2 + ((a - b) tc - (c + d) ts) / 2, (c - d) / 2 + ((c + d) tc + (a - b) ts) / 2)
// with (tc, ts) its twiddle, regrouped over the table's (1 + tc) / 2, (1 - tc) / 2
// and ts / 2. Element 0's imaginary part (the Nyquist value) is the caller's.
void mixRowsPortable(float *__restrict packed, const float *re, const float *im, std::size_t stride, std::size_t p,
	std::size_t n, const float *__restrict table) {
	const std::size_t h = p * n;
	for (std::size_t r = 0; r < p; ++r) {
		const float *aRe = re + r * stride, *aIm = im + r * stride;
		const std::size_t back = (p - r) % p * stride + (r ? n - 1 : n);
		const float *bRe = re + back, *bIm = im + back;
		const float *tA = table + r * n, *tB = tA + h, *tC = tB + h;
		for (std::size_t q = 0; q < n; ++q) {
			float a = aRe[q], c = aIm[q], b = bRe[-std::ptrdiff_t(q)], d = bIm[-std::ptrdiff_t(q)];
			packed[2 * (p * q + r)] = a * tA[q] + b * tB[q] - (c + d) * tC[q];
			packed[2 * (p * q + r) + 1] = c * tA[q] - d * tB[q] + (a - b) * tC[q];
		}
	}
}

#if LUMBREL_REAL_FFT_AVX2
#define LUMBREL_AVX2_FMA __attribute__((target("avx2,fma")))

// The first pass with AVX2, eight m at a time, the same arithmetic as
// firstPass3 and firstPass5. Four 128-bit loads give the eight pairs of one
// column ordered so that one in-lane shuffle each separates the real and the
// imaginary parts.
LUMBREL_AVX2_FMA inline void loadPairsAvx2(const float *t, __m256 &re, __m256 &im) {
	__m256 a = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(t)), _mm_loadu_ps(t + 8), 1);
	__m256 b = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(t + 4)), _mm_loadu_ps(t + 12), 1);
	re = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
	im = _mm256_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
}

LUMBREL_AVX2_FMA inline void twiddleStoreAvx2(float *re, float *im, __m256 xr, __m256 xi, const float *wr,
	const float *wi) {
	__m256 cr = _mm256_loadu_ps(wr), ci = _mm256_loadu_ps(wi);
	_mm256_storeu_ps(re, _mm256_fmsub_ps(xr, cr, _mm256_mul_ps(xi, ci)));
	_mm256_storeu_ps(im, _mm256_fmadd_ps(xr, ci, _mm256_mul_ps(xi, cr)));
}

template <int p, std::size_t fixedN>
LUMBREL_AVX2_FMA void firstPassAvx2(float *re, float *im, const float *time, const float *twR, const float *twI,
	std::size_t anyN) {
	const std::size_t n = fixedN ? fixedN : anyN;
	for (std::size_t m = 0; m < n; m += 8) {
		__m256 xr[p], xi[p];
		for (int j = 0; j < p; ++j) loadPairsAvx2(time + 2 * (j * n + m), xr[j], xi[j]);
		if constexpr (p == 1) {
			_mm256_storeu_ps(re + m, xr[0]);
			_mm256_storeu_ps(im + m, xi[0]);
		} else if constexpr (p == 3) {
			const __m256 c = _mm256_set1_ps(-0.5f), s = _mm256_set1_ps(0.8660254f);
			__m256 sr = _mm256_add_ps(xr[1], xr[2]), si = _mm256_add_ps(xi[1], xi[2]);
			__m256 dr = _mm256_sub_ps(xr[1], xr[2]), di = _mm256_sub_ps(xi[1], xi[2]);
			__m256 tr = _mm256_fmadd_ps(c, sr, xr[0]), ti = _mm256_fmadd_ps(c, si, xi[0]);
			_mm256_storeu_ps(re + m, _mm256_add_ps(xr[0], sr));
			_mm256_storeu_ps(im + m, _mm256_add_ps(xi[0], si));
			twiddleStoreAvx2(re + n + m, im + n + m, _mm256_fmadd_ps(s, di, tr), _mm256_fnmadd_ps(s, dr, ti),
				twR + m, twI + m);
			twiddleStoreAvx2(re + 2 * n + m, im + 2 * n + m, _mm256_fnmadd_ps(s, di, tr), _mm256_fmadd_ps(s, dr, ti),
				twR + n + m, twI + n + m);
		} else {
			const __m256 c1 = _mm256_set1_ps(0.309017f), c2 = _mm256_set1_ps(-0.809017f);
			const __m256 s1 = _mm256_set1_ps(0.95105654f), s2 = _mm256_set1_ps(0.58778524f);
			__m256 a1r = _mm256_add_ps(xr[1], xr[4]), a1i = _mm256_add_ps(xi[1], xi[4]);
			__m256 d1r = _mm256_sub_ps(xr[1], xr[4]), d1i = _mm256_sub_ps(xi[1], xi[4]);
			__m256 a2r = _mm256_add_ps(xr[2], xr[3]), a2i = _mm256_add_ps(xi[2], xi[3]);
			__m256 d2r = _mm256_sub_ps(xr[2], xr[3]), d2i = _mm256_sub_ps(xi[2], xi[3]);
			_mm256_storeu_ps(re + m, _mm256_add_ps(xr[0], _mm256_add_ps(a1r, a2r)));
			_mm256_storeu_ps(im + m, _mm256_add_ps(xi[0], _mm256_add_ps(a1i, a2i)));
			__m256 t1r = _mm256_fmadd_ps(c2, a2r, _mm256_fmadd_ps(c1, a1r, xr[0]));
			__m256 t1i = _mm256_fmadd_ps(c2, a2i, _mm256_fmadd_ps(c1, a1i, xi[0]));
			__m256 t2r = _mm256_fmadd_ps(c1, a2r, _mm256_fmadd_ps(c2, a1r, xr[0]));
			__m256 t2i = _mm256_fmadd_ps(c1, a2i, _mm256_fmadd_ps(c2, a1i, xi[0]));
			__m256 u1r = _mm256_fmadd_ps(s2, d2r, _mm256_mul_ps(s1, d1r));
			__m256 u1i = _mm256_fmadd_ps(s2, d2i, _mm256_mul_ps(s1, d1i));
			__m256 u2r = _mm256_fnmadd_ps(s1, d2r, _mm256_mul_ps(s2, d1r));
			__m256 u2i = _mm256_fnmadd_ps(s1, d2i, _mm256_mul_ps(s2, d1i));
			twiddleStoreAvx2(re + n + m, im + n + m, _mm256_add_ps(t1r, u1i), _mm256_sub_ps(t1i, u1r), twR + m,
				twI + m);
			twiddleStoreAvx2(re + 2 * n + m, im + 2 * n + m, _mm256_add_ps(t2r, u2i), _mm256_sub_ps(t2i, u2r),
				twR + n + m, twI + n + m);
			twiddleStoreAvx2(re + 3 * n + m, im + 3 * n + m, _mm256_sub_ps(t2r, u2i), _mm256_add_ps(t2i, u2r),
				twR + 2 * n + m, twI + 2 * n + m);
			twiddleStoreAvx2(re + 4 * n + m, im + 4 * n + m, _mm256_sub_ps(t1r, u1i), _mm256_add_ps(t1i, u1r),
				twR + 3 * n + m, twI + 3 * n + m);
		}
	}
}

// The same with AVX2, eight q at a time. Per row r the eight results become
// two groups of four complex values (q0..q3, q4..q7), each held as four 64-bit
// lanes. Group element q goes to packed position p q + r, lane (p q + r) % 4
// of output vector (p q + r) / 4: a fixed lane permutation per row (p is odd,
// so q -> (p q + r) % 4 is one-to-one), then each output vector is a blend of
// the rows whose elements it holds.
constexpr int mixPermutation(int p, int r) {
	const int inverse = p % 4 == 1 ? 1 : 3; // of p, modulo 4
	int imm = 0;
	for (int lane = 0; lane < 4; ++lane) imm |= (inverse * (lane - r + 4 * p) % 4) << (2 * lane);
	return imm;
}
constexpr int mixBlend(int p, int d, int r) {
	int mask = 0;
	for (int lane = 0; lane < 4; ++lane) mask |= ((4 * d + lane) % p == r) << lane;
	return mask;
}

template <int p, int r>
LUMBREL_AVX2_FMA inline void mixRowAvx2(__m256d *g0, __m256d *g1, const float *re, const float *im,
	std::size_t stride, std::size_t n, std::size_t q0, const float *table) {
	const __m256i reverse = _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0);
	const std::size_t back = (p - r) % p * stride + (r ? n - 1 : n) - q0 - 7;
	const float *t = table + r * n + q0;
	__m256 a = _mm256_loadu_ps(re + r * stride + q0), c = _mm256_loadu_ps(im + r * stride + q0);
	__m256 b = _mm256_permutevar8x32_ps(_mm256_loadu_ps(re + back), reverse);
	__m256 d = _mm256_permutevar8x32_ps(_mm256_loadu_ps(im + back), reverse);
	__m256 tA = _mm256_loadu_ps(t), tB = _mm256_loadu_ps(t + p * n), tC = _mm256_loadu_ps(t + 2 * p * n);
	__m256 outRe = _mm256_fmadd_ps(a, tA, _mm256_fmsub_ps(b, tB, _mm256_mul_ps(_mm256_add_ps(c, d), tC)));
	__m256 outIm = _mm256_fmadd_ps(c, tA, _mm256_fmsub_ps(_mm256_sub_ps(a, b), tC, _mm256_mul_ps(d, tB)));
	__m256d lo = _mm256_castps_pd(_mm256_unpacklo_ps(outRe, outIm)); // q0 q1 q4 q5
	__m256d hi = _mm256_castps_pd(_mm256_unpackhi_ps(outRe, outIm)); // q2 q3 q6 q7
	g0[r] = _mm256_permute4x64_pd(_mm256_permute2f128_pd(lo, hi, 0x20), mixPermutation(p, r));
	g1[r] = _mm256_permute4x64_pd(_mm256_permute2f128_pd(lo, hi, 0x31), mixPermutation(p, r));
}

template <int p, int d, int... r>
LUMBREL_AVX2_FMA inline void mixStoreAvx2(float *out, const __m256d *g, std::integer_sequence<int, r...>) {
	__m256d v = g[0];
	((v = _mm256_blend_pd(v, g[r + 1], mixBlend(p, d, r + 1))), ...);
	_mm256_storeu_pd(reinterpret_cast<double *>(out + 8 * d), v);
}

// With the row length known at compile time (fixedN, else 0) every address in
// the loop is a constant offset from four pointers; the general form keeps
// more addresses than there are registers.
template <int p, std::size_t fixedN, int... r>
LUMBREL_AVX2_FMA void mixRowsAvx2(float *packed, const float *re, const float *im, std::size_t stride,
	std::size_t anyN, const float *table, std::integer_sequence<int, r...>) {
	const std::size_t n = fixedN ? fixedN : anyN;
	if (fixedN) stride = fixedN + 8;
	for (std::size_t q0 = 0; q0 < n; q0 += 8) {
		__m256d g0[p], g1[p];
		(mixRowAvx2<p, r>(g0, g1, re, im, stride, n, q0, table), ...);
		float *out = packed + 2 * p * q0;
		(mixStoreAvx2<p, r>(out, g0, std::make_integer_sequence<int, p - 1>()), ...);
		(mixStoreAvx2<p, r>(out + 8 * p, g1, std::make_integer_sequence<int, p - 1>()), ...);
	}
}
#endif

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

	const std::size_t p = complexFFT.outer(), n = complexFFT.inner();
	oddFactor = halfSize && (p == 1 || p == 3 || p == 5) ? p : 0;
	if (!oddFactor) return;
	rowLength = n;
	rowStride = (n + 8) / 8 * 8; // room for row 0's spare entry; rows start 32-byte apart
	spectraReal.assign(p * rowStride, 0.0f);
	spectraImag.assign(p * rowStride, 0.0f);
	packedWork.assign(2 * halfSize, 0.0f);
	rowTwiddleReal.resize((p - 1) * n);
	rowTwiddleImag.resize((p - 1) * n);
	for (std::size_t k = 1; k < p; ++k) {
		for (std::size_t m = 0; m < n; ++m) {
			double angle = -2.0 * pi * double(m * k) / double(halfSize);
			rowTwiddleReal[(k - 1) * n + m] = float(std::cos(angle));
			rowTwiddleImag[(k - 1) * n + m] = float(std::sin(angle));
		}
	}
	mixTable.resize(3 * halfSize);
	for (std::size_t k = 0; k < halfSize; ++k) {
		double angle = -0.5 * pi - 2.0 * pi * double(k) / double(size);
		double c = std::cos(angle), s = std::sin(angle);
		std::size_t at = (k % p) * n + k / p;
		mixTable[at] = float(0.5 * (1 + c));
		mixTable[halfSize + at] = float(0.5 * (1 - c));
		mixTable[2 * halfSize + at] = float(0.5 * s);
	}
#if LUMBREL_REAL_FFT_AVX2
	rowsAvx2 = n % 8 == 0 && __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
#endif
}

void RealFFT<float, false, false>::firstPass(const float *time) {
	const std::size_t n = rowLength;
	float *re = timeReal.data(), *im = timeImag.data();
	const float *twR = rowTwiddleReal.data(), *twI = rowTwiddleImag.data();
#if LUMBREL_REAL_FFT_AVX2
	if (rowsAvx2) {
		if (oddFactor == 3 && n == 128) return firstPassAvx2<3, 128>(re, im, time, twR, twI, n);
		if (oddFactor == 3 && n == 256) return firstPassAvx2<3, 256>(re, im, time, twR, twI, n);
		if (oddFactor == 5 && n == 64) return firstPassAvx2<5, 64>(re, im, time, twR, twI, n);
		if (oddFactor == 5 && n == 128) return firstPassAvx2<5, 128>(re, im, time, twR, twI, n);
		if (oddFactor == 3) return firstPassAvx2<3, 0>(re, im, time, twR, twI, n);
		if (oddFactor == 5) return firstPassAvx2<5, 0>(re, im, time, twR, twI, n);
	}
#endif
	switch (oddFactor) {
	case 1: deinterleave(re, im, time, n); break;
	case 3:
		firstPass3(re, im, re + n, im + n, re + 2 * n, im + 2 * n, time, time + 2 * n, time + 4 * n, twR, twI, twR + n,
			twI + n, n);
		break;
	default:
		firstPass5(re, im, re + n, im + n, re + 2 * n, im + 2 * n, re + 3 * n, im + 3 * n, re + 4 * n, im + 4 * n, time,
			twR, twI, n);
		break;
	}
}

void RealFFT<float, false, false>::rowTransform(std::size_t row) {
	const std::size_t n = rowLength, at = row * rowStride;
	complexFFT.innerTransform().fft<false>(timeReal.data() + row * n, timeImag.data() + row * n,
		spectraReal.data() + at, spectraImag.data() + at);
}

void RealFFT<float, false, false>::mixRows(float *packed) {
	const std::size_t p = oddFactor, n = rowLength;
	const float *re = spectraReal.data(), *im = spectraImag.data();
	spectraReal[n] = re[0];
	spectraImag[n] = im[0];
#if LUMBREL_REAL_FFT_AVX2
	if (rowsAvx2) {
		// The row lengths of the STFT's sizes 640, 768, 1280 and 1536.
		const float *t = mixTable.data();
		if (p == 3 && n == 128) {
			mixRowsAvx2<3, 128>(packed, re, im, rowStride, n, t, std::make_integer_sequence<int, 3>());
		} else if (p == 3 && n == 256) {
			mixRowsAvx2<3, 256>(packed, re, im, rowStride, n, t, std::make_integer_sequence<int, 3>());
		} else if (p == 5 && n == 64) {
			mixRowsAvx2<5, 64>(packed, re, im, rowStride, n, t, std::make_integer_sequence<int, 5>());
		} else if (p == 5 && n == 128) {
			mixRowsAvx2<5, 128>(packed, re, im, rowStride, n, t, std::make_integer_sequence<int, 5>());
		} else if (p == 1) {
			mixRowsAvx2<1, 0>(packed, re, im, rowStride, n, t, std::make_integer_sequence<int, 1>());
		} else if (p == 3) {
			mixRowsAvx2<3, 0>(packed, re, im, rowStride, n, t, std::make_integer_sequence<int, 3>());
		} else {
			mixRowsAvx2<5, 0>(packed, re, im, rowStride, n, t, std::make_integer_sequence<int, 5>());
		}
	} else
#endif
	{
		mixRowsPortable(packed, re, im, rowStride, p, n, mixTable.data());
	}
	packed[1] = re[0] - im[0];
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

bool RealFFT<float, false, false>::oddFactorStep(std::size_t step, const float *time, float *packed) {
	if (step == 0) {
		firstPass(time);
	} else if (step <= oddFactor) {
		rowTransform(step - 1);
	} else if (step == oddFactor + 1) {
		mixRows(packed);
		return true;
	}
	return false;
}

void RealFFT<float, false, false>::fft(std::size_t step, const float *time, float *real, float *imag) {
	const std::size_t complexSteps = complexFFT.steps();
	if (oddFactor) {
		if (oddFactorStep(step, time, packedWork.data())) deinterleave(real, imag, packedWork.data(), halfSize);
		return;
	}
	if (step == 0) {
		deinterleave(timeReal.data(), timeImag.data(), time, halfSize);
	} else if (step <= complexSteps) {
		complexFFT.fftStep<false>(complexFFT.step(step - 1), timeReal.data(), timeImag.data(), freqReal.data(),
			freqImag.data());
	} else if (halfSize) {
		untangle(real, imag);
	}
}

// The split form above goes through this one's last pass; the general form
// goes through the split one, with the time rows (free at that moment) in
// between. Either way both forms give identical values.
void RealFFT<float, false, false>::fft(std::size_t step, const float *time, std::complex<float> *spectrum) {
	if (oddFactor) {
		oddFactorStep(step, time, reinterpret_cast<float *>(spectrum));
		return;
	}
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
