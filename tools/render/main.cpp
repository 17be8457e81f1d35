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
#include "render/parameter_docs.h"
#include "render/progress_bar.h"
#include "render/state_file.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <functional>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

using namespace lumbrel;
using render::CommandLine;

namespace {

using render::exitFailed;
using render::exitOk;
using render::exitUsage;

int fail(const std::string &message, int code = exitFailed) {
	std::fprintf(stderr, "lumbrel-render: %s\n", message.c_str());
	return code;
}

// Errors that come from what the user typed rather than from files or the
// plug-in: exit code 2.
struct UsageError {
	std::string message;
};

std::string lower(std::string text) {
	for (auto &c : text) c = char(std::tolower(static_cast<unsigned char>(c)));
	return text;
}

// The words of a plug-in's id and name: "frequency", "snap", "lumbrel", ...
std::vector<std::string> nameWords(const clap_plugin_descriptor &d) {
	std::vector<std::string> words;
	std::string word;
	for (const char c : lower(std::string(d.id) + " " + (d.name ? d.name : ""))) {
		if (std::isalnum(static_cast<unsigned char>(c))) {
			word += c;
		} else if (!word.empty()) {
			words.push_back(word);
			word.clear();
		}
	}
	if (!word.empty()) words.push_back(word);
	return words;
}

std::string shortId(const clap_plugin_descriptor &d) {
	const std::string id = d.id;
	return id.substr(id.rfind('.') + 1);
}

// A plug-in by what a person types: its id or name in any case, then a
// unique start of its short id ("chor", "pitch"), then a word of its id or
// name or the start of one ("snap", "detune"). Where several fit and one's
// short id starts all the others ("chorus", "chorus-detune"), that one.
const clap_plugin_descriptor *findPlugin(const host::Bundle &bundle, const std::string &typed, std::string &error) {
	const std::string key = lower(typed);
	std::vector<const clap_plugin_descriptor *> all;
	for (std::uint32_t i = 0; i < bundle.count(); ++i) {
		if (const auto *d = bundle.descriptor(i)) all.push_back(d);
	}
	const auto startsWith = [](const std::string &text, const std::string &start) {
		return !start.empty() && text.compare(0, start.size(), start) == 0;
	};
	using Test = std::function<bool(const clap_plugin_descriptor &)>;
	const Test tiers[] = {
		[&](const auto &d) { return lower(d.id) == key || lower(d.name ? d.name : "") == key || lower(shortId(d)) == key; },
		[&](const auto &d) { return startsWith(lower(shortId(d)), key); },
		[&](const auto &d) {
			const auto words = nameWords(d);
			return std::any_of(words.begin(), words.end(), [&](const std::string &w) { return startsWith(w, key); });
		},
	};
	for (const auto &fits : tiers) {
		std::vector<const clap_plugin_descriptor *> found;
		for (const auto *d : all) {
			if (fits(*d)) found.push_back(d);
		}
		if (found.size() == 1) return found[0];
		for (const auto *d : found) {
			if (std::all_of(found.begin(), found.end(),
					[&](const auto *other) { return startsWith(shortId(*other), shortId(*d)); })) {
				return d;
			}
		}
		if (found.size() > 1) {
			std::string names;
			for (const auto *d : found) names += (names.empty() ? "" : ", ") + shortId(*d);
			error = "\"" + typed + "\" fits " + std::to_string(found.size()) + " plug-ins: " + names;
			return nullptr;
		}
	}
	std::vector<std::pair<std::size_t, std::string>> close;
	for (const auto *d : all) {
		std::size_t best = render::editDistance(key, lower(shortId(*d)));
		for (const auto &w : nameWords(*d)) best = std::min(best, render::editDistance(key, w));
		if (best <= std::max<std::size_t>(2, key.size() / 3)) close.emplace_back(best, shortId(*d));
	}
	std::stable_sort(close.begin(), close.end());
	error = "no plug-in \"" + typed + "\" in " + bundle.path();
	if (close.empty()) {
		error += " (see --list)";
	} else {
		error += "; did you mean " + close[0].second;
		for (std::size_t i = 1; i < close.size() && i < 3; ++i) error += (i + 1 == close.size() || i == 2 ? " or " : ", ") + close[i].second;
		error += "?";
	}
	return nullptr;
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
	const host::Bundle *bundle = nullptr;
	host::Host host;
	std::unique_ptr<host::Instance> instance;
	std::unique_ptr<render::ParamTable> table;
};

bool createPlugin(const host::Bundle &bundle, const std::string &name, Plugin &plugin, std::string &error) {
	const auto *descriptor = findPlugin(bundle, name, error);
	if (!descriptor) throw UsageError{error};
	plugin.bundle = &bundle;
	plugin.instance = std::make_unique<host::Instance>(bundle, descriptor->id, plugin.host);
	if (!plugin.instance->valid() || !plugin.instance->init()) {
		error = std::string(descriptor->id) + " failed to start";
		return false;
	}
	plugin.table = std::make_unique<render::ParamTable>(*plugin.instance);
	return true;
}

// How many of a saved state's keys are parameters of `entries`.
std::size_t parametersIn(const std::vector<host::StateKeyPath> &paths, const std::vector<render::ParamEntry> &entries) {
	return std::size_t(std::count_if(paths.begin(), paths.end(), [&](const host::StateKeyPath &path) {
		return std::any_of(entries.begin(), entries.end(),
			[&](const render::ParamEntry &entry) { return entry.info.id == path.id; });
	}));
}

// A plug-in takes any saved map without a word, so a state of another
// plug-in would load as nothing. False, naming both, when another plug-in of
// the bundle owns more of the state's keys than this one.
bool stateBelongs(const std::vector<std::uint8_t> &bytes, const Plugin &plugin, const std::string &path,
	std::string &error) {
	const auto paths = host::stateKeyPaths(bytes.data(), bytes.size());
	const std::size_t own = parametersIn(paths, plugin.table->entries());
	if (own == paths.size()) return true;
	const auto *self = plugin.instance->clapPlugin()->desc;
	const auto &bundle = *plugin.bundle;
	for (std::uint32_t i = 0; i < bundle.count(); ++i) {
		const auto *d = bundle.descriptor(i);
		if (!d || std::string(d->id) == self->id) continue;
		host::Host otherHost;
		host::Instance other(bundle, d->id, otherHost);
		if (!other.valid() || !other.init()) continue;
		if (parametersIn(paths, render::ParamTable(other).entries()) > own) {
			error = path + " is a saved state of " + d->name + ", not of " + self->name;
			return false;
		}
	}
	return true;
}

// --state-in, then the --set values, as a host restores a project.
bool loadSettings(const CommandLine &command, Plugin &plugin, double sampleRate, render::ResolvedSettings &resolved,
	std::string &error) {
	if (!command.stateIn.empty()) {
		std::vector<std::uint8_t> bytes;
		if (!render::readStateFile(command.stateIn, bytes, error)) return false;
		if (!stateBelongs(bytes, plugin, command.stateIn, error)) throw UsageError{error};
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
	if (!render::resolveSettings(*plugin.table, command.settings, sampleRate, false, resolved, error)) {
		throw UsageError{error};
	}
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
	if (command.markdown) {
		std::fputs(render::parameterReference(*bundle).c_str(), stdout);
		return exitOk;
	}
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
	if (!command.settings.automation.empty()) throw UsageError{"--automate needs an input and an output file"};
	if (!loadSettings(command, plugin, 48000, resolved, error)) return fail(error);
	if (!saveState(command, plugin, error)) return fail(error);
	if (!command.quiet) std::printf("wrote %s\n", command.stateOut.c_str());
	return exitOk;
}

// Refuses automation of a parameter whose values change the plug-in's
// latency: an offline render aligns its output to one latency, so a change
// halfway would shift the rest of the output against the input.
void checkLatencyAutomation(Plugin &plugin, const render::ResolvedSettings &resolved, const render::Audio &input,
	std::uint32_t blockSize) {
	// The probe leaves each parameter as it found it, so that the render
	// starts from the same state as without it.
	std::vector<std::pair<clap_id, double>> before;
	for (const auto &lane : resolved.lanes) {
		double value = 0;
		if (plugin.instance->paramValue(lane.id, value)) before.emplace_back(lane.id, value);
	}
	for (const auto &lane : resolved.lanes) {
		std::uint32_t low = UINT32_MAX, high = 0;
		for (const auto &point : lane.points) {
			render::sendValues(*plugin.instance, {{lane.id, point.value}});
			if (!plugin.instance->activate(input.sampleRate, 1, blockSize)) continue;
			low = std::min(low, plugin.instance->latency());
			high = std::max(high, plugin.instance->latency());
			plugin.instance->deactivate();
		}
		if (low < high) {
			const auto &entries = plugin.table->entries();
			const auto entry = std::find_if(
				entries.begin(), entries.end(), [&](const render::ParamEntry &e) { return e.info.id == lane.id; });
			throw UsageError{"cannot automate " + entry->label() + ": it changes the plug-in's latency (" + std::to_string(low)
				+ " to " + std::to_string(high) + " samples), which would shift the output against the input; give it one value with --set"};
		}
	}
	render::sendValues(*plugin.instance, before);
}

std::string decibels(double amplitude) {
	char text[32];
	std::snprintf(text, sizeof text, "%+.1f dBFS", 20 * std::log10(std::max(amplitude, 1e-12)));
	return text;
}

// Says on stderr when the output leaves full scale: as an error-free note
// of the samples clipped in a fixed-point file, or a warning for float.
void reportClipping(const render::Audio &output, bool clips) {
	float peak = 0;
	std::size_t over = 0;
	for (const auto &channel : output.channels) {
		for (const float x : channel) {
			peak = std::max(peak, std::abs(x));
			over += std::abs(x) > 1.0f;
		}
	}
	if (over == 0) return;
	if (clips) {
		std::fprintf(stderr, "lumbrel-render: clipped %zu sample%s (peak %s)\n", over, over == 1 ? "" : "s",
			decibels(peak).c_str());
	} else {
		std::fprintf(stderr, "lumbrel-render: warning: peak %s, above full scale (kept in the float output)\n",
			decibels(peak).c_str());
	}
}

int renderFile(const CommandLine &command) {
	std::string error;
	if (!render::knownOutputFormat(command.output)) {
		throw UsageError{"cannot tell the output format from \"" + command.output + "\": use .wav, .flac, .aiff or .ogg"};
	}
	if (command.bitsGiven && !render::encodingApplies(command.output, command.encoding, error)) throw UsageError{error};
	if (command.output != "-" && command.input != "-") {
		std::error_code ignored;
		if (std::filesystem::equivalent(command.input, command.output, ignored) && !command.force) {
			throw UsageError{command.output + " is the input file: add --force to write over it"};
		}
	}
	auto bundle = openBundle(command, error);
	if (!bundle) return fail(error);
	Plugin plugin;
	if (!createPlugin(*bundle, command.plugin, plugin, error)) return fail(error);
	render::Audio input, output;
	if (!render::readAudio(command.input, input, error)) return fail(error);
	render::ResolvedSettings resolved;
	if (!loadSettings(command, plugin, input.sampleRate, resolved, error)) return fail(error);
	checkLatencyAutomation(plugin, resolved, input, command.blockSize);

	render::SampleEncoding encoding = command.encoding;
	if (!command.bitsGiven) {
		encoding = render::keptEncoding(input.fileFormat);
		// A float input to FLAC, which has no float, becomes 24-bit.
		if (!render::encodingApplies(command.output, encoding, error)) encoding = render::SampleEncoding::Pcm24;
	}

	render::RenderOptions options;
	options.blockSize = command.blockSize;
	options.compensate = command.compensate;
	// A second of slack past the end covers any latency the flush adds.
	options.events = render::scheduleAutomation(resolved.lanes, input.frames() + std::uint64_t(input.sampleRate));
	const std::string name = command.output == "-" ? "stdout" : std::filesystem::path(command.output).filename().string();
	render::ProgressBar bar(name, command.quiet ? nullptr : stderr);
	options.progress = [&bar](double f) { bar.update(f); };
	render::RenderReport report;
	if (!render::renderOffline(*plugin.instance, input, output, options, report, error)) return fail(error);
	bar.finish();
	if (!render::writeAudio(command.output, output, error, encoding)) return fail(error);
	if (!saveState(command, plugin, error)) return fail(error);
	reportClipping(output, render::clipsAtFullScale(command.output, encoding));
	if (command.quiet) return exitOk;

	// Standard output may be the audio itself.
	std::FILE *summary = command.output == "-" ? stderr : stdout;
	const auto *desc = plugin.instance->clapPlugin()->desc;
	std::fprintf(summary, "%s: %.2f s, %zu channel%s at %.0f Hz; latency %u samples (%.2f ms), %s\n", desc->name,
		double(input.frames()) / input.sampleRate, input.channels.size(), input.channels.size() == 1 ? "" : "s",
		input.sampleRate, report.latencySamples, 1000.0 * report.latencySamples / input.sampleRate,
		command.compensate ? "compensated" : "kept in the output");
	std::fprintf(summary, "real-time factor %.1f (seconds of audio per second of CPU)\n", report.realTimeFactor());
	std::fprintf(summary, "wrote %s\n", command.output == "-" ? "standard output" : command.output.c_str());
	return exitOk;
}

} // namespace

int run(const CommandLine &command);

int main(int argc, char **argv) {
	const std::vector<std::string> args(argv + 1, argv + argc);
	if (args.empty()) {
		std::fputs(render::usageText, stderr);
		return exitUsage;
	}
	CommandLine command;
	std::string error;
	if (!render::parseCommandLine(args, command, error)) return fail(error, exitUsage);
	try {
		return run(command);
	} catch (const UsageError &e) {
		return fail(e.message, exitUsage);
	}
}

int run(const CommandLine &command) {
	std::string error;
	switch (command.mode) {
	case CommandLine::Mode::Help:
		std::fputs(render::usageText, stdout);
		return 0;
	case CommandLine::Mode::Version:
		std::printf("lumbrel-render %s\n", LUMBREL_VERSION);
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
