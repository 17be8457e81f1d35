// The engine with a pass-through effect returns its input delayed by exactly latencySamples, at three rates and three
// latencies, with and without directCopy: sines across the band range and around the knee keep their level and phase,
// noise its level and lag, a click its time.
#include "engine/engine_impl.h"
#include "engine/engine_windows.h"
#include "engine_harness.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

using namespace lumbrel_test;
using varkesh::lumbrel::EngineImpl;

struct PassThroughCase { float sampleRate; double latencyMs; bool directCopy; };

std::string caseName(const PassThroughCase &c) {
	return std::to_string(int(c.sampleRate)) + "Hz_" + std::to_string(int(c.latencyMs)) + "ms_" + (c.directCopy ? "direct" : "tracked");
}

// Direct-copied bands pass the analysis window twice: their gain at time t is the sum of a^2 s over the sum of a s
// across overlapping steps, 1 at a synthesis peak and lowest between two. Returns that lowest gain in dB.
double directCopyRippleDb(std::size_t window, std::size_t interval) {
	std::vector<float> a(window), s(window);
	varkesh::lumbrel::fillAnalysisWindow(a.data(), window, interval);
	varkesh::lumbrel::fillSynthesisWindow(s.data(), window, interval);
	double lowest = 1;
	for (long t = 0; t < long(interval); ++t) {
		double num = 0, den = 0;
		for (long j = -1; j <= 1; ++j) {
			const long si = long(interval) + t - j * long(interval), ai = long(window / 2) + t - j * long(interval);
			if (si < 0 || si >= long(window) || ai < 0 || ai >= long(window)) continue;
			num += double(a[ai]) * a[ai] * s[si];
			den += double(a[ai]) * s[si];
		}
		lowest = std::min(lowest, num / den);
	}
	return dB(lowest);
}

class PassThroughEngine : public ::testing::TestWithParam<PassThroughCase> {};

TEST_P(PassThroughEngine, OutputIsTheDelayedInput) {
	const PassThroughCase &c = GetParam();
	Engine engine(2, 2, c.sampleRate, configFor(c.latencyMs, c.directCopy));
	PassThrough effect{engine, 2};
	effect.attach();
	const auto &geometry = static_cast<const EngineImpl<float> &>(*engine.handle);
	const std::size_t latency = varkesh_lumbrel_engine_float_latencySamples(engine), interval = geometry.interval();
	auto render = [&](const Signal &x, std::size_t block) {
		varkesh_lumbrel_engine_float_reset(engine);
		return run(engine, {x, x}, 2, block);
	};
	const double binHz = double(c.sampleRate) / double(geometry.windowLength()), kneeHz = geometry.kneeHz();
	const double rippleDb = directCopyRippleDb(geometry.windowLength(), interval);
	const std::size_t settle = latency + std::size_t(0.05 * c.sampleRate), measure = std::size_t(0.1 * c.sampleRate);
	// Sines: tracked bands within 0.4 dB on channel 0 (nominal band positions) and 1 dB on channel 1 (measured
	// frequencies, which wander below one window bin); copied bands within the window ripple; the knee, where both share
	// a sine, within -2.5 and +1.5 dB.
	std::vector<double> hzs = {40, 110, 330, 1000, 2300, 5100, 9700, 15000, 19500};
	for (double bins = -4; c.directCopy && bins <= 4; bins += 1) hzs.push_back(kneeHz + bins * binHz);
	for (std::size_t k = 0; k < hzs.size(); ++k) {
		const double hz = hzs[k];
		const bool knee = k >= 9, nearKnee = c.directCopy && std::abs(hz - kneeHz) < 4 * binHz;
		if (nearKnee && !knee) continue;
		const bool direct = c.directCopy && varkesh_lumbrel_engine_float_nominalBand(engine, float(hz)) >= float(geometry.lowBandCount());
		const Signal x = sine(hz, c.sampleRate, settle + measure);
		const Channels y = render(x, 128);
		for (std::size_t ch = 0; ch < 2; ++ch) {
			const double level = levelDb(y[ch], x, latency, settle, measure), error = residualDb(y[ch], x, latency, settle, settle + measure);
			SCOPED_TRACE(testing::Message() << caseName(c) << ", " << hz << " Hz, channel " << ch << ": level " << level
											<< " dB, error " << error << " dB");
			if (knee) {
				EXPECT_TRUE(level > -2.5 && level < 1.5);
			} else if (direct) {
				EXPECT_TRUE(level > rippleDb - 0.1 && level < 0.1 && error < -15.0);
			} else if (ch == 0 || hz >= binHz) {
				EXPECT_LT(std::abs(level), ch == 0 ? 0.4 : 1.0);
				EXPECT_LT(error, -20.0); // the delay is right
			}
		}
	}
	// Noise: level within 0.15 dB with every band tracked, within the ripple with copied bands; the cross-correlation
	// peaks at exactly the latency.
	const std::size_t length = std::size_t(0.5 * c.sampleRate), from = latency + std::size_t(0.05 * c.sampleRate);
	const Signal noise = whiteNoise(length, 0.25, 7);
	const Channels y = render(noise, 256);
	for (std::size_t ch = 0; ch < 2; ++ch) {
		const double level = levelDb(y[ch], noise, latency, from, length - from);
		EXPECT_EQ(correlationLag(y[ch], noise, from, length - from, 2 * latency), latency) << caseName(c) << " channel " << ch;
		EXPECT_TRUE(c.directCopy ? level > rippleDb && level < 0 : std::abs(level) < 0.15)
			<< caseName(c) << " channel " << ch << ": " << level << " dB";
	}
	// A click after silence (the engine asleep until it comes) peaks at the latency, give or take one interval.
	const std::size_t at = std::size_t(0.1 * c.sampleRate) + 17;
	Signal click(at + 4 * latency, 0.0f);
	click[at] = 1.0f;
	const Channels z = render(click, 64);
	for (std::size_t ch = 0; ch < 2; ++ch) {
		const long offset = long(peakIndex(z[ch])) - long(at);
		EXPECT_LE(std::abs(offset - long(latency)), long(interval)) << caseName(c) << " channel " << ch << ": peak " << offset;
	}
}

std::vector<PassThroughCase> allCases() {
	std::vector<PassThroughCase> cases;
	for (bool direct : {true, false})
		for (float rate : {44100.0f, 48000.0f, 96000.0f})
			for (double ms : {2.0, 10.0, 15.0}) cases.push_back({rate, ms, direct});
	return cases;
}

INSTANTIATE_TEST_SUITE_P(RatesLatencies, PassThroughEngine, ::testing::ValuesIn(allCases()),
	[](const auto &info) { return caseName(info.param); });

} // namespace
