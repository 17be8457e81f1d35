#include "render/command_line.h"

#include <cerrno>
#include <cstdlib>

namespace lumbrel::render {

const char *const usageText =
	"usage: lumbrel-render --list [BUNDLE] [--plugin ID|NAME [--state-in FILE] [--set KEY=VALUE]...]\n"
	"       lumbrel-render --plugin ID|NAME [OPTIONS] IN OUT\n"
	"       lumbrel-render --plugin ID|NAME [--state-in FILE] [--set KEY=VALUE]... --state-out FILE\n"
	"       lumbrel-render --demo FOLDER [BUNDLE] [--voice FILE] [--block N]\n"
	"\n"
	"Runs a CLAP plug-in over an audio file (WAV, FLAC, AIFF, OGG), offline.\n"
	"\n"
	"  --bundle PATH       the .clap file (default: ~/.clap/Lumbrel.clap, then\n"
	"                      /usr/local/lib/clap, /usr/lib/clap, then the build's)\n"
	"  --plugin ID|NAME    a plug-in id, name or short name such as \"octaver\"\n"
	"  --set KEY=VALUE     a parameter by key path or display name, and a value as the\n"
	"                      plug-in prints it: --set latency=5ms --set semitones=7\n"
	"  --automate KEY=TIME:VALUE,...\n"
	"                      straight ramps between points; TIME in seconds (1.5, 1.5s),\n"
	"                      ms (250ms) or frames (12000smp); use a point for decimals\n"
	"  --state-in FILE     load a saved state (preset) before the --set values\n"
	"  --state-out FILE    save the state after the render (or, without files, at once)\n"
	"  --block N           frames per block, 1 to 65536 (default 512)\n"
	"  --bits 16|24        integer samples instead of 32-bit float\n"
	"  --no-compensate     keep the plug-in's latency in the output\n"
	"  --voice FILE        a recording to speak the demo's first part (at 48000 Hz)\n"
	"\n"
	"The output keeps the input's rate and channels and is written only when\n"
	"complete. --list --plugin shows each parameter's key path, range, default\n"
	"and current value.\n";

namespace {

bool splitSetting(const std::string &text, std::pair<std::string, std::string> &out) {
	const auto equals = text.find('=');
	if (equals == std::string::npos || equals == 0 || equals + 1 == text.size()) return false;
	out = {text.substr(0, equals), text.substr(equals + 1)};
	return true;
}

} // namespace

bool parseCommandLine(const std::vector<std::string> &args, CommandLine &out, std::string &error) {
	out = {};
	std::vector<std::string> positional;
	bool list = false, demo = false;
	for (std::size_t i = 0; i < args.size(); ++i) {
		const std::string &a = args[i];
		// The value of an option that takes one.
		auto value = [&](const char *what) -> const std::string * {
			if (i + 1 >= args.size()) {
				error = a + " needs " + what;
				return nullptr;
			}
			return &args[++i];
		};
		if (a == "--help" || a == "-h") {
			out.mode = CommandLine::Mode::Help;
			return true;
		} else if (a == "--list") {
			list = true;
		} else if (a == "--demo") {
			const auto *v = value("a folder");
			if (!v) return false;
			demo = true;
			out.demoFolder = *v;
		} else if (a == "--plugin") {
			const auto *v = value("an id or a name");
			if (!v) return false;
			out.plugin = *v;
		} else if (a == "--bundle") {
			const auto *v = value("a path");
			if (!v) return false;
			out.bundle = *v;
		} else if (a == "--set") {
			const auto *v = value("KEY=VALUE");
			if (!v) return false;
			std::pair<std::string, std::string> setting;
			if (!splitSetting(*v, setting)) {
				error = "--set needs KEY=VALUE, not \"" + *v + "\"";
				return false;
			}
			out.settings.values.push_back(setting);
		} else if (a == "--automate") {
			const auto *v = value("KEY=TIME:VALUE,...");
			if (!v) return false;
			out.settings.automation.push_back(*v);
		} else if (a == "--state-in") {
			const auto *v = value("a file");
			if (!v) return false;
			out.stateIn = *v;
		} else if (a == "--state-out") {
			const auto *v = value("a file");
			if (!v) return false;
			out.stateOut = *v;
		} else if (a == "--voice") {
			const auto *v = value("a file");
			if (!v) return false;
			out.voice = *v;
		} else if (a == "--block") {
			const auto *v = value("a number of frames");
			if (!v) return false;
			errno = 0;
			char *end = nullptr;
			const long n = std::strtol(v->c_str(), &end, 10);
			if (errno || end == v->c_str() || *end || n < 1 || n > 65536) {
				error = "--block needs a whole number of frames from 1 to 65536, not \"" + *v + "\"";
				return false;
			}
			out.blockSize = std::uint32_t(n);
		} else if (a == "--bits") {
			const auto *v = value("16 or 24");
			if (!v) return false;
			if (*v == "16") {
				out.encoding = SampleEncoding::Pcm16;
			} else if (*v == "24") {
				out.encoding = SampleEncoding::Pcm24;
			} else {
				error = "--bits takes 16 or 24 (32-bit float is the default), not \"" + *v + "\"";
				return false;
			}
		} else if (a == "--no-compensate") {
			out.compensate = false;
		} else if (a.size() > 1 && a[0] == '-') {
			error = "unknown option " + a + " (see --help)";
			return false;
		} else {
			positional.push_back(a);
		}
	}

	if (list && demo) {
		error = "--list and --demo don't go together";
		return false;
	}
	if (list || demo) {
		out.mode = list ? CommandLine::Mode::List : CommandLine::Mode::Demo;
		if (positional.size() > 1 || (positional.size() == 1 && !out.bundle.empty())) {
			error = std::string(list ? "--list" : "--demo") + " takes at most one bundle path";
			return false;
		}
		if (positional.size() == 1) out.bundle = positional[0];
		return true;
	}
	out.mode = CommandLine::Mode::Render;
	if (out.plugin.empty()) {
		error = "name a plug-in with --plugin (see --list)";
		return false;
	}
	if (positional.empty() && !out.stateOut.empty()) return true; // a preset, no audio
	if (positional.size() != 2) {
		error = "give one input file and one output file";
		return false;
	}
	out.input = positional[0];
	out.output = positional[1];
	return true;
}

} // namespace lumbrel::render
