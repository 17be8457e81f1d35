// Cleanup through the plug-in: how far it lowers a steady noise floor under voice-like syllables in each of its modes,
// and what it leaves alone.
#include "support/effect_checks.h"
#include "support/signals.h"

using namespace lumbrel_test;

namespace {

constexpr const char *pluginId = "varkesh.lumbrel.cleanup";
constexpr double rate = 48000;
const clap_id modeId = paramId({"nrMode"}), mixId = paramId({"nrMix"});
enum Mode { learnPrint = 0, holdPrint = 1, adaptive = 2 };

// Steady noise of the given RMS: white, or pink (-3 dB per octave, from a sum of three one-pole lowpasses of white
// noise).
std::vector<float> noise(std::size_t frames, double level, bool pink, unsigned seed) {
	std::mt19937 random(seed);
	std::normal_distribution<double> white(0.0, 1.0);
	std::vector<double> x(frames);
	double b0 = 0, b1 = 0, b2 = 0, sum = 0;
	for (auto &v : x) {
		const double w = white(random);
		b0 = 0.99765 * b0 + w * 0.0990460;
		b1 = 0.96300 * b1 + w * 0.2965164;
		b2 = 0.57000 * b2 + w * 1.0526913;
		v = pink ? b0 + b1 + b2 + w * 0.1848 : w;
		sum += v * v;
	}
	std::vector<float> out(frames);
	for (std::size_t i = 0; i < frames; ++i) out[i] = float(x[i] * level / std::sqrt(sum / double(frames)));
	return out;
}

// Syllables from 0.25 s: a 220 Hz harmonic tone, 300 ms on, 300 ms off, 10 ms fades.
constexpr double f0 = 220, start = 0.25, syllable = 0.3, gap = 0.3;
std::vector<float> syllables(std::size_t frames) {
	auto out = harmonicTone(f0, 8, rate, frames, 0.05);
	for (std::size_t i = 0; i < frames; ++i) {
		const double t = double(i) / rate - start, phase = std::fmod(t, syllable + gap);
		out[i] *= float(t < 0 || phase >= syllable ? 0.0 : std::min({1.0, phase / 0.01, (syllable - phase) / 0.01}));
	}
	return out;
}

std::vector<float> sum(const std::vector<float> &a, const std::vector<float> &b) {
	std::vector<float> out(a.size());
	for (std::size_t i = 0; i < a.size(); ++i) out[i] = a[i] + b[i];
	return out;
}

struct Measured {
	double toneDb;  // the partials' level in the output over their level in the tone alone
	double floorDb; // output over input in the gaps between syllables
};

// Over the syllables from `from` seconds on: the partials in the middle 256 ms of each syllable, the floor from 100 to
// 280 ms into each gap.
Measured measure(const std::vector<float> &out, const std::vector<float> &in, const std::vector<float> &tone, double from,
	std::size_t latency) {
	double outTone = 0, inTone = 0, outFloor = 0, inFloor = 0;
	const std::size_t window = 12288;
	for (double t = start; t + syllable + gap <= double(in.size()) / rate - 0.05; t += syllable + gap) {
		if (t < from) continue;
		const auto middle = std::size_t((t + 0.5 * syllable) * rate) - window / 2;
		for (int k = 1; k <= 8; ++k) {
			outTone += std::pow(magnitudeAt(out, middle + latency, window, k * f0, rate), 2);
			inTone += std::pow(magnitudeAt(tone, middle, window, k * f0, rate), 2);
		}
		const auto g0 = std::size_t((t + syllable + 0.1) * rate), g1 = std::size_t((t + syllable + 0.28) * rate);
		outFloor += std::pow(rms(out, g0 + latency, g1 + latency), 2);
		inFloor += std::pow(rms(in, g0, g1), 2);
	}
	return {10 * std::log10(outTone / inTone), 10 * std::log10(outFloor / inFloor + 1e-300)};
}

using Cleanup = BundleTest;

} // namespace

// A print learned in "noise" mode (lowering the noise already) and held in "static" mode lowers white and pink noise;
// syllables keep their level.
TEST_F(Cleanup, NoisePrintLowersTheFloorAndKeepsTheTone) {
	for (bool pink : {false, true}) {
		for (const char *mix : {"0.8", "1"}) {
			SCOPED_TRACE(std::string(pink ? "pink" : "white") + " mix " + mix);
			PluginRunner runner(*bundle, pluginId);
			ASSERT_TRUE(runner.ok);
			setText(runner, mixId, mix);
			const std::size_t latency = runner.instance->latency(), second = std::size_t(rate);
			const auto learnIn = noise(2 * second, 0.01, pink, 2);
			runner.set(modeId, learnPrint);
			const auto learnOut = runner.run({learnIn, learnIn});
			EXPECT_LT(dB(rms(learnOut[0], second) / rms(learnIn, second - latency, 2 * second - latency)), -15);
			runner.set(modeId, holdPrint);
			const auto tone = syllables(4 * second), in = sum(tone, noise(4 * second, 0.01, pink, 3));
			const auto m = measure(runner.run({in, in})[0], in, tone, 0.5, latency);
			EXPECT_LT(m.floorDb, -15);
			EXPECT_NEAR(m.toneDb, 0, 1);
			EXPECT_NEAR(measure(runner.run({tone, tone})[0], tone, tone, 0.5, latency).toneDb, 0, 1);
		}
	}
}

TEST_F(Cleanup, AdaptiveModeFollowsTheNoiseAndKeepsTheTone) {
	for (bool pink : {false, true}) {
		PluginRunner runner(*bundle, pluginId);
		ASSERT_TRUE(runner.ok);
		runner.set(modeId, adaptive);
		const auto frames = std::size_t(8 * rate);
		const auto tone = syllables(frames), in = sum(tone, noise(frames, 0.01, pink, 4));
		const auto m = measure(runner.run({in, in})[0], in, tone, 4, runner.instance->latency());
		EXPECT_LT(m.floorDb, -15) << (pink ? "pink" : "white");
		EXPECT_NEAR(m.toneDb, 0, 1) << (pink ? "pink" : "white");
	}
}

// A print of the syllables silences them; "noise" mode over noise alone starts a new print, and a rebuild of the engine
// forgets it.
TEST_F(Cleanup, NoiseModeStartsANewPrintAndARebuildForgetsIt) {
	PluginRunner runner(*bundle, pluginId);
	ASSERT_TRUE(runner.ok);
	setText(runner, mixId, "1");
	const auto frames = std::size_t(2.4 * rate);
	const auto tone = syllables(frames), in = sum(tone, noise(frames, 0.01, false, 5));
	const auto noiseOnly = noise(std::size_t(rate), 0.01, false, 6);
	auto learnThenToneDb = [&](const std::vector<float> &learn, bool rebuild) {
		runner.set(modeId, learnPrint);
		runner.run({learn, learn});
		runner.set(modeId, holdPrint);
		if (rebuild) setText(runner, paramId({"engineConfig", "overlap"}), "3");
		return measure(runner.run({in, in})[0], in, tone, 0.25, runner.instance->latency()).toneDb;
	};
	EXPECT_LT(learnThenToneDb(in, false), -10);
	EXPECT_NEAR(learnThenToneDb(noiseOnly, false), 0, 1);
	EXPECT_NEAR(learnThenToneDb(in, true), 0, 1);
}
