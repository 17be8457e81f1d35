// lumbrel-render: a command-line CLAP host for offline work with Lumbrel.
//
//   lumbrel-render --list [BUNDLE]
//   lumbrel-render --plugin ID|NAME [--bundle BUNDLE] [--block N] [--no-compensate] IN OUT
//   lumbrel-render --demo DIR [BUNDLE]
#include "host/bundle.h"
#include "host/host.h"
#include "host/instance.h"
#include "render/audio_file.h"
#include "render/demo_signal.h"
#include "render/offline_render.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>

using namespace lumbrel;

namespace {

const char *usage =
	"usage: lumbrel-render --list [BUNDLE]\n"
	"       lumbrel-render --plugin ID|NAME [--bundle BUNDLE] [--block N] [--no-compensate] IN OUT\n"
	"       lumbrel-render --demo DIR [BUNDLE]\n";

int fail(const std::string &message) {
	std::fprintf(stderr, "lumbrel-render: %s\n", message.c_str());
	return 1;
}

// The bundle to use when none is named: the user's, the system's, then the one
// beside this build.
std::string defaultBundle() {
	std::vector<std::string> candidates;
	if (const char *home = std::getenv("HOME")) candidates.push_back(std::string(home) + "/.clap/Lumbrel.clap");
	candidates.push_back("/usr/local/lib/clap/Lumbrel.clap");
	candidates.push_back("/usr/lib/clap/Lumbrel.clap");
#ifdef LUMBREL_BUILD_BUNDLE
	candidates.push_back(LUMBREL_BUILD_BUNDLE);
#endif
	for (const auto &path : candidates) {
		std::error_code ignored;
		if (std::filesystem::is_regular_file(path, ignored)) return path;
	}
	return candidates.front();
}

std::unique_ptr<host::Bundle> openBundle(const std::string &path, std::string &error) {
	std::error_code ignored;
	if (!std::filesystem::exists(path, ignored)) {
		error = "no bundle at " + path;
		return nullptr;
	}
	return host::Bundle::load(path, error);
}

// Progress on a terminal only: logs get the summary lines alone.
void showProgress(const char *what, double fraction) {
	static const bool terminal = ::isatty(2);
	if (!terminal) return;
	std::fprintf(stderr, "\r  %-24s %3d%%", what, int(fraction * 100 + 0.5));
	if (fraction >= 1) std::fprintf(stderr, "\r%*s\r", 32, "");
	std::fflush(stderr);
}

int list(const std::string &bundlePath) {
	std::string error;
	auto bundle = openBundle(bundlePath, error);
	if (!bundle) return fail(error);
	std::printf("%s\n", bundlePath.c_str());
	for (std::uint32_t i = 0; i < bundle->count(); ++i) {
		const auto *d = bundle->descriptor(i);
		std::printf("  %-40s %s\n", d->id, d->name);
	}
	return 0;
}

// Short name for file names: the id's last part.
std::string shortName(const char *id) {
	std::string s = id;
	return s.substr(s.rfind('.') + 1);
}

bool renderOne(const host::Bundle &bundle, const char *id, const render::Audio &input, render::Audio &output,
	const render::RenderOptions &options, render::RenderReport &report, std::string &error) {
	host::Host host;
	host::Instance instance(bundle, id, host);
	if (!instance.valid()) {
		error = std::string("the bundle cannot create ") + id;
		return false;
	}
	if (!instance.init()) {
		error = std::string(id) + " failed to initialise";
		return false;
	}
	return render::renderOffline(instance, input, output, options, report, error);
}

void printReport(const char *name, const render::RenderReport &report, double sampleRate) {
	const double cost = report.audioSeconds > 0 ? 100.0 * report.processSeconds / report.audioSeconds : 0;
	std::printf("  %-50s latency %5u samples (%.2f ms), CPU %.2f%% of one core\n", name, report.latencySamples,
		1000.0 * report.latencySamples / sampleRate, cost);
}

int demo(const std::string &dir, const std::string &bundlePath) {
	std::string error;
	auto bundle = openBundle(bundlePath, error);
	if (!bundle) return fail(error);
	std::error_code code;
	std::filesystem::create_directories(dir, code);
	if (code) return fail("cannot create " + dir + ": " + code.message());

	const render::Audio input = render::demoSignal(48000);
	if (!render::writeAudio(dir + "/demo-input.wav", input, error)) return fail(error);
	std::printf("demo: %.1f s of stereo at 48000 Hz through %u plug-ins of %s\n", double(input.frames()) / 48000,
		bundle->count(), bundlePath.c_str());
	for (std::uint32_t i = 0; i < bundle->count(); ++i) {
		const auto *d = bundle->descriptor(i);
		render::RenderOptions options;
		const std::string name = shortName(d->id);
		options.progress = [&name](double f) { showProgress(name.c_str(), f); };
		render::Audio output;
		render::RenderReport report;
		if (!renderOne(*bundle, d->id, input, output, options, report, error)) return fail(error);
		const std::string path = dir + "/" + name + ".wav";
		if (!render::writeAudio(path, output, error)) return fail(error);
		printReport(d->name, report, input.sampleRate);
	}
	std::printf("wrote %s/demo-input.wav and one file per plug-in\n", dir.c_str());
	return 0;
}

} // namespace

