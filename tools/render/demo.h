#pragma once
#include "host/bundle.h"

#include <cstdint>
#include <string>

namespace lumbrel::render {

struct DemoOptions {
	std::string folder; // made if missing
	std::string voice; // a recording for the demo's spoken part; empty for sung vowels
	std::uint32_t blockSize = 512;
};

// The demo: renders the built-in signal (demoSignal) through every plug-in
// of the bundle, each with settings that show what it does, and writes into
// the folder input.wav, <short name>.wav per plug-in (the id's last part),
// a spectrogram <name>.png of each, and index.html,
// which sets each before/after pair side by side to listen to and look at.
// A setting that names a parameter a plug-in doesn't have (yet) is skipped
// with a note. Prints one line per plug-in. False with one line in `error`
// if a file can't be written or a plug-in fails.
bool runDemo(const host::Bundle &bundle, const DemoOptions &options, std::string &error);

} // namespace lumbrel::render
