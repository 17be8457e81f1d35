// An effect class and its wrapper on the engine, behind the plug-in instance: a spectrum added back unchanged comes out
// as the input, delayed by the engine's latency; a latency setting rebuilds the engine.
#include "support/effect_checks.h"
#include "support/signals.h"

using namespace lumbrel_test;

TEST(SpectralPass, InputComesOutDelayedByTheReportedLatency) {
	auto bundle = loadBundle(LUMBREL_PROBE_PATH);
	ASSERT_TRUE(bundle);
	for (double rate : {44100.0, 48000.0}) {
		PluginRunner runner(*bundle, "lumbrel.test.spectral-pass", rate);
		ASSERT_TRUE(runner.ok);
		const std::uint32_t latency = runner.instance->latency();
		EXPECT_EQ(latency, std::uint32_t(std::lround(rate * 0.010))) << "10 ms by default";
		const auto frames = std::size_t(rate), from = std::size_t(0.1 * rate);
		const auto left = sine(440, rate, frames), right = sine(1234.5, rate, frames, 0.25);
		const auto out = runner.run({left, right}, 197);
		EXPECT_LT(residualDb(out[0], left, latency, from, frames), -20) << rate;
		EXPECT_LT(residualDb(out[1], right, latency, from, frames), -20) << rate;
		EXPECT_NEAR(dB(rms(out[0], from) / rms(left, from)), 0, 0.5);
		EXPECT_GT(residualDb(out[1], right, latency + 3, from, frames), -10); // a few samples off shows
		setText(runner, {"engineConfig", "latencyMs"}, "5ms");
		const std::uint32_t shorter = runner.instance->latency();
		EXPECT_EQ(shorter, std::uint32_t(std::lround(rate * 0.005))) << "the next block builds the new engine";
		const auto again = runner.run({left, right});
		EXPECT_LT(residualDb(again[0], left, shorter, from, frames), -20) << rate;
	}
}
