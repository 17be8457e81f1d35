// lumbrel-render: its units (key paths, parameters found by the text people type, --automate as value events) and the
// program run as a person runs it: listings, audio, files and every mistake (one line, non-zero exit, no output file).
// Audio files are made and read with libsndfile directly, not the tool's code.
#include "host/bundle.h"
#include "host/host.h"
#include "host/instance.h"
#include "host/key_paths.h"
#include "render/automation.h"
#include "render/param_table.h"
#include "support/signals.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <pty.h>
#include <random>
#include <regex>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace lumbrel;
using namespace lumbrel::render;
using namespace lumbrel_test;
namespace fs = std::filesystem;

const std::string bundle = LUMBREL_BUNDLE_PATH, tool = LUMBREL_RENDER_PATH;

struct RunResult { int exitCode = -1; std::string out, err; };

std::string readText(const std::string &path) {
	std::ifstream file(path, std::ios::binary);
	return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Runs a program on a terminal of its own, `columns` wide: its exit code and all it drew there.
RunResult runOnTerminal(std::vector<std::string> args, unsigned short columns) {
	std::vector<char *> argv;
	for (auto &a : args) argv.push_back(a.data());
	argv.push_back(nullptr);
	winsize size{24, columns, 0, 0};
	int terminal = -1;
	RunResult result;
	const pid_t pid = forkpty(&terminal, nullptr, nullptr, &size);
	if (pid == 0) execv(argv[0], argv.data()), _exit(127);
	char buffer[512];
	for (ssize_t n; pid > 0 && (n = read(terminal, buffer, sizeof buffer)) > 0;) result.out.append(buffer, std::size_t(n));
	int status = 0;
	if (pid > 0) waitpid(pid, &status, 0), close(terminal);
	result.exitCode = pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
	return result;
}

struct SoundFile {
	int format = 0; // SF_FORMAT_* of the file
	double sampleRate = 0;
	std::vector<std::vector<float>> channels;
	std::size_t frames() const { return channels.empty() ? 0 : channels[0].size(); }
};

bool writeSound(const std::string &path, const std::vector<std::vector<float>> &channels, double sampleRate,
	int format = SF_FORMAT_WAV | SF_FORMAT_FLOAT) {
	SF_INFO info{0, int(sampleRate), int(channels.size()), format, 0, 0};
	SNDFILE *file = sf_open(path.c_str(), SFM_WRITE, &info);
	if (!file) return false;
	std::vector<float> interleaved;
	for (std::size_t i = 0; i < channels[0].size(); ++i)
		for (const auto &channel : channels) interleaved.push_back(channel[i]);
	const sf_count_t frames = sf_count_t(channels[0].size());
	return (sf_writef_float(file, interleaved.data(), frames) == frames) & (sf_close(file) == 0);
}

bool readSound(const std::string &path, SoundFile &sound) {
	SF_INFO info{};
	SNDFILE *file = sf_open(path.c_str(), SFM_READ, &info);
	if (!file) return false;
	std::vector<float> interleaved(std::size_t(info.frames * info.channels));
	const auto frames = std::size_t(sf_readf_float(file, interleaved.data(), info.frames));
	sf_close(file);
	sound = {info.format, double(info.samplerate), std::vector<std::vector<float>>(std::size_t(info.channels))};
	for (std::size_t c = 0; c < sound.channels.size(); ++c)
		for (std::size_t i = 0; i < frames; ++i) sound.channels[c].push_back(interleaved[i * info.channels + c]);
	return true;
}

std::size_t peakIndex(const std::vector<float> &x) {
	return std::size_t(std::max_element(x.begin(), x.end(), [](float a, float b) { return std::abs(a) < std::abs(b); })
		- x.begin());
}

struct RenderCli : ::testing::Test {
	fs::path root = fs::temp_directory_path() / ("lumbrel-render-test-" + std::to_string(std::random_device()()));
	std::string input = folder("in.wav"); // 16-bit stereo tone, half a second
	void SetUp() override {
		fs::create_directories(root);
		ASSERT_TRUE(writeSound(input, tone(24000, 0.25f), 48000, SF_FORMAT_WAV | SF_FORMAT_PCM_16));
	}
	void TearDown() override { std::error_code ignored; fs::remove_all(root, ignored); }
	std::string folder(const std::string &name) const { return (root / name).string(); }
	static std::vector<std::vector<float>> tone(std::size_t frames, float level) {
		return std::vector<std::vector<float>>(2, sine(48000 * 0.05 / (2 * M_PI), 48000, frames, level));
	}
	// Runs the tool (with --bundle unless `plain`) through the shell.
	RunResult run(std::vector<std::string> args, bool plain = false) {
		if (!plain) args.insert(args.begin(), {"--bundle", bundle});
		std::string command = "'" + tool + "' ";
		for (const auto &a : args) command += "'" + a + "' ";
		const int status = std::system((command + "> '" + folder(".out") + "' 2> '" + folder(".err") + "'").c_str());
		RunResult result{WIFEXITED(status) ? WEXITSTATUS(status) : -1, readText(folder(".out")), readText(folder(".err"))};
		fs::remove(folder(".out")), fs::remove(folder(".err"));
		return result;
	}
	// The row of `keyPath` in the listing that `args` ask for.
	std::string row(std::vector<std::string> args, const std::string &keyPath) {
		args.insert(args.begin(), "--list");
		const auto r = run(args);
		EXPECT_EQ(r.exitCode, 0) << r.err;
		const auto at = r.out.find("  " + keyPath + " ");
		return at == std::string::npos ? "(no " + keyPath + ")" : r.out.substr(at, r.out.find('\n', at) - at);
	}
	// A second of silence but for a click at clickAt.
	static constexpr std::size_t clickAt = 12345;
	std::string click(std::size_t channels, double rate) {
		std::vector<std::vector<float>> sound(channels, std::vector<float>(std::size_t(rate)));
		for (auto &channel : sound) channel[clickAt] = 0.8f;
		const std::string path = folder("click" + std::to_string(channels) + ".wav");
		EXPECT_TRUE(writeSound(path, sound, rate));
		return path;
	}
	SoundFile render(std::vector<std::string> args, RunResult *report = nullptr) {
		const auto r = run(args);
		EXPECT_EQ(r.exitCode, 0) << r.err;
		if (report) *report = r;
		SoundFile sound;
		EXPECT_TRUE(readSound(args.back(), sound)) << args.back();
		return sound;
	}
};

TEST_F(RenderCli, ListsPlugInsAndParametersAndTakesValuesAndPlugInsAsPeopleTypeThem) {
	const auto all = run({"--list"});
	ASSERT_EQ(all.exitCode, 0) << all.err;
	std::size_t listed = 0;
	for (std::size_t at = 0; (at = all.out.find("\n  varkesh.lumbrel.", at)) != std::string::npos; ++at) ++listed;
	EXPECT_EQ(listed, 10u) << all.out;
	EXPECT_EQ(run({"--list", bundle}, true).out, all.out) << "the bundle as a plain argument";
	// Name, range, default and current value, with units.
	const std::string latency = row({"--plugin", "decay-scale", "--set", "latency=0.005s"}, "engineConfig.latencyMs")
		+ row({"--plugin", "frequency-snap", "--set", "baseNote=db"}, "chordConfig.baseNote");
	for (const char *part : {"latency", "2ms to 15ms", "10ms", "5ms", "C#/Db"})
		EXPECT_NE(latency.find(part), std::string::npos) << latency;
	// Plug-ins by any case, unique part or word.
	for (const auto &[typed, found] : std::map<std::string, std::string>{{"LUMBREL: OCTAVER", "octaver"},
			 {"chor", "chorus"}, {"detune", "chorus-detune"}, {"snap", "frequency-snap"}, {"shep", "shepard-drop"}}) {
		const auto r = run({"--list", "--plugin", typed});
		EXPECT_NE(r.out.substr(0, r.out.find('\n')).find("(varkesh.lumbrel." + found + ")"), std::string::npos) << typed;
	}
}

TEST_F(RenderCli, PresetsAndAutomationReachThePlugIn) {
	const std::string preset = folder("slow.state");
	ASSERT_EQ(run({"--plugin", "swell", "--set", "time=1.5sec", "--set", "swell.autoGain=6dB", "--state-out", preset})
				  .exitCode, 0);
	EXPECT_EQ(readText(preset).substr(0, 1), "\xBF") << "a saved state is one CBOR map";
	EXPECT_NE(row({"--plugin", "swell", "--state-in", preset}, "swell.autoGain").find("6dB"), std::string::npos);
	EXPECT_NE(row({"--plugin", "swell", "--state-in", preset, "--set", "time=0.5sec"}, "swell.time").find("0.5sec"),
		std::string::npos) << "--set goes on top of the preset";
	const SoundFile a = render({"--plugin", "swell", "--state-in", preset, input, folder("a.wav")});
	const SoundFile b = render({"--plugin", "swell", "--set", "time=1.5sec", "--set", "autoGain=6", input, folder("b.wav")});
	EXPECT_EQ(a.channels, b.channels) << "a render from the preset is the render with the same settings";
	// The state after the render holds each course's last value.
	const std::string after = folder("after.state");
	render({"--plugin", "swell", "--automate", "time=0:0.1sec,0.25:1.5sec", "--automate", "autoGain=0:0,0.2:24dB,0.2:3dB",
		"--state-out", after, input, folder("out.wav")});
	EXPECT_NE(row({"--plugin", "swell", "--state-in", after}, "swell.time").find("1.5sec"), std::string::npos);
	EXPECT_NE(row({"--plugin", "swell", "--state-in", after}, "swell.autoGain").find("3dB"), std::string::npos);
}

TEST_F(RenderCli, EveryMistakeIsOneLineAnExitCodeAndNoFile) {
	const std::string out = folder("out.wav"), whole = readText(input), cut = folder("cut.wav");
	std::ofstream(cut, std::ios::binary) << whole.substr(0, whole.size() / 2); // its header promises twice the samples
	std::ofstream(folder("junk.wav")) << "this is not audio";
	std::ofstream(folder("junk.state")) << "not a state";
	fs::create_directory(folder("taken.wav"));
	const std::string preset = folder("swell.state");
	ASSERT_EQ(run({"--plugin", "swell", "--state-out", preset}).exitCode, 0);
	const std::regex soundFile("\\.(wav|ogg|mp3)$");
	struct Case {
		std::vector<std::string> args; // swell, and both files unless the case gives files
		int exitCode;
		const char *words;
	} cases[] = {
		{{"--set", "tmie=1sec"}, 2, "no parameter \"tmie\""},
		{{"--set", "time=slow"}, 2, "\"slow\" is not a value of swell.time"}, {{"--set", "time"}, 2, "KEY=VALUE"},
		{{"--automate", "time=0:0.1sec,oops"}, 2, "TIME:VALUE"},
		{{"--automate", "time=0:1sec,1:9sec"}, 2, "outside the range"},
		{{"--frobnicate"}, 2, "unknown option --frobnicate"}, {{"--force=yes"}, 2, "--force takes no value"},
		{{"--block", "0"}, 2, "--block"}, {{"--state-in", folder("junk.state")}, 1, "not a saved plug-in state"},
		{{"--state-in", folder("none.state")}, 1, "cannot read the state"},
		{{"--bits", "16", input, folder("out.ogg")}, 2, "--bits"}, {{input}, 2, "one input file and one output file"},
		{{folder("missing.wav"), out}, 1, "cannot read"}, {{folder("junk.wav"), out}, 1, "cannot read"},
		{{cut, out}, 1, "truncated"}, {{input, folder("no-such-folder/out.wav")}, 1, "cannot write"},
		{{input, folder("taken.wav")}, 1, "cannot write"}, {{input, folder("out.mp3")}, 2, "output format"},
		{{input, input}, 2, "add --force"}, {{"--plugin", "no-such-effect"}, 2, "no plug-in \"no-such-effect\""},
		{{"--plugin", "chrous"}, 2, "did you mean chorus"},
		{{"--plugin", "octaver", "--state-in", preset}, 2, "is a saved state of Lumbrel: Swell, not of Lumbrel: Octaver"},
		{{"--plugin", "decay-scale", "--automate", "latency=0:5ms,0.2:10ms"}, 2, "changes the plug-in's latency"},
		{{"--bundle", folder("none.clap")}, 1, "no bundle"},
	};
	for (const auto &c : cases) {
		std::vector<std::string> args = c.args;
		const auto given = [&](const std::string &what) { return std::find(args.begin(), args.end(), what) != args.end(); };
		if (std::none_of(args.begin(), args.end(), [&](const std::string &a) { return std::regex_search(a, soundFile); }))
			args.insert(args.end(), {input, out});
		if (!given("--plugin")) args.insert(args.begin(), {"--plugin", "swell"});
		const auto r = run(args, given("--bundle"));
		EXPECT_TRUE(r.exitCode == c.exitCode && r.err.find(c.words) != std::string::npos
			&& std::count(r.err.begin(), r.err.end(), '\n') == 1) << c.words << ": exit " << r.exitCode << ", " << r.err;
	}
	EXPECT_TRUE(readText(input) == whole && fs::is_directory(folder("taken.wav")));
	for (const auto &entry : fs::directory_iterator(root)) {
		const std::string name = entry.path().filename();
		EXPECT_TRUE(name.find(".partial") == std::string::npos && name.rfind("out.", 0) == std::string::npos) << name;
	}
	// A render that fails after it began (three channels, a stereo port) leaves the old output; --force replaces it whole.
	ASSERT_EQ(run({"--plugin", "swell", input, out}).exitCode, 0);
	const std::string before = readText(out);
	ASSERT_TRUE(writeSound(folder("three.wav"), std::vector<std::vector<float>>(3, std::vector<float>(4800, 0.1f)), 48000));
	const auto r = run({"--plugin", "swell", folder("three.wav"), out});
	EXPECT_TRUE(r.exitCode == 1 && r.err.find("3 channels") != std::string::npos) << r.err;
	EXPECT_EQ(readText(out), before);
	EXPECT_EQ(render({"--plugin", "swell", "--force", input, input}).frames(), 24000u);
}

TEST_F(RenderCli, UsualOptionsAndStandardInputAndOutput) {
	for (const auto &[option, shown] : std::map<std::string, std::string>{
			 {"--version", "lumbrel-render 1."}, {"-h", "Exit status: 0"}, {"--help", "Exit status: 0"}}) {
		const auto r = run({option}, true);
		EXPECT_TRUE(r.exitCode == 0 && r.out.find(shown) != std::string::npos) << option << ": " << r.out;
	}
	const auto r = run({"--plugin=swell", "--set=time=1s", "-q", input, folder("a.wav")});
	EXPECT_TRUE(r.exitCode == 0 && r.out + r.err == "") << "quiet: " << r.out << r.err;
	const std::string out = folder("piped.wav"), err = folder("err.txt");
	const std::string command = "'" + tool + "' --bundle '" + bundle + "' --plugin decay-scale - - < '" + input + "' > '"
		+ out + "' 2> '" + err + "'";
	ASSERT_EQ(std::system(command.c_str()), 0) << readText(err);
	SoundFile sound;
	EXPECT_TRUE(readSound(out, sound) && sound.frames() == 24000 && sound.format == (SF_FORMAT_WAV | SF_FORMAT_PCM_16))
		<< "the input's length and format";
	EXPECT_NE(readText(err).find("wrote standard output"), std::string::npos) << "the summary stays off the audio";
}

TEST_F(RenderCli, FormatsFollowTheFileNameKeepTheInputsBitsAndTheLevel) {
	struct Case {
		const char *name;
		std::vector<std::string> args;
		int format;
		double toleranceDb;
	} cases[] = {
		{"same.wav", {}, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0.5},
		{"same.flac", {}, SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 0.5},
		{"wide.wav", {"--bits", "24"}, SF_FORMAT_WAV | SF_FORMAT_PCM_24, 0.5},
		{"float.aiff", {"--bits=32"}, SF_FORMAT_AIFF | SF_FORMAT_FLOAT, 0.5},
		{"OUT.OGG", {}, SF_FORMAT_OGG | SF_FORMAT_VORBIS, 1.0},
	};
	const auto in = tone(24000, 0.25f);
	for (const auto &c : cases) {
		std::vector<std::string> args = {"--plugin", "decay-scale"};
		args.insert(args.end(), c.args.begin(), c.args.end());
		args.insert(args.end(), {input, folder(c.name)});
		const SoundFile out = render(args);
		EXPECT_TRUE(out.format == c.format && out.sampleRate == 48000 && out.channels.size() == 2) << c.name;
		// A steady tone passes the decay scale at unity gain.
		for (const auto &channel : out.channels)
			EXPECT_NEAR(dB(rms(channel, 4800, 19200) / rms(in[0], 4800, 19200)), 0, c.toleranceDb) << c.name;
	}
	// Above full scale: clipped to 16 bits, a warning in float.
	ASSERT_TRUE(writeSound(folder("loud.wav"), tone(24000, 1.5f), 48000));
	auto r = run({"--plugin", "decay-scale", "--bits", "16", folder("loud.wav"), folder("clipped.wav")});
	EXPECT_TRUE(r.exitCode == 0 && r.err.find("clipped ") != std::string::npos && r.err.find("(peak +") != std::string::npos)
		<< r.err;
	EXPECT_NE(run({"--plugin", "decay-scale", folder("loud.wav"), folder("float.wav")}).err.find("warning: peak +"),
		std::string::npos);
}

TEST_F(RenderCli, AClickComesOutAtItsOwnIndexOrLateByTheReportedLatency) {
	const std::string in = click(2, 48000), out = folder("out.wav");
	struct Case {
		std::vector<std::string> args;
		std::size_t latency; // reported, and the delay with --no-compensate
	} cases[] = {
		{{"--plugin", "decay-scale"}, 480}, // 512-frame blocks
		{{"--plugin", "decay-scale", "--set", "latency=4ms"}, 192},
		{{"--plugin", "decay-scale", "--set", "latency=15ms", "--block", "37"}, 720}, // blocks that cut the latency
		{{"--plugin", "decay-scale", "--block", "4096"}, 480},
		{{"--plugin", "swell", "--set", "swell.time=0.05sec"}, 480},
	};
	for (const auto &c : cases) {
		for (bool compensate : {true, false}) {
			std::vector<std::string> args = c.args;
			if (!compensate) args.push_back("--no-compensate");
			args.insert(args.end(), {in, out});
			RunResult report;
			const SoundFile sound = render(args, &report);
			SCOPED_TRACE(report.out);
			EXPECT_EQ(sound.frames(), 48000u) << "the same length, the tail cut";
			ASSERT_EQ(sound.channels.size(), 2u);
			const std::size_t at = clickAt + (compensate ? 0 : c.latency);
			for (const auto &channel : sound.channels) EXPECT_TRUE(peakIndex(channel) == at && std::abs(channel[at]) > 0.05f);
			char latency[64];
			std::snprintf(latency, sizeof latency, "latency %zu samples (%.2f ms)", c.latency, c.latency / 48.0);
			EXPECT_NE(report.out.find(latency), std::string::npos) << latency;
			EXPECT_NE(report.out.find("real-time factor"), std::string::npos);
			EXPECT_EQ(report.err, "") << "no progress bar when stderr isn't a terminal";
		}
	}
	// Mono stays mono at its rate: the mean of the plug-in's two channels, a click as high as through a stereo file.
	const SoundFile stereo = render({"--plugin", "decay-scale", click(2, 44100), folder("stereo.wav")});
	const SoundFile mono = render({"--plugin", "decay-scale", click(1, 44100), folder("mono.wav")});
	ASSERT_EQ(mono.channels.size(), 1u);
	EXPECT_TRUE(mono.sampleRate == 44100 && peakIndex(mono.channels[0]) == clickAt);
	EXPECT_NEAR(mono.channels[0][clickAt], stereo.channels[0][clickAt], 1e-3);
}

TEST_F(RenderCli, ProgressIsOneLineThatFitsANarrowTerminal) {
	ASSERT_TRUE(writeSound(folder("long.wav"), tone(48000 * 20, 0.25f), 48000));
	const RunResult r = runOnTerminal(
		{tool, "--bundle", bundle, "--plugin", "chorus", folder("long.wav"), folder("a-long-name-for-the-output.wav")}, 40);
	ASSERT_EQ(r.exitCode, 0) << r.out;
	const std::string bar = r.out.substr(0, r.out.find("Lumbrel"));
	EXPECT_EQ(bar.find('\n'), std::string::npos) << "one updating line:\n" << bar;
	std::stringstream updates(bar);
	for (std::string update; std::getline(updates, update, '\r');) EXPECT_LT(update.size(), 40u) << update;
	for (const char *part : {"[#", "100%", "0:0", " left"}) EXPECT_NE(bar.find(part), std::string::npos) << part << " in " << bar;
	EXPECT_NE(r.out.find("wrote"), std::string::npos) << r.out;
}

// A state as the plug-ins save one: a leaf between two groups, a group in a group, and a group field (desc) holding a
// value: no parameter.
const std::string sampleState = "\xBF\x64name\x61T\x64" "desc\xA1\x65value\x61x"
	"\x6C" "engineConfig\xA2\x64name\x66" "Engine\x69latencyMs\xA1\x65value\x0A"
	"\x6B" "channelMode\xA1\x65value\x01"
	"\x65swell\xA3\x64name\x65Swell\x64time\xA1\x65value\x02"
	"\x65inner\xA2\x64name\x60\x64" "deep\xA1\x65value\x01\xFF";

TEST(KeyPaths, ParametersOfASavedStateInOrderWithTheirGroupsAndIdsAndWhatACutStateHolds) {
	const auto bytes = reinterpret_cast<const std::uint8_t *>(sampleState.data());
	const auto paths = host::stateKeyPaths(bytes, sampleState.size());
	std::vector<std::string> dotted;
	for (const auto &path : paths) {
		std::string groups;
		for (const auto &name : path.groupNames) groups += name + "/";
		dotted.push_back(path.dotted() + " in " + groups);
		EXPECT_EQ(path.id, host::keyPathId(path.keys)) << path.dotted();
	}
	EXPECT_EQ(dotted, (std::vector<std::string>{"engineConfig.latencyMs in Engine/", "channelMode in ",
						  "swell.time in Swell/", "swell.inner.deep in Swell//"}));
	ASSERT_FALSE(paths.empty());
	EXPECT_EQ(paths[0].id, 0x06A04C69u) << "the CRC-32 of the keys, each with a zero byte";
	// Cut anywhere: the paths read before the cut, never fewer for a longer cut.
	std::size_t read = 0;
	for (std::size_t cut = 0; cut < sampleState.size(); ++cut) {
		const auto part = host::stateKeyPaths(bytes, cut);
		ASSERT_TRUE(part.size() >= read && part.size() <= paths.size()) << cut;
		for (std::size_t i = 0; i < part.size(); ++i) EXPECT_EQ(part[i].dotted(), paths[i].dotted()) << cut;
		read = part.size();
	}
	EXPECT_EQ(read, paths.size());
	const unsigned char notAMap[] = {0x83, 0x01, 0x02, 0x03},
						lyingCount[] = {0xBB, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x61, 'a'};
	EXPECT_TRUE(host::stateKeyPaths(notAMap, sizeof notAMap).empty() && host::stateKeyPaths(nullptr, 0).empty()
		&& host::stateKeyPaths(lyingCount, sizeof lyingCount).empty());
}

struct ParamTable : ::testing::Test {
	std::string error;
	std::unique_ptr<host::Bundle> bundle = host::Bundle::load(LUMBREL_BUNDLE_PATH, error);
	host::Host host;
	std::unique_ptr<host::Instance> instance;
	std::unique_ptr<render::ParamTable> table;
	void open(const std::string &id) {
		ASSERT_TRUE(bundle) << error;
		instance = std::make_unique<host::Instance>(*bundle, ("varkesh.lumbrel." + id).c_str(), host);
		ASSERT_TRUE(instance->valid() && instance->init());
		table = std::make_unique<render::ParamTable>(*instance);
	}
	const render::ParamEntry *find(const std::string &name) { return table->find(name, error); }
	// The plug-in's own text for what `text` was read as, or "error: " and the one-line error.
	std::string read(const std::string &name, const std::string &text) {
		double value = 0;
		const render::ParamEntry *entry = find(name);
		if (entry && table->readValue(*entry, text, value, error)) return table->text(*entry, value);
		EXPECT_EQ(error.find('\n'), std::string::npos) << error;
		return "error: " + error;
	}
};

TEST_F(ParamTable, EveryParameterGetsTheKeyPathWhoseCrcIsItsIdAndIsFoundByAnyOfItsNames) {
	open("swell");
	std::vector<std::string> paths;
	for (const auto &entry : table->entries()) {
		paths.push_back(entry.keyPath + " in " + entry.groupNames);
		std::vector<std::string> keys;
		for (std::size_t from = 0, dot = 0; dot != std::string::npos; from = dot + 1) {
			dot = entry.keyPath.find('.', from);
			keys.push_back(entry.keyPath.substr(from, dot - from));
		}
		EXPECT_EQ(host::keyPathId(keys), entry.info.id) << entry.keyPath;
	}
	ASSERT_EQ(paths.size(), instance->paramCount());
	EXPECT_TRUE(paths.front() == "engineConfig.latencyMs in Engine" && paths.back() == "swell.autoGain in Swell") << paths[0];
	for (const char *name : {"time", "TIME", "Swell.Time"}) EXPECT_EQ(find(name), find("swell.time")) << name;
	for (const char *name : {"auto-gain", "autogain"}) EXPECT_EQ(find(name), find("swell.autoGain")) << name;
	EXPECT_EQ(find("latency"), find("engineConfig.latencyMs"));
	EXPECT_EQ(table->rangeText(*find("latency")), "2ms to 15ms");
}

TEST_F(ParamTable, ValuesAreReadInTheUnitOrAsLabelsAndUnknownOrSharedNamesSayWhatToType) {
	struct Case {
		const char *plugin, *name, *text, *read; // what the plug-in shows, or words of the error
	} cases[] = {
		// A bare number is in the parameter's unit; the plug-in alone would stop at the comma; 0.005 s is converted.
		{"decay-scale", "latency", " 5 ms ", "5ms"}, {"decay-scale", "latency", "5", "5ms"},
		{"decay-scale", "latency", "+5.5ms", "5.5ms"}, {"decay-scale", "latency", "5,5ms", "5.5ms"},
		{"decay-scale", "latency", "0.005 s", "5ms"}, {"decay-scale", "decay.rt20", "2.5sec", "2.5sec"},
		{"decay-scale", "latency", "5 Hz", "error: \"ms\""}, {"decay-scale", "latency", "fast", "error: give a number"},
		{"decay-scale", "latency", "20ms", "error: outside the range"},
		{"decay-scale", "latency", "-1", "error: outside the range"},
		{"decay-scale", "decay.factor", "2x", "error: plain number"}, {"decay-scale", "iterations", "8", "8"},
		{"decay-scale", "direct", "ON", "on"}, {"decay-scale", "direct", "maybe", "error: off, on"},
		{"decay-scale", "iterations", "3", "error: 1, 2, 4, 8"}, // the plug-in would read it as the default
		{"pitch-shifter-layer1", "semitones", "+7", "7"}, {"pitch-shifter-layer1", "semitones", "none", "none"},
		{"pitch-shifter-layer1", "semitones", "25", "error: -24 to 24"},
		{"pitch-shifter-layer1", "smoothing", "0", "error: peaksConfig.smoothing"}, // a shared name lists both
		{"pitch-shifter-layer1", "smoothing", "0", "error: timbreConfig.smoothing"},
		{"swell", "tmie", "0", "error: swell.time"}, {"swell", "latencyMS.x", "0", "error: engineConfig.latencyMs"},
		{"swell", "engineConfig", "0", "error: no parameter"}, // a group
		{"swell", "zzzzzzzzzz", "0", "error: --list --plugin swell"},
	};
	for (const auto &c : cases) {
		open(c.plugin);
		const std::string read = this->read(c.name, c.text), expected = c.read;
		if (expected.rfind("error: ", 0) == 0) EXPECT_NE(read.find(expected.substr(7)), read.npos) << c.text << ": " << read;
		else EXPECT_EQ(read, expected) << c.name << " " << c.text;
	}
}

TEST(AutomationText, TimesInSecondsMillisecondsAndFramesAndMalformedTextIsAOneLineError) {
	AutomationText parsed;
	std::string error;
	ASSERT_TRUE(parseAutomation("swell.time=0:0.1sec,250ms:0.5 sec,1.5s:1sec,96000smp:2sec", 48000, parsed, error))
		<< error;
	EXPECT_EQ(parsed.key, "swell.time");
	EXPECT_EQ(parsed.points, (std::vector<std::pair<std::uint64_t, std::string>>{
								 {0, "0.1sec"}, {12000, "0.5 sec"}, {72000, "1sec"}, {96000, "2sec"}}));
	ASSERT_TRUE(parseAutomation("mix=1:0,1:1", 44100, parsed, error)) << "a jump: two points at one time";
	EXPECT_EQ(parsed.points[1].first, 44100u);
	for (const char *text : {"mix", "=0:1", "mix=", "mix=1", "mix=1:", "mix=abc:1", "mix=-1:0", "mix=1min:0",
			 "mix=0.5smp:1", "mix=2:0,1:1", "mix=0:0,"}) {
		error.clear();
		EXPECT_FALSE(parseAutomation(text, 48000, parsed, error)) << text;
		EXPECT_TRUE(!error.empty() && error.find('\n') == std::string::npos) << text;
	}
}

// The events as (frame, id, value), for comparing whole schedules.
using Events = std::vector<std::tuple<std::uint64_t, clap_id, double>>;
Events schedule(const std::vector<AutomationLane> &lanes, std::uint64_t frames) {
	Events out;
	for (const auto &e : scheduleAutomation(lanes, frames)) out.emplace_back(e.frame, e.id, e.value);
	return out;
}

TEST(AutomationSchedule, RampsStepJumpsAndSteppedLanes) {
	// Held at 0 until frame 100 (no repeat), then a quarter per ramp step, ending exactly on the point.
	const std::uint64_t s = rampStepFrames;
	EXPECT_EQ(schedule({{7, false, {{100, 0.0}, {100 + 4 * s, 1.0}}}}, 48000),
		(Events{{0, 7, 0.0}, {100 + s, 7, 0.25}, {100 + 2 * s, 7, 0.5}, {100 + 3 * s, 7, 0.75},
			{100 + 4 * s, 7, 1.0}}));
	// A jump is one event at its frame.
	EXPECT_EQ(schedule({{1, false, {{1000, 0.2}, {1000, 0.8}}}}, 48000), (Events{{0, 1, 0.2}, {1000, 1, 0.8}}));
	// Whole values only when they change: 0.5 is passed at frame 106.7, the next step is 128; 2.5 at 533.3, then 576.
	const auto stepped = schedule({{2, true, {{0, 0.0}, {640, 3.0}}}}, 48000);
	ASSERT_EQ(stepped.size(), 4u);
	EXPECT_EQ(stepped[1], std::make_tuple(std::uint64_t(128), clap_id(2), 1.0));
	EXPECT_EQ(stepped[3], std::make_tuple(std::uint64_t(576), clap_id(2), 3.0));
	// Lanes merge by frame, in their order at equal frames, and stop at the end.
	EXPECT_EQ(schedule({{1, false, {{0, 0.0}, {300, 1.0}}}, {2, false, {{0, 5.0}, {64, 6.0}}}}, 150),
		(Events{{0, 1, 0.0}, {0, 2, 5.0}, {s, 1, s / 300.0}, {s, 2, 6.0}, {2 * s, 1, 2 * s / 300.0}}));
}

} // namespace
