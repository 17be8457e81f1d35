#pragma once
#include "host/instance.h"
#include "render/audio_file.h"

#include <cstdint>
#include <functional>
#include <string>

namespace lumbrel::render {

struct RenderOptions {
	std::uint32_t blockSize = 512;
	// Trim the plug-in's latency from the start and flush it from the tail, so
	// that output sample i lines up with input sample i.
	bool compensate = true;
	// Called now and then with the fraction done, from 0 to 1.
	std::function<void(double)> progress;
};

struct RenderReport {
	std::uint32_t latencySamples = 0;
	double processSeconds = 0; // wall time spent inside the plug-in's process
	double audioSeconds = 0; // length of the audio processed
};

// Runs `input` through an initialised instance: activates it at the input's
// rate, processes in blocks and deactivates it. The plug-in's main ports set
// the channels fed: a mono input feeds every input channel, and the output
// keeps the input's channel count (a mono output is the mean of the plug-in's
// outputs). False, with one line in `error`, if the plug-in refuses.
bool renderOffline(host::Instance &instance, const Audio &input, Audio &output, const RenderOptions &options,
	RenderReport &report, std::string &error);

} // namespace lumbrel::render
