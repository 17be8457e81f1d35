#include "render/state_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <unistd.h>

namespace lumbrel::render {

bool readStateFile(const std::string &path, std::vector<std::uint8_t> &bytes, std::string &error) {
	std::ifstream file(path, std::ios::binary);
	if (!file) {
		error = "cannot read the state " + path + ": " + std::strerror(errno);
		return false;
	}
	bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
	if (file.bad()) {
		error = "cannot read the state " + path;
		return false;
	}
	// A map head: major type 5, of definite (0xA0 to 0xBB) or indefinite (0xBF) length.
	if (bytes.empty() || (bytes[0] >> 5) != 5 || ((bytes[0] & 31) > 27 && bytes[0] != 0xBF)) {
		error = path + " is not a saved plug-in state (expected a CBOR map)";
		return false;
	}
	return true;
}

bool writeStateFile(const std::string &path, const std::vector<std::uint8_t> &bytes, std::string &error) {
	const std::string temporary = path + ".partial-" + std::to_string(::getpid());
	std::FILE *file = std::fopen(temporary.c_str(), "wb");
	if (!file) {
		error = "cannot write the state " + path + ": " + std::strerror(errno);
		return false;
	}
	const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
	const bool closed = std::fclose(file) == 0;
	if (!written || !closed || std::rename(temporary.c_str(), path.c_str()) != 0) {
		const std::string why = std::strerror(errno);
		std::remove(temporary.c_str());
		error = "cannot write the state " + path + ": " + why;
		return false;
	}
	return true;
}

} // namespace lumbrel::render
