// Swell and Decay scale through the plug-in: their parameter lists, and what
// they do to onsets and decays, measured on the audio that comes out.
#include "host/bundle.h"
#include "support/param_ids.h"
#include "support/plugin_runner.h"
#include "support/signals.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

using namespace lumbrel_test;

namespace {

struct Listed {
	std::string name;
	clap_id id;
	std::string defaultText;
};

std::vector<Listed> listOf(lumbrel::host::Instance &instance) {
	std::vector<Listed> list;
	for (std::uint32_t i = 0; i < instance.paramCount(); ++i) {
		clap_param_info info{};
		instance.paramInfo(i, info);
		list.push_back({info.name, info.id, instance.paramText(info.id, info.default_value)});
	}
	return list;
}

void expectEngineGroup(const std::vector<Listed> &list) {
	ASSERT_GE(list.size(), 5u);
	EXPECT_EQ(list[0].id, paramId({"engineConfig", "latencyMs"}));
	EXPECT_EQ(list[0].defaultText, "10ms");
	EXPECT_EQ(list[1].id, paramId({"engineConfig", "overlap"}));
	EXPECT_EQ(list[1].defaultText, "4");
	EXPECT_EQ(list[2].id, paramId({"engineConfig", "resolution"}));
	EXPECT_EQ(list[3].id, paramId({"engineConfig", "iterationsLog2"}));
	EXPECT_EQ(list[3].defaultText, "4");
	EXPECT_EQ(list[4].id, paramId({"engineConfig", "directCopy"}));
	EXPECT_EQ(list[4].defaultText, "on");
}

// Envelope of a signal: RMS over windows of `window` samples.
std::vector<double> envelope(const std::vector<float> &x, std::size_t window) {
	std::vector<double> out;
	for (std::size_t start = 0; start + window <= x.size(); start += window) out.push_back(rms(x, start, start + window));
	return out;
}

} // namespace

TEST(Swell, ParameterList) {
	auto b = bundle();
	ASSERT_TRUE(b);
	PluginRunner runner(*b, "varkesh.lumbrel.swell");
	ASSERT_TRUE(runner.ok);
	const auto list = listOf(*runner.instance);
	ASSERT_EQ(list.size(), 9u);
	expectEngineGroup(list);
	const char *keys[] = {"time", "sweep", "focus", "autoGain"};
	const char *names[] = {"time", "sweep", "focus", "auto-gain"};
	const char *defaults[] = {"0.25sec", "0", "0.5", "12dB"};
	for (int i = 0; i < 4; ++i) {
		EXPECT_EQ(list[5 + i].id, paramId({"swell", keys[i]}));
		EXPECT_EQ(list[5 + i].name, names[i]);
		EXPECT_EQ(list[5 + i].defaultText, defaults[i]);
	}
}

TEST(Swell, OnsetsRiseOverTheSetTimeAndSteadyTonesPass) {
	auto b = bundle();
	ASSERT_TRUE(b);
	PluginRunner runner(*b, "varkesh.lumbrel.swell");
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
	std::printf("swell: %.1f %.1f %.1f %.1f %.1f dB\n", dB(ratioAt(0.53)), dB(ratioAt(0.55)), dB(ratioAt(0.75)), dB(ratioAt(2.0)), dB(ratioAt(2.9)));
	EXPECT_LT(dB(ratioAt(0.53)), -12);
	EXPECT_GT(dB(ratioAt(0.75)), dB(ratioAt(0.55)) + 6);
	EXPECT_NEAR(dB(ratioAt(2.0)), 0, 1.5);
	EXPECT_NEAR(dB(ratioAt(2.9)), 0, 1.5);
}

TEST(DecayScale, ParameterList) {
	auto b = bundle();
	ASSERT_TRUE(b);
	PluginRunner runner(*b, "varkesh.lumbrel.decay-scale");
	ASSERT_TRUE(runner.ok);
	const auto list = listOf(*runner.instance);
	ASSERT_EQ(list.size(), 10u);
	expectEngineGroup(list);
	const char *keys[] = {"smoothing", "tonalLimit", "rt20", "rangeDb", "factor"};
	const char *names[] = {"smoothing", "tonality", "RT20 (peak)", "range", "rate"};
	const char *defaults[] = {"2%", "1.25", "15sec", "30dB", "0.5"};
	for (int i = 0; i < 5; ++i) {
		EXPECT_EQ(list[5 + i].id, paramId({"decay", keys[i]}));
		EXPECT_EQ(list[5 + i].name, names[i]);
		EXPECT_EQ(list[5 + i].defaultText, defaults[i]);
	}
}

TEST(DecayScale, LengthensOrKeepsTheDecayOfARingingTone) {
	auto b = bundle();
	ASSERT_TRUE(b);
	const double rate = 48000;
	// A tone that falls 60 dB per second (20 dB in a third of a second).
	std::vector<float> in = harmonicTone(440, 5, rate, std::size_t(2 * rate), 0.2);
	for (std::size_t i = 0; i < in.size(); ++i) in[i] *= float(std::pow(10.0, -3.0 * double(i) / rate));
	auto decayDbPerSecond = [&](double factor) {
		PluginRunner runner(*b, "varkesh.lumbrel.decay-scale");
		EXPECT_TRUE(runner.ok);
		double position = 0;
		runner.instance->paramFromText(paramId({"decay", "factor"}), std::to_string(factor), position);
		runner.set(paramId({"decay", "factor"}), position);
		const auto out = runner.run({in, in});
		const std::size_t latency = runner.instance->latency(), window = 2400;
		const double early = rms(out[0], latency + 9600, latency + 9600 + window);
		const double late = rms(out[0], latency + 28800, latency + 28800 + window);
		std::printf("decay rate factor %.1f: %.1f dB/s\n", factor, dB(late / early) / 0.4);
		return dB(late / early) / 0.4;
	};
	// "rate" 1 leaves the decay as it is; 0 slows it; above 1 speeds it up.
	EXPECT_NEAR(decayDbPerSecond(1.0), -60, 3);
	EXPECT_GT(decayDbPerSecond(0.0), -40);
	EXPECT_LT(decayDbPerSecond(2.0), -70);
}
