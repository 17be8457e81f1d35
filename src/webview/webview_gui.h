#pragma once
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace webview_gui {

// One native web view behind a neutral interface: load a page, send bytes to
// it, receive bytes from it, serve it files from memory under the
// "webview-gui://" scheme. Main thread only. A platform without a web view
// answers false to `supports` and null to `create`.
class WebviewGui {
public:
	// CLAP window APIs by number: 0 anything else, 1 "win32", 2 "cocoa", 3 "x11".
	using Platform = int;

	struct Resource {
		std::string mediaType;
		std::vector<unsigned char> bytes;
	};
	// Fills `resource` for a request path (with its leading "/"); false answers 404.
	using ResourceFn = std::function<bool(const char *path, Resource &resource)>;

	// Called with each message the page posts to `window.parent`.
	std::function<void(const unsigned char *, std::size_t)> receive;

	static bool supports(Platform platform);
	// Opens a URL as it stands.
	static WebviewGui *create(Platform platform, const std::string &url);
	// Opens `startPath` under "webview-gui://", each request served by `resourceFn`.
	static WebviewGui *create(Platform platform, const std::string &startPath, ResourceFn resourceFn);
	// Opens a local file under `fileRoot`; an empty root opens `startPath` as a URL.
	static WebviewGui *create(Platform platform, const std::string &startPath, const std::string &fileRoot);

	// A descriptor the platform's event loop waits on, with what it waits for:
	// the bits of `flags` are 1 readable, 2 writable, 4 error (CLAP's posix fd bits).
	struct EventFd {
		int fd;
		unsigned flags;
	};

	// True where the web view's events don't run by themselves in the host's
	// main loop and must be pumped from a host timer (X11: GLib's loop).
	static bool needsPump(Platform platform);
	// Runs what is due in the platform's event loop, a bounded amount of work
	// so that a busy page can't hold the host's thread, and then puts in `fds`
	// the descriptors the loop waits on, for a host that can watch them.
	// False, with `fds` empty, if it did nothing: before the first web view,
	// on a platform without a loop of its own, or when called from inside the
	// work it runs.
	static bool pump(std::vector<EventFd> &fds);

	// Puts the view into the host's window (an NSView*, or an X11 window id).
	void attach(void *parent);
	// Delivers one message to the page, as a MessageEvent holding an ArrayBuffer.
	void send(const unsigned char *bytes, std::size_t length);
	void setSize(double width, double height);
	// Shows or hides the view inside the parent; on macOS the parent governs
	// visibility and this does nothing.
	void setVisible(bool visible);

	~WebviewGui();

	struct Impl;

private:
	explicit WebviewGui(std::unique_ptr<Impl> impl);
	std::unique_ptr<Impl> impl;
};

} // namespace webview_gui
