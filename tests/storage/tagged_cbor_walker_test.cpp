#include "storage/tagged_cbor_walker.h"
#include "storage/cbor_diagnostic.h"

#include "support/alloc_counter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

using varkesh::cbor::CborType;
using varkesh::cbor::CborWalker;
using varkesh::cbor::TaggedCborWalker;
using lumbrel_test::hexBytes;

namespace {

TaggedCborWalker taggedOn(const std::vector<unsigned char> &bytes) {
	return TaggedCborWalker(bytes.data(), bytes.data() + bytes.size());
}

// An RFC 8746 typed array: tag, byte string head, then the elements, each
// given most significant byte first and reversed when the tag says
// little-endian (bit 2 set) and the element is wider than a byte.
std::vector<unsigned char> typedArray(unsigned tag, std::size_t elementSize, const char *bigEndianHex) {
	std::vector<unsigned char> elements = hexBytes(bigEndianHex);
	if ((tag & 4) && elementSize > 1) {
		for (std::size_t i = 0; i + elementSize <= elements.size(); i += elementSize)
			std::reverse(elements.begin() + i, elements.begin() + i + elementSize);
	}
	std::vector<unsigned char> bytes = {0xd8, static_cast<unsigned char>(tag)};
	if (elements.size() < 24) {
		bytes.push_back(static_cast<unsigned char>(0x40 + elements.size()));
	} else {
		bytes.push_back(0x58);
		bytes.push_back(static_cast<unsigned char>(elements.size()));
	}
	bytes.insert(bytes.end(), elements.begin(), elements.end());
	return bytes;
}

TEST(TaggedCborWalker, ConsumesTheTagsInFront) {
	const auto plain = hexBytes("01");
	EXPECT_EQ(taggedOn(plain).tagCount, 0u);
	EXPECT_EQ(taggedOn(plain).taggedBegin, plain.data());

	const auto epoch = hexBytes("c11a514b67b0"); // 1(1363896240)
	const TaggedCborWalker t = taggedOn(epoch);
	EXPECT_EQ(t.type, CborType::Unsigned);
	EXPECT_EQ(t.value, 1363896240u);
	EXPECT_EQ(t.tagCount, 1u);
	EXPECT_EQ(t.typedArrayTag, 0);
	EXPECT_EQ(t.taggedBegin, epoch.data());
	EXPECT_EQ(t.begin, epoch.data() + 1);

	// Only a typed-array tag (64 to 86) is kept, and only the outermost of a chain.
	const struct {
		const char *hex;
		int typedArrayTag;
	} cases[] = {
		{"d840 40", 64}, {"d856 40", 86}, {"d83f 40", 0}, {"d857 40", 0}, // 87, 128-bit floats: not kept
		{"d855 c1 40", 85}, // 85(1(h''))
		{"c1 d855 40", 0}, // 1(85(h''))
		{"d851 d855 40", 81},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.hex);
		const auto bytes = hexBytes(c.hex);
		const TaggedCborWalker w = taggedOn(bytes);
		EXPECT_EQ(w.type, CborType::Bytes);
		EXPECT_EQ(w.typedArrayTag, c.typedArrayTag);
		EXPECT_EQ(w.tagCount, 1u);
		EXPECT_EQ(w.begin, bytes.data() + bytes.size() - 1);
	}

	// A tag with nothing behind it, and a chain far longer than any stack.
	const auto bare = hexBytes("c1");
	EXPECT_TRUE(taggedOn(bare).isError());
	std::vector<unsigned char> chain(1000000, 0xc1);
	chain.push_back(0x05);
	EXPECT_EQ(taggedOn(chain).type, CborType::Unsigned);
	EXPECT_EQ(taggedOn(chain).value, 5u);
}

