#include "render/demo.h"

#include "host/host.h"
#include "host/instance.h"
#include "render/audio_file.h"
#include "render/automation.h"
#include "render/demo_signal.h"
#include "render/offline_render.h"
#include "render/param_settings.h"
#include "render/param_table.h"
#include "render/progress_bar.h"
#include "render/spectrogram.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <utility>
#include <vector>

namespace lumbrel::render {

namespace {

constexpr double demoRate = 48000;

// What each plug-in plays in the demo, by the last part of its id.
struct Showcase {
	const char *plugin;
	const char *about; // what to listen for
	std::vector<std::pair<std::string, std::string>> values;
	std::vector<std::string> automation;
};

const std::vector<Showcase> &showcases() {
	static const std::vector<Showcase> list = {
		{"pitch-shifter-layer1",
			"Everything a fifth higher, yet the voice keeps its size: timbre correction holds its formants where "
			"they were.",
			{{"peakShifterConfig.semitones", "7"}, {"timbreCorrection", "0.5"}},
			{}},
		{"octaver", "A copy an octave down, and a fainter one an octave up, under the dry sound: new lines in the "
			"spectrogram an octave below and above each partial.",
			{{"octaves.gainD1", "0.8"}, {"octaves.gainU1", "0.3"}, {"mix", "0.7"}}, {}},
		{"cleanup",
			"The steady hiss under everything goes: listen to the gaps between the words.",
			{{"nrMode", "adaptive"}, {"nrCleanup", "2"}, {"nrMix", "1"}}, {}},
		{"chorus", "A wide, shimmering sound: each partial drifts a little on its own, and left and right differ.",
			{{"chorusConfig.detune", "5%"}, {"chorusConfig.width", "1.2"}, {"chorusConfig.mix", "1"}}, {}},
		{"chorus-detune", "A classic detune chorus: three voices, detuned by a slowly turning oscillator, spread left and right.",
			{{"chorusConfig.detune", "15 cents"}, {"chorusConfig.spin", "0.5 Hz"}, {"chorusConfig.width", "1.2"},
				{"chorusConfig.mix", "1"}},
			{}},
		{"transients", "Harder attacks and less sustain: drum hits and plucks jump out, the held chord steps back.",
			{{"gains.attack", "3"}, {"gains.sustain", "0.4"}}, {}},
		{"swell", "No sound starts hard: each new note swells in over a second, like a bowed one.",
			{{"swell.time", "1 sec"}}, {}},
		{"decay-scale", "Ringing notes hold on far longer (the lines run on to the right), while the drums pass as they were.",
			{{"decay.factor", "0.1"}}, {}},
		{"frequency-snap",
			"Every partial is pulled to the nearest note of A major: the voice sings, and the melody changes mode.",
			{{"chordConfig.baseNote", "A"}, {"chordConfig.mode", "major"}}, {}},
		{"shepard-drop",
			"The pitch falls an octave over the eight seconds and seems to go on falling: four copies an octave "
			"apart fade in and out around the original pitch.",
			{}, {"semitones=0:0,8:-12"}},
	};
	return list;
}

const Showcase *showcaseFor(const std::string &name) {
	for (const auto &showcase : showcases()) {
		if (name == showcase.plugin) return &showcase;
	}
	return nullptr;
}

std::string shortName(const char *id) {
	const std::string text = id;
	return text.substr(text.rfind('.') + 1);
}

std::string html(const std::string &text) {
	std::string out;
	for (const char c : text) {
		switch (c) {
		case '&': out += "&amp;"; break;
		case '<': out += "&lt;"; break;
		case '>': out += "&gt;"; break;
		case '"': out += "&quot;"; break;
		default: out += c;
		}
	}
	return out;
}

// One plug-in's part of the page.
struct DemoResult {
	std::string name, file, about;
	std::vector<std::string> skipped;
	std::vector<std::pair<std::string, std::string>> values; // applied --set values
	std::vector<std::string> automation; // applied --automate texts
	bool stereo = false; // the spectrogram shows left and right
	std::uint32_t latency = 0;
	double realTimeFactor = 0;
};

bool renderShowcase(const host::Bundle &bundle, const clap_plugin_descriptor &descriptor, const Audio &input,
	const DemoOptions &options, DemoResult &result, std::string &error) {
	const Showcase *showcase = showcaseFor(result.file);
	ParamSettings settings;
	if (showcase) {
		settings.values = showcase->values;
		settings.automation = showcase->automation;
		result.about = showcase->about;
	}
	host::Host host;
	host::Instance instance(bundle, descriptor.id, host);
	if (!instance.valid() || !instance.init()) {
		error = std::string("the bundle cannot create ") + descriptor.id;
		return false;
	}
	const ParamTable table(instance);
	ResolvedSettings resolved;
	if (!resolveSettings(table, settings, input.sampleRate, true, resolved, error)) return false;
	const auto skipped = [&](const std::string &text) {
		return std::find(resolved.skipped.begin(), resolved.skipped.end(), text) != resolved.skipped.end();
	};
	for (const auto &[key, value] : settings.values) {
		if (!skipped(key + "=" + value)) result.values.emplace_back(key, value);
	}
	for (const auto &text : settings.automation) {
		if (!skipped(text)) result.automation.push_back(text);
	}
	result.skipped = resolved.skipped;
	for (const auto &text : resolved.skipped) {
		std::printf("  note: %s has no such parameter yet; skipped %s\n", result.file.c_str(), text.c_str());
	}
	sendValues(instance, resolved.values);

	RenderOptions render;
	render.blockSize = options.blockSize;
	render.events = scheduleAutomation(resolved.lanes, input.frames() + std::uint64_t(input.sampleRate));
	ProgressBar bar(result.file);
	render.progress = [&bar](double f) { bar.update(f); };
	Audio output;
	RenderReport report;
	if (!renderOffline(instance, input, output, render, report, error)) return false;
	bar.finish();
	result.latency = report.latencySamples;
	result.realTimeFactor = report.realTimeFactor();
	const std::string base = options.folder + "/" + result.file;
	return writeAudio(base + ".wav", output, error) && drawSpectrogram(output, base + ".png", result.stereo, error);
}

// A word for the shell: quoted when it holds anything but safe characters.
std::string shellWord(const std::string &word) {
	if (word.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.,:=/+%") == std::string::npos) {
		return word;
	}
	std::string out = "'";
	for (const char c : word) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
	return out + "'";
}

// The command that makes the same file again.
std::string commandFor(const DemoResult &r, const std::string &folder) {
	std::string command = "lumbrel-render --plugin " + r.file;
	for (const auto &[key, value] : r.values) command += " --set " + shellWord(key + "=" + value);
	for (const auto &text : r.automation) command += " --automate " + shellWord(text);
	return command + " " + shellWord(folder + "/input.wav") + " " + shellWord(folder + "/" + r.file + ".wav");
}

// A lane of --automate as a line over the file's length, with its values
// written at its points.
std::string automationPlot(const std::string &text) {
	AutomationText lane;
	std::string ignored;
	if (!parseAutomation(text, demoRate, lane, ignored) || lane.points.empty()) return "";
	double low = 1e300, high = -1e300;
	std::vector<std::pair<double, double>> points;
	for (const auto &[frame, value] : lane.points) {
		const double v = std::strtod(value.c_str(), nullptr);
		points.emplace_back(100.0 * double(frame) / (demoSeconds * demoRate), v);
		low = std::min(low, v);
		high = std::max(high, v);
	}
	if (high == low) high = low + 1;
	const auto y = [&](double v) { return 5 + 30 * (high - v) / (high - low); };
	std::string line = std::to_string(0.0) + "," + std::to_string(y(points.front().second));
	for (const auto &[x, v] : points) line += " " + std::to_string(x) + "," + std::to_string(y(v));
	line += " 100," + std::to_string(y(points.back().second));
	std::string out = "<figure class=\"automation\"><figcaption>automation of <code>" + html(lane.key)
		+ "</code></figcaption>\n<div class=\"lane\"><svg viewBox=\"0 0 100 40\" preserveAspectRatio=\"none\">"
		  "<polyline points=\"" + line + "\" vector-effect=\"non-scaling-stroke\"/></svg>\n";
	for (std::size_t i = 0; i < points.size(); ++i) {
		char where[96];
		std::snprintf(where, sizeof where, "left:%.2f%%;top:%.1f%%", std::min(points[i].first, 92.0), 100 * (y(points[i].second) - 5) / 40);
		out += "<span class=\"point\" style=\"" + std::string(where) + "\">" + html(lane.points[i].second) + " at "
			+ html(std::to_string(double(lane.points[i].first) / demoRate).substr(0, 3)) + " s</span>\n";
	}
	return out + "</div></figure>\n";
}

// A spectrogram with its axes: frequency labels at the left of each panel,
// seconds below, as text placed over the picture's margins.
std::string spectrogramFigure(const std::string &file, bool stereo) {
	using L = SpectrogramLayout;
	const int panels = stereo ? 2 : 1;
	const double height = panels * L::panelHeight + (panels - 1) * L::gap;
	std::string out = "<div class=\"spectrogram\">\n<div class=\"frame\"><img src=\"" + html(file)
		+ ".png\" alt=\"spectrogram of " + html(file) + "\">\n";
	const std::pair<double, const char *> ticks[] = {{50, "50 Hz"}, {100, "100"}, {200, "200"}, {500, "500"},
		{1000, "1 kHz"}, {2000, "2k"}, {5000, "5k"}, {10000, "10k"}, {20000, "20 kHz"}};
	for (int p = 0; p < panels; ++p) {
		const double top = p * (L::panelHeight + L::gap);
		for (const auto &[hz, label] : ticks) {
			const double y = top + L::panelHeight * (1 - std::log(hz / L::lowHz) / std::log(L::highHz / L::lowHz));
			char style[64];
			std::snprintf(style, sizeof style, "top:%.2f%%", 100 * y / height);
			// The labels at the ends sit inside their panel.
			const char *end = hz == L::lowHz ? " low" : hz == L::highHz ? " high" : "";
			out += "<span class=\"hz" + std::string(end) + "\" style=\"" + std::string(style) + "\">" + label + "</span>";
		}
		if (stereo) {
			char style[64];
			std::snprintf(style, sizeof style, "top:%.2f%%", 100 * (top + 4) / height);
			out += std::string("<span class=\"side\" style=\"") + style + "\">" + (p == 0 ? "left" : "right") + "</span>";
		}
	}
	out += "</div>\n<div class=\"seconds\">";
	for (int t = 0; t <= int(demoSeconds); ++t) {
		char style[64];
		std::snprintf(style, sizeof style, "left:%.2f%%", 100.0 * t / demoSeconds);
		out += "<span style=\"" + std::string(style) + "\">" + std::to_string(t) + (t == int(demoSeconds) ? " s" : "")
			+ "</span>";
	}
	return out + "</div>\n</div>\n";
}

bool writePage(const std::string &folder, const std::vector<DemoResult> &results, bool inputStereo, std::string &error) {
	const std::string path = folder + "/index.html", temporary = path + ".partial";
	std::ofstream page(temporary);
	page << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
		 << "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
		 << "<title>Lumbrel demo</title>\n<style>\n"
		 << "body { font: 16px/1.45 system-ui, sans-serif; margin: 2em auto; max-width: 1400px; padding: 0 1em; "
			"color: #222; background: #fafafa; }\n"
		 << "section { margin: 2.5em 0; border-top: 1px solid #ccc; }\n"
		 << ".listen { font-size: 1.1em; }\n"
		 << "pre { background: #eee; padding: .5em .8em; overflow-x: auto; white-space: pre-wrap; word-break: break-all; }\n"
		 << ".pair { display: grid; grid-template-columns: repeat(auto-fit, minmax(420px, 1fr)); gap: 1.5em; }\n"
		 << "figure { margin: 0; }\nfigcaption { font-weight: 600; margin: .3em 0; }\naudio { width: 100%; }\n"
		 << ".spectrogram { padding-left: 4.2em; }\n.frame { position: relative; }\n"
		 << ".frame img { display: block; width: 100%; image-rendering: auto; }\n"
		 << ".hz, .side { position: absolute; font-size: 12px; line-height: 1; transform: translateY(-50%); }\n"
		 << ".hz { right: 100%; padding-right: .4em; white-space: nowrap; color: #444; }\n"
		 << ".hz.low { transform: translateY(-100%); }\n.hz.high { transform: none; }\n"
		 << ".side { left: .4em; transform: none; color: #fff; font-weight: 600; }\n"
		 << ".seconds { position: relative; height: 1.4em; font-size: 12px; color: #444; }\n"
		 << ".seconds span { position: absolute; transform: translateX(-50%); white-space: nowrap; }\n"
		 << ".automation { margin: 1em 0 1em 4.2em; }\n"
		 << ".lane { position: relative; height: 60px; background: #fff; border: 1px solid #ddd; }\n"
		 << ".lane svg { width: 100%; height: 100%; }\n"
		 << ".lane polyline { fill: none; stroke: #c33; stroke-width: 2; }\n"
		 << ".point { position: absolute; font-size: 12px; background: #fffc; padding: 0 .2em; }\n"
		 << ".note { color: #777; }\n"
		 << "</style>\n</head>\n<body>\n<h1>Lumbrel demo</h1>\n"
		 << "<p>The same eight seconds, a voice, a plucked melody over a chord and a drum loop, through each of "
			"the effects. Before on the left, after on the right; the output lines up with the input sample for "
			"sample. Spectrograms: time across, frequency up on a logarithmic scale from 50 Hz to 20 kHz, level "
			"from -100 dBFS (black) to 0 dBFS (white); one panel for a file whose channels are alike, left and "
			"right when they differ.</p>\n"
		 << "<nav id=\"contents\"><h2>Contents</h2>\n<ul>\n";
	for (const auto &r : results) {
		page << "<li><a href=\"#" << html(r.file) << "\">" << html(r.name) << "</a>";
		if (!r.about.empty()) page << ": " << html(r.about);
		page << "</li>\n";
	}
	page << "</ul>\n</nav>\n";
	for (const auto &r : results) {
		page << "<section id=\"" << html(r.file) << "\">\n<h2>" << html(r.name) << "</h2>\n";
		if (!r.about.empty()) page << "<p class=\"listen\"><strong>Listen for:</strong> " << html(r.about) << "</p>\n";
		page << "<pre class=\"command\"><code>" << html(commandFor(r, folder)) << "</code></pre>\n";
		for (const auto &text : r.automation) page << automationPlot(text);
		char latency[96];
		std::snprintf(latency, sizeof latency, "latency %u samples (%.1f ms), compensated", r.latency, 1000.0 * r.latency / demoRate);
		page << "<p class=\"note\">" << latency << "</p>\n";
		if (!r.skipped.empty()) {
			page << "<p class=\"note\">Not in this build yet, so skipped:";
			for (const auto &setting : r.skipped) page << " <code>" << html(setting) << "</code>";
			page << "</p>\n";
		}
		page << "<div class=\"pair\">\n";
		for (const bool after : {false, true}) {
			const std::string file = after ? r.file : "input";
			page << "<figure class=\"" << (after ? "after" : "before") << "\"><figcaption>"
				 << (after ? "after" : "before") << "</figcaption>\n"
				 << "<audio controls preload=\"metadata\" src=\"" << html(file) << ".wav\"></audio>\n"
				 << spectrogramFigure(file, after ? r.stereo : inputStereo) << "</figure>\n";
		}
		page << "</div>\n</section>\n";
	}
	page << "</body>\n</html>\n";
	page.close();
	if (!page || std::rename(temporary.c_str(), path.c_str()) != 0) {
		std::remove(temporary.c_str());
		error = "cannot write " + path;
		return false;
	}
	return true;
}

} // namespace

bool runDemo(const host::Bundle &bundle, const DemoOptions &options, std::string &error) {
	std::error_code code;
	std::filesystem::create_directories(options.folder, code);
	if (code) {
		error = "cannot make the folder " + options.folder + ": " + code.message();
		return false;
	}
	Audio voice;
	if (!options.voice.empty()) {
		if (!readAudio(options.voice, voice, error)) return false;
		if (voice.sampleRate != demoRate) {
			error = "the voice " + options.voice + " must be at 48000 Hz (sox IN -r 48000 OUT resamples it)";
			return false;
		}
	}
	const Audio input = demoSignal(demoRate, options.voice.empty() ? nullptr : &voice);
	bool inputStereo = false;
	if (!writeAudio(options.folder + "/input.wav", input, error)
		|| !drawSpectrogram(input, options.folder + "/input.png", inputStereo, error)) {
		return false;
	}
	std::printf("demo: %.0f s of stereo at %.0f Hz through the %u plug-ins of %s\n", demoSeconds, demoRate,
		bundle.count(), bundle.path().c_str());

	std::vector<DemoResult> results;
	for (std::uint32_t i = 0; i < bundle.count(); ++i) {
		const auto *descriptor = bundle.descriptor(i);
		if (!descriptor) continue;
		DemoResult result;
		result.name = descriptor->name;
		result.file = shortName(descriptor->id);
		if (!renderShowcase(bundle, *descriptor, input, options, result, error)) return false;
		std::printf("  %-22s latency %4u samples (%4.1f ms), real-time factor %6.1f\n", result.file.c_str(),
			result.latency, 1000.0 * result.latency / demoRate, result.realTimeFactor);
		std::fflush(stdout);
		results.push_back(std::move(result));
	}

	if (!writePage(options.folder, results, inputStereo, error)) return false;
	std::printf("wrote %s/index.html: open it in a browser to hear and see each effect\n", options.folder.c_str());
	return true;
}

} // namespace lumbrel::render
