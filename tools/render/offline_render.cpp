#include "render/offline_render.h"

#include <clap/clap.h>

#include <algorithm>
#include <chrono>

namespace lumbrel::render {

namespace {

std::uint32_t mainChannels(const host::Instance &instance, bool isInput, std::uint32_t fallback) {
	const auto *ports = instance.extension<clap_plugin_audio_ports>(CLAP_EXT_AUDIO_PORTS);
	if (!ports || ports->count(instance.clapPlugin(), isInput) == 0) return fallback;
	clap_audio_port_info info{};
	if (!ports->get(instance.clapPlugin(), 0, isInput, &info)) return fallback;
	return info.channel_count;
}

} // namespace

bool renderOffline(host::Instance &instance, const Audio &input, Audio &output, const RenderOptions &options,
	RenderReport &report, std::string &error) {
	const std::uint32_t inChannels = mainChannels(instance, true, 2);
	const std::uint32_t outChannels = mainChannels(instance, false, 2);
	if (!instance.activate(input.sampleRate, 1, options.blockSize)) {
		error = std::string(instance.clapPlugin()->desc->id) + " refused to activate at "
			+ std::to_string(int(input.sampleRate)) + " Hz";
		return false;
	}
	if (!instance.startProcessing()) {
		error = std::string(instance.clapPlugin()->desc->id) + " refused to start processing";
		return false;
	}
	report.latencySamples = instance.latency();
	const std::size_t frames = input.frames();
	const std::size_t skip = options.compensate ? report.latencySamples : 0;
	const std::size_t total = frames + skip;

	std::vector<std::vector<float>> inBlock(inChannels, std::vector<float>(options.blockSize));
	std::vector<std::vector<float>> outBlock(outChannels, std::vector<float>(options.blockSize));
	std::vector<float *> inPointers(inChannels), outPointers(outChannels);
	for (std::uint32_t c = 0; c < inChannels; ++c) inPointers[c] = inBlock[c].data();
	for (std::uint32_t c = 0; c < outChannels; ++c) outPointers[c] = outBlock[c].data();

	const std::size_t channels = input.channels.size();
	output.sampleRate = input.sampleRate;
	output.channels.assign(channels, std::vector<float>(frames, 0.0f));
	host::InputEvents events;
	host::OutputEvents outEvents;
	using Clock = std::chrono::steady_clock;
	Clock::duration busy{};

	for (std::size_t start = 0; start < total; start += options.blockSize) {
		const auto n = std::uint32_t(std::min<std::size_t>(options.blockSize, total - start));
		for (std::uint32_t c = 0; c < inChannels; ++c) {
			const auto &source = input.channels[channels == 1 ? 0 : std::min<std::size_t>(c, channels - 1)];
			for (std::uint32_t i = 0; i < n; ++i) {
				const std::size_t at = start + i;
				inBlock[c][i] = at < frames && (channels == 1 || c < channels) ? source[at] : 0.0f;
			}
		}
		outEvents.clear();
		const auto before = Clock::now();
		instance.process(inPointers.data(), inChannels, outPointers.data(), outChannels, n, events, outEvents);
		busy += Clock::now() - before;

		for (std::uint32_t i = 0; i < n; ++i) {
			const std::size_t at = start + i;
			if (at < skip || at - skip >= frames) continue;
			if (channels == 1) {
				float sum = 0;
				for (std::uint32_t c = 0; c < outChannels; ++c) sum += outBlock[c][i];
				output.channels[0][at - skip] = outChannels ? sum / float(outChannels) : 0.0f;
			} else {
				for (std::size_t c = 0; c < channels; ++c) {
					output.channels[c][at - skip] = c < outChannels ? outBlock[c][i] : 0.0f;
				}
			}
		}
		if (options.progress && (start / options.blockSize) % 64 == 0) options.progress(double(start) / double(total));
	}
	if (options.progress) options.progress(1.0);
	instance.deactivate();
	report.processSeconds = std::chrono::duration<double>(busy).count();
	report.audioSeconds = double(total) / input.sampleRate;
	return true;
}

} // namespace lumbrel::render
