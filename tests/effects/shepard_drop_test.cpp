// Shepard drop through the plug-in, measured on the audio that comes out: the
// rest state passes the sound, a falling control makes every partial glide
// down at the control's rate while loudness stays put, and a move by a whole
// octave ends in the sound it started from.
#include "support/effect_checks.h"
#include "support/signals.h"

#include <gtest/gtest.h>

#include <functional>

using namespace lumbrel_test;

namespace {

constexpr const char *pluginId = "varkesh.lumbrel.shepard-drop";
constexpr double rate = 48000;

const clap_id shiftId = paramId({"semitones"});

// The host position of a "shift" in semitones: a straight control from -12 to 12.
double shiftPosition(double semitones) { return (semitones + 12) / 24; }

// Runs `in` on both channels, setting "shift" at the start of each block of
// 256 frames to shift(seconds). Returns output channel 0.
std::vector<float> glide(PluginRunner &runner, const std::vector<float> &in, const std::function<double(double)> &shift) {
	return runner.run({in}, 256, [&](std::size_t start, std::size_t &) {
		runner.events.paramValue(0, shiftId, shiftPosition(shift(double(start) / rate)));
	})[0];
}

using ShepardDrop = BundleTest;

} // namespace

// At rest with the default overlap the bell is one octave wide: only the
// unshifted voice sounds, and the output is the input, delayed. The ends of
// the control (+-12) are the same state as its middle.
TEST_F(ShepardDrop, AtRestThePlainSoundPassesAtEitherEndOfTheControl) {
	const auto in = harmonicTone(220, 10, rate, std::size_t(2 * rate));
	std::vector<std::vector<float>> outs;
	std::size_t latency = 0;
	for (double shift : {0.0, 12.0, -12.0}) {
		PluginRunner runner(*bundle, pluginId);
		ASSERT_TRUE(runner.ok);
		outs.push_back(glide(runner, in, [shift](double) { return shift; }));
		latency = runner.instance->latency();
	}
	const std::size_t from = std::size_t(0.2 * rate), to = in.size();
	EXPECT_LT(residualDb(outs[0], in, latency, from, to), -20);
	for (std::size_t k = 1; k < outs.size(); ++k) {
		double difference = 0;
		for (std::size_t i = 0; i < in.size(); ++i) {
			difference = std::max(difference, double(std::fabs(outs[k][i] - outs[0][i])));
		}
		EXPECT_LT(difference, 1e-4);
	}
}

