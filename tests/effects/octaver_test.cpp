// The octaver through the plug-in: each voice and the dry signal at its gain,
// the sweep moving the voices, measured on a sine; in-place buffers.
#include "support/effect_checks.h"
#include "support/signals.h"

#include <gtest/gtest.h>

using namespace lumbrel_test;

namespace {

constexpr const char *pluginId = "varkesh.lumbrel.octaver";
constexpr double rate = 48000;
constexpr double inputHz = 440, amplitude = 0.5;
constexpr std::size_t window = 16384;

const char *const voiceKeys[4] = {"gainD2", "gainD1", "gainU1", "gainU2"};
const int voiceSemitones[4] = {-24, -12, 12, 24};

using Octaver = BundleTest;

} // namespace

TEST_F(Octaver, EachVoiceAndTheDryPathComeOutAtTheirGains) {
	const auto in = sine(inputHz, rate, std::size_t(1.5 * rate), amplitude);
	const std::size_t from = std::size_t(0.8 * rate);
	const char *gains[4] = {"0.2", "0.4", "0.6", "0.8"};

	// mix 0.5 gives wet and dry 0.75 each; mix 1 gives wet 1 and no dry.
	for (const char *mix : {"0.5", "1"}) {
		const double wet = std::string(mix) == "1" ? 1 : 0.75, dry = std::string(mix) == "1" ? 0 : 0.75;
		PluginRunner runner(*bundle, pluginId);
		ASSERT_TRUE(runner.ok);
		for (int v = 0; v < 4; ++v) setText(runner, {"octaves", voiceKeys[v]}, gains[v]);
		setText(runner, {"mix"}, mix);
		const auto out = runner.run({in, in});
		for (int v = 0; v < 4; ++v) {
			const double hz = inputHz * std::exp2(voiceSemitones[v] / 12.0);
			const double expected = wet * std::stod(gains[v]) * amplitude;
			const double error = dB(magnitudeAt(out[0], from, window, hz, rate) / expected);
			EXPECT_NEAR(error, 0, 1.0) << voiceSemitones[v] << " semitones at mix " << mix;
		}
		const double dryLevel = magnitudeAt(out[0], from, window, inputHz, rate) / amplitude;
		if (dry > 0) {
			EXPECT_NEAR(dB(dryLevel / dry), 0, 0.5);
		} else {
			EXPECT_LT(dB(dryLevel), -40);
		}
		EXPECT_EQ(out[0], out[1]);
	}
}

TEST_F(Octaver, DryPathIsTheUndelayedInput) {
	const auto in = harmonicTone(220, 10, rate, std::size_t(rate), 0.05);
	// Without wet (mix 0, or sweep 0 however much mix) the output is the input as
	// it comes, once the 10 ms glide of the mix gains has settled.
	for (const char *setting : {"mix", "sweep"}) {
		PluginRunner runner(*bundle, pluginId);
		ASSERT_TRUE(runner.ok);
		setText(runner, {setting}, "0");
		const auto out = runner.run({in, in});
		EXPECT_LT(residualDb(out[0], in, 0, std::size_t(0.3 * rate), in.size()), -80) << setting;
	}
}

TEST_F(Octaver, SweepMovesTheVoicesTogether) {
	const auto in = sine(inputHz, rate, std::size_t(1.5 * rate), amplitude);
	const std::size_t from = std::size_t(0.8 * rate);
	for (const char *sweep : {"0.25", "0.5", "0.75"}) {
		PluginRunner runner(*bundle, pluginId);
		ASSERT_TRUE(runner.ok);
		for (const char *key : voiceKeys) setText(runner, {"octaves", key}, "0.5");
		setText(runner, {"mix"}, "1");
		setText(runner, {"sweep"}, sweep);
		const auto out = runner.run({in, in});
		for (int v = 0; v < 4; ++v) {
			const double semitones = std::stod(sweep) * voiceSemitones[v];
			const double hz = inputHz * std::exp2(semitones / 12.0);
			// Voices stay at least 3 semitones apart: search well inside that.
			EXPECT_LT(std::fabs(cents(peakFrequency(out[0], from, window, hz, hz * 0.05, rate), hz)), 5) << semitones << " semitones";
			EXPECT_NEAR(dB(magnitudeAt(out[0], from, window, hz, rate) / (0.5 * amplitude)), 0, 1.5) << semitones << " semitones";
		}
	}
}

// A host may hand the same buffers as input and output: the dry path must
// still be the input, not what the engine has just written there.
TEST_F(Octaver, InPlaceBuffersGiveTheSameOutput) {
	const auto tone = harmonicTone(220, 6, 48000, 24000);
	PluginRunner separate(*bundle, pluginId), inPlace(*bundle, pluginId);
	ASSERT_TRUE(separate.ok && inPlace.ok);
	const auto expected = separate.run({tone, tone});
	std::vector<float> left(tone), right(tone);
	for (std::size_t start = 0; start < tone.size(); start += 256) {
		const auto n = std::uint32_t(std::min<std::size_t>(256, tone.size() - start));
		float *channels[2] = {left.data() + start, right.data() + start};
		inPlace.out.clear();
		inPlace.instance->process(channels, 2, channels, 2, n, inPlace.events, inPlace.out);
	}
	EXPECT_EQ(left, expected[0]);
	EXPECT_EQ(right, expected[1]);
}
