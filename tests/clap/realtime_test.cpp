// The audio callback of every plug-in allocates nothing and takes no lock once
// it runs: blocks of changing length, host events and resets included, and
// with the page open (spectra and updates through the message ring).
#include "host/bundle.h"
#include "host/events.h"
#include "host/host.h"
#include "host/instance.h"
#include "host/key_paths.h"
#include "support/alloc_counter.h"

#include <gtest/gtest.h>

#include <clap/ext/draft/webview.h>

#include <cmath>
#include <iterator>
#include <mutex>
#include <random>

using namespace lumbrel::host;

TEST(Realtime, ProcessAllocatesNothingInSteadyState) {
	if (!lumbrel_test::allocationCountingAvailable()) GTEST_SKIP() << "no allocation counting in this build";
	{
		std::mutex mutex;
		lumbrel_test::LockScope locks;
		mutex.lock();
		mutex.unlock();
		ASSERT_EQ(locks.count(), 1u) << "the lock counter must see locks";
	}
	std::string error;
	auto bundle = Bundle::load(LUMBREL_BUNDLE_PATH, error);
	ASSERT_TRUE(bundle) << error;
	Host host;
	const std::uint32_t maxFrames = 1024;
	std::vector<float> left(maxFrames), right(maxFrames), outLeft(maxFrames), outRight(maxFrames);
	float *inputs[2] = {left.data(), right.data()}, *outputs[2] = {outLeft.data(), outRight.data()};
	std::mt19937 random(1);
	std::normal_distribution<float> noise(0.0f, 0.1f);

	for (std::uint32_t p = 0; p < bundle->count(); ++p) {
		const char *id = bundle->descriptor(p)->id;
		SCOPED_TRACE(id);
		lumbrel_test::AllocationScope creation;
		Instance instance(*bundle, id, host);
		ASSERT_GT(creation.count(), 0u) << "the counter must see the bundle's allocations";
		ASSERT_TRUE(instance.init() && instance.activate(48000, 1, maxFrames) && instance.startProcessing());
		InputEvents events;
		OutputEvents output;
		// Host automation of every parameter but the engine settings and the
		// channel mode (whose change rebuilds the effect by design), in range and
		// far outside it; it also queues page updates.
		std::vector<clap_id> automated;
		std::vector<std::uint8_t> state;
		ASSERT_TRUE(instance.saveState(state));
		for (const auto &path : stateKeyPaths(state.data(), state.size()))
			if (path.keys.front() != "engineConfig" && path.keys.front() != "channelMode") automated.push_back(path.id);
		const double hostile[] = {-1e9, -3, -0.25, 0, 0.5, 1, 1.02, 2, 100, 1e9};

		// Counts only inside process(); with `page`, the main thread takes its
		// turn between blocks and drains the ring, as a host with the editor open.
		std::size_t allocations = 0, lockCount = 0, spectra = 0;
		auto run = [&](int blocks, bool page) {
			for (int b = 0; b < blocks; ++b) {
				const std::uint32_t frames = 1 + random() % maxFrames;
				for (std::uint32_t i = 0; i < frames; ++i) {
					left[i] = noise(random);
					right[i] = std::sin(0.05f * float(i));
				}
				events.clear();
				for (int e = 0; e < 3 && !automated.empty(); ++e) {
					const double value = random() % 2 ? double(random() % 1000) / 999.0 : hostile[random() % std::size(hostile)];
					events.paramValue(std::uint32_t(random() % frames), automated[random() % automated.size()], value);
				}
				output.clear();
				const std::size_t allocationsBefore = lumbrel_test::allocationCount();
				const std::size_t locksBefore = lumbrel_test::lockCount();
				instance.process(inputs, 2, outputs, 2, frames, events, output);
				allocations += lumbrel_test::allocationCount() - allocationsBefore;
				lockCount += lumbrel_test::lockCount() - locksBefore;
				if (page) {
					instance.onMainThread();
					for (const auto &m : host.sentMessages) spectra += m.size() > 3 && m[0] == 0x82 && m[2] == 'm';
					host.sentMessages.clear();
				}
			}
		};
		run(50, false); // warm-up: first-use caches may grow here
		allocations = lockCount = 0;
		run(400, false);
		instance.reset();
		run(50, false);
		EXPECT_EQ(allocations + lockCount, 0u) << allocations << " allocations, " << lockCount << " locks";

		// The page: "ready", then a lease of a spectrum every 1 ms (each block).
		// Each ring slot grows once to hold a spectrum; after that, nothing.
		const auto *webview = instance.extension<clap_plugin_webview>(CLAP_EXT_WEBVIEW);
		ASSERT_NE(webview, nullptr);
		const std::uint8_t ready[] = {0x65, 'r', 'e', 'a', 'd', 'y'};
		// ["meters", 0.001, 3600]
		const std::uint8_t meters[] = {0x83, 0x66, 'm', 'e', 't', 'e', 'r', 's', 0xfb, 0x3f, 0x50, 0x62, 0x4d, 0xd2,
			0xf1, 0xa9, 0xfc, 0x19, 0x0e, 0x10};
		ASSERT_TRUE(webview->receive(instance.clapPlugin(), ready, sizeof(ready)));
		ASSERT_TRUE(webview->receive(instance.clapPlugin(), meters, sizeof(meters)));
		run(300, true);
		allocations = lockCount = spectra = 0;
		run(400, true);
		EXPECT_GT(spectra, 300u) << "the page got its spectra";
		EXPECT_EQ(allocations + lockCount, 0u) << "with the page open: " << allocations << " allocations, " << lockCount << " locks";
	}
}
