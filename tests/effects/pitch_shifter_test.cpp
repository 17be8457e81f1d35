// The pitch shifter through the plug-in: the pitch and level of every partial, transparency at no shift, the spectral
// envelope, mono mode, engine rebuilds.
#include "support/effect_checks.h"
#include "support/signals.h"

using namespace lumbrel_test;

namespace {

constexpr const char *pluginId = "varkesh.lumbrel.pitch-shifter-layer1";
constexpr double rate = 48000;
constexpr std::size_t window = 16384; // 0.34 s: 2.9 Hz bins, partials 110 Hz apart stay apart
const clap_id semitonesId = paramId({"peakShifterConfig", "semitones"});

std::vector<float> slice(const std::vector<float> &x, std::size_t from, std::size_t to) {
	return std::vector<float>(x.begin() + std::ptrdiff_t(from), x.begin() + std::ptrdiff_t(to));
}

// Where the shifter sends `hz`: the full ratio below the tonality limit's lower edge, nothing above its upper edge, a
// line between.
double mappedHz(double hz, int semitones, double tonalityLimit = 8000) {
	const double r = std::exp2(semitones / 12.0), low = tonalityLimit / std::sqrt(r);
	const double high = std::max(tonalityLimit * std::max(r, 1 / r) + tonalityLimit, 15000.0);
	if (hz < low) return hz * r;
	if (hz > high) return hz;
	return (hz - low) * (high - low * r) / (high - low) + low * r;
}

// A formant: a bell half an octave wide around 1 kHz over a floor 26 dB down.
double formantAmplitude(double hz) {
	const double octaves = std::log2(hz / 1000) / 0.5;
	return 0.02 * (0.05 + std::exp(-0.5 * octaves * octaves));
}

using PitchShifter = BundleTest;

} // namespace

// Every partial of a 36-partial tone lands within 5 cents of its target and, below the knee (where neighbours share
// bands), within 2 dB of its level; with no shift the output is the input delayed by 10 ms.
TEST_F(PitchShifter, EveryPartialLandsWithinFiveCentsOfItsTarget) {
	const double f0 = 220;
	const auto tone = harmonicTone(f0, 36, rate, std::size_t(1.5 * rate), 0.02); // partials up to 7920 Hz
	const std::size_t from = std::size_t(0.8 * rate);
	for (int semitones : {0, 12, 7, -5, -12}) {
		PluginRunner runner(*bundle, pluginId);
		ASSERT_TRUE(runner.ok);
		runner.set(semitonesId, semitones);
		const auto out = runner.run({tone, tone});
		for (int k = 1; k <= 36; ++k) {
			const double target = mappedHz(k * f0, semitones);
			SCOPED_TRACE(testing::Message() << semitones << " semitones, partial " << k << " at " << target << " Hz");
			EXPECT_LT(std::fabs(cents(peakFrequency(out[0], from, window, target, 10, rate), target)), 5);
			if (k * f0 < 5700) EXPECT_NEAR(dB(magnitudeAt(out[0], from, window, target, rate) / 0.02), 0, 2.0);
		}
		if (semitones == 0) {
			EXPECT_EQ(runner.instance->latency(), 480u);
			EXPECT_LT(residualDb(out[0], tone, 480, std::size_t(0.5 * rate), tone.size()), -20);
		}
	}
}