TEST(TaggedCborWalker, ChildrenComeWithTagsConsumed) {
	const auto array = hexBytes("82 d855 440000803f c102"); // [85(h'0000803f'), 1(2)]
	std::vector<TaggedCborWalker> items;
	const CborWalker after = taggedOn(array).forEach([&](const TaggedCborWalker &item, std::size_t) { items.push_back(item); });
	EXPECT_EQ(after.begin, array.data() + array.size());
	ASSERT_EQ(items.size(), 2u);
	EXPECT_EQ(items[0].typedArrayTag, 85);
	float one = 0;
	EXPECT_EQ(items[0].readTypedArray(&one, 0, 1), 1u);
	EXPECT_EQ(one, 1.0f);
	EXPECT_EQ(items[1].type, CborType::Unsigned);
	EXPECT_EQ(items[1].tagCount, 1u);

	const auto map = hexBytes("a1 c16161 d85540"); // {1("a"): 85(h'')}
	int pairs = 0;
	taggedOn(map).forEachPair([&](const TaggedCborWalker &key, const TaggedCborWalker &value) {
		++pairs;
		EXPECT_TRUE(key.textEquals("a"));
		EXPECT_EQ(key.tagCount, 1u);
		EXPECT_EQ(value.type, CborType::Bytes);
		EXPECT_EQ(value.typedArrayTag, 85);
	});
	EXPECT_EQ(pairs, 1);
	taggedOn(map).forEach([&](const TaggedCborWalker &value, std::size_t) { EXPECT_EQ(value.typedArrayTag, 85); }, true);
}

struct TypedCase {
	unsigned tag; // the big-endian tag; tag | 4 is read as well
	std::size_t elementSize;
	const char *bigEndianHex;
	std::vector<double> expected;
};

// Every integer and float kind that the reader supports, each in both byte
// orders (for 8-bit kinds: 64 and the clamped 68, 72 and 76), read by value.
TEST(TypedArrays, EveryKindReadsTheSameInBothByteOrders) {
	const double inf = std::numeric_limits<double>::infinity();
	const TypedCase cases[] = {
		{64, 1, "01 02 ff", {1, 2, 255}},
		{65, 2, "0001 1234 ffff", {1, 0x1234, 65535}},
		{66, 4, "00000001 deadbeef", {1, 3735928559.0}},
		{67, 8, "0000000000000001 0000010000000000", {1, 1099511627776.0}},
		{72, 1, "ff 80 7f", {-1, -128, 127}},
		{73, 2, "fffe 012c", {-2, 300}},
		{74, 4, "ffffffff 00010000", {-1, 65536}},
		{75, 8, "ffffffffffffffff 0000000000000003", {-1, 3}}, // an integer 3 becomes 3.0, not a scaled value
		{81, 4, "3fc00000 be800000 7f800000", {1.5, -0.25, inf}},
		{82, 8, "3ff8000000000000 bfd0000000000000 7ff0000000000000", {1.5, -0.25, inf}},
	};
	for (const auto &c : cases) {
		for (unsigned tag : {c.tag, c.tag | 4}) {
			SCOPED_TRACE(tag);
			const auto bytes = typedArray(tag, c.elementSize, c.bigEndianHex);
			std::vector<double> values(c.expected.size() + 1, -7.0);
			EXPECT_EQ(taggedOn(bytes).readTypedArray(values, 0, values.size()), c.expected.size());
			values.pop_back();
			EXPECT_EQ(values, c.expected);
		}
	}
	// Wider integers keep every bit in an integer array.
	const auto wide = typedArray(71, 8, "0102030405060708 8000000000000000");
	std::vector<std::uint64_t> words(2);
	EXPECT_EQ(taggedOn(wide).readTypedArray(words, 0, 2), 2u);
	EXPECT_EQ(words, (std::vector<std::uint64_t>{0x0102030405060708u, 0x8000000000000000u}));
}

