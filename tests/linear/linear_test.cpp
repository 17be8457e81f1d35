// LinearImpl<true>: every expression shape against an element-by-element
// reference, the engine's own expressions, the scratch store's stack discipline
// and overflow path, and the absence of allocation in steady state.
#include "linear/linear.h"

#include "dft_reference.h"
#include "support/alloc_counter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <vector>

namespace {

using varkesh::linear::LinearImpl;
using namespace varkesh::linear::expression;

struct Rows {
	std::vector<float> a, b, c, re, im, out;
	explicit Rows(std::size_t n) : out(n, -7.0f) {
		a = lumbrel_test::whiteNoise(n, 1);
		b = lumbrel_test::whiteNoise(n, 2);
		c = lumbrel_test::whiteNoise(n, 3);
		re = lumbrel_test::whiteNoise(n, 4);
		im = lumbrel_test::whiteNoise(n, 5);
		for (auto &v : b) v += v < 0 ? -0.5f : 0.5f; // keep divisors away from 0
	}
};

// Relative to the magnitude of the expected value, with an absolute floor.
void expectRow(const std::vector<float> &got, const std::function<double(std::size_t)> &expected, const char *what) {
	for (std::size_t i = 0; i < got.size(); ++i) {
		double e = expected(i);
		ASSERT_NEAR(got[i], e, 1e-6 * (std::abs(e) + 1)) << what << " at " << i;
	}
}

class LinearShapes : public ::testing::TestWithParam<std::size_t> {};

TEST_P(LinearShapes, EveryFormMatchesElementwiseArithmetic) {
	const std::size_t n = GetParam();
	LinearImpl<true> linear;
	linear.reserve(4 * n);
	Rows r(n);
	auto A = readable(r.a.data()), B = readable(r.b.data()), C = readable(r.c.data());
	auto S = readable(r.re.data(), r.im.data());
	auto a = [&](std::size_t i) { return double(r.a[i]); };
	auto b = [&](std::size_t i) { return double(r.b[i]); };
	auto c = [&](std::size_t i) { return double(r.c[i]); };
	auto norm2 = [&](std::size_t i) { return double(r.re[i]) * r.re[i] + double(r.im[i]) * r.im[i]; };

	linear.fill(r.out.data(), A + B, n);
	expectRow(r.out, [&](auto i) { return a(i) + b(i); }, "R + R");
	linear.fill(r.out.data(), A + 2.5f, n);
	expectRow(r.out, [&](auto i) { return a(i) + 2.5; }, "R + c");
	linear.fill(r.out.data(), 2.5f + A, n);
	expectRow(r.out, [&](auto i) { return a(i) + 2.5; }, "c + R");
	linear.fill(r.out.data(), A - B, n);
	expectRow(r.out, [&](auto i) { return a(i) - b(i); }, "R - R");
	linear.fill(r.out.data(), A - 1.5f, n);
	expectRow(r.out, [&](auto i) { return a(i) - 1.5; }, "R - c");
	linear.fill(r.out.data(), 1.5f - A, n);
	expectRow(r.out, [&](auto i) { return 1.5 - a(i); }, "c - R");
	linear.fill(r.out.data(), A * B, n);
	expectRow(r.out, [&](auto i) { return a(i) * b(i); }, "R * R");
	linear.fill(r.out.data(), A * 3.0f, n);
	expectRow(r.out, [&](auto i) { return a(i) * 3; }, "R * c");
	linear.fill(r.out.data(), 3.0f * A, n);
	expectRow(r.out, [&](auto i) { return a(i) * 3; }, "c * R");
	linear.fill(r.out.data(), A / B, n);
	expectRow(r.out, [&](auto i) { return a(i) / b(i); }, "R / R");
	linear.fill(r.out.data(), 2.0f / B, n);
	expectRow(r.out, [&](auto i) { return 2 / b(i); }, "c / R");
	linear.fill(r.out.data(), A / 3.0f, n);
	expectRow(r.out, [&](auto i) { return a(i) / 3; }, "R / c");
	linear.fill(r.out.data(), -A, n);
	expectRow(r.out, [&](auto i) { return -a(i); }, "-R");
	linear.fill(r.out.data(), norm(S), n);
	expectRow(r.out, norm2, "Norm(split)");
	linear.fill(r.out.data(), norm(A - B), n);
	expectRow(r.out, [&](auto i) { return (a(i) - b(i)) * (a(i) - b(i)); }, "Norm(real)");
	linear.fill(r.out.data(), imag(S), n);
	expectRow(r.out, [&](auto i) { return double(r.im[i]); }, "Imag");
	linear.fill(r.out.data(), max(A - B, constant(0.0f)), n);
	expectRow(r.out, [&](auto i) { return std::max(a(i) - b(i), 0.0); }, "Max(difference, c)");
	linear.fill(r.out.data(), max(A, C), n);
	expectRow(r.out, [&](auto i) { return std::max(a(i), c(i)); }, "Max(R, R)");
	linear.fill(r.out.data(), constant(4), n);
	expectRow(r.out, [&](auto) { return 4.0; }, "constant");
	linear.fill(r.out.data(), A, n);
	expectRow(r.out, a, "copy");
	// Deeper trees, where every operand is itself an operator.
	linear.fill(r.out.data(), (A + B) * (C - A) / (norm(S) + 1.0f), n);
	expectRow(r.out, [&](auto i) { return (a(i) + b(i)) * (c(i) - a(i)) / (norm2(i) + 1); }, "deep");
	linear.fill(r.out.data(), -((A * 2.0f + B) - (C * A + 0.5f)), n);
	expectRow(r.out, [&](auto i) { return -((a(i) * 2 + b(i)) - (c(i) * a(i) + 0.5)); }, "nested negation");
}

INSTANTIATE_TEST_SUITE_P(Sizes, LinearShapes, ::testing::Values(1, 7, 37, 677, 1000));

TEST(Linear, TheEnginesExpressions) {
	const std::size_t n = 677;
	LinearImpl<true> linear;
	linear.reserve(4 * n);
	Rows r(n);
	std::vector<float> energy = r.c, original = r.c;
	auto S = readable(r.re.data(), r.im.data());
	auto norm2 = [&](std::size_t i) { return double(r.re[i]) * r.re[i] + double(r.im[i]) * r.im[i]; };

	// Mul<ReadableReal, Norm<ReadableReal>>
	linear.fill(r.out.data(), readable(r.a.data()) * norm(readable(r.b.data())), n);
	expectRow(r.out, [&](auto i) { return double(r.a[i]) * r.b[i] * r.b[i]; }, "a * b^2");

	// Add<ReadableReal, Mul<Norm<ReadableSplit>, ReadableReal>>, written over
	// its own left operand, as the energy update does.
	linear.fill(energy.data(), readable(energy.data()) + norm(S) * readable(r.a.data()), n);
	expectRow(energy, [&](auto i) { return original[i] + norm2(i) * r.a[i]; }, "energy update in place");

	// Add<ReadableReal, Add<Norm<ReadableSplit>, Norm<ReadableSplit>>>
	auto P = readable(r.a.data(), r.b.data());
	linear.fill(r.out.data(), readable(r.c.data()) + (norm(S) + norm(P)), n);
	expectRow(r.out,
		[&](auto i) { return double(r.c[i]) + norm2(i) + double(r.a[i]) * r.a[i] + double(r.b[i]) * r.b[i]; },
		"power sum");

	// Add<ReadableReal, Div<Mul<ConstantExpr<float>, Imag<ReadableSplit>>,
	//     Add<Mul<ConstantExpr<float>, ReadableReal>, ConstantExpr<float>>>>
	const float subRate = 400.0f;
	std::vector<float> q(n);
	for (std::size_t i = 0; i < n; ++i) q[i] = std::abs(r.b[i]) + 0.1f;
	auto frequency = readable(r.a.data()) +
		(constant(subRate) * imag(S)) / (constant(6.2831855f) * readable(q.data()) + constant(1e-30f));
	static_assert(std::is_same_v<decltype(frequency),
		Add<ReadableReal<float>,
			Div<Mul<ConstantExpr<float>, Imag<ReadableSplit<float>>>,
				Add<Mul<ConstantExpr<float>, ReadableReal<float>>, ConstantExpr<float>>>>>);
	linear.fill(r.out.data(), frequency, n);
	expectRow(r.out, [&](auto i) { return r.a[i] + 400.0 * r.im[i] / (6.2831855 * q[i] + 1e-30); }, "frequency");

	// Neg<Add<Norm<ReadableSplit>, ConstantExpr<int>>>
	auto incoherence = -(norm(S) + (-1));
	static_assert(std::is_same_v<decltype(incoherence), Neg<Add<Norm<ReadableSplit<float>>, ConstantExpr<int>>>>);
	linear.fill(r.out.data(), incoherence, n);
	expectRow(r.out, [&](auto i) { return 1 - norm2(i); }, "incoherence");
}

TEST(Linear, AMovedEvaluatorKeepsItsArena) {
	LinearImpl<true> first;
	first.reserve(64);
	LinearImpl<true> second(std::move(first));
	EXPECT_EQ(second.cache().reservedFloats(), 64u);
	EXPECT_EQ(first.cache().reservedFloats(), 0u);
	float a[3] = {1, 2, 3}, out[3];
	second.fill(out, (readable(a) + 1.0f) * readable(a), 3);
	EXPECT_EQ(out[2], 12.0f);
}

TEST(Linear, SizeZeroWritesNothing) {
	LinearImpl<true> linear;
	linear.reserve(16);
	float out = 5.0f, a = 1.0f, b = 2.0f;
	linear.fill(&out, readable(&a) + readable(&b), 0);
	linear.fill(&out, (readable(&a) + 1.0f) * readable(&b), 0);
	linear.fill(&out, norm(readable(&a, &b)), 0);
	linear.fill(&out, constant(3.0f), 0);
	EXPECT_EQ(out, 5.0f);
}

TEST(Linear, ScopesHandOutDisjointAlignedRowsAndNestLikeAStack) {
	LinearImpl<true> linear;
	linear.reserve(1000);
	float *first;
	{
		auto scope = linear.scope();
		first = scope.temporary(10);
		float *second = scope.temporary(10);
		EXPECT_EQ(reinterpret_cast<std::uintptr_t>(first) % 64, 0u);
		EXPECT_EQ(reinterpret_cast<std::uintptr_t>(second) % 64, 0u);
		EXPECT_GE(second, first + 10);
		{
			auto inner = linear.scope();
			float *third = inner.temporary(5);
			EXPECT_GE(third, second + 10);
		}
		float *afterInner = scope.temporary(5); // the inner scope's row is free again
		EXPECT_GE(afterInner, second + 10);
		EXPECT_LT(afterInner, second + 10 + 16);
		// A readable row is used as it stands.
		float x[3] = {1, 2, 3};
		EXPECT_EQ(scope.real(readable(x), 3), x);
	}
	auto again = linear.scope();
	EXPECT_EQ(again.temporary(10), first);
}

TEST(Linear, OverflowGivesRightResultsAndIsFreedOnLeavingTheScope) {
	const std::size_t n = 300;
	LinearImpl<true> linear;
	linear.reserve(n + 5); // room for one temporary only
	Rows r(n);
	auto A = readable(r.a.data()), B = readable(r.b.data()), C = readable(r.c.data());
	linear.fill(r.out.data(), ((A + B) * (C - A)) / ((B * 2.0f) + (A * C)) + (A - C) * (B + 1.0f), n);
	expectRow(r.out,
		[&](auto i) {
			double a = r.a[i], b = r.b[i], c = r.c[i];
			return ((a + b) * (c - a)) / ((b * 2) + (a * c)) + (a - c) * (b + 1);
		},
		"through the overflow list");
	EXPECT_EQ(linear.cache().overflowRows(), 0u);
	EXPECT_EQ(linear.cache().reservedFloats(), n + 5);

	// Without any reservation everything overflows, and still comes out right.
	LinearImpl<true> bare;
	bare.fill(r.out.data(), (A + B) * (C + 1.0f), n);
	expectRow(r.out, [&](auto i) { return (double(r.a[i]) + r.b[i]) * (double(r.c[i]) + 1); }, "no arena");
	{
		auto scope = bare.scope();
		scope.temporary(4);
		scope.temporary(4);
		EXPECT_EQ(bare.cache().overflowRows(), 2u);
	}
	EXPECT_EQ(bare.cache().overflowRows(), 0u);
}

TEST(Linear, SteadyStateAllocatesNothing) {
	if (!lumbrel_test::allocationCountingAvailable()) GTEST_SKIP() << "allocations aren't counted in this build";
	const std::size_t n = 677;
	LinearImpl<true> linear;
	linear.reserve(4 * n);
	Rows r(n);
	auto A = readable(r.a.data()), B = readable(r.b.data()), C = readable(r.c.data());
	auto S = readable(r.re.data(), r.im.data());
	lumbrel_test::AllocationScope scope;
	for (int repeat = 0; repeat < 20; ++repeat) {
		linear.fill(r.c.data(), C + norm(S) * A, n);
		linear.fill(r.out.data(), A + (constant(400.0f) * imag(S)) / (constant(6.28f) * B + constant(1e-30f)), n);
		linear.fill(r.out.data(), -(norm(S) + (-1)), n);
		linear.fill(r.out.data(), max(A - B, constant(0.0f)) / (A * A + 1.0f), n);
	}
	EXPECT_EQ(scope.count(), 0u);

	// The overflow path does allocate (one row per temporary that does not fit).
	LinearImpl<true> small;
	small.reserve(8);
	lumbrel_test::AllocationScope overflowScope;
	small.fill(r.out.data(), (A + B) * C, n);
	EXPECT_GT(overflowScope.count(), 0u);
}

} // namespace
