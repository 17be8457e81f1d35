#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string_view>
#include <type_traits>

namespace varkesh::cbor {

// What a walker stands on. The numbers order the dispatch in next() and mean
// nothing outside this reader.
enum class CborType : std::uint32_t {
	Unsigned = 0, // major type 0; value n
	Negative = 1, // major type 1; value n, the item being -1-n
	Bytes = 2, // value is the byte length
	Utf8 = 3, // value is the byte length
	Array = 4, // value is the item count
	Map = 5, // value is the pair count
	Tag = 6, // value is the tag number
	Simple = 7, // value is the simple value (20 false, 21 true, 22 null, 23 undefined); a 16-bit float reads as Simple 0
	Float32 = 8, // IEEE 754 single bits in the low 32 bits of value
	Float64 = 9, // IEEE 754 double bits
	Error = 10, // value is one of the codes in `error`
	Break = 11, // 0xFF; value 31
	IndefiniteBytes = 12, // 0x5F; value 31
	IndefiniteUtf8 = 13, // 0x7F; value 31
	IndefiniteArray = 14, // 0x9F; value 31
	IndefiniteMap = 15, // 0xBF; value 31
};

// Codes that an Error walker holds in `value`.
namespace error {
constexpr std::uint64_t pastEnd = 1; // a read at or past the end of the buffer, head included
constexpr std::uint64_t badEnd = 3; // Break after a map key, or a chunk of the wrong kind ended an indefinite string in forEach
constexpr std::uint64_t badChunk = 4; // an indefinite string held a chunk of the wrong type (next)
constexpr std::uint64_t tooDeep = 5; // next() met containers nested deeper than CborWalker::maxDepth
constexpr std::uint64_t notContainer = 6; // forEach / forEachPair on an item that has no children of that kind
constexpr std::uint64_t unknownType = 7;
// 28, 29, 30: the reserved additional-information number of the head itself.
constexpr std::uint64_t indefiniteLength = 31; // indefinite length on an integer or a tag
} // namespace error

namespace detail {
// Numeric conversion that is defined for every input: a float going to an
// integer saturates at the integer's limits, and NaN gives 0.
template<class To, class From>
To convertNumber(From from) {
	if constexpr (std::is_floating_point_v<From> && std::is_integral_v<To>) {
		if (!(from == from)) return To(0);
		if (from <= From(std::numeric_limits<To>::min())) return std::numeric_limits<To>::min();
		if (from >= From(std::numeric_limits<To>::max())) return std::numeric_limits<To>::max();
		return static_cast<To>(from);
	} else {
		return static_cast<To>(from);
	}
}

inline float floatFromBits(std::uint32_t bits) {
	float f;
	std::memcpy(&f, &bits, sizeof f);
	return f;
}

inline double doubleFromBits(std::uint64_t bits) {
	double d;
	std::memcpy(&d, &bits, sizeof d);
	return d;
}
} // namespace detail

// A reader positioned on one CBOR (RFC 8949) item inside a byte range that the
// caller owns. Copying is cheap, and reading never changes a walker: moving on
// means making a new one. Allocates nothing, copies nothing, throws nothing;
// errors travel as an Error walker, and the last walker of a walk shows the
// outcome. Any thread; the bytes must outlive the walker and stay unchanged.
//
// The bytes may be hostile. Every read is checked against `end`, including the
// argument bytes of a head; a loop over items stops at the first error, and
// every step that doesn't fail moves on by at least one byte, so no walk runs
// longer than the buffer; next() steps over at most `maxDepth` nested
// containers and turns anything deeper into error::tooDeep; a chain of tags is
// skipped without recursion.
//
// Where an error stands: an Error walker at `end` with code pastEnd only says
// that the buffer ends there, which is what next() gives after a complete last
// item (see atBufferEnd). Every other error stands at the item that is wrong;
// a string or container cut off by the end of the buffer gives pastEnd at its
// own head, the innermost one that was cut.
struct CborWalker {
	// Deepest nesting of containers below an item that next() will step over.
	// Saved states and page messages nest less than ten deep.
	static constexpr unsigned maxDepth = 128;

