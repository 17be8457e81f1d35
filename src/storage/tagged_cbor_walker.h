#pragma once
#include "storage/cbor_walker.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

namespace varkesh::cbor {

namespace detail {
inline std::uint8_t byteSwap(std::uint8_t v) { return v; }
inline std::uint16_t byteSwap(std::uint16_t v) { return __builtin_bswap16(v); }
inline std::uint32_t byteSwap(std::uint32_t v) { return __builtin_bswap32(v); }
inline std::uint64_t byteSwap(std::uint64_t v) { return __builtin_bswap64(v); }

constexpr bool hostIsBigEndian = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;
} // namespace detail

// A CborWalker that has stepped over the tags in front of its item, keeping
// the outermost one if it is an RFC 8746 typed-array tag (64 to 86), and that
// reads such typed arrays into numeric containers. Same contract as
// CborWalker: a value over the caller's bytes, any thread, no allocation.
struct TaggedCborWalker : CborWalker {
	// 1 once the item had tags in front of it: a chain is consumed in one go
	// and, like the typed-array tag, only its outermost tag is looked at.
	std::uint64_t tagCount = 0;
	const unsigned char *taggedBegin = nullptr; // first byte of the item, its tags included
	unsigned char typedArrayTag = 0; // 64 to 86, or 0 for none

	TaggedCborWalker() = default;
	TaggedCborWalker(const unsigned char *begin, const unsigned char *end) : TaggedCborWalker(CborWalker(begin, end)) {}
	TaggedCborWalker(const CborWalker &walker) : CborWalker(walker), taggedBegin(walker.begin) { consumeTags(); }

	// Moves onto the item behind the tags, iteratively, so that a long chain
	// costs no stack. Tag 87 (128-bit floats, little-endian) isn't remembered.
	void consumeTags() {
		if (type != CborType::Tag) return;
		++tagCount;
		if (value >= 64 && value <= 86) typedArrayTag = static_cast<unsigned char>(value);
		CborWalker inner(data, end);
		while (inner.type == CborType::Tag) inner = CborWalker(inner.data, end);
		static_cast<CborWalker &>(*this) = cutOff(inner);
	}

	// As CborWalker::forEach and forEachPair, each child, key and value being
	// a TaggedCborWalker with its tags consumed.
	template<class Fn>
	CborWalker forEach(Fn &&fn, bool useMapValues = false) const {
		return CborWalker::forEach(
			[&fn](const CborWalker &item, std::size_t index) { fn(TaggedCborWalker(item), index); }, useMapValues);
	}

	template<class Fn>
	CborWalker forEachPair(Fn &&fn) const {
		return CborWalker::forEachPair(
			[&fn](const CborWalker &key, const CborWalker &mapValue) { fn(TaggedCborWalker(key), TaggedCborWalker(mapValue)); });
	}

	// Copies elements `offset` onwards of a typed array (a Bytes item under a
	// typed-array tag) into array[0], array[1], ..., converting each by value
	// to the array's element type (an integer 3 becomes 3.0; floats going to
	// integers saturate, NaN gives 0). Stores at most `maxCount`; `array` must
	// already have room and isn't resized. Returns how many were stored: 0
	// without a typed-array tag, for 16- and 128-bit floats, for an indefinite
	// byte string and for one whose length passes the end of the buffer. A
	// partial last element is ignored.
	template<class Array>
	std::size_t readTypedArray(Array &&array, std::size_t offset, std::size_t maxCount) const {
		const bool bigEndian = (typedArrayTag & 4) == 0;
		switch (typedArrayTag & ~4u) {
		case 64: return typedArrayReadInner<Array, std::uint8_t, std::uint8_t, false>(std::forward<Array>(array), offset, maxCount, bigEndian); // 68 is clamped; read the same
		case 65: return typedArrayReadInner<Array, std::uint16_t, std::uint16_t, false>(std::forward<Array>(array), offset, maxCount, bigEndian);
		case 66: return typedArrayReadInner<Array, std::uint32_t, std::uint32_t, false>(std::forward<Array>(array), offset, maxCount, bigEndian);
		case 67: return typedArrayReadInner<Array, std::uint64_t, std::uint64_t, false>(std::forward<Array>(array), offset, maxCount, bigEndian);
		case 72: return typedArrayReadInner<Array, std::uint8_t, std::int8_t, false>(std::forward<Array>(array), offset, maxCount, bigEndian);
		case 73: return typedArrayReadInner<Array, std::uint16_t, std::int16_t, false>(std::forward<Array>(array), offset, maxCount, bigEndian);
		case 74: return typedArrayReadInner<Array, std::uint32_t, std::int32_t, false>(std::forward<Array>(array), offset, maxCount, bigEndian);
		case 75: return typedArrayReadInner<Array, std::uint64_t, std::int64_t, false>(std::forward<Array>(array), offset, maxCount, bigEndian);
		case 81: return typedArrayReadInner<Array, std::uint32_t, float, true>(std::forward<Array>(array), offset, maxCount, bigEndian);
		case 82: return typedArrayReadInner<Array, std::uint64_t, double, true>(std::forward<Array>(array), offset, maxCount, bigEndian);
		default: return 0;
		}
	}

	// The worker of readTypedArray: `Stored` is the unsigned integer of the
	// element's width, `Element` the type its bits mean (`isFloat` for the
	// float ones). The source is read in place, unaligned; it must not overlap
	// `array`.
	template<class Array, class Stored, class Element, bool isFloat>
	std::size_t typedArrayReadInner(Array &&array, std::size_t offset, std::size_t maxCount, bool bigEndian) const {
		static_assert(sizeof(Stored) == sizeof(Element));
		using Target = std::remove_cv_t<std::remove_reference_t<decltype(array[0])>>;
		constexpr std::size_t size = sizeof(Stored);
		if (!contentFits() || type != CborType::Bytes) return 0;
		const std::size_t elements = std::size_t(value) / size;
		if (offset > elements) return 0;
		const std::size_t count = elements - offset < maxCount ? elements - offset : maxCount;
		const unsigned char *source = data + offset * size;
		const bool swap = bigEndian != detail::hostIsBigEndian;
		auto element = [](Stored bits) {
			if constexpr (isFloat) {
				Element e;
				std::memcpy(&e, &bits, size);
				return e;
			} else {
				return static_cast<Element>(bits);
			}
		};
		if (swap) {
			for (std::size_t i = 0; i < count; ++i) {
				Stored bits;
				std::memcpy(&bits, source + i * size, size);
				array[i] = detail::convertNumber<Target>(element(detail::byteSwap(bits)));
			}
		} else {
			for (std::size_t i = 0; i < count; ++i) {
				Stored bits;
				std::memcpy(&bits, source + i * size, size);
				array[i] = detail::convertNumber<Target>(element(bits));
			}
		}
		return count;
	}
};

} // namespace varkesh::cbor
