#pragma once
#include "storage/has_state.h"
#include "frame/library_param.h"
#include "frame/range_param_info.h"
#include "frame/stepped_param_info.h"
#include "storage/quorl_storage.h"
#include "web/web_state.h"

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

			// Saved state: the value alone. The page: value, texts, range
			// position and gesture; from the page: a value, a position on the
			// dial (which wins over a value in the same merge), or a gesture.
			template<class Storage>
			void state(Storage &storage) {
				if constexpr (quorl::storage::isSavedState<Storage>) {
					if constexpr (Storage::isWriter) {
						this->visitValue(storage);
					} else {
						const double before = this->value;
						this->visitValue(storage);
						if (this->value != before) {
							storage.changed = true;
							sendUpdateMessage();
						}
					}
				} else if constexpr (Storage::isWriter) {
					this->visitValue(storage);
					storage.extra("$type", "ParamRange");
					if (info) {
						storage.extra("name", info->name);
						double defaultValue = info->defaultValue;
						storage("defaultValue", defaultValue);
						std::string text, textUnits;
						info->toString(this->value, text, textUnits);
						storage.extra("text", text);
						storage.extra("textUnits", textUnits);
					}
					storage("gesture", gesture);
					double rangeUnit = position();
					storage("rangeUnit", rangeUnit);
				} else {
					const double before = this->value;
					const bool gestureBefore = gesture;
					double value = this->value;
					storage("value", value);
					if (value != this->value) this->value = value;
					storage("gesture", gesture);
					const double unit = position();
					double rangeUnit = unit;
					storage("rangeUnit", rangeUnit);
					if (rangeUnit != unit && info) {
						this->value = info->fromPosition(rangeUnit);
						storage.changed = true;
						if (storage.dirty) storage.dirty->whole.insert(storage.currentObject);
					}
					if (this->value != before) {
						storage.changed = true;
						if (storage.dirty) storage.dirty->whole.insert(storage.currentObject);
						if (effect && effect->paramValueChanged) effect->paramValueChanged(context, this->value);
						sendUpdateMessage();
					}
					if (gesture != gestureBefore && effect && effect->paramGestureChanged) {
						effect->paramGestureChanged(context, gesture);
					}
				}
			}

		private:
			double position() const { return info ? info->toPosition(this->value) : this->value; }
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

			// Saved state: the value alone. The page: value, range and label;
			// from the page: a value, not clamped (the page keeps to the range).
			template<class Storage>
			void state(Storage &storage) {
				if constexpr (quorl::storage::isSavedState<Storage>) {
					if constexpr (Storage::isWriter) {
						this->visitValue(storage);
					} else {
						const int before = this->value;
						this->visitValue(storage);
						if (this->value != before) {
							storage.changed = true;
							sendUpdateMessage();
						}
					}
				} else if constexpr (Storage::isWriter) {
					this->visitValue(storage);
					storage.extra("$type", "ParamStepped");
					if (info) {
						int low = info->low, high = info->high;
						storage("low", low);
						storage("high", high);
						storage.extra("name", info->name);
						std::string text = info->toString(this->value);
						storage.extra("text", text);
					}
				} else {
					int value = this->value;
					storage("value", value);
					if (value != this->value) {
						this->value = value;
						storage.changed = true;
						if (storage.dirty) storage.dirty->whole.insert(storage.currentObject);
						if (effect && effect->paramSteppedChanged) effect->paramSteppedChanged(context, value);
						sendUpdateMessage();
					}
				}
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
