#pragma once
// What a page-side test needs to know of a plug-in's parameters: the CLAP
// list (id, name, range, flags) joined with where each parameter stands in
// the effect's object tree, which the saved state shows (host/key_paths.h).
#include "host/instance.h"

#include <cstdint>
#include <string>
#include <vector>

namespace lumbrel::bridge {

// [main thread] The plug-in's parameters as a JSON array, in its own order:
// {"id", "name", "stepped", "min", "max", "default", "value", "text",
//  "keys": [...], "groups": [...]}, where "value" is params_get_value (a
// position from 0 to 1 for ranged ones) and "text" its value_to_text. A
// parameter whose id no key path gives has empty "keys".
std::string paramListJson(const host::Instance &instance);

} // namespace lumbrel::bridge