int main(int argc, char **argv) {
	std::vector<std::string> args(argv + 1, argv + argc);
	if (args.empty() || args[0] == "--help" || args[0] == "-h") {
		std::fputs(usage, args.empty() ? stderr : stdout);
		return args.empty() ? 1 : 0;
	}
	if (args[0] == "--list") {
		if (args.size() > 2) return fail("--list takes at most one bundle path");
		return list(args.size() == 2 ? args[1] : defaultBundle());
	}
	if (args[0] == "--demo") {
		if (args.size() < 2 || args.size() > 3) return fail("--demo takes a folder and, optionally, a bundle path");
		return demo(args[1], args.size() == 3 ? args[2] : defaultBundle());
	}

	std::string plugin, bundlePath = defaultBundle();
	render::RenderOptions options;
	std::vector<std::string> files;
	for (std::size_t i = 0; i < args.size(); ++i) {
		const std::string &a = args[i];
		auto value = [&](const char *flag) -> const std::string * {
			if (i + 1 >= args.size()) return nullptr;
			(void)flag;
			return &args[++i];
		};
		if (a == "--plugin") {
			const auto *v = value("--plugin");
			if (!v) return fail("--plugin needs an id or a name");
			plugin = *v;
		} else if (a == "--bundle") {
			const auto *v = value("--bundle");
			if (!v) return fail("--bundle needs a path");
			bundlePath = *v;
		} else if (a == "--block") {
			const auto *v = value("--block");
			char *end = nullptr;
			const long n = v ? std::strtol(v->c_str(), &end, 10) : 0;
			if (!v || *end || n < 1 || n > 65536) return fail("--block needs a whole number of frames from 1 to 65536");
			options.blockSize = std::uint32_t(n);
		} else if (a == "--no-compensate") {
			options.compensate = false;
		} else if (a.size() > 1 && a[0] == '-') {
			return fail("unknown option " + a + " (see --help)");
		} else {
			files.push_back(a);
		}
	}
	if (plugin.empty()) return fail("name a plug-in with --plugin (see --list)");
	if (files.size() != 2) return fail("give one input file and one output file");

	std::string error;
	auto bundle = openBundle(bundlePath, error);
	if (!bundle) return fail(error);
	const auto *descriptor = bundle->find(plugin);
	if (!descriptor) return fail("no plug-in \"" + plugin + "\" in " + bundlePath + " (see --list)");

	render::Audio input, output;
	if (!render::readAudio(files[0], input, error)) return fail(error);
	options.progress = [](double f) { showProgress("rendering", f); };
	render::RenderReport report;
	if (!renderOne(*bundle, descriptor->id, input, output, options, report, error)) return fail(error);
	if (!render::writeAudio(files[1], output, error)) return fail(error);
	printReport(descriptor->name, report, input.sampleRate);
	return 0;
}
