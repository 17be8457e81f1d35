// The audio callback of every plug-in allocates nothing once it runs: blocks
// of changing length, host events and resets included.
#include "host/bundle.h"
#include "host/events.h"
#include "host/host.h"
#include "host/instance.h"
#include "support/alloc_counter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

using namespace lumbrel::host;

TEST(Realtime, ProcessAllocatesNothingInSteadyState) {
	if (!lumbrel_test::allocationCountingAvailable()) GTEST_SKIP() << "no allocation counting in this build";
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

		auto run = [&](int blocks) {
			for (int b = 0; b < blocks; ++b) {
				const std::uint32_t frames = 1 + random() % maxFrames;
				for (std::uint32_t i = 0; i < frames; ++i) {
					left[i] = noise(random);
					right[i] = std::sin(0.05f * float(i));
				}
				events.clear();
				if (b % 3 == 0) {
					events.paramValue(frames / 2, 0x12345678, 0.5);
				}
				output.clear();
				instance.process(inputs, 2, outputs, 2, frames, events, output);
			}
		};
		run(50); // warm-up: first-use caches may grow here
		lumbrel_test::AllocationScope scope;
		run(400);
		instance.reset();
		run(50);
		EXPECT_EQ(scope.count(), 0u);
	}
}
