// Peaks: the walk on hand-made curves, and the update on the engine's spectra of real signals: every band covered once,
// tops at local maxima, a tone's frequency.
#include "block_harness.h"

#include "blocks/peaks.h"
#include "blocks/smooth_bands.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace lumbrel_test;
using varkesh::lumbrel::Peak;
using varkesh::lumbrel::Peaks;

TEST(PeakWalk, ValleysFlatTopsAndSums) {
	struct Case {
		std::vector<float> energy;
		std::vector<std::size_t> startEndTop; // per peak
	};
	const Case cases[] = {
		{{0, 3, 1, 2, 0}, {0, 3, 1, 3, 5, 3}},          // E[3] = 2 not above E[1] = 3: the valley stays left
		{{0, 1, 0.5f, 2, 0}, {0, 2, 1, 2, 5, 3}},       // E[3] above E[1]: the valley goes right
		{{0, 2, 1, 2, 0}, {0, 3, 1, 3, 5, 3}},          // a tie keeps it left
		{{1, 0, 2, 0, 0}, {0, 2, 0, 2, 5, 2}},          // at the bottom of the range it stays left
		{{0, 2, 2, 1}, {0, 4, 2}},                      // of a flat top the last band is the top
		{{0, 2, 1, 1, 3, 0}, {0, 3, 1, 3, 6, 4}},       // equal neighbours don't end a descent
	};
	for (const Case &c : cases) {
		std::vector<float> hz(c.energy.size());
		for (std::size_t b = 0; b < hz.size(); ++b) hz[b] = 100.0f * float(b + 1);
		Peaks<float> peaks;
		peaks.peaks.reserve(c.energy.size());
		peaks.energy = c.energy.data();
		peaks.hz = hz.data();
		peaks.walk(c.energy.size());
		std::vector<std::size_t> got;
		for (const Peak<float> &p : peaks.peaks) {
			got.insert(got.end(), {p.start, p.end, p.peakIndex});
			// Energy sums, frequency is energy-weighted.
			double energy = 0, weighted = 0;
			for (std::size_t b = p.start; b < p.end; ++b) energy += c.energy[b], weighted += c.energy[b] * hz[b];
			EXPECT_FLOAT_EQ(p.energy, float(energy));
			EXPECT_FLOAT_EQ(p.hz, float(weighted / energy));
		}
		EXPECT_EQ(got, c.startEndTop) << ::testing::PrintToString(c.energy);
	}
}

// The invariants of one frame: a description of the first violation, or "".
std::string coverageFault(const Peaks<float> &peaks, std::size_t bands) {
	const float *e = peaks.energy;
	if (peaks.peaks.empty() || peaks.peaks.size() > bands / 2 + 1) return "peak count " + std::to_string(peaks.peaks.size());
	std::size_t expectedStart = 0;
	for (const Peak<float> &p : peaks.peaks) {
		const std::string at = " at peak [" + std::to_string(p.start) + ", " + std::to_string(p.end) + ")";
		const std::size_t t = p.peakIndex;
		if (p.start != expectedStart || p.end <= p.start) return "gap, overlap or empty peak" + at;
		if (t < p.start || t >= p.end) return "top outside" + at;
		if ((t > 0 && e[t - 1] > e[t]) || (t + 1 < bands && e[t + 1] >= e[t])) return "top not a local maximum" + at;
		for (std::size_t b = p.start; b < p.end; ++b) {
			if (e[b] > e[t]) return "a band above the top" + at;
		}
		expectedStart = p.end;
	}
	return expectedStart == bands ? "" : "last end is " + std::to_string(expectedStart);
}

