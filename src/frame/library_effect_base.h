#pragma once
#include "frame/library_param.h"

namespace quorl {

// The base that effect wrappers are written against. A wrapper takes its
// parameter types from its base, so that the web layer can swap in parameters
// that show themselves to the page without the wrapper's text changing.
template<class Sample>
struct LibraryEffectBase {
	using ParamRange = LibraryParam<double>;
	using ParamStepped = LibraryParam<int>;
};

} // namespace quorl
