// lumbrel-render run as a person runs it: listing, parameters by name and
// text, presets, and every error a person can make, each a one-line message,
// a non-zero exit and no output file.
#include "tools/render/render_runner.h"

#include "support/signals.h"

#include <gtest/gtest.h>

#include <algorithm>


#include <string>
#include <vector>

namespace {

using namespace lumbrel_test;

const std::string bundle = LUMBREL_BUNDLE_PATH;

struct RenderCli : ::testing::Test {
	TempFolder folder;
	std::string input = folder / "in.wav";

	void SetUp() override {
		// Half a second of a quiet stereo tone.
		std::vector<std::vector<float>> tone(2, std::vector<float>(24000));
		for (std::size_t i = 0; i < tone[0].size(); ++i) tone[0][i] = tone[1][i] = 0.1f * float(std::sin(0.05 * double(i)));
		ASSERT_TRUE(writeSound(input, tone, 48000));
	}
	RunResult run(std::vector<std::string> args) {
		args.insert(args.begin(), {"--bundle", bundle});
		return runRender(folder, args);
	}
	// A failed run: non-zero exit, one line on stderr holding `words`.
	void expectError(const RunResult &r, const std::string &words) {
		EXPECT_NE(r.exitCode, 0);
		EXPECT_NE(r.err.find(words), std::string::npos) << r.err;
		EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
	}
	// The line of a --list --plugin table that starts with `keyPath`.
	static std::string row(const std::string &listing, const std::string &keyPath) {
		const auto at = listing.find("  " + keyPath + " ");
		if (at == std::string::npos) return "";
		return listing.substr(at, listing.find('\n', at) - at);
	}
};

TEST_F(RenderCli, ListsThePlugInsOfTheBundle) {
	const auto r = run({"--list"});
	ASSERT_EQ(r.exitCode, 0) << r.err;
	for (const char *id : {"varkesh.lumbrel.pitch-shifter-layer1", "varkesh.lumbrel.octaver", "varkesh.lumbrel.cleanup",
			 "varkesh.lumbrel.chorus", "varkesh.lumbrel.chorus-detune", "varkesh.lumbrel.transients",
			 "varkesh.lumbrel.swell", "varkesh.lumbrel.decay-scale", "varkesh.lumbrel.frequency-snap",
			 "varkesh.lumbrel.shepard-drop"}) {
		EXPECT_NE(r.out.find(id), std::string::npos) << id;
	}
	EXPECT_NE(r.out.find("Lumbrel: Swell"), std::string::npos);
	EXPECT_EQ(runRender(folder, {"--list", bundle}).out, r.out) << "the bundle as a plain argument";
}

TEST_F(RenderCli, ListsParametersWithKeyPathRangeDefaultAndCurrentText) {
	const auto r = run({"--list", "--plugin", "decay-scale", "--set", "latency=5ms", "--set", "direct=off"});
	ASSERT_EQ(r.exitCode, 0) << r.err;
	const std::string latency = row(r.out, "engineConfig.latencyMs");
	ASSERT_FALSE(latency.empty()) << r.out;
	EXPECT_NE(latency.find("latency"), std::string::npos) << latency;
	EXPECT_NE(latency.find("2ms to 15ms"), std::string::npos) << latency;
	EXPECT_NE(latency.find("10ms"), std::string::npos) << "default: " << latency;
	EXPECT_NE(latency.find("5ms"), std::string::npos) << "current: " << latency;
	EXPECT_NE(row(r.out, "engineConfig.directCopy").find("off, on"), std::string::npos) << r.out;
	for (const char *path : {"decay.smoothing", "decay.tonalLimit", "decay.rt20", "decay.rangeDb", "decay.factor"}) {
		EXPECT_FALSE(row(r.out, path).empty()) << path << " in\n" << r.out;
	}
}

TEST_F(RenderCli, PresetsSavedAndLoaded) {
	const std::string preset = folder / "slow.state";
	auto r = run({"--plugin", "swell", "--set", "time=1.5sec", "--set", "swell.autoGain=6dB", "--state-out", preset});
	ASSERT_EQ(r.exitCode, 0) << r.err;
	const std::string bytes = readText(preset);
	ASSERT_FALSE(bytes.empty());
	EXPECT_EQ(static_cast<unsigned char>(bytes[0]), 0xBF) << "a saved state is one CBOR map";

	r = run({"--list", "--plugin", "swell", "--state-in", preset});
	ASSERT_EQ(r.exitCode, 0) << r.err;
	EXPECT_NE(row(r.out, "swell.time").find("1.5sec"), std::string::npos) << r.out;
	EXPECT_NE(row(r.out, "swell.autoGain").find("6dB"), std::string::npos) << r.out;
	// --set goes on top of the preset.
	r = run({"--list", "--plugin", "swell", "--state-in", preset, "--set", "time=0.5sec"});
	EXPECT_NE(row(r.out, "swell.time").find("0.5sec"), std::string::npos) << r.out;
	EXPECT_NE(row(r.out, "swell.autoGain").find("6dB"), std::string::npos) << r.out;

	// A render from the preset is the render with the same --set values.
	ASSERT_EQ(run({"--plugin", "swell", "--state-in", preset, input, folder / "a.wav"}).exitCode, 0);
	ASSERT_EQ(
		run({"--plugin", "swell", "--set", "time=1.5sec", "--set", "autoGain=6", input, folder / "b.wav"}).exitCode, 0);
	SoundFile a, b;
	ASSERT_TRUE(readSound(folder / "a.wav", a) && readSound(folder / "b.wav", b));
	EXPECT_EQ(a.channels, b.channels);
}

TEST_F(RenderCli, AutomationReachesThePlugIn) {
	// The state after the render holds each course's last value.
	const std::string state = folder / "after.state";
	auto r = run({"--plugin", "swell", "--automate", "time=0:0.1sec,0.25:1.5sec", "--automate",
		"autoGain=0:0,0.2:24dB,0.2:3dB", "--state-out", state, input, folder / "out.wav"});
	ASSERT_EQ(r.exitCode, 0) << r.err;
	r = run({"--list", "--plugin", "swell", "--state-in", state});
	EXPECT_NE(row(r.out, "swell.time").find("1.5sec"), std::string::npos) << r.out;
	EXPECT_NE(row(r.out, "swell.autoGain").find("3dB"), std::string::npos) << r.out;

	expectError(run({"--plugin", "swell", "--automate", "time=0:0.1sec,oops", input, folder / "x.wav"}), "TIME:VALUE");
	expectError(run({"--plugin", "swell", "--automate", "tiem=0:1sec", input, folder / "x.wav"}), "swell.time");
	expectError(
		run({"--plugin", "swell", "--automate", "time=0:1sec,1:9sec", input, folder / "x.wav"}), "outside the range");
}

TEST_F(RenderCli, UnknownParameterIsAnErrorThatListsCloseMatches) {
	const auto r = run({"--plugin", "swell", "--set", "tmie=1sec", input, folder / "out.wav"});
	expectError(r, "no parameter \"tmie\"");
	EXPECT_NE(r.err.find("swell.time"), std::string::npos) << r.err;
	EXPECT_FALSE(std::filesystem::exists(folder / "out.wav"));
}

TEST_F(RenderCli, BadValuesAreErrors) {
	expectError(run({"--plugin", "swell", "--set", "time=slow", input, folder / "out.wav"}),
		"\"slow\" is not a value of swell.time");
	expectError(run({"--plugin", "swell", "--set", "time=1min", input, folder / "out.wav"}), "\"sec\"");
	expectError(run({"--plugin", "swell", "--set", "time=9sec", input, folder / "out.wav"}), "outside the range");
	expectError(run({"--plugin", "swell", "--set", "iterations=3", input, folder / "out.wav"}), "1, 2, 4, 8");
	expectError(run({"--plugin", "swell", "--set", "time", input, folder / "out.wav"}), "KEY=VALUE");
	EXPECT_FALSE(std::filesystem::exists(folder / "out.wav"));
}

TEST_F(RenderCli, FileErrorsAreClearAndLeaveNoFiles) {
	const std::string out = folder / "out.wav";
	expectError(run({"--plugin", "swell", folder / "missing.wav", out}), "cannot read");
	std::ofstream(folder / "junk.wav") << "this is not audio";
	expectError(run({"--plugin", "swell", folder / "junk.wav", out}), "cannot read");
	expectError(run({"--plugin", "swell", input, folder / "no-such-folder/out.wav"}), "cannot write");
	std::filesystem::create_directory(folder / "taken.wav");
	expectError(run({"--plugin", "swell", input, folder / "taken.wav"}), "cannot write");
	EXPECT_TRUE(std::filesystem::is_directory(folder / "taken.wav"));
	expectError(run({"--plugin", "swell", input, folder / "out.mp3"}), "output format");
	expectError(run({"--plugin", "no-such-effect", input, out}), "no plug-in \"no-such-effect\"");
	expectError(runRender(folder, {"--bundle", folder / "none.clap", "--plugin", "swell", input, out}), "no bundle");
	std::ofstream(folder / "junk.state") << "not a state";
	expectError(run({"--plugin", "swell", "--state-in", folder / "junk.state", input, out}), "not a saved plug-in state");
	expectError(run({"--plugin", "swell", "--state-in", folder / "none.state", input, out}), "cannot read the state");
	expectError(run({"--plugin", "swell", "--frobnicate", input, out}), "unknown option --frobnicate");
	expectError(run({"--plugin", "swell", "--block", "0", input, out}), "--block");
	expectError(run({"--plugin", "swell", input}), "one input file and one output file");
	for (const auto &name : folder.files()) {
		EXPECT_EQ(name.find(".partial"), std::string::npos) << name;
		EXPECT_NE(name, "out.wav");
	}
}

TEST_F(RenderCli, AFailedRenderLeavesTheOldOutputAsItWas) {
	const std::string out = folder / "out.wav";
	ASSERT_EQ(run({"--plugin", "swell", input, out}).exitCode, 0);
	const std::string before = readText(out);
	// Three channels don't fit the plug-in's stereo port: found after reading.
	std::vector<std::vector<float>> three(3, std::vector<float>(4800, 0.1f));
	ASSERT_TRUE(writeSound(folder / "three.wav", three, 48000));
	expectError(run({"--plugin", "swell", folder / "three.wav", out}), "3 channels");
	EXPECT_EQ(readText(out), before);
	EXPECT_EQ(folder.files().size(), 3u) << "in.wav, three.wav, out.wav";
}

TEST_F(RenderCli, ReportsLatencyAndRealTimeFactorWithoutAProgressBarOffTerminal) {
	const auto r = run({"--plugin", "decay-scale", input, folder / "out.wav"});
	ASSERT_EQ(r.exitCode, 0) << r.err;
	EXPECT_NE(r.out.find("latency 480 samples (10.00 ms)"), std::string::npos) << r.out;
	EXPECT_NE(r.out.find("real-time factor"), std::string::npos) << r.out;
	EXPECT_EQ(r.err, "") << "no progress bar when stderr isn't a terminal";
}

TEST_F(RenderCli, DrawsAProgressBarOnATerminal) {
	std::vector<std::string> args = {
		LUMBREL_RENDER_PATH, "--bundle", bundle, "--plugin", "swell", input, folder / "out.wav"};
	const RunResult run = runOnTerminal(args);
	const std::string &screen = run.out;
	EXPECT_EQ(run.exitCode, 0) << screen;
	EXPECT_NE(screen.find("out.wav"), std::string::npos) << screen;
	EXPECT_NE(screen.find("[#"), std::string::npos) << screen;
	EXPECT_NE(screen.find("100%"), std::string::npos) << screen;
	EXPECT_NE(screen.find("wrote"), std::string::npos) << screen;
}

} // namespace