	const unsigned char *begin = nullptr; // first byte of this item's head
	const unsigned char *end = nullptr; // one past the buffer, shared by every walker made from it
	const unsigned char *data = nullptr; // first byte after the head; null in most Error walkers
	CborType type = CborType::Error;
	std::uint64_t value = error::pastEnd;

	// An Error walker (past the end) over nothing.
	CborWalker() = default;

	// Parses the head at `begin`. At or past `end`, or with a head whose
	// argument bytes pass `end`, the result is Error with code pastEnd.
	CborWalker(const unsigned char *begin, const unsigned char *end) : begin(begin), end(end) {
		if (!(begin < end)) return;
		const unsigned char head = *begin;
		const unsigned major = head >> 5;
		const unsigned additional = head & 31;
		type = CborType(major);
		if (additional < 24) {
			value = additional;
			data = begin + 1;
		} else if (additional < 28) {
			const std::size_t size = std::size_t(1) << (additional - 24);
			if (std::size_t(end - begin) - 1 < size) {
				type = CborType::Error;
				value = error::pastEnd;
				return;
			}
			std::uint64_t argument = 0;
			for (std::size_t i = 1; i <= size; ++i) argument = (argument << 8) | begin[i];
			data = begin + 1 + size;
			value = argument;
			if (major == 7) {
				// A 16-bit float is walked over but not decoded: nothing in this
				// program writes one.
				if (additional == 25) value = 0;
				if (additional == 26) type = CborType::Float32;
				if (additional == 27) type = CborType::Float64;
			}
		} else if (additional < 31) {
			type = CborType::Error;
			value = additional;
			data = begin + 1;
		} else {
			static constexpr CborType indefinite[8] = {
				CborType::Error, CborType::Error, CborType::IndefiniteBytes, CborType::IndefiniteUtf8,
				CborType::IndefiniteArray, CborType::IndefiniteMap, CborType::Error, CborType::Break};
			type = indefinite[major];
			value = 31;
			data = begin + 1;
		}
	}

	bool isError() const { return type == CborType::Error && value != 0; }

	// True when the walker stands at the end of the buffer and nothing else
	// is wrong: the item before it, if any, was complete.
	bool atBufferEnd() const { return type == CborType::Error && value == error::pastEnd && begin == end; }

	// The walker for the item after this whole item, children and tags
	// included. An Error walker's next() is itself.
	CborWalker next() const { return nextAt(0); }

	// Reads as a signed integer: `value` for Unsigned, Bytes to Simple and
	// Error (so a string gives its length); -1-n for Negative, as its 64-bit
	// pattern; floats truncated toward zero, saturating, NaN as 0; 0 otherwise.
	std::int64_t asInteger() const {
		switch (type) {
		case CborType::Unsigned:
		case CborType::Bytes:
		case CborType::Utf8:
		case CborType::Array:
		case CborType::Map:
		case CborType::Tag:
		case CborType::Simple:
		case CborType::Error:
			return std::int64_t(value);
		case CborType::Negative:
			return std::int64_t(~value);
		case CborType::Float32:
			return detail::convertNumber<std::int64_t>(detail::floatFromBits(std::uint32_t(value)));
		case CborType::Float64:
			return detail::convertNumber<std::int64_t>(detail::doubleFromBits(value));
		default:
			return 0;
		}
	}

	// Reads as a double: integers and floats by value, 0.0 for anything else.
	double asDouble() const {
		switch (type) {
		case CborType::Unsigned:
			return double(value);
		case CborType::Negative:
			if (value <= std::uint64_t(std::numeric_limits<std::int64_t>::max())) return double(std::int64_t(~value));
			return -1.0 - double(value);
		case CborType::Float32:
			return double(detail::floatFromBits(std::uint32_t(value)));
		case CborType::Float64:
			return detail::doubleFromBits(value);
		default:
			return 0.0;
		}
	}

