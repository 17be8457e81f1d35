// Object trees to CBOR and back through state(): whole and partial writes,
// merges by key, array patches, and hostile input.
#include "storage/storage_cbor_reader.h"
#include "storage/storage_cbor_writer.h"
#include "storage/cbor_diagnostic.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using namespace varkesh;
using storage::DirtySet;

namespace {

struct TestKind {};
using Writer = storage::StorageCborWriter<TestKind>;
using Reader = storage::StorageCborReader<TestKind>;

// A field that notices its own changes when read, as parameters do.
struct Knob {
	double value = 0;
	template<class S>
	void state(S &s) {
		if constexpr (S::isWriter) {
			s("value", value);
		} else {
			const double before = value;
			s("value", value);
			if (value != before) {
				s.changed = true;
				if (s.dirty) s.dirty->whole.insert(s.currentObject);
			}
		}
	}
};

// Dirty sets know objects by address, and a first member shares its
// object's address: the group's is its name, a text a partial write leaves out
// even when its address is marked. The root starts with an untracked byte.
struct Group {
	std::string name = "Group";
	int mode = 2;
	Knob gain{0.5};
	std::vector<float> curve{1, 2};
	template<class S>
	void state(S &s) {
		s.extra("name", name);
		s("gain", gain);
		s("mode", mode);
		s("curve", curve);
	}
};

struct Root {
	char own = 0;
	bool flag = true;
	Group group;
	Knob level{1};
	std::vector<std::vector<float>> rows{{1}, {2, 3}};
	std::string title = "root";
	template<class S>
	void state(S &s) {
		s.extra("title", title);
		int version = 0;
		s("version", version);
		s("group", group);
		s("level", level);
		s("flag", flag);
		s("rows", rows);
	}
	int uiCalls = 0;
	template<class S>
	void uiState(S &) { ++uiCalls; }
};

std::vector<unsigned char> write(Root &root, DirtySet *dirty = nullptr, bool ui = false) {
	std::vector<unsigned char> bytes;
	Writer writer(bytes, dirty, ui);
	writer.writeObject(root);
	return bytes;
}

bool read(Root &root, const std::vector<unsigned char> &bytes, DirtySet *dirty = nullptr) {
	Reader reader(cbor::TaggedCborWalker(bytes.data(), bytes.data() + bytes.size()), dirty);
	return reader.readObject(root);
}

std::string diag(const std::vector<unsigned char> &bytes) { return lumbrel_test::diagnostic(bytes); }
using lumbrel_test::hexBytes;

} // namespace

// A whole write lists every field in order, texts included, and reads back
// into a fresh object; the uiState() only at the root and only when asked.
TEST(ObjectStorage, WholeWriteRoundTripsThroughAFreshObject) {
	Root a;
	EXPECT_EQ(diag(write(a)),
		"{_ \"title\": \"root\", \"version\": 0, \"group\": {_ \"name\": \"Group\", \"gain\": {_ \"value\": 0.5}, "
		"\"mode\": 2, \"curve\": 85(h'0000803f00000040')}, \"level\": {_ \"value\": 1.0}, \"flag\": true, "
		"\"rows\": [85(h'0000803f'), 85(h'0000004000004040')]}");
	EXPECT_EQ(a.uiCalls, 0);
	write(a, nullptr, true);
	EXPECT_EQ(a.uiCalls, 1);

	a.group.gain.value = -3.25;
	a.group.mode = -7;
	a.group.curve = {0.125f, -1, 1e30f};
	a.level.value = 1e-300;
	a.flag = false;
	a.rows = {{}, {5}, {6, 7, 8}};
	Root b;
	ASSERT_TRUE(read(b, write(a)));
	EXPECT_EQ(write(b), write(a));
	EXPECT_EQ(b.rows, a.rows);
}

