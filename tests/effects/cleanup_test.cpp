// Cleanup through the plug-in: its parameter list and saved state, and how far
// it lowers a steady noise floor under a voice-like tone in each of its modes,
// measured on the audio that comes out.
#include "support/alloc_counter.h"
#include "support/effect_checks.h"
#include "support/signals.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

using namespace lumbrel_test;

namespace {

constexpr const char *pluginId = "varkesh.lumbrel.cleanup";
constexpr double rate = 48000;
const clap_id modeId = paramId({"nrMode"});
const clap_id cleanupId = paramId({"nrCleanup"});
const clap_id mixId = paramId({"nrMix"});
enum Mode { learnPrint = 0, holdPrint = 1, adaptive = 2 };

// Steady noise of the given RMS: white, or pink (-3 dB per octave, from a
// sum of three one-pole lowpasses of white noise).
std::vector<float> noise(std::size_t frames, double level, bool pink, unsigned seed) {
	std::mt19937 random(seed);
	std::normal_distribution<double> white(0.0, 1.0);
	std::vector<double> x(frames);
	double b0 = 0, b1 = 0, b2 = 0;
	for (auto &v : x) {
		const double w = white(random);
		if (pink) {
			b0 = 0.99765 * b0 + w * 0.0990460;
			b1 = 0.96300 * b1 + w * 0.2965164;
			b2 = 0.57000 * b2 + w * 1.0526913;
			v = b0 + b1 + b2 + w * 0.1848;
		} else {
			v = w;
		}
	}
	double sum = 0;
	for (double v : x) sum += v * v;
	const double scale = level / std::sqrt(sum / double(frames));
	std::vector<float> out(frames);
	for (std::size_t i = 0; i < frames; ++i) out[i] = float(x[i] * scale);
	return out;
}

// Voice-like syllables: a harmonic tone on 220 Hz, 300 ms on and 300 ms off,
// with 10 ms fades. The first syllable starts at `start` seconds.
constexpr double f0 = 220, syllable = 0.3, gap = 0.3;
constexpr int partials = 8;
std::vector<float> syllables(std::size_t frames, double start) {
	const auto tone = harmonicTone(f0, partials, rate, frames, 0.05);
	std::vector<float> out(frames, 0.0f);
	for (std::size_t i = 0; i < frames; ++i) {
		const double t = double(i) / rate - start;
		if (t < 0) continue;
		const double phase = std::fmod(t, syllable + gap);
		if (phase >= syllable) continue;
		const double fade = std::min({1.0, phase / 0.01, (syllable - phase) / 0.01});
		out[i] = float(tone[i] * fade);
	}
	return out;
}

std::vector<float> sum(const std::vector<float> &a, const std::vector<float> &b) {
	std::vector<float> out(a.size());
	for (std::size_t i = 0; i < a.size(); ++i) out[i] = a[i] + b[i];
	return out;
}

struct Measured {
	double toneDb; // the partials' level in the output over their level in the tone alone
	double floorDb; // output level over input level in the gaps between syllables
};

// Measures the syllables that start at or after `from` seconds: the partials
// over the middle 256 ms of each syllable, the floor from 100 to 280 ms into
// each gap, when the syllable's own tail has died away. Both in the output delayed by the plug-in's latency.
Measured measure(const std::vector<float> &out, const std::vector<float> &in, const std::vector<float> &tone,
	double start, double from, std::size_t latency) {
	double outTone = 0, inTone = 0, outFloor = 0, inFloor = 0;
	const std::size_t window = 12288;
	for (double t = start; t + syllable + gap <= double(in.size()) / rate - 0.05; t += syllable + gap) {
		if (t < from) continue;
		const auto middle = std::size_t((t + 0.5 * syllable) * rate) - window / 2;
		for (int k = 1; k <= partials; ++k) {
			const double hz = k * f0;
			outTone += std::pow(magnitudeAt(out, middle + latency, window, hz, rate), 2);
			inTone += std::pow(magnitudeAt(tone, middle, window, hz, rate), 2);
		}
		const auto g0 = std::size_t((t + syllable + 0.1) * rate), g1 = std::size_t((t + syllable + 0.28) * rate);
		outFloor += std::pow(rms(out, g0 + latency, g1 + latency), 2);
		inFloor += std::pow(rms(in, g0, g1), 2);
	}
	return {10 * std::log10(outTone / inTone), 10 * std::log10(outFloor / inFloor)};
}

using Cleanup = BundleTest;

} // namespace