	// True for Bytes and Utf8 whose content lies inside the buffer.
	bool contentFits() const {
		return (type == CborType::Bytes || type == CborType::Utf8) && value <= std::uint64_t(end - data);
	}

	// The content of a Bytes or Utf8 item, viewed in place; empty for other
	// types and for a string whose length passes the end of the buffer.
	std::string_view stringView() const {
		if (!contentFits()) return {};
		return {reinterpret_cast<const char *>(data), std::size_t(value)};
	}

	// Compares a text item, definite or chunked, with `text` byte by byte.
	// False for any other type and for a malformed string.
	bool textEquals(std::string_view text) const {
		if (type == CborType::Utf8) return contentFits() && stringView() == text;
		if (type != CborType::IndefiniteUtf8) return false;
		std::size_t matched = 0;
		CborWalker chunk(data, end);
		for (; chunk.type == CborType::Utf8; chunk = chunk.next()) {
			if (!chunk.contentFits()) return false;
			const std::string_view part = chunk.stringView();
			if (text.substr(matched, part.size()) != part) return false;
			matched += part.size();
		}
		return chunk.type == CborType::Break && matched == text.size();
	}

	// Calls fn(item, index) for every child: the items of an array, the keys
	// of a map (its values if `useMapValues`), the chunks of an indefinite
	// string. Returns the walker after the container, or the error that ended
	// the walk (error::notContainer for items without children).
	template<class Fn>
	CborWalker forEach(Fn &&fn, bool useMapValues = false) const {
		switch (type) {
		case CborType::Array: {
			CborWalker walker(data, end);
			for (std::uint64_t i = 0; i < value; ++i) {
				if (walker.isError()) return cutOff(walker);
				const CborWalker item = walker;
				walker = walker.next();
				fn(item, std::size_t(i));
			}
			return walker;
		}
		case CborType::Map: {
			CborWalker walker(data, end);
			for (std::uint64_t i = 0; i < value; ++i) {
				if (walker.isError()) return cutOff(walker);
				const CborWalker key = walker;
				walker = walker.next();
				if (walker.isError()) return cutOff(walker);
				const CborWalker mapValue = walker;
				walker = walker.next();
				fn(useMapValues ? mapValue : key, std::size_t(i));
			}
			return walker;
		}
		case CborType::IndefiniteBytes:
		case CborType::IndefiniteUtf8: {
			const CborType chunkType = type == CborType::IndefiniteBytes ? CborType::Bytes : CborType::Utf8;
			CborWalker walker(data, end);
			std::size_t index = 0;
			while (walker.type == chunkType) {
				const CborWalker chunk = walker;
				walker = walker.next();
				fn(chunk, index++);
			}
			if (walker.isError()) return cutOff(walker);
			if (walker.type == CborType::Break) return walker.next();
			return walker.failure(error::badEnd);
		}
		case CborType::IndefiniteArray: {
			CborWalker walker(data, end);
			std::size_t index = 0;
			while (walker.type != CborType::Break && !walker.isError()) {
				const CborWalker item = walker;
				walker = walker.next();
				fn(item, index++);
			}
			if (walker.isError()) return cutOff(walker);
			return walker.next();
		}
		case CborType::IndefiniteMap: {
			std::size_t index = 0;
			return indefinitePairs([&](const CborWalker &key, const CborWalker &mapValue) {
				fn(useMapValues ? mapValue : key, index++);
			});
		}
		default:
			return failure(error::notContainer);
		}
	}

