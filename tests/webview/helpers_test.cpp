// The editor's helpers (base64, media types), and clap.gui for a host that shows the page in its own web view.
#include "host/bundle.h"
#include "host/host.h"
#include "host/instance.h"
#include "webview/base64.h"
#include "webview/media_type.h"

#include <gtest/gtest.h>

#include <clap/clap.h>
#include <clap/ext/draft/webview.h>

#include <cstring>
#include <string>
#include <vector>

using webview_gui::helpers::decodeBase64;
using webview_gui::helpers::encodeBase64;
using webview_gui::helpers::guessMediaType;

namespace {

std::vector<unsigned char> decode(const std::string &text) {
	std::vector<unsigned char> out{7}; // decoding appends
	decodeBase64(text.c_str(), out);
	return {out.begin() + 1, out.end()};
}
std::vector<unsigned char> bytes(const std::string &s) { return {s.begin(), s.end()}; }

// Both ways: RFC 4648's vectors (every length modulo 3) and the top of the alphabet.
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
}

// Leniently: stops at the first "=" or NUL, reads "-" as "/", bytes above 0x7F and a missing character as 63.
TEST(Base64, DecodesLeniently) {
	const std::pair<std::string, std::string> rows[] = {{"Zg==Zm8=", "f"}, {"Zm9v=Zm8", "foo"}, {"Zm9vYmE=Zm8=", "fooba"},
		{std::string("Zm9v\0Zm9v", 9), "foo"}, {"-w==", "\xFF"}, {"--8-AB-/", std::string("\xFF\xFF?\0\x1F\xFF", 6)}, {"+w==", "\xFB"},
		{"\xC3\xA9\xFF\x80", "\xFF\xFF\xFF"}, {"Z", "\x67"}, {"Zm9vZ", "foo\x67"}, {"Zg", "f"}, {"Zm8", "fo"}};
	for (const auto &[text, plain] : rows) EXPECT_EQ(decode(text), bytes(plain)) << text;
	EXPECT_EQ(decode("@@@@!!!!").size(), 6u);
}

// What the page, its scripts and assets need, and how a path names its extension.
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
		// Any case; bytes that aren't letters fold to nothing known.
		{"/a.PNG", "image/png"}, {"/INDEX.HTML", page}, {"/note.Disposition-Notification", "message/disposition-notification"},
		{"/a.\xC3\x89", unknown},
		// No extension is a page; the extension starts after the last "." or "/".
		{"", page}, {"/", page}, {"/folder/", page}, {"/folder/?q=1", page}, {"/name.", page},
		{"/folder.name/file", unknown}, {"README", unknown}, {"png", "image/png"}, {"/a.htmlx", unknown},
	};
	for (const auto &[path, type] : rows) EXPECT_EQ(guessMediaType(path), type) << path;
}

} // namespace

using namespace lumbrel::host;

TEST(ClapGui, SizesAnswersAndTheWebviewEditorOfEachInstance) {
	std::string error;
	auto bundle = Bundle::load(LUMBREL_BUNDLE_PATH, error);
	ASSERT_TRUE(bundle) << error;
	Host host, other;
	Instance instance(*bundle, "varkesh.lumbrel.swell", host), second(*bundle, "varkesh.lumbrel.swell", other);
	const auto *gui = instance.extension<clap_plugin_gui>(CLAP_EXT_GUI);
	ASSERT_NE(gui, nullptr);
	const clap_plugin *plugin = instance.clapPlugin();
	auto size = [&](const clap_plugin *p) {
		std::uint32_t width = 0, height = 0;
		EXPECT_TRUE(gui->get_size(p, &width, &height));
		return std::to_string(width) + "x" + std::to_string(height);
	};
	EXPECT_EQ(size(plugin), "400x250") << "before init";
	ASSERT_TRUE(instance.init() && second.init());
	EXPECT_EQ(size(plugin), "500x300");
	const char *api = nullptr;
	bool floating = true;
	ASSERT_TRUE(gui->get_preferred_api(plugin, &api, &floating));
	EXPECT_TRUE(std::string(api) == "webview" && !floating);
	for (const char *kind : {"webview", "cocoa", "x11", "win32", "wayland"})
		EXPECT_EQ(gui->is_api_supported(plugin, kind, true), std::string(kind) == "webview") << kind;
	EXPECT_FALSE(gui->create(plugin, "x11", true)) << "nothing floats";
	EXPECT_TRUE(gui->can_resize(plugin) && gui->set_size(plugin, 640, 480) && gui->set_scale(plugin, 2.0));
	EXPECT_TRUE(gui->set_size(second.clapPlugin(), 300, 400));
	EXPECT_EQ(size(plugin), "640x480") << "the scale changes nothing, nor the other instance";
	// No window of ours to parent or show; each host's page talks to its own instance.
	ASSERT_TRUE(gui->create(plugin, "webview", false));
	clap_window window{"x11", {}};
	window.x11 = 42;
	EXPECT_FALSE(gui->set_parent(plugin, &window) || gui->set_transient(plugin, &window) || gui->show(plugin) || gui->hide(plugin));
	gui->suggest_title(plugin, "title");
	const auto *webview = instance.extension<clap_plugin_webview>(CLAP_EXT_WEBVIEW);
	ASSERT_NE(webview, nullptr);
	const unsigned char ready[] = {0x65, 'r', 'e', 'a', 'd', 'y'};
	ASSERT_TRUE(webview->receive(plugin, ready, sizeof(ready)));
	ASSERT_EQ(host.sentMessages.size(), 1u);
	EXPECT_EQ(host.sentMessages[0][0], 0xBF) << "the whole state, a bare map";
	EXPECT_TRUE(other.sentMessages.empty());
	// A closed web view on the host's side: the message is refused, nothing breaks.
	host.webviewOpen = false;
	ASSERT_TRUE(webview->receive(plugin, ready, sizeof(ready)));
	EXPECT_EQ(host.sentMessages.size(), 1u);
	gui->destroy(plugin);
	gui->destroy(plugin);
}
