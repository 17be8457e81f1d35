#pragma once
// The contract between the bundle and its GTK object (LumbrelWebview.so): a
// WebKitGTK view embedded in a host's X11 window. GTK and WebKit live only in
// that object, which the bundle opens with dlopen on the first editor and
// never closes (GTK can't be unloaded), so a host that scans plug-ins or only
// processes audio never loads them, and the bundle runs where they are absent.
//
// One table of functions, fetched by the name `entryName`, is all that
// crosses. Both sides are built together from this tree; `version` refuses an
// object from another build. Every call is main-thread, and callbacks come
// back on the main thread from inside `pump`.
#include "webview/webview_gui.h"

#include <cstddef>
#include <cstdint>

namespace webview_gui::gtk {

inline constexpr std::uint32_t apiVersion = 1;
inline constexpr const char *entryName = "lumbrel_webview_gtk";
inline constexpr const char *objectName = "LumbrelWebview.so";

struct View;

// What a view asks of the bundle. `context` is passed back as it is.
struct Callbacks {
	void *context;
	// A script message from the page: the text it posted, NUL-terminated.
	void (*message)(void *context, const char *text);
	// Fills `resource` for a request under the served scheme; `path` is the
	// request URI less the scheme and "//", so it keeps its "/" and any query.
	// False answers 404. Null if the view serves nothing.
	bool (*resource)(void *context, const char *path, WebviewGui::Resource &resource);
};

struct Api {
	std::uint32_t version;

	// Starts GTK on the X11 display once (the locale of the host is left
	// alone); false while no display can be opened.
	bool (*start)();

	// Makes a view that starts loading `url` at once. `script` is injected
	// at document start in the main frame and the page gets the script
	// message handler `messageName`. If `callbacks->resource` is set, the
	// scheme `scheme` is served through it, as a secure scheme. Null on failure.
	View *(*create)(const char *url, const char *script, const char *messageName, const char *scheme,
		const Callbacks *callbacks);
	// Ends the view; no callback arrives for it afterwards.
	void (*destroy)(View *view);
	// Embeds the view in the X11 window `parent`, sized and shown by itself:
	// the host need not speak XEmbed. A second call moves it to a new parent.
	void (*attach)(View *view, unsigned long parent);
	// Evaluates script text in the page; the result is dropped.
	void (*evaluate)(View *view, const char *script);
	void (*setSize)(View *view, int width, int height);
	void (*setVisible)(View *view, bool visible);

	// Runs GLib's default context: dispatches what is ready, at most
	// `maxDispatches` times, and writes up to `capacity` of the descriptors
	// it waits on. Returns their count, which may exceed `capacity`.
	std::size_t (*pump)(int maxDispatches, WebviewGui::EventFd *fds, std::size_t capacity);
};

} // namespace webview_gui::gtk

// The one symbol the object exports.
extern "C" const webview_gui::gtk::Api *lumbrel_webview_gtk();
