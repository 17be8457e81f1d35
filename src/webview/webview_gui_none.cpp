// Platforms without a native web view of our own: the editor is shown only by
// hosts that offer the "webview" API.
#include "webview/webview_gui.h"

namespace webview_gui {

struct WebviewGui::Impl {};

bool WebviewGui::supports(Platform) { return false; }
bool WebviewGui::needsPump(Platform) { return false; }
bool WebviewGui::pump(std::vector<EventFd> &fds) {
	fds.clear();
	return false;
}
WebviewGui *WebviewGui::create(Platform, const std::string &) { return nullptr; }
WebviewGui *WebviewGui::create(Platform, const std::string &, ResourceFn) { return nullptr; }
WebviewGui *WebviewGui::create(Platform, const std::string &, const std::string &) { return nullptr; }
WebviewGui::WebviewGui(std::unique_ptr<Impl> impl) : impl(std::move(impl)) {}
WebviewGui::~WebviewGui() = default;
void WebviewGui::attach(void *) {}
void WebviewGui::send(const unsigned char *, std::size_t) {}
void WebviewGui::setSize(double, double) {}
void WebviewGui::setVisible(bool) {}

} // namespace webview_gui
