// The web view on macOS: WKWebView, reached through the Objective-C runtime
// alone (objc.h). Two classes are made at run time: the script message
// handler, through which the page's posts arrive, and the URL scheme handler
// that serves "webview-gui" from memory. Both find their Impl through an
// associated object that doesn't keep it alive.
#include "webview/base64.h"
#include "webview/injected_script.h"
#include "webview/media_type.h"
#include "webview/objc.h"
#include "webview/webview_gui.h"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace webview_gui {

using namespace _objc;
// Inside WebviewGui and its Impl, a plain `send` is the member: messages are
// written `_objc::send` throughout.

namespace {

constexpr WebviewGui::Platform cocoa = 2;
constexpr long documentStart = 0; // WKUserScriptInjectionTimeAtDocumentStart

// The key of the associated object: its address is what counts.
const char implKey[] = "WebviewGui::Impl";

Class messageHandlerClass = nullptr;
Class schemeHandlerClass = nullptr;

WebviewGui::Impl *implOf(id handler) {
	return reinterpret_cast<WebviewGui::Impl *>(objc_getAssociatedObject(handler, implKey));
}

void setImpl(id handler, WebviewGui::Impl *impl) {
	objc_setAssociatedObject(handler, implKey, reinterpret_cast<id>(impl), OBJC_ASSOCIATION_ASSIGN);
}

void messageHandlerImpl(id self, SEL, id controller, id message);
void schemeHandlerStartImpl(id self, SEL, id webView, id task);
void schemeHandlerStopImpl(id self, SEL, id webView, id task);

// Derived from NSObject under a fixed name; a class of that name that exists
// already is used as it is.
Class makeClass(const char *name, const char *protocol, const char *const *selectors, const IMP *methods, int count) {
	if (Class existing = objc_lookUpClass(name)) return existing;
	Class made = objc_allocateClassPair(objc_lookUpClass("NSObject"), name, 0);
	if (!made) return nullptr;
	if (Protocol *conforms = objc_getProtocol(protocol)) class_addProtocol(made, conforms);
	for (int i = 0; i < count; ++i) class_addMethod(made, sel_registerName(selectors[i]), methods[i], "v@:@@");
	objc_registerClassPair(made);
	return made;
}

void makeMessageHandlerClass() {
	if (messageHandlerClass) return;
	const char *const selectors[] = {"userContentController:didReceiveScriptMessage:"};
	const IMP methods[] = {reinterpret_cast<IMP>(&messageHandlerImpl)};
	messageHandlerClass = makeClass("WebviewGUI_WKScriptMessageHandler", "WKScriptMessageHandler", selectors, methods, 1);
}

void makeSchemeHandlerClass() {
	if (schemeHandlerClass) return;
	const char *const selectors[] = {"webView:startURLSchemeTask:", "webView:stopURLSchemeTask:"};
	const IMP methods[] = {reinterpret_cast<IMP>(&schemeHandlerStartImpl), reinterpret_cast<IMP>(&schemeHandlerStopImpl)};
	schemeHandlerClass = makeClass("WebviewGUI_WKURLSchemeHandler", "WKURLSchemeHandler", selectors, methods, 2);
}

id urlRequest(id url) { return _objc::send(classNamed("NSMutableURLRequest"), "requestWithURL:", url); }

} // namespace

struct WebviewGui::Impl {
	WebviewGui *owner = nullptr;
	id webView = nullptr; // owned
	id messageHandler = nullptr; // kept by the content controller
	id schemeHandler = nullptr; // owned; null without a resource function
	ResourceFn resourceFn;