// Untrained, the print is empty and the sound passes; "mix" 0 passes it
// whatever the print.
TEST_F(Cleanup, UntrainedOrDryItPassesTheSound) {
	const auto frames = std::size_t(3 * rate);
	const auto tone = syllables(frames, 0.25);
	const auto in = sum(tone, noise(frames, 0.01, false, 1));

	PluginRunner untrained(*bundle, pluginId);
	ASSERT_TRUE(untrained.ok);
	const auto out = untrained.run({in, in});
	const std::size_t latency = untrained.instance->latency();
	const auto m = measure(out[0], in, tone, 0.25, 0.5, latency);
	const double residual = residualDb(out[0], in, latency, std::size_t(0.2 * rate), frames - latency);
	std::printf("untrained: tone %+.2f dB, floor %+.2f dB, residual %.1f dB\n", m.toneDb, m.floorDb, residual);
	EXPECT_NEAR(m.toneDb, 0, 0.5);
	EXPECT_NEAR(m.floorDb, 0, 0.5);
	EXPECT_LT(residual, -20);

	for (int mode : {learnPrint, adaptive}) {
		PluginRunner dry(*bundle, pluginId);
		ASSERT_TRUE(dry.ok);
		dry.set(modeId, mode);
		setText(dry, mixId, "0");
		const auto dryOut = dry.run({in, in});
		const double dryResidual = residualDb(dryOut[0], in, latency, std::size_t(0.2 * rate), frames - latency);
		std::printf("mode %d, mix 0: residual %.1f dB\n", mode, dryResidual);
		EXPECT_LT(dryResidual, -20) << mode;
		EXPECT_NEAR(dB(rms(dryOut[0], latency + 4800) / rms(in, 4800, frames - latency)), 0, 0.3) << mode;
	}
}

// A print learned in "noise" mode and held in "static" mode lowers white and
// pink noise under the syllables, which keep their level, and leaves clean
// syllables alone; the noise is already lowered while the print is learned.
TEST_F(Cleanup, NoisePrintLowersTheFloorAndKeepsTheTone) {
	for (bool pink : {false, true}) {
		for (const char *mix : {"0.8", "1"}) {
			SCOPED_TRACE(std::string(pink ? "pink" : "white") + " mix " + mix);
			PluginRunner runner(*bundle, pluginId);
			ASSERT_TRUE(runner.ok);
			setText(runner, mixId, mix);
			const std::size_t latency = runner.instance->latency();

			// Two seconds of noise alone, learning.
			const auto learnFrames = std::size_t(2 * rate);
			const auto learnIn = noise(learnFrames, 0.01, pink, 2);
			runner.set(modeId, learnPrint);
			const auto learnOut = runner.run({learnIn, learnIn});
			const double whileLearning =
				dB(rms(learnOut[0], std::size_t(1.0 * rate)) / rms(learnIn, std::size_t(1.0 * rate) - latency, learnFrames - latency));

			// Then syllables in the same noise, the print held.
			runner.set(modeId, holdPrint);
			const auto frames = std::size_t(4 * rate);
			const auto tone = syllables(frames, 0.25);
			const auto in = sum(tone, noise(frames, 0.01, pink, 3));
			const auto out = runner.run({in, in});
			const auto m = measure(out[0], in, tone, 0.25, 0.5, latency);
			// Below -150 dB the floor is silence (a gain of exactly 0).
			std::printf("%s noise, mix %s: floor %+.1f dB while learning; held print: floor %+.1f dB, tone %+.2f dB\n",
				pink ? "pink" : "white", mix, std::max(whileLearning, -150.0), std::max(m.floorDb, -150.0), m.toneDb);
			EXPECT_LT(whileLearning, -15);
			EXPECT_LT(m.floorDb, -15);
			EXPECT_NEAR(m.toneDb, 0, 1);

			// Clean syllables through the same print come out close to unchanged.
			const auto clean = runner.run({tone, tone});
			const auto c = measure(clean[0], tone, tone, 0.25, 0.5, latency);
			std::printf("  clean syllables through the print: tone %+.2f dB\n", c.toneDb);
			EXPECT_NEAR(c.toneDb, 0, 1);
		}
	}
}

