// The GTK object on its own, through its table: a page served from memory
// under "webview-gui", and messages both ways through the injected script.
// Needs an X server (GTK opens the display), which the test starts itself.
#include <gtest/gtest.h>

#include "webview/base64.h"
#include "webview/gtk_leak_check.h"
#include "webview/gtk_view.h"
#include "webview/injected_script.h"
#include "webview/xvfb.h"

#include <dlfcn.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace webview_gui;
using namespace lumbrel_test;

namespace {

// Posts a number straight to the handler (which only takes text), fetches a
// served file and a missing one and posts what it saw as JSON; sends back
// every message it gets.
const char *const page = R"html(<!doctype html><html><body><script>
async function probe(path) {
	try {
		const response = await fetch(path);
		const body = await response.arrayBuffer();
		const header = name => response.headers.get(name);
		return {status: response.status, bytes: body.byteLength, type: header('Content-Type'),
			length: header('Content-Length'), cache: header('Cache-Control'), origin: header('Access-Control-Allow-Origin')};
	} catch (e) {
		return {error: String(e)};
	}
}
window.addEventListener('message', e => window.parent.postMessage(e.data, '*'));
window.webkit.messageHandlers.webviewGui_receive.postMessage(42); // not text: dropped
(async () => {
	const report = {served: await probe('/data.bin?v=1'), missing: await probe('/missing.js')};
	window.parent.postMessage(new TextEncoder().encode(JSON.stringify(report)).buffer, '*');
})();
</script></body></html>)html";

struct Served {
	std::vector<std::string> paths; // as the callback got them
	std::vector<std::vector<unsigned char>> messages;

	static void message(void *context, const char *text) {
		std::vector<unsigned char> bytes;
		helpers::decodeBase64(text, bytes);
		static_cast<Served *>(context)->messages.push_back(bytes);
	}
	static bool resource(void *context, const char *path, WebviewGui::Resource &resource) {
		static_cast<Served *>(context)->paths.push_back(path);
		const std::string file = std::string(path).substr(0, std::string(path).find('?'));
		if (file == "/index.html") {
			resource.mediaType = "text/html;charset=utf-8";
			resource.bytes.assign(page, page + std::strlen(page));
			return true;
		}
		if (file == "/data.bin") {
			resource.mediaType = "application/octet-stream";
			resource.bytes.assign(1000, 7);
			return true;
		}
		return false;
	}
};

const gtk::Api *openObject(std::string &error) {
	void *handle = dlopen(LUMBREL_GTK_OBJECT_PATH, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
	if (!handle) {
		error = dlerror();
		return nullptr;
	}
	auto entry = reinterpret_cast<decltype(&lumbrel_webview_gtk)>(dlsym(handle, gtk::entryName));
	return entry ? entry() : nullptr;
}

// GLib's loop as a host runs it: wait on its descriptors, then pump.
template<class Done>
bool pumpUntil(const gtk::Api &api, Done done, int timeoutMs = 20000) {
	const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
	std::vector<WebviewGui::EventFd> fds(64);
	std::vector<pollfd> polled;
	while (!done()) {
		if (std::chrono::steady_clock::now() > deadline) return false;
		const std::size_t count = std::min(api.pump(50, fds.data(), fds.size()), fds.size());
		polled.clear();
		for (std::size_t i = 0; i < count; ++i) {
			polled.push_back(pollfd{fds[i].fd, short((fds[i].flags & 1 ? POLLIN : 0) | (fds[i].flags & 2 ? POLLOUT : 0)), 0});
		}
		::poll(polled.data(), nfds_t(polled.size()), 16);
	}
	return true;
}

std::string field(const std::string &json, const std::string &object, const std::string &key) {
	// Enough JSON for the report: "object":{... "key":value ...}
	const std::size_t start = json.find("\"" + object + "\":{");
	if (start == std::string::npos) return "<no " + object + ">";
	const std::size_t end = json.find('}', start);
	const std::size_t at = json.find("\"" + key + "\":", start);
	if (at == std::string::npos || at > end) return "<no " + key + ">";
	std::size_t value = at + key.size() + 3;
	std::size_t stop = json.find_first_of(",}", value);
	std::string text = json.substr(value, stop - value);
	if (text.size() >= 2 && text.front() == '"') text = text.substr(1, text.size() - 2);
	return text;
}

} // namespace

TEST(GtkView, ServesTheSchemeAndCarriesMessagesBothWays) {
	if (!onPath("Xvfb")) GTEST_SKIP() << "Xvfb is not installed (scripts/setup.sh installs it): GTK can't start";
	Xvfb server;
	if (server.display().empty()) GTEST_SKIP() << "no X server could be started: " << server.error();
	::setenv("DISPLAY", server.display().c_str(), 1);
	std::string error;
	const gtk::Api *api = openObject(error);
	ASSERT_NE(api, nullptr) << error;
	ASSERT_EQ(api->version, gtk::apiVersion);
	ASSERT_TRUE(api->start());

	Served served;
	const gtk::Callbacks callbacks{&served, Served::message, Served::resource};
	gtk::View *view = api->create("webview-gui:///index.html", injectedScript, scriptMessageName, schemeName, &callbacks);
	ASSERT_NE(view, nullptr);
	ASSERT_TRUE(pumpUntil(*api, [&] { return !served.messages.empty(); })) << "the page never posted";

	// The number never arrived: the first message is the report. Paths keep
	// their "/" and their query; 200 carries the four headers, a refused path
	// is a plain 404.
	EXPECT_EQ(served.paths.at(0), "/index.html");
	EXPECT_EQ(served.paths.at(1), "/data.bin?v=1");
	const std::string report(served.messages[0].begin(), served.messages[0].end());
	EXPECT_EQ(field(report, "served", "status"), "200") << report;
	EXPECT_EQ(field(report, "served", "bytes"), "1000");
	EXPECT_EQ(field(report, "served", "length"), "1000");
	EXPECT_EQ(field(report, "served", "type"), "application/octet-stream");
	EXPECT_EQ(field(report, "served", "cache"), "no-store");
	EXPECT_EQ(field(report, "served", "origin"), "*");
	EXPECT_EQ(field(report, "missing", "status"), "404") << report;
	EXPECT_EQ(field(report, "missing", "cache"), "null") << "no headers on a 404";

	// Every byte value out and back: the send script, the page's echo, the
	// injected script's base64 and ours. A polyfilled decoder may leave zeros
	// behind the message, which a CBOR reader never gets to.
	std::vector<unsigned char> bytes(256);
	for (int i = 0; i < 256; ++i) bytes[std::size_t(i)] = static_cast<unsigned char>(255 - i);
	std::string script = sendScriptStart;
	helpers::encodeBase64(bytes.data(), bytes.size(), script);
	script += sendScriptEnd;
	api->evaluate(view, script.c_str());
	ASSERT_TRUE(pumpUntil(*api, [&] { return served.messages.size() >= 2; })) << "no echo";
	const auto &echo = served.messages[1];
	ASSERT_GE(echo.size(), bytes.size());
	EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), echo.begin()));
	EXPECT_TRUE(std::all_of(echo.begin() + std::ptrdiff_t(bytes.size()), echo.end(), [](unsigned char b) { return b == 0; }));

	// After the view is gone, nothing calls back.
	api->destroy(view);
	const std::size_t messages = served.messages.size();
	pumpUntil(*api, [] { return false; }, 200);
	EXPECT_EQ(served.messages.size(), messages);
}
