// How the instance cuts a host block into chunks at events, and when
// activation rebuilds the effect. The chunk probe writes each chunk's length
// into every sample it produced, and the count of effect builds to output 1.
#include "host/bundle.h"
#include "host/events.h"
#include "host/host.h"
#include "host/instance.h"

#include <gtest/gtest.h>

#include <clap/clap.h>

#include <memory>
#include <utility>
#include <vector>

using namespace lumbrel::host;

namespace {

class ChunkProbe : public ::testing::Test {
protected:
	void SetUp() override {
		std::string error;
		bundle = Bundle::load(LUMBREL_PROBE_PATH, error);
		ASSERT_TRUE(bundle) << error;
		instance = std::make_unique<Instance>(*bundle, "lumbrel.test.chunk-probe", host);
		ASSERT_TRUE(instance->valid());
		ASSERT_TRUE(instance->init());
	}

	// Runs one block of `frames` and returns the runs of equal chunk length on
	// output 0 as (start, length) pairs.
	std::vector<std::pair<int, int>> chunks(std::uint32_t frames) {
		std::vector<float> in(frames + 1, 0.0f), out0(frames + 1, -1.0f), out1(frames + 1, -1.0f);
		float *inputs[2] = {in.data(), in.data()};
		float *outputs[2] = {out0.data(), out1.data()};
		instance->process(inputs, 2, outputs, 2, frames, events, output);
		lastBuilds = frames ? out1[0] : -1;
		std::vector<std::pair<int, int>> runs;
		for (std::uint32_t i = 0; i < frames;) {
			const int length = int(out0[i]);
			runs.emplace_back(int(i), length);
			i += length > 0 ? length : 1;
		}
		untouched = out0[frames] == -1.0f;
		return runs;
	}

	using Runs = std::vector<std::pair<int, int>>;
	Host host;
	std::unique_ptr<Bundle> bundle;
	std::unique_ptr<Instance> instance;
	InputEvents events;
	OutputEvents output;
	float lastBuilds = -1;
	bool untouched = true;
};

} // namespace

TEST_F(ChunkProbe, CutsAtParameterEventsOnly) {
	ASSERT_TRUE(instance->activate(48000, 1, 256));
	ASSERT_TRUE(instance->startProcessing());

	EXPECT_EQ(chunks(256), (Runs{{0, 256}}));

	// An event at time 0 runs first, then one chunk from 0.
	events.paramValue(0, 1234, 0.5);
	EXPECT_EQ(chunks(256), (Runs{{0, 256}}));

	events.clear();
	events.paramValue(100, 1234, 0.5);
	EXPECT_EQ(chunks(256), (Runs{{0, 100}, {100, 156}}));

	// Two events at one time give no empty chunk.
	events.clear();
	events.paramValue(100, 1234, 0.5);
	events.paramValue(100, 4321, 0.25);
	events.paramValue(200, 1234, 0.75);
	EXPECT_EQ(chunks(256), (Runs{{0, 100}, {100, 100}, {200, 56}}));

	// Note events and MIDI pass without splitting.
	events.clear();
	events.note(10, CLAP_EVENT_NOTE_ON, 60, 1.0);
	events.note(20, CLAP_EVENT_NOTE_OFF, 60, 0.0);
	events.note(30, CLAP_EVENT_NOTE_CHOKE, 60, 0.0);
	events.midi(40, 0x90, 60, 100);
	EXPECT_EQ(chunks(256), (Runs{{0, 256}}));

	// An event of another space splits the block and is then ignored.
	events.clear();
	events.paramValue(64, 1234, 0.5, nullptr, 7);
	EXPECT_EQ(chunks(256), (Runs{{0, 64}, {64, 192}}));

	// A note-expression is passed over too; a gesture splits (and is printed).
	events.clear();
	clap_event_note_expression expression{};
	expression.header = {sizeof(expression), 50, 0, CLAP_EVENT_NOTE_EXPRESSION, 0};
	events.add(expression.header);
	events.paramGesture(80, 1234, true);
	EXPECT_EQ(chunks(256), (Runs{{0, 80}, {80, 176}}));
}

