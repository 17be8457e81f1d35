#pragma once
// Row arithmetic without allocation: evaluates a tree of expression nodes
// (expression.h) one operator at a time, each operator one pass of a platform
// row routine (platform_vector.h), with temporaries from a stack-like scratch
// store (cached_results.h).
//
//     using namespace varkesh::linear::expression;
//     linear.reserve(4 * bands);                                   // set-up
//     linear.fill(energy, readable(energy) + norm(readable(re, im)) * readable(mix), bands);
//
// Each operator below the top whose value is not a ready row holds a temporary
// of `size` floats while the operators above it are evaluated; the engine's
// frequency update, a + (c * imag) / (c * q + c), holds four at once. Reserve
// k * size floats for k live temporaries (the store adds the alignment padding)
// and steady-state evaluation allocates nothing. Beyond the reservation the
// result is still right, through heap rows freed when the operator's scope ends.
//
// Forms: R + R, R + c, c + R, R - R, R - c, c - R, R * R, R * c, c * R,
// R / R, c / R, R / c, -R, Norm(split), Norm(R), Imag(split), Max(R, R),
// Max(R, c), Max(c, R), and a constant or a readable row as a whole
// expression; R is a readable row or any node evaluated into a temporary.
//
// One thread at a time per object; scopes do not lock.
#include "linear/cached_results.h"
#include "linear/expression.h"
#include "linear/platform_vector.h"
#include "linear/row_loops.h"

#include <cstddef>
#include <type_traits>

namespace varkesh::linear {

template <bool useLibrary>
class LinearImpl;

template <>
class LinearImpl<true> {
public:
	using Cache = CachedResults<LinearImpl<true>, true, 64>;

	// A scope of the scratch store: hands out temporaries, and evaluates
	// expressions into them, until it ends.
	class ScopedFloat {
	public:
		explicit ScopedFloat(LinearImpl &linear) : linear(linear), scope(linear.cached) {}

		// A fresh 64-byte aligned row of `size` floats, valid within the scope.
		float *temporary(std::size_t size) { return scope.temporary(size); }

		// The values of `expr` as a row: a readable row (or the imaginary row of a
		// readable split) is used as it stands, anything else is evaluated into
		// a temporary.
		template <class Expr>
		const float *real(const Expr &expr, std::size_t size) {
			if constexpr (isReadyRow<Expr>::value) {
				return readyRow(expr);
			} else {
				float *result = temporary(size);
				linear.fill(result, expr, size);
				return result;
			}
		}

	private:
		LinearImpl &linear;
		Cache::Scope scope;
	};

	// [set-up, allocates] Sizes the scratch arena, in floats.
	void reserve(std::size_t floats) { cached.reserve(floats); }
	ScopedFloat scope() { return ScopedFloat(*this); }
	const Cache &cache() const { return cached; }

	// [audio-thread] Writes `size` values of `expr` to out. The top node picks
	// the fill* member. out may be the same row as any readable operand.
	template <class A, class B>
	void fill(float *out, const expression::Add<A, B> &expr, std::size_t size) {
		fillAdd(out, expr, size);
	}
	template <class A, class B>
	void fill(float *out, const expression::Sub<A, B> &expr, std::size_t size) {
		fillSub(out, expr, size);
	}
	template <class A, class B>
	void fill(float *out, const expression::Mul<A, B> &expr, std::size_t size) {
		fillMul(out, expr, size);
	}
	template <class A, class B>
	void fill(float *out, const expression::Div<A, B> &expr, std::size_t size) {
		fillDiv(out, expr, size);
	}
	template <class A>
	void fill(float *out, const expression::Neg<A> &expr, std::size_t size) {
		fillNeg(out, expr, size);
	}
	template <class A>
	void fill(float *out, const expression::Norm<A> &expr, std::size_t size) {
		fillNorm(out, expr, size);
	}
	template <class A, class B>
	void fill(float *out, const expression::Max<A, B> &expr, std::size_t size) {
		fillMax(out, expr, size);
	}
	template <typename V>
	void fill(float *out, const expression::Imag<expression::ReadableSplit<V>> &expr, std::size_t size) {
		if (out != expr.a.imag) platform::copy(out, expr.a.imag, size);
	}
	template <typename T>
	void fill(float *out, const expression::ConstantExpr<T> &expr, std::size_t size) {
		platform::fill(out, float(expr.value), size);
	}
	template <typename V>
	void fill(float *out, const expression::ReadableReal<V> &expr, std::size_t size) {
		if (out != expr.pointer) platform::copy(out, expr.pointer, size);
	}

