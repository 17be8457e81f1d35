#pragma once
#include "frame/library_effect.h"
#include "frame/library_effect_base.h"

#include <cstdint>

namespace quorl::web {

// The top of an effect's class stack: the library effect with the link to the
// editor page. `Wrapper` is the effect's wrapper template (e.g. SwellQUORL).
template<class Sample, template<class> class Wrapper>
class WebUILibraryEffect : public LibraryEffect<Sample, Wrapper<LibraryEffectBase<Sample>>> {
	using Library = LibraryEffect<Sample, Wrapper<LibraryEffectBase<Sample>>>;
public:
	// Editor size in logical pixels.
	std::uint32_t webWidth = 500, webHeight = 300;

	// [audio-thread]
	void process(const float *const *inputs, float *const *outputs, std::size_t length) {
		Library::process(inputs, outputs, length);
	}
};

} // namespace quorl::web
