#pragma once
#include "render/audio_file.h"
#include "render/param_settings.h"

#include <cstdint>
#include <string>
#include <vector>

namespace lumbrel::render {

extern const char *const usageText;

// Exit codes, as --help lists them.
enum ExitCode { exitOk = 0, exitFailed = 1, exitUsage = 2 };

// lumbrel-render's arguments, taken apart but not yet checked against a
// bundle or files.
struct CommandLine {
	enum class Mode { Help, Version, List, Render, Demo };
	Mode mode = Mode::Render;

	std::string bundle; // empty: the default search
	std::string plugin; // --plugin ID|NAME
	ParamSettings settings;
	std::string stateIn, stateOut;
	std::uint32_t blockSize = 512;
	bool compensate = true;
	bool markdown = false; // --list --markdown: every plug-in's parameters as docs/parameters.md
	bool quiet = false; // -q: errors and warnings only
	bool force = false; // may write over the input
	bool bitsGiven = false; // else the output keeps the input's sample format
	SampleEncoding encoding = SampleEncoding::Float32;
	std::string input, output; // Render; "-" is standard input or output (WAV)
	std::string demoFolder, voice; // Demo
};

// False with a one-line `error` for an unknown option, a missing or bad
// option value, or positional arguments that don't fit the mode.
bool parseCommandLine(const std::vector<std::string> &args, CommandLine &out, std::string &error);

} // namespace lumbrel::render
