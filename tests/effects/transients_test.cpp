// Transients through the plug-in: its parameter list and saved state, and what
// its three gains do to drum-like hits, measured on the audio that comes out.
#include "host/bundle.h"
#include "storage/cbor_diagnostic.h"
#include "storage/cbor_writer.h"
#include "support/alloc_counter.h"
#include "support/param_ids.h"
#include "support/plugin_runner.h"
#include "support/signals.h"

#include <gtest/gtest.h>

#include <clap/ext/draft/webview.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

using namespace lumbrel_test;

namespace {

constexpr const char *pluginId = "varkesh.lumbrel.transients";
constexpr double rate = 48000;

// A drum-like hit every half second: a noise burst that dies within some
// milliseconds over a low tone and a partial that ring on for a while.
std::vector<float> hits(int count, double spacing) {
	std::mt19937 random(7);
	std::normal_distribution<float> noise(0.0f, 1.0f);
	const auto length = std::size_t(spacing * rate);
	std::vector<float> out(std::size_t(count) * length + std::size_t(0.3 * rate), 0.0f);
	for (int h = 0; h < count; ++h) {
		const std::size_t start = std::size_t(h) * length + std::size_t(0.2 * rate);
		for (std::size_t i = 0; i < length && start + i < out.size(); ++i) {
			const double t = double(i) / rate;
			const double burst = 0.3 * std::exp(-t / 0.006) * noise(random);
			const double ring = std::exp(-t / 0.4)
				* (0.25 * std::sin(2 * pi * 160 * t) + 0.1 * std::sin(2 * pi * 1210 * t + 1));
			out[start + i] = float(burst + ring);
		}
	}
	return out;
}

// Output over input level, in dB, in three windows after each onset: the
// stages' periods (10 and 30 ms) put the attack part in the first
// milliseconds, the body part some tens of milliseconds later, and leave the
// ring to sustain.
struct HitLevels {
	double attackDb; // 0 to 15 ms
	double bodyDb; // 30 to 80 ms
	double sustainDb; // 100 to 300 ms
};

// Gain of each part of the hits, averaged over hits 2 and later (the first
// meets empty stages).
HitLevels measureHits(lumbrel::host::Bundle &b, double attack, double body, double sustain) {
	PluginRunner runner(b, pluginId);
	EXPECT_TRUE(runner.ok);
	auto setGain = [&](const char *key, double value) {
		double position = 0;
		EXPECT_TRUE(runner.instance->paramFromText(paramId({"gains", key}), std::to_string(value), position));
		runner.set(paramId({"gains", key}), position);
	};
	setGain("attack", attack);
	setGain("body", body);
	setGain("sustain", sustain);
	const int count = 6;
	const double spacing = 0.5;
	const auto in = hits(count, spacing);
	const auto out = runner.run({in, in});
	const std::size_t latency = runner.instance->latency();
	auto energy = [](const std::vector<float> &x, std::size_t from, std::size_t to) {
		double sum = 0;
		for (std::size_t i = from; i < to; ++i) sum += double(x[i]) * x[i];
		return sum;
	};
	auto levelDb = [&](double fromSeconds, double toSeconds) {
		double before = 0, after = 0;
		for (int h = 1; h < count; ++h) {
			const double onset = 0.2 + h * spacing;
			const auto from = std::size_t((onset + fromSeconds) * rate), to = std::size_t((onset + toSeconds) * rate);
			before += energy(in, from, to);
			after += 0.5 * (energy(out[0], from + latency, to + latency) + energy(out[1], from + latency, to + latency));
		}
		return 10 * std::log10(after / before);
	};
	return {levelDb(0, 0.015), levelDb(0.03, 0.08), levelDb(0.1, 0.3)};
}

// Asks for spectra every 10 ms for the next second, as the page does.
void requestMeters(lumbrel::host::Instance &instance) {
	std::vector<unsigned char> bytes;
	varkesh::cbor::CborWriter writer(bytes);
	writer.writeHead(4, 3);
	writer.addText("meters");
	writer.addFloat(0.01);
	writer.addFloat(1);
	const auto *webview = instance.extension<clap_plugin_webview>(CLAP_EXT_WEBVIEW);
	ASSERT_TRUE(webview);
	webview->receive(instance.clapPlugin(), bytes.data(), std::uint32_t(bytes.size()));
}

// Hands the queued page messages to the host; returns how many were spectra.
std::size_t drainMeters(lumbrel::host::Instance &instance) {
	instance.onMainThread();
	std::size_t meters = 0;
	for (const auto &message : instance.host().sentMessages) {
		meters += message.size() > 8 && message[0] == 0x82 && message[1] == 0x66 && message[2] == 'm' && message[3] == 'e';
	}
	instance.host().sentMessages.clear();
	return meters;
}

} // namespace

