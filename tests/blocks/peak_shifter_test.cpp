// PeakShifter: the per-peak phase rotation and its fall-back, and the shift
// measured on the audio that comes out of the engine: partial frequencies of a
// harmonic tone for shifts from -24 to +24 semitones, the tonality limit, and
// bands moved past Nyquist.
#include "block_harness.h"

#include "blocks/peak_shifter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <vector>

namespace {

using namespace lumbrel_test;
using varkesh::lumbrel::Peak;
using varkesh::lumbrel::PeakShifter;
using varkesh::lumbrel::Peaks;

using PitchMap = PeakShifter<float>::PitchMap;

// A PeakShifter on a default engine's grid, fed hand-made peaks, with the
// smoothing reduced to a pass-through of the raw gains (no transients, no
// phase smoothing, no detail boost).
struct ShifterFixture : ::testing::Test {
	ProbeEffect effect{1, 1};
	PeakShifter<float> shifter;
	Peaks<float> peaks;
	std::vector<float> energy, hz;
	std::size_t bands = 0;

	void SetUp() override {
		bands = effect.bands;
		shifter.gains.init(effect);
		auto &g = shifter.gains;
		g.phaseSmoothing = 0;
		g.transientReset = 0;
		g.detailBoost = 0;
		g.transientSmoothing = 0;
		peaks.init(effect);
		// Two peaks: tops at bands 100 and 300, valley at 200.
		energy.resize(bands);
		hz.resize(bands);
		for (std::size_t b = 0; b < bands; ++b) {
			double d = std::min(std::abs(double(b) - 100), std::abs(double(b) - 300));
			energy[b] = float(std::exp(-d / 10));
			hz[b] = effect.nominalHz(b);
		}
		peaks.energy = energy.data();
		peaks.hz = hz.data();
		peaks.walk(bands);
		ASSERT_EQ(peaks.peaks.size(), 2u);
		ASSERT_EQ(peaks.peaks[1].peakIndex, 300u);
	}
	double phase(std::size_t b) const { return std::atan2(shifter.gains.gainsImag[b], shifter.gains.gainsReal[b]); }
	double magnitude(std::size_t b) const { return std::hypot(shifter.gains.gainsReal[b], shifter.gains.gainsImag[b]); }
};

TEST_F(ShifterFixture, ZeroedGainsRestartFromTheMapsGainAtPhaseZero) {
	// A fresh object has zeroed gains; the rotation of zero is zero, so the
	// fall-back gives (gain, 0).
	shifter.updateWithMap(effect, peaks, [](float f, float &newHz, float &gain) {
		newHz = f + 10;
		gain = 0.5f;
	});
	// (Far out, where the energy nears 1e-15, the magnitude floor of the
	// smoothing would show; these bands are well above it.)
	for (std::size_t b : {0, 100, 250, 400}) {
		EXPECT_NEAR(shifter.gains.gainsReal[b], 0.5, 1e-6) << b;
		EXPECT_NEAR(shifter.gains.gainsImag[b], 0.0, 1e-6) << b;
		EXPECT_NEAR(shifter.gains.hz[b], hz[b] + 10, 1e-3) << b;
	}
}

TEST_F(ShifterFixture, PhaseAdvancesByTheShiftEachFrameAndMagnitudeIsReplaced) {
	const float shiftHz = 37;
	const double theta = 2 * pi * shiftHz / effect.subRate;
	for (int frame = 1; frame <= 6; ++frame) {
		// Whatever magnitude the gains had, only their phase carries over.
		for (float &g : shifter.gains.gainsReal) g *= 7;
		for (float &g : shifter.gains.gainsImag) g *= 7;
		shifter.updateWithMap(effect, peaks, [&](float f, float &newHz, float &) { newHz = f + shiftHz; });
		double expected = std::remainder(theta * (frame - 1), 2 * pi);
		for (std::size_t b : {50, 100, 150, 300, 500}) {
			EXPECT_NEAR(std::remainder(phase(b) - expected, 2 * pi), 0.0, 1e-4) << "frame " << frame << ", band " << b;
			EXPECT_NEAR(magnitude(b), 1.0, 1e-5);
		}
	}
}

TEST_F(ShifterFixture, EachPeakGetsItsOwnGainAndOffset) {
	shifter.updateWithPeakMap(effect, peaks, [](const Peak<float> &peak, float &newHz, float &gain) {
		bool upper = peak.peakIndex == 300;
		newHz = peak.hz + (upper ? -100.0f : 50.0f);
		gain = upper ? 2.0f : 0.25f;
	});
	const std::size_t border = peaks.peaks[0].end;
	for (std::size_t b = 0; b < bands; ++b) {
		bool upper = b >= border;
		// Where the energy nears 1e-15 the smoothing's magnitude floor shows.
		double expected = upper ? 2.0 : 0.25;
		if (energy[b] > 1e-8f) {
			ASSERT_NEAR(shifter.gains.gainsReal[b], expected, expected * 1e-5) << b;
		}
		ASSERT_NEAR(shifter.gains.hz[b], hz[b] + (upper ? -100.0f : 50.0f), 1e-3) << b;
	}
}

TEST_F(ShifterFixture, SilenceThenSoundRestartsFromTheFallBack) {
	shifter.gains.detailBoost = 0.8f;
	shifter.gains.phaseSmoothing = 1;
	shifter.update(effect, peaks);
	std::vector<float> silent(bands, 0.0f);
	peaks.energy = silent.data();
	shifter.update(effect, peaks); // smoothing of zero energy gives zero gains
	EXPECT_EQ(shifter.gains.gainsReal[100], 0.0f);
	EXPECT_EQ(shifter.gains.gainsImag[100], 0.0f);
	peaks.energy = energy.data();
	shifter.semitones = 3;
	shifter.update(effect, peaks);
	EXPECT_NEAR(shifter.gains.gainsReal[100], 1.0, 1e-4);
	EXPECT_NEAR(shifter.gains.gainsImag[100], 0.0, 1e-4);
}

// The pitch shift of the audio, partial by partial. The tone settles for one
// second; then a 1.37 s stretch is analysed.
struct Measured {
	double worstCents = 0;
	double worstLevelDb = 0;
	double loudestBetween = -300; // dB relative to the strongest partial
};

Measured shiftHarmonicTone(int semitones) {
	const float rate = 48000;
	const double fundamental = 220;
	const std::size_t partials = 8, from = 48000, span = 65536;
	std::vector<std::pair<double, double>> tone;
	for (std::size_t k = 1; k <= partials; ++k) tone.push_back({fundamental * double(k), 0.25 / double(k)});
	Signal input = tones(tone, rate, from + span + 4800);
	ShiftEffect effect(1, 1, rate, varkesh_lumbrel_config_default());
	effect.init();
	effect.reset();
	effect.shifter.semitones = float(semitones);
	Signal out = runEffect(effect, {input})[0];

	const auto spectrum = amplitudeSpectrum(out, from, span);
	const double ratio = std::pow(2.0, semitones / 12.0), spacing = fundamental * ratio;
	Measured m;
	double strongest = 0;
	for (std::size_t k = 1; k <= partials; ++k) {
		double ideal = spacing * double(k);
		auto partial = strongestIn(spectrum, rate / double(span), ideal - 0.4 * spacing, ideal + 0.4 * spacing);
		m.worstCents = std::max(m.worstCents, std::abs(cents(partial.hz, ideal)));
		double expectedAmplitude = 0.25 / double(k);
		m.worstLevelDb = std::max(m.worstLevelDb, std::abs(dB(partial.amplitude / expectedAmplitude)));
		strongest = std::max(strongest, partial.amplitude);
	}
	for (std::size_t k = 1; k < partials; ++k) {
		double gap = strongestIn(spectrum, rate / double(span), spacing * (double(k) + 0.25), spacing * (double(k) + 0.75)).amplitude;
		m.loudestBetween = std::max(m.loudestBetween, dB(gap));
	}
	m.loudestBetween -= dB(strongest);
	return m;
}

TEST(PeakShifterAudio, HarmonicToneMovesBySemitonesWithinFiveCents) {
	for (int n : {-24, -13, -5, -1, 1, 7, 12, 19, 24}) {
		Measured m = shiftHarmonicTone(n);
		EXPECT_LT(m.worstCents, 5.0) << "shift " << n;
		EXPECT_LT(m.worstLevelDb, 3.0) << "shift " << n;
		EXPECT_LT(m.loudestBetween, -28.0) << "shift " << n;
	}
}

TEST(PeakShifterAudio, TonalityLimitLeavesHighPartialsInPlace) {
	// Limit 3000 Hz, +7 semitones: full shift below 2451 Hz, none above 15 kHz,
	// a straight line between.
	const float rate = 48000;
	const std::size_t from = 48000, span = 65536;
	Signal input = tones({{440, 0.2}, {8000, 0.1}, {16000, 0.1}, {19000, 0.1}}, rate, from + span + 4800);
	ShiftEffect effect(1, 1, rate, varkesh_lumbrel_config_default());
	effect.init();
	effect.reset();
	effect.shifter.semitones = 7;
	effect.shifter.tonalityLimit = 3000;
	const PitchMap map = effect.shifter.pitchMap();
	Signal out = runEffect(effect, {input})[0];
	const auto spectrum = amplitudeSpectrum(out, from, span);
	for (double hz : {440.0, 8000.0, 16000.0, 19000.0}) {
		double ideal = map(float(hz));
		auto partial = strongestIn(spectrum, rate / double(span), ideal * 0.97, ideal * 1.03);
		EXPECT_LT(std::abs(cents(partial.hz, ideal)), 5.0) << hz;
		EXPECT_NEAR(dB(partial.amplitude / (hz == 440 ? 0.2 : 0.1)), 0.0, 3.0) << hz;
	}
	EXPECT_NEAR(map(16000), 16000.0f, 0.01f);
	EXPECT_NEAR(map(440), 440 * 1.4983f, 0.01f);
}

TEST(PeakShifterAudio, BandsMovedPastNyquistAreDropped) {
	// 15 kHz an octave up is 30 kHz: gone, with no alias at 18 kHz.
	const float rate = 48000;
	const std::size_t from = 48000, span = 65536;
	Signal input = tones({{1000, 0.25}, {15000, 0.25}}, rate, from + span + 4800);
	ShiftEffect effect(1, 1, rate, varkesh_lumbrel_config_default());
	effect.init();
	effect.reset();
	effect.shifter.semitones = 12;
	Signal out = runEffect(effect, {input})[0];
	const auto spectrum = amplitudeSpectrum(out, from, span);
	double moved = dB(strongestIn(spectrum, rate / double(span), 1980, 2020).amplitude);
	EXPECT_NEAR(moved, dB(0.25), 3.0);
	EXPECT_LT(dB(strongestIn(spectrum, rate / double(span), 3000, 23900).amplitude), moved - 60);
}

TEST(PeakShifterAudio, StereoShiftAllocatesNothingAfterInit) {
	if (!allocationCountingAvailable()) GTEST_SKIP() << "no allocation counter in this build";
	const float rate = 48000;
	Channels input{harmonicTone(220, 8, rate, 24000), whiteNoise(24000, 0.1, 5)};
	ShiftEffect effect(2, 2, rate, varkesh_lumbrel_config_default());
	effect.init();
	effect.reset();
	effect.shifter.semitones = -5;
	effect.shifter.gains.transientBoost = 1;
	Channels output(2, Signal(24000));
	std::size_t allocations = 0;
	for (std::size_t pos = 0; pos < 24000; pos += 256) {
		const float *in[2] = {input[0].data() + pos, input[1].data() + pos};
		float *out[2] = {output[0].data() + pos, output[1].data() + pos};
		AllocationScope scope;
		effect.process(in, out, std::min<std::size_t>(256, 24000 - pos));
		allocations += scope.count();
	}
	EXPECT_EQ(allocations, 0u);
	EXPECT_GT(rms(output[0].data() + 12000, 12000), 0.01);
	EXPECT_GT(rms(output[1].data() + 12000, 12000), 0.01);
}

} // namespace
