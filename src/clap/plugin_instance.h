#pragma once
#include "clap/audio_ports_extension.h"
#include "clap/block_cutting.h"
#include "clap/note_events.h"
#include "clap/params_extension.h"
#include "clap/plugin_param.h"
#include "clap/plugins.h"
#include "clap/state_extension.h"
#include "clap/webview_extension.h"
#include "web/web_ui_library_effect.h"
#include "webview/clap_webview_gui.h"

#include <clap/clap.h>
#include <clap/ext/draft/webview.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

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
	using Effect = web::WebUILibraryEffect<float, Wrapper>;
	Effect effect;
	std::string bundleResourcePath;
	bool configured = false;
	// Channel pointers of the block being processed; empty between blocks.
	std::vector<const float *> inputPointers;
	std::vector<float *> outputPointers;

	using Param = PluginParam<Effect>;
	using ParamScanner = PluginParamScanner<Effect>;
	using Params = ParamsExtension<Plugin>;

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

		cutBlock(
			process,
			[p](std::uint32_t length) {
				p->effect.process(p->inputPointers.data(), p->outputPointers.data(), length);
				for (auto &pointer : p->inputPointers) pointer += length;
				for (auto &pointer : p->outputPointers) pointer += length;
			},
			[p](const clap_event_header *note, std::uint32_t start) { takeNote(p->effect, note, start); },
			[p](const clap_event_header *event) { Params::apply(p, event); });
		p->inputPointers.clear();
		p->outputPointers.clear();

		if (p->effect.ring.messageWaiting()) p->host->request_callback(p->host);
		Params::sendEvents(p, process->out_events);
		return CLAP_PROCESS_CONTINUE;
	}

	// [thread-safe]
	static const void *plugin_get_extension(const clap_plugin *plugin, const char *id) {
		if (!id) return nullptr;
		if (!std::strcmp(id, CLAP_EXT_PARAMS)) return &Params::table;
		if (!std::strcmp(id, CLAP_EXT_AUDIO_PORTS)) return &AudioPortsExtension<Plugin>::table;
		if (!std::strcmp(id, CLAP_EXT_NOTE_PORTS)) return &NotePortsExtension<Effect>::table;
		if (!std::strcmp(id, CLAP_EXT_STATE)) return &StateExtension<Plugin>::table;
		if (!std::strcmp(id, CLAP_EXT_LATENCY)) return &latencyExtension;
		if (!std::strcmp(id, CLAP_EXT_WEBVIEW)) return &WebviewExtension<Plugin>::table;
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

	// ---- clap.latency ----

	// Read live from the running engine: a latency setting rebuilds the engine
	// at the next block and the host sees the new figure when it asks again.
	static std::uint32_t latency_get(const clap_plugin *plugin) {
		return std::uint32_t(self(plugin)->effect.latencySamples());
	}
	static constexpr clap_plugin_latency latencyExtension{latency_get};
};

} // namespace quorl::clap
