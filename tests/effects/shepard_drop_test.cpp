// Shepard drop through the plug-in: its parameter list and saved state, and
// what it does to a steady tone, measured on the audio that comes out: the
// rest state passes the sound, a falling control makes every partial glide
// down at the control's rate while loudness stays put, and a move by a whole
// octave ends in the sound it started from.
#include "support/alloc_counter.h"
#include "support/effect_checks.h"
#include "support/signals.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <random>
#include <string>
#include <vector>

using namespace lumbrel_test;

namespace {

constexpr const char *pluginId = "varkesh.lumbrel.shepard-drop";
constexpr double rate = 48000;

const clap_id shiftId = paramId({"semitones"});

// The host position of a "shift" in semitones: a straight control from -12 to 12.
double shiftPosition(double semitones) { return (semitones + 12) / 24; }

// Runs `in` on both channels in blocks of 256 frames, setting "shift" at the
// start of each block to shift(seconds). Returns output channel 0.
std::vector<float> glide(PluginRunner &runner, const std::vector<float> &in,
	const std::function<double(double)> &shift) {
	const std::uint32_t block = 256;
	std::vector<float> out(in.size());
	std::vector<float> inL(block), outL(block), outR(block);
	float *inputs[2] = {inL.data(), inL.data()};
	float *outputs[2] = {outL.data(), outR.data()};
	for (std::size_t start = 0; start < in.size(); start += block) {
		const auto frames = std::uint32_t(std::min<std::size_t>(block, in.size() - start));
		std::copy_n(in.begin() + std::ptrdiff_t(start), frames, inL.begin());
		runner.events.clear();
		runner.events.paramValue(0, shiftId, shiftPosition(shift(double(start) / rate)));
		runner.out.clear();
		runner.instance->process(inputs, 2, outputs, 2, frames, runner.events, runner.out);
		std::copy_n(outL.begin(), frames, out.begin() + std::ptrdiff_t(start));
	}
	runner.events.clear();
	return out;
}

// Level, in dB of amplitude, at each of `hz`, over `length` samples from `from`.
std::vector<double> levelsAt(const std::vector<float> &x, std::size_t from, std::size_t length,
	const std::vector<double> &hz) {
	std::vector<double> levels;
	for (double f : hz) levels.push_back(dB(magnitudeAt(x, from, length, f, rate)));
	return levels;
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
	const double residual = residualDb(outs[0], in, latency, from, to);
	std::printf("shepard at rest: residual against the input %.1f dB, latency %zu samples\n", residual, latency);
	EXPECT_LT(residual, -20);
	for (std::size_t k = 1; k < outs.size(); ++k) {
		double difference = 0;
		for (std::size_t i = 0; i < in.size(); ++i) {
			difference = std::max(difference, double(std::fabs(outs[k][i] - outs[0][i])));
		}
		std::printf("shepard shift %s12 against 0: largest difference %.3g\n", k == 1 ? "+" : "-", difference);
		EXPECT_LT(difference, 1e-4);
	}
}

// "shift" falls from +12 to -12 over 4 s and again (it jumps back to +12,
// which is the same state): the control falls at 6 semitones a second for
// 8 s. Every partial that can be followed glides down at that rate, new ones
// come in from above, and the level stays steady.
TEST_F(ShepardDrop, FallingControlGlidesDownWithoutEndAtSteadyLoudness) {
	PluginRunner runner(*bundle, pluginId);
	ASSERT_TRUE(runner.ok);
	const double seconds = 9, ratePerSecond = -6;
	const auto in = sine(600, rate, std::size_t(seconds * rate), 0.3);
	const auto out = glide(runner, in, [&](double t) {
		if (t < 1) return 12.0;
		return 12 - std::fmod((t - 1) * -ratePerSecond, 24);
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
		std::printf("partial from %.1f Hz at %.1f s followed for %.2f s to %.1f Hz: %+.2f semitones per second\n", firstHz,
			start, (lastAt - firstAt) / rate, lastHz, measured);
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
	std::printf("strongest partial 2 s later: within %.2f cents of where it was\n", worstCents);
	EXPECT_LT(worstCents, 10);

	// Loudness in 50 ms windows after the bell has widened.
	double low = 1e9, high = -1e9;
	for (std::size_t at = std::size_t(2 * rate); at + 2400 <= out.size(); at += 2400) {
		const double level = dB(rms(out, at, at + 2400) / rms(in, at, at + 2400));
		low = std::min(low, level);
		high = std::max(high, level);
	}
	std::printf("loudness during the glide: %+.2f to %+.2f dB of the input\n", low, high);
	EXPECT_GT(low, -3);
	EXPECT_LT(high, 3);
	EXPECT_LT(high - low, 3);
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

	std::vector<double> partials, between;
	for (int k = 1; k <= 8; ++k) {
		partials.push_back(220.0 * k);
		between.push_back(220.0 * k * std::exp2(-6 / 12.0)); // where half-octave copies would sit
	}
	const std::size_t length = 16384;
	auto levels = [&](const std::vector<float> &x, double t, const std::vector<double> &hz) {
		return levelsAt(x, std::size_t(t * rate), length, hz);
	};
	// While moving, copies half an octave down are loud; at the end they are not.
	const auto movingBetween = levels(moved, 1.4, between);
	const auto endStill = levels(still, 8.5, partials), endMoved = levels(moved, 8.5, partials);
	const auto endBetween = levels(moved, 8.5, between), stillBetween = levels(still, 8.5, between);
	double worst = 0, movingLoudest = -300, endLoudest = -300, stillLoudest = -300;
	for (std::size_t k = 0; k < partials.size(); ++k) {
		worst = std::max(worst, std::fabs(endMoved[k] - endStill[k]));
		movingLoudest = std::max(movingLoudest, movingBetween[k] - endStill[k]);
		endLoudest = std::max(endLoudest, endBetween[k] - endStill[k]);
		stillLoudest = std::max(stillLoudest, stillBetween[k] - endStill[k]);
	}
	std::printf("octave move: partials within %.2f dB of no move; half-octave copies %+.1f dB while moving, "
		"%+.1f dB after (no move: %+.1f dB)\n", worst, movingLoudest, endLoudest, stillLoudest);
	EXPECT_LT(worst, 1);
	EXPECT_GT(movingLoudest, -20);
	EXPECT_LT(endLoudest, -35);
}
