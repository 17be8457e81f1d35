#include "storage/cbor_walker.h"
#include "storage/cbor_diagnostic.h"
#include "storage/rfc8949_examples.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

using varkesh::cbor::CborType;
using varkesh::cbor::CborWalker;
namespace cborError = varkesh::cbor::error;
using lumbrel_test::diagnostic;
using lumbrel_test::hexBytes;
using lumbrel_test::walkerOn;

namespace {

// Where the walker says the first item of `bytes` ends, as a byte count.
std::ptrdiff_t itemLength(const std::vector<unsigned char> &bytes) {
	CborWalker after = walkerOn(bytes).next();
	if (after.isError() && after.value != cborError::pastEnd) return -1;
	return after.begin - bytes.data();
}

struct IntegerCase {
	const char *hex;
	CborType type;
	std::uint64_t value;
	std::int64_t asInteger;
	double asDouble;
};

// RFC 8949 Appendix A: every integer, including the two that only fit as n
// of major type 0 or 1.
TEST(CborWalkerRfc, IntegersReadWithTheirValue) {
	const IntegerCase cases[] = {
		{"00", CborType::Unsigned, 0, 0, 0.0},
		{"01", CborType::Unsigned, 1, 1, 1.0},
		{"0a", CborType::Unsigned, 10, 10, 10.0},
		{"17", CborType::Unsigned, 23, 23, 23.0},
		{"1818", CborType::Unsigned, 24, 24, 24.0},
		{"1819", CborType::Unsigned, 25, 25, 25.0},
		{"1864", CborType::Unsigned, 100, 100, 100.0},
		{"1903e8", CborType::Unsigned, 1000, 1000, 1000.0},
		{"1a000f4240", CborType::Unsigned, 1000000, 1000000, 1e6},
		{"1b000000e8d4a51000", CborType::Unsigned, 1000000000000, 1000000000000, 1e12},
		// 2^64 - 1 is kept whole in `value`; as an integer it is its 64-bit pattern.
		{"1bffffffffffffffff", CborType::Unsigned, UINT64_MAX, -1, 18446744073709551615.0},
		// -2^64 = -1 - (2^64 - 1): no 64-bit integer holds it, the double does.
		{"3bffffffffffffffff", CborType::Negative, UINT64_MAX, 0, -18446744073709551616.0},
		{"20", CborType::Negative, 0, -1, -1.0},
		{"29", CborType::Negative, 9, -10, -10.0},
		{"3863", CborType::Negative, 99, -100, -100.0},
		{"3903e7", CborType::Negative, 999, -1000, -1000.0},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.hex);
		const auto bytes = hexBytes(c.hex);
		const CborWalker w = walkerOn(bytes);
		EXPECT_EQ(w.type, c.type);
		EXPECT_EQ(w.value, c.value);
		EXPECT_EQ(w.asInteger(), c.asInteger);
		EXPECT_EQ(w.asDouble(), c.asDouble);
		EXPECT_EQ(itemLength(bytes), std::ptrdiff_t(bytes.size()));
	}
}

TEST(CborWalkerRfc, SingleAndDoubleFloatsKeepTheirBits) {
	const double inf = std::numeric_limits<double>::infinity();
	const struct {
		const char *hex;
		CborType type;
		double value;
	} cases[] = {
		{"fb3ff199999999999a", CborType::Float64, 1.1},
		{"fa47c35000", CborType::Float32, 100000.0},
		{"fa7f7fffff", CborType::Float32, 3.4028234663852886e+38},
		{"fb7e37e43c8800759c", CborType::Float64, 1.0e+300},
		{"fbc010666666666666", CborType::Float64, -4.1},
		{"fa7f800000", CborType::Float32, inf},
		{"faff800000", CborType::Float32, -inf},
		{"fb7ff0000000000000", CborType::Float64, inf},
		{"fbfff0000000000000", CborType::Float64, -inf},
		{"c1fb41d452d9ec200000", CborType::Tag, 0.0}, // 1(1363896240.5): the tag, read as a number, is 0.0
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.hex);
		const auto bytes = hexBytes(c.hex);
		const CborWalker w = walkerOn(bytes);
		EXPECT_EQ(w.type, c.type);
		EXPECT_EQ(w.asDouble(), c.value);
		EXPECT_EQ(itemLength(bytes), std::ptrdiff_t(bytes.size()));
	}
	const auto tagged = hexBytes("c1fb41d452d9ec200000");
	EXPECT_EQ(CborWalker(tagged.data() + 1, tagged.data() + tagged.size()).asDouble(), 1363896240.5);

	for (const char *hex : {"fa7fc00000", "fb7ff8000000000000"}) {
		SCOPED_TRACE(hex);
		const auto bytes = hexBytes(hex);
		EXPECT_TRUE(std::isnan(walkerOn(bytes).asDouble()));
		EXPECT_EQ(walkerOn(bytes).asInteger(), 0);
	}
	// The raw bits stay in `value`.
	const auto single = hexBytes("fa47c35000");
	EXPECT_EQ(walkerOn(single).value, 0x47c35000u);
}

