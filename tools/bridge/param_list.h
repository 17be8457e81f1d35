#pragma once
// What a page-side test needs to know of a plug-in's parameters: the CLAP
// list (id, name, range, flags) joined with where each parameter stands in
// the effect's object tree, which the saved state shows.
#include "host/instance.h"

#include <cstdint>
#include <string>
#include <vector>

namespace lumbrel::bridge {

// A parameter's place in the saved state: the keys from the root down to the
// parameter, and the display name of each group on the way.
struct KeyPath {
	std::vector<std::string> keys; // e.g. {"engineConfig", "latencyMs"}
	std::vector<std::string> groups; // e.g. {"Engine"}; one per key but the last
};

// Every parameter in a saved state (one CBOR map; groups are maps with a
// "name", parameters maps with "value" alone), in the state's order. Bytes
// that aren't such a map give what could be read before the fault.
std::vector<KeyPath> keyPathsOfState(const std::uint8_t *bytes, std::size_t size);

// The parameter id that the keys give: CRC-32 of each key followed by a zero byte.
std::uint32_t keyPathId(const std::vector<std::string> &keys);

// [main thread] The plug-in's parameters as a JSON array, in its own order:
// {"id", "name", "stepped", "min", "max", "default", "value", "text",
//  "keys": [...], "groups": [...]}, where "value" is params_get_value (a
// position from 0 to 1 for ranged ones) and "text" its value_to_text. A
// parameter whose id no key path gives has empty "keys".
std::string paramListJson(const host::Instance &instance);

} // namespace lumbrel::bridge
