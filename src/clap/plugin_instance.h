#pragma once
#include "clap/crc32.h"
#include "clap/plugins.h"
#include "storage/has_state.h"
#include "storage/saved_state_name.h"
#include "web/quorl_html.h"
#include "web/web_ui_library_effect.h"
#include "webview/clap_webview_gui.h"
#include "webview/media_type.h"

#include <clap/clap.h>
#include <clap/ext/draft/webview.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace quorl::detail {
// A wrapper that declares `noteInputId` takes note events: noteStart(offset,
// id, note, strength) and noteEnd(id, offset), and names its note input port
// by `noteInputId` and `noteInputName`.
template<class T, class = void>
struct TakesNotes : std::false_type {};
template<class T>
struct TakesNotes<T, std::void_t<decltype(T::noteInputId)>> : std::true_type {};
} // namespace quorl::detail

namespace quorl::clap {

// One plug-in instance. The `clap_plugin` record comes first, so the pointer
// the host hands back is the instance itself; `plugin_data` stays null.
template<template<class> class Wrapper>
struct Plugin {
	clap_plugin clapPlugin;
	Plugins *plugins;
	const clap_host *host;
	const clap_host_params *hostParams = nullptr;
	const clap_host_latency *hostLatency = nullptr; // fetched, never called: latency changes are not announced
	web::WebUILibraryEffect<float, Wrapper> effect;
	std::string bundleResourcePath;
	bool configured = false;
	// Channel pointers of the block being processed; empty between blocks.
	std::vector<const float *> inputPointers;
	std::vector<float *> outputPointers;
	using Effect = web::WebUILibraryEffect<float, Wrapper>;
	using ParamRange = typename Effect::ParamRange;
	using ParamStepped = typename Effect::ParamStepped;
	static constexpr bool takesNotes = detail::TakesNotes<Effect>::value;

	// One host-visible parameter. The three flags are true when nothing is
	// pending and false when that event is due to the host.
	struct Param {
		clap_param_info info;
		ParamRange *rangeParam = nullptr;
		RangeParamInfo rangeInfo;
		ParamStepped *steppedParam = nullptr;
		SteppedParamInfo steppedInfo;
		std::atomic<bool> valueSent{true}, gestureBeginSent{true}, gestureEndSent{true};

		Param(ParamRange *param) : info(), rangeParam(param), rangeInfo(param->value), steppedInfo(0) {}
		Param(ParamStepped *param) : info(), rangeInfo(0.0), steppedParam(param), steppedInfo(param->value) {}
		// Moves happen only while the list is being built, before any flag is shared.
		Param(Param &&other) noexcept
			: info(other.info), rangeParam(other.rangeParam), rangeInfo(std::move(other.rangeInfo)),
			  steppedParam(other.steppedParam), steppedInfo(std::move(other.steppedInfo)),
			  valueSent(other.valueSent.load()), gestureBeginSent(other.gestureBeginSent.load()),
			  gestureEndSent(other.gestureEndSent.load()) {}

		// The module, the path of group names, is set by the scan.
		void setClapInfo() {
			info.cookie = this;
			if (rangeParam) {
				info.flags = CLAP_PARAM_IS_AUTOMATABLE;
				std::snprintf(info.name, sizeof(info.name), "%s", rangeInfo.name.c_str());
				// The host sees every ranged parameter as a position from 0 to 1.
				info.min_value = 0;
				info.max_value = 1;
				info.default_value = rangeInfo.toPosition(rangeInfo.defaultValue);
			} else {
				info.flags = CLAP_PARAM_IS_AUTOMATABLE | CLAP_PARAM_IS_STEPPED;
				std::snprintf(info.name, sizeof(info.name), "%s", steppedInfo.name.c_str());
				info.min_value = steppedInfo.low;
				info.max_value = steppedInfo.high;
				info.default_value = steppedInfo.defaultValue;
			}
			valueSent = gestureBeginSent = gestureEndSent = true;
		}

		// What the host sees: the position of a ranged value, a stepped value as it is.
		double hostValue() const {
			return rangeParam ? rangeInfo.toPosition(rangeParam->value) : double(steppedParam->value);
		}
	};

