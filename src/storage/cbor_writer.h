#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace varkesh::cbor {

// Emits CBOR (RFC 8949) and RFC 8746 float arrays one byte at a time through
// `Derived::writeByte(unsigned char)`. It knows nothing of structure: the
// caller balances maps, arrays and breaks. No errors are reported.
template<class Derived>
struct CborWriterBase {
	// One head in its shortest form, the argument most significant byte first.
	void writeHead(unsigned char majorType, unsigned long long argument) {
		const unsigned char major = static_cast<unsigned char>((majorType & 7) << 5);
		if (argument < 24) {
			byte(major | static_cast<unsigned char>(argument));
		} else if (argument < 0x100) {
			byte(major | 24);
			bigEndianBytes(argument, 1);
		} else if (argument < 0x10000) {
			byte(major | 25);
			bigEndianBytes(argument, 2);
		} else if (argument <= 0xFFFFFFFFull) {
			byte(major | 26);
			bigEndianBytes(argument, 4);
		} else {
			byte(major | 27);
			bigEndianBytes(argument, 8);
		}
	}

	// Always the 64-bit form (0xFB), never a narrower one: a float value
	// goes through as its exact double.
	void addFloat(double value) {
		std::uint64_t bits;
		std::memcpy(&bits, &value, sizeof bits);
		byte(0xFB);
		bigEndianBytes(bits, 8);
	}

	// A signed integer: major type 0 at or above zero, else 1 with -1-v.
	void addInt(std::int64_t value) {
		if (value >= 0) writeHead(0, static_cast<std::uint64_t>(value));
		else writeHead(1, ~static_cast<std::uint64_t>(value));
	}

	void addBool(bool value) { byte(value ? 0xF5 : 0xF4); }

	void addText(std::string_view text) {
		writeHead(3, text.size());
		writeRaw(text.data(), text.size());
	}

	void addBytes(const void *bytes, std::size_t length) {
		writeHead(2, length);
		writeRaw(bytes, length);
	}

	void addTag(unsigned long long tag) { writeHead(6, tag); }

	// Openers of indefinite length, and the break that closes them.
	void openMap() { byte(0xBF); }
	void openArray() { byte(0x9F); }
	void addBreak() { byte(0xFF); }

	// Tag 81 (big-endian) or 85 (little-endian) and a byte string of the
	// floats' bit patterns.
	void addTypedArray(const float *values, std::size_t count, bool bigEndian) {
		writeHead(6, bigEndian ? 81 : 85);
		writeTypedBlock<std::uint32_t>(
			[values](std::size_t i) {
				std::uint32_t bits;
				std::memcpy(&bits, values + i, sizeof bits);
				return bits;
			},
			count, bigEndian);
	}

	// The byte string of a typed array: `source(i)` gives element i as a
	// `Word`, written in the order the array has them, without padding.
	template<class Word, class Source>
	void writeTypedBlock(Source &&source, std::size_t count, bool bigEndian) {
		writeHead(2, count * sizeof(Word));
		for (std::size_t i = 0; i < count; ++i) {
			const Word word = source(i);
			for (std::size_t b = 0; b < sizeof(Word); ++b) {
				const std::size_t shift = 8 * (bigEndian ? sizeof(Word) - 1 - b : b);
				byte(static_cast<unsigned char>(word >> shift));
			}
		}
	}

	// Bytes as they stand, no head.
	void writeRaw(const void *bytes, std::size_t length) {
		const auto *p = static_cast<const unsigned char *>(bytes);
		for (std::size_t i = 0; i < length; ++i) byte(p[i]);
	}

private:
	void byte(unsigned char b) { static_cast<Derived *>(this)->writeByte(b); }

	void bigEndianBytes(std::uint64_t argument, unsigned count) {
		for (unsigned i = count; i-- > 0;) byte(static_cast<unsigned char>(argument >> (8 * i)));
	}
};

// Appends to a byte vector that the caller owns and that the writer neither
// clears nor shrinks. It holds nothing else, so it can be copied or re-made at
// any point of a message. One thread at a time; allocates only through the
// vector's own growth, so a vector whose capacity was reserved takes none.
struct CborWriter : CborWriterBase<CborWriter> {
	explicit CborWriter(std::vector<unsigned char> &bytes) : bytes(bytes) {}

	void writeByte(unsigned char b) { bytes.push_back(b); }

	std::vector<unsigned char> &bytes;
};

} // namespace varkesh::cbor
