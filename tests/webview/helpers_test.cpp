#include "webview/base64.h"
#include "webview/media_type.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

using webview_gui::helpers::decodeBase64;
using webview_gui::helpers::encodeBase64;
using webview_gui::helpers::extMap;
using webview_gui::helpers::guessMediaType;

namespace {

std::vector<unsigned char> decode(const std::string &text) {
	std::vector<unsigned char> out{7}; // decoding appends
	decodeBase64(text.c_str(), out);
	return {out.begin() + 1, out.end()};
}
std::vector<unsigned char> bytes(const std::string &s) { return {s.begin(), s.end()}; }

// Both ways: RFC 4648's vectors and the top of the alphabet; then random data of every length up to 64.
TEST(Base64, EncodesAndDecodesTheVectors) {
	const std::pair<std::string, const char *> rows[] = {{"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"},
		{"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}, {"\xFF", "/w=="}, {"\xFF\xFF", "//8="},
		{"\xFF\xFF\xFF", "////"}, {"\xFB\xEF\xBE", "++++"}};
	for (const auto &[plain, text] : rows) {
		std::string out = "x:"; // encoding appends
		encodeBase64(reinterpret_cast<const unsigned char *>(plain.data()), plain.size(), out);
		EXPECT_EQ(out, std::string("x:") + text) << plain;
		EXPECT_EQ(decode(text), bytes(plain)) << text;
	}
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

// Decoding is lenient: it stops at the first "=" or NUL, reads "-" as "/",
// bytes above 0x7F as 63, a missing character as the NUL's 63, and makes
// three bytes of any group.
TEST(Base64, DecodesLeniently) {
	const std::pair<std::string, std::string> rows[] = {{"Zg==Zm8=", "f"}, {"Zm9v=Zm8", "foo"}, {"Zm9vYmE=Zm8=", "fooba"},
		{std::string("Zm9v\0Zm9v", 9), "foo"}, {"-w==", "\xFF"}, {"--8-AB-/", std::string("\xFF\xFF?\0\x1F\xFF", 6)}, {"+w==", "\xFB"},
		{"\xC3\xA9\xFF\x80", "\xFF\xFF\xFF"}, {"Z", "\x67"}, {"Zm9vZ", "foo\x67"}, {"Zg", "f"}, {"Zm8", "fo"}};
	for (const auto &[text, plain] : rows) EXPECT_EQ(decode(text), bytes(plain)) << text;
	EXPECT_EQ(decode("@@@@!!!!").size(), 6u);
}

// What the page, its scripts and assets need, how a path names its
// extension, and every row of the table in any case.
TEST(MediaType, PathsToTypes) {
	const char *page = "text/html;charset=utf-8", *js = "text/javascript;charset=utf-8", *unknown = "application/octet-stream";
	const std::pair<const char *, const char *> rows[] = {
		{"/index.html", page}, {"/a.htm", page}, {"/cbor.min.js", js}, {"/a.mjs", js},
		{"/a.css", "text/css;charset=utf-8"}, {"/a.json", "application/json"}, {"/a.svg", "image/svg+xml"},
		{"/a.wasm", "application/wasm"}, {"/a.png", "image/png"}, {"/a.jpg", "image/jpeg"},
		{"/a.woff2", "font/woff2"}, {"/a.wav", "audio/wave"}, {"/a.ts", "video/mp2t"}, {"/a.ico", unknown},
		{"/archive.tar.gz", "application/gzip"},
		// Query and fragment are not part of the name.
		{"/index.html?x=1#y", page}, {"/index.html#x.png", page}, {"/a.css#?.png", "text/css;charset=utf-8"},
		{"/cbor.min.js?v=1.2", js}, {"/api?file=a/b.png", unknown}, {"/?page.png", page},
		// Bytes that aren't letters fold to nothing known.
		{"/a.\xC3\x89", unknown},
		// No extension is a page; the extension starts after the last "." or "/".
		{"", page}, {"/", page}, {"/folder/", page}, {"/folder/?q=1", page}, {"/name.", page},
		{"/folder.name/file", unknown}, {"README", unknown}, {"png", "image/png"}, {"/a.htmlx", unknown},
	};
	for (const auto &[path, type] : rows) EXPECT_EQ(guessMediaType(path), type) << path;

	EXPECT_GT(extMap().size(), 400u);
	for (const auto &[extension, entry] : extMap()) {
		EXPECT_EQ(extension.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-"), std::string::npos) << extension;
		std::string expected = std::string(entry.type) + "/" + entry.subtype;
		if (std::strcmp(entry.type, "text") == 0) expected += ";charset=utf-8";
		std::string upper = extension;
		for (char &c : upper) c = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c;
		EXPECT_EQ(guessMediaType(("/x/Y." + upper + "?q").c_str()), expected);
	}
}

} // namespace
