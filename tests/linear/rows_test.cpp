// Row arithmetic: the platform row operations against plain arithmetic (at sizes that leave vector remainders, and in
// place), exp in ulps, the vector-expression evaluator, and the biquad section.
#include "linear/biquad.h"
#include "linear/linear.h"
#include "linear/platform_vector.h"

#include "dft_reference.h"
#include "support/alloc_counter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>

namespace {

namespace platform = varkesh::linear::platform;
using lumbrel_test::whiteNoise;

TEST(PlatformVector, EachOperationAgainstPlainArithmeticAndInPlace) {
	for (std::size_t n : {0u, 1u, 5u, 33u, 1000u}) {
		const auto a = whiteNoise(n, 1, 1), b = whiteNoise(n, 1, 2), c = whiteNoise(n, 1, 3);
		std::vector<float> out(n), im(n);
		struct Case {
			const char *name;
			std::function<void(float *, const float *)> run; // the output, and the row that may stand in for it
			std::function<double(std::size_t)> expected;
		};
		const Case cases[] = {
			{"sub", [&](float *o, const float *x) { platform::sub(o, x, b.data(), n); }, [&](std::size_t i) { return double(a[i]) - b[i]; }},
			{"div", [&](float *o, const float *x) { platform::div(o, x, b.data(), n); }, [&](std::size_t i) { return double(a[i] / b[i]); }},
			{"add", [&](float *o, const float *x) { platform::add(o, x, b.data(), n); }, [&](std::size_t i) { return double(a[i]) + b[i]; }},
			{"mul", [&](float *o, const float *x) { platform::mul(o, x, b.data(), n); }, [&](std::size_t i) { return double(a[i]) * b[i]; }},
			{"addScalar", [&](float *o, const float *x) { platform::addScalar(o, x, 0.25f, n); }, [&](std::size_t i) { return a[i] + 0.25; }},
			{"mulScalar", [&](float *o, const float *x) { platform::mulScalar(o, x, 3.0f, n); }, [&](std::size_t i) { return a[i] * 3.0; }},
			{"neg", [&](float *o, const float *x) { platform::neg(o, x, n); }, [&](std::size_t i) { return -double(a[i]); }},
			{"addMul", [&](float *o, const float *x) { platform::addMul(o, x, b.data(), c.data(), n); }, [&](std::size_t i) { return (double(a[i]) + b[i]) * c[i]; }},
			{"complexAbs", [&](float *o, const float *x) { platform::complexAbs(o, x, b.data(), n); }, [&](std::size_t i) { return std::hypot(double(a[i]), b[i]); }},
			{"copy", [&](float *o, const float *x) { platform::copy(o, x, n); }, [&](std::size_t i) { return double(a[i]); }},
		};
		for (const Case &k : cases) {
			k.run(out.data(), a.data());
			std::vector<float> inPlace = a;
			k.run(inPlace.data(), inPlace.data());
			for (std::size_t i = 0; i < n; ++i) {
				ASSERT_NEAR(out[i], k.expected(i), 1e-6) << k.name << " at " << i << " of " << n;
				ASSERT_EQ(inPlace[i], out[i]) << k.name << " in place at " << i << " of " << n;
			}
		}
		platform::sqrt(out.data(), c.data(), n); // negative inputs give NaN, as sqrt does
		for (std::size_t i = 0; i < n; ++i) EXPECT_TRUE(c[i] < 0 ? std::isnan(out[i]) : out[i] == std::sqrt(c[i]));
		platform::fillComplex(out.data(), im.data(), 2.0f, -3.0f, n);
		for (std::size_t i = 0; i < n; ++i) EXPECT_TRUE(out[i] == 2.0f && im[i] == -3.0f);
	}
}

TEST(PlatformVector, ExpWithinTwoUlpsAndItsLimits) {
	std::vector<float> x;
	for (float v = -103.0f; v <= 88.7f; v += 0.0137f) x.push_back(v);
	const float inf = std::numeric_limits<float>::infinity();
	const std::vector<float> limits = {-inf, -200.0f, -104.0f, 89.0f, 1000.0f, inf, std::numeric_limits<float>::quiet_NaN()};
	const std::vector<float> limitsOut = {0, 0, 0, inf, inf, inf, 0};
	const std::size_t steps = x.size();
	x.insert(x.end(), limits.begin(), limits.end());
	std::vector<float> y(x.size());
	platform::exp(y.data(), x.data(), x.size());
	std::int64_t worst = 0;
	for (std::size_t i = 0; i < steps; ++i) {
		const float expected = float(std::exp(double(x[i])));
		if (expected < std::numeric_limits<float>::min()) { // subnormal: a few of the smallest steps
			EXPECT_NEAR(y[i], expected, 4 * std::numeric_limits<float>::denorm_min()) << x[i];
			continue;
		}
		std::int32_t iy, ie;
		std::memcpy(&iy, &y[i], 4);
		std::memcpy(&ie, &expected, 4);
		worst = std::max(worst, std::abs(std::int64_t(iy) - ie));
	}
	EXPECT_LE(worst, 2);
	for (std::size_t i = 0; i + 1 < limits.size(); ++i) EXPECT_EQ(y[steps + i], limitsOut[i]) << limits[i];
	EXPECT_TRUE(std::isnan(y.back()));
}

// The evaluator, as effect authors use it: deep expressions against double arithmetic with and without a reserved arena,
// written over an operand, and no allocation in steady state.
TEST(Linear, ExpressionsMatchElementwiseArithmetic) {
	using namespace varkesh::linear::expression;
	const std::size_t n = 677;
	auto a = whiteNoise(n, 1, 1), b = whiteNoise(n, 1, 2), c = whiteNoise(n, 1, 3), re = whiteNoise(n, 1, 4), im = whiteNoise(n, 1, 5);
	for (auto &v : b) v += v < 0 ? -0.5f : 0.5f; // divisors away from 0
	auto A = readable(a.data()), B = readable(b.data()), C = readable(c.data());
	auto S = readable(re.data(), im.data());
	auto norm2 = [&](std::size_t i) { return double(re[i]) * re[i] + double(im[i]) * im[i]; };
	std::vector<float> out(n);
	varkesh::linear::LinearImpl<true> arena, bare; // every temporary of `bare` is a heap row
	arena.reserve(4 * n);
	auto check = [&](auto expression, const std::function<double(std::size_t)> &expected, const char *what) {
		for (auto *linear : {&arena, &bare}) {
			linear->fill(out.data(), expression, n);
			for (std::size_t i = 0; i < n; ++i) ASSERT_NEAR(out[i], expected(i), 1e-6 * (std::abs(expected(i)) + 1)) << what << " at " << i;
		}
	};
	check((A + B) * (C - A) / (norm(S) + 1.0f) - 1.5f,
		[&](auto i) { return (double(a[i]) + b[i]) * (double(c[i]) - a[i]) / (norm2(i) + 1) - 1.5; }, "arithmetic");
	check(-(A / B + 2.0f / B) + max(A - B, constant(0.0f)) + imag(S),
		[&](auto i) { return -(a[i] / double(b[i]) + 2 / double(b[i])) + std::max(a[i] - double(b[i]), 0.0) + im[i]; }, "division, max, imag");
	check(A + (constant(400.0f) * imag(S)) / (constant(6.2831855f) * norm(B) + constant(1e-30f)),
		[&](auto i) { return a[i] + 400.0 * im[i] / (6.2831855 * b[i] * b[i] + 1e-30); }, "frequency");
	std::vector<float> energy = c;
	arena.fill(energy.data(), readable(energy.data()) + norm(S) * A, n);
	for (std::size_t i = 0; i < n; ++i) ASSERT_NEAR(energy[i], c[i] + norm2(i) * a[i], 1e-5 * (1 + std::abs(energy[i])));
	if (lumbrel_test::allocationCountingAvailable()) {
		lumbrel_test::AllocationScope steady;
		for (int repeat = 0; repeat < 20; ++repeat) arena.fill(out.data(), C + norm(S) * A / (B * B + 1.0f), n);
		EXPECT_EQ(steady.count(), 0u);
	}
}

// y = x + 0.5 y[-1] - 0.25 y[-2] + 0.5 x[-1]: sample by sample and by the block, against the recursion written out.
TEST(Biquad, BothFormsFollowTheDifferenceEquation) {
	varkesh::filters::BiquadStatic<float, false> single, block;
	single.a1 = block.a1 = -0.5f;
	single.a2 = block.a2 = 0.25f;
	single.b1 = block.b1 = 0.5f;
	const auto x = whiteNoise(64, 1, 8);
	std::vector<float> blockOut(x.size());
	block.process(x.data(), blockOut.data(), 40);
	block.process(x.data() + 40, blockOut.data() + 40, x.size() - 40);
	double y1 = 0, y2 = 0, x1 = 0;
	for (std::size_t i = 0; i < x.size(); ++i) {
		const double y = x[i] + 0.5 * x1 + 0.5 * y1 - 0.25 * y2;
		ASSERT_NEAR(single(x[i]), y, 1e-5) << i;
		ASSERT_NEAR(blockOut[i], y, 1e-5) << i;
		x1 = x[i], y2 = y1, y1 = y;
	}
}

} // namespace
