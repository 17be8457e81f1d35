// What lumbrel-render does to the audio: a click in comes out at the same
// index whatever the latency and block size, and files keep their rate,
// channels and level in every format.
#include "tools/render/render_runner.h"

#include "support/signals.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace lumbrel_test;

const std::string bundle = LUMBREL_BUNDLE_PATH;
constexpr std::size_t clickAt = 12345;

struct RenderAudio : ::testing::Test {
	TempFolder folder;

	RunResult run(std::vector<std::string> args) {
		args.insert(args.begin(), {"--bundle", bundle});
		return runRender(folder, args);
	}
	// One second of silence but for a click at clickAt in every channel.
	std::string click(std::size_t channels, double rate) {
		std::vector<std::vector<float>> sound(channels, std::vector<float>(std::size_t(rate)));
		for (auto &channel : sound) channel[clickAt] = 0.8f;
		const std::string path = folder / ("click" + std::to_string(channels) + "-" + std::to_string(int(rate)) + ".wav");
		EXPECT_TRUE(writeSound(path, sound, rate));
		return path;
	}
	SoundFile render(const std::vector<std::string> &args, const std::string &input, const std::string &output) {
		std::vector<std::string> all = args;
		all.push_back(input);
		all.push_back(output);
		const auto r = run(all);
		EXPECT_EQ(r.exitCode, 0) << r.err;
		SoundFile sound;
		EXPECT_TRUE(readSound(output, sound)) << output;
		return sound;
	}
	static std::size_t reportedLatency(const std::string &report) {
		const auto at = report.find("latency ");
		return at == std::string::npos ? 0 : std::stoul(report.substr(at + 8));
	}
};

TEST_F(RenderAudio, AClickComesOutAtItsOwnIndex) {
	const std::string in = click(2, 48000);
	struct Case {
		std::vector<std::string> args;
		const char *why;
	} cases[] = {
		{{"--plugin", "decay-scale"}, "10 ms of latency, 512-frame blocks"},
		{{"--plugin", "decay-scale", "--set", "latency=5ms"}, "a latency set before activation"},
		{{"--plugin", "decay-scale", "--set", "latency=15ms", "--block", "37"}, "odd blocks that cut the latency"},
		{{"--plugin", "decay-scale", "--block", "4096"}, "blocks longer than the latency"},
		{{"--plugin", "swell", "--set", "swell.time=0.05sec"}, "another effect on the engine"},
	};
	for (const auto &c : cases) {
		const SoundFile out = render(c.args, in, folder / "out.wav");
		ASSERT_EQ(out.channels.size(), 2u) << c.why;
		EXPECT_EQ(out.frames(), 48000u) << c.why;
		for (const auto &channel : out.channels) {
			EXPECT_EQ(peakIndex(channel), clickAt) << c.why;
			EXPECT_GT(std::abs(channel[clickAt]), 0.05f) << c.why;
		}
	}
}

TEST_F(RenderAudio, WithoutCompensationTheClickIsLateByTheReportedLatency) {
	const std::string in = click(2, 48000);
	for (const char *latency : {"10ms", "4ms"}) {
		const std::string out = folder / "raw.wav";
		const auto r =
			run({"--plugin", "decay-scale", "--set", std::string("latency=") + latency, "--no-compensate", in, out});
		ASSERT_EQ(r.exitCode, 0) << r.err;
		const std::size_t latencySamples = reportedLatency(r.out);
		EXPECT_EQ(latencySamples, std::string(latency) == "10ms" ? 480u : 192u) << r.out;
		SoundFile sound;
		ASSERT_TRUE(readSound(out, sound));
		EXPECT_EQ(sound.frames(), 48000u) << "the same length, the tail cut";
		EXPECT_EQ(peakIndex(sound.channels[0]), clickAt + latencySamples) << latency;
	}
}

TEST_F(RenderAudio, MonoInputStaysMonoAtItsRate) {
	const SoundFile out = render({"--plugin", "decay-scale"}, click(1, 44100), folder / "mono.wav");
	ASSERT_EQ(out.channels.size(), 1u);
	EXPECT_EQ(out.sampleRate, 44100);
	EXPECT_EQ(out.frames(), 44100u);
	EXPECT_EQ(peakIndex(out.channels[0]), clickAt);
	// The mono input reaches both of the plug-in's channels, and the output
	// is their mean: a click of the same height as through a stereo file.
	const SoundFile stereo = render({"--plugin", "decay-scale"}, click(2, 44100), folder / "stereo.wav");
	EXPECT_NEAR(out.channels[0][clickAt], stereo.channels[0][clickAt], 1e-3);
}

TEST_F(RenderAudio, FormatsFollowTheFileNameAndKeepTheLevel) {
	std::vector<std::vector<float>> tone = {sine(440, 48000, 48000, 0.25), sine(660, 48000, 48000, 0.25)};
	const std::string in = folder / "tone.flac";
	ASSERT_TRUE(writeSound(in, tone, 48000, SF_FORMAT_FLAC | SF_FORMAT_PCM_24));
	struct Case {
		const char *name;
		std::vector<std::string> args;
		int format;
		double toleranceDb;
	} cases[] = {
		{"out.wav", {}, SF_FORMAT_WAV | SF_FORMAT_PCM_24, 0.5}, // the input's 24 bits
		{"out16.wav", {"--bits", "16"}, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0.5},
		{"out32.wav", {"--bits=32"}, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 0.5},
		{"out.aiff", {}, SF_FORMAT_AIFF | SF_FORMAT_PCM_24, 0.5},
		{"out.flac", {}, SF_FORMAT_FLAC | SF_FORMAT_PCM_24, 0.5},
		{"OUT.OGG", {}, SF_FORMAT_OGG | SF_FORMAT_VORBIS, 1.0},
	};
	for (const auto &c : cases) {
		std::vector<std::string> args = {"--plugin", "decay-scale"};
		args.insert(args.end(), c.args.begin(), c.args.end());
		const SoundFile out = render(args, in, folder / c.name);
		EXPECT_EQ(out.format, c.format) << c.name;
		EXPECT_EQ(out.sampleRate, 48000) << c.name;
		ASSERT_EQ(out.channels.size(), 2u) << c.name;
		// A steady tone passes the decay scale at unity gain.
		for (std::size_t ch = 0; ch < 2; ++ch) {
			EXPECT_NEAR(dB(rms(out.channels[ch], 9600, 43200) / rms(tone[ch], 9600, 43200)), 0, c.toleranceDb)
				<< c.name << " channel " << ch;
		}
	}
}

} // namespace
