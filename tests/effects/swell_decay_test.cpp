// Swell and Decay scale through the plug-in: their parameter lists, and what
// they do to onsets and decays, measured on the audio that comes out.
#include "support/effect_checks.h"
#include "support/signals.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

using namespace lumbrel_test;

namespace {

// Envelope of a signal: RMS over windows of `window` samples.
std::vector<double> envelope(const std::vector<float> &x, std::size_t window) {
	std::vector<double> out;
	for (std::size_t start = 0; start + window <= x.size(); start += window) out.push_back(rms(x, start, start + window));
	return out;
}

using Swell = BundleTest;
using DecayScale = BundleTest;

} // namespace

TEST_F(Swell, OnsetsRiseOverTheSetTimeAndSteadyTonesPass) {
	PluginRunner runner(*bundle, "varkesh.lumbrel.swell");
	ASSERT_TRUE(runner.ok);
	runner.set(paramId({"swell", "focus"}), 0.0); // focus 0: the gain tends to 1
	// Silence, then a tone that starts at 0.5 s.
	const double rate = 48000;
	std::vector<float> in(std::size_t(3 * rate), 0.0f);
	const auto tone = harmonicTone(330, 6, rate, std::size_t(2.5 * rate));
	std::copy(tone.begin(), tone.end(), in.begin() + std::ptrdiff_t(0.5 * rate));
	const auto out = runner.run({in, in});
	const std::size_t latency = runner.instance->latency();
	const auto window = std::size_t(0.01 * rate);
	const auto outEnvelope = envelope(out[0], window), inEnvelope = envelope(in, window);
	auto ratioAt = [&](double seconds) {
		const auto i = std::size_t((seconds * rate + double(latency)) / double(window));
		return outEnvelope[i] / inEnvelope[std::size_t(seconds * rate / double(window))];
	};
	// 30 ms after the onset the tone is held well back; by a second it has
	// risen to its own level.
	EXPECT_LT(dB(ratioAt(0.53)), -12);
	EXPECT_GT(dB(ratioAt(0.75)), dB(ratioAt(0.55)) + 6);
	EXPECT_NEAR(dB(ratioAt(2.0)), 0, 1.5);
	EXPECT_NEAR(dB(ratioAt(2.9)), 0, 1.5);
}

TEST_F(DecayScale, LengthensOrKeepsTheDecayOfARingingTone) {
	const double rate = 48000;
	// A tone that falls 60 dB per second (20 dB in a third of a second).
	std::vector<float> in = harmonicTone(440, 5, rate, std::size_t(2 * rate), 0.2);
	for (std::size_t i = 0; i < in.size(); ++i) in[i] *= float(std::pow(10.0, -3.0 * double(i) / rate));
	auto decayDbPerSecond = [&](double factor) {
		PluginRunner runner(*bundle, "varkesh.lumbrel.decay-scale");
		EXPECT_TRUE(runner.ok);
		setText(runner, {"decay", "factor"}, std::to_string(factor));
		const auto out = runner.run({in, in});
		const std::size_t latency = runner.instance->latency(), window = 2400;
		const double early = rms(out[0], latency + 9600, latency + 9600 + window);
		const double late = rms(out[0], latency + 28800, latency + 28800 + window);
		return dB(late / early) / 0.4;
	};
	// "rate" 1 leaves the decay as it is; 0 slows it; above 1 speeds it up.
	EXPECT_NEAR(decayDbPerSecond(1.0), -60, 3);
	EXPECT_GT(decayDbPerSecond(0.0), -40);
	EXPECT_LT(decayDbPerSecond(2.0), -70);
}
