// The vector-expression evaluator: a table of expression shapes, the engine's
// own among them, each against element-by-element double arithmetic, in and
// out of its arena, with the scratch store's stack discipline and no
// allocation in steady state.
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

TEST(Linear, ExpressionsMatchElementwiseArithmetic) {
	const std::size_t n = 677;
	auto a = lumbrel_test::whiteNoise(n, 1), b = lumbrel_test::whiteNoise(n, 2), c = lumbrel_test::whiteNoise(n, 3);
	auto re = lumbrel_test::whiteNoise(n, 4), im = lumbrel_test::whiteNoise(n, 5);
	for (auto &v : b) v += v < 0 ? -0.5f : 0.5f; // divisors away from 0
	auto A = readable(a.data()), B = readable(b.data()), C = readable(c.data());
	auto S = readable(re.data(), im.data());
	auto norm2 = [&](std::size_t i) { return double(re[i]) * re[i] + double(im[i]) * im[i]; };
	std::vector<float> out(n);

	LinearImpl<true> arena, bare; // `bare` has no arena: every temporary overflows
	arena.reserve(4 * n);
	auto check = [&](auto expression, const std::function<double(std::size_t)> &expected, const char *what) {
		for (LinearImpl<true> *linear : {&arena, &bare}) {
			linear->fill(out.data(), expression, n);
			for (std::size_t i = 0; i < n; ++i) {
				const double e = expected(i);
				ASSERT_NEAR(out[i], e, 1e-6 * (std::abs(e) + 1)) << what << " at " << i;
			}
			EXPECT_EQ(linear->cache().overflowRows(), 0u) << what;
		}
	};
	check(A + B, [&](auto i) { return a[i] + double(b[i]); }, "R + R");
	check(2.5f + A - 1.5f, [&](auto i) { return a[i] + 1.0; }, "c + R - c");
	check(1.5f - A, [&](auto i) { return 1.5 - a[i]; }, "c - R");
	check(A * B * 3.0f, [&](auto i) { return double(a[i]) * b[i] * 3; }, "R * R * c");
	check(A / B + 2.0f / B + A / 4.0f, [&](auto i) { return a[i] / double(b[i]) + 2 / double(b[i]) + a[i] / 4.0; }, "divisions");
	check(-A, [&](auto i) { return -double(a[i]); }, "-R");
	check(norm(S) + norm(A - B), [&](auto i) { return norm2(i) + (double(a[i]) - b[i]) * (double(a[i]) - b[i]); }, "norms");
	check(imag(S), [&](auto i) { return double(im[i]); }, "imag");
	check(max(A - B, constant(0.0f)) + max(A, C), [&](auto i) { return std::max(a[i] - double(b[i]), 0.0) + std::max(a[i], c[i]); }, "max");
	check(constant(4), [&](auto) { return 4.0; }, "constant");
	check((A + B) * (C - A) / (norm(S) + 1.0f), [&](auto i) { return (double(a[i]) + b[i]) * (double(c[i]) - a[i]) / (norm2(i) + 1); }, "deep");
	check(-((A * 2.0f + B) - (C * A + 0.5f)), [&](auto i) { return -((a[i] * 2.0 + b[i]) - (double(c[i]) * a[i] + 0.5)); }, "nested negation");
	// The engine's frequency and incoherence rows.
	check(A + (constant(400.0f) * imag(S)) / (constant(6.2831855f) * norm(B) + constant(1e-30f)),
		[&](auto i) { return a[i] + 400.0 * im[i] / (6.2831855 * b[i] * b[i] + 1e-30); }, "frequency");
	check(-(norm(S) + (-1)), [&](auto i) { return 1 - norm2(i); }, "incoherence");

	// Written over its own operand, as the energy update does; size 0 writes nothing.
	std::vector<float> energy = c;
	arena.fill(energy.data(), readable(energy.data()) + norm(S) * A, n);
	for (std::size_t i = 0; i < n; ++i) ASSERT_NEAR(energy[i], c[i] + norm2(i) * a[i], 1e-5 * (1 + std::abs(energy[i])));
	out[0] = 5;
	arena.fill(out.data(), (A + 1.0f) * B, 0);
	EXPECT_EQ(out[0], 5);

	// Scopes hand out disjoint rows and free them like a stack.
	float *first;
	{
		auto scope = arena.scope();
		first = scope.temporary(10);
		float *second = scope.temporary(10);
		EXPECT_GE(second, first + 10);
		{ EXPECT_GE(arena.scope().temporary(5), second + 10); }
		EXPECT_LT(scope.temporary(5), second + 10 + 16);
		EXPECT_EQ(scope.real(A, n), a.data()); // a readable row is used as it stands
	}
	EXPECT_EQ(arena.scope().temporary(10), first);
	LinearImpl<true> moved(std::move(arena));
	EXPECT_EQ(moved.cache().reservedFloats(), 4 * n);

	if (lumbrel_test::allocationCountingAvailable()) {
		lumbrel_test::AllocationScope steady;
		for (int repeat = 0; repeat < 20; ++repeat) moved.fill(out.data(), C + norm(S) * A / (B * B + 1.0f), n);
		EXPECT_EQ(steady.count(), 0u);
	}
}

} // namespace
