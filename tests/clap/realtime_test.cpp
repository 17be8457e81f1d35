// The audio callback of every plug-in allocates nothing and takes no lock once
// it runs: blocks of changing length, host events and resets included.
#include "host/bundle.h"
#include "host/events.h"
#include "host/host.h"
#include "host/instance.h"
#include "support/alloc_counter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <mutex>
#include <random>
#include <vector>

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
	float *inputs[2] = {left.data(), right.data()};
	float *outputs[2] = {outLeft.data(), outRight.data()};
	std::mt19937 random(1);
	std::normal_distribution<float> noise(0.0f, 0.1f);

	for (std::uint32_t p = 0; p < bundle->count(); ++p) {
		const char *id = bundle->descriptor(p)->id;
		SCOPED_TRACE(id);
		lumbrel_test::AllocationScope creation;
		Instance instance(*bundle, id, host);
		ASSERT_GT(creation.count(), 0u) << "the counter must see the bundle's allocations";
		ASSERT_TRUE(instance.init());
		ASSERT_TRUE(instance.activate(48000, 1, maxFrames));
		ASSERT_TRUE(instance.startProcessing());
		InputEvents events;
		OutputEvents output;
		// Host automation of the last parameter (never an engine setting, whose
		// change rebuilds the effect by design), which also queues page updates.
		clap_param_info automated{};
		const bool automate = instance.paramCount() > 0 && instance.paramInfo(instance.paramCount() - 1, automated);

		auto run = [&](int blocks) {
			for (int b = 0; b < blocks; ++b) {
				const std::uint32_t frames = 1 + random() % maxFrames;
				for (std::uint32_t i = 0; i < frames; ++i) {
					left[i] = noise(random);
					right[i] = std::sin(0.05f * float(i));
				}
				events.clear();
				if (automate && b % 3 == 0) {
					const double span = automated.max_value - automated.min_value;
					events.paramValue(frames / 2, automated.id, automated.min_value + span * double(random() % 1000) / 999.0);
				}
				output.clear();
				instance.process(inputs, 2, outputs, 2, frames, events, output);
			}
		};
		run(50); // warm-up: first-use caches may grow here
		lumbrel_test::AllocationScope scope;
		lumbrel_test::LockScope locks;
		run(400);
		instance.reset();
		run(50);
		EXPECT_EQ(scope.count(), 0u);
		EXPECT_EQ(locks.count(), 0u);
	}
}
