// The platform row operations: each against plain arithmetic, in place, at
// sizes that leave vector remainders; exp against double precision in ulps.
#include "linear/platform_vector.h"

#include "dft_reference.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

namespace {

namespace platform = varkesh::linear::platform;

TEST(PlatformVector, EachOperationAgainstPlainArithmetic) {
	// Sizes that leave every kind of vector remainder; operand order matters
	// for sub and div (the libraries' own orders differ).
	for (std::size_t n : {0u, 1u, 5u, 33u, 1000u}) {
		auto a = lumbrel_test::whiteNoise(n, 1), b = lumbrel_test::whiteNoise(n, 2), c = lumbrel_test::whiteNoise(n, 3);
		std::vector<float> out(n), im(n);
		auto check = [&](const char *what, auto &&expected) {
			for (std::size_t i = 0; i < n; ++i) ASSERT_NEAR(out[i], expected(i), 1e-6) << what << " at " << i;
		};
		platform::sub(out.data(), a.data(), b.data(), n);
		check("sub", [&](std::size_t i) { return double(a[i]) - b[i]; });
		platform::div(out.data(), a.data(), b.data(), n);
		check("div", [&](std::size_t i) { return double(a[i] / b[i]); });
		platform::add(out.data(), a.data(), b.data(), n);
		check("add", [&](std::size_t i) { return double(a[i]) + b[i]; });
		platform::mul(out.data(), a.data(), b.data(), n);
		check("mul", [&](std::size_t i) { return double(a[i]) * b[i]; });
		platform::addScalar(out.data(), a.data(), 0.25f, n);
		check("addScalar", [&](std::size_t i) { return a[i] + 0.25; });
		platform::mulScalar(out.data(), a.data(), 3.0f, n);
		check("mulScalar", [&](std::size_t i) { return a[i] * 3.0; });
		platform::neg(out.data(), a.data(), n);
		check("neg", [&](std::size_t i) { return -double(a[i]); });
		platform::addMul(out.data(), a.data(), b.data(), c.data(), n);
		check("addMul", [&](std::size_t i) { return (double(a[i]) + b[i]) * c[i]; });
		platform::complexAbs(out.data(), a.data(), b.data(), n);
		check("complexAbs", [&](std::size_t i) { return std::hypot(double(a[i]), b[i]); });
		platform::sqrt(out.data(), c.data(), n); // negative inputs give NaN, as sqrt does
		for (std::size_t i = 0; i < n; ++i) EXPECT_TRUE(c[i] < 0 ? std::isnan(out[i]) : out[i] == std::sqrt(c[i]));
		platform::fillComplex(out.data(), im.data(), 2.0f, -3.0f, n);
		for (std::size_t i = 0; i < n; ++i) EXPECT_TRUE(out[i] == 2.0f && im[i] == -3.0f);
		platform::copy(out.data(), c.data(), n);
		EXPECT_EQ(out, c);
	}
}

TEST(PlatformVector, OutputMayBeAnInputRow) {
	const std::size_t n = 37;
	auto a = lumbrel_test::whiteNoise(n, 4), b = lumbrel_test::whiteNoise(n, 5);
	std::vector<float> x = a;
	platform::sub(x.data(), x.data(), b.data(), n); // x = a - b
	platform::sub(x.data(), b.data(), x.data(), n); // x = b - (a - b)
	for (std::size_t i = 0; i < n; ++i) EXPECT_EQ(x[i], b[i] - (a[i] - b[i]));
	x = a;
	platform::mul(x.data(), x.data(), x.data(), n);
	for (std::size_t i = 0; i < n; ++i) EXPECT_EQ(x[i], a[i] * a[i]);
	platform::copy(x.data(), x.data(), n);
	for (std::size_t i = 0; i < n; ++i) EXPECT_EQ(x[i], a[i] * a[i]);
}

// Distance in units in the last place between two finite floats of one sign.
std::int64_t ulps(float a, float b) {
	std::int32_t ia, ib;
	std::memcpy(&ia, &a, 4);
	std::memcpy(&ib, &b, 4);
	return std::abs(std::int64_t(ia) - std::int64_t(ib));
}

TEST(PlatformVector, ExpWithinTwoUlpsOverTheWholeRange) {
	std::vector<float> x;
	for (float v = -103.0f; v <= 88.7f; v += 0.0137f) x.push_back(v);
	for (float v : {0.0f, -0.0f, 1e-8f, -1e-8f, 1.0f, -1.0f, 88.72f}) x.push_back(v);
	std::vector<float> y(x.size());
	platform::exp(y.data(), x.data(), x.size());
	std::int64_t worst = 0;
	for (std::size_t i = 0; i < x.size(); ++i) {
		float expected = float(std::exp(double(x[i])));
		if (expected < std::numeric_limits<float>::min()) {
			// subnormal results: absolute error of a couple of the smallest steps
			EXPECT_NEAR(y[i], expected, 4 * std::numeric_limits<float>::denorm_min()) << x[i];
		} else {
			worst = std::max(worst, ulps(y[i], expected));
		}
	}
	EXPECT_LE(worst, 2);
}

TEST(PlatformVector, ExpLimits) {
	const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
	std::vector<float> x = {-inf, -200.0f, -104.0f, 89.0f, 1000.0f, inf, nan};
	std::vector<float> y(x.size());
	platform::exp(y.data(), x.data(), x.size());
	EXPECT_EQ(y[0], 0.0f);
	EXPECT_EQ(y[1], 0.0f);
	EXPECT_EQ(y[2], 0.0f);
	EXPECT_EQ(y[3], inf);
	EXPECT_EQ(y[4], inf);
	EXPECT_EQ(y[5], inf);
	EXPECT_TRUE(std::isnan(y[6]));
}

} // namespace
