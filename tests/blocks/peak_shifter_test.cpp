// PeakShifter: the fall-back after silence, and the shift measured on the engine's output: a harmonic tone from -24 to
// +24 semitones, the tonality limit, bands moved past Nyquist.
#include "block_harness.h"

#include "blocks/peak_shifter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

using namespace lumbrel_test;
using varkesh::lumbrel::PeakShifter;
using varkesh::lumbrel::Peaks;

using PitchMap = PeakShifter<float>::PitchMap;

// A PeakShifter fed hand-made peaks (tops at bands 100 and 300), its smoothing a pass-through of the raw gains.
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
};

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

// Shifters placed together get what each gets placed alone, over two frames (the second turns the first's phases).
TEST_F(ShifterFixture, PlacedTogetherEachGetsItsOwnResult) {
	PeakShifter<float> together[3], alone[3];
	for (int v = 0; v < 3; ++v) {
		for (PeakShifter<float> *s : {&together[v], &alone[v]}) {
			s->gains.init(effect);
			s->semitones = 7.0f * float(v) - 5;
		}
	}
	for (int frame = 0; frame < 2; ++frame) {
		PeakShifter<float>::placeAll(effect, peaks, together, 3);
		for (auto &s : alone) s.place(effect, peaks);
		for (int v = 0; v < 3; ++v) {
			for (std::size_t b = 0; b < bands; ++b) {
				ASSERT_EQ(together[v].gains.gainsReal[b], alone[v].gains.gainsReal[b]) << v << " " << b;
				ASSERT_EQ(together[v].gains.gainsImag[b], alone[v].gains.gainsImag[b]) << v << " " << b;
				ASSERT_EQ(together[v].gains.hz[b], alone[v].gains.hz[b]) << v << " " << b;
			}
		}
		EXPECT_NE(alone[0].gains.hz[100], alone[2].gains.hz[100]);
	}
}

// The inline sin and cos within an ulp over every quadrant and at the large angles of shifts by thousands of Hz.
TEST(PeakShifterSinCos, WithinAnUlpOfTheExactValues) {
	for (double x = -6000; x < 6000; x += 0.3927) {
		for (float angle : {float(x), float(x) * 1e-3f}) {
			float sine, cosine;
			PeakShifter<float>::sinCos(angle, sine, cosine);
			EXPECT_NEAR(sine, std::sin(double(angle)), 6e-8) << angle;
			EXPECT_NEAR(cosine, std::cos(double(angle)), 6e-8) << angle;
		}
	}
}

// The spectrum of partials {Hz, amplitude} shifted by the blocks alone, over 1.37 s after a settling second (bins rate /
// span apart).
constexpr double rate = 48000, span = 65536;
std::vector<double> shifted(const std::vector<std::pair<double, double>> &partials, int semitones, float tonalityLimit = 1e8f) {
	ProbeEffect effect(1, 1, float(rate));
	Peaks<float> peaks;
	PeakShifter<float> shifter;
	peaks.init(effect);
	shifter.gains.init(effect);
	std::fill(shifter.gains.gainsReal.begin(), shifter.gains.gainsReal.end(), 1.0f); // as after a reset
	shifter.semitones = float(semitones);
	shifter.tonalityLimit = tonalityLimit;
	effect.frame = [&](ProbeEffect &e) {
		peaks.update(e, true);
		shifter.update(e, peaks);
		shifter.gains.addOutput(e, 0, e.inputReal(0), e.inputImag(0), 1);
	};
	return amplitudeSpectrum(runEffect(effect, {tones(partials, rate, 48000 + std::size_t(span) + 4800)})[0], 48000, std::size_t(span));
}

// Every partial of a harmonic tone within 5 cents and 3 dB of its target, nothing within 28 dB of the strongest between
// them.
TEST(PeakShifterAudio, HarmonicToneMovesBySemitonesWithinFiveCents) {
	std::vector<std::pair<double, double>> tone;
	for (int k = 1; k <= 8; ++k) tone.push_back({220.0 * k, 0.25 / k});
	for (int n : {-24, -13, -5, -1, 1, 7, 12, 19, 24}) {
		const auto spectrum = shifted(tone, n);
		const double spacing = 220 * std::exp2(n / 12.0);
		for (int k = 1; k <= 8; ++k) {
			const auto partial = strongestIn(spectrum, rate / span, spacing * (k - 0.4), spacing * (k + 0.4));
			EXPECT_LT(std::abs(cents(partial.hz, spacing * k)), 5.0) << "shift " << n << ", partial " << k;
			EXPECT_NEAR(dB(partial.amplitude * k / 0.25), 0, 3.0) << "shift " << n << ", partial " << k;
			const double gap = strongestIn(spectrum, rate / span, spacing * (k + 0.25), spacing * (k + 0.75)).amplitude;
			EXPECT_LT(k < 8 ? dB(gap / 0.25) : -300, -28.0) << "shift " << n << ", above partial " << k;
		}
	}
}

// A tonality limit of 3000 Hz at +7: full shift below 2451 Hz, none above 15 kHz, a line between. Bands moved past
// Nyquist are dropped, with no alias.
TEST(PeakShifterAudio, TonalityLimitAndNyquist) {
	PeakShifter<float> limited;
	limited.semitones = 7;
	limited.tonalityLimit = 3000;
	const PitchMap map = limited.pitchMap();
	EXPECT_NEAR(map(440), 440 * 1.4983f, 0.01f);
	EXPECT_NEAR(map(16000), 16000.0f, 0.01f);
	const auto spectrum = shifted({{440, 0.2}, {8000, 0.1}, {16000, 0.1}, {19000, 0.1}}, 7, 3000);
	for (double hz : {440.0, 8000.0, 16000.0, 19000.0}) {
		const double ideal = map(float(hz));
		const auto partial = strongestIn(spectrum, rate / span, ideal * 0.97, ideal * 1.03);
		EXPECT_LT(std::abs(cents(partial.hz, ideal)), 5.0) << hz;
		EXPECT_NEAR(dB(partial.amplitude / (hz == 440 ? 0.2 : 0.1)), 0.0, 3.0) << hz;
	}
	const auto octave = shifted({{1000, 0.25}, {15000, 0.25}}, 12);
	const double moved = dB(strongestIn(octave, rate / span, 1980, 2020).amplitude);
	EXPECT_NEAR(moved, dB(0.25), 3.0);
	EXPECT_LT(dB(strongestIn(octave, rate / span, 3000, 23900).amplitude), moved - 60);
}

} // namespace
