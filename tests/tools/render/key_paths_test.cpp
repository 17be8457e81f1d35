// Key paths read from saved states: which maps are parameters, the group
// titles on the way, the ids, and blobs that aren't what they should be.
#include "host/key_paths.h"

#include "storage/cbor_writer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using lumbrel::host::keyPathId;
using lumbrel::host::stateKeyPaths;

// A state shaped as the plug-ins save one: a root with a leaf between two
// groups, one group nested in another. A group's own fields (name, desc,
// version) are never parameters, even where one is a map holding a value.
std::vector<unsigned char> sampleState() {
	std::vector<unsigned char> bytes;
	varkesh::cbor::CborWriter w(bytes);
	const auto open = [&](const char *key, const char *name) {
		if (key) w.addText(key);
		w.openMap();
		w.addText("name");
		w.addText(name);
		w.addText("desc");
		w.openMap();
		w.addText("value");
		w.addText("what it does");
		w.addBreak();
		w.addText("version");
		w.addInt(0);
	};
	const auto parameter = [&](const char *key, double value) {
		w.addText(key);
		w.openMap();
		w.addText("value");
		if (value == int(value)) w.addInt(int(value)); // an integer value is a (stepped) parameter too
		else w.addFloat(value);
		w.addBreak();
	};
	open(nullptr, "Lumbrel: Test");
	open("engineConfig", "Engine");
	parameter("latencyMs", 10.5);
	parameter("iterationsLog2", 2);
	w.addBreak();
	parameter("channelMode", 1);
	open("swell", "Swell");
	parameter("time", 0.25);
	open("inner", "");
	parameter("deep", 1);
	w.addBreak();
	w.addBreak();
	w.addBreak();
	return bytes;
}

TEST(KeyPaths, ParametersOfASavedStateInOrderWithTheirGroupsAndIds) {
	const auto bytes = sampleState();
	const auto paths = stateKeyPaths(bytes.data(), bytes.size());
	std::vector<std::string> dotted, groups;
	for (const auto &path : paths) {
		dotted.push_back(path.dotted());
		std::string names;
		for (const auto &name : path.groupNames) names += name + "/";
		groups.push_back(names);
		EXPECT_EQ(path.id, keyPathId(path.keys)) << path.dotted();
	}
	EXPECT_EQ(dotted, (std::vector<std::string>{"engineConfig.latencyMs", "engineConfig.iterationsLog2", "channelMode",
						  "swell.time", "swell.inner.deep"}));
	EXPECT_EQ(groups, (std::vector<std::string>{"Engine/", "Engine/", "", "Swell/", "Swell//"}));
	ASSERT_FALSE(paths.empty());
	EXPECT_EQ(paths[0].id, 0x06A04C69u) << "the CRC-32 of the keys, each with a zero byte";
}

TEST(KeyPaths, BadBlobsGiveWhatWasReadBeforeTheFault) {
	const auto whole = sampleState();
	for (std::size_t cut = 0; cut < whole.size(); ++cut) EXPECT_LE(stateKeyPaths(whole.data(), cut).size(), 5u) << cut;
	// Cut inside the "swell" group: the engine's and the root's parameters stay.
	const std::size_t swellAt = std::string(whole.begin(), whole.end()).find("swell");
	EXPECT_EQ(stateKeyPaths(whole.data(), swellAt + 10).size(), 3u);

	const unsigned char notAMap[] = {0x83, 0x01, 0x02, 0x03};
	EXPECT_TRUE(stateKeyPaths(notAMap, sizeof notAMap).empty());
	EXPECT_TRUE(stateKeyPaths(nullptr, 0).empty());
	const unsigned char lyingCount[] = {0xBB, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x61, 'a'};
	EXPECT_TRUE(stateKeyPaths(lyingCount, sizeof lyingCount).empty());
}

} // namespace