TEST(ObjectStorage, MergeMarksChangedBranchesAndPartialWriteNamesOnlyThem) {
	Root root;
	DirtySet dirty;
	// The page sends a merge naming one parameter and an unchanged one.
	const auto merge = hexBytes(
		"a2 65 67726f7570 a1 64 6761696e a1 6576616c7565 fb 3ff0000000000000" // group.gain.value = 1.0
		"   65 6c6576656c a1 6576616c7565 01"); // level.value = 1 (unchanged, as an integer)
	ASSERT_TRUE(read(root, merge, &dirty));
	EXPECT_EQ(root.group.gain.value, 1.0);
	EXPECT_TRUE(dirty.whole.count(&root.group.gain) && dirty.partial.count(&root.group) && dirty.partial.count(&root));
	EXPECT_FALSE(dirty.includes(&root.level));
	// Only the changed branch, the parameter whole; no extras. Nothing dirty: an empty map all the same.
	EXPECT_EQ(diag(write(root, &dirty)), "{_ \"group\": {_ \"gain\": {_ \"value\": 1.0}}}");
	DirtySet none;
	EXPECT_EQ(diag(write(root, &none)), "{_ }");
}

TEST(ObjectStorage, RowsPatchByIndex) {
	Root root;
	DirtySet dirty;
	// Element 0 of "curve" overwritten, "2" appended; "5" is past the end and skipped.
	ASSERT_TRUE(read(root, hexBytes("a1 65 67726f7570 a1 65 6375727665 a3 6130 f9 3e00 00 fa 3fc00000 61 35 01"), &dirty));
	// "0" and 0 name the same element, the later pair winning.
	EXPECT_EQ(root.group.curve, (std::vector<float>{1.5f, 2}));

	root.group.curve = {1, 2};
	ASSERT_TRUE(read(root, hexBytes("a1 65 67726f7570 a1 65 6375727665 a2 6130 fa 3fc00000 6132 fa 40400000"), &dirty));
	EXPECT_EQ(root.group.curve, (std::vector<float>{1.5f, 2, 3}));
	EXPECT_TRUE(dirty.partial.count(&root.group.curve));

	// Rows written as a patch when only one is dirty.
	DirtySet rowsDirty;
	rowsDirty.partial.insert(&root);
	rowsDirty.partial.insert(&root.rows);
	rowsDirty.whole.insert(&root.rows[1]);
	EXPECT_EQ(diag(write(root, &rowsDirty)), "{_ \"rows\": {_ 1: 85(h'0000004000004040')}}");
}

TEST(ObjectStorage, LaterPairsWinAndForeignItemsAreSkipped) {
	Root root;
	ASSERT_TRUE(read(root, hexBytes(
		"a5 65 6c6576656c a2 6576616c7565 fb 3fe0000000000000 6576616c7565 fb 3fe6666666666666" // level: 0.5 then 0.7
		"   01 63 616263" // integer key: skipped
		"   65 67726f7570 01" // not a map where an object stands: skipped
		"   64 666c6167 f4" // flag false
		"   63 7a7a7a 80"))); // unknown key
	EXPECT_TRUE(root.level.value == 0.7 && root.group.gain.value == 0.5 && !root.flag);
	EXPECT_FALSE(read(root, hexBytes("83 01 02 03"))) << "not a map at all: nothing read";
	EXPECT_FALSE(read(root, {}));
}

TEST(ObjectStorage, DamagedInputLeavesAnObjectThatRoundTrips) {
	std::mt19937 random(7);
	Root reference;
	const auto valid = write(reference);
	for (int trial = 0; trial < 5000; ++trial) {
		std::vector<unsigned char> bytes = valid;
		const int flips = 1 + int(random() % 6);
		for (int f = 0; f < flips; ++f) bytes[random() % bytes.size()] = static_cast<unsigned char>(random());
		if (trial % 4 == 0) bytes.resize(random() % bytes.size());
		Root root;
		DirtySet dirty;
		read(root, bytes, &dirty);
		// What was taken in survives its own round trip; a good state over it restores the reference.
		const auto taken = write(root);
		Root again;
		read(again, taken);
		ASSERT_EQ(write(again), taken) << "trial " << trial;
		read(root, valid);
		ASSERT_EQ(write(root), valid) << "trial " << trial;
	}
}
