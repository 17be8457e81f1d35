// Row operations without Accelerate: loops the compiler vectorises, each cloned
// for AVX2. Built with -fno-math-errno (sqrt becomes one instruction) and
// -fno-trapping-math (the selects in exp become blends, not branches).
//
// Every loop carries `ivdep`: the only overlap the interface allows is an
// output that is exactly an input row, which carries no dependence between
// elements.
#include "linear/vector_hints.h"
#include "linear/platform_vector.h"

#include <cmath>
#include <cstdint>
#include <cstring>

namespace varkesh::linear::platform {

LUMBREL_VECTOR_CLONES void add(float *out, const float *a, const float *b, std::size_t size) {
LUMBREL_IVDEP
	for (std::size_t i = 0; i < size; ++i) out[i] = a[i] + b[i];
}
LUMBREL_VECTOR_CLONES void sub(float *out, const float *a, const float *b, std::size_t size) {
LUMBREL_IVDEP
	for (std::size_t i = 0; i < size; ++i) out[i] = a[i] - b[i];
}
LUMBREL_VECTOR_CLONES void mul(float *out, const float *a, const float *b, std::size_t size) {
LUMBREL_IVDEP
	for (std::size_t i = 0; i < size; ++i) out[i] = a[i] * b[i];
}
LUMBREL_VECTOR_CLONES void div(float *out, const float *a, const float *b, std::size_t size) {
LUMBREL_IVDEP
	for (std::size_t i = 0; i < size; ++i) out[i] = a[i] / b[i];
}
LUMBREL_VECTOR_CLONES void addScalar(float *out, const float *a, float c, std::size_t size) {
LUMBREL_IVDEP
	for (std::size_t i = 0; i < size; ++i) out[i] = a[i] + c;
}
LUMBREL_VECTOR_CLONES void mulScalar(float *out, const float *a, float c, std::size_t size) {
LUMBREL_IVDEP
	for (std::size_t i = 0; i < size; ++i) out[i] = a[i] * c;
}
LUMBREL_VECTOR_CLONES void neg(float *out, const float *a, std::size_t size) {
LUMBREL_IVDEP
	for (std::size_t i = 0; i < size; ++i) out[i] = -a[i];
}
LUMBREL_VECTOR_CLONES void fill(float *out, float c, std::size_t size) {
	for (std::size_t i = 0; i < size; ++i) out[i] = c;
}
LUMBREL_VECTOR_CLONES void fillComplex(float *outReal, float *outImag, float re, float im, std::size_t size) {
	for (std::size_t i = 0; i < size; ++i) outReal[i] = re;
	for (std::size_t i = 0; i < size; ++i) outImag[i] = im;
}
LUMBREL_VECTOR_CLONES void addMul(float *out, const float *a, const float *b, const float *c, std::size_t size) {
LUMBREL_IVDEP
	for (std::size_t i = 0; i < size; ++i) out[i] = (a[i] + b[i]) * c[i];
}
LUMBREL_VECTOR_CLONES void complexAbs(float *out, const float *re, const float *im, std::size_t size) {
LUMBREL_IVDEP
	for (std::size_t i = 0; i < size; ++i) out[i] = std::sqrt(re[i] * re[i] + im[i] * im[i]);
}
LUMBREL_VECTOR_CLONES void sqrt(float *out, const float *a, std::size_t size) {
LUMBREL_IVDEP
	for (std::size_t i = 0; i < size; ++i) out[i] = std::sqrt(a[i]);
}

// exp(x) = 2^n e^r with n = round(x / ln 2) and |r| <= ln 2 / 2: r by a two-part
// ln 2 (exact first product), e^r by a degree-7 polynomial (Taylor terms
// adjusted for the interval), 2^n put together in the exponent bits in two
// halves so that results down to the subnormal range come out right.
LUMBREL_VECTOR_CLONES void exp(float *out, const float *a, std::size_t size) {
	constexpr float maxInput = 88.72283935546875f;  // above: +inf
	constexpr float minInput = -103.97207641601562f; // below: 0
	constexpr float log2e = 1.44269504088896341f;
	constexpr float ln2Hi = 0.693359375f, ln2Lo = -2.12194440e-4f;
	constexpr float roundMagic = 12582912.0f; // 1.5 * 2^23: adding it rounds to an integer
LUMBREL_IVDEP
	for (std::size_t i = 0; i < size; ++i) {
		float x = a[i];
		// Clamped into range; NaN becomes minInput here and is put back at the end.
		float xc = x > minInput ? x : minInput;
		xc = xc < maxInput ? xc : maxInput;
		float nf = (xc * log2e + roundMagic) - roundMagic;
		float r = (xc - nf * ln2Hi) - nf * ln2Lo;
		float p = 1.9875691500e-4f;
		p = p * r + 1.3981999507e-3f;
		p = p * r + 8.3334519073e-3f;
		p = p * r + 4.1665795894e-2f;
		p = p * r + 1.6666665459e-1f;
		p = p * r + 5.0000001201e-1f;
		p = p * (r * r) + r + 1.0f;
		std::int32_t n = std::int32_t(nf);
		std::int32_t n1 = n >> 1, n2 = n - n1;
		std::uint32_t bits1 = std::uint32_t(n1 + 127) << 23, bits2 = std::uint32_t(n2 + 127) << 23;
		float s1, s2;
		std::memcpy(&s1, &bits1, 4);
		std::memcpy(&s2, &bits2, 4);
		float result = p * s1 * s2;
		result = x > maxInput ? HUGE_VALF : result;
		result = x < minInput ? 0.0f : result;
		out[i] = x != x ? x : result;
	}
}

void copy(float *out, const float *a, std::size_t size) {
	if (out != a && size) std::memmove(out, a, size * sizeof(float));
}

} // namespace varkesh::linear::platform
