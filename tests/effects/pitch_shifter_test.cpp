// The pitch shifter through the plug-in: its parameter list, and what it does
// to harmonic tones, measured on the audio that comes out: pitch of every
// partial, transparency at no shift, where the spectral envelope ends up, the
// mono channel mode, and engine rebuilds from host events.
#include "support/effect_checks.h"
#include "support/signals.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

using namespace lumbrel_test;

namespace {

constexpr const char *pluginId = "varkesh.lumbrel.pitch-shifter-layer1";
constexpr double rate = 48000;

std::vector<float> slice(const std::vector<float> &x, std::size_t from, std::size_t to) {
	return std::vector<float>(x.begin() + std::ptrdiff_t(from), x.begin() + std::ptrdiff_t(to));
}

// Where the shifter sends `hz`: the full ratio below the tonality limit's
// lower edge, nothing above its upper edge, a straight line between.
double mappedHz(double hz, int semitones, double tonalityLimit = 8000) {
	const double r = std::exp2(semitones / 12.0);
	const double low = tonalityLimit / std::sqrt(r);
	const double high = std::max(tonalityLimit * std::max(r, 1 / r) + tonalityLimit, 15000.0);
	if (hz < low) return hz * r;
	if (hz > high) return hz;
	return (hz - low) * (high - low * r) / (high - low) + low * r;
}

constexpr std::size_t window = 16384; // 0.34 s: 2.9 Hz bins, partials 110 Hz apart stay apart

// A tone whose partial amplitudes follow a formant: a bell half an octave
// wide (one standard deviation) around 1 kHz over a floor 26 dB down.
constexpr double formantHz = 1000;
double formantAmplitude(double hz) {
	const double octaves = std::log2(hz / formantHz) / 0.5;
	return 0.02 * (0.05 + std::exp(-0.5 * octaves * octaves));
}
std::vector<float> formantTone(double f0, std::size_t frames) {
	std::vector<float> out(frames, 0.0f);
	for (int k = 1; k * f0 < 6000; ++k) {
		const double amplitude = formantAmplitude(k * f0);
		for (std::size_t i = 0; i < frames; ++i) out[i] += float(amplitude * std::sin(2 * pi * k * f0 * double(i) / rate + k));
	}
	return out;
}

// Centre of the formant, in octaves (log2 Hz): the power-weighted mean of
// log2 frequency over the partials found at `partialHz`.
double formantCentre(const std::vector<float> &x, std::size_t from, const std::vector<double> &partialHz) {
	double sum = 0, weight = 0;
	for (double hz : partialHz) {
		const double m = magnitudeAt(x, from, window, hz, rate);
		sum += m * m * std::log2(hz);
		weight += m * m;
	}
	return sum / weight;
}

using PitchShifter = BundleTest;

} // namespace

TEST_F(PitchShifter, EveryPartialLandsWithinFiveCentsOfItsTarget) {
	const double f0 = 220;
	const auto tone = harmonicTone(f0, 36, rate, std::size_t(1.5 * rate), 0.02); // partials up to 7920 Hz
	double worstOverall = 0;
	for (int semitones : {12, 7, -5, -12}) {
		PluginRunner runner(*bundle, pluginId);
		ASSERT_TRUE(runner.ok);
		runner.set(paramId({"peakShifterConfig", "semitones"}), semitones);
		const auto out = runner.run({tone, tone});
		const std::size_t from = std::size_t(0.8 * rate);
		double worst = 0, worstHz = 0, quietest = 0;
		for (int k = 1; k <= 36; ++k) {
			const double target = mappedHz(k * f0, semitones);
			const double found = peakFrequency(out[0], from, window, target, 10, rate);
			const double error = cents(found, target);
			if (std::fabs(error) > std::fabs(worst)) {
				worst = error;
				worstHz = target;
			}
			const double level = dB(magnitudeAt(out[0], from, window, target, rate) / 0.02);
			quietest = std::min(quietest, level);
			EXPECT_LT(std::fabs(error), 5) << semitones << " semitones, partial " << k << " at " << target << " Hz";
			// Partials resolved one by one keep their level to within the error
			// of placing moved bands between two bins (up to about 1.7 dB, by
			// where the partial lands); near the band grid's knee (about
			// 6.5 kHz) neighbours share bands and the level varies more.
			if (k * f0 < 5700) {
				EXPECT_NEAR(level, 0, 2.0) << semitones << " semitones, partial " << k;
			}
		}
		std::printf("shift %+d: worst partial %+.2f cents (at %.0f Hz); weakest partial %.1f dB re input (all 36)\n", semitones,
			worst, worstHz, quietest);
		worstOverall = std::max(worstOverall, std::fabs(worst));
	}
	std::printf("worst partial error over all shifts: %.2f cents\n", worstOverall);
}

