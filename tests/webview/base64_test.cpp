#include "webview/base64.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

using webview_gui::helpers::decodeBase64;
using webview_gui::helpers::encodeBase64;

std::string encode(const std::string &text) {
	std::string out;
	encodeBase64(reinterpret_cast<const unsigned char *>(text.data()), text.size(), out);
	return out;
}

std::vector<unsigned char> decode(const char *text) {
	std::vector<unsigned char> out;
	decodeBase64(text, out);
	return out;
}

std::vector<unsigned char> bytes(std::initializer_list<int> values) {
	std::vector<unsigned char> out;
	for (int v : values) out.push_back(static_cast<unsigned char>(v));
	return out;
}

std::vector<unsigned char> bytes(const std::string &text) { return {text.begin(), text.end()}; }

// RFC 4648, section 10.
const std::pair<const char *, const char *> rfcVectors[] = {
	{"", ""},
	{"f", "Zg=="},
	{"fo", "Zm8="},
	{"foo", "Zm9v"},
	{"foob", "Zm9vYg=="},
	{"fooba", "Zm9vYmE="},
	{"foobar", "Zm9vYmFy"},
};

TEST(Base64, RfcVectorsEncode) {
	for (const auto &v : rfcVectors) EXPECT_EQ(encode(v.first), v.second) << "plain \"" << v.first << "\"";
}

TEST(Base64, RfcVectorsDecode) {
	for (const auto &v : rfcVectors) EXPECT_EQ(decode(v.second), bytes(v.first)) << "text \"" << v.second << "\"";
}

TEST(Base64, TopOfTheAlphabet) {
	// All-ones bits land on "/", the last letter, and padding follows the byte count.
	std::string out;
	const unsigned char ff[3] = {0xFF, 0xFF, 0xFF};
	for (size_t n = 1; n <= 3; ++n) {
		out.clear();
		encodeBase64(ff, n, out);
		EXPECT_EQ(out, std::string(n == 1 ? "/w==" : n == 2 ? "//8=" : "////"));
	}
	EXPECT_EQ(decode("/w=="), bytes({0xFF}));
	EXPECT_EQ(decode("//8="), bytes({0xFF, 0xFF}));
	EXPECT_EQ(decode("////"), bytes({0xFF, 0xFF, 0xFF}));
}

TEST(Base64, BothDirectionsAppend) {
	std::string text = "x:";
	const unsigned char abc[3] = {'a', 'b', 'c'};
	encodeBase64(abc, 3, text);
	encodeBase64(abc, 0, text);
	EXPECT_EQ(text, "x:YWJj");

	std::vector<unsigned char> out = bytes({7});
	decodeBase64("YWJj", out);
	decodeBase64("", out);
	EXPECT_EQ(out, bytes({7, 'a', 'b', 'c'}));
}

TEST(Base64, LenientDecoding) {
	// Stops at the first "=" or NUL, wherever the group stands.
	EXPECT_EQ(decode("Zg==Zm8="), bytes("f"));
	EXPECT_EQ(decode("Zm9v=Zm8"), bytes("foo"));
	EXPECT_EQ(decode("Zm9vYmE=Zm8="), bytes("fooba"));
	const char embeddedNul[] = "Zm9v\0Zm9v";
	EXPECT_EQ(decode(embeddedNul), bytes("foo"));

	// "-" (the URL-safe 63) and "/" decode alike.
	EXPECT_EQ(decode("-w=="), bytes({0xFF}));
	EXPECT_EQ(decode("--8-AB-/"), decode("//8/AB//"));
	EXPECT_EQ(decode("+w=="), bytes({0xFB})); // 62 << 2 | 48 >> 4

	// Bytes above 0x7F are negative as signed chars and count as 63, like "/".
	EXPECT_EQ(decode("\xC3\xA9\xFF\x80"), bytes({0xFF, 0xFF, 0xFF}));

	// A lone last character makes a byte with the terminating NUL, worth 63:
	// "Z" is 25, so (25 << 2) | (63 >> 4) = 0x67.
	EXPECT_EQ(decode("Z"), bytes({0x67}));
	EXPECT_EQ(decode("Zm9vZ"), bytes({'f', 'o', 'o', 0x67}));
	// Two characters give one byte, three give two, without padding.
	EXPECT_EQ(decode("Zg"), bytes("f"));
	EXPECT_EQ(decode("Zm8"), bytes("fo"));

	// Characters outside the alphabet still make three bytes per group.
	EXPECT_EQ(decode("@@@@!!!!").size(), 6u);
}

TEST(Base64, RoundTripsEveryLengthUpTo64) {
	std::mt19937 random(20240917);
	std::uniform_int_distribution<int> byte(0, 255);
	for (size_t length = 0; length <= 64; ++length) {
		std::vector<unsigned char> data(length);
		for (auto &b : data) b = static_cast<unsigned char>(byte(random));

		std::string text;
		encodeBase64(data.data(), data.size(), text);
		ASSERT_EQ(text.size(), (length + 2) / 3 * 4) << "length " << length;
		EXPECT_EQ(text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/="),
			std::string::npos);

		std::vector<unsigned char> back;
		decodeBase64(text.c_str(), back);
		EXPECT_EQ(back, data) << "length " << length;
	}
}

} // namespace
