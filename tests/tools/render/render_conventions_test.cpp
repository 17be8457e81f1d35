// lumbrel-render's command-line conventions, run as a person runs it: what
// it accepts (values as --list prints them or as people type them, plug-in
// names by any part), the usual options, standard input and output, sample
// formats, and the faults it refuses or reports.
#include "tools/render/render_runner.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <sstream>


namespace {

using namespace lumbrel_test;

const std::string bundle = LUMBREL_BUNDLE_PATH;
const std::string tool = LUMBREL_RENDER_PATH;

struct RenderConventions : ::testing::Test {
	TempFolder folder;
	std::string input = folder / "in.wav"; // 16-bit stereo tone, half a second

	void SetUp() override { ASSERT_TRUE(writeSound(input, tone(24000, 0.25f), 48000, SF_FORMAT_WAV | SF_FORMAT_PCM_16)); }
	static std::vector<std::vector<float>> tone(std::size_t frames, float level) {
		std::vector<std::vector<float>> sound(2, std::vector<float>(frames));
		for (std::size_t i = 0; i < frames; ++i) sound[0][i] = sound[1][i] = level * float(std::sin(0.05 * double(i)));
		return sound;
	}
	RunResult run(std::vector<std::string> args) {
		args.insert(args.begin(), {"--bundle", bundle});
		return runRender(folder, args);
	}
	// The columns of a --list --plugin table, by its header, for each row.
	static std::vector<std::map<std::string, std::string>> table(const std::string &listing) {
		std::istringstream lines(listing);
		std::string line, header;
		std::vector<std::map<std::string, std::string>> rows;
		while (std::getline(lines, line)) {
			if (header.empty()) {
				if (line.find("KEY PATH") != std::string::npos) header = line;
				continue;
			}
			std::map<std::string, std::string> row;
			for (const char *column : {"KEY PATH", "NAME", "RANGE", "DEFAULT", "CURRENT"}) {
				const auto from = header.find(column);
				auto to = header.size();
				for (const char *next : {"NAME", "RANGE", "DEFAULT", "CURRENT"}) {
					const auto at = header.find(next);
					if (at > from && at < to) to = at;
				}
				std::string cell = from < line.size() ? line.substr(from, to == header.size() ? std::string::npos : to - from) : "";
				cell.erase(cell.find_last_not_of(' ') + 1);
				row[column] = cell;
			}
			rows.push_back(row);
		}
		return rows;
	}
	std::string current(const std::string &plugin, const std::string &setting, const std::string &keyPath) {
		const auto r = run({"--list", "--plugin", plugin, "--set", setting});
		EXPECT_EQ(r.exitCode, 0) << setting << ": " << r.err;
		for (const auto &row : table(r.out)) {
			if (row.at("KEY PATH") == keyPath) return row.at("CURRENT");
		}
		return "(no " + keyPath + ")";
	}
};

const char *const plugins[] = {"pitch-shifter-layer1", "octaver", "cleanup", "chorus", "chorus-detune", "transients",
	"swell", "decay-scale", "frequency-snap", "shepard-drop"};

TEST_F(RenderConventions, EveryValueThatListShowsIsAcceptedBack) {
	for (const char *plugin : plugins) {
		const auto listing = run({"--list", "--plugin", plugin});
		ASSERT_EQ(listing.exitCode, 0) << listing.err;
		std::vector<std::string> args = {"--list", "--plugin", plugin};
		for (const auto &row : table(listing.out)) {
			std::vector<std::string> texts = {row.at("DEFAULT"), row.at("CURRENT")};
			// A short stepped range lists its values: "off, on".
			if (row.at("RANGE").find(" to ") == std::string::npos) {
				std::stringstream range(row.at("RANGE"));
				for (std::string text; std::getline(range, text, ',');) texts.push_back(text.substr(text[0] == ' '));
			}
			for (const auto &text : texts) args.insert(args.end(), {"--set", row.at("KEY PATH") + "=" + text});
		}
		const auto r = run(args);
		EXPECT_EQ(r.exitCode, 0) << plugin << ": " << r.err;
	}
}

TEST_F(RenderConventions, ValuesAsPeopleTypeThem) {
	struct Case {
		const char *plugin, *setting, *keyPath, *shown;
	} cases[] = {
		{"swell", "time=1s", "swell.time", "1sec"},
		{"swell", "time=1 sec", "swell.time", "1sec"},
		{"swell", "time=500ms", "swell.time", "0.5sec"},
		{"swell", "autoGain=6db", "swell.autoGain", "6dB"},
		{"swell", "autoGain=6 dB", "swell.autoGain", "6dB"},
		{"decay-scale", "latency=0.005s", "engineConfig.latencyMs", "5ms"},
		{"pitch-shifter", "semitones=0", "peakShifterConfig.semitones", "none"},
		{"pitch-shifter", "semitones=-12st", "peakShifterConfig.semitones", "-12"},
		{"pitch-shifter", "semitones=+7 s.t.", "peakShifterConfig.semitones", "7"},
		{"frequency-snap", "baseNote=C#", "chordConfig.baseNote", "C#/Db"},
		{"frequency-snap", "baseNote=db", "chordConfig.baseNote", "C#/Db"},
		{"frequency-snap", "baseNote=c#/db", "chordConfig.baseNote", "C#/Db"},
	};
	for (const auto &c : cases) {
		EXPECT_NE(current(c.plugin, c.setting, c.keyPath).find(c.shown), std::string::npos) << c.setting;
	}
}

TEST_F(RenderConventions, PlugInsByAnyCaseUniquePartOrWord) {
	struct Case {
		const char *typed, *found;
	} cases[] = {
		{"Swell", "(varkesh.lumbrel.swell)"},
		{"LUMBREL: OCTAVER", "(varkesh.lumbrel.octaver)"},
		{"chor", "(varkesh.lumbrel.chorus)"},
		{"detune", "(varkesh.lumbrel.chorus-detune)"},
		{"snap", "(varkesh.lumbrel.frequency-snap)"},
		{"pitch", "(varkesh.lumbrel.pitch-shifter-layer1)"},
		{"shep", "(varkesh.lumbrel.shepard-drop)"},
	};
	for (const auto &c : cases) {
		const auto r = run({"--list", "--plugin", c.typed});
		EXPECT_EQ(r.exitCode, 0) << c.typed << ": " << r.err;
		EXPECT_NE(r.out.substr(0, r.out.find('\n')).find(c.found), std::string::npos)
			<< c.typed << " found " << r.out.substr(0, r.out.find('\n'));
	}
	auto r = run({"--list", "--plugin", "chrous"});
	EXPECT_EQ(r.exitCode, 2);
	EXPECT_NE(r.err.find("did you mean chorus"), std::string::npos) << r.err;
	r = run({"--list", "--plugin", "zzzzzz"});
	EXPECT_NE(r.err.find("see --list"), std::string::npos) << r.err;
}

TEST_F(RenderConventions, UsualOptionsAndExitCodes) {
	auto r = runRender(folder, {"--version"});
	EXPECT_EQ(r.exitCode, 0);
	EXPECT_EQ(r.out.rfind("lumbrel-render 1.", 0), 0u) << r.out;
	for (const char *help : {"-h", "--help"}) {
		r = runRender(folder, {help});
		EXPECT_EQ(r.exitCode, 0);
		EXPECT_NE(r.out.find("Exit status: 0"), std::string::npos) << r.out;
	}
	struct Case {
		std::vector<std::string> args;
		int exitCode;
		const char *words;
	} cases[] = {
		{{"--plugin=swell", "--set=time=1s", "-q", input, folder / "a.wav"}, 0, ""},
		{{"--quiet", "--plugin", "swell", "--state-out", folder / "a.state"}, 0, ""},
		{{"--plugin", "swell", "--frobnicate", input, folder / "b.wav"}, 2, "unknown option"},
		{{"--plugin", "swell", "--force=yes", input, folder / "b.wav"}, 2, "--force takes no value"},
		{{"--plugin", "swell", "--set", "time=slow", input, folder / "b.wav"}, 2, "not a value"},
		{{"--plugin", "swell", folder / "missing.wav", folder / "b.wav"}, 1, "cannot read"},
	};
	for (const auto &c : cases) {
		r = run(c.args);
		EXPECT_EQ(r.exitCode, c.exitCode) << c.args[1] << ": " << r.err;
		EXPECT_NE(r.err.find(c.words), std::string::npos) << r.err;
		if (c.exitCode == 0) {
			EXPECT_EQ(r.out + r.err, "") << "quiet";
		}
	}
}

TEST_F(RenderConventions, StandardInputAndOutputCarryWav) {
	const std::string out = folder / "piped.wav", err = folder / "err.txt";
	const std::string command = "'" + tool + "' --bundle '" + bundle + "' --plugin decay-scale - - < '" + input + "' > '"
		+ out + "' 2> '" + err + "'";
	ASSERT_EQ(std::system(command.c_str()), 0) << readText(err);
	SoundFile sound;
	ASSERT_TRUE(readSound(out, sound));
	EXPECT_EQ(sound.frames(), 24000u);
	EXPECT_EQ(sound.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16) << "the input's format";
	EXPECT_NE(readText(err).find("wrote standard output"), std::string::npos) << "the summary stays off the audio";
}

TEST_F(RenderConventions, OutputKeepsTheInputsSampleFormatUnlessAsked) {
	struct Case {
		const char *name;
		std::vector<std::string> args;
		int format; // 0: refused
	} cases[] = {
		{"same.wav", {}, SF_FORMAT_WAV | SF_FORMAT_PCM_16},
		{"same.flac", {}, SF_FORMAT_FLAC | SF_FORMAT_PCM_16},
		{"wide.wav", {"--bits", "24"}, SF_FORMAT_WAV | SF_FORMAT_PCM_24},
		{"float.aiff", {"--bits", "32"}, SF_FORMAT_AIFF | SF_FORMAT_FLOAT},
		{"bits.ogg", {"--bits", "16"}, 0},
		{"float.flac", {"--bits", "32"}, 0},
	};
	for (const auto &c : cases) {
		std::vector<std::string> args = {"--plugin", "decay-scale"};
		args.insert(args.end(), c.args.begin(), c.args.end());
		args.insert(args.end(), {input, folder / c.name});
		const auto r = run(args);
		SoundFile sound;
		if (!c.format) {
			EXPECT_EQ(r.exitCode, 2) << c.name;
			EXPECT_FALSE(readSound(folder / c.name, sound)) << c.name;
			continue;
		}
		ASSERT_EQ(r.exitCode, 0) << c.name << ": " << r.err;
		ASSERT_TRUE(readSound(folder / c.name, sound));
		EXPECT_EQ(sound.format, c.format) << c.name;
	}
}

TEST_F(RenderConventions, ClippingIsReported) {
	const std::string loud = folder / "loud.wav";
	ASSERT_TRUE(writeSound(loud, tone(24000, 1.5f), 48000)); // float, above full scale
	auto r = run({"--plugin", "decay-scale", "--bits", "16", loud, folder / "clipped.wav"});
	EXPECT_EQ(r.exitCode, 0) << r.err;
	EXPECT_NE(r.err.find("clipped "), std::string::npos) << r.err;
	EXPECT_NE(r.err.find("(peak +"), std::string::npos) << r.err;
	r = run({"--plugin", "decay-scale", loud, folder / "float.wav"});
	EXPECT_NE(r.err.find("warning: peak +"), std::string::npos) << r.err;
	r = run({"--plugin", "decay-scale", input, folder / "quiet.wav"});
	EXPECT_EQ(r.err, "");
}

TEST_F(RenderConventions, RefusesWhatWouldGoWrong) {
	// A WAV cut short: its header promises twice the samples it holds.
	const std::string whole = readText(input), cut = folder / "cut.wav";
	std::ofstream(cut, std::ios::binary) << whole.substr(0, whole.size() / 2);
	const std::string preset = folder / "swell.state";
	ASSERT_EQ(run({"--plugin", "swell", "--state-out", preset}).exitCode, 0);
	struct Case {
		std::vector<std::string> args;
		int exitCode;
		const char *words;
	} cases[] = {
		{{"--plugin", "swell", cut, folder / "out.wav"}, 1, "truncated"},
		{{"--plugin", "swell", input, input}, 2, "add --force"},
		{{"--plugin", "octaver", "--state-in", preset, input, folder / "out.wav"}, 2,
			"is a saved state of Lumbrel: Swell, not of Lumbrel: Octaver"},
		{{"--plugin", "decay-scale", "--automate", "latency=0:5ms,0.2:10ms", input, folder / "out.wav"}, 2,
			"changes the plug-in's latency"},
	};
	for (const auto &c : cases) {
		const auto r = run(c.args);
		EXPECT_EQ(r.exitCode, c.exitCode) << c.words << ": " << r.err;
		EXPECT_NE(r.err.find(c.words), std::string::npos) << r.err;
		EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
	}
	EXPECT_FALSE(std::filesystem::exists(folder / "out.wav"));
	EXPECT_EQ(readText(input), whole);
	// With --force the input is replaced, whole, by the render.
	ASSERT_EQ(run({"--plugin", "swell", "--force", input, input}).exitCode, 0);
	SoundFile sound;
	ASSERT_TRUE(readSound(input, sound));
	EXPECT_EQ(sound.frames(), 24000u);
}

TEST_F(RenderConventions, ProgressFitsANarrowTerminalWithTimes) {
	const std::string longer = folder / "long.wav";
	ASSERT_TRUE(writeSound(longer, tone(48000 * 20, 0.25f), 48000));
	std::vector<std::string> args = {tool, "--bundle", bundle, "--plugin", "chorus", longer, folder / "a-long-name-for-the-output.wav"};
	const RunResult run = runOnTerminal(args, 40);
	const std::string &screen = run.out;
	ASSERT_EQ(run.exitCode, 0) << screen;
	const std::string bar = screen.substr(0, screen.find("Lumbrel"));
	EXPECT_EQ(bar.find('\n'), std::string::npos) << "one updating line:\n" << bar;
	std::stringstream updates(bar);
	for (std::string update; std::getline(updates, update, '\r');) EXPECT_LT(update.size(), 40u) << update;
	EXPECT_NE(bar.find("0:0"), std::string::npos) << bar;
	EXPECT_NE(bar.find(" left"), std::string::npos) << bar;
}

} // namespace
