// The units of lumbrel-render and its host library: key paths read from saved
// states, parameters found by the names people type and set by text against
// the built bundle, and --automate taken apart into value events.
#include "host/bundle.h"
#include "host/host.h"
#include "host/instance.h"
#include "host/key_paths.h"
#include "render/automation.h"
#include "render/param_table.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using namespace lumbrel;
using namespace lumbrel::render;

// A state shaped as the plug-ins save one: a leaf between two groups, a group
// in a group, and a group field (desc) that is a map holding a value, which is
// still no parameter.
const std::string sampleState = "\xBF\x64name\x61T\x64" "desc\xA1\x65value\x61x"
	"\x6C" "engineConfig\xA2\x64name\x66" "Engine\x69latencyMs\xA1\x65value\x0A"
	"\x6B" "channelMode\xA1\x65value\x01"
	"\x65swell\xA3\x64name\x65Swell\x64time\xA1\x65value\x02"
	"\x65inner\xA2\x64name\x60\x64" "deep\xA1\x65value\x01\xFF";

TEST(KeyPaths, ParametersOfASavedStateInOrderWithTheirGroupsAndIdsAndWhatACutStateHolds) {
	const auto bytes = reinterpret_cast<const std::uint8_t *>(sampleState.data());
	const auto paths = host::stateKeyPaths(bytes, sampleState.size());
	std::vector<std::string> dotted;
	for (const auto &path : paths) {
		std::string groups;
		for (const auto &name : path.groupNames) groups += name + "/";
		dotted.push_back(path.dotted() + " in " + groups);
		EXPECT_EQ(path.id, host::keyPathId(path.keys)) << path.dotted();
	}
	EXPECT_EQ(dotted, (std::vector<std::string>{"engineConfig.latencyMs in Engine/", "channelMode in ",
						  "swell.time in Swell/", "swell.inner.deep in Swell//"}));
	ASSERT_FALSE(paths.empty());
	EXPECT_EQ(paths[0].id, 0x06A04C69u) << "the CRC-32 of the keys, each with a zero byte";
	// Cut anywhere: the paths read before the cut, never fewer for a longer cut.
	std::size_t read = 0;
	for (std::size_t cut = 0; cut < sampleState.size(); ++cut) {
		const auto part = host::stateKeyPaths(bytes, cut);
		ASSERT_TRUE(part.size() >= read && part.size() <= paths.size()) << cut;
		for (std::size_t i = 0; i < part.size(); ++i) EXPECT_EQ(part[i].dotted(), paths[i].dotted()) << cut;
		read = part.size();
	}
	EXPECT_EQ(read, paths.size());
	const unsigned char notAMap[] = {0x83, 0x01, 0x02, 0x03},
						lyingCount[] = {0xBB, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x61, 'a'};
	EXPECT_TRUE(host::stateKeyPaths(notAMap, sizeof notAMap).empty() && host::stateKeyPaths(nullptr, 0).empty()
		&& host::stateKeyPaths(lyingCount, sizeof lyingCount).empty());
}

struct ParamTable : ::testing::Test {
	std::unique_ptr<host::Bundle> bundle = host::Bundle::load(LUMBREL_BUNDLE_PATH, error);
	std::string error;
	host::Host host;
	std::unique_ptr<host::Instance> instance;
	std::unique_ptr<render::ParamTable> table;

	void open(const std::string &id) {
		ASSERT_TRUE(bundle) << error;
		instance = std::make_unique<host::Instance>(*bundle, ("varkesh.lumbrel." + id).c_str(), host);
		ASSERT_TRUE(instance->valid() && instance->init());
		table = std::make_unique<render::ParamTable>(*instance);
	}
	const render::ParamEntry *find(const std::string &name) { return table->find(name, error); }
	// The plug-in's own text for what `text` was read as, or "error: " and the one-line error.
	std::string read(const std::string &name, const std::string &text) {
		double value = 0;
		const render::ParamEntry *entry = find(name);
		if (entry && table->readValue(*entry, text, value, error)) return table->text(*entry, value);
		EXPECT_EQ(error.find('\n'), std::string::npos) << error;
		return "error: " + error;
	}
};