TEST_F(PitchShifter, NoShiftIsCloseToTransparent) {
	PluginRunner runner(*bundle, pluginId);
	ASSERT_TRUE(runner.ok);
	const auto tone = harmonicTone(220, 36, rate, std::size_t(1.5 * rate), 0.02);
	const auto out = runner.run({tone, tone});
	const std::size_t latency = runner.instance->latency();
	EXPECT_EQ(latency, 480u); // 10 ms
	const double residual = residualDb(out[0], tone, latency, std::size_t(0.5 * rate), tone.size());
	std::printf("no shift: residual against the input delayed by %zu samples: %.1f dB\n", latency, residual);
	EXPECT_LT(residual, -20);
}

TEST_F(PitchShifter, TimbreCorrectionKeepsTheEnvelopeInPlace) {
	const double f0 = 110;
	const auto tone = formantTone(f0, std::size_t(1.5 * rate));
	const std::size_t from = std::size_t(0.8 * rate);
	std::vector<double> inputPartials;
	for (int k = 1; k * f0 < 6000; ++k) inputPartials.push_back(k * f0);
	const double inputCentre = formantCentre(tone, from, inputPartials);

	for (int semitones : {7, -5}) {
		std::vector<double> shiftedPartials;
		for (double hz : inputPartials) shiftedPartials.push_back(mappedHz(hz, semitones));
		struct Result {
			double centreShift; // semitones
			double envelopeError; // dB RMS
		};
		auto measure = [&](const char *correction) {
			PluginRunner runner(*bundle, pluginId);
			EXPECT_TRUE(runner.ok);
			runner.set(paramId({"peakShifterConfig", "semitones"}), semitones);
			setText(runner, {"timbreCorrection"}, correction);
			const auto out = runner.run({tone, tone});
			// How far each partial from below 3.5 kHz stands from the input's
			// envelope at the frequency where it lands. (Higher partials, 110 Hz
			// apart, are only two or three bands apart near the band grid's
			// knee, and their level after a shift varies.)
			double squares = 0;
			int count = 0;
			for (std::size_t k = 0; k < inputPartials.size() && inputPartials[k] < 3500; ++k) {
				const double hz = shiftedPartials[k];
				const double error = dB(magnitudeAt(out[0], from, window, hz, rate) / formantAmplitude(hz));
				squares += error * error;
				++count;
			}
			return Result{12 * (formantCentre(out[0], from, shiftedPartials) - inputCentre), std::sqrt(squares / count)};
		};
		const Result moved = measure("0"), kept = measure("0.95");
		std::printf("%+d semitones: formant moves %+.2f semitones, envelope off by %.1f dB RMS; with timbre 0.95 "
					"%+.2f semitones, %.1f dB RMS\n",
			semitones, moved.centreShift, moved.envelopeError, kept.centreShift, kept.envelopeError);
		EXPECT_NEAR(moved.centreShift, semitones, 1.5);
		EXPECT_LT(std::fabs(kept.centreShift), 0.35 * std::abs(semitones));
		EXPECT_GT(moved.envelopeError, 5);
		EXPECT_LT(kept.envelopeError, 2.5);
	}
}

