#include "render/demo.h"

#include "host/host.h"
#include "host/instance.h"
#include "render/audio_file.h"
#include "render/demo_signal.h"
#include "render/offline_render.h"
#include "render/param_settings.h"
#include "render/param_table.h"
#include "render/progress_bar.h"
#include "render/spectrogram.h"

#include <algorithm>
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
	const char *about;
	std::vector<std::pair<std::string, std::string>> values;
	std::vector<std::string> automation;
};

const std::vector<Showcase> &showcases() {
	static const std::vector<Showcase> list = {
		{"pitch-shifter-layer1",
			"Up a fifth. Timbre correction keeps the formants of the voice where they were, so that it doesn't "
			"sound smaller.",
			{{"peakShifterConfig.semitones", "7"}, {"timbreCorrection", "0.5"}},
			{}},
		{"octaver", "A copy an octave down, and a fainter one an octave up, under the dry sound.",
			{{"octaves.gainD1", "0.8"}, {"octaves.gainU1", "0.3"}, {"mix", "0.7"}}, {}},
		{"cleanup",
			"Learns the steady hiss under everything and takes it away: listen to the gaps between the words.",
			{{"nrMode", "adaptive"}, {"nrCleanup", "2"}, {"nrMix", "1"}}, {}},
		{"chorus", "Each band drifts a little in pitch and phase on its own, spread across the stereo field.",
			{{"chorusConfig.detune", "5%"}, {"chorusConfig.width", "1.2"}, {"chorusConfig.mix", "1"}}, {}},
		{"chorus-detune", "Three voices, detuned by a slowly turning oscillator.",
			{{"chorusConfig.detune", "15 cents"}, {"chorusConfig.spin", "0.5 Hz"}, {"chorusConfig.width", "1.2"},
				{"chorusConfig.mix", "1"}},
			{}},
		{"transients", "Harder attacks and less sustain: drum hits and plucks jump out, the held chord steps back.",
			{{"gains.attack", "3"}, {"gains.sustain", "0.4"}}, {}},
		{"swell", "Every new sound is held back and swells in over a second, like a bowed note.",
			{{"swell.time", "1 sec"}}, {}},
		{"decay-scale", "Ringing notes die away far more slowly, while noisy sounds pass as they were.",
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
	std::vector<std::string> applied, skipped;
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
	for (const auto &[key, value] : settings.values) result.applied.push_back(key + "=" + value);
	for (const auto &text : settings.automation) result.applied.push_back(text);
	for (const auto &text : resolved.skipped) {
		result.applied.erase(std::find(result.applied.begin(), result.applied.end(), text));
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
	return writeAudio(options.folder + "/" + result.file + ".wav", output, error);
}

bool writePage(const std::string &path, const std::vector<DemoResult> &results, bool pictures, std::string &error) {
	const std::string temporary = path + ".partial";
	std::ofstream page(temporary);
	page << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
		 << "<title>Lumbrel demo</title>\n<style>\n"
		 << "body { font-family: system-ui, sans-serif; margin: 2em auto; max-width: 1520px; padding: 0 1em; "
			"color: #222; background: #fafafa; }\n"
		 << "section { margin: 2.5em 0; border-top: 1px solid #ccc; }\n"
		 << ".pair { display: grid; grid-template-columns: 1fr 1fr; gap: 1.5em; }\n"
		 << ".pair img { width: 100%; border: 1px solid #ddd; }\n"
		 << "audio { width: 100%; }\n.note { color: #777; }\ncode { background: #eee; padding: 0 .3em; }\n"
		 << "</style>\n</head>\n<body>\n<h1>Lumbrel demo</h1>\n"
		 << "<p>The same eight seconds, a voice, a plucked melody over a chord and a drum loop, through each of "
			"the effects. Before on the left, after on the right; the output lines up with the input sample for "
			"sample.</p>\n";
	for (const auto &r : results) {
		page << "<section>\n<h2>" << html(r.name) << "</h2>\n";
		if (!r.about.empty()) page << "<p>" << html(r.about) << "</p>\n";
		page << "<p>";
		for (const auto &setting : r.applied) page << "<code>" << html(setting) << "</code> ";
		page << "<span class=\"note\">latency " << r.latency << " samples (" << 1000.0 * r.latency / demoRate
			 << " ms)</span></p>\n";
		if (!r.skipped.empty()) {
			page << "<p class=\"note\">Not in this build yet, so skipped:";
			for (const auto &setting : r.skipped) page << " <code>" << html(setting) << "</code>";
			page << "</p>\n";
		}
		page << "<div class=\"pair\">\n";
		for (const std::string &file : {std::string("input"), r.file}) {
			page << "<figure><figcaption>" << (file == "input" ? "before" : "after") << "</figcaption>\n"
				 << "<audio controls preload=\"metadata\" src=\"" << html(file) << ".wav\"></audio>\n";
			if (pictures) page << "<img src=\"" << html(file) << ".png\" alt=\"spectrogram of " << html(file) << "\">\n";
			page << "</figure>\n";
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
	if (!writeAudio(options.folder + "/input.wav", input, error)) return false;
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

	bool pictures = true;
	std::vector<std::pair<std::string, std::string>> files = {{"input", "demo input"}};
	for (const auto &r : results) files.emplace_back(r.file, r.name);
	for (const auto &[file, title] : files) {
		const std::string base = options.folder + "/" + file;
		if (!drawSpectrogram(base + ".wav", base + ".png", title, error)) {
			std::printf("  note: no spectrograms: %s\n", error.c_str());
			pictures = false;
			break;
		}
	}
	if (!writePage(options.folder + "/index.html", results, pictures, error)) return false;
	std::printf("wrote %s/index.html: open it in a browser to hear and see each effect\n", options.folder.c_str());
	return true;
}

} // namespace lumbrel::render
