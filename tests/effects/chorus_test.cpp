// The two choruses through the plug-in, measured on a steady tone (pitch spread, level wander, channel difference,
// transparency at mix 0), a voice's sweep, onsets, and the spectral one's per-instance seed.
#include "support/effect_checks.h"
#include "support/signals.h"

using namespace lumbrel_test;

namespace {

constexpr double rate = 48000;
const char *const chorusId = "varkesh.lumbrel.chorus";
const char *const detuneId = "varkesh.lumbrel.chorus-detune";

std::vector<std::vector<float>> runChorus(const lumbrel::host::Bundle &bundle, const char *pluginId,
	const std::vector<std::vector<float>> &input, std::initializer_list<std::pair<const char *, const char *>> settings,
	std::size_t *latency = nullptr) {
	PluginRunner runner(bundle, pluginId);
	EXPECT_TRUE(runner.ok);
	for (const auto &[key, text] : settings) setText(runner, {"chorusConfig", key}, text);
	if (latency) *latency = runner.instance->latency();
	return runner.run(input);
}

// The energy-weighted standard deviation in cents of the Hann-windowed spectrum within `searchCents` of `hz`.
double spreadCents(const std::vector<float> &x, std::size_t from, std::size_t length, double hz,
	double searchCents, double sampleRate) {
	std::vector<double> windowed(length);
	for (std::size_t i = 0; i < length; ++i) {
		windowed[i] = (0.5 - 0.5 * std::cos(2 * pi * (double(i) + 0.5) / double(length))) * x[from + i];
	}
	const double low = hz * std::exp2(-searchCents / 1200), high = hz * std::exp2(searchCents / 1200);
	double weight = 0, sum = 0, sumSquares = 0;
	for (double f = low; f <= high; f += sampleRate / double(length) / 2) {
		const std::complex<double> turn = std::polar(1.0, -2 * pi * f / sampleRate);
		std::complex<double> phasor = 1, acc = 0;
		for (std::size_t i = 0; i < length; ++i) {
			acc += windowed[i] * phasor;
			phasor *= turn;
		}
		const double power = std::norm(acc), c = cents(f, hz);
		weight += power;
		sum += power * c;
		sumSquares += power * c * c;
	}
	const double mean = sum / weight;
	return std::sqrt(std::max(sumSquares / weight - mean * mean, 0.0));
}

using SpectralChorus = BundleTest;
using DetuneChorus = BundleTest;

} // namespace

// A 1 kHz sine after 1.5 s, both channels (which wander apart) averaged.
TEST_F(SpectralChorus, DetuneWidensThePitchSpreadOfASteadyTone) {
	const auto tone = sine(1000, rate, std::size_t(3 * rate), 0.3);
	const std::size_t from = std::size_t(1.5 * rate), length = 65536;
	const double dry = spreadCents(tone, from, length, 1000, 400, rate);
	double spread[4];
	const char *detunes[] = {"0", "1.5", "10", "50"};
	for (int i = 0; i < 4; ++i) {
		const auto out = runChorus(*bundle, chorusId, {tone}, {{"detune", detunes[i]}});
		spread[i] = 0.5 * (spreadCents(out[0], from, length, 1000, 400, rate) + spreadCents(out[1], from, length, 1000, 400, rate));
	}
	EXPECT_LT(dry, 3);
	EXPECT_LT(spread[0], 5);
	EXPECT_GT(spread[1], spread[0] * 2);
	EXPECT_GT(spread[2], spread[1] * 2);
	EXPECT_GT(spread[3], spread[2] * 1.5);
}

// The spread of a sine's level in 20 ms windows over the last second, in dB; each instance draws its own modulation, so
// the mean of four renders.
TEST_F(SpectralChorus, AntiWarbleSteadiesTheLevel) {
	const auto tone = sine(1000, rate, std::size_t(3 * rate), 0.3);
	auto meanWanderDb = [&](const char *antiWarble) {
		double wander = 0;
		for (int i = 0; i < 4; ++i) {
			const auto out = runChorus(*bundle, chorusId, {tone}, {{"antiWarble", antiWarble}});
			double sum = 0, sumSquares = 0;
			int count = 0;
			for (std::size_t start = std::size_t(2 * rate); start + 960 <= out[0].size(); start += 960, ++count) {
				const double level = dB(rms(out[0], start, start + 960));
				sum += level;
				sumSquares += level * level;
			}
			wander += std::sqrt(sumSquares / count - (sum / count) * (sum / count)) / 4;
		}
		return wander;
	};
	EXPECT_LT(meanWanderDb("0.95"), meanWanderDb("0.05") * 0.7);
}