// Silence (analysed too: the engine is kept running) is one peak topped at the last band. The energy is the sum over
// channels.
TEST(Peaks, EveryBandOnceTopsAtLocalMaxima) {
	const std::size_t n = 24000;
	const std::pair<const char *, Channels> cases[] = {{"tone", {sine(1234.5, 48000, n, 0.5)}},
		{"stereo noise", {whiteNoise(n, 0.3, 7), whiteNoise(n, 0.3, 8)}}, {"silence", {Signal(n, 0.0f)}},
		{"chord", {tones({{65.4, 0.2}, {261.6, 0.2}, {329.6, 0.15}, {392.0, 0.15}, {523.3, 0.1}, {2093, 0.05}, {9000, 0.02}}, 48000, n)}},
		{"stereo tones", {sine(440, 48000, n, 0.4), sine(3000, 48000, n, 0.2)}}};
	for (const auto &[name, signal] : cases) {
		const bool silent = std::string(name) == "silence"; // a binding can't be captured before C++20
		ProbeEffect effect(signal.size(), signal.size());
		effect.keepRunning = true;
		Peaks<float> peaks;
		peaks.init(effect);
		std::size_t checked = 0;
		std::string fault;
		double worstEnergy = 0;
		effect.frame = [&](ProbeEffect &e) {
			peaks.update(e, checked % 2 == 0);
			if (fault.empty()) fault = coverageFault(peaks, e.bands);
			if (silent && fault.empty() && (peaks.peaks.size() != 1 || peaks.peaks[0].peakIndex != e.bands - 1)) {
				fault = "silence is not one peak topped at the last band";
			}
			for (std::size_t b = 0; peaks.smoothing == 0 && b < e.bands; ++b) {
				double expected = 1e-30;
				for (std::size_t c = 0; c < e.channelsIn; ++c) expected += std::norm(std::complex<double>(e.inputReal(c)[b], e.inputImag(c)[b]));
				worstEnergy = std::max(worstEnergy, std::abs(peaks.energy[b] - expected) / expected);
			}
			if (++checked == 100) peaks.smoothing = 0; // leaves the curve as it is
		};
		runEffect(effect, signal);
		EXPECT_GT(checked, 150u) << name;
		EXPECT_EQ(fault, "") << name;
		EXPECT_LT(worstEnergy, 1e-6) << name;
	}
}

// The strongest peak of a tone sits at its frequency (mean over the second quarter second), and so do the bands beside
// it, smoothed or not; in stereo the louder channel sets it. Smoothed, each band's frequency is the smoothed product of
// the raw frequency and energy over the smoothed energy, and the peaks sum the frequencies left in `hz`.
TEST(Peaks, ToneGivesAPeakAtItsFrequency) {
	for (double hz : {97.0, 440.0, 1234.5, 5000.0, 10000.0, 12345.0}) {
		ProbeEffect effect(2, 2);
		Peaks<float> smoothed, raw;
		smoothed.init(effect);
		raw.init(effect);
		smoothed.smoothing = 100;
		raw.smoothing = 0;
		double sum = 0, beside = 0, weighting = 0;
		std::size_t frames = 0;
		effect.frame = [&](ProbeEffect &e) {
			smoothed.update(e, true);
			raw.update(e, true);
			std::vector<float> energy(raw.energy, raw.energy + e.bands), product(e.bands);
			for (std::size_t b = 0; b < e.bands; ++b) product[b] = raw.hz[b] * energy[b];
			float *const rows[] = {energy.data(), product.data()};
			varkesh::lumbrel::smoothBandsRows(rows, e.bands, smoothed.smoothing * 0.01f * e.resolution);
			for (std::size_t b = 0; b < e.bands; ++b) weighting = std::max(weighting, std::abs(double(smoothed.hz[b]) - product[b] / (energy[b] + 1e-30f)));
			const auto walked = smoothed.peaks;
			smoothed.walk(e.bands);
			for (std::size_t p = 0; p < walked.size(); ++p) weighting = std::max(weighting, std::abs(double(walked[p].hz) - smoothed.peaks[p].hz));
			if (++frames <= 100) return;
			sum += std::max_element(smoothed.peaks.begin(), smoothed.peaks.end(),
				[](const Peak<float> &a, const Peak<float> &b) { return a.energy < b.energy; })->hz;
			const std::size_t top = std::size_t(e.nominalBand(float(hz)) + 0.5f);
			for (const Peaks<float> *p : {&smoothed, &raw}) {
				for (std::size_t b : {top - 1, top + 1}) beside = std::max(beside, hz < 5000 ? 0.0 : std::abs(double(p->hz[b]) - hz));
			}
		};
		runEffect(effect, {sine(hz, 48000, 24000, 0.5), whiteNoise(24000, 0.01, 3)});
		EXPECT_NEAR(cents(sum / double(frames - 100), hz), 0.0, 2.0) << hz << " Hz";
		EXPECT_LT(beside, 10.0) << hz << " Hz";
		EXPECT_LT(weighting, 1e-3) << hz << " Hz";
	}
}

} // namespace
