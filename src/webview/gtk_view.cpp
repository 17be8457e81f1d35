// The GTK object (LumbrelWebview.so): WebKitGTK views in GtkPlug windows that
// are children of a host's X11 window. The host's main loop knows nothing of
// GLib, so nothing here runs unless the bundle pumps GLib's default context
// from a host timer; there is no thread or timer of ours.
#include "webview/gtk_view.h"

#include <gdk/gdkx.h>
#include <gtk/gtk.h>
#include <gtk/gtkx.h>
#include <webkit2/webkit2.h>
#include <X11/Xlib.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace webview_gui::gtk {

struct View {
	WebKitWebView *webView = nullptr; // our reference; the view outlives any plug it sits in
	WebKitUserContentManager *contentManager = nullptr;
	GtkWidget *plug = nullptr;
	Callbacks callbacks{};
	std::string messageName;
	gulong messageSignal = 0, pressSignal = 0, plugDestroySignal = 0;
	int width = 400, height = 250;
	bool visible = true;
};

namespace {

// The key under which a web view carries its View, for scheme requests.
const char implKey[] = "WebviewGui::Impl";

// Ours alone, so that a host using WebKit keeps its own settings; ephemeral,
// so that nothing is written under the user's home in the host's name. Made
// once and kept, as GTK is.
WebKitWebContext *webContext = nullptr;
std::set<std::string> servedSchemes;

Display *xDisplay() { return gdk_x11_display_get_xdisplay(gdk_display_get_default()); }

// Our Xlib calls go to windows the host may destroy at any moment; GDK's
// default handler would end the process on the error.
struct XErrorTrap {
	XErrorTrap() { gdk_x11_display_error_trap_push(gdk_display_get_default()); }
	~XErrorTrap() { gdk_x11_display_error_trap_pop_ignored(gdk_display_get_default()); }
};

Window plugWindow(const View *view) {
	if (!view->plug || !gtk_widget_get_realized(view->plug)) return 0;
	return gdk_x11_window_get_xid(gtk_widget_get_window(view->plug));
}

// Size and mapping are ours to do, on the plug's X window itself: a host that
// doesn't speak XEmbed never maps or sizes the plug.
void placePlug(View *view) {
	const Window window = plugWindow(view);
	if (!window) return;
	XErrorTrap trap;
	XMoveResizeWindow(xDisplay(), window, 0, 0, unsigned(std::max(view->width, 1)), unsigned(std::max(view->height, 1)));
	if (view->visible) {
		XMapWindow(xDisplay(), window);
	} else {
		XUnmapWindow(xDisplay(), window);
	}
	XFlush(xDisplay());
}

void onScriptMessage(WebKitUserContentManager *, WebKitJavascriptResult *result, gpointer data) {
	auto *view = static_cast<View *>(data);
	JSCValue *value = webkit_javascript_result_get_js_value(result);
	if (!value || !jsc_value_is_string(value)) return; // only the script's base64 text counts
	char *text = jsc_value_to_string(value);
	if (view->callbacks.message) view->callbacks.message(view->callbacks.context, text);
	g_free(text);
}

// Keys go to the X window with the input focus, and a host's window keeps it
// unless we take it: on a press the page gets the focus, as a click in a
// browser gives it.
gboolean onPress(GtkWidget *widget, GdkEventButton *, gpointer data) {
	const Window window = plugWindow(static_cast<View *>(data));
	if (window) {
		XErrorTrap trap;
		XSetInputFocus(xDisplay(), window, RevertToParent, CurrentTime);
	}
	gtk_widget_grab_focus(widget);
	return FALSE;
}

// The host destroyed its window, and the plug with it. Destroying a container
// destroys its children, so the view leaves first: it lives on for the next
// attach.
void onPlugDestroyed(GtkWidget *plug, gpointer data) {
	auto *view = static_cast<View *>(data);
	if (view->plug != plug) return;
	gtk_container_remove(GTK_CONTAINER(plug), GTK_WIDGET(view->webView));
	view->plug = nullptr;
}

void detachPlug(View *view) {
	if (!view->plug) return;
	GtkWidget *plug = view->plug;
	view->plug = nullptr;
	g_signal_handler_disconnect(plug, view->plugDestroySignal);
	gtk_container_remove(GTK_CONTAINER(plug), GTK_WIDGET(view->webView));
	XErrorTrap trap;
	gtk_widget_destroy(plug);
}

// Answers a request for the served scheme: 200 with the four headers, or 404
// with none. A request must be answered even when its view is gone.
void answerRequest(WebKitURISchemeRequest *request, gpointer) {
	WebKitWebView *webView = webkit_uri_scheme_request_get_web_view(request);
	auto *view = webView ? static_cast<View *>(g_object_get_data(G_OBJECT(webView), implKey)) : nullptr;
	WebviewGui::Resource resource;
	bool found = false;
	if (view && view->callbacks.resource) {
		// The path keeps its "/" and query: "webview-gui:///index.html?x" gives "/index.html?x".
		const char *uri = webkit_uri_scheme_request_get_uri(request);
		const char *path = std::strstr(uri, "://");
		found = view->callbacks.resource(view->callbacks.context, path ? path + 3 : uri, resource);
	}
	const std::size_t size = found ? resource.bytes.size() : 0;
	GBytes *bytes = g_bytes_new(found ? resource.bytes.data() : nullptr, size);
	GInputStream *stream = g_memory_input_stream_new_from_bytes(bytes);
	WebKitURISchemeResponse *response = webkit_uri_scheme_response_new(stream, gint64(size));
	if (found) {
		webkit_uri_scheme_response_set_status(response, 200, nullptr);
		webkit_uri_scheme_response_set_content_type(response, resource.mediaType.c_str());
		SoupMessageHeaders *headers = soup_message_headers_new(SOUP_MESSAGE_HEADERS_RESPONSE);
		soup_message_headers_append(headers, "Content-Length", std::to_string(size).c_str());
		soup_message_headers_append(headers, "Content-Type", resource.mediaType.c_str());
		soup_message_headers_append(headers, "Cache-Control", "no-store");
		soup_message_headers_append(headers, "Access-Control-Allow-Origin", "*");
		webkit_uri_scheme_response_set_http_headers(response, headers); // takes the headers
	} else {
		webkit_uri_scheme_response_set_status(response, 404, nullptr);
	}
	webkit_uri_scheme_request_finish_with_response(request, response);
	g_object_unref(response);
	g_object_unref(stream);
	g_bytes_unref(bytes);
}

bool start() {
	if (GdkDisplay *display = gdk_display_get_default()) return GDK_IS_X11_DISPLAY(display);
	static bool prepared = false;
	if (!prepared) {
		gtk_disable_setlocale(); // the host's locale is the host's
		gdk_set_allowed_backends("x11"); // GtkPlug is X11 only, even in a Wayland session
		prepared = true;
	}
	return gtk_init_check(nullptr, nullptr);
}

View *create(const char *url, const char *script, const char *messageName, const char *scheme,
	const Callbacks *callbacks) {
	if (!start()) return nullptr;
	if (!webContext) {
		webContext = webkit_web_context_new_ephemeral();
		webkit_web_context_set_cache_model(webContext, WEBKIT_CACHE_MODEL_DOCUMENT_VIEWER);
	}
	if (scheme && servedSchemes.insert(scheme).second) {
		webkit_web_context_register_uri_scheme(webContext, scheme, answerRequest, nullptr, nullptr);
		webkit_security_manager_register_uri_scheme_as_secure(webkit_web_context_get_security_manager(webContext), scheme);
	}

	auto *view = new View;
	view->callbacks = *callbacks;
	view->messageName = messageName;
	view->contentManager = webkit_user_content_manager_new();
	WebKitUserScript *userScript = webkit_user_script_new(script, WEBKIT_USER_CONTENT_INJECT_TOP_FRAME,
		WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_START, nullptr, nullptr);
	webkit_user_content_manager_add_script(view->contentManager, userScript);
	webkit_user_script_unref(userScript);
	const std::string signal = "script-message-received::" + view->messageName;
	view->messageSignal = g_signal_connect(view->contentManager, signal.c_str(), G_CALLBACK(onScriptMessage), view);
	webkit_user_content_manager_register_script_message_handler(view->contentManager, messageName);

	WebKitSettings *settings = webkit_settings_new();
	// Software drawing: a GL context inside a foreign window is not to be relied on.
	webkit_settings_set_hardware_acceleration_policy(settings, WEBKIT_HARDWARE_ACCELERATION_POLICY_NEVER);
	webkit_settings_set_enable_fullscreen(settings, FALSE);
	webkit_settings_set_javascript_can_open_windows_automatically(settings, FALSE);
	GtkWidget *widget = GTK_WIDGET(g_object_new(WEBKIT_TYPE_WEB_VIEW, "web-context", webContext, "user-content-manager",
		view->contentManager, "settings", settings, nullptr));
	g_object_unref(settings);
	view->webView = WEBKIT_WEB_VIEW(g_object_ref_sink(widget));
	g_object_set_data(G_OBJECT(view->webView), implKey, view);
	view->pressSignal = g_signal_connect(widget, "button-press-event", G_CALLBACK(onPress), view);
	webkit_web_view_load_uri(view->webView, url);
	return view;
}

void destroy(View *view) {
	if (!view) return;
	// Cut every road back to `view` first, so that nothing late finds it.
	g_object_set_data(G_OBJECT(view->webView), implKey, nullptr);
	g_signal_handler_disconnect(view->contentManager, view->messageSignal);
	webkit_user_content_manager_unregister_script_message_handler(view->contentManager, view->messageName.c_str());
	g_signal_handler_disconnect(view->webView, view->pressSignal);
	XErrorTrap trap; // the host's window, and ours in it, may be gone already
	detachPlug(view);
	gtk_widget_destroy(GTK_WIDGET(view->webView));
	g_object_unref(view->webView);
	g_object_unref(view->contentManager);
	delete view;
	// The window must leave the host's at once: nobody may pump again.
	gdk_display_flush(gdk_display_get_default());
}

void attach(View *view, unsigned long parent) {
	detachPlug(view);
	XErrorTrap trap;
	view->plug = gtk_plug_new(Window(parent));
	view->plugDestroySignal = g_signal_connect(view->plug, "destroy", G_CALLBACK(onPlugDestroyed), view);
	gtk_window_set_default_size(GTK_WINDOW(view->plug), view->width, view->height);
	gtk_container_add(GTK_CONTAINER(view->plug), GTK_WIDGET(view->webView));
	gtk_widget_show_all(view->plug);
	placePlug(view);
}

void evaluate(View *view, const char *script) {
	webkit_web_view_evaluate_javascript(view->webView, script, -1, nullptr, nullptr, nullptr, nullptr, nullptr);
}

void setSize(View *view, int width, int height) {
	view->width = width;
	view->height = height;
	if (view->plug) gtk_window_set_default_size(GTK_WINDOW(view->plug), width, height);
	placePlug(view);
}

void setVisible(View *view, bool visible) {
	view->visible = visible;
	placePlug(view);
}

unsigned clapFlags(gushort events) {
	unsigned flags = 0;
	if (events & (G_IO_IN | G_IO_PRI)) flags |= 1;
	if (events & G_IO_OUT) flags |= 2;
	if (events & (G_IO_ERR | G_IO_HUP | G_IO_NVAL)) flags |= 4;
	return flags;
}

// Iterations of GLib's loop as g_main_context_iteration runs them, but with
// a poll that never waits (the host's loop does the waiting), until nothing
// is ready or `maxDispatches` have run.
std::size_t pump(int maxDispatches, WebviewGui::EventFd *out, std::size_t capacity) {
	GMainContext *context = g_main_context_default();
	if (!g_main_context_acquire(context)) return 0; // another thread runs it
	// The host may destroy its window, and ours with it, at any time; what
	// GDK then asks of the dead windows fails, and must not end the process.
	GdkDisplay *display = gdk_display_get_default();
	if (display) gdk_x11_display_error_trap_push(display);
	static std::vector<GPollFD> fds(32);
	gint count = 0;
	for (int i = 0; i < maxDispatches; ++i) {
		gint priority = 0, timeout = 0;
		g_main_context_prepare(context, &priority);
		while ((count = g_main_context_query(context, priority, &timeout, fds.data(), gint(fds.size())))
			> gint(fds.size())) {
			fds.resize(std::size_t(count));
		}
		if (count > 0) g_poll(fds.data(), guint(count), 0);
		const bool ready = g_main_context_check(context, priority, fds.data(), count);
		g_main_context_dispatch(context);
		if (!ready) break;
	}
	for (gint i = 0; i < count && std::size_t(i) < capacity; ++i) out[i] = {fds[i].fd, clapFlags(fds[i].events)};
	if (display) gdk_x11_display_error_trap_pop_ignored(display);
	g_main_context_release(context);
	return std::size_t(count);
}

} // namespace
} // namespace webview_gui::gtk

extern "C" __attribute__((visibility("default"))) const webview_gui::gtk::Api *lumbrel_webview_gtk() {
	using namespace webview_gui::gtk;
	static const Api api{apiVersion, start, create, destroy, attach, evaluate, setSize, setVisible, pump};
	return &api;
}