TEST_F(ParamTable, EveryParameterGetsTheKeyPathWhoseCrcIsItsIdAndIsFoundByAnyOfItsNames) {
	open("swell");
	std::vector<std::string> paths;
	for (const auto &entry : table->entries()) {
		paths.push_back(entry.keyPath + " in " + entry.groupNames);
		std::vector<std::string> keys;
		for (std::size_t from = 0, dot = 0; dot != std::string::npos; from = dot + 1) {
			dot = entry.keyPath.find('.', from);
			keys.push_back(entry.keyPath.substr(from, dot - from));
		}
		EXPECT_EQ(host::keyPathId(keys), entry.info.id) << entry.keyPath;
	}
	EXPECT_EQ(paths, (std::vector<std::string>{"engineConfig.latencyMs in Engine", "engineConfig.overlap in Engine",
						 "engineConfig.resolution in Engine", "engineConfig.iterationsLog2 in Engine",
						 "engineConfig.directCopy in Engine", "swell.time in Swell", "swell.sweep in Swell",
						 "swell.focus in Swell", "swell.autoGain in Swell"}));
	for (const char *name : {"time", "TIME", "Swell.Time"}) EXPECT_EQ(find(name), find("swell.time")) << name;
	for (const char *name : {"auto-gain", "autogain"}) EXPECT_EQ(find(name), find("swell.autoGain")) << name;
	EXPECT_EQ(find("latency"), find("engineConfig.latencyMs"));
	EXPECT_EQ(table->rangeText(*find("latency")), "2ms to 15ms");
}

TEST_F(ParamTable, ValuesAreReadInTheUnitOrAsLabelsAndUnknownOrSharedNamesSayWhatToType) {
	struct Case {
		const char *plugin, *name, *text, *read; // what the plug-in shows, or words of the error
	} cases[] = {
		{"decay-scale", "latency", " 5 ms ", "5ms"},
		{"decay-scale", "latency", "5", "5ms"}, // a bare number is in the parameter's unit
		{"decay-scale", "latency", "+5.5ms", "5.5ms"},
		{"decay-scale", "latency", "5,5ms", "5.5ms"}, // the plug-in alone would stop at the comma
		{"decay-scale", "latency", "0.005 s", "5ms"}, // another size of the same unit is converted
		{"decay-scale", "decay.rt20", "2.5sec", "2.5sec"},
		{"decay-scale", "latency", "5 Hz", "error: \"ms\""}, // the wrong unit names the right one
		{"decay-scale", "latency", "fast", "error: give a number"},
		{"decay-scale", "latency", "20ms", "error: outside the range"},
		{"decay-scale", "latency", "-1", "error: outside the range"},
		{"decay-scale", "decay.factor", "2x", "error: plain number"}, {"decay-scale", "iterations", "8", "8"},
		{"decay-scale", "direct", "ON", "on"},
		{"decay-scale", "iterations", "3", "error: 1, 2, 4, 8"}, // the plug-in would read it as the default
		{"decay-scale", "direct", "maybe", "error: off, on"},
		{"pitch-shifter-layer1", "semitones", "+7", "7"}, // only 0 has a label
		{"pitch-shifter-layer1", "semitones", "none", "none"},
		{"pitch-shifter-layer1", "semitones", "25", "error: -24 to 24"},
		{"pitch-shifter-layer1", "smoothing", "0", "error: peaksConfig.smoothing"},
		{"pitch-shifter-layer1", "smoothing", "0", "error: timbreConfig.smoothing"},
		{"swell", "tmie", "0", "error: swell.time"}, {"swell", "latencyMS.x", "0", "error: engineConfig.latencyMs"},
		{"swell", "engineConfig", "0", "error: no parameter"}, // a group
		{"swell", "zzzzzzzzzz", "0", "error: --list --plugin swell"},
	};
	for (const auto &c : cases) {
		open(c.plugin);
		const std::string read = this->read(c.name, c.text), expected = c.read;
		if (expected.rfind("error: ", 0) == 0) EXPECT_NE(read.find(expected.substr(7)), read.npos) << c.text << ": " << read;
		else EXPECT_EQ(read, expected) << c.name << " " << c.text;
	}
}

