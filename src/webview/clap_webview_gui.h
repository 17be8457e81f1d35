#pragma once
#include "webview/webview_gui.h"

#include <clap/clap.h>
#include <clap/ext/draft/webview.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

namespace webview_gui {

// The "clap.gui" extension for a plug-in whose editor is a web page. A host
// that offers the "webview" API shows the page itself through clap.webview/3,
// and this class only says yes; for a native window API it makes a web view
// of its own, puts it in the host's window and carries the messages.
//
// On X11 the web view's events run only when pumped, so gui_create refuses
// "x11" to a host without "clap.timer-support", and the editor's timer lives
// from gui_create to gui_destroy.
//
// The gui_* functions are static and get only a clap_plugin (or clap_host)
// pointer: they find their instance in `pointerMap`. Main thread, as CLAP says.
class ClapWebviewGui {
public:
	const clap_plugin_gui *clapGui;
	const clap_host_webview *clapHostWebview; // the send side, for our own web view
	std::uint32_t width = 400, height = 250;
	const clap_plugin *plugin;
	const clap_host *host;
	std::unique_ptr<WebviewGui> webview;
	char uri[2048];
	const clap_plugin_webview *pluginWebview = nullptr; // the plug-in's own table, from plugin_init
	const clap_host_webview *hostWebview = nullptr; // the host's, if it shows pages itself

	// A web view whose events must be pumped (X11) runs them from a host
	// timer, registered while it exists, and also from the host's watch on
	// the descriptors its loop waits on, where the host offers that.
	const clap_host_timer_support *hostTimerSupport = nullptr;
	const clap_host_posix_fd_support *hostPosixFdSupport = nullptr;
	clap_id timerId = CLAP_INVALID_ID;
	std::vector<WebviewGui::EventFd> pumpFds, watchedFds;
	static constexpr std::uint32_t pumpPeriodMs = 16;

	ClapWebviewGui(const clap_plugin *plugin, const clap_host *host);
	~ClapWebviewGui(); // [main-thread] ends the web view, then gives back the timer and descriptors
	ClapWebviewGui(const ClapWebviewGui &) = delete;
	ClapWebviewGui &operator=(const ClapWebviewGui &) = delete;

	// Looks up clap.webview/3 on the plug-in, and on the host clap.webview/3,
	// the timer and the descriptor watch (from plugin_init).
	void findExtensions();

	// What gui_create does.
	bool create(const char *api, bool isFloating);

	// Hands one message to the page: through our own web view if there is
	// one, else through the host's. False if nobody shows the page.
	bool send(const void *bytes, std::uint32_t length);

	static bool host_webview_send(const clap_host *host, const void *bytes, std::uint32_t length);

	// [main-thread] Runs the web view's events and brings the host's watch up
	// to date with the descriptors they wait on.
	void pumpEvents();
	// [main-thread] Registers the pump timer if it isn't; false if the host refuses.
	bool startPumping();
	// [main-thread] Unregisters the timer and every watched descriptor.
	void stopPumping();

	// clap.timer-support and clap.posix-fd-support: both pump, for an
	// instance whose web view needs it; other timers and descriptors are
	// none of ours.
	static void timer_on_timer(const clap_plugin *plugin, clap_id timerId);
	static void posix_fd_on_fd(const clap_plugin *plugin, int fd, clap_posix_fd_flags_t flags);

	static bool gui_is_api_supported(const clap_plugin *plugin, const char *api, bool isFloating);
	static bool gui_get_preferred_api(const clap_plugin *plugin, const char **api, bool *isFloating);
	static bool gui_create(const clap_plugin *plugin, const char *api, bool isFloating);
	static void gui_destroy(const clap_plugin *plugin);
	static bool gui_set_scale(const clap_plugin *plugin, double scale);
	static bool gui_get_size(const clap_plugin *plugin, std::uint32_t *width, std::uint32_t *height);
	static bool gui_can_resize(const clap_plugin *plugin);
	static bool gui_get_resize_hints(const clap_plugin *plugin, clap_gui_resize_hints *hints);
	static bool gui_adjust_size(const clap_plugin *plugin, std::uint32_t *width, std::uint32_t *height);
	static bool gui_set_size(const clap_plugin *plugin, std::uint32_t width, std::uint32_t height);
	static bool gui_set_parent(const clap_plugin *plugin, const clap_window *window);
	static bool gui_set_transient(const clap_plugin *plugin, const clap_window *window);
	static void gui_suggest_title(const clap_plugin *plugin, const char *title);
	static bool gui_show(const clap_plugin *plugin);
	static bool gui_hide(const clap_plugin *plugin);

	// The instance registered under a plug-in's or host's address; entries are
	// never removed, and a host shared by several instances maps to the last.
	static ClapWebviewGui *lookup(const void *key);

	static const clap_plugin_gui guiTable;
	static const clap_host_webview hostWebviewTable;
	static const clap_plugin_timer_support timerSupportTable;
	static const clap_plugin_posix_fd_support posixFdSupportTable;
	static std::unordered_map<std::size_t, ClapWebviewGui *> pointerMap;
	static std::shared_mutex pointerMapMutex;
};

} // namespace webview_gui
