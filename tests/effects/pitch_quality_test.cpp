// Sound quality of the pitch shifter on steady and gliding tones, measured the way the quality benchmark measures it
// (support/quality_measures.h). The bounds sit a little above today's figures, well below the figures of the faults they
// guard against: side peaks moved by their own misread frequency beat against the main one (3-4 dB and 3-5 cents of
// wander on a 220 Hz sine), side lobes turned apart from their partial (+1 dB on that sine at +5), bands placed at a
// measured frequency instead of being translated (+1.2 dB), and a glide whose shift follows a late frequency.
#include "support/param_ids.h"
#include "support/plugin_runner.h"
#include "support/quality_measures.h"
#include "support/signals.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

using namespace lumbrel_test;

namespace {

constexpr double rate = 48000;
constexpr std::size_t delay = 480; // the reported 10 ms

std::vector<float> shifted(const std::vector<float> &in, int semitones) {
	auto loaded = bundle();
	if (!loaded) return {};
	PluginRunner runner(*loaded, "varkesh.lumbrel.pitch-shifter-layer1", rate, 256);
	EXPECT_TRUE(runner.ok);
	runner.set(paramId({"peakShifterConfig", "semitones"}), semitones);
	return runner.run({in, in})[0];
}

// Expected frequency of the output at each sample: the input's, scaled and delayed.
std::vector<double> expectedHz(const std::vector<double> &inputHz, int semitones) {
	std::vector<double> out(inputHz.size());
	for (std::size_t i = 0; i < out.size(); ++i) out[i] = std::exp2(semitones / 12.0) * inputHz[i >= delay ? i - delay : 0];
	return out;
}

TEST(PitchQuality, SteadySinesKeepLevelAndPitch) {
	struct Case {
		double hz;
		int semitones;
		double maxWanderDb, maxCentsRms, maxLevelDb;
	};
	// Today: 0.00 / 0.03 / 0.05 / 0.16 dB, 0.02 / 0.22 / 0.61 / 1.7 cents, levels +0.20 / +0.01 / -0.10 / +0.14 dB.
	const Case cases[] = {{220, -12, 0.2, 0.5, 0.3}, {220, 5, 0.2, 0.6, 0.2}, {440, -12, 0.2, 1.0, 0.25}, {110, 12, 0.5, 2.0, 0.3}};
	for (const Case &c : cases) {
		const std::size_t frames = std::size_t(2 * rate);
		const std::vector<double> hz(frames, c.hz);
		const auto out = shifted(fromPhase(phaseOf(hz, rate), 0.25), c.semitones);
		ASSERT_EQ(out.size(), frames);
		const auto outHz = expectedHz(hz, c.semitones);
		const std::size_t frame = std::max<std::size_t>(960, std::size_t(6 * rate / outHz.back()));
		const auto track = trackPartial(out, phaseOf(outHz, rate), outHz, std::size_t(0.8 * rate), frames, frame, 96, rate);
		const double level = dB(track.meanAmplitude() / 0.25);
		std::printf("%.0f Hz shifted %+d: wander %.2f dB, %.2f cents rms, level %+.2f dB\n", c.hz, c.semitones,
			track.levelWanderDb(), track.centsRms(), level);
		EXPECT_LT(track.levelWanderDb(), c.maxWanderDb) << c.hz << " Hz, " << c.semitones;
		EXPECT_LT(track.centsRms(), c.maxCentsRms) << c.hz << " Hz, " << c.semitones;
		EXPECT_LT(std::fabs(level), c.maxLevelDb) << c.hz << " Hz, " << c.semitones;
	}
}

TEST(PitchQuality, HarmonicToneHasNoStrongSpuriousComponent) {
	// Today -36 dB below the top partial at -12 (it was -25 with the beating side peaks).
	const std::size_t frames = std::size_t(2 * rate);
	const auto tone = harmonicTone(220, 12, rate, frames, 0.03);
	const auto out = shifted(tone, -12);
	ASSERT_EQ(out.size(), frames);
	std::vector<double> partials;
	for (int k = 1; k <= 12; ++k) partials.push_back(110.0 * k);
	const auto spectrum = toneSpectrum(out, std::size_t(0.9 * rate), 32768, partials, rate);
	std::printf("strongest spurious %.1f dB, floor %.1f dB\n", spectrum.strongestSpuriousDb, spectrum.floorDb);
	EXPECT_LT(spectrum.strongestSpuriousDb, -32);
}

TEST(PitchQuality, SweepsHaveNoBiasAndABoundedLag) {
	// Half an octave per second, shifted -12: a lag shows as errors of opposite sign up and down (today 1.9 cents each
	// way, about 3 ms; it was 22 ms with each band's frequency from its own value alone, 35 ms with the analysis'
	// smoothed frequency).
	double up = 0, down = 0;
	for (int direction : {1, -1}) {
		const std::vector<double> hz = glideHz(direction, 110, 440, rate);
		const std::size_t frames = hz.size();
		const auto out = shifted(fromPhase(phaseOf(hz, rate), 0.25), -12);
		ASSERT_EQ(out.size(), frames);
		const auto outHz = expectedHz(hz, -12);
		const auto track = trackPartial(out, phaseOf(outHz, rate), outHz, std::size_t(1.0 * rate), std::size_t(3.75 * rate),
			std::size_t(0.04 * rate), 96, rate);
		(direction > 0 ? up : down) = track.meanCents();
	}
	std::printf("sweep error up %+.1f cents, down %+.1f cents\n", up, down);
	EXPECT_LT(std::fabs(up + down) / 2, 2.0);
	EXPECT_LT(std::fabs(up - down) / 2, 3.0);
}

} // namespace
