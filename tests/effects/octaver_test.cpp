// The octaver through the plug-in: each voice and the dry signal at its gain, the sweep moving the voices, measured on a
// sine; in-place buffers.
#include "support/effect_checks.h"
#include "support/signals.h"

using namespace lumbrel_test;

namespace {

constexpr const char *pluginId = "varkesh.lumbrel.octaver";
constexpr double rate = 48000, inputHz = 440, amplitude = 0.5;
constexpr std::size_t window = 16384;
const char *const voiceKeys[4] = {"gainD2", "gainD1", "gainU1", "gainU2"};
const int voiceSemitones[4] = {-24, -12, 12, 24};

using Octaver = BundleTest;

} // namespace

// Voice v at sweep x semitones[v], within 5 cents, at wet x gain: mix 0.5 gives wet and dry 0.75 each, mix 1 wet 1 and
// no dry. Both channels alike.
TEST_F(Octaver, EachVoiceAndTheDryPathComeOutAtTheirGainsAndSweep) {
	const auto in = sine(inputHz, rate, std::size_t(1.5 * rate), amplitude);
	const std::size_t from = std::size_t(0.8 * rate);
	const struct {
		const char *mix, *sweep, *gains[4];
		double wet, dry;
	} cases[] = {{"0.5", "1", {"0.2", "0.4", "0.6", "0.8"}, 0.75, 0.75}, {"1", "1", {"0.2", "0.4", "0.6", "0.8"}, 1, 0},
		{"1", "0.25", {"0.5", "0.5", "0.5", "0.5"}, 1, 0}, {"1", "0.5", {"0.5", "0.5", "0.5", "0.5"}, 1, 0},
		{"1", "0.75", {"0.5", "0.5", "0.5", "0.5"}, 1, 0}};
	for (const auto &c : cases) {
		SCOPED_TRACE(testing::Message() << "mix " << c.mix << ", sweep " << c.sweep);
		PluginRunner runner(*bundle, pluginId);
		ASSERT_TRUE(runner.ok);
		for (int v = 0; v < 4; ++v) setText(runner, {"octaves", voiceKeys[v]}, c.gains[v]);
		setText(runner, {"mix"}, c.mix);
		setText(runner, {"sweep"}, c.sweep);
		const auto out = runner.run({in, in});
		for (int v = 0; v < 4; ++v) {
			const double hz = inputHz * std::exp2(std::stod(c.sweep) * voiceSemitones[v] / 12.0);
			// Voices stay at least 3 semitones apart: search well inside that.
			EXPECT_LT(std::fabs(cents(peakFrequency(out[0], from, window, hz, hz * 0.05, rate), hz)), 5) << voiceSemitones[v];
			const double expected = c.wet * std::stod(c.gains[v]) * amplitude;
			EXPECT_NEAR(dB(magnitudeAt(out[0], from, window, hz, rate) / expected), 0, std::string(c.sweep) == "1" ? 1.0 : 1.5)
				<< voiceSemitones[v];
		}
		if (std::string(c.sweep) == "1") {
			const double dryLevel = magnitudeAt(out[0], from, window, inputHz, rate) / amplitude;
			EXPECT_TRUE(c.dry > 0 ? std::fabs(dB(dryLevel / c.dry)) < 0.5 : dB(dryLevel) < -40) << dB(dryLevel) << " dB";
		}
		EXPECT_EQ(out[0], out[1]);
	}
}

// Without wet (mix 0, or sweep 0 however much mix) the output is the input as it comes, once the 10 ms glide of the mix
// gains has settled; and so it is when the host hands the same buffers as input and output.
TEST_F(Octaver, DryPathIsTheUndelayedInputAlsoInPlace) {
	const auto in = harmonicTone(220, 10, rate, std::size_t(rate), 0.05);
	for (const char *setting : {"mix", "sweep"}) {
		PluginRunner runner(*bundle, pluginId);
		ASSERT_TRUE(runner.ok);
		setText(runner, {setting}, "0");
		const auto out = runner.run({in, in});
		EXPECT_LT(residualDb(out[0], in, 0, std::size_t(0.3 * rate), in.size()), -80) << setting;
	}
	PluginRunner separate(*bundle, pluginId), inPlace(*bundle, pluginId);
	ASSERT_TRUE(separate.ok && inPlace.ok);
	const auto expected = separate.run({in, in});
	std::vector<float> left(in), right(in);
	for (std::size_t start = 0; start < in.size(); start += 256) {
		const auto n = std::uint32_t(std::min<std::size_t>(256, in.size() - start));
		float *channels[2] = {left.data() + start, right.data() + start};
		inPlace.out.clear();
		inPlace.instance->process(channels, 2, channels, 2, n, inPlace.events, inPlace.out);
	}
	EXPECT_EQ(left, expected[0]);
	EXPECT_EQ(right, expected[1]);
}