	template <class A, class B>
	void fillAdd(float *out, const expression::Add<A, B> &expr, std::size_t size) {
		if (!size) return;
		ScopedFloat s(*this);
		if constexpr (isConst<A> && isConst<B>) {
			platform::fill(out, value(expr.a) + value(expr.b), size);
		} else if constexpr (isConst<A>) {
			platform::addScalar(out, s.real(expr.b, size), value(expr.a), size);
		} else if constexpr (isConst<B>) {
			platform::addScalar(out, s.real(expr.a, size), value(expr.b), size);
		} else {
			const float *a = s.real(expr.a, size);
			platform::add(out, a, s.real(expr.b, size), size);
		}
	}

	template <class A, class B>
	void fillSub(float *out, const expression::Sub<A, B> &expr, std::size_t size) {
		if (!size) return;
		ScopedFloat s(*this);
		if constexpr (isConst<A> && isConst<B>) {
			platform::fill(out, value(expr.a) - value(expr.b), size);
		} else if constexpr (isConst<A>) {
			// c - b, exactly as (-b) + c
			platform::neg(out, s.real(expr.b, size), size);
			platform::addScalar(out, out, value(expr.a), size);
		} else if constexpr (isConst<B>) {
			platform::addScalar(out, s.real(expr.a, size), -value(expr.b), size);
		} else {
			const float *a = s.real(expr.a, size);
			platform::sub(out, a, s.real(expr.b, size), size);
		}
	}

	template <class A, class B>
	void fillMul(float *out, const expression::Mul<A, B> &expr, std::size_t size) {
		if (!size) return;
		ScopedFloat s(*this);
		if constexpr (isConst<A> && isConst<B>) {
			platform::fill(out, value(expr.a) * value(expr.b), size);
		} else if constexpr (isConst<A>) {
			platform::mulScalar(out, s.real(expr.b, size), value(expr.a), size);
		} else if constexpr (isConst<B>) {
			platform::mulScalar(out, s.real(expr.a, size), value(expr.b), size);
		} else {
			const float *a = s.real(expr.a, size);
			platform::mul(out, a, s.real(expr.b, size), size);
		}
	}

	template <class A, class B>
	void fillDiv(float *out, const expression::Div<A, B> &expr, std::size_t size) {
		if (!size) return;
		ScopedFloat s(*this);
		if constexpr (isConst<A> && isConst<B>) {
			platform::fill(out, value(expr.a) / value(expr.b), size);
		} else {
			// A constant operand becomes a row, so that the quotient is a true
			// division (not a product with a rounded reciprocal).
			const float *a = s.real(expr.a, size);
			platform::div(out, a, s.real(expr.b, size), size);
		}
	}

	template <class A>
	void fillNeg(float *out, const expression::Neg<A> &expr, std::size_t size) {
		if (!size) return;
		ScopedFloat s(*this);
		if constexpr (isConst<A>) {
			platform::fill(out, -value(expr.a), size);
		} else {
			platform::neg(out, s.real(expr.a, size), size);
		}
	}

	template <class A>
	void fillNorm(float *out, const expression::Norm<A> &expr, std::size_t size) {
		if (!size) return;
		if constexpr (isSplit<A>::value) {
			rows::normSplit(out, expr.a.real, expr.a.imag, size);
		} else if constexpr (isConst<A>) {
			float v = value(expr.a);
			platform::fill(out, v * v, size);
		} else {
			ScopedFloat s(*this);
			rows::square(out, s.real(expr.a, size), size);
		}
	}

	template <class A, class B>
	void fillMax(float *out, const expression::Max<A, B> &expr, std::size_t size) {
		if (!size) return;
		ScopedFloat s(*this);
		if constexpr (isConst<A> && isConst<B>) {
			float a = value(expr.a), b = value(expr.b);
			platform::fill(out, a > b ? a : b, size);
		} else if constexpr (isConst<A>) {
			rows::maxScalar(out, s.real(expr.b, size), value(expr.a), size);
		} else if constexpr (isConst<B>) {
			rows::maxScalar(out, s.real(expr.a, size), value(expr.b), size);
		} else {
			const float *a = s.real(expr.a, size);
			rows::max(out, a, s.real(expr.b, size), size);
		}
	}

private:
	Cache cached;

	template <class T>
	static constexpr bool isConst = expression::IsConstant<T>::value;
	template <typename T>
	static float value(const expression::ConstantExpr<T> &c) {
		return float(c.value);
	}

	template <class T>
	struct isSplit : std::false_type {};
	template <typename V>
	struct isSplit<expression::ReadableSplit<V>> : std::true_type {};

	template <class T>
	struct isReadyRow : std::false_type {};
	template <typename V>
	struct isReadyRow<expression::ReadableReal<V>> : std::true_type {};
	template <typename V>
	struct isReadyRow<expression::Imag<expression::ReadableSplit<V>>> : std::true_type {};

	template <typename V>
	static const float *readyRow(const expression::ReadableReal<V> &e) {
		return e.pointer;
	}
	template <typename V>
	static const float *readyRow(const expression::Imag<expression::ReadableSplit<V>> &e) {
		return e.a.imag;
	}
};

} // namespace varkesh::linear
