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
using varkesh::cbor::CborWriter;

void objectHeader(CborWriter &w, const char *name) {
	w.addText("name");
	w.addText(name);
	w.addText("desc");
	w.addText("");
	w.addText("version");
	w.addInt(0);
}

void parameter(CborWriter &w, const char *key, double value) {
	w.addText(key);
	w.openMap();
	w.addText("value");
	w.addFloat(value);
	w.addBreak();
}

// A state shaped as the plug-ins save one: a root with a leaf between two
// groups, one group nested in another.
std::vector<unsigned char> sampleState() {
	std::vector<unsigned char> bytes;
	CborWriter w(bytes);
	w.openMap();
	objectHeader(w, "Lumbrel: Test");
	w.addText("engineConfig");
	w.openMap();
	objectHeader(w, "Engine");
	parameter(w, "latencyMs", 10);
	w.addText("iterationsLog2");
	w.openMap();
	w.addText("value");
	w.addInt(2);
	w.addBreak();
	w.addBreak();
	parameter(w, "channelMode", 1);
	w.addText("swell");
	w.openMap();
	objectHeader(w, "Swell");
	parameter(w, "time", 0.25);
	w.addText("inner");
	w.openMap();
	objectHeader(w, "");
	parameter(w, "deep", 1);
	w.addBreak();
	w.addBreak();
	w.addBreak();
	return bytes;
}

TEST(KeyPaths, IdsAreTheCrcOfTheKeysEachWithAZeroByte) {
	EXPECT_EQ(keyPathId({"engineConfig", "latencyMs"}), 0x06A04C69u);
	EXPECT_EQ(keyPathId({"swell", "time"}), 0xD78D7566u);
	EXPECT_EQ(keyPathId({"channelMode"}), 0x9321A3CBu);
}

TEST(KeyPaths, ParametersOfASavedStateInOrderWithTheirGroups) {
	const auto bytes = sampleState();
	const auto paths = stateKeyPaths(bytes.data(), bytes.size());
	ASSERT_EQ(paths.size(), 5u);
	EXPECT_EQ(paths[0].dotted(), "engineConfig.latencyMs");
	EXPECT_EQ(paths[0].groupNames, std::vector<std::string>{"Engine"});
	EXPECT_EQ(paths[0].id, 0x06A04C69u);
	EXPECT_EQ(paths[1].dotted(), "engineConfig.iterationsLog2") << "an integer value is a (stepped) parameter too";
	EXPECT_EQ(paths[2].dotted(), "channelMode");
	EXPECT_TRUE(paths[2].groupNames.empty());
	EXPECT_EQ(paths[2].id, 0x9321A3CBu);
	EXPECT_EQ(paths[3].id, 0xD78D7566u);
	EXPECT_EQ(paths[4].dotted(), "swell.inner.deep");
	EXPECT_EQ(paths[4].groupNames, (std::vector<std::string>{"Swell", ""}));
}

TEST(KeyPaths, DefiniteMapsReadLikeIndefiniteOnes) {
	std::vector<unsigned char> bytes;
	CborWriter w(bytes);
	w.writeHead(5, 2);
	w.addText("version");
	w.addInt(0);
	w.addText("mix");
	w.writeHead(5, 1);
	w.addText("value");
	w.addFloat(0.5);
	const auto paths = stateKeyPaths(bytes.data(), bytes.size());
	ASSERT_EQ(paths.size(), 1u);
	EXPECT_EQ(paths[0].dotted(), "mix");
}

TEST(KeyPaths, AMapWithMoreThanAValueIsAGroupNotAParameter) {
	std::vector<unsigned char> bytes;
	CborWriter w(bytes);
	w.openMap();
	w.addText("odd");
	w.openMap();
	w.addText("value");
	w.addFloat(1);
	w.addText("text");
	w.addText("1 dB");
	w.addBreak();
	w.addBreak();
	EXPECT_TRUE(stateKeyPaths(bytes.data(), bytes.size()).empty());
}

TEST(KeyPaths, BadBlobsGiveWhatWasReadBeforeTheFault) {
	const auto whole = sampleState();
	// Cut inside the "swell" group: the engine's and the root's parameters stay.
	for (std::size_t cut = 0; cut < whole.size(); ++cut) {
		const auto paths = stateKeyPaths(whole.data(), cut);
		EXPECT_LE(paths.size(), 5u) << cut;
	}
	const std::size_t swellAt = std::string(whole.begin(), whole.end()).find("swell");
	EXPECT_EQ(stateKeyPaths(whole.data(), swellAt + 10).size(), 3u);

	const unsigned char notAMap[] = {0x83, 0x01, 0x02, 0x03};
	EXPECT_TRUE(stateKeyPaths(notAMap, sizeof notAMap).empty());
	EXPECT_TRUE(stateKeyPaths(nullptr, 0).empty());
	const unsigned char lyingCount[] = {0xBB, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x61, 'a'};
	EXPECT_TRUE(stateKeyPaths(lyingCount, sizeof lyingCount).empty());
}

} // namespace