	// Walks state() to make the host-visible list. Ids are the CRC-32 of the
	// keys on the path, so they depend on keys alone, never on the order.
	// Hosts list a parameter under its module: the display names of the
	// groups above it ("Engine", "Output gains/..."), so that two parameters
	// of one name in different groups stay apart.
	struct ParamScanner {
		std::vector<Param> &params;
		Crc32 crc;
		std::string &rootName; // the root's display name, as saved states carry it
		std::string module;
		int depth = 0;

		template<class V>
		void operator()(const char *key, V &group) {
			if constexpr (detail::HasState<V, ParamScanner>::value) {
				const Crc32 outer = crc;
				const std::size_t outerModule = module.size();
				crc.addString(key, true);
				++depth;
				group.state(*this);
				--depth;
				crc = outer;
				module.resize(outerModule);
			}
		}
		RangeParamInfo &range(const char *key, ParamRange &param) {
			Param &p = add(key, &param);
			return p.rangeInfo;
		}
		SteppedParamInfo &stepped(const char *key, ParamStepped &param) {
			Param &p = add(key, &param);
			return p.steppedInfo;
		}
		template<class V>
		void extra(const char *key, V &&value) {
			if constexpr (std::is_convertible_v<V, std::string_view>) {
				if (std::strcmp(key, "name") != 0) return;
				if (depth == 0) {
					rootName = std::string_view(value);
				} else {
					if (!module.empty()) module += '/';
					module += std::string_view(value);
				}
			}
		}

	private:
		template<class P>
		Param &add(const char *key, P *param) {
			Crc32 leaf = crc;
			leaf.addString(key, true);
			params.emplace_back(param);
			Param &added = params.back();
			added.info.id = ~leaf.value;
			std::snprintf(added.info.module, sizeof(added.info.module), "%s", module.c_str());
			param->context = params.size() - 1;
			return added;
		}
	};

	std::vector<Param> params;
	std::string stateName; // the "name" that this effect's saved states carry
	std::vector<unsigned char> stateBuffer; // reused by state save and load
	webview_gui::ClapWebviewGui webviewGui; // the editor: last, so it goes first

	Plugin(Plugins *plugins, const clap_host *host) : plugins(plugins), host(host), webviewGui(&clapPlugin, host) {}

	void scanParams() {
		params.clear();
		ParamScanner scanner{params, Crc32{}, stateName, {}, 0};
		effect.state(scanner);
		for (auto &param : params) param.setClapInfo();

		// Page edits: the value is already written; the host is told through
		// the flags, at its next flush or block.
		effect.paramValueChanged = [this](web::ParamContext context, double) { valueEdited(context); };
		effect.paramSteppedChanged = [this](web::ParamContext context, int) { valueEdited(context); };
		effect.paramGestureChanged = [this](web::ParamContext context, bool begin) {
			(begin ? params[context].gestureBeginSent : params[context].gestureEndSent) = false;
			if (hostParams) hostParams->request_flush(host);
		};
	}

	void valueEdited(web::ParamContext context) {
		params[context].valueSent = false;
		if (hostParams) hostParams->request_flush(host);
	}

	Param *findParam(clap_id id) {
		for (auto &param : params) {
			if (param.info.id == id) return &param;
		}
		return nullptr;
	}

	static const clap_plugin *create(Plugins *plugins, std::size_t index, const clap_host *host) {
		auto *instance = new Plugin(plugins, host);
		instance->bundleResourcePath = plugins->bundleResourcePath;
		instance->clapPlugin = {
			&plugins->descriptors[index],
			nullptr,
			plugin_init,
			plugin_destroy,
			plugin_activate,
			plugin_deactivate,
			plugin_start_processing,
			plugin_stop_processing,
			plugin_reset,
			plugin_process,
			plugin_get_extension,
			plugin_on_main_thread,
		};
		instance->scanParams();
		return &instance->clapPlugin;
	}

	static Plugin *self(const clap_plugin *plugin) {
		return reinterpret_cast<Plugin *>(const_cast<clap_plugin *>(plugin));
	}

	// Configures the effect if it isn't yet, trying a second time with the
	// config that the first attempt proposed.
	bool ensureConfigured() {
		if (!configured) configured = effect.configure() || effect.configure();
		return configured;
	}

	// ---- clap_plugin ----

