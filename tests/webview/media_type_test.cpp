#include "webview/media_type.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using webview_gui::helpers::extMap;
using webview_gui::helpers::guessMediaType;

const char *const page = "text/html;charset=utf-8";
const char *const js = "text/javascript;charset=utf-8";
const char *const unknown = "application/octet-stream";

// What the page, its scripts and assets need, and how a path names its extension.
TEST(MediaType, PathsToTypes) {
	const std::pair<const char *, const char *> rows[] = {
		{"/index.html", page}, {"/a.htm", page}, {"/cbor.min.js", js}, {"/a.mjs", js},
		{"/a.css", "text/css;charset=utf-8"}, {"/a.json", "application/json"}, {"/a.svg", "image/svg+xml"},
		{"/a.wasm", "application/wasm"}, {"/a.png", "image/png"}, {"/a.jpg", "image/jpeg"},
		{"/a.woff2", "font/woff2"}, {"/a.wav", "audio/wave"}, {"/a.txt", "text/plain;charset=utf-8"},
		{"/a.ts", "video/mp2t"}, {"/a.ico", unknown}, {"/archive.tar.gz", "application/gzip"},
		// Query and fragment are not part of the name.
		{"/index.html?x=1#y", page}, {"/index.html#x.png", page}, {"/a.css#?.png", "text/css;charset=utf-8"},
		{"/cbor.min.js?v=1.2", js}, {"/api?file=a/b.png", unknown}, {"/?page.png", page},
		// Any case; bytes that aren't letters fold to nothing known.
		{"/a.PNG", "image/png"}, {"/INDEX.HTML", page}, {"/note.Disposition-Notification", "message/disposition-notification"},
		{"/a.\xC3\x89", unknown},
		// No extension is a page; the extension starts after the last "." or "/".
		{"", page}, {"/", page}, {"/folder/", page}, {"/folder/?q=1", page}, {"/name.", page},
		{"/folder.name/file", unknown}, {"README", unknown}, {"png", "image/png"}, {"/a.htmlx", unknown},
	};
	for (const auto &[path, type] : rows) EXPECT_EQ(guessMediaType(path), type) << path;
}

TEST(MediaType, EveryRowIsReachableInAnyCase) {
	EXPECT_GT(extMap().size(), 400u);
	for (const auto &[extension, entry] : extMap()) {
		EXPECT_EQ(extension.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-"), std::string::npos) << extension;
		EXPECT_EQ(std::strchr(entry.subtype, '/'), nullptr) << extension;
		std::string expected = std::string(entry.type) + "/" + entry.subtype;
		if (std::strcmp(entry.type, "text") == 0) expected += ";charset=utf-8";
		std::string upper = extension;
		for (char &c : upper) c = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c;
		EXPECT_EQ(guessMediaType(("/x/Y." + upper + "?q").c_str()), expected);
	}
}

// Each test runs in its own process under ctest: here the table is built by
// whichever thread comes first.
TEST(MediaType, FirstCallsFromManyThreads) {
	std::vector<std::string> results(4);
	std::vector<std::thread> threads;
	for (std::size_t i = 0; i < results.size(); ++i) threads.emplace_back([&results, i] { results[i] = guessMediaType("/page.svg"); });
	for (auto &t : threads) t.join();
	for (const auto &result : results) EXPECT_EQ(result, "image/svg+xml");
}

} // namespace
