// An effect class and its wrapper on the engine, behind the plug-in instance:
// a spectrum added back unchanged comes out as the input, delayed by the
// engine's latency; engine settings rebuild the effect.
#include "support/effect_checks.h"
#include "support/signals.h"

#include <gtest/gtest.h>

using namespace lumbrel_test;

namespace {

constexpr clap_id latencyMsId = 0x06A04C69; // "engineConfig" / "latencyMs"

} // namespace

TEST(SpectralPass, InputComesOutDelayedByTheReportedLatency) {
	auto bundle = loadBundle(LUMBREL_PROBE_PATH);
	ASSERT_TRUE(bundle);
	for (double rate : {44100.0, 48000.0}) {
		PluginRunner runner(*bundle, "lumbrel.test.spectral-pass", rate);
		ASSERT_TRUE(runner.ok);
		const std::uint32_t latency = runner.instance->latency();
		EXPECT_EQ(latency, std::uint32_t(std::lround(rate * 0.010))) << "10 ms by default";

		const auto frames = std::size_t(rate);
		const auto left = sine(440, rate, frames), right = sine(1234.5, rate, frames, 0.25);
		const auto out = runner.run({left, right}, 197);
		const std::size_t from = std::size_t(0.1 * rate);
		EXPECT_LT(residualDb(out[0], left, latency, from, frames), -20) << rate;
		EXPECT_LT(residualDb(out[1], right, latency, from, frames), -20) << rate;
		EXPECT_NEAR(dB(rms(out[0], from) / rms(left, from)), 0, 0.5);
		// One sample off would show as a residual near 0 dB at 1234.5 Hz.
		EXPECT_GT(residualDb(out[1], right, latency + 3, from, frames), -10);
	}
}

TEST(SpectralPass, LatencySettingRebuildsTheEngine) {
	auto bundle = loadBundle(LUMBREL_PROBE_PATH);
	ASSERT_TRUE(bundle);
	PluginRunner runner(*bundle, "lumbrel.test.spectral-pass", 48000);
	ASSERT_TRUE(runner.ok);
	EXPECT_EQ(runner.instance->latency(), 480u);
	setText(runner, latencyMsId, "5ms");
	EXPECT_EQ(runner.instance->latency(), 240u) << "the next block builds the new engine";

	const auto in = sine(700, 48000, 24000);
	const auto out = runner.run({in, in});
	EXPECT_LT(residualDb(out[0], in, 240, 4800, 24000), -20);
}