	// Calls fn(key, value) for every pair of a map, definite or not. Returns
	// the walker after the map, or the error that ended the walk; a Break
	// where a value should stand is error::badEnd, and anything but a map is
	// error::notContainer, with fn never called.
	template<class Fn>
	CborWalker forEachPair(Fn &&fn) const {
		if (type == CborType::IndefiniteMap) return indefinitePairs(fn);
		if (type != CborType::Map) return failure(error::notContainer);
		CborWalker walker(data, end);
		for (std::uint64_t i = 0; i < value; ++i) {
			const CborWalker key = walker;
			walker = walker.next();
			if (key.isError()) return cutOff(key);
			if (walker.isError()) return cutOff(walker);
			const CborWalker mapValue = walker;
			walker = walker.next();
			fn(key, mapValue);
		}
		return walker;
	}

protected:
	// The error that ends a walk of this container's children: the plain end
	// of the buffer means that the container itself was cut off.
	CborWalker cutOff(const CborWalker &stop) const { return stop.atBufferEnd() ? failure(error::pastEnd) : stop; }

	// This walker turned into an Error with `code`; begin and end are kept.
	CborWalker failure(std::uint64_t code) const {
		CborWalker result = *this;
		result.type = CborType::Error;
		result.value = code;
		result.data = nullptr;
		return result;
	}

	// next() with the nesting depth of this item below the one next() was
	// called on; recursion goes no deeper than maxDepth.
	CborWalker nextAt(unsigned depth) const {
		switch (type) {
		case CborType::Unsigned:
		case CborType::Negative:
		case CborType::Simple:
		case CborType::Float32:
		case CborType::Float64:
		case CborType::Break:
			return CborWalker(data, end);
		case CborType::Bytes:
		case CborType::Utf8:
			// Compared before adding, so a huge length never forms a pointer
			// past the buffer.
			if (value > std::uint64_t(end - data)) return failure(error::pastEnd);
			return CborWalker(data + value, end);
		case CborType::Array:
		case CborType::Map: {
			if (depth >= maxDepth) return failure(error::tooDeep);
			const bool pairs = type == CborType::Map;
			CborWalker walker(data, end);
			// Stops at the first error: a count can claim far more items than
			// the buffer holds.
			for (std::uint64_t i = 0; i < value; ++i) {
				if (walker.isError()) return cutOff(walker);
				walker = walker.nextAt(depth + 1);
				if (!pairs) continue;
				if (walker.isError()) return cutOff(walker);
				walker = walker.nextAt(depth + 1);
			}
			return walker;
		}
		case CborType::Tag: {
			CborWalker inner(data, end);
			while (inner.type == CborType::Tag) inner = CborWalker(inner.data, end);
			if (inner.isError()) return cutOff(inner);
			return inner.nextAt(depth);
		}
		case CborType::Error:
			return *this;
		case CborType::IndefiniteBytes:
		case CborType::IndefiniteUtf8: {
			const CborType chunkType = type == CborType::IndefiniteBytes ? CborType::Bytes : CborType::Utf8;
			CborWalker walker(data, end);
			while (walker.type == chunkType) walker = walker.nextAt(depth + 1);
			if (walker.isError()) return cutOff(walker);
			if (walker.type != CborType::Break) return failure(error::badChunk);
			return CborWalker(walker.data, end);
		}
		case CborType::IndefiniteArray:
		case CborType::IndefiniteMap: {
			if (depth >= maxDepth) return failure(error::tooDeep);
			const bool pairs = type == CborType::IndefiniteMap;
			CborWalker walker(data, end);
			while (walker.type != CborType::Break && !walker.isError()) {
				walker = walker.nextAt(depth + 1);
				if (pairs) walker = walker.nextAt(depth + 1);
			}
			if (walker.isError()) return cutOff(walker);
			return CborWalker(walker.data, end);
		}
		default:
			return failure(error::unknownType);
		}
	}

	template<class Fn>
	CborWalker indefinitePairs(Fn &&fn) const {
		CborWalker walker(data, end);
		while (walker.type != CborType::Break && !walker.isError()) {
			const CborWalker key = walker;
			walker = walker.next();
			if (walker.type == CborType::Break) return walker.failure(error::badEnd);
			if (walker.isError()) return cutOff(walker);
			const CborWalker mapValue = walker;
			walker = walker.next();
			fn(key, mapValue);
		}
		if (walker.isError()) return cutOff(walker);
		return walker.next();
	}
};

} // namespace varkesh::cbor