TEST_F(Cleanup, AdaptiveModeFollowsTheNoiseAndKeepsTheTone) {
	for (bool pink : {false, true}) {
		SCOPED_TRACE(pink ? "pink" : "white");
		PluginRunner runner(*bundle, pluginId);
		ASSERT_TRUE(runner.ok);
		runner.set(modeId, adaptive);
		const auto frames = std::size_t(8 * rate);
		const auto tone = syllables(frames, 0.25);
		const auto in = sum(tone, noise(frames, 0.01, pink, 4));
		const auto out = runner.run({in, in});
		const std::size_t latency = runner.instance->latency();
		const auto early = measure(out[0], in, tone, 0.25, 0.25, latency);
		const auto m = measure(out[0], in, tone, 0.25, 4, latency);
		std::printf("%s noise, adaptive: from the start floor %+.1f dB tone %+.2f dB; after 4 s floor %+.1f dB, tone %+.2f dB\n",
			pink ? "pink" : "white", early.floorDb, early.toneDb, m.floorDb, m.toneDb);
		EXPECT_LT(m.floorDb, -15);
		EXPECT_NEAR(m.toneDb, 0, 1);
	}
}

// Entering "noise" mode starts a new print, and a rebuild of the engine
// forgets the print; "static" holds whatever print there is.
TEST_F(Cleanup, NoiseModeStartsANewPrintAndARebuildForgetsIt) {
	PluginRunner runner(*bundle, pluginId);
	ASSERT_TRUE(runner.ok);
	setText(runner, mixId, "1");
	const std::size_t latency = runner.instance->latency();
	const auto frames = std::size_t(2.4 * rate);
	const auto tone = syllables(frames, 0.25);
	const auto in = sum(tone, noise(frames, 0.01, false, 5));
	const auto noiseOnly = noise(std::size_t(rate), 0.01, false, 6);
	auto toneDb = [&]() {
		const auto out = runner.run({in, in});
		return measure(out[0], in, tone, 0.25, 0.25, latency).toneDb;
	};

	// Learned by the running maximum, the syllables silence themselves.
	runner.set(modeId, learnPrint);
	runner.run({in, in});
	runner.set(modeId, holdPrint);
	const double learnedTone = toneDb();
	// Back in "noise" mode over noise alone, the print starts anew.
	runner.set(modeId, learnPrint);
	runner.run({noiseOnly, noiseOnly});
	runner.set(modeId, holdPrint);
	const double relearned = toneDb();
	// Learn the syllables again, then change an engine setting.
	runner.set(modeId, learnPrint);
	runner.run({in, in});
	runner.set(modeId, holdPrint);
	setText(runner, paramId({"engineConfig", "overlap"}), "3");
	const double rebuilt = toneDb();
	std::printf("tone with a print of itself %+.1f dB, after a new noise print %+.2f dB, after a rebuild %+.2f dB\n",
		std::max(learnedTone, -150.0), relearned, rebuilt);
	EXPECT_LT(learnedTone, -10);
	EXPECT_NEAR(relearned, 0, 1);
	EXPECT_NEAR(rebuilt, 0, 1);
}
