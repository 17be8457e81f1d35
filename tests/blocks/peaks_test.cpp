// Peaks: the walk on hand-made curves (tie-breaks, flat tops, the bottom of
// the range), and the whole update on the engine's spectra of real signals,
// where the peaks must cover every band exactly once with their tops at local
// energy maxima.
#include "block_harness.h"

#include "blocks/peaks.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace lumbrel_test;
using varkesh::lumbrel::Peak;
using varkesh::lumbrel::Peaks;

struct Span {
	std::size_t start, end, top;
	bool operator==(const Span &o) const { return start == o.start && end == o.end && top == o.top; }
};

std::ostream &operator<<(std::ostream &out, const Span &s) {
	return out << "[" << s.start << ", " << s.end << ") top " << s.top;
}

std::vector<Span> walk(const std::vector<float> &energy) {
	std::vector<float> hz(energy.size(), 100.0f);
	Peaks<float> peaks;
	peaks.peaks.reserve(energy.size() / 2 + 1);
	peaks.energy = energy.data();
	peaks.hz = hz.data();
	peaks.walk(energy.size());
	std::vector<Span> spans;
	for (const Peak<float> &p : peaks.peaks) spans.push_back({p.start, p.end, p.peakIndex});
	return spans;
}

TEST(PeakWalk, ValleyGoesToTheHigherNeighbour) {
	// The rise is at band 3; E[3] = 2 is not above E[1] = 3: band 2 stays left.
	EXPECT_EQ(walk({0, 3, 1, 2, 0}), (std::vector<Span>{{0, 3, 1}, {3, 5, 3}}));
	// E[3] = 2 is above E[1] = 1: the valley band 2 goes right.
	EXPECT_EQ(walk({0, 1, 0.5f, 2, 0}), (std::vector<Span>{{0, 2, 1}, {2, 5, 3}}));
	// A tie keeps the valley on the left.
	EXPECT_EQ(walk({0, 2, 1, 2, 0}), (std::vector<Span>{{0, 3, 1}, {3, 5, 3}}));
}

TEST(PeakWalk, ValleyStaysLeftAtTheBottomOfTheRange) {
	// The band after the valley is band 2, below 3: band 1 stays with the first
	// peak although E[2] is above E[0].
	EXPECT_EQ(walk({1, 0, 2, 0, 0}), (std::vector<Span>{{0, 2, 0}, {2, 5, 2}}));
}

TEST(PeakWalk, FlatStretchesAreNotRisesOrFalls) {
	// Of a flat top the last band is the top.
	EXPECT_EQ(walk({0, 2, 2, 1}), (std::vector<Span>{{0, 4, 2}}));
	// Equal neighbours on the way down don't end the descent; the valley band 3
	// goes right because E[4] = 3 is above E[2] = 1.
	EXPECT_EQ(walk({0, 2, 1, 1, 3, 0}), (std::vector<Span>{{0, 3, 1}, {3, 6, 4}}));
}

TEST(PeakWalk, SumsEnergyAndWeightsFrequency) {
	std::vector<float> energy{1, 3, 0.5f, 2, 2, 0};
	std::vector<float> hz{100, 200, 300, 400, 500, 600};
	Peaks<float> peaks;
	peaks.peaks.reserve(4);
	peaks.energy = energy.data();
	peaks.hz = hz.data();
	peaks.walk(energy.size());
	ASSERT_EQ(peaks.peaks.size(), 2u);
	// [0, 3): 1 + 3 + 0.5, mean (100 + 600 + 150) / 4.5; [3, 6): 2 + 2 + 0, (800 + 1000) / 4.
	EXPECT_FLOAT_EQ(peaks.peaks[0].energy, 4.5f);
	EXPECT_FLOAT_EQ(peaks.peaks[0].hz, 850.0f / 4.5f);
	EXPECT_FLOAT_EQ(peaks.peaks[1].energy, 4.0f);
	EXPECT_FLOAT_EQ(peaks.peaks[1].hz, 450.0f);
}

