// What a CLAP host relies on: on all ten plug-ins the entry, states and texts; through the chunk probe,
// block cutting, rebuilds on activation, ports and the parameter list.
#include "support/plugin_runner.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <functional>
#include <random>
#include <set>

using namespace lumbrel::host;

namespace {

std::vector<clap_param_info> infos(const Instance &instance) {
	std::vector<clap_param_info> list(instance.paramCount());
	for (std::uint32_t i = 0; i < list.size(); ++i) EXPECT_TRUE(instance.paramInfo(i, list[i]));
	return list;
}

using Runs = std::vector<std::pair<int, int>>;
constexpr clap_id latencyId = 0x06A04C69; // CRC-32 of "engineConfig\0latencyMs\0"
constexpr clap_id channelModeId = 0x9321A3CB; // "channelMode\0"

struct Probe : ::testing::Test {
	void SetUp() override {
		ASSERT_TRUE(bundle = lumbrel_test::loadBundle(LUMBREL_PROBE_PATH));
		instance = std::make_unique<Instance>(*bundle, "lumbrel.test.chunk-probe", host);
		ASSERT_TRUE(instance->valid() && instance->init());
	}
	// One block of `frames` (buffers of `room`): the runs of equal chunk length on output 0 as (start, length).
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
	double value(clap_id id) { double v = -999; return instance->paramValue(id, v) ? v : -999; }
	clap_param_info info(std::uint32_t index) { return infos(*instance).at(index); }
	Host host;
	std::unique_ptr<Bundle> bundle;
	std::unique_ptr<Instance> instance;
	InputEvents events;
	OutputEvents output;
	float builds = -1;
	Runs notes; // (sample, key) where a note started
};

struct HostContract : ::testing::Test { std::unique_ptr<Bundle> bundle = lumbrel_test::bundle(); };

} // namespace

