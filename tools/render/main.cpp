// lumbrel-render: a command-line CLAP host for offline work with Lumbrel.
// See usageText in command_line.cpp.
#include "host/bundle.h"
#include "host/host.h"
#include "host/instance.h"
#include "render/audio_file.h"
#include "render/command_line.h"
#include "render/demo.h"
#include "host/key_paths.h"
#include "render/offline_render.h"
#include "render/param_settings.h"
#include "render/param_table.h"
#include "render/progress_bar.h"
#include "render/state_file.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

using namespace lumbrel;
using render::CommandLine;

namespace {

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

std::unique_ptr<host::Bundle> openBundle(const CommandLine &command, std::string &error) {
	const std::string path = command.bundle.empty() ? defaultBundle() : command.bundle;
	std::error_code ignored;
	if (!std::filesystem::exists(path, ignored)) {
		error = "no bundle at " + path + (command.bundle.empty() ? " (install one, or name it with --bundle)" : "");
		return nullptr;
	}
	return host::Bundle::load(path, error);
}

// One created and initialised instance with its parameter table.
struct Plugin {
	host::Host host;
	std::unique_ptr<host::Instance> instance;
	std::unique_ptr<render::ParamTable> table;
};

bool createPlugin(const host::Bundle &bundle, const std::string &name, Plugin &plugin, std::string &error) {
	const auto *descriptor = bundle.find(name);
	if (!descriptor) {
		error = "no plug-in \"" + name + "\" in " + bundle.path() + " (see --list)";
		return false;
	}
	plugin.instance = std::make_unique<host::Instance>(bundle, descriptor->id, plugin.host);
	if (!plugin.instance->valid() || !plugin.instance->init()) {
		error = std::string(descriptor->id) + " failed to start";
		return false;
	}
	plugin.table = std::make_unique<render::ParamTable>(*plugin.instance);
	return true;
}

// --state-in, then the --set values, as a host restores a project.
bool loadSettings(const CommandLine &command, Plugin &plugin, double sampleRate, render::ResolvedSettings &resolved,
	std::string &error) {
	if (!command.stateIn.empty()) {
		std::vector<std::uint8_t> bytes;
		if (!render::readStateFile(command.stateIn, bytes, error)) return false;
		if (!plugin.instance->loadState(bytes)) {
			error = plugin.instance->clapPlugin()->desc->id + std::string(" refused the state ") + command.stateIn;
			return false;
		}
		// The plug-in takes any map without a word, so say when nothing in it fitted.
		const auto &entries = plugin.table->entries();
		const auto paths = lumbrel::host::stateKeyPaths(bytes.data(), bytes.size());
		const bool fits = std::any_of(paths.begin(), paths.end(), [&](const lumbrel::host::StateKeyPath &path) {
			return std::any_of(entries.begin(), entries.end(),
				[&](const render::ParamEntry &entry) { return entry.info.id == path.id; });
		});
		if (!entries.empty() && !fits) {
			std::fprintf(stderr, "lumbrel-render: note: %s holds none of the parameters of %s; nothing changed\n",
				command.stateIn.c_str(), plugin.instance->clapPlugin()->desc->name);
		}
	}
	if (!render::resolveSettings(*plugin.table, command.settings, sampleRate, false, resolved, error)) return false;
	render::sendValues(*plugin.instance, resolved.values);
	return true;
}

bool saveState(const CommandLine &command, const Plugin &plugin, std::string &error) {
	if (command.stateOut.empty()) return true;
	std::vector<std::uint8_t> bytes;
	if (!plugin.instance->saveState(bytes)) {
		error = plugin.instance->clapPlugin()->desc->id + std::string(" did not save its state");
		return false;
	}
	return render::writeStateFile(command.stateOut, bytes, error);
}

void printTable(const std::vector<std::vector<std::string>> &rows) {
	std::vector<std::size_t> widths;
	for (const auto &row : rows) {
		widths.resize(std::max(widths.size(), row.size()));
		for (std::size_t c = 0; c < row.size(); ++c) widths[c] = std::max(widths[c], row[c].size());
	}
	for (const auto &row : rows) {
		std::string line = " ";
		for (std::size_t c = 0; c < row.size(); ++c) {
			line += " " + row[c];
			if (c + 1 < row.size()) line += std::string(widths[c] - row[c].size() + 1, ' ');
		}
		std::printf("%s\n", line.c_str());
	}
}

int list(const CommandLine &command) {
	std::string error;
	auto bundle = openBundle(command, error);
	if (!bundle) return fail(error);
	if (command.plugin.empty()) {
		std::printf("%s\n", bundle->path().c_str());
		std::vector<std::vector<std::string>> rows;
		for (std::uint32_t i = 0; i < bundle->count(); ++i) {
			const auto *d = bundle->descriptor(i);
			if (d) rows.push_back({d->id, d->name});
		}
		printTable(rows);
		return 0;
	}
	Plugin plugin;
	render::ResolvedSettings resolved;
	if (!createPlugin(*bundle, command.plugin, plugin, error)) return fail(error);
	if (!loadSettings(command, plugin, 48000, resolved, error)) return fail(error);
	const auto *desc = plugin.instance->clapPlugin()->desc;
	std::printf("%s (%s)\n", desc->name, desc->id);
	const auto &entries = plugin.table->entries();
	if (entries.empty()) {
		std::printf("  no parameters\n");
		return 0;
	}
	std::vector<std::vector<std::string>> rows = {{"KEY PATH", "NAME", "RANGE", "DEFAULT", "CURRENT"}};
	for (const auto &entry : entries) {
		rows.push_back({entry.keyPath.empty() ? "-" : entry.keyPath, entry.info.name, plugin.table->rangeText(entry),
			plugin.table->text(entry, entry.info.default_value), plugin.table->currentText(entry)});
	}
	printTable(rows);
	return 0;
}

// --plugin with --state-out and no files: a preset from --state-in and --set.
int savePreset(const CommandLine &command) {
	std::string error;
	auto bundle = openBundle(command, error);
	if (!bundle) return fail(error);
	Plugin plugin;
	render::ResolvedSettings resolved;
	if (!createPlugin(*bundle, command.plugin, plugin, error)) return fail(error);
	if (!command.settings.automation.empty()) return fail("--automate needs an input and an output file");
	if (!loadSettings(command, plugin, 48000, resolved, error)) return fail(error);
	if (!saveState(command, plugin, error)) return fail(error);
	std::printf("wrote %s\n", command.stateOut.c_str());
	return 0;
}

int renderFile(const CommandLine &command) {
	std::string error;
	if (!render::knownOutputFormat(command.output)) {
		return fail("cannot tell the output format from \"" + command.output + "\": use .wav, .flac, .aiff or .ogg");
	}
	auto bundle = openBundle(command, error);
	if (!bundle) return fail(error);
	Plugin plugin;
	if (!createPlugin(*bundle, command.plugin, plugin, error)) return fail(error);
	render::Audio input, output;
	if (!render::readAudio(command.input, input, error)) return fail(error);
	render::ResolvedSettings resolved;
	if (!loadSettings(command, plugin, input.sampleRate, resolved, error)) return fail(error);

	render::RenderOptions options;
	options.blockSize = command.blockSize;
	options.compensate = command.compensate;
	// A second of slack past the end covers any latency the flush adds.
	options.events = render::scheduleAutomation(resolved.lanes, input.frames() + std::uint64_t(input.sampleRate));
	const std::string name = std::filesystem::path(command.output).filename().string();
	render::ProgressBar bar(name);
	options.progress = [&bar](double f) { bar.update(f); };
	render::RenderReport report;
	if (!render::renderOffline(*plugin.instance, input, output, options, report, error)) return fail(error);
	bar.finish();
	if (!render::writeAudio(command.output, output, error, command.encoding)) return fail(error);
	if (!saveState(command, plugin, error)) return fail(error);

	const auto *desc = plugin.instance->clapPlugin()->desc;
	std::printf("%s: %.2f s, %zu channel%s at %.0f Hz; latency %u samples (%.2f ms), %s\n", desc->name,
		double(input.frames()) / input.sampleRate, input.channels.size(), input.channels.size() == 1 ? "" : "s",
		input.sampleRate, report.latencySamples, 1000.0 * report.latencySamples / input.sampleRate,
		command.compensate ? "compensated" : "kept in the output");
	if (report.latencyAtEnd != report.latencySamples) {
		std::printf("note: the latency was %u samples at the end: automation changed an engine setting, and the "
					"output is aligned to the latency at the start\n",
			report.latencyAtEnd);
	}
	std::printf("real-time factor %.1f (seconds of audio per second of CPU)\n", report.realTimeFactor());
	std::printf("wrote %s\n", command.output.c_str());
	return 0;
}

} // namespace

int main(int argc, char **argv) {
	const std::vector<std::string> args(argv + 1, argv + argc);
	if (args.empty()) {
		std::fputs(render::usageText, stderr);
		return 1;
	}
	CommandLine command;
	std::string error;
	if (!render::parseCommandLine(args, command, error)) return fail(error);
	switch (command.mode) {
	case CommandLine::Mode::Help:
		std::fputs(render::usageText, stdout);
		return 0;
	case CommandLine::Mode::List:
		return list(command);
	case CommandLine::Mode::Demo: {
		auto bundle = openBundle(command, error);
		if (!bundle) return fail(error);
		render::DemoOptions options;
		options.folder = command.demoFolder;
		options.voice = command.voice;
		options.blockSize = command.blockSize;
		return render::runDemo(*bundle, options, error) ? 0 : fail(error);
	}
	case CommandLine::Mode::Render:
		return command.input.empty() ? savePreset(command) : renderFile(command);
	}
	return 1;
}