namespace {

// The demo writes a file per plug-in, the input's length each, and a page
// that pairs each with the input.
TEST(RenderDemo, WritesAFilePerPlugInAndAPageThatPairsThem) {
	TempFolder folder;
	const std::string out = folder / "demo";
	const auto r = runRender(folder, {"--demo", out, bundle});
	ASSERT_EQ(r.exitCode, 0) << r.err << r.out;
	SoundFile input;
	ASSERT_TRUE(readSound(out + "/input.wav", input));
	EXPECT_EQ(input.channels.size(), 2u);
	EXPECT_EQ(input.frames(), 8u * 48000u);
	const std::string page = readText(out + "/index.html");
	const bool pictures = std::filesystem::exists(out + "/input.png");
	for (const char *name : {"pitch-shifter-layer1", "octaver", "cleanup", "chorus", "chorus-detune", "transients",
			 "swell", "decay-scale", "frequency-snap", "shepard-drop"}) {
		SoundFile sound;
		ASSERT_TRUE(readSound(out + "/" + name + ".wav", sound)) << name;
		EXPECT_EQ(sound.frames(), input.frames()) << name;
		EXPECT_GT(rms(sound.channels[0]), 0.01) << name << " is not silent";
		EXPECT_NE(page.find(std::string("src=\"") + name + ".wav\""), std::string::npos) << name;
		if (pictures) {
			EXPECT_TRUE(std::filesystem::exists(out + "/" + name + ".png")) << name;
		}
	}
	// A setting for a parameter that isn't there yet is a note, not a failure.
	for (std::size_t at = r.out.find("note:"); at != std::string::npos; at = r.out.find("note:", at + 1)) {
		const std::string line = r.out.substr(at, r.out.find('\n', at) - at);
		EXPECT_TRUE(line.find("skipped") != std::string::npos || line.find("spectrograms") != std::string::npos) << line;
	}
}

} // namespace