TEST_F(HostContract, TenPlugInsByIdTheirStatesAndTextsReadBackAndWhatIsNotTheirsIsRefused) {
	const auto is127 = [](const clap_version &v) { return v.major == 1 && v.minor == 2 && v.revision == 7; };
	EXPECT_TRUE(is127(bundle->entry().clap_version));
	for (const char *id : {"clap.plugin-factory2", "clap.plugin-factor", ""}) EXPECT_FALSE(bundle->entry().get_factory(id)) << id;
	ASSERT_EQ(bundle->count(), 10u);
	EXPECT_EQ(bundle->descriptor(10), nullptr);
	// A repeated init, with or without a deinit between, keeps the list as it is.
	EXPECT_TRUE(bundle->entry().init(bundle->path().c_str()));
	bundle->entry().deinit();
	EXPECT_TRUE(bundle->entry().init(bundle->path().c_str()));
	ASSERT_EQ(bundle->count(), 10u);
	Host host;
	for (const char *id : {"varkesh.lumbrel.octave", ""}) EXPECT_FALSE(Instance(*bundle, id, host).valid()) << id;
	std::set<std::string> ids;
	std::vector<std::uint8_t> previous; // the last plug-in's state: a foreign one
	for (std::uint32_t p = 0; p < bundle->count(); ++p) {
		const clap_plugin_descriptor *d = bundle->descriptor(p);
		SCOPED_TRACE(d->id);
		EXPECT_TRUE(is127(d->clap_version) && ids.insert(d->id).second && !std::strncmp(d->id, "varkesh.lumbrel.", 16)
			&& !std::strncmp(d->name, "Lumbrel", 7) && d->vendor && d->url && d->manual_url && d->support_url
			&& d->version && d->description && !std::strcmp(d->features[0], CLAP_PLUGIN_FEATURE_AUDIO_EFFECT));
		Host recording;
		Instance edited(*bundle, d->id, host), fresh(*bundle, d->id, recording);
		ASSERT_TRUE(edited.valid() && edited.init() && fresh.init());
		const clap_plugin *plugin = edited.clapPlugin();
		EXPECT_TRUE(plugin->desc == d && !plugin->get_extension(plugin, "clap.audio-ports.x")
			&& plugin->get_extension(plugin, CLAP_EXT_AUDIO_PORTS));
		InputEvents edits; // every parameter away from its default, through the host's flush
		OutputEvents none;
		for (const auto &i : infos(edited)) edits.paramValue(0, i.id, i.default_value == i.max_value ? i.min_value : i.max_value);
		edited.paramsFlush(edits, none);
		std::vector<std::uint8_t> saved, again;
		ASSERT_TRUE(edited.saveState(saved) && fresh.loadState(saved) && fresh.saveState(again));
		EXPECT_EQ(recording.rescanCalls.load(), 1) << "one rescan per load";
		EXPECT_EQ(recording.lastRescanFlags.load(), std::uint32_t(CLAP_PARAM_RESCAN_VALUES));
		EXPECT_EQ(again, saved);
		// Bytes that are no saved state of this plug-in: false, no change, no rescan. A partial map loads.
		std::mt19937 random(p);
		std::vector<std::uint8_t> noise(200);
		for (auto &b : noise) b = std::uint8_t(random() & 0x7F); // never a map head
		for (const auto &bad : {std::vector<std::uint8_t>{}, std::vector<std::uint8_t>{0x01}, noise, previous})
			EXPECT_FALSE(fresh.loadState(bad)) << bad.size() << " bytes";
		EXPECT_EQ(recording.rescanCalls.load(), 1);
		ASSERT_TRUE(fresh.saveState(again));
		EXPECT_EQ(again, saved) << "refused blobs change nothing";
		EXPECT_TRUE(fresh.loadState(std::vector<std::uint8_t>(saved.begin(), saved.begin() + saved.size() / 2)));
		EXPECT_EQ(recording.rescanCalls.load(), 2);
		previous = saved;
		std::set<std::string> listed;
		for (const auto &info : infos(edited)) {
			const std::string where = std::string(info.module) + "/" + info.name;
			SCOPED_TRACE(where);
			EXPECT_TRUE(listed.insert(where).second) << "module and name tell parameters apart";
			double a = 0, b = 1;
			EXPECT_TRUE(edited.paramValue(info.id, a) && fresh.paramValue(info.id, b) && a == b) << "loaded";
			// Every value's text reads back, also typed in any case, with or without a blank before the unit.
			const bool stepped = info.flags & CLAP_PARAM_IS_STEPPED;
			for (int k = -1; k <= 16; ++k) {
				double v = k < 0 ? info.default_value : info.min_value + (info.max_value - info.min_value) * k / 16.0;
				if (stepped) v = std::round(v);
				const std::string text = edited.paramText(info.id, v);
				double back = -1;
				ASSERT_TRUE(edited.paramFromText(info.id, text, back)) << text;
				EXPECT_TRUE(edited.paramText(info.id, back) == text && (!stepped || back == v)) << text;
				const std::size_t split = text.find_last_of("0123456789") + 1;
				std::string upper = text, number = text.substr(0, split), unit = text.substr(split);
				for (auto &c : upper) c = char(std::toupper(static_cast<unsigned char>(c)));
				for (const std::string &typed : {upper, number, number + " " + unit, " " + number + unit + " "}) {
					if (split == 0 && typed != upper) continue; // a label
					double read = -1;
					ASSERT_TRUE(edited.paramFromText(info.id, typed, read)) << '"' << typed << '"';
					EXPECT_EQ(edited.paramText(info.id, read), text) << '"' << typed << '"';
				}
			}
			// Nothing else reads, a refusal leaves the value alone, and results lie within the range.
			for (const char *bad : {"", "garbage", "1 furlong", "nan", "inf", "--3", "1 2"}) {
				double untouched = 12345;
				EXPECT_TRUE(!edited.paramFromText(info.id, bad, untouched) && untouched == 12345) << '"' << bad << '"';
			}
			double high = 0, low = 0;
			EXPECT_TRUE(edited.paramFromText(info.id, "1e9", high) && edited.paramFromText(info.id, "-1e9", low));
			EXPECT_TRUE(high == info.max_value && low == info.min_value) << low << " " << high;
		}
	}
}

