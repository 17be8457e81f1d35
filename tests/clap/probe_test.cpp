// The instance seen through the chunk probe (chunk_probe.cpp): how a host
// block is cut at events, when activation rebuilds the effect, the ports, and
// the parameter list through clap.params.
#include "support/plugin_runner.h"

#include <gtest/gtest.h>

#include <clap/clap.h>

#include <cstring>
#include <functional>

using namespace lumbrel::host;

namespace {

using Runs = std::vector<std::pair<int, int>>;
constexpr clap_id latencyId = 0x06A04C69; // CRC-32 of "engineConfig\0latencyMs\0"
constexpr clap_id channelModeId = 0x9321A3CB; // "channelMode\0"

struct Probe : ::testing::Test {
	void SetUp() override {
		ASSERT_TRUE(bundle = lumbrel_test::loadBundle(LUMBREL_PROBE_PATH));
		instance = std::make_unique<Instance>(*bundle, "lumbrel.test.chunk-probe", host);
		ASSERT_TRUE(instance->valid() && instance->init());
	}
	// Runs one block of `frames` (in buffers of `room`) and returns the runs of
	// equal chunk length on output 0 as (start, length).
	Runs chunks(std::uint32_t frames, std::uint32_t room = 0) {
		room = std::max(room, frames + 1);
		std::vector<float> in(room, 0.0f), out0(room, -1.0f), out1(room, -1.0f);
		float *inputs[2] = {in.data(), in.data()}, *outputs[2] = {out0.data(), out1.data()};
		instance->process(inputs, 2, outputs, 2, frames, events, output);
		builds = out1[0];
		notes.clear();
		for (std::uint32_t i = 0; i < frames; ++i)
			if (out1[i] >= 1000) notes.emplace_back(int(i), int(out1[i]) - 1000);
		Runs runs;
		for (std::uint32_t i = 0; i < room && out0[i] != -1.0f; i += std::max(int(out0[i]), 1))
			runs.emplace_back(int(i), int(out0[i]));
		return runs;
	}
	double value(clap_id id) {
		double v = -999;
		EXPECT_TRUE(instance->paramValue(id, v));
		return v;
	}
	clap_param_info info(std::uint32_t index) {
		clap_param_info result{};
		EXPECT_TRUE(instance->paramInfo(index, result));
		return result;
	}

	Host host;
	std::unique_ptr<Bundle> bundle;
	std::unique_ptr<Instance> instance;
	InputEvents events;
	OutputEvents output;
	float builds = -1;
	Runs notes; // (sample, key) where a note started
};

} // namespace

TEST_F(Probe, BlocksAreCutAtParameterEventsOnly) {
	ASSERT_TRUE(instance->activate(48000, 1, 512));
	ASSERT_TRUE(instance->startProcessing());
	clap_event_note_expression expression{};
	expression.header = {sizeof(expression), 50, 0, CLAP_EVENT_NOTE_EXPRESSION, 0};
	struct Case {
		const char *what;
		std::function<void()> events;
		Runs runs;
	} cases[] = {
		{"no event", [] {}, {{0, 256}}},
		{"an event at 0 runs first", [&] { events.paramValue(0, 1234, 0.5); }, {{0, 256}}},
		{"an event at 100", [&] { events.paramValue(100, 1234, 0.5); }, {{0, 100}, {100, 156}}},
		{"two events at one time give no empty chunk",
			[&] { events.paramValue(100, 1234, 0.5), events.paramValue(100, 4321, 0.25), events.paramValue(200, 1234, 0.75); },
			{{0, 100}, {100, 100}, {200, 56}}},
		{"notes and MIDI pass without a cut",
			[&] {
				events.note(10, CLAP_EVENT_NOTE_ON, 60, 1.0), events.note(20, CLAP_EVENT_NOTE_OFF, 60, 0.0);
				events.note(30, CLAP_EVENT_NOTE_CHOKE, 60, 0.0), events.midi(40, 0x90, 60, 100);
			},
			{{0, 256}}},
		{"another space's event cuts, then is ignored", [&] { events.paramValue(64, 1234, 0.5, nullptr, 7); },
			{{0, 64}, {64, 192}}},
		{"an expression passes, a gesture cuts", [&] { events.add(expression.header), events.paramGesture(80, 1234, true); },
			{{0, 80}, {80, 176}}},
		// Not clamped to the block: the host's word is taken.
		{"an event past the block stretches the chunk", [&] { events.paramValue(300, 1234, 0.5); }, {{0, 300}}},
	};
	for (const auto &c : cases) {
		events.clear();
		c.events();
		EXPECT_EQ(chunks(256, 300), c.runs) << c.what;
	}
	events.paramValue(0, 1234, 0.5);
	EXPECT_TRUE(chunks(0).empty()) << "a block of no frames processes nothing";

	// Notes start at their own sample, counted from the chunk they fall in.
	events.clear();
	events.note(30, CLAP_EVENT_NOTE_ON, 60, 1.0), events.paramValue(100, 1234, 0.5), events.note(150, CLAP_EVENT_NOTE_ON, 62, 1.0);
	events.paramValue(200, 1234, 0.5), events.midi(220, 0x90, 64, 100);
	chunks(256);
	EXPECT_EQ(notes, (Runs{{30, 60}, {150, 62}, {220, 64}}));
}

TEST_F(Probe, ActivationRebuildsOnEqualOrLargerBlocksAndNewRates) {
	EXPECT_EQ(instance->latency(), 0u) << "no effect before the first activation";
	instance->reset(); // does nothing before activation
	const struct {
		double rate;
		std::uint32_t maxFrames;
		float builds;
	} steps[] = {{48000, 256, 1}, {48000, 256, 2}, {48000, 128, 2}, {48000, 512, 3}, {44100, 64, 4}};
	for (const auto &step : steps) {
		ASSERT_TRUE(instance->activate(step.rate, 1, step.maxFrames));
		instance->reset();
		EXPECT_EQ(instance->latency(), 7u);
		chunks(16);
		EXPECT_EQ(builds, step.builds) << step.rate << " Hz, " << step.maxFrames << " frames";
	}
}