// Checks the invariants of one frame; returns a description of the first
// violation, or an empty text.
std::string coverageFault(const Peaks<float> &peaks, std::size_t bands) {
	const float *e = peaks.energy;
	if (peaks.peaks.empty()) return "no peaks";
	if (peaks.peaks.size() > bands / 2 + 1) return "more peaks than the reservation";
	std::size_t expectedStart = 0;
	for (const Peak<float> &p : peaks.peaks) {
		std::string at = " at peak [" + std::to_string(p.start) + ", " + std::to_string(p.end) + ")";
		if (p.start != expectedStart) return "gap or overlap" + at;
		if (p.end <= p.start) return "empty peak" + at;
		if (p.peakIndex < p.start || p.peakIndex >= p.end) return "top outside" + at;
		std::size_t t = p.peakIndex;
		if (t > 0 && e[t - 1] > e[t]) return "top below its left neighbour" + at;
		if (t + 1 < bands && e[t + 1] >= e[t]) return "top not above its right neighbour" + at;
		for (std::size_t b = p.start; b < p.end; ++b) {
			if (e[b] > e[t]) return "a band above the top" + at;
		}
		expectedStart = p.end;
	}
	if (expectedStart != bands) return "last end is " + std::to_string(expectedStart);
	return {};
}

struct CoverageCase {
	const char *name;
	std::size_t channels;
	Channels (*signal)(std::size_t length);
};

Channels toneSignal(std::size_t n) { return {sine(1234.5, 48000, n, 0.5)}; }
Channels noiseSignal(std::size_t n) { return {whiteNoise(n, 0.3, 7), whiteNoise(n, 0.3, 8)}; }
Channels silenceSignal(std::size_t n) { return {Signal(n, 0.0f)}; }
Channels chordSignal(std::size_t n) {
	// C major across four octaves, plus a low tone and one above the knee.
	return {tones({{65.4, 0.2}, {261.6, 0.2}, {329.6, 0.15}, {392.0, 0.15}, {523.3, 0.1}, {2093, 0.05}, {9000, 0.02}}, 48000, n)};
}
Channels stereoTonesSignal(std::size_t n) { return {sine(440, 48000, n, 0.4), sine(3000, 48000, n, 0.2)}; }

class PeaksCoverage : public ::testing::TestWithParam<CoverageCase> {};

TEST_P(PeaksCoverage, EveryBandOnceTopsAtLocalMaxima) {
	const CoverageCase &c = GetParam();
	ProbeEffect effect(c.channels, c.channels);
	effect.keepRunning = true; // so that silence is analysed too
	Peaks<float> peaks;
	peaks.init(effect);
	std::size_t checked = 0, faults = 0;
	std::string firstFault;
	for (bool smoothHz : {true, false}) {
		effect.frame = [&](ProbeEffect &e) {
			peaks.update(e, smoothHz);
			std::string fault = coverageFault(peaks, e.bands);
			++checked;
			if (!fault.empty() && faults++ == 0) firstFault = fault;
		};
		runEffect(effect, c.signal(48000 / 2));
	}
	EXPECT_GT(checked, 100u);
	EXPECT_EQ(faults, 0u) << firstFault;
}

INSTANTIATE_TEST_SUITE_P(Signals, PeaksCoverage,
	::testing::Values(CoverageCase{"tone", 1, toneSignal}, CoverageCase{"stereoNoise", 2, noiseSignal},
		CoverageCase{"silence", 1, silenceSignal}, CoverageCase{"chord", 1, chordSignal},
		CoverageCase{"stereoTones", 2, stereoTonesSignal}),
	[](const ::testing::TestParamInfo<CoverageCase> &info) { return std::string(info.param.name); });

TEST(Peaks, SilenceIsOnePeakWithItsTopAtTheLastBand) {
	ProbeEffect effect(1, 1);
	effect.keepRunning = true;
	Peaks<float> peaks;
	peaks.init(effect);
	std::size_t frames = 0;
	effect.frame = [&](ProbeEffect &e) {
		peaks.update(e, true);
		++frames;
		ASSERT_EQ(peaks.peaks.size(), 1u);
		EXPECT_EQ(peaks.peaks[0].start, 0u);
		EXPECT_EQ(peaks.peaks[0].end, e.bands);
		EXPECT_EQ(peaks.peaks[0].peakIndex, e.bands - 1);
	};
	runEffect(effect, silenceSignal(4096));
	EXPECT_GT(frames, 0u);
}