	// [main-thread]
	static bool plugin_init(const clap_plugin *plugin) {
		auto *p = self(plugin);
		p->hostParams = static_cast<const clap_host_params *>(p->host->get_extension(p->host, CLAP_EXT_PARAMS));
		p->hostLatency = static_cast<const clap_host_latency *>(p->host->get_extension(p->host, CLAP_EXT_LATENCY));
		p->webviewGui.findExtensions();
		p->webviewGui.width = p->effect.webWidth;
		p->webviewGui.height = p->effect.webHeight;
		if (p->webviewGui.webview) p->webviewGui.webview->setSize(p->webviewGui.width, p->webviewGui.height);
		return true;
	}

	// [main-thread & !active]
	static void plugin_destroy(const clap_plugin *plugin) {
		if (plugin) delete self(plugin);
	}

	// [main-thread & !active] Rebuilds the effect on a new rate or a block size
	// at least as large as the running one (equal counts too); a smaller block
	// size keeps the running effect.
	static bool plugin_activate(const clap_plugin *plugin, double sampleRate, std::uint32_t, std::uint32_t maxFrames) {
		auto *p = self(plugin);
		auto &config = p->effect.config;
		if (!p->configured || sampleRate != config.sampleRate || config.maxBlockSize <= maxFrames) {
			config.sampleRate = sampleRate;
			config.maxBlockSize = maxFrames;
			const LibraryConfig asked = config;
			p->configured = p->effect.configure();
			if (!p->configured) {
				config = asked;
				config.maxBlockSize = maxFrames;
			}
		}
		std::size_t inputs = config.inputChannels, outputs = config.outputChannels;
		for (auto channels : config.auxInputs) inputs += channels;
		p->inputPointers.reserve(inputs);
		p->outputPointers.reserve(outputs);
		return p->configured;
	}

	static void plugin_deactivate(const clap_plugin *) {}

	// [audio-thread]
	static bool plugin_start_processing(const clap_plugin *plugin) { return self(plugin)->configured; }
	static void plugin_stop_processing(const clap_plugin *) {}

	// [audio-thread] Parameters keep their values; the effect forgets its history.
	static void plugin_reset(const clap_plugin *plugin) {
		auto *p = self(plugin);
		if (!p->configured) return;
		p->effect.restartParams();
		p->effect.reset();
		p->effect.firstBlock = true;
	}

	// [audio-thread] Cuts the block at every event that isn't a note event, so
	// that audio before an event's time runs with the old values. Note events
	// go to an effect that takes them, timed from the chunk that follows.
	static clap_process_status plugin_process(const clap_plugin *plugin, const clap_process *process) {
		auto *p = self(plugin);
		for (std::uint32_t port = 0; port < process->audio_inputs_count; ++port) {
			const auto &buffer = process->audio_inputs[port];
			for (std::uint32_t c = 0; c < buffer.channel_count; ++c) p->inputPointers.push_back(buffer.data32[c]);
		}
		for (std::uint32_t port = 0; port < process->audio_outputs_count; ++port) {
			const auto &buffer = process->audio_outputs[port];
			for (std::uint32_t c = 0; c < buffer.channel_count; ++c) p->outputPointers.push_back(buffer.data32[c]);
		}

		const std::uint32_t frames = process->frames_count;
		const std::uint32_t eventCount = process->in_events->size(process->in_events);
		if (frames > 0) {
			std::uint32_t start = 0, eventIndex = 0;
			while (start < frames) {
				const clap_event_header *event = nullptr;
				std::uint32_t end = frames;
				if (eventIndex < eventCount) {
					event = process->in_events->get(process->in_events, eventIndex++);
					if (isNoteEvent(event)) {
						if constexpr (takesNotes) p->takeNote(event, start);
						continue;
					}
					end = event->time > start ? event->time : start; // not clamped to the block
				}
				if (end > start) {
					const std::uint32_t length = end - start;
					p->effect.process(p->inputPointers.data(), p->outputPointers.data(), length);
					for (auto &pointer : p->inputPointers) pointer += length;
					for (auto &pointer : p->outputPointers) pointer += length;
					start = end;
				}
				if (event) p->processEvent(event);
			}
		}
		p->inputPointers.clear();
		p->outputPointers.clear();

		if (p->effect.messageWaiting()) p->host->request_callback(p->host);
		p->sendParamEvents(process->out_events);
		return CLAP_PROCESS_CONTINUE;
	}