// 16-bit floats are walked over by their exact length, but not decoded: they
// read as Simple 0, so F9 3C 00 is not 1.0.
TEST(CborWalkerRfc, HalfFloatsAreSteppedOverUndecoded) {
	for (const char *hex : {"f90000", "f98000", "f93c00", "f93e00", "f97bff", "f90001", "f90400", "f9c400", "f97c00",
							"f97e00", "f9fc00"}) {
		SCOPED_TRACE(hex);
		const auto bytes = hexBytes(hex);
		const CborWalker w = walkerOn(bytes);
		EXPECT_EQ(w.type, CborType::Simple);
		EXPECT_EQ(w.value, 0u);
		EXPECT_EQ(w.asDouble(), 0.0);
		EXPECT_EQ(itemLength(bytes), 3);
	}
	// In an array, the item after a half float is found.
	EXPECT_EQ(diagnostic(hexBytes("83 f93c00 01 f97e00")), "[simple(0), 1, simple(0)]");
}

// Every example without a float: what the walker sees, through next(),
// forEach and forEachPair, must be the RFC's diagnostic notation, and next()
// must end exactly after the item.
TEST(CborWalkerRfc, ExamplesMatchTheirDiagnosticNotation) {
	for (const auto &example : lumbrel_test::rfcExamples()) {
		SCOPED_TRACE(example.hex);
		const auto bytes = hexBytes(example.hex);
		EXPECT_EQ(diagnostic(bytes), example.diagnostic);
		EXPECT_EQ(itemLength(bytes), std::ptrdiff_t(bytes.size()));
	}
}

// Strings are views into the caller's bytes; read as a number they give
// their length.
TEST(CborWalkerRfc, StringsAreViewedInPlace) {
	const auto bytes = hexBytes("64f0908591");
	const CborWalker w = walkerOn(bytes);
	EXPECT_EQ(w.type, CborType::Utf8);
	EXPECT_EQ(w.stringView().data(), reinterpret_cast<const char *>(bytes.data() + 1));
	EXPECT_EQ(w.stringView().size(), 4u);
	EXPECT_EQ(w.asInteger(), 4);
	EXPECT_TRUE(w.textEquals("\xf0\x90\x85\x91"));
}

TEST(CborWalker, ForEachIndexesChildrenAndPicksKeysOrValues) {
	const auto bytes = hexBytes("bf 6161 01 6162 820203 ff"); // {_ "a": 1, "b": [2, 3]}
	std::vector<std::string> keys, values;
	std::vector<std::size_t> indices;
	walkerOn(bytes).forEach([&](const CborWalker &key, std::size_t i) {
		keys.push_back(diagnostic(key));
		indices.push_back(i);
	});
	walkerOn(bytes).forEach([&](const CborWalker &value, std::size_t) { values.push_back(diagnostic(value)); }, true);
	EXPECT_EQ(keys, (std::vector<std::string>{"\"a\"", "\"b\""}));
	EXPECT_EQ(values, (std::vector<std::string>{"1", "[2, 3]"}));
	EXPECT_EQ(indices, (std::vector<std::size_t>{0, 1}));
}

// The edge cases of a hostile or broken buffer. Each must end in the stated
// error without reading outside `bytes` (the sanitizer build checks that) and
// without running on.
TEST(CborWalkerMalformed, ErrorsCarryTheirCode) {
	std::vector<unsigned char> empty;
	const CborWalker none = walkerOn(empty);
	EXPECT_TRUE(none.isError());
	EXPECT_EQ(none.value, cborError::pastEnd);
	EXPECT_TRUE(none.next().isError());
	EXPECT_EQ(none.next().value, cborError::pastEnd);

	const struct {
		const char *hex;
		std::uint64_t code;
	} heads[] = {
		{"1f", 31}, {"3f", 31}, {"df", 31}, // indefinite integer or tag
		{"1c", 28}, {"1d", 29}, {"3e", 30}, {"fc", 28}, // reserved additional information
	};
	for (const auto &c : heads) {
		SCOPED_TRACE(c.hex);
		const auto bytes = hexBytes(c.hex);
		EXPECT_EQ(walkerOn(bytes).type, CborType::Error);
		EXPECT_EQ(walkerOn(bytes).value, c.code);
		EXPECT_EQ(walkerOn(bytes).next().value, c.code); // an error's next() is itself
	}

	const auto lone = hexBytes("ff");
	EXPECT_EQ(walkerOn(lone).type, CborType::Break);
	EXPECT_FALSE(walkerOn(lone).isError());
}

