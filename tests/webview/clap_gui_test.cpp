// clap.gui through the ABI: a host that offers the "webview" API gets a
// working editor without any window of ours; native APIs need a web view of
// our own, which this platform build may not have.
#include "host/bundle.h"
#include "host/host.h"
#include "host/instance.h"

#include <gtest/gtest.h>

#include <clap/clap.h>
#include <clap/ext/draft/webview.h>

#include <memory>
#include <string>

using namespace lumbrel::host;

namespace {

std::unique_ptr<Bundle> bundle() {
	std::string error;
	auto loaded = Bundle::load(LUMBREL_BUNDLE_PATH, error);
	EXPECT_TRUE(loaded) << error;
	return loaded;
}

const clap_plugin_gui *guiOf(const Instance &instance) {
	return instance.extension<clap_plugin_gui>(CLAP_EXT_GUI);
}

} // namespace

TEST(ClapGui, SizesAndAnswers) {
	auto b = bundle();
	ASSERT_TRUE(b);
	Host host;
	Instance instance(*b, "varkesh.lumbrel.swell", host);
	const auto *gui = guiOf(instance);
	ASSERT_NE(gui, nullptr);
	const clap_plugin *plugin = instance.clapPlugin();

	std::uint32_t width = 0, height = 0;
	ASSERT_TRUE(gui->get_size(plugin, &width, &height));
	EXPECT_EQ(width, 400u);
	EXPECT_EQ(height, 250u) << "before init";
	ASSERT_TRUE(instance.init());
	ASSERT_TRUE(gui->get_size(plugin, &width, &height));
	EXPECT_EQ(width, 500u);
	EXPECT_EQ(height, 300u);

	const char *api = nullptr;
	bool floating = true;
	ASSERT_TRUE(gui->get_preferred_api(plugin, &api, &floating));
	EXPECT_STREQ(api, "webview");
	EXPECT_FALSE(floating);

	for (const char *api : {"webview", "cocoa", "x11", "win32", "wayland"}) {
		EXPECT_EQ(gui->is_api_supported(plugin, api, true), std::string(api) == "webview") << api;
	}
	EXPECT_FALSE(gui->create(plugin, "x11", true)) << "nothing floats";
	EXPECT_TRUE(gui->can_resize(plugin));
	EXPECT_TRUE(gui->set_size(plugin, 640, 480));
	EXPECT_TRUE(gui->set_scale(plugin, 2.0));
	ASSERT_TRUE(gui->get_size(plugin, &width, &height));
	EXPECT_EQ(width, 640u);
	EXPECT_EQ(height, 480u) << "the scale changes nothing";

	// With the "webview" API there is no window of ours to parent or show.
	ASSERT_TRUE(gui->create(plugin, "webview", false));
	clap_window window{"x11", {}};
	window.x11 = 42;
	EXPECT_FALSE(gui->set_parent(plugin, &window));
	EXPECT_FALSE(gui->set_transient(plugin, &window));
	EXPECT_FALSE(gui->show(plugin));
	EXPECT_FALSE(gui->hide(plugin));
	gui->suggest_title(plugin, "title");
	gui->destroy(plugin);
	gui->destroy(plugin);
}

TEST(ClapGui, WebviewHostGetsTheEditorThroughMessages) {
	auto b = bundle();
	ASSERT_TRUE(b);
	Host host;
	Instance instance(*b, "varkesh.lumbrel.octaver", host);
	ASSERT_TRUE(instance.init());
	const auto *gui = guiOf(instance);
	const auto *webview = instance.extension<clap_plugin_webview>(CLAP_EXT_WEBVIEW);
	ASSERT_TRUE(gui && webview);
	ASSERT_TRUE(gui->create(instance.clapPlugin(), "webview", false));
	char uri[64];
	ASSERT_EQ(webview->get_uri(instance.clapPlugin(), uri, sizeof(uri)), 11);

	const unsigned char ready[] = {0x65, 'r', 'e', 'a', 'd', 'y'};
	ASSERT_TRUE(webview->receive(instance.clapPlugin(), ready, sizeof(ready)));
	ASSERT_EQ(host.sentMessages.size(), 1u);
	EXPECT_EQ(host.sentMessages[0][0], 0xBF) << "the whole state, a bare map";

	// A closed web view on the host's side: the message is refused, nothing breaks.
	host.webviewOpen = false;
	ASSERT_TRUE(webview->receive(instance.clapPlugin(), ready, sizeof(ready)));
	EXPECT_EQ(host.sentMessages.size(), 1u);
}

TEST(ClapGui, InstancesKeepTheirOwnGui) {
	auto b = bundle();
	ASSERT_TRUE(b);
	Host hostA, hostB;
	Instance a(*b, "varkesh.lumbrel.swell", hostA), c(*b, "varkesh.lumbrel.swell", hostB);
	ASSERT_TRUE(a.init() && c.init());
	const auto *gui = guiOf(a);
	ASSERT_TRUE(gui->set_size(a.clapPlugin(), 100, 200));
	ASSERT_TRUE(gui->set_size(c.clapPlugin(), 300, 400));
	std::uint32_t width = 0, height = 0;
	ASSERT_TRUE(gui->get_size(a.clapPlugin(), &width, &height));
	EXPECT_EQ(width, 100u);
	// Each host's messages reach its own instance's page.
	const unsigned char ready[] = {0x65, 'r', 'e', 'a', 'd', 'y'};
	a.extension<clap_plugin_webview>(CLAP_EXT_WEBVIEW)->receive(a.clapPlugin(), ready, sizeof(ready));
	EXPECT_EQ(hostA.sentMessages.size(), 1u);
	EXPECT_TRUE(hostB.sentMessages.empty());
}
