// LinearImpl<true>, the vector-expression toolkit that effects may use: every
// kind of node against element-by-element arithmetic, in place and through the
// overflow rows when the arena is too small, and no allocation once reserved.
#include "linear/linear.h"

#include "dft_reference.h"
#include "support/alloc_counter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <vector>

namespace {

using varkesh::linear::LinearImpl;
using namespace varkesh::linear::expression;

TEST(LinearExpressions, MatchElementwiseArithmeticAndAllocateNothingOnceReserved) {
	for (std::size_t n : {1, 37, 677}) {
		auto a = lumbrel_test::whiteNoise(n, 1), b = lumbrel_test::whiteNoise(n, 2);
		auto c = lumbrel_test::whiteNoise(n, 3), re = lumbrel_test::whiteNoise(n, 4), im = lumbrel_test::whiteNoise(n, 5);
		for (auto &v : b) v += v < 0 ? -0.5f : 0.5f; // divisors away from 0
		auto A = readable(a.data()), B = readable(b.data()), C = readable(c.data());
		auto S = readable(re.data(), im.data());
		auto norm2 = [&](std::size_t i) { return double(re[i]) * re[i] + double(im[i]) * im[i]; };
		std::vector<float> out(n);

		using Fill = std::function<void(LinearImpl<true> &)>;
		struct Case {
			const char *what;
			Fill fill;
			std::function<double(std::size_t)> expected;
		};
		const Case cases[] = {
			{"R + R, c + R, R - c", [&](auto &l) { l.fill(out.data(), A + B + (2.5f + A) - (C - 1.5f), n); },
				[&](auto i) { return a[i] + b[i] + (2.5 + a[i]) - (c[i] - 1.5); }},
			{"c - R, R * c, c * R", [&](auto &l) { l.fill(out.data(), (1.5f - A) * 3.0f + 2.0f * B, n); },
				[&](auto i) { return (1.5 - a[i]) * 3 + 2 * b[i]; }},
			{"R / R, c / R, R / c, -R", [&](auto &l) { l.fill(out.data(), -(A / B) + 2.0f / B + C / 4.0f, n); },
				[&](auto i) { return -(a[i] / b[i]) + 2 / b[i] + c[i] / 4; }},
			{"norm, imag, max",
				[&](auto &l) { l.fill(out.data(), norm(S) + imag(S) * max(A - B, constant(0.0f)) + norm(C), n); },
				[&](auto i) { return norm2(i) + im[i] * std::max(a[i] - b[i], 0.0f) + double(c[i]) * c[i]; }},
			{"constant, then in place",
				[&](auto &l) {
					l.fill(out.data(), constant(4), n);
					l.fill(out.data(), readable(out.data()) + A, n);
				},
				[&](auto i) { return 4.0 + a[i]; }},
			{"deep tree",
				[&](auto &l) {
					l.fill(out.data(), ((A + B) * (C - A)) / ((B * 2.0f) + norm(S) + 1.0f) + (A - C) * (B + 1.0f), n);
				},
				[&](auto i) {
					const double x = a[i], y = b[i], z = c[i];
					return (x + y) * (z - x) / (y * 2 + norm2(i) + 1) + (x - z) * (y + 1);
				}},
		};
		for (std::size_t reserve : {8 * n, n + 5, std::size_t(0)}) { // roomy, one row, overflow only
			LinearImpl<true> linear;
			linear.reserve(reserve);
			for (const Case &t : cases) {
				std::fill(out.begin(), out.end(), -7.0f);
				t.fill(linear);
				for (std::size_t i = 0; i < n; ++i) {
					const double e = t.expected(i);
					ASSERT_NEAR(out[i], e, 1e-5 * (std::abs(e) + 1)) << t.what << ", n " << n << ", arena " << reserve << ", at " << i;
				}
				EXPECT_EQ(linear.cache().overflowRows(), 0u) << t.what << ": overflow rows outlive the expression";
			}
			if (reserve == 8 * n && lumbrel_test::allocationCountingAvailable()) {
				lumbrel_test::AllocationScope scope;
				for (const Case &t : cases) t.fill(linear);
				EXPECT_EQ(scope.count(), 0u) << "n " << n;
			}
		}
	}
}

} // namespace
