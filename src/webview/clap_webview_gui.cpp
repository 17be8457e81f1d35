#include "webview/clap_webview_gui.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>

namespace webview_gui {

std::unordered_map<std::size_t, ClapWebviewGui *> ClapWebviewGui::pointerMap;
std::shared_mutex ClapWebviewGui::pointerMapMutex;

const clap_plugin_gui ClapWebviewGui::guiTable{gui_is_api_supported, gui_get_preferred_api, gui_create, gui_destroy,
	gui_set_scale, gui_get_size, gui_can_resize, gui_get_resize_hints, gui_adjust_size, gui_set_size, gui_set_parent,
	gui_set_transient, gui_suggest_title, gui_show, gui_hide};
const clap_host_webview ClapWebviewGui::hostWebviewTable{host_webview_send};
const clap_plugin_timer_support ClapWebviewGui::timerSupportTable{timer_on_timer};
const clap_plugin_posix_fd_support ClapWebviewGui::posixFdSupportTable{posix_fd_on_fd};

namespace {

bool isWebviewApi(const char *api) { return api && std::strcmp(api, CLAP_WINDOW_API_WEBVIEW) == 0; }

WebviewGui::Platform platformOf(const char *api) {
	if (!api) return 0;
	if (!std::strcmp(api, CLAP_WINDOW_API_WIN32)) return 1;
	if (!std::strcmp(api, CLAP_WINDOW_API_COCOA)) return 2;
	if (!std::strcmp(api, CLAP_WINDOW_API_X11)) return 3;
	return 0;
}

// True if `uri` starts with a scheme: letters, digits, "+", "-" or "." up to a ":".
bool hasScheme(const char *uri) {
	const char *c = uri;
	for (; *c && *c != ':'; ++c) {
		const bool allowed = (*c >= 'a' && *c <= 'z') || (*c >= 'A' && *c <= 'Z') || (*c >= '0' && *c <= '9')
			|| *c == '+' || *c == '-' || *c == '.';
		if (!allowed) return false;
	}
	return *c == ':' && c != uri;
}

struct ByteSink {
	clap_ostream stream{this, write};
	std::vector<unsigned char> &bytes;
	explicit ByteSink(std::vector<unsigned char> &bytes) : bytes(bytes) {}
	static std::int64_t write(const clap_ostream *stream, const void *buffer, std::uint64_t size) {
		auto &bytes = static_cast<ByteSink *>(stream->ctx)->bytes;
		auto *data = static_cast<const unsigned char *>(buffer);
		bytes.insert(bytes.end(), data, data + size);
		return std::int64_t(size);
	}
};

} // namespace

ClapWebviewGui::ClapWebviewGui(const clap_plugin *plugin, const clap_host *host)
	: clapGui(&guiTable), clapHostWebview(&hostWebviewTable), plugin(plugin), host(host), uri() {
	std::unique_lock<std::shared_mutex> lock(pointerMapMutex);
	if (plugin) pointerMap[reinterpret_cast<std::size_t>(plugin)] = this;
	if (host) pointerMap[reinterpret_cast<std::size_t>(host)] = this;
}

ClapWebviewGui::~ClapWebviewGui() {
	webview.reset();
	stopPumping();
}

void ClapWebviewGui::findExtensions() {
	pluginWebview = static_cast<const clap_plugin_webview *>(plugin->get_extension(plugin, CLAP_EXT_WEBVIEW));
	hostWebview = static_cast<const clap_host_webview *>(host->get_extension(host, CLAP_EXT_WEBVIEW));
	hostTimerSupport = static_cast<const clap_host_timer_support *>(host->get_extension(host, CLAP_EXT_TIMER_SUPPORT));
	hostPosixFdSupport
		= static_cast<const clap_host_posix_fd_support *>(host->get_extension(host, CLAP_EXT_POSIX_FD_SUPPORT));
}

ClapWebviewGui *ClapWebviewGui::lookup(const void *key) {
	std::shared_lock<std::shared_mutex> lock(pointerMapMutex);
	auto found = pointerMap.find(reinterpret_cast<std::size_t>(key));
	return found == pointerMap.end() ? nullptr : found->second;
}

bool ClapWebviewGui::create(const char *api, bool isFloating) {
	// The host shows the page itself through clap.webview/3; nothing floats.
	if (isFloating || isWebviewApi(api)) return isWebviewApi(api);

	if (pluginWebview) {
		const std::int32_t length = pluginWebview->get_uri(plugin, uri, sizeof(uri) - 1);
		if (length >= std::int32_t(sizeof(uri))) {
			std::snprintf(uri, sizeof(uri), "data:text/html,URI%%20too%%20long");
		} else if (length < 1) {
			std::snprintf(uri, sizeof(uri), "data:text/html,get_uri%%20error");
		}
	} else {
		std::snprintf(uri, sizeof(uri), "data:text/html,no%%20plugin%%20webview%%20ext");
	}
	uri[sizeof(uri) - 1] = '\0';
	std::string address = uri;
	if (!hasScheme(uri) && address[0] != '/') address = "/" + address;

	const WebviewGui::Platform platform = platformOf(api);
	const bool pumped = WebviewGui::needsPump(platform);
	if (pumped && !hostTimerSupport) return false; // nothing would ever run the page
	WebviewGui *made = nullptr;
	if (address.compare(0, 5, "file:") == 0) {
		std::size_t start = 5;
		while (start < address.size() && address[start] == '/') ++start;
		const std::string path = address.substr(start);
		const std::size_t slash = path.rfind('/');
		std::string directory = slash == std::string::npos ? "" : path.substr(0, slash);
		const std::string first = slash == std::string::npos ? path : path.substr(slash);
		if (directory.empty() || directory[0] != '/') directory = "/" + directory;
		made = WebviewGui::create(platform, first, directory);
	} else {
		made = WebviewGui::create(platform, address, [this](const char *path, WebviewGui::Resource &resource) {
			if (!pluginWebview) return false;
			char mediaType[256] = {};
			ByteSink sink(resource.bytes);
			if (!pluginWebview->get_resource(plugin, path, mediaType, 255, &sink.stream)) return false;
			resource.mediaType = mediaType;
			return true;
		});
	}
	if (!made) return false;
	if (pumped && !startPumping()) {
		delete made;
		return false;
	}
	webview.reset(made);
	webview->setSize(width, height); // the size the host was told, until it sets one
	webview->receive = [this](const unsigned char *bytes, std::size_t length) {
		if (pluginWebview) pluginWebview->receive(plugin, bytes, std::uint32_t(length));
	};
	return true;
}

bool ClapWebviewGui::send(const void *bytes, std::uint32_t length) {
	if (webview) {
		webview->send(static_cast<const unsigned char *>(bytes), length);
		return true;
	}
	if (hostWebview) return hostWebview->send(host, bytes, length);
	return false;
}

bool ClapWebviewGui::host_webview_send(const clap_host *host, const void *bytes, std::uint32_t length) {
	ClapWebviewGui *gui = lookup(host);
	return gui && gui->send(bytes, length);
}

// Whether this plug-in can show that kind of editor, whichever host asks: a
// scanner that offers no timers still learns that the plug-in has an editor.
// What a host lacks to run it is gui_create's to refuse.
bool ClapWebviewGui::gui_is_api_supported(const clap_plugin *, const char *api, bool isFloating) {
	if (isFloating || isWebviewApi(api)) return isWebviewApi(api);
	return WebviewGui::supports(platformOf(api));
}

// The page in the host's own web view where the host has one, else the
// platform's window API.
bool ClapWebviewGui::gui_get_preferred_api(const clap_plugin *plugin, const char **api, bool *isFloating) {
	ClapWebviewGui *gui = lookup(plugin);
	const char *preferred = nullptr;
	if (gui && gui->hostWebview) {
		preferred = CLAP_WINDOW_API_WEBVIEW;
	} else {
		for (const char *native : {CLAP_WINDOW_API_COCOA, CLAP_WINDOW_API_X11, CLAP_WINDOW_API_WIN32}) {
			if (WebviewGui::supports(platformOf(native))) {
				preferred = native;
				break;
			}
		}
	}
	if (!preferred) return false;
	if (api) *api = preferred;
	if (isFloating) *isFloating = false;
	return true;
}

bool ClapWebviewGui::gui_create(const clap_plugin *plugin, const char *api, bool isFloating) {
	ClapWebviewGui *gui = lookup(plugin);
	return gui && gui->create(api, isFloating);
}

void ClapWebviewGui::gui_destroy(const clap_plugin *plugin) {
	ClapWebviewGui *gui = lookup(plugin);
	if (!gui) return;
	gui->webview.reset();
	if (gui->timerId != CLAP_INVALID_ID) {
		gui->pumpEvents(); // lets the view's teardown run before the pump stops
		gui->stopPumping();
	}
}

bool ClapWebviewGui::gui_set_scale(const clap_plugin *plugin, double) {
	ClapWebviewGui *gui = lookup(plugin);
	if (gui && gui->webview) gui->webview->setSize(gui->width, gui->height);
	return true;
}

bool ClapWebviewGui::gui_get_size(const clap_plugin *plugin, std::uint32_t *width, std::uint32_t *height) {
	ClapWebviewGui *gui = lookup(plugin);
	if (!gui) return false;
	if (width) *width = gui->width;
	if (height) *height = gui->height;
	return true;
}

bool ClapWebviewGui::gui_can_resize(const clap_plugin *) { return true; }

bool ClapWebviewGui::gui_get_resize_hints(const clap_plugin *, clap_gui_resize_hints *hints) {
	if (hints) *hints = clap_gui_resize_hints{true, true, false, 0, 0};
	return true;
}

bool ClapWebviewGui::gui_adjust_size(const clap_plugin *, std::uint32_t *, std::uint32_t *) { return true; }

bool ClapWebviewGui::gui_set_size(const clap_plugin *plugin, std::uint32_t width, std::uint32_t height) {
	ClapWebviewGui *gui = lookup(plugin);
	if (!gui) return false;
	gui->width = width;
	gui->height = height;
	if (gui->webview) gui->webview->setSize(width, height);
	return true;
}

bool ClapWebviewGui::gui_set_parent(const clap_plugin *plugin, const clap_window *window) {
	ClapWebviewGui *gui = lookup(plugin);
	if (!gui || !gui->webview || !window) return false;
	if (!std::strcmp(window->api ? window->api : "", CLAP_WINDOW_API_X11)) {
		gui->webview->attach(reinterpret_cast<void *>(window->x11));
	} else {
		gui->webview->attach(window->ptr);
	}
	return true;
}

void ClapWebviewGui::pumpEvents() {
	if (!WebviewGui::pump(pumpFds) || !hostPosixFdSupport) return;
	// One entry per descriptor, its interests merged: GLib may list one twice.
	std::sort(pumpFds.begin(), pumpFds.end(), [](const auto &a, const auto &b) { return a.fd < b.fd; });
	std::size_t kept = 0;
	for (const auto &entry : pumpFds) {
		if (entry.flags == 0) continue;
		if (kept > 0 && pumpFds[kept - 1].fd == entry.fd) {
			pumpFds[kept - 1].flags |= entry.flags;
		} else {
			pumpFds[kept++] = entry;
		}
	}
	pumpFds.resize(kept);

	// Both lists are sorted by descriptor: walk them side by side.
	std::size_t w = 0;
	std::vector<WebviewGui::EventFd> watched;
	watched.reserve(pumpFds.size());
	for (const auto &wanted : pumpFds) {
		while (w < watchedFds.size() && watchedFds[w].fd < wanted.fd) {
			hostPosixFdSupport->unregister_fd(host, watchedFds[w++].fd);
		}
		if (w < watchedFds.size() && watchedFds[w].fd == wanted.fd) {
			const bool same = watchedFds[w].flags == wanted.flags;
			if (same || hostPosixFdSupport->modify_fd(host, wanted.fd, wanted.flags)) {
				watched.push_back(wanted);
			} else {
				hostPosixFdSupport->unregister_fd(host, wanted.fd);
			}
			++w;
		} else if (hostPosixFdSupport->register_fd(host, wanted.fd, wanted.flags)) {
			watched.push_back(wanted);
		}
	}
	for (; w < watchedFds.size(); ++w) hostPosixFdSupport->unregister_fd(host, watchedFds[w].fd);
	watchedFds.swap(watched);
}

bool ClapWebviewGui::startPumping() {
	if (timerId != CLAP_INVALID_ID) return true;
	clap_id id = CLAP_INVALID_ID;
	if (!hostTimerSupport || !hostTimerSupport->register_timer(host, pumpPeriodMs, &id)) return false;
	timerId = id;
	return true;
}

void ClapWebviewGui::stopPumping() {
	if (timerId != CLAP_INVALID_ID && hostTimerSupport) hostTimerSupport->unregister_timer(host, timerId);
	timerId = CLAP_INVALID_ID;
	if (hostPosixFdSupport) {
		for (const auto &entry : watchedFds) hostPosixFdSupport->unregister_fd(host, entry.fd);
	}
	watchedFds.clear();
}

void ClapWebviewGui::timer_on_timer(const clap_plugin *plugin, clap_id timerId) {
	ClapWebviewGui *gui = lookup(plugin);
	if (gui && timerId != CLAP_INVALID_ID && timerId == gui->timerId) gui->pumpEvents();
}

void ClapWebviewGui::posix_fd_on_fd(const clap_plugin *plugin, int, clap_posix_fd_flags_t) {
	ClapWebviewGui *gui = lookup(plugin);
	if (gui && gui->timerId != CLAP_INVALID_ID) gui->pumpEvents();
}

bool ClapWebviewGui::gui_set_transient(const clap_plugin *, const clap_window *) { return false; }
void ClapWebviewGui::gui_suggest_title(const clap_plugin *, const char *) {}

bool ClapWebviewGui::gui_show(const clap_plugin *plugin) {
	ClapWebviewGui *gui = lookup(plugin);
	if (!gui || !gui->webview) return false;
	gui->webview->setVisible(true);
	return true;
}

bool ClapWebviewGui::gui_hide(const clap_plugin *plugin) {
	ClapWebviewGui *gui = lookup(plugin);
	if (!gui || !gui->webview) return false;
	gui->webview->setVisible(false);
	return true;
}

} // namespace webview_gui
