#pragma once
// The examples of RFC 8949 Appendix A that hold no float, with their
// diagnostic notation as lumbrel_test::diagnostic() prints it (the RFC's own,
// text shown as its UTF-8 bytes). The floats are tested by value instead.
#include <string>
#include <vector>

namespace lumbrel_test {

struct RfcExample {
	const char *hex;
	std::string diagnostic;
};

inline std::string oneToTwentyFive() {
	std::string s;
	for (int i = 1; i <= 25; ++i) s += (i > 1 ? ", " : "") + std::to_string(i);
	return s;
}

inline const std::vector<RfcExample> &rfcExamples() {
	static const std::vector<RfcExample> examples = {
		{"00", "0"},
		{"01", "1"},
		{"0a", "10"},
		{"17", "23"},
		{"1818", "24"},
		{"1819", "25"},
		{"1864", "100"},
		{"1903e8", "1000"},
		{"1a000f4240", "1000000"},
		{"1b000000e8d4a51000", "1000000000000"},
		{"1bffffffffffffffff", "18446744073709551615"},
		{"c249010000000000000000", "2(h'010000000000000000')"}, // 2^64 as a bignum
		{"3bffffffffffffffff", "-18446744073709551616"},
		{"c349010000000000000000", "3(h'010000000000000000')"}, // -2^64 - 1
		{"20", "-1"},
		{"29", "-10"},
		{"3863", "-100"},
		{"3903e7", "-1000"},
		{"f4", "false"},
		{"f5", "true"},
		{"f6", "null"},
		{"f7", "undefined"},
		{"f0", "simple(16)"},
		{"f8ff", "simple(255)"},
		{"c074323031332d30332d32315432303a30343a30305a", "0(\"2013-03-21T20:04:00Z\")"},
		{"c11a514b67b0", "1(1363896240)"},
		{"d74401020304", "23(h'01020304')"},
		{"d818456449455446", "24(h'6449455446')"},
		{"d82076687474703a2f2f7777772e6578616d706c652e636f6d", "32(\"http://www.example.com\")"},
		{"40", "h''"},
		{"4401020304", "h'01020304'"},
		{"60", "\"\""},
		{"6161", "\"a\""},
		{"6449455446", "\"IETF\""},
		{"62225c", "\"\"\\\""},
		{"62c3bc", "\"\xc3\xbc\""}, // U+00FC
		{"63e6b0b4", "\"\xe6\xb0\xb4\""}, // U+6C34
		{"64f0908591", "\"\xf0\x90\x85\x91\""}, // U+10151, a surrogate pair in the RFC
		{"80", "[]"},
		{"83010203", "[1, 2, 3]"},
		{"8301820203820405", "[1, [2, 3], [4, 5]]"},
		{"98190102030405060708090a0b0c0d0e0f101112131415161718181819", "[" + oneToTwentyFive() + "]"},
		{"a0", "{}"},
		{"a201020304", "{1: 2, 3: 4}"},
		{"a26161016162820203", "{\"a\": 1, \"b\": [2, 3]}"},
		{"826161a161626163", "[\"a\", {\"b\": \"c\"}]"},
		{"a56161614161626142616361436164614461656145",
		 "{\"a\": \"A\", \"b\": \"B\", \"c\": \"C\", \"d\": \"D\", \"e\": \"E\"}"},
		{"5f42010243030405ff", "(_ h'0102', h'030405')"},
		{"7f657374726561646d696e67ff", "(_ \"strea\", \"ming\")"},
		{"9fff", "[_ ]"},
		{"9f018202039f0405ffff", "[_ 1, [2, 3], [_ 4, 5]]"},
		{"9f01820203820405ff", "[_ 1, [2, 3], [4, 5]]"},
		{"83018202039f0405ff", "[1, [2, 3], [_ 4, 5]]"},
		{"83019f0203ff820405", "[1, [_ 2, 3], [4, 5]]"},
		{"9f0102030405060708090a0b0c0d0e0f101112131415161718181819ff", "[_ " + oneToTwentyFive() + "]"},
		{"bf61610161629f0203ffff", "{_ \"a\": 1, \"b\": [_ 2, 3]}"},
		{"826161bf61626163ff", "[\"a\", {_ \"b\": \"c\"}]"},
		{"bf6346756ef563416d7421ff", "{_ \"Fun\": true, \"Amt\": -2}"},
	};
	return examples;
}

} // namespace lumbrel_test
