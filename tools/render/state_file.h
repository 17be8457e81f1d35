#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace lumbrel::render {

// A plug-in state blob ("clap.state") kept in a file, as presets are.

// Reads the whole file. False with one line in `error` if it can't be read
// or doesn't hold one CBOR map, which every saved state of this bundle is.
bool readStateFile(const std::string &path, std::vector<std::uint8_t> &bytes, std::string &error);

// Writes the bytes beside `path` and renames them over it when complete.
bool writeStateFile(const std::string &path, const std::vector<std::uint8_t> &bytes, std::string &error);

} // namespace lumbrel::render
