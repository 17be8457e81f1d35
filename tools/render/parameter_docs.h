#pragma once
#include "host/bundle.h"

#include <string>

namespace lumbrel::render {

// docs/parameters.md: for each plug-in of the bundle, a table of its
// parameters (key path, name shown, range, unit, default, what it does),
// read from the plug-ins themselves, so that the page cannot drift from them.
std::string parameterReference(const host::Bundle &bundle);

} // namespace lumbrel::render
