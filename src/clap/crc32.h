#pragma once
#include <cstdint>

namespace quorl::clap {

// A running CRC-32 (reflected, polynomial 0xEDB88320) without the final
// inversion, so that a path can be extended key by key. Parameter ids are the
// inverted value after "key\0" for each key on the path, starting from
// 0xFFFFFFFF: the standard CRC-32 of those bytes.
struct Crc32 {
	std::uint32_t value = 0xFFFFFFFF;

	Crc32 &addByte(unsigned char byte) {
		value ^= byte;
		for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ (0xEDB88320u & (0u - (value & 1u)));
		return *this;
	}
	// Adds the bytes of `text` up to its terminator, and then a zero byte if
	// `addNull`.
	Crc32 &addString(const char *text, bool addNull) {
		for (; *text; ++text) addByte(static_cast<unsigned char>(*text));
		if (addNull) addByte(0);
		return *this;
	}
};

} // namespace quorl::clap
