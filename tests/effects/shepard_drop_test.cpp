// Shepard drop through the plug-in: at rest the sound passes, a moving control glides every partial at its rate at
// steady loudness, and a move by a whole octave ends in the sound it started from.
#include "support/effect_checks.h"
#include "support/signals.h"

#include <functional>

using namespace lumbrel_test;

namespace {

constexpr const char *pluginId = "varkesh.lumbrel.shepard-drop";
constexpr double rate = 48000;

const clap_id shiftId = paramId({"semitones"});

// Runs `in`, setting "shift" (-12 to 12, a straight control) at each block of 256 frames to shift(seconds). Returns
// output channel 0.
std::vector<float> glide(PluginRunner &runner, const std::vector<float> &in, const std::function<double(double)> &shift) {
	return runner.run({in}, 256, [&](std::size_t start, std::size_t &) {
		runner.events.paramValue(0, shiftId, (shift(double(start) / rate) + 12) / 24);
	})[0];
}

using ShepardDrop = BundleTest;

} // namespace

// "shift" falls from +12 to -12 over 4 s, twice (+12 is the same state as -12): every partial that can be followed
// glides down at 6 semitones a second, new ones come in from above, the level stays steady; and rising.
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
		// Every 0.5 s follow the strongest partial in hops of 1024 samples, within 40 cents of where it was, while
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
		// Yet it comes round: 2 s later the strongest partial has the same pitch class (two octave-apart partials can be
		// equally strong).
		double worstCents = 0;
		for (std::size_t i = 0; i + 4 < strongest.size(); ++i) {
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

// At rest the bell is an octave wide: only the unshifted voice sounds, and the output is the input, delayed. A move
// from 0 to -12 ends in that sound: once the bell has narrowed, the partials are back at their levels and the copies
// half an octave down, loud while moving, are gone.
TEST_F(ShepardDrop, AtRestThePlainSoundPassesAndAMoveByAnOctaveReturnsToIt) {
	const auto in = harmonicTone(220, 8, rate, std::size_t(9 * rate));
	std::size_t latency = 0;
	auto render = [&](const std::function<double(double)> &shift) {
		PluginRunner runner(*bundle, pluginId);
		EXPECT_TRUE(runner.ok);
		latency = runner.instance->latency();
		return glide(runner, in, shift);
	};
	const auto still = render([](double) { return 0.0; });
	EXPECT_LT(residualDb(still, in, latency, std::size_t(0.2 * rate), in.size()), -20);
	const auto moved = render([](double t) { return t < 1 ? 0.0 : -12 * std::min(t - 1, 1.0); });
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