// diagnostic() shows where forEach and forEachPair stop; `next` is what
// next() gives, a trailing 00 standing for the item after a walk that succeeds.
TEST(CborWalkerMalformed, WalksEndInTheRightError) {
	const struct {
		const char *hex;
		const char *diagnostic;
		const char *next;
	} cases[] = {
		// A head whose argument bytes pass the end.
		{"19 01", "error(1)", "error(1)"},
		{"fb 3ff0", "error(1)", "error(1)"},
		// A string longer than the buffer: a normal walker, whose next() fails.
		{"65 6162", "error(1)", "error(1)"},
		{"5b ffffffffffffffff 00", "error(1)", "error(1)"},
		// Counts that claim more than the buffer holds.
		{"83 01 02", "[1, 2] error(1)", "error(1)"},
		{"9b ffffffffffffffff 01", "[1] error(1)", "error(1)"},
		{"bb 7fffffffffffffff 01 02", "{1: 2} error(1)", "error(1)"},
		// Indefinite items that run off the end.
		{"9f 01 02", "[_ 1, 2] error(1)", "error(1)"},
		{"bf 6161 01", "{_ \"a\": 1} error(1)", "error(1)"},
		{"5f 4101", "(_ h'01') error(1)", "error(1)"},
		// A Break where a map value should stand: the pair walk refuses it,
		// next() steps over it as an item.
		{"bf 6161 ff ff 00", "{_ } error(3)", "0"},
		{"a1 01 ff 00", "{1: break}", "0"},
		// A text chunk in an indefinite byte string.
		{"5f 4101 6161 ff", "(_ h'01') error(3)", "error(4)"},
		// An error inside a container ends the walk at once.
		{"82 1c 01", "[] error(28)", "error(28)"},
		{"82 01 3f", "[1] error(31)", "error(31)"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.hex);
		const auto bytes = hexBytes(c.hex);
		EXPECT_EQ(diagnostic(bytes), c.diagnostic);
		EXPECT_EQ(diagnostic(walkerOn(bytes).next()), c.next);
	}
}

// An error stands where the fault is: a cut-off item reports its own head,
// the innermost one, and only a complete last item leads to the plain end.
TEST(CborWalkerMalformed, CutItemsReportWhereTheyStart) {
	const struct {
		const char *hex;
		std::ptrdiff_t errorAt; // -1: next() is the plain end of the buffer
	} cases[] = {
		{"82 01 02", -1},
		{"82 01 83 02", 2},
		{"9f 01", 0},
		{"9f 01 9f 02 ff", 0},
		{"9f 01 9f 02", 2},
		{"a1 01", 0},
		{"bf 6161", 0},
		{"5f 4101", 0},
		{"c1", 0},
		{"c1 c2 65 6162", 2},
		{"d855 48 0000803f", 2},
		{"19 01", 0},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.hex);
		const auto bytes = hexBytes(c.hex);
		const CborWalker after = walkerOn(bytes).next();
		EXPECT_EQ(after.value, cborError::pastEnd);
		if (c.errorAt < 0) {
			EXPECT_TRUE(after.atBufferEnd());
		} else {
			EXPECT_FALSE(after.atBufferEnd());
			EXPECT_EQ(after.begin, bytes.data() + c.errorAt);
		}
	}
}

TEST(CborWalkerMalformed, ForEachPairOnlyWalksMaps) {
	int calls = 0;
	for (const char *hex : {"83010203", "9f01ff", "01", "6161", "5f4101ff"}) {
		SCOPED_TRACE(hex);
		const auto bytes = hexBytes(hex);
		const CborWalker result = walkerOn(bytes).forEachPair([&](const CborWalker &, const CborWalker &) { ++calls; });
		EXPECT_EQ(result.type, CborType::Error);
		EXPECT_EQ(result.value, cborError::notContainer);
	}
	for (const char *hex : {"01", "6161", "4101", "c101", "f5", "fa00000000", "ff"}) {
		SCOPED_TRACE(hex);
		const auto bytes = hexBytes(hex);
		EXPECT_EQ(walkerOn(bytes).forEach([&](const CborWalker &, std::size_t) { ++calls; }).value,
				  cborError::notContainer);
	}
	EXPECT_EQ(calls, 0);
}