TEST(Peaks, ToneGivesAPeakAtItsFrequency) {
	for (double hz : {97.0, 440.0, 1234.5, 5000.0, 12345.0}) {
		ProbeEffect effect(1, 1);
		Peaks<float> peaks;
		peaks.init(effect);
		// Mean over the frames of the second quarter second: one frame's phase
		// step is read without memory.
		double sum = 0;
		std::size_t frames = 0, counted = 0;
		effect.frame = [&](ProbeEffect &e) {
			peaks.update(e, true);
			const Peak<float> *strongest = &peaks.peaks[0];
			for (const Peak<float> &p : peaks.peaks) {
				if (p.energy > strongest->energy) strongest = &p;
			}
			if (++frames > 100) {
				sum += strongest->hz;
				++counted;
			}
		};
		runEffect(effect, {sine(hz, 48000, 24000, 0.5)});
		const double measured = sum / double(counted);
		EXPECT_NEAR(cents(measured, hz), 0.0, 2.0) << hz << " Hz measured as " << measured;
	}
}

TEST(Peaks, EnergySumsChannelsAndTheLouderChannelSetsTheFrequency) {
	ProbeEffect effect(2, 2);
	Peaks<float> peaks;
	peaks.init(effect);
	peaks.smoothing = 0; // leaves both curves as they are
	std::size_t frames = 0;
	double worstEnergy = 0, worstHz = 0;
	bool ownRow = true;
	effect.frame = [&](ProbeEffect &e) {
		peaks.update(e, true);
		ownRow = ownRow && peaks.hz == peaks.hzBuffer.data() && peaks.energy == peaks.energyBuffer.data();
		for (std::size_t b = 0; b < e.bands; ++b) {
			double expected = 1e-30;
			for (std::size_t c = 0; c < 2; ++c) {
				expected += double(e.inputReal(c)[b]) * e.inputReal(c)[b] + double(e.inputImag(c)[b]) * e.inputImag(c)[b];
			}
			worstEnergy = std::max(worstEnergy, std::abs(peaks.energy[b] - expected) / expected);
		}
		// The tone of channel 0 outweighs the noise of channel 1 at its own band.
		if (frames++ > 20) worstHz = std::max(worstHz, std::abs(double(peaks.hz[std::size_t(e.nominalBand(440) + 0.5f)]) - 440));
	};
	runEffect(effect, {sine(440, 48000, 12000, 0.5), whiteNoise(12000, 0.1, 3)});
	EXPECT_GT(frames, 0u);
	EXPECT_TRUE(ownRow);
	EXPECT_LT(worstEnergy, 1e-6);
	EXPECT_LT(worstHz, 2.0);
}

TEST(Peaks, BandsBesideAStrongPartialReportItsFrequency) {
	// The phase step of the bands beside a strong tone is the tone's, with or
	// without smoothing across bands.
	const double hz = 10000;
	ProbeEffect effect(1, 1);
	Peaks<float> raw, smoothed;
	raw.init(effect);
	smoothed.init(effect);
	raw.smoothing = 0;
	smoothed.smoothing = 100;
	double rawError = 0, smoothedError = 0;
	effect.frame = [&](ProbeEffect &e) {
		raw.update(e, true);
		smoothed.update(e, true);
		std::size_t top = std::size_t(e.nominalBand(float(hz)) + 0.5f);
		rawError = smoothedError = 0;
		for (std::size_t b : {top - 2, top - 1, top + 1, top + 2}) {
			rawError = std::max(rawError, std::abs(raw.hz[b] - hz));
			smoothedError = std::max(smoothedError, std::abs(smoothed.hz[b] - hz));
		}
	};
	runEffect(effect, {sine(hz, 48000, 12000)});
	EXPECT_LT(rawError, 10.0);
	EXPECT_LT(smoothedError, 10.0);
}

TEST(Peaks, UpdateAllocatesNothing) {
	if (!allocationCountingAvailable()) GTEST_SKIP() << "no allocation counter in this build";
	ProbeEffect effect(2, 2);
	Peaks<float> peaks;
	peaks.init(effect);
	std::size_t allocations = 0, frames = 0;
	effect.frame = [&](ProbeEffect &e) {
		AllocationScope scope;
		peaks.update(e, (frames++ & 1) != 0);
		allocations += scope.count();
	};
	runEffect(effect, {whiteNoise(12000, 0.3, 1), chordSignal(12000)[0]});
	EXPECT_GT(frames, 10u);
	EXPECT_EQ(allocations, 0u);
}

} // namespace
