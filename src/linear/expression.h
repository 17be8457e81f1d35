#pragma once
// Expression nodes over float rows: plain value types holding pointers and
// constants, built per use and thrown away. LinearImpl (linear.h) evaluates a
// tree of them one operator at a time, a whole row per operator.
//
//     using namespace varkesh::linear::expression;
//     auto e = readable(energy) + norm(readable(re, im)) * readable(weight);
//     linear.fill(energy, e, bands);
#include <type_traits>

namespace varkesh::linear::expression {

// a[i]
template <typename V>
struct ReadableReal {
	const V *pointer;
};
// (re[i], im[i]); usable only under Norm and Imag.
template <typename V>
struct ReadableSplit {
	const V *real;
	const V *imag;
};
// c, for every i. T is float or int (an int is converted to float when used).
template <typename T>
struct ConstantExpr {
	T value;
};
template <class A, class B>
struct Add {
	A a;
	B b;
};
template <class A, class B>
struct Sub {
	A a;
	B b;
};
template <class A, class B>
struct Mul {
	A a;
	B b;
};
template <class A, class B>
struct Div {
	A a;
	B b;
};
template <class A, class B>
struct Max {
	A a;
	B b;
};
template <class A>
struct Neg {
	A a;
};
// re^2 + im^2 of a split node, a^2 of a real node.
template <class A>
struct Norm {
	A a;
};
// im[i] of a split node.
template <class A>
struct Imag {
	A a;
};

// Which types are nodes, so the operators below never capture anything else.
template <class T>
struct IsNode : std::false_type {};
template <typename V>
struct IsNode<ReadableReal<V>> : std::true_type {};
template <typename T>
struct IsNode<ConstantExpr<T>> : std::true_type {};
template <class A, class B>
struct IsNode<Add<A, B>> : std::true_type {};
template <class A, class B>
struct IsNode<Sub<A, B>> : std::true_type {};
template <class A, class B>
struct IsNode<Mul<A, B>> : std::true_type {};
template <class A, class B>
struct IsNode<Div<A, B>> : std::true_type {};
template <class A, class B>
struct IsNode<Max<A, B>> : std::true_type {};
template <class A>
struct IsNode<Neg<A>> : std::true_type {};
template <class A>
struct IsNode<Norm<A>> : std::true_type {};
template <class A>
struct IsNode<Imag<A>> : std::true_type {};

template <class T>
struct IsConstant : std::false_type {};
template <typename T>
struct IsConstant<ConstantExpr<T>> : std::true_type {};

// Builders.
template <typename V>
ReadableReal<V> readable(const V *pointer) {
	return {pointer};
}
template <typename V>
ReadableSplit<V> readable(const V *real, const V *imag) {
	return {real, imag};
}
inline ConstantExpr<float> constant(float value) { return {value}; }
inline ConstantExpr<int> constant(int value) { return {value}; }
template <class A>
Norm<A> norm(A a) {
	return {a};
}
template <typename V>
Norm<ReadableSplit<V>> norm(ReadableSplit<V> a) {
	return {a};
}
template <typename V>
Imag<ReadableSplit<V>> imag(ReadableSplit<V> a) {
	return {a};
}
template <class A, class B, class = std::enable_if_t<IsNode<A>::value && IsNode<B>::value>>
Max<A, B> max(A a, B b) {
	return {a, b};
}

// A plain float or int next to a node becomes a ConstantExpr.
template <class T>
auto asNode(T t) {
	if constexpr (IsNode<T>::value) {
		return t;
	} else if constexpr (std::is_integral_v<T>) {
		return ConstantExpr<int>{int(t)};
	} else {
		return ConstantExpr<float>{float(t)};
	}
}
template <class A, class B>
constexpr bool nodePair = (IsNode<A>::value && (IsNode<B>::value || std::is_arithmetic_v<B>)) ||
	(std::is_arithmetic_v<A> && IsNode<B>::value);

template <class A, class B, class = std::enable_if_t<nodePair<A, B>>>
auto operator+(A a, B b) {
	return Add<decltype(asNode(a)), decltype(asNode(b))>{asNode(a), asNode(b)};
}
template <class A, class B, class = std::enable_if_t<nodePair<A, B>>>
auto operator-(A a, B b) {
	return Sub<decltype(asNode(a)), decltype(asNode(b))>{asNode(a), asNode(b)};
}
template <class A, class B, class = std::enable_if_t<nodePair<A, B>>>
auto operator*(A a, B b) {
	return Mul<decltype(asNode(a)), decltype(asNode(b))>{asNode(a), asNode(b)};
}
template <class A, class B, class = std::enable_if_t<nodePair<A, B>>>
auto operator/(A a, B b) {
	return Div<decltype(asNode(a)), decltype(asNode(b))>{asNode(a), asNode(b)};
}
template <class A, class = std::enable_if_t<IsNode<A>::value>>
Neg<A> operator-(A a) {
	return {a};
}

} // namespace varkesh::linear::expression