	explicit Impl(ResourceFn function) : resourceFn(std::move(function)) {
		makeMessageHandlerClass();
		id configuration = _objc::send(classNamed("WKWebViewConfiguration"), "new");
		if (!configuration) return;
		ScopedRelease configurationRef(configuration); // the web view keeps a copy
		_objc::send<void>(configuration, "setSuppressesIncrementalRendering:", BOOL(YES));
		if (resourceFn) {
			makeSchemeHandlerClass();
			schemeHandler = _objc::send(reinterpret_cast<id>(schemeHandlerClass), "new");
			setImpl(schemeHandler, this);
			_objc::send<void>(configuration, "setURLSchemeHandler:forURLScheme:", schemeHandler, nsString(schemeName));
		}
		id preferences = _objc::send(configuration, "preferences");
		_objc::send<void>(preferences, "setElementFullscreenEnabled:", BOOL(NO));
		_objc::send<void>(preferences, "setJavaScriptCanOpenWindowsAutomatically:", BOOL(NO));
		id controller = _objc::send(configuration, "userContentController");
		id script = _objc::send(_objc::send(classNamed("WKUserScript"), "alloc"), "initWithSource:injectionTime:forMainFrameOnly:",
			nsString(injectedScript), documentStart, BOOL(YES));
		if (!script) return;
		ScopedRelease scriptRef(script);
		_objc::send<void>(controller, "addUserScript:", script);
		messageHandler = _objc::send(reinterpret_cast<id>(messageHandlerClass), "new");
		setImpl(messageHandler, this);
		_objc::send<void>(controller, "addScriptMessageHandler:name:", messageHandler, nsString(scriptMessageName));
		_objc::send<void>(messageHandler, "release");
		webView = _objc::send(_objc::send(classNamed("WKWebView"), "alloc"), "initWithFrame:configuration:", Rect{0, 0, 100, 100},
			configuration);
	}

	// Handlers first, so that a late callback finds no Impl.
	~Impl() {
		if (messageHandler) setImpl(messageHandler, nullptr);
		if (schemeHandler) setImpl(schemeHandler, nullptr);
		_objc::send<void>(webView, "removeFromSuperview");
		_objc::send<void>(webView, "release");
		_objc::send<void>(schemeHandler, "release");
	}

	void load(id request) { _objc::send(webView, "loadRequest:", request); }
};

namespace {

void messageHandlerImpl(id self, SEL, id, id message) {
	WebviewGui::Impl *impl = implOf(self);
	if (!impl || !impl->owner || !impl->owner->receive) return;
	id body = _objc::send(message, "body");
	if (!instanceOf(body, "NSString")) return;
	const char *text = _objc::send<const char *>(body, "UTF8String");
	if (!text) return;
	std::vector<unsigned char> bytes;
	helpers::decodeBase64(text, bytes);
	impl->owner->receive(bytes.data(), bytes.size());
}

// Every task is answered in full here: 200 with the four headers, or 404
// with none.
void schemeHandlerStartImpl(id self, SEL, id, id task) {
	WebviewGui::Impl *impl = implOf(self);
	if (!impl) return;
	id url = _objc::send(_objc::send(task, "request"), "URL");
	const char *absolute = _objc::send<const char *>(_objc::send(url, "absoluteString"), "UTF8String");
	const std::size_t skip = std::strlen(schemeBase); // "webview-gui:///index.html" gives "/index.html"
	const char *path = absolute && std::strlen(absolute) >= skip ? absolute + skip : "";

	WebviewGui::Resource resource;
	resource.mediaType = helpers::guessMediaType(path);
	id httpVersion = nsString("HTTP/1.1");
	if (impl->resourceFn && impl->resourceFn(path, resource)) {
		const std::string length = std::to_string(resource.bytes.size());
		id keys[] = {nsString("Content-Length"), nsString("Content-Type"), nsString("Cache-Control"),
			nsString("Access-Control-Allow-Origin")};
		id values[] = {nsString(length.c_str()), nsString(resource.mediaType.c_str()), nsString("no-store"), nsString("*")};
		id headers = _objc::send(classNamed("NSDictionary"), "dictionaryWithObjects:forKeys:count:", values, keys, 4ul);
		ScopedRelease response(_objc::send(_objc::send(classNamed("NSHTTPURLResponse"), "alloc"),
			"initWithURL:statusCode:HTTPVersion:headerFields:", url, 200l, httpVersion, headers));
		_objc::send<void>(task, "didReceiveResponse:", response.get());
		id data = _objc::send(classNamed("NSData"), "dataWithBytes:length:", static_cast<const void *>(resource.bytes.data()),
			static_cast<unsigned long>(resource.bytes.size()));
		_objc::send<void>(task, "didReceiveData:", data);
		_objc::send<void>(task, "didFinish");
	} else {
		ScopedRelease response(_objc::send(_objc::send(classNamed("NSHTTPURLResponse"), "alloc"),
			"initWithURL:statusCode:HTTPVersion:headerFields:", url, 404l, httpVersion, id(nullptr)));
		_objc::send<void>(task, "didReceiveResponse:", response.get());
		_objc::send<void>(task, "didFinish");
	}
}

// Nothing to stop: a task is answered in full before the start returns.
void schemeHandlerStopImpl(id, SEL, id, id) {}

} // namespace

