// The frame's bookkeeping around an effect wrapper: parameters, configuration, fades, meters.
#include "frame/library_effect.h"
#include "frame/library_effect_base.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// One group holding a ranged and a stepped parameter; counts builds and
// blocks, and wants at least as many outputs as inputs.
template<class Base>
struct CountingQUORL : Base {
	struct Group {
		typename Base::ParamRange gain{0.5};
		typename Base::ParamStepped mode{1};
		template<class Storage>
		void state(Storage &storage) {
			storage.range("gain", gain).info("gain").range(0, 0.5, 1).unit("", 2);
			storage.stepped("mode", mode).info("mode").labelsFrom(0).label("a", "b");
		}
	};
	Group group;
	typename Base::ParamRange level{2.0};
	int builds = 0, resets = 0, blocks = 0;
	bool lastSpectrumDue = false;

	template<class Storage>
	void state(Storage &storage) {
		storage("group", group);
		storage.range("level", level).info("level").range(0, 2, 4).unit(" dB", 1);
	}
	void configureQUORL(quorl::LibraryConfig &config) {
		++builds;
		if (config.outputChannels < config.inputChannels) config.outputChannels = config.inputChannels;
	}
	void reset() { ++resets; }
	void processQUORL(const quorl::LibraryConfig &, const float *const *, float *const *, std::size_t, bool due) {
		++blocks;
		lastSpectrumDue = due;
	}
};

using Effect = quorl::LibraryEffect<float, CountingQUORL<quorl::LibraryEffectBase<float>>>;

void run(Effect &effect, std::size_t length) {
	std::vector<float> in(length), out(length);
	const float *inputs[2] = {in.data(), in.data()};
	float *outputs[2] = {out.data(), out.data()};
	effect.process(inputs, outputs, length);
}

} // namespace

TEST(LibraryEffect, CollectsEveryParameterAndAcceptsOnlyAConfigTheEffectKeeps) {
	Effect effect;
	EXPECT_EQ(effect.rangeParams, (std::vector<decltype(effect.rangeParams)::value_type>{&effect.bpm, &effect.group.gain, &effect.level}));
	EXPECT_EQ(effect.steppedParams, (std::vector<decltype(effect.steppedParams)::value_type>{&effect.group.mode}));
	EXPECT_EQ(effect.bpm.value, 120.0);

	EXPECT_TRUE(effect.configure()); // 2 in, 2 out
	EXPECT_TRUE(effect.builds == 1 && effect.resets == 1 && effect.firstBlock);
	EXPECT_TRUE(effect.configure()); // nothing changed, rebuilt all the same
	EXPECT_EQ(effect.builds, 2);
	// Outputs are proposed equal to inputs: 1 in, 2 out fails once, then holds.
	effect.config.inputChannels = 1;
	effect.config.outputChannels = 2;
	EXPECT_FALSE(effect.configure());
	EXPECT_EQ(effect.config.outputChannels, 1u);
	EXPECT_TRUE(effect.configure());
	// Aux ports are refused the same way.
	effect.config.auxInputs = {2};
	EXPECT_FALSE(effect.configure());
	EXPECT_TRUE(effect.config.auxInputs.empty());
	EXPECT_TRUE(effect.configure());
	EXPECT_TRUE(effect.inputOffsets.empty());
}

TEST(LibraryEffect, ParameterChangesRunA20msFade) {
	Effect effect;
	ASSERT_TRUE(effect.configure());
	run(effect, 256);
	EXPECT_EQ(effect.blockFade, 0.0) << "steady parameters keep the fade at rest";
	EXPECT_FALSE(effect.firstBlock);

	effect.level.value = 3.0;
	run(effect, 240);
	EXPECT_DOUBLE_EQ(effect.blockFade, 240 / (0.02 * 48000));
	EXPECT_TRUE(effect.level.from == 2.0 && effect.level.to == 3.0 && effect.level.current == 3.0);
	// During a fade `from` and `to` stand still, even when the value moves on.
	effect.level.value = 4.0;
	run(effect, 240);
	EXPECT_DOUBLE_EQ(effect.blockFade, 480 / (0.02 * 48000));
	EXPECT_EQ(effect.level.to, 3.0);
	run(effect, 480); // reaches 960 samples: the fade ends
	EXPECT_EQ(effect.blockFade, 0.0);
	// A block of 960 samples or more ends a fade at once.
	effect.group.mode.value = 0;
	run(effect, 960);
	EXPECT_EQ(effect.blockFade, 0.0);
	EXPECT_EQ(effect.group.mode.to, 0);
}

TEST(LibraryEffect, MeterRequestIsAnsweredAfterTheBlockAndTheControlWordRestored) {
	Effect effect;
	ASSERT_TRUE(effect.configure());
	run(effect, 64);
	EXPECT_FALSE(effect.lastSpectrumDue || effect.hasMeters.load());
	effect.wantsMeters = true;
#if defined(__x86_64__)
	const unsigned before = _mm_getcsr();
#endif
	run(effect, 64);
	EXPECT_TRUE(effect.lastSpectrumDue && effect.hasMeters.load() && !effect.wantsMeters.load());
#if defined(__x86_64__)
	EXPECT_EQ(_mm_getcsr(), before);
#endif
}