	// [thread-safe]
	static const void *plugin_get_extension(const clap_plugin *plugin, const char *id) {
		if (!id) return nullptr;
		if (!std::strcmp(id, CLAP_EXT_PARAMS)) return &paramsExtension;
		if (!std::strcmp(id, CLAP_EXT_AUDIO_PORTS)) return &audioPortsExtension;
		if (!std::strcmp(id, CLAP_EXT_NOTE_PORTS)) return &notePortsExtension;
		if (!std::strcmp(id, CLAP_EXT_STATE)) return &stateExtension;
		if (!std::strcmp(id, CLAP_EXT_LATENCY)) return &latencyExtension;
		if (!std::strcmp(id, CLAP_EXT_WEBVIEW)) return &webviewExtension;
		if (!std::strcmp(id, CLAP_EXT_GUI)) return self(plugin)->webviewGui.clapGui;
		// The editor's web view pumps its events from these (X11).
		if (!std::strcmp(id, CLAP_EXT_TIMER_SUPPORT)) return &webview_gui::ClapWebviewGui::timerSupportTable;
		if (!std::strcmp(id, CLAP_EXT_POSIX_FD_SUPPORT)) return &webview_gui::ClapWebviewGui::posixFdSupportTable;
		return nullptr;
	}

	// [main-thread]
	static void plugin_on_main_thread(const clap_plugin *plugin) { self(plugin)->sendWebMessages(); }

	// [main-thread] Hands every queued message to whoever shows the page;
	// with nobody, they are dropped.
	void sendWebMessages() {
		effect.drainMessages([this](const std::vector<unsigned char> &bytes) {
			webviewGui.send(bytes.data(), std::uint32_t(bytes.size()));
		});
	}

	// ---- events ----

	static bool isNoteEvent(const clap_event_header *event) {
		if (event->space_id != CLAP_CORE_EVENT_SPACE_ID) return false;
		switch (event->type) {
		case CLAP_EVENT_NOTE_ON:
		case CLAP_EVENT_NOTE_OFF:
		case CLAP_EVENT_NOTE_CHOKE:
		case CLAP_EVENT_NOTE_EXPRESSION:
		case CLAP_EVENT_MIDI:
			return true;
		default:
			return false;
		}
	}

	// [audio-thread] Hands a note event to an effect that takes notes, its time
	// counted from `start`, where the coming chunk begins. A note without an id
	// is known by key and channel, as raw MIDI notes are. A MIDI note-on of
	// velocity 0 starts a note like any other; expressions are not used.
	void takeNote(const clap_event_header *header, std::uint32_t start) {
		const std::uint64_t offset = header->time > start ? header->time - start : 0;
		if (header->type == CLAP_EVENT_MIDI) {
			const auto *midi = reinterpret_cast<const clap_event_midi *>(header);
			const int status = midi->data[0] & 0xF0, channel = midi->data[0] & 0x0F;
			const std::int64_t id = -1 - std::int64_t(midi->data[1]) - channel * 128;
			if (status == 0x90) effect.noteStart(offset, id, float(midi->data[1]), float(midi->data[2]) * 0.007874016f);
			if (status == 0x80) effect.noteEnd(id, std::int64_t(offset));
			return;
		}
		if (header->type != CLAP_EVENT_NOTE_ON && header->type != CLAP_EVENT_NOTE_OFF
			&& header->type != CLAP_EVENT_NOTE_CHOKE) {
			return;
		}
		const auto *note = reinterpret_cast<const clap_event_note *>(header);
		const std::int64_t id = note->note_id >= 0 ? std::int64_t(note->note_id)
			: -1 - std::int64_t(note->key) - std::int64_t(note->channel) * 128;
		if (header->type == CLAP_EVENT_NOTE_ON) {
			effect.noteStart(offset, id, float(note->key), float(note->velocity));
		} else {
			effect.noteEnd(id, std::int64_t(offset));
		}
	}

