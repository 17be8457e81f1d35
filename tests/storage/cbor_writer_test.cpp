#include "storage/cbor_writer.h"
#include "storage/cbor_diagnostic.h"
#include "storage/rfc8949_examples.h"
#include "storage/tagged_cbor_walker.h"

#include "support/alloc_counter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

using varkesh::cbor::CborType;
using varkesh::cbor::CborWalker;
using varkesh::cbor::CborWriter;
using varkesh::cbor::TaggedCborWalker;
using lumbrel_test::diagnostic;
using lumbrel_test::hexBytes;
using lumbrel_test::walkerOn;

namespace {

template<class Fn>
std::vector<unsigned char> written(Fn &&fn) {
	std::vector<unsigned char> bytes;
	CborWriter writer(bytes);
	fn(writer);
	return bytes;
}

// Every boundary of the head's five forms, and the major type in the top bits.
TEST(CborWriter, HeadsTakeTheShortestForm) {
	const struct {
		unsigned char major;
		unsigned long long argument;
		const char *hex;
	} cases[] = {
		{0, 0, "00"},
		{0, 23, "17"},
		{0, 24, "1818"},
		{0, 255, "18ff"},
		{0, 256, "190100"},
		{0, 65535, "19ffff"},
		{0, 65536, "1a00010000"},
		{0, 0xFFFFFFFFull, "1affffffff"},
		{0, 0x100000000ull, "1b0000000100000000"},
		{0, UINT64_MAX, "1bffffffffffffffff"},
		{1, 0, "20"}, // the integer -1
		{2, 4, "44"},
		{3, 23, "77"},
		{3, 24, "7818"},
		{4, 25, "9819"},
		{5, 1, "a1"},
		{6, 85, "d855"},
		{7, 21, "f5"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.hex);
		EXPECT_EQ(written([&](CborWriter &w) { w.writeHead(c.major, c.argument); }), hexBytes(c.hex));
	}
}

TEST(CborWriter, SmallValuesAsTheyStandOnTheWire) {
	EXPECT_EQ(written([](CborWriter &w) { w.addFloat(1.0); }), hexBytes("fb3ff0000000000000")); // never a shorter form
	EXPECT_EQ(written([](CborWriter &w) { w.addFloat(1.1f); }), hexBytes("fb3ff19999a0000000")); // a float's exact double
	EXPECT_EQ(written([](CborWriter &w) { w.addInt(-1); }), hexBytes("20"));
	EXPECT_EQ(written([](CborWriter &w) { w.addInt(-1000); }), hexBytes("3903e7"));
	EXPECT_EQ(written([](CborWriter &w) { w.addInt(INT64_MIN); }), hexBytes("3b7fffffffffffffff"));
	EXPECT_EQ(written([](CborWriter &w) { w.addInt(INT64_MAX); }), hexBytes("1b7fffffffffffffff"));
	EXPECT_EQ(written([](CborWriter &w) { w.addBool(false); w.addBool(true); }), hexBytes("f4f5"));
	EXPECT_EQ(written([](CborWriter &w) { w.addText("IETF"); }), hexBytes("6449455446"));
	EXPECT_EQ(written([](CborWriter &w) { w.addText(std::string(24, 'a')); }).size(), 2u + 24u);
	EXPECT_EQ(written([](CborWriter &w) { w.addBytes("\x01\x02", 2); }), hexBytes("420102"));
	EXPECT_EQ(written([](CborWriter &w) { w.openMap(); w.openArray(); w.addBreak(); w.addBreak(); }), hexBytes("bf9fffff"));
}

TEST(CborWriter, TypedArraysOfFloats) {
	const float one = 1.0f;
	EXPECT_EQ(written([](CborWriter &w) { w.addTypedArray(nullptr, 0, false); }), hexBytes("d85540"));
	EXPECT_EQ(written([&](CborWriter &w) { w.addTypedArray(&one, 1, false); }), hexBytes("d855440000803f"));
	EXPECT_EQ(written([&](CborWriter &w) { w.addTypedArray(&one, 1, true); }), hexBytes("d851443f800000"));

	// Both byte orders read back bit for bit, NaN payload and -0 included.
	std::vector<float> values = {0.0f, -0.0f, 1.5f, -3.25e-38f, 1e-45f, std::numeric_limits<float>::infinity()};
	const std::uint32_t payloadNaN = 0x7fc12345;
	values.push_back(0);
	std::memcpy(&values.back(), &payloadNaN, 4);
	for (bool bigEndian : {false, true}) {
		SCOPED_TRACE(bigEndian);
		const auto bytes = written([&](CborWriter &w) { w.addTypedArray(values.data(), values.size(), bigEndian); });
		EXPECT_EQ(bytes.size(), 2 + 2 + 4 * values.size()); // tag, head of a 28-byte string, floats
		std::vector<float> back(values.size());
		EXPECT_EQ(TaggedCborWalker(bytes.data(), bytes.data() + bytes.size()).readTypedArray(back, 0, back.size()), values.size());
		EXPECT_EQ(std::memcmp(back.data(), values.data(), 4 * values.size()), 0);
	}
}

// Every example of RFC 8949 Appendix A that has no float is already in the
// shortest form, so copying it through the writer gives the same bytes.
TEST(CborWriterRoundTrip, RfcExamplesComeBackByteForByte) {
	for (const auto &example : lumbrel_test::rfcExamples()) {
		SCOPED_TRACE(example.hex);
		bool ok = false;
		EXPECT_EQ(lumbrel_test::reencoded(hexBytes(example.hex), &ok), hexBytes(example.hex));
		EXPECT_TRUE(ok);
	}
}

// The RFC's floats go out as 64-bit floats and read back as the same numbers.
TEST(CborWriterRoundTrip, RfcFloatsComeBackAsTheSameNumbers) {
	for (const char *hex : {"fb3ff199999999999a", "fa47c35000", "fa7f7fffff", "fb7e37e43c8800759c",
							"fbc010666666666666", "fa7f800000", "fa7fc00000", "faff800000", "fb7ff0000000000000",
							"fb7ff8000000000000", "fbfff0000000000000", "c1fb41d452d9ec200000"}) {
		SCOPED_TRACE(hex);
		const auto original = hexBytes(hex);
		bool ok = false;
		const auto copy = lumbrel_test::reencoded(original, &ok);
		EXPECT_TRUE(ok);
		EXPECT_EQ(diagnostic(copy), diagnostic(original));
		TaggedCborWalker item(copy.data(), copy.data() + copy.size());
		EXPECT_EQ(item.type, CborType::Float64);
		EXPECT_EQ(copy.size(), item.tagCount ? 10u : 9u);
	}
}

// What the storage and the page protocol write: nested indefinite maps,
// integers at their limits, floats, text, typed arrays, tags and a definite
// array of typed arrays, all read back with the walker.
TEST(CborWriterRoundTrip, NestedMessageReadsBack) {
	const float row[3] = {0.5f, -2.0f, 1e-3f};
	std::vector<unsigned char> bytes;
	CborWriter writer(bytes);
	writer.openMap();
	writer.addText("name");
	writer.addText("Lumbrel: Pitch Shifter");
	writer.addText("engineConfig");
	writer.openMap();
	writer.addText("latencyMs");
	writer.openMap();
	writer.addText("value");
	writer.addFloat(10.0);
	writer.addBreak();
	writer.addText("iterationsLog2");
	writer.openMap();
	writer.addText("value");
	writer.addInt(-3);
	writer.addBreak();
	writer.addBreak();
	writer.addText("limits");
	writer.writeHead(4, 4);
	writer.addInt(INT64_MIN);
	writer.addInt(INT64_MAX);
	writer.writeHead(0, UINT64_MAX);
	writer.addFloat(std::numeric_limits<double>::denorm_min());
	writer.addText("energy");
	writer.writeHead(4, 2);
	writer.addTypedArray(row, 3, false);
	writer.addTypedArray(row, 0, false);
	writer.addText("gesture");
	writer.addBool(true);
	writer.addText("when");
	writer.addTag(1);
	writer.addInt(1363896240);
	writer.addBreak();

	EXPECT_EQ(diagnostic(bytes),
			  "{_ \"name\": \"Lumbrel: Pitch Shifter\", "
			  "\"engineConfig\": {_ \"latencyMs\": {_ \"value\": 10.0}, \"iterationsLog2\": {_ \"value\": -3}}, "
			  "\"limits\": [-9223372036854775808, 9223372036854775807, 18446744073709551615, 5e-324], "
			  "\"energy\": [85(h'0000003f000000c06f12833a'), 85(h'')], \"gesture\": true, \"when\": 1(1363896240)}");

	// The same values through the accessors the storage uses.
	std::vector<float> energy;
	std::int64_t iterations = 0;
	double latency = 0;
	TaggedCborWalker root(bytes.data(), bytes.data() + bytes.size());
	const CborWalker after = root.forEachPair([&](const TaggedCborWalker &key, const TaggedCborWalker &value) {
		if (key.textEquals("engineConfig")) {
			value.forEachPair([&](const TaggedCborWalker &param, const TaggedCborWalker &object) {
				object.forEachPair([&](const TaggedCborWalker &, const TaggedCborWalker &v) {
					if (param.textEquals("latencyMs")) latency = v.asDouble();
					if (param.textEquals("iterationsLog2")) iterations = v.asInteger();
				});
			});
		}
		if (key.textEquals("energy")) {
			value.forEach([&](const TaggedCborWalker &rowItem, std::size_t i) {
				if (i != 0) return;
				energy.resize(rowItem.value / 4);
				rowItem.readTypedArray(energy, 0, energy.size());
			});
		}
	});
	EXPECT_EQ(after.begin, bytes.data() + bytes.size());
	EXPECT_EQ(latency, 10.0);
	EXPECT_EQ(iterations, -3);
	EXPECT_EQ(energy, std::vector<float>(row, row + 3));
}

TEST(CborWriterRoundTrip, IntegersAndDoublesKeepTheirValues) {
	for (std::int64_t v : {std::int64_t(0), std::int64_t(-1), std::int64_t(23), std::int64_t(-24), std::int64_t(-25),
						   std::int64_t(255), std::int64_t(-256), std::int64_t(-257), std::int64_t(65536),
						   std::int64_t(-4294967296), std::int64_t(-4294967297), INT64_MIN, INT64_MAX}) {
		SCOPED_TRACE(v);
		const auto bytes = written([&](CborWriter &w) { w.addInt(v); });
		EXPECT_EQ(walkerOn(bytes).asInteger(), v);
		EXPECT_EQ(walkerOn(bytes).next().begin, bytes.data() + bytes.size());
	}
	for (double v : {0.0, -0.0, 0.1, -1e-310, 1.7976931348623157e308, 3.4028234663852886e+38, double(0.1f)}) {
		SCOPED_TRACE(v);
		const auto bytes = written([&](CborWriter &w) { w.addFloat(v); });
		const double back = walkerOn(bytes).asDouble();
		EXPECT_EQ(std::memcmp(&back, &v, sizeof v), 0);
	}
}

TEST(CborWriter, ReservedVectorTakesNoAllocation) {
	if (!lumbrel_test::allocationCountingAvailable()) GTEST_SKIP() << "allocations aren't counted in this build";
	const float row[64] = {};
	std::vector<unsigned char> bytes;
	bytes.reserve(1024);
	lumbrel_test::AllocationScope scope;
	CborWriter writer(bytes);
	writer.writeHead(4, 2);
	writer.addText("meters");
	writer.openMap();
	writer.addText("energy");
	writer.addTypedArray(row, 64, false);
	writer.addFloat(0.25);
	writer.addBreak();
	EXPECT_EQ(scope.count(), 0u);
	EXPECT_EQ(bytes.capacity(), 1024u);
}

} // namespace
