#pragma once
#include "frame/library_param.h"

#include <atomic>

namespace quorl {

// The base that effect wrappers are written against. A wrapper takes its
// parameter types from its base, so that the web layer can swap in parameters
// that show themselves to the page without the wrapper's text changing.
//
// The frame's own fields stand here, at the very start of the effect object,
// so that the root's address is its own and no group's.
template<class Sample>
struct LibraryEffectBase {
	using ParamRange = LibraryParam<double>;
	using ParamStepped = LibraryParam<int>;

	// The frame's own tempo slot: no key, no host parameter, never written.
	LibraryParam<double> bpm{120};
	// Meter handshake with the web timer: the timer sets `wantsMeters`, the
	// block that saw it answers with `hasMeters`.
	std::atomic<bool> wantsMeters{false}, hasMeters{false};
};

} // namespace quorl