TEST(Transients, ParametersAndSavedState) {
	auto b = bundle();
	ASSERT_TRUE(b);
	PluginRunner runner(*b, pluginId);
	ASSERT_TRUE(runner.ok);
	struct Expected {
		std::initializer_list<const char *> path;
		const char *name, *defaultText;
	};
	const Expected expected[] = {
		{{"engineConfig", "latencyMs"}, "latency", "10ms"},
		{{"engineConfig", "overlap"}, "overlap", "4"},
		{{"engineConfig", "resolution"}, "resolution", "20"},
		{{"engineConfig", "iterationsLog2"}, "iterations", "4"},
		{{"engineConfig", "directCopy"}, "direct", "on"},
		{{"envelopeConfig", "smoothing"}, "smoothing", "0.25"}, // the wrapper's own default, not the group's 1
		{{"envelopeConfig", "periodMs"}, "period", "20ms"},
		{{"gains", "attack"}, "attack", "1"},
		{{"gains", "body"}, "body", "1"},
		{{"gains", "sustain"}, "sustain", "1"},
	};
	ASSERT_EQ(runner.instance->paramCount(), std::size(expected));
	for (std::uint32_t i = 0; i < std::size(expected); ++i) {
		SCOPED_TRACE(expected[i].name);
		clap_param_info info{};
		ASSERT_TRUE(runner.instance->paramInfo(i, info));
		EXPECT_EQ(info.id, paramId(expected[i].path));
		EXPECT_STREQ(info.name, expected[i].name);
		EXPECT_EQ(runner.instance->paramText(info.id, info.default_value), expected[i].defaultText);
	}
	// The gains run from 0 to 4 with 1 at mid travel.
	const clap_id attack = paramId({"gains", "attack"});
	EXPECT_EQ(runner.instance->paramText(attack, 0.0), "0");
	EXPECT_EQ(runner.instance->paramText(attack, 0.5), "1");
	EXPECT_EQ(runner.instance->paramText(attack, 1.0), "4");

	// The saved name reads "Lumbrel3", where the host's name reads "Lumbrel".
	std::vector<std::uint8_t> saved;
	ASSERT_TRUE(runner.instance->saveState(saved));
	EXPECT_EQ(diagnostic(std::vector<unsigned char>(saved.begin(), saved.end())),
		"{_ \"name\": \"Lumbrel3: Transients\", \"desc\": \"\", \"version\": 0, "
		"\"engineConfig\": {_ \"name\": \"Engine\", \"desc\": \"\", \"version\": 0, \"latencyMs\": {_ \"value\": 10.0}, "
		"\"overlap\": {_ \"value\": 4.0}, \"resolution\": {_ \"value\": 20.0}, \"iterationsLog2\": {_ \"value\": 2}, "
		"\"directCopy\": {_ \"value\": 1}}, "
		"\"envelopeConfig\": {_ \"name\": \"Envelope\", \"desc\": \"\", \"version\": 0, \"smoothing\": {_ \"value\": 0.25}, "
		"\"periodMs\": {_ \"value\": 20.0}}, "
		"\"gains\": {_ \"name\": \"Gains\", \"desc\": \"\", \"version\": 0, \"attack\": {_ \"value\": 1.0}, "
		"\"body\": {_ \"value\": 1.0}, \"sustain\": {_ \"value\": 1.0}}}");
}

TEST(Transients, UnitGainsPassTheSound) {
	auto b = bundle();
	ASSERT_TRUE(b);
	PluginRunner runner(*b, pluginId);
	ASSERT_TRUE(runner.ok);
	const auto in = hits(4, 0.5);
	const auto out = runner.run({in, in});
	const std::size_t latency = runner.instance->latency();
	const double residual = residualDb(out[0], in, latency, std::size_t(0.1 * rate), in.size() - latency);
	std::printf("transients at unit gains: residual %.1f dB\n", residual);
	EXPECT_LT(residual, -20);
	const auto levels = measureHits(*b, 1, 1, 1);
	std::printf("transients at unit gains: attack %+.2f dB, sustain %+.2f dB\n", levels.attackDb, levels.sustainDb);
	EXPECT_NEAR(levels.attackDb, 0, 1);
	EXPECT_NEAR(levels.sustainDb, 0, 1);
}