bool WebviewGui::supports(Platform platform) { return platform == cocoa; }

// WebKit runs on the host's own run loop.
bool WebviewGui::needsPump(Platform) { return false; }
bool WebviewGui::pump(std::vector<EventFd> &fds) {
	fds.clear();
	return false;
}

WebviewGui *WebviewGui::create(Platform platform, const std::string &url) {
	if (platform != cocoa) return nullptr;
	id address = _objc::send(classNamed("NSURL"), "URLWithString:", nsString(url.c_str()));
	auto impl = std::make_unique<Impl>(nullptr);
	if (!impl->webView) return nullptr;
	impl->load(urlRequest(address));
	return new WebviewGui(std::move(impl));
}

WebviewGui *WebviewGui::create(Platform platform, const std::string &startPath, ResourceFn resourceFn) {
	if (platform != cocoa) return nullptr;
	id base = _objc::send(classNamed("NSURL"), "URLWithString:", nsString(schemeBase));
	id address = _objc::send(classNamed("NSURL"), "URLWithString:relativeToURL:", nsString(startPath.c_str()), base);
	id request = urlRequest(address);
	auto impl = std::make_unique<Impl>(std::move(resourceFn));
	if (!impl->webView) return nullptr;
	impl->load(request);
	return new WebviewGui(std::move(impl));
}

WebviewGui *WebviewGui::create(Platform platform, const std::string &startPath, const std::string &fileRoot) {
	if (fileRoot.empty()) return create(platform, startPath);
	if (platform != cocoa) return nullptr;
	id base = _objc::send(classNamed("NSURL"), "fileURLWithPath:isDirectory:", nsString(fileRoot.c_str()), BOOL(YES));
	const std::string relative = startPath.compare(0, 1, "/") == 0 ? startPath.substr(1) : startPath;
	id address = _objc::send(classNamed("NSURL"), "URLWithString:relativeToURL:", nsString(relative.c_str()), base);
	auto impl = std::make_unique<Impl>(nullptr);
	if (!impl->webView) return nullptr;
	if (_objc::send<BOOL>(address, "isFileURL")) {
		_objc::send(impl->webView, "loadFileURL:allowingReadAccessToURL:", address, base);
	} else {
		impl->load(urlRequest(address));
	}
	return new WebviewGui(std::move(impl));
}

WebviewGui::WebviewGui(std::unique_ptr<Impl> impl) : impl(std::move(impl)) { this->impl->owner = this; }

WebviewGui::~WebviewGui() = default;

void WebviewGui::attach(void *parent) { _objc::send<void>(reinterpret_cast<id>(parent), "addSubview:", impl->webView); }

void WebviewGui::send(const unsigned char *bytes, std::size_t length) {
	std::string script = sendScriptStart;
	helpers::encodeBase64(bytes, length, script);
	script += sendScriptEnd;
	_objc::send<void>(impl->webView, "evaluateJavaScript:completionHandler:", nsString(script.c_str()), id(nullptr));
}

void WebviewGui::setSize(double width, double height) {
	_objc::send<void>(impl->webView, "setFrame:", Rect{0, 0, width, height});
}

// The parent view governs visibility.
void WebviewGui::setVisible(bool) {}

} // namespace webview_gui
