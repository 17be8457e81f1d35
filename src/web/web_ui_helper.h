#pragma once
#include "frame/has_state.h"
#include "frame/library_param.h"
#include "frame/range_param_info.h"
#include "frame/stepped_param_info.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace quorl::web {

// What the CLAP layer hands a parameter so that a page edit can find its way
// back: the parameter's index in the host-visible list.
using ParamContext = std::size_t;

// Parameter types that can show themselves to the page. `Effect` is the
// WebUILibraryEffect at the top of the class stack.
template<template<class> class Wrapper, class Effect>
struct WebUIHelper {
	template<class Base>
	struct WebBase : Base {
		struct ParamRange : LibraryParam<double> {
			ParamContext context = 0;
			Effect *effect = nullptr; // set by the scanner; until then nothing is sent
			std::vector<std::string> path; // keys from the root, this parameter's own last
			std::unique_ptr<RangeParamInfo> info;
			bool gesture = false; // the page holds this parameter now

			ParamRange(double initial = 0) : LibraryParam<double>(initial) {}
			ParamRange &operator=(double v) {
				this->value = v;
				return *this;
			}

			// Queues an update of this parameter to the page.
			void sendUpdateMessage() {
				if (effect) effect->sendParamUpdate(*this);
			}
		};

		struct ParamStepped : LibraryParam<int> {
			ParamContext context = 0;
			Effect *effect = nullptr;
			std::vector<std::string> path;
			std::unique_ptr<SteppedParamInfo> info;

			ParamStepped(int initial = 0) : LibraryParam<int>(initial) {}
			ParamStepped &operator=(int v) {
				this->value = v;
				return *this;
			}

			void sendUpdateMessage() {
				if (effect) effect->sendParamUpdate(*this);
			}
		};

		// Tells each parameter where it stands in the object tree and gives it
		// its description.
		struct WebParamScanner {
			Effect *effect;
			std::vector<std::string> keys;

			template<class V>
			void operator()(const char *key, V &value) {
				if constexpr (detail::HasState<V, WebParamScanner>::value) {
					keys.emplace_back(key);
					value.state(*this);
					keys.pop_back();
				}
			}
			RangeParamInfo &range(const char *key, ParamRange &param) {
				param.effect = effect;
				param.path = keys;
				param.path.emplace_back(key);
				param.info = std::make_unique<RangeParamInfo>(param.value);
				return *param.info;
			}
			SteppedParamInfo &stepped(const char *key, ParamStepped &param) {
				param.effect = effect;
				param.path = keys;
				param.path.emplace_back(key);
				param.info = std::make_unique<SteppedParamInfo>(param.value);
				return *param.info;
			}
			template<class V>
			void extra(const char *, V &&) {}
		};
	};
};

} // namespace quorl::web
