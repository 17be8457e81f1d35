#pragma once
#include <clap/clap.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace quorl::clap {

// "clap.audio-ports" of a `Plugin`: a main port for the main channels, then
// one port for each auxiliary bus, as the effect's configuration has them.
template<class Plugin>
struct AudioPortsExtension {
	static std::uint32_t audio_ports_count(const clap_plugin *plugin, bool isInput) {
		auto *p = Plugin::self(plugin);
		if (!p->ensureConfigured()) return 0;
		const auto &config = p->effect.config;
		if (isInput) return std::uint32_t(config.auxInputs.size() + (config.inputChannels ? 1 : 0));
		return std::uint32_t(config.auxOutputs.size() + (config.outputChannels ? 1 : 0));
	}

	static bool audio_ports_get(const clap_plugin *plugin, std::uint32_t index, bool isInput, clap_audio_port_info *info) {
		auto *p = Plugin::self(plugin);
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

	static constexpr clap_plugin_audio_ports table{audio_ports_count, audio_ports_get};
};

} // namespace quorl::clap
