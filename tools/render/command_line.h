#pragma once
#include "render/audio_file.h"
#include "render/param_settings.h"

#include <cstdint>
#include <string>
#include <vector>

namespace lumbrel::render {

extern const char *const usageText;

// lumbrel-render's arguments, taken apart but not yet checked against a
// bundle or files.
struct CommandLine {
	enum class Mode { Help, List, Render, Demo };
	Mode mode = Mode::Render;

	std::string bundle; // empty: the default search
	std::string plugin; // --plugin ID|NAME
	ParamSettings settings;
	std::string stateIn, stateOut;
	std::uint32_t blockSize = 512;
	bool compensate = true;
	SampleEncoding encoding = SampleEncoding::Float32;
	std::string input, output; // Render
	std::string demoFolder, voice; // Demo
};

// False with a one-line `error` for an unknown option, a missing or bad
// option value, or positional arguments that don't fit the mode.
bool parseCommandLine(const std::vector<std::string> &args, CommandLine &out, std::string &error);

} // namespace lumbrel::render
