#pragma once
#include "frame/range_param_info.h"

#include <clap/clap.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>

namespace quorl::clap {

// "clap.params" of a `Plugin`: the host's queries over its `params`, the
// host's value events applied to the effect, and the page's edits sent back
// to the host as events.
template<class Plugin>
struct ParamsExtension {
	using Param = typename Plugin::Param;

	static Param *find(Plugin *p, clap_id id) {
		for (auto &param : p->params) {
			if (param.info.id == id) return &param;
		}
		return nullptr;
	}

	// Applies one host event. Other events (transport, modulation, gestures)
	// are passed over in silence: this runs on the audio thread. Values are not
	// clamped, and a value from the host is not echoed back to it.
	static void apply(Plugin *p, const clap_event_header *header) {
		if (header->space_id != CLAP_CORE_EVENT_SPACE_ID || header->type != CLAP_EVENT_PARAM_VALUE) return;
		const auto *event = reinterpret_cast<const clap_event_param_value *>(header);
		Param *param = static_cast<Param *>(event->cookie);
		if (param) {
			if (param->info.id != event->param_id) return;
		} else if (!(param = find(p, event->param_id))) {
			return;
		}
		if (param->steppedParam) {
			const int value = int(std::round(event->value));
			if (value != param->steppedParam->value) {
				param->steppedParam->value = value;
				param->steppedParam->sendUpdateMessage();
			}
		} else {
			const double value = param->rangeInfo.fromPosition(event->value);
			if (value != param->rangeParam->value) {
				param->rangeParam->value = value;
				param->rangeParam->sendUpdateMessage();
			}
		}
	}

	// Tells the host of page edits: gesture begin, value, gesture end for each
	// parameter that has them pending. A value that can't be pushed stays due,
	// and so does the gesture end behind it.
	static void sendEvents(Plugin *p, const clap_output_events *out) {
		for (auto &param : p->params) {
			const clap_id id = param.info.id;
			if (!param.gestureBeginSent.exchange(true)) pushGesture(out, id, CLAP_EVENT_PARAM_GESTURE_BEGIN);
			if (!param.valueSent.exchange(true)) {
				clap_event_param_value event{};
				event.header = {sizeof(event), 0, CLAP_CORE_EVENT_SPACE_ID, CLAP_EVENT_PARAM_VALUE, 0};
				event.param_id = id;
				event.cookie = param.info.cookie;
				event.note_id = -1;
				event.port_index = -1;
				event.channel = -1;
				event.key = -1;
				event.value = param.hostValue();
				if (!out->try_push(out, &event.header)) {
					param.valueSent = false;
					continue;
				}
			}
			if (!param.gestureEndSent.exchange(true)) pushGesture(out, id, CLAP_EVENT_PARAM_GESTURE_END);
		}
	}

	static void pushGesture(const clap_output_events *out, clap_id id, std::uint16_t type) {
		clap_event_param_gesture event{};
		event.header = {sizeof(event), 0, CLAP_CORE_EVENT_SPACE_ID, type, 0};
		event.param_id = id;
		out->try_push(out, &event.header);
	}

	static std::uint32_t params_count(const clap_plugin *plugin) { return std::uint32_t(Plugin::self(plugin)->params.size()); }

	static bool params_get_info(const clap_plugin *plugin, std::uint32_t index, clap_param_info *info) {
		auto *p = Plugin::self(plugin);
		if (index >= p->params.size()) return false;
		*info = p->params[index].info;
		return true;
	}

	// A host that has just read the value needs no event for it.
	static bool params_get_value(const clap_plugin *plugin, clap_id id, double *value) {
		Param *param = find(Plugin::self(plugin), id);
		if (!param) return false;
		*value = param->hostValue();
		param->valueSent = true;
		return true;
	}

	// Copies at most `size` bytes, as a bounded copy does: a text that fills
	// them has no terminator.
	static bool params_value_to_text(const clap_plugin *plugin, clap_id id, double value, char *text, std::uint32_t size) {
		Param *param = find(Plugin::self(plugin), id);
		if (!param || !text) return false;
		const std::string shown = param->steppedParam ? param->steppedInfo.toString(int(std::round(value)))
			: param->rangeInfo.toString(param->rangeInfo.fromPosition(value));
		std::strncpy(text, shown.c_str(), size);
		return true;
	}

	// What a user types: a number, alone or with one of the parameter's units,
	// or a stepped parameter's label; anything else is refused and leaves
	// `value` as it was. The result lies within the info's range.
	static bool params_text_to_value(const clap_plugin *plugin, clap_id id, const char *text, double *value) {
		Param *param = find(Plugin::self(plugin), id);
		if (!param || !text || !value) return false;
		double result = 0;
		if (param->steppedParam) {
			int stepped = 0;
			if (!param->steppedInfo.readText(text, stepped)) return false;
			result = stepped;
		} else {
			double typed = 0;
			const RangeParamInfo &range = param->rangeInfo;
			if (!range.readText(text, typed)) return false;
			// Clamped as a value: beyond its ends the position map may fold back.
			const double lowest = std::min(range.low, range.high), highest = std::max(range.low, range.high);
			if (typed <= lowest || typed >= highest) {
				result = (typed <= lowest) == (range.low <= range.high) ? param->info.min_value : param->info.max_value;
			} else {
				result = range.toPosition(typed);
				if (!std::isfinite(result)) return false;
			}
		}
		*value = std::clamp(result, param->info.min_value, param->info.max_value);
		return true;
	}

	static void params_flush(const clap_plugin *plugin, const clap_input_events *in, const clap_output_events *out) {
		auto *p = Plugin::self(plugin);
		if (in) {
			const std::uint32_t count = in->size(in);
			for (std::uint32_t i = 0; i < count; ++i) {
				if (const auto *event = in->get(in, i)) apply(p, event);
			}
		}
		if (out) sendEvents(p, out);
	}

	static constexpr clap_plugin_params table{
		params_count, params_get_info, params_get_value, params_value_to_text, params_text_to_value, params_flush};
};

} // namespace quorl::clap
