#pragma once
#include "host/instance.h"
#include "render/audio_file.h"
#include "render/automation.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace lumbrel::render {

struct RenderOptions {
	std::uint32_t blockSize = 512;
	// Trim the plug-in's latency from the start and flush it from the tail, so
	// that output sample i lines up with input sample i.
	bool compensate = true;
	// Value events on the input's timeline (sorted by frame), handed to the
	// plug-in inside the block that holds their frame, as a host does.
	std::vector<ScheduledEvent> events;
	// Called now and then with the fraction done, from 0 to 1.
	std::function<void(double)> progress;
};

struct RenderReport {
	std::uint32_t latencySamples = 0; // at the start, what compensation used
	std::uint32_t latencyAtEnd = 0; // differs if automation changed an engine setting
	double cpuSeconds = 0; // CPU time of this thread inside the plug-in's process
	double audioSeconds = 0; // length of the audio processed, the flushed tail included

	// Seconds of audio per second of CPU; 0 if nothing was measured.
	double realTimeFactor() const { return cpuSeconds > 0 ? audioSeconds / cpuSeconds : 0; }
};

// Runs `input` through an initialised instance: activates it at the input's
// rate, processes in blocks of at most blockSize frames and deactivates it.
// The output keeps the input's rate, length and channel count. A mono input
// feeds every input channel of the plug-in's main port and hears the mean of
// its outputs; otherwise the channel counts must agree. False, with one line
// in `error`, if they don't or the plug-in refuses.
bool renderOffline(host::Instance &instance, const Audio &input, Audio &output, const RenderOptions &options,
	RenderReport &report, std::string &error);

} // namespace lumbrel::render