// Nesting is bounded so that next() can't exhaust the stack: maxDepth levels
// of containers are stepped over, one more is an error, and a million levels
// end in the same error rather than a crash.
TEST(CborWalkerMalformed, NestingDepthIsBounded) {
	using Maker = std::vector<unsigned char> (*)(std::size_t);
	const Maker arrays = [](std::size_t levels) { // [[[...[0]...]]]
		std::vector<unsigned char> b(levels, 0x81);
		b.push_back(0x00);
		return b;
	};
	const Maker indefinite = [](std::size_t levels) { // [_ [_ ...[_ 0]...]]
		std::vector<unsigned char> b(levels, 0x9f);
		b.push_back(0x00);
		b.insert(b.end(), levels, 0xff);
		return b;
	};
	const Maker maps = [](std::size_t levels) { // {{...{0: 0}...: 0}: 0}, nesting through the keys
		std::vector<unsigned char> b(levels, 0xa1);
		b.insert(b.end(), levels + 1, 0x00);
		return b;
	};
	for (Maker make : {arrays, indefinite, maps}) {
		auto deepest = make(CborWalker::maxDepth);
		deepest.push_back(0x07);
		const CborWalker after = walkerOn(deepest).next();
		EXPECT_EQ(after.type, CborType::Unsigned);
		EXPECT_EQ(after.value, 7u);
		EXPECT_EQ(walkerOn(make(CborWalker::maxDepth + 1)).next().value, cborError::tooDeep);
		EXPECT_EQ(walkerOn(make(1000000)).next().value, cborError::tooDeep);
	}
}

// A tag chain is skipped without recursion, however long.
TEST(CborWalkerMalformed, LongTagChainsEnd) {
	std::vector<unsigned char> bytes(1000000, 0xc1);
	bytes.push_back(0x05);
	bytes.push_back(0x06);
	const CborWalker after = walkerOn(bytes).next();
	EXPECT_EQ(after.type, CborType::Unsigned);
	EXPECT_EQ(after.value, 6u);

	std::vector<unsigned char> unfinished(1000, 0xd8); // each tag head wants one more byte
	EXPECT_TRUE(walkerOn(unfinished).next().isError());
}

TEST(CborWalkerRead, NumbersAndStrings) {
	// Floats truncate toward zero; beyond the 64-bit range they saturate.
	const struct {
		const char *hex;
		std::int64_t asInteger;
	} cases[] = {
		{"fb4005ae147ae147ae", 2}, // 2.71
		{"fbc005ae147ae147ae", -2}, // -2.71
		{"fa3f800000", 1},
		{"fb7e37e43c8800759c", INT64_MAX}, // 1e300
		{"fbfe37e43c8800759c", INT64_MIN}, // -1e300
		{"fbc3e0000000000000", INT64_MIN}, // -2^63 exactly
		{"9f01ff", 0}, // indefinite items and Break read as 0
		{"ff", 0},
		{"83010203", 3}, // a definite container reads as its count
		{"c1 01", 1}, // a tag reads as its number
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.hex);
		const auto bytes = hexBytes(c.hex);
		EXPECT_EQ(walkerOn(bytes).asInteger(), c.asInteger);
	}
	for (const char *hex : {"f5", "6161", "83010203", "9f01ff", "ff", "1c"}) {
		SCOPED_TRACE(hex);
		EXPECT_EQ(walkerOn(hexBytes(hex)).asDouble(), 0.0);
	}
}

TEST(CborWalkerRead, TextEqualsJoinsChunks) {
	const auto chunked = hexBytes("7f657374726561646d696e67ff"); // (_ "strea", "ming")
	const CborWalker w = walkerOn(chunked);
	EXPECT_TRUE(w.textEquals("streaming"));
	EXPECT_FALSE(w.textEquals("stream"));
	EXPECT_FALSE(w.textEquals("streamingX"));
	EXPECT_FALSE(w.textEquals("streamink"));

	const auto plain = hexBytes("6449455446");
	EXPECT_TRUE(walkerOn(plain).textEquals("IETF"));
	EXPECT_FALSE(walkerOn(plain).textEquals("IET"));
	EXPECT_FALSE(walkerOn(plain).textEquals(std::string_view("IETF\0", 5)));

	EXPECT_FALSE(walkerOn(hexBytes("4449455446")).textEquals("IETF")); // bytes aren't text
	EXPECT_FALSE(walkerOn(hexBytes("7f6449455446")).textEquals("IETF")); // no Break
	EXPECT_FALSE(walkerOn(hexBytes("7f4449455446ff")).textEquals("IETF")); // byte chunk
	const auto cut = hexBytes("65494554");
	EXPECT_FALSE(walkerOn(cut).textEquals("IET")); // length passes the end
	EXPECT_TRUE(walkerOn(cut).stringView().empty());
}

} // namespace