// L - R grows with the width. At mix 0 the input passes, at 1 it does not, between the dry part follows 1 - mix^2 (3 -
// mix) / 2: 0.6875 at 0.5.
TEST_F(SpectralChorus, WidthAndMix) {
	const auto tone = harmonicTone(220, 8, rate, std::size_t(2 * rate));
	const std::size_t from = std::size_t(0.5 * rate), to = tone.size();
	double difference[3];
	const char *widths[] = {"0", "0.8", "1.5"};
	for (int i = 0; i < 3; ++i) {
		const auto out = runChorus(*bundle, chorusId, {tone}, {{"width", widths[i]}});
		difference[i] = residualDb(out[1], out[0], 0, from, to);
	}
	EXPECT_LT(difference[0], -20);
	EXPECT_GT(difference[1], -3);
	EXPECT_GT(difference[2], difference[1] + 1);
	std::size_t latency = 0;
	const auto dry = runChorus(*bundle, chorusId, {tone}, {{"mix", "0"}, {"detune", "50"}}, &latency);
	EXPECT_LT(residualDb(dry[0], tone, latency, from, to), -30);
	EXPECT_LT(residualDb(dry[1], tone, latency, from, to), -30);
	const auto wet = runChorus(*bundle, chorusId, {tone}, {{"mix", "1"}, {"detune", "50"}});
	EXPECT_GT(residualDb(wet[0], tone, latency, from, to), -10);
	const auto half = runChorus(*bundle, chorusId, {tone}, {{"mix", "0.5"}, {"detune", "50"}});
	double dot = 0, norm = 0;
	for (std::size_t i = from; i < to; ++i) {
		dot += double(half[0][i]) * tone[i - latency];
		norm += double(tone[i - latency]) * tone[i - latency];
	}
	EXPECT_NEAR(dot / norm, 0.6875, 0.1);
}

// Each instance draws its own modulation.
TEST_F(SpectralChorus, EveryInstanceWandersItsOwnWay) {
	const auto tone = harmonicTone(220, 8, rate, std::size_t(rate));
	const std::size_t from = std::size_t(0.2 * rate), to = tone.size();
	const auto a = runChorus(*bundle, chorusId, {tone}, {}), b = runChorus(*bundle, chorusId, {tone}, {});
	ASSERT_TRUE(allFinite(a[0]) && allFinite(b[0]));
	EXPECT_GT(rms(a[0], from, to), 0.5 * rms(tone, from, to));
	EXPECT_GT(residualDb(b[0], a[0], 0, from, to), -10);
}

// Tone on input 0 only: output 1 hears voice 1 alone at mix 1, and its pitch sweeps by +-detune once per 1/spin seconds.
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
		int cycles = 0; // upward crossings of 0, with 5 cents of hysteresis
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

// Mix 1: three voices spread a sine by about detune / sqrt(2), the RMS of a sine sweep; the outputs, taking the voices
// at different levels, differ.
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

TEST_F(DetuneChorus, MixZeroPassesTheInputThrough) {
	const auto left = harmonicTone(220, 8, rate, std::size_t(rate)), right = harmonicTone(330, 6, rate, std::size_t(rate));
	const std::size_t from = std::size_t(0.2 * rate), to = left.size();
	std::size_t latency = 0;
	const auto out = runChorus(*bundle, detuneId, {left, right}, {{"mix", "0"}, {"detune", "50"}}, &latency);
	EXPECT_LT(residualDb(out[0], left, latency, from, to), -30);
	EXPECT_LT(residualDb(out[1], right, latency, from, to), -30);
}

// Plucks every 0.25 s: in crisp mode a transient pulls each voice's phase to the input's, so the first 10 ms come out
// louder and closer to the input.
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