	// Applies one host event. Other events (transport, modulation, gestures)
	// are passed over in silence: this runs on the audio thread. Values are not
	// clamped, and a value from the host is not echoed back to it.
	void processEvent(const clap_event_header *header) {
		if (header->space_id != CLAP_CORE_EVENT_SPACE_ID || header->type != CLAP_EVENT_PARAM_VALUE) return;
		const auto *event = reinterpret_cast<const clap_event_param_value *>(header);
		Param *param = static_cast<Param *>(event->cookie);
		if (param) {
			if (param->info.id != event->param_id) return;
		} else if (!(param = findParam(event->param_id))) {
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
	void sendParamEvents(const clap_output_events *out) {
		for (auto &param : params) {
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

	// ---- clap.params ----

	static std::uint32_t params_count(const clap_plugin *plugin) { return std::uint32_t(self(plugin)->params.size()); }

	static bool params_get_info(const clap_plugin *plugin, std::uint32_t index, clap_param_info *info) {
		auto *p = self(plugin);
		if (index >= p->params.size()) return false;
		*info = p->params[index].info;
		return true;
	}

	// A host that has just read the value needs no event for it.
	static bool params_get_value(const clap_plugin *plugin, clap_id id, double *value) {
		Param *param = self(plugin)->findParam(id);
		if (!param) return false;
		*value = param->hostValue();
		param->valueSent = true;
		return true;
	}

	// Copies at most `size` bytes, as a bounded copy does: a text that fills
	// them has no terminator.
	static bool params_value_to_text(const clap_plugin *plugin, clap_id id, double value, char *text, std::uint32_t size) {
		Param *param = self(plugin)->findParam(id);
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
		Param *param = self(plugin)->findParam(id);
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
		auto *p = self(plugin);
		if (in) {
			const std::uint32_t count = in->size(in);
			for (std::uint32_t i = 0; i < count; ++i) {
				if (const auto *event = in->get(in, i)) p->processEvent(event);
			}
		}
		if (out) p->sendParamEvents(out);
	}

	static constexpr clap_plugin_params paramsExtension{
		params_count, params_get_info, params_get_value, params_value_to_text, params_text_to_value, params_flush};

	// ---- clap.audio-ports ----

	static std::uint32_t audio_ports_count(const clap_plugin *plugin, bool isInput) {
		auto *p = self(plugin);
		if (!p->ensureConfigured()) return 0;
		const auto &config = p->effect.config;
		if (isInput) return std::uint32_t(config.auxInputs.size() + (config.inputChannels ? 1 : 0));
		return std::uint32_t(config.auxOutputs.size() + (config.outputChannels ? 1 : 0));
	}

	static bool audio_ports_get(const clap_plugin *plugin, std::uint32_t index, bool isInput, clap_audio_port_info *info) {
		auto *p = self(plugin);
		if (!p->configured) return false;
		const auto &config = p->effect.config;
		const std::size_t channels = isInput ? config.inputChannels : config.outputChannels;
		const auto &aux = isInput ? config.auxInputs : config.auxOutputs;
		const clap_id base = isInput ? 0x1000000 : 0x2000000;

		std::memset(info, 0, sizeof(*info));
		info->flags = CLAP_AUDIO_PORT_IS_MAIN;
		info->channel_count = std::uint32_t(channels);
		info->port_type = nullptr;
		info->in_place_pair = CLAP_INVALID_ID;
		if (channels && index == 0) {
			info->id = base;
			std::snprintf(info->name, sizeof(info->name), "main");
			return true;
		}
		const std::size_t auxIndex = channels ? index - 1 : index;
		if (auxIndex >= aux.size()) return false;
		info->id = base + index;
		if (aux.size() >= 2) {
			std::snprintf(info->name, sizeof(info->name), "aux%c", char('1' + auxIndex));
		} else {
			std::snprintf(info->name, sizeof(info->name), "aux");
		}
		return true;
	}

	static constexpr clap_plugin_audio_ports audioPortsExtension{audio_ports_count, audio_ports_get};

	// ---- clap.state ----

	// [main-thread] The effect's parameters as one CBOR map.
	static bool state_save(const clap_plugin *plugin, const clap_ostream *stream) {
		auto *p = self(plugin);
		p->effect.saveState(p->stateBuffer);
		std::size_t written = 0;
		while (written < p->stateBuffer.size()) {
			const std::int64_t n = stream->write(stream, p->stateBuffer.data() + written, p->stateBuffer.size() - written);
			if (n <= 0) break;
			written += std::size_t(n);
		}
		return written == p->stateBuffer.size();
	}

	// [main-thread] False, changing nothing, for bytes that are no saved state
	// of this plug-in: empty, not a map, or another plug-in's (by its "name").
	// Otherwise what the bytes hold is read as far as it makes sense, the rest
	// keeps its values, and the host is asked to read the values again.
	static bool state_load(const clap_plugin *plugin, const clap_istream *stream) {
		auto *p = self(plugin);
		if (!fillFromStream(stream, p->stateBuffer)) return false;
		if (!::quorl::storage::isSavedStateOf(p->stateBuffer, p->stateName)) return false;
		p->effect.loadState(p->stateBuffer);
		p->sendWebMessages();
		if (p->hostParams) p->hostParams->rescan(p->host, CLAP_PARAM_RESCAN_VALUES);
		return true;
	}

	// Reads a whole stream, in reads that grow with the buffer; only a read of
	// 0 ends it. A failed read empties the buffer.
	static bool fillFromStream(const clap_istream *stream, std::vector<unsigned char> &buffer) {
		buffer.clear();
		std::size_t filled = 0, chunk = 1024;
		while (true) {
			buffer.resize(filled + chunk);
			const std::int64_t n = stream->read(stream, buffer.data() + filled, chunk);
			if (n < 0 || std::uint64_t(n) > chunk) {
				buffer.clear();
				return false;
			}
			filled += std::size_t(n);
			chunk = buffer.size();
			if (n == 0) break;
		}
		buffer.resize(filled);
		return true;
	}

	static constexpr clap_plugin_state stateExtension{state_save, state_load};

	// ---- clap.webview/3 ----

	// The page's address, relative: whoever shows it resolves it against a
	// base of its own. Copied as a bounded copy, so a short buffer gets no
	// terminator; the result is always the full length.
	static std::int32_t webview_get_uri(const clap_plugin *, char *uri, std::uint32_t capacity) {
		static const char page[] = "/index.html";
		if (uri && capacity) std::strncpy(uri, page, capacity);
		return std::int32_t(sizeof(page) - 1);
	}

	// [any thread] One of the page's files, from the program itself.
	static bool webview_get_resource(const clap_plugin *, const char *path, char *mediaType, std::uint32_t capacity,
		const clap_ostream *stream) {
		if (!path) return false;
		const std::string type = webview_gui::helpers::guessMediaType(path);
		if (mediaType && capacity) std::strncpy(mediaType, type.c_str(), capacity);
		const QuorlHtml::File file = QuorlHtml::get(path);
		if (!file.data || !stream) return false;
		std::size_t written = 0;
		while (written < file.size) {
			const std::int64_t n = stream->write(stream, file.data + written, file.size - written);
			if (n <= 0) break;
			written += std::size_t(n);
		}
		return written == file.size;
	}

	// [main-thread] A message from the page; replies go out at once.
	static bool webview_receive(const clap_plugin *plugin, const void *bytes, std::uint32_t length) {
		auto *p = self(plugin);
		if (bytes || length == 0) p->effect.webReceive(bytes, length);
		p->sendWebMessages();
		return true;
	}

	static constexpr clap_plugin_webview webviewExtension{webview_get_uri, webview_get_resource, webview_receive};

	// ---- clap.note-ports ----

	// No note ports, except one input for an effect that takes notes.
	static std::uint32_t note_ports_count(const clap_plugin *, bool isInput) { return takesNotes && isInput ? 1 : 0; }
	static bool note_ports_get(const clap_plugin *, std::uint32_t index, bool isInput, clap_note_port_info *info) {
		if constexpr (takesNotes) {
			if (isInput && index == 0 && info) {
				info->id = Effect::noteInputId;
				info->supported_dialects = CLAP_NOTE_DIALECT_CLAP | CLAP_NOTE_DIALECT_MIDI | CLAP_NOTE_DIALECT_MIDI_MPE;
				info->preferred_dialect = CLAP_NOTE_DIALECT_CLAP;
				std::snprintf(info->name, sizeof(info->name), "%s", Effect::noteInputName);
				return true;
			}
		}
		return false;
	}
	static constexpr clap_plugin_note_ports notePortsExtension{note_ports_count, note_ports_get};

	// ---- clap.latency ----

	// Read live from the running engine: a latency setting rebuilds the engine
	// at the next block and the host sees the new figure when it asks again.
	static std::uint32_t latency_get(const clap_plugin *plugin) {
		return std::uint32_t(self(plugin)->effect.latencySamples());
	}
	static constexpr clap_plugin_latency latencyExtension{latency_get};
};

} // namespace quorl::clap