// "shift" falls from +12 to -12 over 4 s and again (it jumps back to +12,
// which is the same state): the control falls at 6 semitones a second for
// 8 s. Every partial that can be followed glides down at that rate, new ones
// come in from above, and the level stays steady; and the same rising.
TEST_F(ShepardDrop, MovingControlGlidesWithoutEndAtSteadyLoudness) {
	for (const double ratePerSecond : {-6.0, 6.0}) {
		SCOPED_TRACE(ratePerSecond);
		PluginRunner runner(*bundle, pluginId);
		ASSERT_TRUE(runner.ok);
		const double seconds = 9;
		const auto in = sine(600, rate, std::size_t(seconds * rate), 0.3);
		const auto out = glide(runner, in, [&](double t) {
			const double start = ratePerSecond < 0 ? 12 : -12;
			return t < 1 ? start : start + std::copysign(std::fmod((t - 1) * 6, 24), ratePerSecond);
		});

		// Follow partials: from 1.5 s on, every 0.5 s pick the strongest partial
		// and follow it in hops of 1024 samples (12.8 cents at the control's rate),
		// searching within 40 cents of where it was, for as long as it stays
		// within 30 dB of the strongest.
		const std::size_t length = 4096, hop = 1024;
		std::vector<double> glideRates, strongest;
		for (double start = 1.5; start < seconds - 1.5; start += 0.5) {
			std::size_t at = std::size_t(start * rate);
			double best = -1, hz = 0;
			for (double f = 150; f < 2400; f *= std::exp2(0.25 / 12)) {
				const double m = magnitudeAt(out, at, length, f, rate);
				if (m > best) {
					best = m;
					hz = f;
				}
			}
			hz = peakFrequency(out, at, length, hz, hz * 0.015, rate);
			strongest.push_back(hz);
			const double firstHz = hz, firstAt = double(at);
			double lastHz = hz, lastAt = double(at);
			for (at += hop; at + length < out.size() && double(at) < firstAt + rate; at += hop) {
				const double next = peakFrequency(out, at, length, lastHz, lastHz * 0.023, rate);
				if (dB(magnitudeAt(out, at, length, next, rate) / best) < -30) break;
				lastHz = next;
				lastAt = double(at);
			}
			if (lastAt - firstAt < 0.25 * rate) continue;
			const double measured = 12 * std::log2(lastHz / firstHz) / ((lastAt - firstAt) / rate);
			glideRates.push_back(measured);
		}
		ASSERT_GE(glideRates.size(), 8u);
		for (double r : glideRates) EXPECT_NEAR(r, ratePerSecond, 0.3);
		// Yet it comes round: 2 s (one octave of the control) later the strongest
		// partial is where it was.
		double worstCents = 0;
		for (std::size_t i = 0; i + 4 < strongest.size(); ++i) {
			// The partials are an octave apart and two of them can be equally strong
			// at the top of the bell: compare pitch classes.
			const double c = std::fmod(std::fabs(cents(strongest[i + 4], strongest[i])), 1200.0);
			worstCents = std::max(worstCents, std::min(c, 1200 - c));
		}
		EXPECT_LT(worstCents, 10);

		// Loudness in 50 ms windows after the bell has widened.
		double low = 1e9, high = -1e9;
		for (std::size_t at = std::size_t(2 * rate); at + 2400 <= out.size(); at += 2400) {
			const double level = dB(rms(out, at, at + 2400) / rms(in, at, at + 2400));
			low = std::min(low, level);
			high = std::max(high, level);
		}
		EXPECT_GT(low, -3);
		EXPECT_LT(high, 3);
		EXPECT_LT(high - low, 3);
	}
}

// A move of the control from 0 to -12 and back to rest ends in the sound of
// no move: once the bell has narrowed again, the partials of a harmonic tone
// come out at the levels they have without the move, and the octave copies
// that sounded while moving are gone.
TEST_F(ShepardDrop, AMoveByAWholeOctaveReturnsToTheSameSound) {
	const auto in = harmonicTone(220, 8, rate, std::size_t(9 * rate));
	auto render = [&](const std::function<double(double)> &shift) {
		PluginRunner runner(*bundle, pluginId);
		EXPECT_TRUE(runner.ok);
		return glide(runner, in, shift);
	};
	const auto still = render([](double) { return 0.0; });
	const auto moved = render([](double t) { return t < 1 ? 0.0 : -12 * std::min(t - 1, 1.0); });

	// While moving, copies half an octave down are loud; at the end they are
	// not, and the partials are back at their levels without the move.
	const std::size_t length = 16384;
	auto levelDb = [&](const std::vector<float> &x, double t, double hz) { return dB(magnitudeAt(x, std::size_t(t * rate), length, hz, rate)); };
	double worst = 0, movingLoudest = -300, endLoudest = -300;
	for (int k = 1; k <= 8; ++k) {
		const double partial = 220.0 * k, between = partial * std::exp2(-6 / 12.0), reference = levelDb(still, 8.5, partial);
		worst = std::max(worst, std::fabs(levelDb(moved, 8.5, partial) - reference));
		movingLoudest = std::max(movingLoudest, levelDb(moved, 1.4, between) - reference);
		endLoudest = std::max(endLoudest, levelDb(moved, 8.5, between) - reference);
	}
	EXPECT_LT(worst, 1);
	EXPECT_GT(movingLoudest, -20);
	EXPECT_LT(endLoudest, -35);
}