// Without correction the formant moves with the shift; at 0.95 it stays (partials below 3.5 kHz, which stay resolved
// after a shift).
TEST_F(PitchShifter, TimbreCorrectionKeepsTheEnvelopeInPlace) {
	const double f0 = 110;
	std::vector<float> tone(std::size_t(1.5 * rate), 0.0f);
	std::vector<double> partials;
	for (int k = 1; k * f0 < 6000; ++k) {
		partials.push_back(k * f0);
		const auto partial = sine(k * f0, rate, tone.size(), formantAmplitude(k * f0));
		for (std::size_t i = 0; i < tone.size(); ++i) tone[i] += partial[i];
	}
	const std::size_t from = std::size_t(0.8 * rate);
	// The power-weighted mean of log2 frequency over the partials at `hzs`.
	auto centre = [&](const std::vector<float> &x, const std::vector<double> &hzs) {
		double sum = 0, weight = 0;
		for (double hz : hzs) {
			const double m = magnitudeAt(x, from, window, hz, rate);
			sum += m * m * std::log2(hz);
			weight += m * m;
		}
		return sum / weight;
	};
	for (int semitones : {7, -5}) {
		std::vector<double> shifted;
		for (double hz : partials) shifted.push_back(mappedHz(hz, semitones));
		for (const char *correction : {"0", "0.95"}) {
			PluginRunner runner(*bundle, pluginId);
			ASSERT_TRUE(runner.ok);
			runner.set(semitonesId, semitones);
			setText(runner, {"timbreCorrection"}, correction);
			const auto out = runner.run({tone, tone});
			double squares = 0;
			int count = 0;
			for (std::size_t k = 0; partials[k] < 3500; ++k, ++count) {
				squares += std::pow(dB(magnitudeAt(out[0], from, window, shifted[k], rate) / formantAmplitude(shifted[k])), 2);
			}
			const double moved = 12 * (centre(out[0], shifted) - centre(tone, partials)), envelopeDb = std::sqrt(squares / count);
			SCOPED_TRACE(testing::Message() << semitones << " semitones, timbre " << correction << ": formant moves " << moved
											<< " semitones, envelope off by " << envelopeDb << " dB RMS");
			if (correction[0] == '0' && correction[1] == 0) {
				EXPECT_NEAR(moved, semitones, 1.5);
				EXPECT_GT(envelopeDb, 5);
			} else {
				EXPECT_LT(std::fabs(moved), 0.35 * std::abs(semitones));
				EXPECT_LT(envelopeDb, 2.5);
			}
		}
	}
}

TEST_F(PitchShifter, MonoModeReadsTheFirstInputIntoBothOutputs) {
	const auto left = sine(440, rate, std::size_t(rate), 0.5), right = sine(660, rate, std::size_t(rate), 0.5);
	const std::size_t from = std::size_t(0.5 * rate);
	for (int full : {0, 1}) {
		PluginRunner runner(*bundle, pluginId);
		ASSERT_TRUE(runner.ok);
		runner.set(paramId({"channelMode"}), full);
		const auto out = runner.run({left, right});
		auto levelDb = [&](int channel, double hz) { return dB(magnitudeAt(out[channel], from, window, hz, rate) / 0.5); };
		EXPECT_NEAR(levelDb(0, 440), 0, 1) << "mode " << full;
		EXPECT_LT(levelDb(0, 660), -50) << "mode " << full;
		if (!full) {
			EXPECT_EQ(out[0], out[1]);
		} else {
			EXPECT_NEAR(levelDb(1, 660), 0, 1);
			EXPECT_LT(levelDb(1, 440), -50);
		}
	}
}

// Each engine setting, as an event in a block, restarts the engine (the first 5 ms after it near silent; a latency of
// 15 ms reported at once); other settings do not.
TEST_F(PitchShifter, EngineSettingsRebuildTheEngine) {
	const auto tone = harmonicTone(220, 20, rate, std::size_t(2 * rate), 0.03);
	const std::size_t half = tone.size() / 2;
	const struct {
		std::initializer_list<const char *> path;
		double value;
		bool restarts;
	} settings[] = {{{"engineConfig", "latencyMs"}, 1.0, true}, {{"engineConfig", "overlap"}, 1.0, true},
		{{"engineConfig", "resolution"}, 1.0, true}, {{"engineConfig", "iterationsLog2"}, 0, true},
		{{"engineConfig", "directCopy"}, 0, true}, {{"peakShifterConfig", "tonalityLimit"}, 1.0, false}};
	for (const auto &setting : settings) {
		PluginRunner fresh(*bundle, pluginId);
		ASSERT_TRUE(fresh.ok);
		fresh.run({slice(tone, 0, half)});
		fresh.events.paramValue(0, paramId(setting.path), setting.value);
		const auto next = fresh.run({slice(tone, half, half + 4800)});
		const double level = dB(rms(next[0], 0, 240) / rms(tone, half - 480, half - 240));
		if (setting.value == 1.0 && std::string(*(setting.path.begin() + 1)) == "latencyMs") EXPECT_EQ(fresh.instance->latency(), 720u);
		if (setting.restarts) {
			EXPECT_LT(level, -30) << *(setting.path.begin() + 1);
		} else {
			EXPECT_NEAR(level, 0, 1) << *(setting.path.begin() + 1);
		}
	}
}
