// The spectral chorus through the plug-in: what it does to a steady tone
// (pitch spread, level wander, channel difference, transparency at mix 0) and
// its per-instance seed.
#include "effects/chorus_measure.h"

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstring>

using namespace lumbrel_test;

// The bundle opens the random device through fopen; this executable exports
// its own, which the bundle binds to, so that a test can count the opens and
// make the device fail.
namespace {
std::atomic<bool> failRandomDevice{false};
std::atomic<int> randomDeviceOpens{0};

std::FILE *openFile(const char *symbol, const char *path, const char *mode) {
	using Open = std::FILE *(*)(const char *, const char *);
	if (path && std::strcmp(path, "/dev/urandom") == 0) {
		randomDeviceOpens.fetch_add(1);
		if (failRandomDevice.load()) {
			errno = EACCES;
			return nullptr;
		}
	}
	return reinterpret_cast<Open>(dlsym(RTLD_NEXT, symbol))(path, mode);
}
} // namespace

extern "C" __attribute__((visibility("default"))) std::FILE *fopen(const char *path, const char *mode) {
	return openFile("fopen", path, mode);
}
extern "C" __attribute__((visibility("default"))) std::FILE *fopen64(const char *path, const char *mode) {
	return openFile("fopen64", path, mode);
}

namespace {

constexpr double rate = 48000;
const char *const chorusId = "varkesh.lumbrel.chorus";

using SpectralChorus = BundleTest;

} // namespace

// A 1 kHz sine, measured over 1.4 s after 1.5 s of settling, averaged over
// the two channels, which wander independently. At detune 0 the wander keeps
// only its floor.
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

// The standard deviation of a steady sine's level in 20 ms windows, in dB,
// over the last of three seconds.
TEST_F(SpectralChorus, AntiWarbleSteadiesTheLevel) {
	const auto tone = sine(1000, rate, std::size_t(3 * rate), 0.3);
	auto levelWanderDb = [&](const char *antiWarble) {
		const auto out = runChorus(*bundle, chorusId, {tone}, {{"antiWarble", antiWarble}});
		double sum = 0, sumSquares = 0;
		int count = 0;
		for (std::size_t start = std::size_t(2 * rate); start + 960 <= out[0].size(); start += 960, ++count) {
			const double level = dB(rms(out[0], start, start + 960));
			sum += level;
			sumSquares += level * level;
		}
		return std::sqrt(sumSquares / count - (sum / count) * (sum / count));
	};
	EXPECT_LT(levelWanderDb("0.95"), levelWanderDb("0.05") * 0.7);
}

// The same tone on both inputs: L - R relative to L grows with the width. At
// mix 0 the input passes; at mix 1 it does not.
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
}

// Each instance reads the random device once, when it is made (not when its
// engine is rebuilt), and wanders its own way; without the device instances
// still differ.
TEST_F(SpectralChorus, EveryInstanceWandersItsOwnWay) {
	const auto tone = harmonicTone(220, 8, rate, std::size_t(rate));
	const std::size_t from = std::size_t(0.2 * rate), to = tone.size();
	for (bool fail : {false, true}) {
		failRandomDevice = fail;
		const int opensBefore = randomDeviceOpens.load();
		const auto a = runChorus(*bundle, chorusId, {tone}, {});
		const auto b = runChorus(*bundle, chorusId, {tone}, {});
		failRandomDevice = false;
		EXPECT_EQ(randomDeviceOpens.load() - opensBefore, 2);
		ASSERT_TRUE(allFinite(a[0]) && allFinite(b[0]));
		EXPECT_GT(rms(a[0], from, to), 0.5 * rms(tone, from, to));
		EXPECT_GT(residualDb(b[0], a[0], 0, from, to), -10) << (fail ? "without" : "with") << " the device";
	}
	PluginRunner runner(*bundle, chorusId);
	ASSERT_TRUE(runner.ok);
	const int opensAfterCreation = randomDeviceOpens.load();
	setText(runner, {"engineConfig", "latencyMs"}, "5");
	const auto out = runner.run({tone, tone});
	EXPECT_EQ(runner.instance->latency(), 240u);
	EXPECT_EQ(randomDeviceOpens.load(), opensAfterCreation);
}
