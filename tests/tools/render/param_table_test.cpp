// Parameters named by key path and set by text, against the built bundle:
// key paths from the saved state, lookup by the names a person types, and
// value texts the plug-in would read as its default.
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
using render::ParamEntry;
using render::ParamTable;

struct ParamTableTest : ::testing::Test {
	static std::unique_ptr<host::Bundle> bundle;
	static void SetUpTestSuite() {
		std::string error;
		bundle = host::Bundle::load(LUMBREL_BUNDLE_PATH, error);
		ASSERT_TRUE(bundle) << error;
	}
	static void TearDownTestSuite() { bundle.reset(); }

	host::Host host;
	std::unique_ptr<host::Instance> instance;
	std::unique_ptr<ParamTable> table;

	void open(const char *id) {
		instance = std::make_unique<host::Instance>(*bundle, id, host);
		ASSERT_TRUE(instance->valid() && instance->init());
		table = std::make_unique<ParamTable>(*instance);
	}
	const ParamEntry &get(const std::string &name) {
		std::string error;
		const ParamEntry *entry = table->find(name, error);
		EXPECT_TRUE(entry) << error;
		return *entry;
	}
	std::string readError(const std::string &name, const std::string &text) {
		double value = 0;
		std::string error;
		EXPECT_FALSE(table->readValue(get(name), text, value, error)) << text;
		EXPECT_EQ(error.find('\n'), std::string::npos);
		return error;
	}
	// The plug-in's own text for what `text` was read as.
	std::string readAs(const std::string &name, const std::string &text) {
		double value = 0;
		std::string error;
		EXPECT_TRUE(table->readValue(get(name), text, value, error)) << error;
		return table->text(get(name), value);
	}
};
std::unique_ptr<host::Bundle> ParamTableTest::bundle;

TEST_F(ParamTableTest, EveryParameterGetsTheKeyPathWhoseCrcIsItsId) {
	open("varkesh.lumbrel.swell");
	std::vector<std::string> paths;
	for (const auto &entry : table->entries()) {
		paths.push_back(entry.keyPath);
		std::vector<std::string> keys;
		for (std::size_t from = 0, dot = 0; dot != std::string::npos; from = dot + 1) {
			dot = entry.keyPath.find('.', from);
			keys.push_back(entry.keyPath.substr(from, dot - from));
		}
		EXPECT_EQ(lumbrel::host::keyPathId(keys), entry.info.id) << entry.keyPath;
	}
	const std::vector<std::string> expected = {"engineConfig.latencyMs", "engineConfig.overlap",
		"engineConfig.resolution", "engineConfig.iterationsLog2", "engineConfig.directCopy", "swell.time", "swell.sweep",
		"swell.focus", "swell.autoGain"};
	EXPECT_EQ(paths, expected);
	EXPECT_EQ(get("swell.time").groupNames, "Swell");
	EXPECT_EQ(get("engineConfig.latencyMs").groupNames, "Engine");
}

TEST_F(ParamTableTest, FoundByKeyPathDisplayNameOrLastKeyInAnyCase) {
	open("varkesh.lumbrel.swell");
	const ParamEntry *time = &get("swell.time");
	EXPECT_EQ(&get("time"), time);
	EXPECT_EQ(&get("TIME"), time);
	EXPECT_EQ(&get("Swell.Time"), time);
	EXPECT_EQ(&get("auto-gain"), &get("swell.autoGain"));
	EXPECT_EQ(&get("autogain"), &get("swell.autoGain"));
	EXPECT_EQ(&get("latency"), &get("engineConfig.latencyMs"));
}

TEST_F(ParamTableTest, UnknownNamesListCloseMatches) {
	open("varkesh.lumbrel.swell");
	std::string error;
	EXPECT_FALSE(table->find("tmie", error));
	EXPECT_NE(error.find("no parameter \"tmie\""), std::string::npos) << error;
	EXPECT_NE(error.find("swell.time"), std::string::npos) << error;
	EXPECT_FALSE(table->find("latencyMS.x", error));
	EXPECT_NE(error.find("engineConfig.latencyMs"), std::string::npos) << error;
	EXPECT_FALSE(table->find("engineConfig", error)) << "a group is no parameter";
	EXPECT_FALSE(table->find("zzzzzzzzzz", error));
	EXPECT_NE(error.find("--list --plugin swell"), std::string::npos) << error;
}

TEST_F(ParamTableTest, RangedValuesAreNumbersInTheParametersUnit) {
	open("varkesh.lumbrel.decay-scale");
	EXPECT_EQ(readAs("latency", "5ms"), "5ms");
	EXPECT_EQ(readAs("latency", " 5 ms "), "5ms");
	EXPECT_EQ(readAs("latency", "5"), "5ms") << "a bare number is in the parameter's unit";
	EXPECT_EQ(readAs("latency", "+5.5ms"), "5.5ms");
	EXPECT_EQ(readAs("latency", "5,5ms"), "5.5ms") << "the plug-in alone would stop at the comma";
	EXPECT_EQ(readAs("decay.rt20", "2.5sec"), "2.5sec");

	EXPECT_NE(readError("latency", "5 Hz").find("\"ms\""), std::string::npos) << "the wrong unit names the right one";
	EXPECT_EQ(readAs("latency", "0.005 s"), "5ms") << "another size of the same unit is converted";
	EXPECT_NE(readError("latency", "fast").find("give a number"), std::string::npos);
	EXPECT_NE(readError("latency", "20ms").find("outside the range"), std::string::npos);
	EXPECT_NE(readError("latency", "-1").find("outside the range"), std::string::npos);
	EXPECT_NE(readError("decay.factor", "2x").find("plain number"), std::string::npos);
}

TEST_F(ParamTableTest, SteppedValuesAreTheirLabels) {
	open("varkesh.lumbrel.decay-scale");
	EXPECT_EQ(readAs("iterations", "8"), "8");
	EXPECT_EQ(readAs("direct", "off"), "off");
	EXPECT_EQ(readAs("direct", "ON"), "on");
	// "3" isn't a label of 1, 2, 4, 8, and the plug-in would read it as the default.
	const std::string error = readError("iterations", "3");
	EXPECT_NE(error.find("1, 2, 4, 8"), std::string::npos) << error;
	EXPECT_NE(readError("direct", "maybe").find("off, on"), std::string::npos);
	EXPECT_EQ(table->rangeText(get("direct")), "off, on");
	EXPECT_EQ(table->rangeText(get("latency")), "2ms to 15ms");
}

TEST_F(ParamTableTest, ANameSharedByTwoParametersAsksForTheKeyPath) {
	open("varkesh.lumbrel.pitch-shifter-layer1");
	ASSERT_FALSE(table->entries().empty());
	// "smoothing" is the display name in both the peaks and the timbre group.
	std::string error;
	EXPECT_FALSE(table->find("smoothing", error));
	EXPECT_NE(error.find("peaksConfig.smoothing"), std::string::npos) << error;
	EXPECT_NE(error.find("timbreConfig.smoothing"), std::string::npos) << error;
	EXPECT_NE(&get("timbreConfig.smoothing"), &get("peaksConfig.smoothing"));
	// Only 0 has a label; the other steps are read as plain numbers.
	EXPECT_EQ(readAs("semitones", "+7"), "7");
	EXPECT_EQ(readAs("semitones", "-12"), "-12");
	EXPECT_EQ(readAs("semitones", "none"), "none");
	EXPECT_NE(readError("semitones", "25").find("-24 to 24"), std::string::npos);
}

} // namespace