TEST_F(PitchShifter, MonoModeReadsTheFirstInputIntoBothOutputs) {
	const auto left = sine(440, rate, std::size_t(rate), 0.5), right = sine(660, rate, std::size_t(rate), 0.5);
	const std::size_t from = std::size_t(0.5 * rate);
	for (int mode : {0, 1}) {
		PluginRunner runner(*bundle, pluginId);
		ASSERT_TRUE(runner.ok);
		runner.set(paramId({"channelMode"}), mode);
		const auto out = runner.run({left, right});
		const double l440 = magnitudeAt(out[0], from, window, 440, rate), l660 = magnitudeAt(out[0], from, window, 660, rate);
		const double r440 = magnitudeAt(out[1], from, window, 440, rate), r660 = magnitudeAt(out[1], from, window, 660, rate);
		std::printf("mode %s: left 440 Hz %.1f dB, 660 Hz %.1f dB; right 440 Hz %.1f dB, 660 Hz %.1f dB\n",
			mode ? "full" : "mono", dB(l440 / 0.5), dB(l660 / 0.5), dB(r440 / 0.5), dB(r660 / 0.5));
		EXPECT_NEAR(dB(l440 / 0.5), 0, 1);
		EXPECT_LT(dB(l660 / 0.5), -50);
		if (mode == 0) {
			EXPECT_EQ(out[0], out[1]);
		} else {
			EXPECT_NEAR(dB(r660 / 0.5), 0, 1);
			EXPECT_LT(dB(r440 / 0.5), -50);
		}
	}
}

TEST_F(PitchShifter, LatencyEventRebuildsTheEngineAndKeepsTheOutputAligned) {
	PluginRunner runner(*bundle, pluginId);
	ASSERT_TRUE(runner.ok);
	const auto tone = harmonicTone(220, 20, rate, std::size_t(2 * rate), 0.03);
	const std::size_t half = tone.size() / 2;
	const auto before = runner.run({slice(tone, 0, half)});
	EXPECT_EQ(runner.instance->latency(), 480u);

	const clap_id id = paramId({"engineConfig", "latencyMs"});
	runner.events.paramValue(0, id, valueOf(runner, id, "15ms"));
	const auto after = runner.run({slice(tone, half, tone.size())});
	runner.events.clear();
	const std::size_t latency = runner.instance->latency();
	EXPECT_EQ(latency, 720u);

	// The second half lines up with its input at the new latency, and better
	// there than a few samples either side.
	std::vector<float> joined = before[0];
	joined.insert(joined.end(), after[0].begin(), after[0].end());
	const std::size_t from = half + std::size_t(0.3 * rate);
	const double aligned = residualDb(joined, tone, latency, from, tone.size());
	const double early = residualDb(joined, tone, latency - 8, from, tone.size());
	const double late = residualDb(joined, tone, latency + 8, from, tone.size());
	std::printf("after the latency edit: %zu samples, residual %.1f dB (%.1f / %.1f dB 8 samples off)\n", latency,
		aligned, early, late);
	EXPECT_LT(aligned, -20);
	EXPECT_LT(aligned, early - 6);
	EXPECT_LT(aligned, late - 6);
}

TEST_F(PitchShifter, EngineSettingsRestartTheEngineOtherSettingsDoNot) {
	const auto tone = harmonicTone(220, 20, rate, std::size_t(rate), 0.03);
	const std::size_t half = tone.size() / 2;

	// Level of the first 5 ms after an event, relative to the input that
	// should come out then: a fresh engine has nothing in its pipeline yet.
	auto levelAfter = [&](std::initializer_list<const char *> path, double value) {
		PluginRunner runner(*bundle, pluginId);
		EXPECT_TRUE(runner.ok);
		runner.run({slice(tone, 0, half)});
		runner.events.paramValue(0, paramId(path), value);
		const auto after = runner.run({slice(tone, half, tone.size())});
		runner.events.clear();
		return dB(rms(after[0], 0, 240) / rms(tone, half - 480, half - 240));
	};
	const struct {
		std::initializer_list<const char *> path;
		double value;
	} engineSettings[] = {
		{{"engineConfig", "overlap"}, 1.0},
		{{"engineConfig", "resolution"}, 1.0},
		{{"engineConfig", "iterationsLog2"}, 0},
		{{"engineConfig", "directCopy"}, 0},
	};
	for (const auto &setting : engineSettings) {
		const double level = levelAfter(setting.path, setting.value);
		std::printf("%s: %.1f dB in the first 5 ms\n", *(setting.path.begin() + 1), level);
		EXPECT_LT(level, -30) << *(setting.path.begin() + 1);
	}
	const double untouched = levelAfter({"peakShifterConfig", "tonalityLimit"}, 1.0);
	std::printf("tonalityLimit: %.1f dB in the first 5 ms\n", untouched);
	EXPECT_NEAR(untouched, 0, 1);
}
