#include "webview/base64.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

using webview_gui::helpers::decodeBase64;
using webview_gui::helpers::encodeBase64;

std::vector<unsigned char> decode(const std::string &text) {
	std::vector<unsigned char> out{7}; // decoding appends
	decodeBase64(text.c_str(), out);
	return {out.begin() + 1, out.end()};
}

// Both ways: RFC 4648's vectors and the top of the alphabet.
TEST(Base64, EncodesAndDecodesTheVectors) {
	const std::pair<std::string, const char *> rows[] = {{"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"},
		{"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}, {"\xFF", "/w=="}, {"\xFF\xFF", "//8="},
		{"\xFF\xFF\xFF", "////"}, {"\xFB\xEF\xBE", "++++"}};
	for (const auto &[plain, text] : rows) {
		std::string out = "x:"; // encoding appends
		encodeBase64(reinterpret_cast<const unsigned char *>(plain.data()), plain.size(), out);
		EXPECT_EQ(out, std::string("x:") + text) << plain;
		EXPECT_EQ(decode(text), std::vector<unsigned char>(plain.begin(), plain.end())) << text;
	}
}

// Decoding is lenient: it stops at the first "=" or NUL, reads "-" as "/",
// bytes above 0x7F as 63, a missing character as the NUL's 63, and makes
// three bytes of any group.
TEST(Base64, DecodesLeniently) {
	const std::pair<std::string, std::string> rows[] = {{"Zg==Zm8=", "f"}, {"Zm9v=Zm8", "foo"}, {"Zm9vYmE=Zm8=", "fooba"},
		{std::string("Zm9v\0Zm9v", 9), "foo"}, {"-w==", "\xFF"}, {"--8-AB-/", std::string("\xFF\xFF?\0\x1F\xFF", 6)}, {"+w==", "\xFB"},
		{"\xC3\xA9\xFF\x80", "\xFF\xFF\xFF"}, {"Z", "\x67"}, {"Zm9vZ", "foo\x67"}, {"Zg", "f"}, {"Zm8", "fo"}};
	for (const auto &[text, plain] : rows) EXPECT_EQ(decode(text), std::vector<unsigned char>(plain.begin(), plain.end())) << text;
	EXPECT_EQ(decode("@@@@!!!!").size(), 6u);
}

TEST(Base64, RoundTripsEveryLengthUpTo64) {
	std::mt19937 random(20240917);
	for (std::size_t length = 0; length <= 64; ++length) {
		std::vector<unsigned char> data(length);
		for (auto &b : data) b = static_cast<unsigned char>(random());
		std::string text;
		encodeBase64(data.data(), data.size(), text);
		ASSERT_EQ(text.size(), (length + 2) / 3 * 4) << length;
		EXPECT_EQ(decode(text), data) << length;
	}
}

} // namespace
