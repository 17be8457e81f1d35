// The detune chorus through the plug-in: the depth and rate of one voice's
// sweep, the spread and channel difference of the three voices, transparency
// at mix 0, crisp onsets.
#include "effects/chorus_measure.h"

using namespace lumbrel_test;

namespace {

constexpr double rate = 48000;
const char *const detuneId = "varkesh.lumbrel.chorus-detune";

using DetuneChorus = BundleTest;

} // namespace

// With the tone on input 0 only, output 1 hears voice 1 alone (voices 0 and 2
// read input 1 there, and mix 1 leaves no dry part): its pitch, tracked in
// windows of 2048 samples, sweeps by +-detune once per 1/spin seconds.
TEST_F(DetuneChorus, OneVoiceSweepsByTheDetuneAtTheSpinRate) {
	const auto tone = sine(1000, rate, std::size_t(4.5 * rate), 0.3);
	const std::vector<float> silence(tone.size(), 0.0f);
	for (double spin : {1.0, 4.0}) {
		const std::string spinText = std::to_string(spin);
		const auto out =
			runChorus(*bundle, detuneId, {tone, silence}, {{"mix", "1"}, {"detune", "40"}, {"spin", spinText.c_str()}});
		std::vector<double> track;
		for (std::size_t start = std::size_t(0.5 * rate); start + 2048 <= out[1].size(); start += 480) {
			track.push_back(cents(peakFrequency(out[1], start, 2048, 1000, 60, rate), 1000));
		}
		const auto [low, high] = std::minmax_element(track.begin(), track.end());
		// Cycles: upward crossings of 0, with 5 cents of hysteresis.
		int cycles = 0;
		bool below = track[0] < 0;
		for (double c : track) {
			if (below && c > 5) ++cycles;
			if (c > 5 || c < -5) below = c < -5;
		}
		const double perSecond = cycles / (double(track.size()) * 480 / rate);
		EXPECT_NEAR(*high, 40, 6);
		EXPECT_NEAR(*low, -40, 6);
		EXPECT_NEAR(perSecond, spin, 0.3 * spin);
	}
}

// A 1 kHz sine on both inputs, mix 1: the three voices spread it by about
// detune / sqrt(2), the RMS of a sine sweep; and the outputs, which take the
// voices at different levels, differ.
TEST_F(DetuneChorus, DetuneSpreadsTheToneAndTheChannelsDiffer) {
	const auto tone = sine(1000, rate, std::size_t(3 * rate), 0.3);
	const std::size_t from = std::size_t(1.5 * rate);
	for (double detune : {10.0, 40.0}) {
		const auto out =
			runChorus(*bundle, detuneId, {tone, tone}, {{"mix", "1"}, {"detune", std::to_string(detune).c_str()}});
		const double spread = spreadCents(out[0], from, 65536, 1000, 300, rate);
		const double difference = residualDb(out[1], out[0], 0, from, out[0].size());
		EXPECT_NEAR(spread, detune / std::sqrt(2.0), 0.25 * detune);
		EXPECT_GT(difference, -12);
	}
}

TEST_F(DetuneChorus, MixZeroPassesTheInputThroughAndWidthChangesNothing) {
	const auto left = harmonicTone(220, 8, rate, std::size_t(rate)), right = harmonicTone(330, 6, rate, std::size_t(rate));
	const std::size_t from = std::size_t(0.2 * rate), to = left.size();
	std::size_t latency = 0;
	const auto out = runChorus(*bundle, detuneId, {left, right}, {{"mix", "0"}, {"detune", "50"}}, &latency);
	EXPECT_LT(residualDb(out[0], left, latency, from, to), -30);
	EXPECT_LT(residualDb(out[1], right, latency, from, to), -30);

	// "width" reaches the effect, but no sound depends on it.
	EXPECT_EQ(runChorus(*bundle, detuneId, {left, right}, {{"width", "0"}}),
		runChorus(*bundle, detuneId, {left, right}, {{"width", "1.5"}}));
}

// Plucks of a 440 Hz tone every 0.25 s, mix 1, detune 50 cents. In crisp mode
// a transient pulls each voice's phase to the input's, so the voices add up in
// step at an onset: the first 10 ms come out louder and closer to the input.
TEST_F(DetuneChorus, CrispModeAlignsTheVoicesAtOnsets) {
	const auto tone = harmonicTone(440, 6, rate, std::size_t(0.25 * rate), 0.2);
	std::vector<float> plucks(std::size_t(4 * rate), 0.0f);
	for (std::size_t start = 0; start + tone.size() <= plucks.size(); start += tone.size()) {
		for (std::size_t i = 0; i < tone.size(); ++i) plucks[start + i] = tone[i] * float(std::exp(-double(i) / (0.03 * rate)));
	}
	double level[2], residual[2];
	const char *modes[] = {"smooth", "crisp"};
	for (int m = 0; m < 2; ++m) {
		std::size_t latency = 0;
		const auto out = runChorus(
			*bundle, detuneId, {plucks, plucks}, {{"mix", "1"}, {"detune", "50"}, {"crisp", modes[m]}}, &latency);
		double outLevel = 0, inLevel = 0, error = 0;
		int onsets = 0;
		for (std::size_t start = 2 * tone.size(); start + tone.size() <= plucks.size(); start += tone.size(), ++onsets) {
			outLevel += rms(out[0], start + latency, start + latency + 480);
			inLevel += rms(plucks, start, start + 480);
			error += residualDb(out[0], plucks, latency, start + latency, start + latency + 480);
		}
		level[m] = dB(outLevel / inLevel);
		residual[m] = error / onsets;
	}
	EXPECT_GT(level[1], level[0] + 1);
	EXPECT_LT(residual[1], residual[0] - 3);
}
