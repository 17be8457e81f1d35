// Transients through the plug-in: what its three gains do to drum-like hits.
#include "support/effect_checks.h"
#include "support/signals.h"

using namespace lumbrel_test;

namespace {

constexpr const char *pluginId = "varkesh.lumbrel.transients";
constexpr double rate = 48000;

// A hit every `spacing` seconds: a noise burst dying in milliseconds over a low tone and a partial that ring on.
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

// Output over input in dB after each onset (from the second hit; the first meets empty stages), where the stages'
// periods (10 and 30 ms) put each part: attack 0-15 ms, body 30-80 ms, sustain 100-300 ms; and the whole output against
// the input, delayed.
struct HitLevels { double attackDb, bodyDb, sustainDb, residualDb; };
HitLevels measureHits(lumbrel::host::Bundle &b, double attack, double body, double sustain) {
	PluginRunner runner(b, pluginId);
	EXPECT_TRUE(runner.ok);
	setText(runner, {"gains", "attack"}, std::to_string(attack));
	setText(runner, {"gains", "body"}, std::to_string(body));
	setText(runner, {"gains", "sustain"}, std::to_string(sustain));
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
	return {levelDb(0, 0.015), levelDb(0.03, 0.08), levelDb(0.1, 0.3), residualDb(out[0], in, latency, 4800, in.size())};
}

using Transients = BundleTest;

} // namespace

TEST_F(Transients, GainsMoveAttackAgainstSustain) {
	struct Case { double attack, body, sustain; };
	const Case cases[] = {{4, 1, 1}, {2, 1, 1}, {0, 1, 1}, {1, 1, 0.25}, {1, 1, 4}, {1, 4, 1}, {1, 0, 1}, {0, 0, 0}, {1, 1, 1}};
	std::vector<HitLevels> levels;
	for (const auto &c : cases) levels.push_back(measureHits(*bundle, c.attack, c.body, c.sustain));
	auto attackOverSustain = [&](std::size_t i) { return levels[i].attackDb - levels[i].sustainDb; };
	auto bodyOverSustain = [&](std::size_t i) { return levels[i].bodyDb - levels[i].sustainDb; };
	// "attack" raises or lowers the onsets in the order of its gain, and leaves the ring alone. At 4 (+12 dB) the onset
	// window takes most of it; the rest of the rise counts as body.
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
	EXPECT_LT(levels[8].residualDb, -20) << "unit gains pass the sound";
}