TEST_F(ChunkProbe, ZeroFrameBlocksProcessNothing) {
	ASSERT_TRUE(instance->activate(48000, 1, 256));
	events.paramValue(0, 1234, 0.5);
	EXPECT_TRUE(chunks(0).empty());
	EXPECT_TRUE(untouched);
}

TEST_F(ChunkProbe, EventTimesPastTheBlockAreNotClamped) {
	ASSERT_TRUE(instance->activate(48000, 1, 512));
	// The event at 300 of a 256-frame block stretches the one chunk to 300.
	events.paramValue(300, 1234, 0.5);
	std::vector<float> in(300, 0.0f), out0(300, -1.0f), out1(300, -1.0f);
	float *inputs[2] = {in.data(), in.data()};
	float *outputs[2] = {out0.data(), out1.data()};
	instance->process(inputs, 2, outputs, 2, 256, events, output);
	EXPECT_EQ(out0[0], 300.0f);
	EXPECT_EQ(out0[299], 300.0f);
}

TEST_F(ChunkProbe, ActivationRebuildsOnEqualOrLargerBlocksAndNewRates) {
	EXPECT_EQ(instance->latency(), 0u) << "no effect before the first activation";
	ASSERT_TRUE(instance->activate(48000, 1, 256));
	EXPECT_EQ(instance->latency(), 7u);
	chunks(16);
	EXPECT_EQ(lastBuilds, 1.0f);

	ASSERT_TRUE(instance->activate(48000, 1, 256)); // same size: rebuilds
	chunks(16);
	EXPECT_EQ(lastBuilds, 2.0f);

	ASSERT_TRUE(instance->activate(48000, 1, 128)); // smaller: keeps the effect
	chunks(16);
	EXPECT_EQ(lastBuilds, 2.0f);

	ASSERT_TRUE(instance->activate(48000, 1, 512)); // larger: rebuilds
	chunks(16);
	EXPECT_EQ(lastBuilds, 3.0f);

	ASSERT_TRUE(instance->activate(44100, 1, 64)); // new rate: rebuilds
	chunks(16);
	EXPECT_EQ(lastBuilds, 4.0f);
}

TEST_F(ChunkProbe, ResetBeforeActivationDoesNothing) {
	instance->reset();
	ASSERT_TRUE(instance->activate(48000, 1, 256));
	instance->reset();
	chunks(16);
	EXPECT_EQ(lastBuilds, 1.0f);
}

TEST_F(ChunkProbe, PortsBeforeActivationConfigureTheEffect) {
	const auto *ports = instance->extension<clap_plugin_audio_ports>(CLAP_EXT_AUDIO_PORTS);
	ASSERT_NE(ports, nullptr);
	clap_audio_port_info info{};
	const auto *plugin = instance->clapPlugin();
	EXPECT_FALSE(ports->get(plugin, 0, true, &info)) << "nothing configured yet";
	EXPECT_EQ(ports->count(plugin, true), 1u);
	EXPECT_EQ(ports->count(plugin, false), 1u);
	ASSERT_TRUE(ports->get(plugin, 0, true, &info));
	EXPECT_EQ(info.id, 0x1000000u);
	EXPECT_STREQ(info.name, "main");
	EXPECT_EQ(info.channel_count, 2u);
	EXPECT_EQ(info.flags, CLAP_AUDIO_PORT_IS_MAIN);
	EXPECT_EQ(info.port_type, nullptr);
	EXPECT_EQ(info.in_place_pair, CLAP_INVALID_ID);
	ASSERT_TRUE(ports->get(plugin, 0, false, &info));
	EXPECT_EQ(info.id, 0x2000000u);
	EXPECT_FALSE(ports->get(plugin, 1, false, &info));
}
