// clap.gui through the ABI: a host that offers the "webview" API gets a
// working editor without any window of ours.
#include "host/bundle.h"
#include "host/host.h"
#include "host/instance.h"

#include <gtest/gtest.h>

#include <clap/clap.h>
#include <clap/ext/draft/webview.h>

#include <string>

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
	EXPECT_STREQ(api, "webview");
	EXPECT_FALSE(floating);
	for (const char *kind : {"webview", "cocoa", "x11", "win32", "wayland"})
		EXPECT_EQ(gui->is_api_supported(plugin, kind, true), std::string(kind) == "webview") << kind;
	EXPECT_FALSE(gui->create(plugin, "x11", true)) << "nothing floats";
	EXPECT_TRUE(gui->can_resize(plugin) && gui->set_size(plugin, 640, 480) && gui->set_scale(plugin, 2.0));
	EXPECT_TRUE(gui->set_size(second.clapPlugin(), 300, 400));
	EXPECT_EQ(size(plugin), "640x480") << "the scale changes nothing, nor the other instance";

	// With the "webview" API there is no window of ours to parent or show;
	// the page talks through messages, each host's to its own instance.
	ASSERT_TRUE(gui->create(plugin, "webview", false));
	clap_window window{"x11", {}};
	window.x11 = 42;
	EXPECT_FALSE(gui->set_parent(plugin, &window) || gui->set_transient(plugin, &window) || gui->show(plugin) || gui->hide(plugin));
	gui->suggest_title(plugin, "title");
	const auto *webview = instance.extension<clap_plugin_webview>(CLAP_EXT_WEBVIEW);
	ASSERT_NE(webview, nullptr);
	char uri[64];
	ASSERT_EQ(webview->get_uri(plugin, uri, sizeof(uri)), 11);
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