TEST(TypedArrays, CountAndOffsetBoundTheCopy) {
	const auto bytes = typedArray(85, 4, "3f800000 40000000 40400000 40800000"); // 1, 2, 3, 4
	const TaggedCborWalker w = taggedOn(bytes);
	std::vector<float> out(6, -1.0f);

	EXPECT_EQ(w.readTypedArray(out, 0, 2), 2u); // maxCount below the element count
	EXPECT_EQ(out, (std::vector<float>{1, 2, -1, -1, -1, -1}));

	std::fill(out.begin(), out.end(), -1.0f);
	EXPECT_EQ(w.readTypedArray(out, 1, 6), 3u); // the destination starts at 0 whatever the offset
	EXPECT_EQ(out, (std::vector<float>{2, 3, 4, -1, -1, -1}));

	std::fill(out.begin(), out.end(), -1.0f);
	for (std::size_t offset : {std::size_t(4), std::size_t(5), std::numeric_limits<std::size_t>::max() / 2,
							   std::numeric_limits<std::size_t>::max()}) {
		SCOPED_TRACE(offset);
		EXPECT_EQ(w.readTypedArray(out, offset, 6), 0u);
	}
	EXPECT_EQ(out, std::vector<float>(6, -1.0f));

	// A partial last element is left out: 7 bytes of 16-bit words are 3 words.
	const auto odd = hexBytes("d845 47 0100 0200 0300 04");
	std::vector<int> shorts(4, -1);
	EXPECT_EQ(taggedOn(odd).readTypedArray(shorts, 0, 4), 3u);
	EXPECT_EQ(shorts, (std::vector<int>{1, 2, 3, -1}));

	// 8-bit kinds take the offset off the count like the wider ones, so the
	// copy stays inside the string.
	const auto small = typedArray(64, 1, "0a 0b 0c");
	std::vector<int> ints(4, -1);
	EXPECT_EQ(taggedOn(small).readTypedArray(ints, 2, 4), 1u);
	EXPECT_EQ(ints, (std::vector<int>{12, -1, -1, -1}));
	EXPECT_EQ(taggedOn(small).readTypedArray(ints, 4, 4), 0u);
}

TEST(TypedArrays, UnreadableArraysStoreNothing) {
	const std::vector<std::vector<unsigned char>> cases = {
		hexBytes("d850 42 3c00"), // 16-bit floats, big-endian
		hexBytes("d854 42 003c"), // 16-bit floats, little-endian
		hexBytes("d853 50 3fff0000000000000000000000000000"), // 128-bit floats
		hexBytes("d857 50 0000000000000000000000000000ff3f"), // 87: not remembered at all
		hexBytes("44 0000803f"), // no tag
		hexBytes("c1 44 0000803f"), // a tag that isn't a typed array
		hexBytes("d855 5f 440000803f ff"), // indefinite byte string
		hexBytes("d855 64 0000803f"), // a text string
		hexBytes("d855 48 0000803f"), // length passes the end of the buffer
		hexBytes("d855 5b ffffffffffffffff 0000803f"),
	};
	for (const auto &bytes : cases) {
		SCOPED_TRACE(lumbrel_test::diagnostic(bytes));
		std::vector<float> out(4, -1.0f);
		EXPECT_EQ(taggedOn(bytes).readTypedArray(out, 0, 4), 0u);
		EXPECT_EQ(out, std::vector<float>(4, -1.0f));
	}
}

TEST(TypedArrays, FloatsIntoIntegersSaturate) {
	// NaN, 1e10, -1e10, 2.9, -2.9
	const auto bytes = typedArray(81, 4, "7fc00000 501502f9 d01502f9 4039999a c039999a");
	std::vector<std::int32_t> out(5);
	EXPECT_EQ(taggedOn(bytes).readTypedArray(out, 0, 5), 5u);
	EXPECT_EQ(out, (std::vector<std::int32_t>{0, INT32_MAX, INT32_MIN, 2, -2}));
}

TEST(TypedArrays, ReadingAllocatesNothing) {
	if (!lumbrel_test::allocationCountingAvailable()) GTEST_SKIP() << "allocations aren't counted in this build";
	const auto bytes = hexBytes("bf 6161 d855 48 0000803f 00000040 6162 83 01 02 03 ff");
	std::vector<float> out(2);
	lumbrel_test::AllocationScope scope;
	std::size_t read = 0;
	taggedOn(bytes).forEachPair([&](const TaggedCborWalker &key, const TaggedCborWalker &value) {
		if (key.textEquals("a")) read = value.readTypedArray(out, 0, out.size());
		value.forEach([](const TaggedCborWalker &, std::size_t) {});
	});
	EXPECT_EQ(scope.count(), 0u);
	EXPECT_EQ(read, 2u);
	EXPECT_EQ(out, (std::vector<float>{1, 2}));
}

} // namespace
