// Parameters named by key path and set by text, against the built bundle:
// key paths from the saved state, lookup by the names a person types, and
// values read in the parameter's unit or as its labels.
#include "host/key_paths.h"
#include "render/param_table.h"

#include "host/bundle.h"
#include "host/host.h"
#include "host/instance.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using namespace lumbrel;

struct ParamTable : ::testing::Test {
	std::unique_ptr<host::Bundle> bundle;
	host::Host host;
	std::unique_ptr<host::Instance> instance;
	std::unique_ptr<render::ParamTable> table;

	void open(const char *id) {
		std::string error;
		if (!bundle) bundle = host::Bundle::load(LUMBREL_BUNDLE_PATH, error);
		ASSERT_TRUE(bundle) << error;
		instance = std::make_unique<host::Instance>(*bundle, id, host);
		ASSERT_TRUE(instance->valid() && instance->init());
		table = std::make_unique<render::ParamTable>(*instance);
	}
	const render::ParamEntry *find(const std::string &name) {
		std::string error;
		const render::ParamEntry *entry = table->find(name, error);
		EXPECT_TRUE(entry) << error;
		return entry;
	}
	// The plug-in's own text for what `text` was read as, or the error.
	std::string read(const std::string &name, const std::string &text) {
		const render::ParamEntry *entry = find(name);
		double value = 0;
		std::string error;
		if (!entry) return "(no " + name + ")";
		if (!table->readValue(*entry, text, value, error)) {
			EXPECT_EQ(error.find('\n'), std::string::npos) << error;
			return "error: " + error;
		}
		return table->text(*entry, value);
	}
	std::string notFound(const std::string &name) {
		std::string error;
		EXPECT_FALSE(table->find(name, error)) << name;
		return error;
	}
};

TEST_F(ParamTable, EveryParameterGetsTheKeyPathWhoseCrcIsItsIdAndIsFoundByAnyOfItsNames) {
	open("varkesh.lumbrel.swell");
	std::vector<std::string> paths;
	for (const auto &entry : table->entries()) {
		paths.push_back(entry.keyPath);
		std::vector<std::string> keys;
		for (std::size_t from = 0, dot = 0; dot != std::string::npos; from = dot + 1) {
			dot = entry.keyPath.find('.', from);
			keys.push_back(entry.keyPath.substr(from, dot - from));
		}
		EXPECT_EQ(host::keyPathId(keys), entry.info.id) << entry.keyPath;
	}
	EXPECT_EQ(paths, (std::vector<std::string>{"engineConfig.latencyMs", "engineConfig.overlap", "engineConfig.resolution",
						 "engineConfig.iterationsLog2", "engineConfig.directCopy", "swell.time", "swell.sweep",
						 "swell.focus", "swell.autoGain"}));
	EXPECT_EQ(find("swell.time")->groupNames, "Swell");
	EXPECT_EQ(find("engineConfig.latencyMs")->groupNames, "Engine");
	for (const char *name : {"time", "TIME", "Swell.Time"}) EXPECT_EQ(find(name), find("swell.time")) << name;
	for (const char *name : {"auto-gain", "autogain"}) EXPECT_EQ(find(name), find("swell.autoGain")) << name;
	EXPECT_EQ(find("latency"), find("engineConfig.latencyMs"));

	// Unknown names list close matches, or say where the names are; a group
	// is no parameter.
	for (const auto &[name, words] : std::vector<std::pair<std::string, std::string>>{{"tmie", "no parameter \"tmie\""},
			 {"tmie", "swell.time"}, {"latencyMS.x", "engineConfig.latencyMs"}, {"engineConfig", "no parameter"},
			 {"zzzzzzzzzz", "--list --plugin swell"}})
		EXPECT_NE(notFound(name).find(words), std::string::npos) << name;
}

TEST_F(ParamTable, RangedValuesAreNumbersInTheUnitAndSteppedOnesTheirLabels) {
	open("varkesh.lumbrel.decay-scale");
	struct Case {
		const char *name, *text, *read; // what the plug-in shows, or words of the error
	} cases[] = {
		{"latency", " 5 ms ", "5ms"},
		{"latency", "5", "5ms"}, // a bare number is in the parameter's unit
		{"latency", "+5.5ms", "5.5ms"},
		{"latency", "5,5ms", "5.5ms"}, // the plug-in alone would stop at the comma
		{"latency", "0.005 s", "5ms"}, // another size of the same unit is converted
		{"decay.rt20", "2.5sec", "2.5sec"},
		{"latency", "5 Hz", "error: \"ms\""}, // the wrong unit names the right one
		{"latency", "fast", "error: give a number"},
		{"latency", "20ms", "error: outside the range"},
		{"latency", "-1", "error: outside the range"},
		{"decay.factor", "2x", "error: plain number"},
		{"iterations", "8", "8"},
		{"direct", "ON", "on"},
		{"iterations", "3", "error: 1, 2, 4, 8"}, // no label; the plug-in would read it as the default
		{"direct", "maybe", "error: off, on"},
	};
	for (const auto &c : cases) {
		const std::string read = this->read(c.name, c.text), expected = c.read;
		if (expected.rfind("error: ", 0) == 0) EXPECT_NE(read.find(expected.substr(7)), read.npos) << c.text << ": " << read;
		else EXPECT_EQ(read, expected) << c.text;
	}
	EXPECT_EQ(table->rangeText(*find("direct")), "off, on");
	EXPECT_EQ(table->rangeText(*find("latency")), "2ms to 15ms");
}

TEST_F(ParamTable, ANameSharedByTwoParametersAsksForTheKeyPath) {
	open("varkesh.lumbrel.pitch-shifter-layer1");
	const std::string error = notFound("smoothing"); // the peaks' and the timbre's
	EXPECT_NE(error.find("peaksConfig.smoothing"), std::string::npos) << error;
	EXPECT_NE(error.find("timbreConfig.smoothing"), std::string::npos) << error;
	EXPECT_NE(find("timbreConfig.smoothing"), find("peaksConfig.smoothing"));
	// Only 0 has a label; the other steps are read as plain numbers.
	EXPECT_EQ(read("semitones", "+7"), "7");
	EXPECT_EQ(read("semitones", "none"), "none");
	EXPECT_NE(read("semitones", "25").find("-24 to 24"), std::string::npos);
}

} // namespace