TEST(Transients, GainsMoveAttackAgainstSustain) {
	auto b = bundle();
	ASSERT_TRUE(b);
	struct Case {
		double attack, body, sustain;
	};
	const Case cases[] = {{4, 1, 1}, {2, 1, 1}, {0, 1, 1}, {1, 1, 0.25}, {1, 1, 4}, {1, 4, 1}, {1, 0, 1}, {0, 0, 0}};
	std::vector<HitLevels> levels;
	for (const auto &c : cases) {
		const auto l = measureHits(*b, c.attack, c.body, c.sustain);
		levels.push_back(l);
		std::printf("attack %.2f body %.2f sustain %.2f: attack %+.1f dB, body %+.1f dB, sustain %+.1f dB, "
					"attack/sustain %+.1f dB\n",
			c.attack, c.body, c.sustain, std::max(l.attackDb, -150.0), std::max(l.bodyDb, -150.0),
			std::max(l.sustainDb, -150.0), std::max(l.attackDb, -150.0) - std::max(l.sustainDb, -150.0));
	}
	auto attackOverSustain = [&](std::size_t i) { return levels[i].attackDb - levels[i].sustainDb; };
	auto bodyOverSustain = [&](std::size_t i) { return levels[i].bodyDb - levels[i].sustainDb; };

	// "attack" raises or lowers the onsets in the order of its gain, and
	// leaves the ring alone. At 4 (+12 dB) the onset window takes most of it;
	// the rest of the rise counts as body.
	EXPECT_GT(attackOverSustain(0), 6);
	EXPECT_LT(attackOverSustain(0), 12.5);
	EXPECT_GT(attackOverSustain(1), 2.5);
	EXPECT_LT(attackOverSustain(1), attackOverSustain(0) - 2);
	EXPECT_LT(attackOverSustain(2), -3);
	for (std::size_t i : {0, 1, 2}) EXPECT_NEAR(levels[i].sustainDb, 0, 1) << i;

	// "sustain" scales the ring by its own gain, and the onsets by less.
	EXPECT_NEAR(levels[3].sustainDb, dB(0.25), 1.5);
	EXPECT_GT(attackOverSustain(3), 6);
	EXPECT_NEAR(levels[4].sustainDb, dB(4), 1.5);
	EXPECT_LT(attackOverSustain(4), -2);

	// "body" works some tens of milliseconds in, between the two.
	EXPECT_GT(bodyOverSustain(5), 3);
	EXPECT_LT(bodyOverSustain(6), -2);
	EXPECT_LT(std::fabs(attackOverSustain(5)), std::fabs(attackOverSustain(0)));

	// All three at 0: silence.
	EXPECT_LT(levels[7].attackDb, -60);
	EXPECT_LT(levels[7].sustainDb, -60);
}

// Random automation of every own parameter, with positions far outside 0..1
// (and the gain curve's pole at 1.5), stays finite, with spectra going to the
// page or not, and allocates nothing.
TEST(Transients, RandomAutomationStaysFiniteAndAllocatesNothing) {
	auto b = bundle();
	ASSERT_TRUE(b);
	PluginRunner runner(*b, pluginId, rate, 1024);
	ASSERT_TRUE(runner.ok);
	const clap_id ids[] = {paramId({"envelopeConfig", "smoothing"}), paramId({"envelopeConfig", "periodMs"}),
		paramId({"gains", "attack"}), paramId({"gains", "body"}), paramId({"gains", "sustain"})};
	std::mt19937 random(3);
	std::uniform_real_distribution<double> position(-2.0, 3.0);
	std::normal_distribution<float> noise(0.0f, 0.2f);
	const auto in = hits(2, 0.5);
	std::vector<float> left(1024), right(1024), outLeft(1024), outRight(1024);
	float *inputs[2] = {left.data(), right.data()};
	float *outputs[2] = {outLeft.data(), outRight.data()};
	std::size_t cursor = 0, bad = 0, meters = 0;
	double peak = 0;
	auto run = [&](int blocks, bool page) {
		for (int block = 0; block < blocks; ++block) {
			const std::uint32_t frames = 1 + random() % 1024;
			for (std::uint32_t i = 0; i < frames; ++i, ++cursor) {
				left[i] = in[cursor % in.size()];
				right[i] = noise(random);
			}
			runner.events.clear();
			for (int e = 0; e < 3; ++e) {
				const double p = random() % 8 == 0 ? 1.5 : position(random);
				runner.events.paramValue(random() % frames, ids[random() % std::size(ids)], p);
			}
			runner.out.clear();
			runner.instance->process(inputs, 2, outputs, 2, frames, runner.events, runner.out);
			for (std::uint32_t i = 0; i < frames; ++i) {
				for (float x : {outLeft[i], outRight[i]}) {
					if (std::isfinite(x)) {
						peak = std::max(peak, double(std::fabs(x)));
					} else {
						++bad;
					}
				}
			}
			if (page && block % 8 == 0) meters += drainMeters(*runner.instance);
		}
	};
	// With the page open, spectra go out as well; the page's messages are
	// the main thread's and may allocate, so this part isn't counted.
	requestMeters(*runner.instance);
	run(300, true);
	meters += drainMeters(*runner.instance);
	EXPECT_GT(meters, 0u);
	AllocationScope scope;
	run(1000, false);
	const std::size_t allocations = scope.count();
	std::printf("random automation: %zu non-finite samples, peak %.2f, %zu spectra sent\n", bad, peak, meters);
	EXPECT_EQ(bad, 0u);
	EXPECT_LT(peak, 40.0) << "no gain above 4 reaches the audio";
	if (allocationCountingAvailable()) {
		EXPECT_EQ(allocations, 0u);
	}
}
