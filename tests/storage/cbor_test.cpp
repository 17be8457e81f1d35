// The CBOR walker, tagged walker and writer; then object trees to CBOR and back through state().
#include "storage/cbor_diagnostic.h"
#include "storage/storage_cbor_reader.h"
#include "storage/storage_cbor_writer.h"
#include "storage/tagged_cbor_walker.h"
#include "support/alloc_counter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

using varkesh::cbor::CborType;
using varkesh::cbor::CborWalker;
using varkesh::cbor::CborWriter;
using varkesh::cbor::TaggedCborWalker;
namespace cborError = varkesh::cbor::error;
using lumbrel_test::diagnostic;
using lumbrel_test::hexBytes;
using lumbrel_test::walkerOn;

namespace {

TaggedCborWalker taggedOn(const std::vector<unsigned char> &bytes) {
	return TaggedCborWalker(bytes.data(), bytes.data() + bytes.size());
}

template<class Fn>
std::vector<unsigned char> written(Fn &&fn) {
	std::vector<unsigned char> bytes;
	CborWriter writer(bytes);
	fn(writer);
	return bytes;
}

// RFC 8949 Appendix A without floats: read, stepped over, and rewritten byte for byte.
TEST(Cbor, RfcExamplesReadAndRewriteExactly) {
	const struct {
		const char *hex, *diagnostic;
	} examples[] = {
		{"00", "0"}, {"17", "23"}, {"1818", "24"}, {"18ff", "255"}, {"190100", "256"}, {"1903e8", "1000"},
		{"1a000f4240", "1000000"}, {"1b000000e8d4a51000", "1000000000000"},
		{"1bffffffffffffffff", "18446744073709551615"}, {"3bffffffffffffffff", "-18446744073709551616"},
		{"20", "-1"}, {"3863", "-100"}, {"3903e7", "-1000"},
		{"f4", "false"}, {"f5", "true"}, {"f6", "null"}, {"f7", "undefined"}, {"f8ff", "simple(255)"},
		{"c11a514b67b0", "1(1363896240)"}, {"c249010000000000000000", "2(h'010000000000000000')"},
		{"40", "h''"}, {"4401020304", "h'01020304'"}, {"60", "\"\""}, {"6449455446", "\"IETF\""}, {"62225c", "\"\"\\\""},
		{"80", "[]"}, {"8301820203820405", "[1, [2, 3], [4, 5]]"}, {"a201020304", "{1: 2, 3: 4}"},
		{"826161a161626163", "[\"a\", {\"b\": \"c\"}]"},
		{"5f42010243030405ff", "(_ h'0102', h'030405')"}, {"7f657374726561646d696e67ff", "(_ \"strea\", \"ming\")"},
		{"9f018202039f0405ffff", "[_ 1, [2, 3], [_ 4, 5]]"}, {"bf6346756ef563416d7421ff", "{_ \"Fun\": true, \"Amt\": -2}"},
		// A 16-bit float is stepped over by its length but not decoded.
		{"83 f93c00 01 f97e00", "[simple(0), 1, simple(0)]"},
	};
	for (const auto &e : examples) {
		SCOPED_TRACE(e.hex);
		const auto bytes = hexBytes(e.hex);
		EXPECT_EQ(diagnostic(bytes), e.diagnostic);
		EXPECT_EQ(walkerOn(bytes).next().begin, bytes.data() + bytes.size());
		std::vector<unsigned char> copy;
		CborWriter writer(copy);
		EXPECT_TRUE(e.diagnostic[1] == 's' || (lumbrel_test::reencode(walkerOn(bytes), writer) && copy == bytes)) << "rewritten";
	}
}

// Floats keep their bits and truncate to saturated integers; other items read as their count or 0.
TEST(Cbor, NumbersReadAsIntegersAndDoubles) {
	const double inf = std::numeric_limits<double>::infinity();
	const struct {
		const char *hex;
		CborType type;
		std::int64_t asInteger;
		double asDouble;
	} cases[] = {
		{"1bffffffffffffffff", CborType::Unsigned, -1, 18446744073709551615.0}, {"3903e7", CborType::Negative, -1000, -1000.0},
		{"3bffffffffffffffff", CborType::Negative, 0, -18446744073709551616.0}, {"fb3ff199999999999a", CborType::Float64, 1, 1.1},
		{"fa47c35000", CborType::Float32, 100000, 100000.0}, {"fa7f7fffff", CborType::Float32, INT64_MAX, 3.4028234663852886e+38},
		{"fbc005ae147ae147ae", CborType::Float64, -2, -2.71}, {"fbfe37e43c8800759c", CborType::Float64, INT64_MIN, -1e300},
		{"faff800000", CborType::Float32, INT64_MIN, -inf}, {"83010203", CborType::Array, 3, 0.0},
		{"9f01ff", CborType::IndefiniteArray, 0, 0.0}, {"6161", CborType::Utf8, 1, 0.0}, {"c1 01", CborType::Tag, 1, 0.0},
	};
	for (const auto &c : cases) {
		const auto bytes = hexBytes(c.hex);
		const CborWalker w = walkerOn(bytes);
		EXPECT_TRUE(w.type == c.type && w.asInteger() == c.asInteger && w.asDouble() == c.asDouble) << c.hex;
	}
	const auto nan = hexBytes("fa7fc00000");
	EXPECT_TRUE(std::isnan(walkerOn(nan).asDouble()) && walkerOn(nan).asInteger() == 0);
	EXPECT_EQ(walkerOn(hexBytes("fa47c35000")).value, 0x47c35000u) << "the raw bits stay in value";
}

// A broken buffer ends in the stated error without reading outside it; "0": the item after a good walk.
TEST(Cbor, MalformedInputEndsInTheRightError) {
	const struct {
		const char *hex, *diagnostic, *next;
	} cases[] = {
		{"", "error(1)", "error(1)"}, {"1f", "error(31)", "error(31)"} /* indefinite integer */,
		{"1c", "error(28)", "error(28)"} /* reserved additional information */, {"fc", "error(28)", "error(28)"},
		{"19 01", "error(1)", "error(1)"} /* argument past the end */, {"fb 3ff0", "error(1)", "error(1)"},
		{"65 6162", "error(1)", "error(1)"} /* string past the end */, {"5b ffffffffffffffff 00", "error(1)", "error(1)"},
		{"83 01 02", "[1, 2] error(1)", "error(1)"}, // counts beyond the buffer
		{"bb 7fffffffffffffff 01 02", "{1: 2} error(1)", "error(1)"}, {"bf 6161 01", "{_ \"a\": 1} error(1)", "error(1)"},
		{"9f 01 02", "[_ 1, 2] error(1)", "error(1)"}, // no Break
		{"bf 6161 ff ff 00", "{_ } error(3)", "0"}, // a Break as a map value
		{"5f 4101 6161 ff", "(_ h'01') error(3)", "error(4)"}, // a text chunk in bytes
		{"82 1c 01", "[] error(28)", "error(28)"}, // an error inside ends the walk
	};
	for (const auto &c : cases) {
		const auto bytes = hexBytes(c.hex);
		EXPECT_EQ(diagnostic(bytes) + " / " + diagnostic(walkerOn(bytes).next()), std::string(c.diagnostic) + " / " + c.next) << c.hex;
	}
	// A cut-off item reports the innermost head that is cut.
	const auto cut = hexBytes("9f 01 9f 02");
	EXPECT_EQ(walkerOn(cut).next().begin, cut.data() + 2);
	EXPECT_EQ(walkerOn(hexBytes("83010203")).forEachPair([](const CborWalker &, const CborWalker &) {}).value,
			  cborError::notContainer);
}

// Nesting is bounded so that next() can't exhaust the stack; tag chains are walked without recursion.
TEST(Cbor, DeepNestingAndLongTagChainsEnd) {
	for (unsigned char head : {0x81, 0x9f, 0xa1}) {
		SCOPED_TRACE(int(head));
		auto nested = [&](std::size_t levels) {
			std::vector<unsigned char> b(levels, head);
			b.insert(b.end(), head == 0xa1 ? levels + 1 : 1, 0x00);
			if (head == 0x9f) b.insert(b.end(), levels, 0xff);
			return b;
		};
		auto deepest = nested(CborWalker::maxDepth);
		deepest.push_back(0x07);
		EXPECT_EQ(walkerOn(deepest).next().value, 7u);
		EXPECT_EQ(walkerOn(nested(CborWalker::maxDepth + 1)).next().value, cborError::tooDeep);
		EXPECT_EQ(walkerOn(nested(1000000)).next().value, cborError::tooDeep);
	}
	std::vector<unsigned char> chain(1000000, 0xc1);
	chain.insert(chain.end(), {0x05, 0x06});
	EXPECT_EQ(walkerOn(chain).next().value, 6u);
	EXPECT_EQ(taggedOn(chain).value, 5u);
	EXPECT_TRUE(walkerOn(std::vector<unsigned char>(1000, 0xd8)).next().isError());
}

TEST(Cbor, TextEqualsJoinsChunksAndStopsAtTheEnd) {
	const auto chunked = hexBytes("7f657374726561646d696e67ff"); // (_ "strea", "ming")
	EXPECT_TRUE(walkerOn(chunked).textEquals("streaming"));
	for (const char *other : {"stream", "streamingX", "streamink"}) EXPECT_FALSE(walkerOn(chunked).textEquals(other)) << other;
	EXPECT_TRUE(walkerOn(hexBytes("6449455446")).textEquals("IETF"));
	for (const char *hex : {"4449455446", "7f6449455446", "7f4449455446ff", "65494554"})
		EXPECT_FALSE(walkerOn(hexBytes(hex)).textEquals(hex[0] == '6' ? "IET" : "IETF")) << hex;
}

// An RFC 8746 typed array: tag, byte string head, then the elements, each
// given most significant byte first and reversed for a little-endian tag.
std::vector<unsigned char> typedArray(unsigned tag, std::size_t elementSize, const char *bigEndianHex) {
	std::vector<unsigned char> elements = hexBytes(bigEndianHex);
	for (std::size_t i = 0; (tag & 4) && i + elementSize <= elements.size(); i += elementSize)
		std::reverse(elements.begin() + i, elements.begin() + i + elementSize);
	std::vector<unsigned char> bytes = {0xd8, static_cast<unsigned char>(tag), 0x58, static_cast<unsigned char>(elements.size())};
	bytes.insert(bytes.end(), elements.begin(), elements.end());
	return bytes;
}

// Only the outermost typed-array tag (64 to 86) is kept; children come with their tags consumed.
TEST(Cbor, TaggedWalkerKeepsTheTypedArrayTag) {
	const struct {
		const char *hex;
		int typedArrayTag;
	} cases[] = {{"d840 40", 64}, {"d856 40", 86}, {"d83f 40", 0}, {"d857 40", 0}, {"d855 c1 40", 85}, {"c1 d855 40", 0}};
	for (const auto &c : cases) {
		const auto bytes = hexBytes(c.hex);
		EXPECT_EQ(taggedOn(bytes).typedArrayTag, c.typedArrayTag) << c.hex;
		EXPECT_EQ(taggedOn(bytes).begin, bytes.data() + bytes.size() - 1) << c.hex;
	}
	EXPECT_TRUE(taggedOn(hexBytes("c1")).isError());
	const auto map = hexBytes("a1 c16161 d85540"); // {1("a"): 85(h'')}
	int pairs = 0;
	taggedOn(map).forEachPair([&](const TaggedCborWalker &key, const TaggedCborWalker &value) { pairs += key.textEquals("a") && key.tagCount == 1 && value.typedArrayTag == 85; });
	EXPECT_EQ(pairs, 1);
}

// Every element kind, in both byte orders, read by value.
TEST(Cbor, TypedArraysOfEveryKindInBothByteOrders) {
	const double inf = std::numeric_limits<double>::infinity();
	const struct {
		unsigned tag;
		std::size_t elementSize;
		const char *bigEndianHex;
		std::vector<double> expected;
	} cases[] = {
		{64, 1, "01 02 ff", {1, 2, 255}}, {65, 2, "0001 1234 ffff", {1, 0x1234, 65535}},
		{66, 4, "00000001 deadbeef", {1, 3735928559.0}}, {67, 8, "0000000000000001 0000010000000000", {1, 1099511627776.0}},
		{72, 1, "ff 80 7f", {-1, -128, 127}}, {73, 2, "fffe 012c", {-2, 300}}, {74, 4, "ffffffff 00010000", {-1, 65536}},
		{75, 8, "ffffffffffffffff 0000000000000003", {-1, 3}},
		{81, 4, "3fc00000 be800000 7f800000", {1.5, -0.25, inf}},
		{82, 8, "3ff8000000000000 bfd0000000000000 7ff0000000000000", {1.5, -0.25, inf}},
	};
	for (const auto &c : cases) {
		for (unsigned tag : {c.tag, c.tag | 4}) {
			std::vector<double> values(c.expected.size() + 1, -7.0);
			EXPECT_EQ(taggedOn(typedArray(tag, c.elementSize, c.bigEndianHex)).readTypedArray(values, 0, values.size()), c.expected.size());
			values.pop_back();
			EXPECT_EQ(values, c.expected) << tag;
		}
	}
	std::vector<std::int32_t> saturated(5); // NaN, 1e10, -1e10, 2.9, -2.9
	EXPECT_EQ(taggedOn(typedArray(81, 4, "7fc00000 501502f9 d01502f9 4039999a c039999a")).readTypedArray(saturated, 0, 5), 5u);
	EXPECT_EQ(saturated, (std::vector<std::int32_t>{0, INT32_MAX, INT32_MIN, 2, -2}));
}

// Count and offset bound the copy; what can't be read stores nothing.
TEST(Cbor, TypedArrayCopiesStayInBounds) {
	const auto four = typedArray(85, 4, "3f800000 40000000 40400000 40800000"); // 1, 2, 3, 4
	const TaggedCborWalker w = taggedOn(four);
	std::vector<float> out(6, -1.0f);
	EXPECT_EQ(w.readTypedArray(out, 1, 2), 2u);
	EXPECT_EQ(out, (std::vector<float>{2, 3, -1, -1, -1, -1}));
	for (std::size_t offset : {std::size_t(4), std::numeric_limits<std::size_t>::max()}) EXPECT_EQ(w.readTypedArray(out, offset, 6), 0u);
	std::vector<int> ints(4, -1);
	EXPECT_EQ(taggedOn(hexBytes("d845 47 0100 0200 0300 04")).readTypedArray(ints, 0, 4), 3u) << "a partial last element";
	EXPECT_EQ(taggedOn(typedArray(64, 1, "0a 0b 0c")).readTypedArray(ints, 2, 4), 1u);
	EXPECT_EQ(ints, (std::vector<int>{12, 2, 3, -1}));
	for (const char *hex : {"d850 42 3c00", "d853 50 3fff0000000000000000000000000000", "44 0000803f", "c1 44 0000803f",
			 "d855 5f 440000803f ff", "d855 64 0000803f", "d855 48 0000803f", "d855 5b ffffffffffffffff 0000803f"}) {
		std::vector<float> none(4, -1.0f);
		EXPECT_EQ(taggedOn(hexBytes(hex)).readTypedArray(none, 0, 4), 0u) << hex;
		EXPECT_EQ(none, std::vector<float>(4, -1.0f)) << hex;
	}
}

// Every boundary of the head's five forms, and the major type in the top bits.
TEST(Cbor, WriterTakesTheShortestHead) {
	const struct {
		unsigned char major;
		unsigned long long argument;
		const char *hex;
	} cases[] = {
		{0, 23, "17"}, {0, 24, "1818"}, {0, 255, "18ff"}, {0, 256, "190100"}, {0, 65535, "19ffff"},
		{0, 65536, "1a00010000"}, {0, 0xFFFFFFFFull, "1affffffff"}, {0, 0x100000000ull, "1b0000000100000000"},
		{1, 0, "20"}, {3, 24, "7818"}, {4, 25, "9819"}, {6, 85, "d855"}, {7, 21, "f5"},
	};
	for (const auto &c : cases) EXPECT_EQ(written([&](CborWriter &w) { w.writeHead(c.major, c.argument); }), hexBytes(c.hex)) << c.hex;
	EXPECT_EQ(written([](CborWriter &w) { w.addFloat(1.1f); }), hexBytes("fb3ff19999a0000000")) << "always 64 bits";
	EXPECT_EQ(written([](CborWriter &w) { w.addInt(INT64_MIN); }), hexBytes("3b7fffffffffffffff"));
	EXPECT_EQ(written([](CborWriter &w) { w.addBool(false); w.addBool(true); }), hexBytes("f4f5"));
	EXPECT_EQ(written([](CborWriter &w) { w.openMap(); w.openArray(); w.addBreak(); w.addBreak(); }), hexBytes("bf9fffff"));
}

// Typed arrays round-trip bit for bit (NaN payload, -0) in both byte orders; a reserved vector doesn't allocate.
TEST(Cbor, WriterTypedArraysRoundTripWithoutAllocating) {
	const float one = 1.0f;
	EXPECT_EQ(written([&](CborWriter &w) { w.addTypedArray(&one, 1, false); }), hexBytes("d855440000803f"));
	EXPECT_EQ(written([&](CborWriter &w) { w.addTypedArray(&one, 1, true); }), hexBytes("d851443f800000"));
	std::vector<float> values = {0.0f, -0.0f, 1.5f, -3.25e-38f, 1e-45f, std::numeric_limits<float>::infinity(), 0};
	const std::uint32_t payloadNaN = 0x7fc12345;
	std::memcpy(&values.back(), &payloadNaN, 4);
	for (bool bigEndian : {false, true}) {
		const auto bytes = written([&](CborWriter &w) { w.addTypedArray(values.data(), values.size(), bigEndian); });
		std::vector<float> back(values.size());
		EXPECT_EQ(taggedOn(bytes).readTypedArray(back, 0, back.size()), values.size());
		EXPECT_EQ(std::memcmp(back.data(), values.data(), 4 * values.size()), 0) << bigEndian;
	}

	if (!lumbrel_test::allocationCountingAvailable()) GTEST_SKIP() << "allocations aren't counted in this build";
	const float row[64] = {};
	std::vector<unsigned char> bytes;
	bytes.reserve(1024);
	std::vector<float> out(64);
	lumbrel_test::AllocationScope scope;
	CborWriter writer(bytes);
	writer.writeHead(4, 2), writer.addText("meters"), writer.openMap(), writer.addText("energy");
	writer.addTypedArray(row, 64, false), writer.addBreak();
	taggedOn(bytes).forEach([&](const TaggedCborWalker &item, std::size_t) {
		item.forEachPair([&](const TaggedCborWalker &, const TaggedCborWalker &v) { v.readTypedArray(out, 0, out.size()); });
	});
	EXPECT_EQ(scope.count(), 0u);
	EXPECT_EQ(bytes.capacity(), 1024u);
}

using namespace varkesh;
using storage::DirtySet;

struct TestKind {};
using Writer = storage::StorageCborWriter<TestKind>;
using Reader = storage::StorageCborReader<TestKind>;

// A field that notices its own changes when read, as parameters do.
struct Knob {
	double value = 0;
	template<class S>
	void state(S &s) {
		const double before = value;
		s("value", value);
		if constexpr (!S::isWriter) {
			if (value != before) s.changed = true;
			if (value != before && s.dirty) s.dirty->whole.insert(s.currentObject);
		}
	}
};

// Dirty sets know objects by address: the group's first member, its name, is a text partial writes leave
// out even when marked. The root starts with an untracked byte.
struct Group {
	std::string name = "Group";
	int mode = 2;
	Knob gain{0.5};
	std::vector<float> curve{1, 2};
	template<class S>
	void state(S &s) {
		s.extra("name", name), s("gain", gain), s("mode", mode), s("curve", curve);
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
		int version = 0;
		s.extra("title", title), s("version", version), s("group", group), s("level", level), s("flag", flag), s("rows", rows);
	}
	int uiCalls = 0;
	template<class S>
	void uiState(S &) { ++uiCalls; }
};

std::vector<unsigned char> write(Root &root, DirtySet *dirty = nullptr, bool ui = false) {
	std::vector<unsigned char> bytes;
	Writer(bytes, dirty, ui).writeObject(root);
	return bytes;
}

bool read(Root &root, const std::vector<unsigned char> &bytes, DirtySet *dirty = nullptr) {
	return Reader(cbor::TaggedCborWalker(bytes.data(), bytes.data() + bytes.size()), dirty).readObject(root);
}

} // namespace

// A whole write lists every field in order, texts included; uiState() only when asked.
TEST(ObjectStorage, WholeWriteRoundTripsThroughAFreshObject) {
	Root a;
	EXPECT_EQ(diagnostic(write(a)),
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
	EXPECT_EQ(diagnostic(write(root, &dirty)), "{_ \"group\": {_ \"gain\": {_ \"value\": 1.0}}}");
	DirtySet none;
	EXPECT_EQ(diagnostic(write(root, &none)), "{_ }");
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
	EXPECT_EQ(diagnostic(write(root, &rowsDirty)), "{_ \"rows\": {_ 1: 85(h'0000004000004040')}}");
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