TEST_F(Probe, PortsAskedBeforeActivationConfigureTheEffect) {
	const auto *ports = instance->extension<clap_plugin_audio_ports>(CLAP_EXT_AUDIO_PORTS);
	ASSERT_NE(ports, nullptr);
	const clap_plugin *plugin = instance->clapPlugin();
	clap_audio_port_info in{}, out{}, none{};
	EXPECT_FALSE(ports->get(plugin, 0, true, &none)) << "nothing configured yet";
	EXPECT_TRUE(ports->count(plugin, true) == 1 && ports->count(plugin, false) == 1);
	ASSERT_TRUE(ports->get(plugin, 0, true, &in) && ports->get(plugin, 0, false, &out));
	EXPECT_FALSE(ports->get(plugin, 1, false, &none));
	EXPECT_TRUE(in.id == 0x1000000u && out.id == 0x2000000u && !std::strcmp(in.name, "main") && in.channel_count == 2
		&& in.flags == CLAP_AUDIO_PORT_IS_MAIN && !in.port_type && in.in_place_pair == CLAP_INVALID_ID);
}

TEST_F(Probe, ParametersAreListedInDeclarationOrderWithPathIdsAsPositionsOrSteps) {
	ASSERT_EQ(instance->paramCount(), 4u);
	const clap_param_info latency = info(0), time = info(1), mode = info(2), shift = info(3);
	EXPECT_TRUE(latency.id == latencyId && mode.id == channelModeId) << std::hex << latency.id << " " << mode.id;
	for (const auto &i : {latency, time, mode, shift})
		EXPECT_TRUE(std::string(i.module, sizeof(i.module)) == std::string(sizeof(i.module), '\0') && i.cookie) << i.name;
	EXPECT_EQ(std::string(latency.name) + time.name + mode.name + shift.name, "latencytimechannelsshift");
	// Ranged: the host sees positions, the default at the position of 0.5 on
	// range(0.05, 0.5, 2), its midpoint. Stepped: its own integers.
	EXPECT_TRUE(time.flags == CLAP_PARAM_IS_AUTOMATABLE && time.min_value == 0 && time.max_value == 1
		&& std::abs(time.default_value - 0.5) < 1e-12) << time.default_value;
	EXPECT_TRUE(mode.flags == (CLAP_PARAM_IS_AUTOMATABLE | CLAP_PARAM_IS_STEPPED) && mode.min_value == 0
		&& mode.max_value == 1 && mode.default_value == 1 && shift.min_value == -24 && shift.max_value == 24);
	clap_param_info none{};
	EXPECT_FALSE(instance->paramInfo(4, none));

	// Text both ways; a short buffer gets the first bytes, with no terminator.
	EXPECT_EQ(instance->paramText(channelModeId, 0) + instance->paramText(time.id, 0.5) + instance->paramText(latencyId, 0.5),
		"mono0.5 sec10ms");
	double v = -1;
	EXPECT_TRUE(instance->paramFromText(time.id, "2 sec", v) && std::abs(v - 1) < 1e-12) << v;
	const auto *params = instance->extension<clap_plugin_params>(CLAP_EXT_PARAMS);
	char text[16];
	std::memset(text, 'x', sizeof(text));
	ASSERT_TRUE(params->value_to_text(instance->clapPlugin(), time.id, 0.5, text, 4));
	EXPECT_EQ(std::string(text, 5), "0.5 x");
	// Unknown ids, and numbers beyond a double, are refused without a throw.
	EXPECT_FALSE(params->value_to_text(instance->clapPlugin(), 0xDEAD, 0.5, text, sizeof(text))
		|| instance->paramFromText(0xDEAD, "1", v) || instance->paramFromText(time.id, "1e999 sec", v)
		|| instance->paramFromText(shift.id, "99999999999999 st", v));
}

TEST_F(Probe, ValueEventsAreStoredUnclampedAndCookiesHonouredOnlyForTheirId) {
	ASSERT_TRUE(instance->activate(48000, 1, 256));
	const clap_param_info time = info(1), mode = info(2), shift = info(3);
	const auto send = [&](clap_id id, double v, void *cookie = nullptr) {
		events.clear();
		events.paramValue(0, id, v, cookie);
		chunks(16);
	};
	// Beyond the range the curve is taken as it stands: position 1.5 is past
	// its pole (at 1/0.7) and maps to 0.875 / -0.05.
	send(time.id, 1.5);
	EXPECT_EQ(instance->paramText(time.id, value(time.id)), "-17.5 sec") << value(time.id);
	// Stepped values round halves away from zero; out of range is kept.
	for (const auto &[sent, kept] : {std::pair{1.5, 2.0}, {2.5, 3.0}, {-0.5, -1.0}, {40.0, 40.0}}) {
		send(shift.id, sent);
		EXPECT_EQ(value(shift.id), kept) << sent;
	}
	send(channelModeId, 0, mode.cookie);
	EXPECT_EQ(value(channelModeId), 0.0);
	send(channelModeId, 1, info(0).cookie); // another parameter's cookie: dropped
	send(0xDEAD, 1); // unknown id: nothing
	EXPECT_EQ(value(channelModeId), 0.0);
	// A flush applies events without audio, and host values are not echoed.
	events.clear();
	events.paramValue(0, channelModeId, 1);
	instance->paramsFlush(events, output);
	EXPECT_TRUE(value(channelModeId) == 1.0 && output.pushed.empty());
}