TEST_F(HostContract, GroupsAreModulesAndAHostWithoutAWebViewIsOfferedItsOwnWindow) {
	Host host, bare;
	Instance shifter(*bundle, "varkesh.lumbrel.pitch-shifter-layer1", host);
	ASSERT_TRUE(shifter.init());
	std::set<std::string> modules;
	for (const auto &info : infos(shifter)) modules.insert(info.module);
	EXPECT_EQ(modules, (std::set<std::string>{"", "Engine", "Spectral peaks", "Output gains", "Transpose", "Timbre"}));
	// (Which hosts may create which editor: tests/webview.)
	bare.offerTimers = bare.offerFds = bare.offerWebview = false;
	Instance scanned(*bundle, "varkesh.lumbrel.swell", bare);
	ASSERT_TRUE(scanned.init());
	const auto *gui = scanned.extension<clap_plugin_gui>(CLAP_EXT_GUI);
	const char *api = nullptr;
	bool floating = true;
	ASSERT_TRUE(gui && gui->get_preferred_api(scanned.clapPlugin(), &api, &floating));
	EXPECT_TRUE(!std::strcmp(api, CLAP_WINDOW_API_X11) && !floating) << api;
}

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
		{"notes and MIDI pass without a cut", [&] {
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
	// (rate, largest block, builds so far)
	for (const auto &[rate, frames, built] : {std::tuple{48000.0, 256u, 1.0f}, {48000.0, 256u, 2.0f}, {48000.0, 128u, 2.0f},
			 {48000.0, 512u, 3.0f}, {44100.0, 64u, 4.0f}}) {
		ASSERT_TRUE(instance->activate(rate, 1, frames));
		instance->reset();
		chunks(16);
		EXPECT_TRUE(instance->latency() == 7 && builds == built) << rate << " Hz, " << frames << " frames: " << builds;
	}
}

TEST_F(Probe, PortsAskedBeforeActivationAndParametersInDeclarationOrderWithPathIdsAsPositionsOrSteps) {
	const auto *ports = instance->extension<clap_plugin_audio_ports>(CLAP_EXT_AUDIO_PORTS);
	const clap_plugin *plugin = instance->clapPlugin();
	clap_audio_port_info in{}, out{}, none{};
	ASSERT_TRUE(ports && !ports->get(plugin, 0, true, &none)) << "nothing configured yet";
	EXPECT_TRUE(ports->count(plugin, true) == 1 && ports->count(plugin, false) == 1);
	ASSERT_TRUE(ports->get(plugin, 0, true, &in) && ports->get(plugin, 0, false, &out));
	EXPECT_FALSE(ports->get(plugin, 1, false, &none));
	EXPECT_TRUE(in.id == 0x1000000u && out.id == 0x2000000u && !std::strcmp(in.name, "main") && in.channel_count == 2
		&& in.flags == CLAP_AUDIO_PORT_IS_MAIN && !in.port_type && in.in_place_pair == CLAP_INVALID_ID);
	ASSERT_EQ(instance->paramCount(), 4u);
	const clap_param_info latency = info(0), time = info(1), mode = info(2), shift = info(3);
	EXPECT_TRUE(latency.id == latencyId && mode.id == channelModeId) << std::hex << latency.id << " " << mode.id;
	for (const auto &i : {latency, time, mode, shift})
		EXPECT_TRUE(std::string(i.module, sizeof(i.module)) == std::string(sizeof(i.module), '\0') && i.cookie) << i.name;
	EXPECT_EQ(std::string(latency.name) + time.name + mode.name + shift.name, "latencytimechannelsshift");
	// Ranged: positions, the default at 0.5 on range(0.05, 0.5, 2); stepped: its own integers.
	EXPECT_TRUE(time.flags == CLAP_PARAM_IS_AUTOMATABLE && time.min_value == 0 && time.max_value == 1
		&& std::abs(time.default_value - 0.5) < 1e-12) << time.default_value;
	EXPECT_TRUE(mode.flags == (CLAP_PARAM_IS_AUTOMATABLE | CLAP_PARAM_IS_STEPPED) && mode.min_value == 0
		&& mode.max_value == 1 && mode.default_value == 1 && shift.min_value == -24 && shift.max_value == 24);
	clap_param_info past{};
	EXPECT_FALSE(instance->paramInfo(4, past));
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
		events.clear(), events.paramValue(0, id, v, cookie), chunks(16);
	};
	// Beyond the range the curve stands: position 1.5 is past its pole (at 1/0.7), 0.875 / -0.05.
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
