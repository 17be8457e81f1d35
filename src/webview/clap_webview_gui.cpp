#include "webview/clap_webview_gui.h"

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

void ClapWebviewGui::findWebviewExtensions() {
	pluginWebview = static_cast<const clap_plugin_webview *>(plugin->get_extension(plugin, CLAP_EXT_WEBVIEW));
	hostWebview = static_cast<const clap_host_webview *>(host->get_extension(host, CLAP_EXT_WEBVIEW));
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
	webview.reset(made);
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

bool ClapWebviewGui::gui_is_api_supported(const clap_plugin *, const char *api, bool isFloating) {
	if (isFloating || isWebviewApi(api)) return isWebviewApi(api);
	return WebviewGui::supports(platformOf(api));
}

bool ClapWebviewGui::gui_get_preferred_api(const clap_plugin *, const char **api, bool *isFloating) {
	if (api) *api = CLAP_WINDOW_API_WEBVIEW;
	if (isFloating) *isFloating = false;
	return true;
}

bool ClapWebviewGui::gui_create(const clap_plugin *plugin, const char *api, bool isFloating) {
	ClapWebviewGui *gui = lookup(plugin);
	return gui && gui->create(api, isFloating);
}

void ClapWebviewGui::gui_destroy(const clap_plugin *plugin) {
	if (ClapWebviewGui *gui = lookup(plugin)) gui->webview.reset();
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
