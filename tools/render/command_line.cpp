#include "render/command_line.h"

#include <cerrno>
#include <cstdlib>

namespace lumbrel::render {

const char *const usageText =
	"usage: lumbrel-render --plugin NAME [OPTIONS] IN OUT\n"
	"       lumbrel-render --list [--plugin NAME [--state-in FILE] [--set K=V]...]\n"
	"       lumbrel-render --plugin NAME [--set K=V]... --state-out FILE  (preset)\n"
	"       lumbrel-render --demo FOLDER [--voice FILE] [--block N]\n"
	"\n"
	"Runs a Lumbrel effect (any CLAP plug-in) over an audio file, offline.\n"
	"IN and OUT are WAV, FLAC, AIFF or OGG files; \"-\" is standard input or\n"
	"output, as WAV. Options take their value as \"--opt value\" or \"--opt=value\".\n"
	"\n"
	"  --plugin NAME       id, name, or any unique part of it: octaver, snap, chor\n"
	"  --set KEY=VALUE     a parameter by key path or name, a value as --list shows\n"
	"                      it or as you'd say it: latency=5ms, time=1.5s, gain=6db,\n"
	"                      semitones=-12st, baseNote=C#\n"
	"  --automate KEY=TIME:VALUE,...\n"
	"                      straight ramps between points; TIME in seconds (1.5,\n"
	"                      1.5s), ms (250ms) or frames (12000smp)\n"
	"  --state-in FILE     load a saved state (preset) before the --set values\n"
	"  --state-out FILE    save the state after the render (without files: at once)\n"
	"  --bits 16|24|32     sample format of OUT (32: float); default: IN's\n"
	"  --block N           frames per block, 1 to 65536 (default 512)\n"
	"  --no-compensate     keep the plug-in's latency in the output\n"
	"  --force             allow OUT to be IN (written beside it, then renamed)\n"
	"  --bundle PATH       the .clap file (default: ~/.clap/Lumbrel.clap, then\n"
	"                      /usr/local/lib/clap, /usr/lib/clap, then the build's)\n"
	"  --voice FILE        a recording to speak the demo's first part (at 48000 Hz)\n"
	"  -q, --quiet         print only errors and warnings\n"
	"  -h, --help          this text;  --version  the version\n"
	"\n"
	"--list shows the plug-ins; --list --plugin NAME shows each parameter's key\n"
	"path, name, range, default and current value; --list --markdown every\n"
	"plug-in's parameters as a Markdown reference (docs/parameters.md).\n"
	"\n"
	"Exit status: 0 done; 1 a file, the bundle or the plug-in failed; 2 the\n"
	"command line is wrong (option, plug-in, parameter or value).\n"
	"A clipped output is reported on stderr, and is not a failure.\n";

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
		// "--opt=value" is "--opt value".
		std::string a = args[i], attached;
		bool hasAttached = false;
		if (a.compare(0, 2, "--") == 0 && a.find('=') != std::string::npos) {
			attached = a.substr(a.find('=') + 1);
			a = a.substr(0, a.find('='));
			hasAttached = true;
		}
		// The value of an option that takes one.
		auto value = [&](const char *what) -> const std::string * {
			if (hasAttached) {
				hasAttached = false;
				return &attached;
			}
			if (i + 1 >= args.size()) {
				error = a + " needs " + what;
				return nullptr;
			}
			return &args[++i];
		};
		if (a == "--help" || a == "-h") {
			out.mode = CommandLine::Mode::Help;
			return true;
		} else if (a == "--version") {
			out.mode = CommandLine::Mode::Version;
			return true;
		} else if (a == "--quiet" || a == "-q") {
			out.quiet = true;
		} else if (a == "--markdown") {
			out.markdown = true;
		} else if (a == "--force") {
			out.force = true;
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
			const auto *v = value("16, 24 or 32");
			if (!v) return false;
			if (*v == "16") {
				out.encoding = SampleEncoding::Pcm16;
			} else if (*v == "24") {
				out.encoding = SampleEncoding::Pcm24;
			} else if (*v == "32") {
				out.encoding = SampleEncoding::Float32;
			} else {
				error = "--bits takes 16, 24 or 32 (float), not \"" + *v + "\"";
				return false;
			}
			out.bitsGiven = true;
		} else if (a == "--no-compensate") {
			out.compensate = false;
		} else if (a.size() > 1 && a[0] == '-') {
			error = "unknown option " + a + " (see --help)";
			return false;
		} else {
			positional.push_back(a);
		}
		if (hasAttached) {
			error = a + " takes no value";
			return false;
		}
	}

	if (list && demo) {
		error = "--list and --demo don't go together";
		return false;
	}
	if (out.markdown && !list) {
		error = "--markdown goes with --list";
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
