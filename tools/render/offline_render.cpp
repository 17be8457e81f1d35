#include "render/offline_render.h"

#include <clap/clap.h>

#include <algorithm>
#include <ctime>

namespace lumbrel::render {

namespace {

std::uint32_t mainChannels(const host::Instance &instance, bool isInput, std::uint32_t fallback) {
	const auto *ports = instance.extension<clap_plugin_audio_ports>(CLAP_EXT_AUDIO_PORTS);
	if (!ports || ports->count(instance.clapPlugin(), isInput) == 0) return fallback;
	clap_audio_port_info info{};
	if (!ports->get(instance.clapPlugin(), 0, isInput, &info)) return fallback;
	return info.channel_count;
}

double threadCpuSeconds() {
	timespec now{};
	clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
	return double(now.tv_sec) + 1e-9 * double(now.tv_nsec);
}

} // namespace

bool renderOffline(host::Instance &instance, const Audio &input, Audio &output, const RenderOptions &options,
	RenderReport &report, std::string &error) {
	const std::string id = instance.clapPlugin()->desc->id;
	const std::uint32_t inChannels = mainChannels(instance, true, 2);
	const std::uint32_t outChannels = mainChannels(instance, false, 2);
	const std::size_t channels = input.channels.size();
	const bool mono = channels == 1;
	if (channels == 0 || (!mono && (channels != inChannels || channels != outChannels))) {
		error = "the input has " + std::to_string(channels) + " channels; " + id + " takes "
			+ std::to_string(inChannels) + " (or a mono input)";
		return false;
	}
	if (!instance.activate(input.sampleRate, 1, options.blockSize)) {
		error = id + " refused to activate at " + std::to_string(int(input.sampleRate)) + " Hz";
		return false;
	}
	if (!instance.startProcessing()) {
		error = id + " refused to start processing";
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

	output.sampleRate = input.sampleRate;
	output.channels.assign(channels, std::vector<float>(frames, 0.0f));
	host::InputEvents events;
	host::OutputEvents outEvents;
	std::size_t nextEvent = 0;
	double cpu = 0;
	std::size_t nextProgress = 0;
	const std::size_t progressStep = std::max<std::size_t>(total / 200, 1);

	for (std::size_t start = 0; start < total; start += options.blockSize) {
		const auto n = std::uint32_t(std::min<std::size_t>(options.blockSize, total - start));
		for (std::uint32_t c = 0; c < inChannels; ++c) {
			const auto &source = input.channels[mono ? 0 : c];
			const std::size_t available = start < frames ? std::min<std::size_t>(n, frames - start) : 0;
			std::copy_n(source.begin() + std::ptrdiff_t(start < frames ? start : 0), available, inBlock[c].begin());
			std::fill(inBlock[c].begin() + std::ptrdiff_t(available), inBlock[c].begin() + n, 0.0f);
		}
		events.clear();
		for (; nextEvent < options.events.size() && options.events[nextEvent].frame < start + n; ++nextEvent) {
			const auto &event = options.events[nextEvent];
			const auto time = event.frame > start ? std::uint32_t(event.frame - start) : 0u;
			events.paramValue(time, event.id, event.value);
		}
		outEvents.clear();
		const double before = threadCpuSeconds();
		instance.process(inPointers.data(), inChannels, outPointers.data(), outChannels, n, events, outEvents);
		cpu += threadCpuSeconds() - before;

		for (std::uint32_t i = 0; i < n; ++i) {
			const std::size_t at = start + i;
			if (at < skip || at - skip >= frames) continue;
			if (mono) {
				float sum = 0;
				for (std::uint32_t c = 0; c < outChannels; ++c) sum += outBlock[c][i];
				output.channels[0][at - skip] = outChannels ? sum / float(outChannels) : 0.0f;
			} else {
				for (std::size_t c = 0; c < channels; ++c) output.channels[c][at - skip] = outBlock[c][i];
			}
		}
		if (options.progress && start >= nextProgress) {
			options.progress(double(start) / double(total));
			nextProgress = start + progressStep;
		}
	}
	if (options.progress) options.progress(1.0);
	report.latencyAtEnd = instance.latency();
	instance.deactivate();
	report.cpuSeconds = cpu;
	report.audioSeconds = double(total) / input.sampleRate;
	return true;
}

} // namespace lumbrel::render
