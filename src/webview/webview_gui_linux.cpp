// The web view on Linux: X11 only, through the GTK object beside the bundle
// (gtk_view.h). The object is opened on the first web view and kept: the
// bundle itself links nothing of GTK, so it loads and runs without it.
#include "webview/base64.h"
#include "webview/gtk_view.h"
#include "webview/injected_script.h"
#include "webview/media_type.h"
#include "webview/webview_gui.h"

#include <dlfcn.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

namespace webview_gui {

namespace {

constexpr WebviewGui::Platform x11 = 3;
// Dispatches per pump: enough for a frame's worth of work at a 16 ms tick,
// few enough that a busy page can't hold the host's thread for long.
constexpr int maxDispatches = 50;
constexpr std::size_t maxEventFds = 64;

const gtk::Api *gtkApi = nullptr; // set once the object is open; never closed
bool pumping = false;

// The object sits beside the bundle, whatever path the host loaded it by.
std::string objectPath() {
	Dl_info info{};
	if (!dladdr(reinterpret_cast<void *>(&objectPath), &info) || !info.dli_fname) return gtk::objectName;
	const std::string bundle = info.dli_fname;
	const std::size_t slash = bundle.rfind('/');
	return (slash == std::string::npos ? std::string("./") : bundle.substr(0, slash + 1)) + gtk::objectName;
}

// GTK 3 can't share a process with GTK 2 or GTK 4: their GObject types
// collide, and GTK 3's first call then hangs the host's thread. A host built
// on either gets no editor of ours (and shows its own parameter form).
bool otherGtkLoaded() {
	for (const char *other : {"libgtk-x11-2.0.so.0", "libgtk-4.so.1"}) {
		if (void *handle = dlopen(other, RTLD_LAZY | RTLD_NOLOAD)) {
			dlclose(handle);
			return true;
		}
	}
	return false;
}

const gtk::Api *openObject() {
	if (gtkApi) return gtkApi;
	if (otherGtkLoaded()) return nullptr;
	// NODELETE: GTK and its threads must never be unmapped under the host.
	void *handle = dlopen(objectPath().c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
	if (!handle) return nullptr;
	auto entry = reinterpret_cast<decltype(&lumbrel_webview_gtk)>(dlsym(handle, gtk::entryName));
	const gtk::Api *api = entry ? entry() : nullptr;
	if (api && api->version == gtk::apiVersion) gtkApi = api;
	return gtkApi;
}

bool hasScheme(const std::string &url) {
	std::size_t i = 0;
	for (; i < url.size() && url[i] != ':'; ++i) {
		const char c = url[i];
		const bool allowed = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '+'
			|| c == '-' || c == '.';
		if (!allowed) return false;
	}
	return i > 0 && i < url.size();
}

// `path` resolved against "webview-gui://", whose authority and path are
// empty: "/index.html" gives "webview-gui:///index.html".
std::string servedUrl(const std::string &path) {
	if (hasScheme(path)) return path;
	if (path.compare(0, 2, "//") == 0) return std::string(schemeName) + ":" + path;
	if (!path.empty() && path[0] == '/') return schemeBase + path;
	return std::string(schemeBase) + "/" + path;
}

std::string fileUrl(const std::string &path) {
	static const char hex[] = "0123456789ABCDEF";
	std::string url = "file://";
	for (unsigned char c : path) {
		const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/'
			|| c == '-' || c == '.' || c == '_' || c == '~';
		if (plain) {
			url += char(c);
		} else {
			url += '%';
			url += hex[c >> 4];
			url += hex[c & 15];
		}
	}
	return url;
}

} // namespace

struct WebviewGui::Impl {
	WebviewGui *owner = nullptr;
	gtk::View *view = nullptr;
	ResourceFn resourceFn;
	gtk::Callbacks callbacks{this, message, nullptr};

	explicit Impl(ResourceFn resourceFn) : resourceFn(std::move(resourceFn)) {
		if (this->resourceFn) callbacks.resource = resource;
	}
	~Impl() {
		if (view) gtkApi->destroy(view);
	}

	static void message(void *context, const char *text) {
		WebviewGui *gui = static_cast<Impl *>(context)->owner;
		if (!gui || !gui->receive) return;
		std::vector<unsigned char> bytes;
		helpers::decodeBase64(text, bytes);
		gui->receive(bytes.data(), bytes.size());
	}

	static bool resource(void *context, const char *path, Resource &resource) {
		resource.mediaType = helpers::guessMediaType(path);
		return static_cast<Impl *>(context)->resourceFn(path, resource);
	}

	static WebviewGui *open(const std::string &url, ResourceFn resourceFn) {
		// A start that failed once isn't tried again: GTK may be left half set up.
		static bool startFailed = false;
		if (startFailed || !openObject()) return nullptr;
		if (!gtkApi->start()) {
			startFailed = true;
			return nullptr;
		}
		auto impl = std::make_unique<Impl>(std::move(resourceFn));
		impl->view = gtkApi->create(url.c_str(), injectedScript, scriptMessageName, schemeName, &impl->callbacks);
		if (!impl->view) return nullptr;
		return new WebviewGui(std::move(impl));
	}
};

// The object must open: it and the GTK and WebKit libraries it needs are
// there. Opening loads them into the host, as the editor would anyway.
bool WebviewGui::supports(Platform platform) { return platform == x11 && openObject(); }

bool WebviewGui::needsPump(Platform platform) { return platform == x11; }

bool WebviewGui::pump(std::vector<EventFd> &fds) {
	fds.clear();
	if (!gtkApi || pumping) return false;
	pumping = true;
	fds.resize(maxEventFds);
	const std::size_t count = gtkApi->pump(maxDispatches, fds.data(), fds.size());
	fds.resize(std::min(count, maxEventFds));
	pumping = false;
	return true;
}

WebviewGui *WebviewGui::create(Platform platform, const std::string &url) {
	if (platform != x11) return nullptr;
	return Impl::open(url, nullptr);
}

WebviewGui *WebviewGui::create(Platform platform, const std::string &startPath, ResourceFn resourceFn) {
	if (platform != x11) return nullptr;
	return Impl::open(servedUrl(startPath), std::move(resourceFn));
}

WebviewGui *WebviewGui::create(Platform platform, const std::string &startPath, const std::string &fileRoot) {
	if (fileRoot.empty()) return create(platform, startPath);
	if (platform != x11) return nullptr;
	std::string path = fileRoot;
	if (path.back() != '/') path += '/';
	path += startPath.compare(0, 1, "/") == 0 ? startPath.substr(1) : startPath;
	return Impl::open(fileUrl(path), nullptr);
}

WebviewGui::WebviewGui(std::unique_ptr<Impl> impl) : impl(std::move(impl)) { this->impl->owner = this; }

WebviewGui::~WebviewGui() = default;

void WebviewGui::attach(void *parent) { gtkApi->attach(impl->view, reinterpret_cast<unsigned long>(parent)); }

void WebviewGui::send(const unsigned char *bytes, std::size_t length) {
	std::string script = sendScriptStart;
	helpers::encodeBase64(bytes, length, script);
	script += sendScriptEnd;
	gtkApi->evaluate(impl->view, script.c_str());
}

void WebviewGui::setSize(double width, double height) {
	gtkApi->setSize(impl->view, int(std::lround(width)), int(std::lround(height)));
}

void WebviewGui::setVisible(bool visible) { gtkApi->setVisible(impl->view, visible); }

} // namespace webview_gui