TEST(AutomationText, TimesInSecondsMillisecondsAndFramesAndMalformedTextIsAOneLineError) {
	AutomationText parsed;
	std::string error;
	ASSERT_TRUE(parseAutomation("swell.time=0:0.1sec,250ms:0.5 sec,1.5s:1sec,96000smp:2sec", 48000, parsed, error))
		<< error;
	EXPECT_EQ(parsed.key, "swell.time");
	EXPECT_EQ(parsed.points, (std::vector<std::pair<std::uint64_t, std::string>>{
								 {0, "0.1sec"}, {12000, "0.5 sec"}, {72000, "1sec"}, {96000, "2sec"}}));
	ASSERT_TRUE(parseAutomation("mix=1:0,1:1", 44100, parsed, error)) << "a jump: two points at one time";
	EXPECT_EQ(parsed.points[1].first, 44100u);

	for (const char *text : {"mix", "=0:1", "mix=", "mix=1", "mix=1:", "mix=abc:1", "mix=-1:0", "mix=1min:0",
			 "mix=0.5smp:1", "mix=2:0,1:1", "mix=0:0,"}) {
		error.clear();
		EXPECT_FALSE(parseAutomation(text, 48000, parsed, error)) << text;
		EXPECT_TRUE(!error.empty() && error.find('\n') == std::string::npos) << text;
	}
}

// The events as (frame, id, value), for comparing whole schedules.
std::vector<std::tuple<std::uint64_t, clap_id, double>> schedule(const std::vector<AutomationLane> &lanes,
	std::uint64_t frames) {
	std::vector<std::tuple<std::uint64_t, clap_id, double>> out;
	for (const auto &e : scheduleAutomation(lanes, frames)) out.emplace_back(e.frame, e.id, e.value);
	return out;
}

TEST(AutomationSchedule, RampsStepJumpsAndSteppedLanes) {
	// Held at 0 until frame 100 (no repeat), then a quarter per ramp step,
	// ending exactly on the point.
	const std::uint64_t s = rampStepFrames;
	EXPECT_EQ(schedule({{7, false, {{100, 0.0}, {100 + 4 * s, 1.0}}}}, 48000),
		(decltype(schedule({}, 0)){{0, 7, 0.0}, {100 + s, 7, 0.25}, {100 + 2 * s, 7, 0.5}, {100 + 3 * s, 7, 0.75},
			{100 + 4 * s, 7, 1.0}}));
	// A jump is one event at its frame.
	EXPECT_EQ(schedule({{1, false, {{1000, 0.2}, {1000, 0.8}}}}, 48000), (decltype(schedule({}, 0)){{0, 1, 0.2}, {1000, 1, 0.8}}));
	// Whole values only when they change: 0.5 is passed at frame 106.7, the
	// first step after it is 128; 2.5 at 533.3, and 576 follows.
	const auto stepped = schedule({{2, true, {{0, 0.0}, {640, 3.0}}}}, 48000);
	ASSERT_EQ(stepped.size(), 4u);
	EXPECT_EQ(stepped[1], std::make_tuple(std::uint64_t(128), clap_id(2), 1.0));
	EXPECT_EQ(stepped[3], std::make_tuple(std::uint64_t(576), clap_id(2), 3.0));
	// Lanes merge by frame, in their order at equal frames, and stop at the end.
	EXPECT_EQ(schedule({{1, false, {{0, 0.0}, {300, 1.0}}}, {2, false, {{0, 5.0}, {64, 6.0}}}}, 150),
		(decltype(schedule({}, 0)){{0, 1, 0.0}, {0, 2, 5.0}, {s, 1, s / 300.0}, {s, 2, 6.0}, {2 * s, 1, 2 * s / 300.0}}));
}

} // namespace
