#pragma once
#include "frame/library_effect.h"
#include "frame/library_effect_base.h"
#include "web/web_ui_helper.h"

#include <cstdint>
#include <functional>

namespace quorl::web {

template<class Sample, template<class> class Wrapper>
class WebUILibraryEffect;

// The wrapper as the web effect instantiates it: over the web-aware base.
template<class Sample, template<class> class Wrapper>
using WebQUORL = Wrapper<typename WebUIHelper<Wrapper, WebUILibraryEffect<Sample, Wrapper>>::template WebBase<
	LibraryEffectBase<Sample>>>;

// The top of an effect's class stack: the library effect with the link to the
// editor page. `Wrapper` is the effect's wrapper template (e.g. SwellQUORL).
template<class Sample, template<class> class Wrapper>
class WebUILibraryEffect : public LibraryEffect<Sample, WebQUORL<Sample, Wrapper>> {
	using Library = LibraryEffect<Sample, WebQUORL<Sample, Wrapper>>;
	using Helper = WebUIHelper<Wrapper, WebUILibraryEffect>;
	using Base = typename Helper::template WebBase<LibraryEffectBase<Sample>>;

public:
	using ParamRange = typename Base::ParamRange;
	using ParamStepped = typename Base::ParamStepped;

	// Editor size in logical pixels.
	std::uint32_t webWidth = 500, webHeight = 300;

	// The road from the page to the host (set by the CLAP layer): a page edit
	// of a value or a gesture.
	std::function<void(ParamContext, double)> paramValueChanged;
	std::function<void(ParamContext, bool)> paramGestureChanged;
	std::function<void(ParamContext, int)> paramSteppedChanged;

	WebUILibraryEffect() {
		typename Base::WebParamScanner scanner{this, {}};
		this->state(scanner);
	}

	// [audio-thread]
	void process(const float *const *inputs, float *const *outputs, std::size_t length) {
		Library::process(inputs, outputs, length);
	}

	// Queues an update of one parameter to the page.
	template<class Param>
	void sendParamUpdate(Param &) {}
};

} // namespace quorl::web
