// Swell and Decay scale through the plug-in, measured on the audio that comes out: how an onset rises, and how fast a
// ringing tone dies away.
#include "support/effect_checks.h"
#include "support/signals.h"

using namespace lumbrel_test;

namespace {
constexpr double rate = 48000;
using Swell = BundleTest;
using DecayScale = BundleTest;
} // namespace

// A tone from 0.5 s: 30 ms in it is held well back; by a second it has risen to its own level. Focus 0: the gain tends
// to 1.
TEST_F(Swell, OnsetsRiseOverTheSetTimeAndSteadyTonesPass) {
	PluginRunner runner(*bundle, "varkesh.lumbrel.swell");
	ASSERT_TRUE(runner.ok);
	runner.set(paramId({"swell", "focus"}), 0.0);
	std::vector<float> in(std::size_t(3 * rate), 0.0f);
	const auto tone = harmonicTone(330, 6, rate, std::size_t(2.5 * rate));
	std::copy(tone.begin(), tone.end(), in.begin() + std::ptrdiff_t(0.5 * rate));
	const auto out = runner.run({in, in});
	const std::size_t latency = runner.instance->latency(), window = 480;
	auto ratioDb = [&](double seconds) {
		const auto at = std::size_t(seconds * rate);
		return dB(rms(out[0], at + latency, at + latency + window) / rms(in, at, at + window));
	};
	EXPECT_LT(ratioDb(0.53), -12);
	EXPECT_GT(ratioDb(0.75), ratioDb(0.55) + 6);
	EXPECT_NEAR(ratioDb(2.0), 0, 1.5);
	EXPECT_NEAR(ratioDb(2.9), 0, 1.5);
}

// A tone falling 60 dB a second against a memory that falls 20 dB in "RT20" seconds (R dB/s, -20 at 1 s): in dB the
// output falls at rate x 60 + (1 - rate) x R, so rate 1 keeps the decay and rate 0 gives the memory's own. At rate 2 the
// part under the tonal limit, which keeps the input's decay, shows.
TEST_F(DecayScale, ScalesTheDecayAgainstTheReferenceRate) {
	std::vector<float> in = harmonicTone(440, 5, rate, std::size_t(1.5 * rate), 0.2);
	for (std::size_t i = 0; i < in.size(); ++i) in[i] *= float(std::pow(10.0, -3.0 * double(i) / rate));
	const struct {
		const char *factor;
		double low, high;
	} cases[] = {{"1", -63, -57}, {"0", -23, -17}, {"0.5", -43, -37}, {"2", -110, -85}};
	for (const auto &c : cases) {
		PluginRunner runner(*bundle, "varkesh.lumbrel.decay-scale");
		ASSERT_TRUE(runner.ok);
		setText(runner, {"decay", "factor"}, c.factor);
		setText(runner, {"decay", "rt20"}, "1");
		setText(runner, {"decay", "rangeDb"}, "60");
		const auto out = runner.run({in, in});
		const std::size_t from = runner.instance->latency() + 9600, window = 2400;
		const double perSecond = dB(rms(out[0], from + 19200, from + 19200 + window) / rms(out[0], from, from + window)) / 0.4;
		EXPECT_TRUE(perSecond > c.low && perSecond < c.high) << "rate " << c.factor << ": " << perSecond << " dB/s";
	}
}
