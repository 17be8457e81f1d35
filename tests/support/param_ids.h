#pragma once
// Parameter ids as a host sees them: the CRC-32 of the keys on the path, each followed by a zero byte. Computed here on
// its own, so a test that compares it with the plug-in's list checks the plug-in's arithmetic.
#include <clap/clap.h>

#include <cstdint>
#include <initializer_list>
#include <string>

namespace lumbrel_test {

inline clap_id paramId(std::initializer_list<const char *> path) {
	std::uint32_t crc = 0xFFFFFFFF;
	auto add = [&crc](unsigned char byte) {
		crc ^= byte;
		for (int k = 0; k < 8; ++k) crc = (crc & 1) ? (crc >> 1) ^ 0xEDB88320u : crc >> 1;
	};
	for (const char *key : path) {
		for (const char *c = key; *c; ++c) add(static_cast<unsigned char>(*c));
		add(0);
	}
	return ~crc;
}

} // namespace lumbrel_test
