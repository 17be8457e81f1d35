// The editor in a host's X11 window under an Xvfb of our own (GTK binds to one display per process),
// timers and descriptors run by the test's loop, the page looked at and clicked (xdotool) from outside.
#include <gtest/gtest.h> // before Xlib, whose macros (None, Bool) would break it

#include "host/bundle.h"
#include "host/host.h"
#include "host/instance.h"
#include "support/bundle_copy.h"

#include <clap/clap.h>

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

// LeakSanitizer: GTK and WebKit keep allocations for good and scanning WebKit's TLS faults; ours still count.
extern "C" __attribute__((visibility("default"), used)) const char *__lsan_default_options() { return "use_tls=0"; }

extern "C" __attribute__((visibility("default"), used)) const char *__lsan_default_suppressions() {
	return "leak:libgtk-3.so\nleak:libgdk-3.so\nleak:libglib-2.0.so\nleak:libgobject-2.0.so\nleak:libgio-2.0.so\n"
		   "leak:libwebkit2gtk-4.1.so\nleak:libjavascriptcoregtk-4.1.so\nleak:libfontconfig.so\nleak:libpango\nleak:libcairo.so\n"
		   "leak:libX11.so\nleak:libsoup-3.0.so\nleak:libdbus-1.so\nleak:_dl_resize_dtv\nleak:add_to_global_resize\n";
}

using namespace lumbrel::host;
using namespace lumbrel_test;
using Clock = std::chrono::steady_clock;

namespace {

// An X server on a display it picks itself (-displayfd), so parallel tests don't meet; `error` if it failed.
struct Xvfb {
	pid_t pid = -1;
	std::string display, error;
	Xvfb() {
		int fds[2];
		if (::pipe(fds) != 0) {
			error = "pipe failed";
			return;
		}
		::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
		const std::string fd = std::to_string(fds[1]);
		const char *argv[] = {"Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "1024x768x24", "-nolisten", "tcp", "-noreset", nullptr};
		if ((pid = ::fork()) == 0) {
			::prctl(PR_SET_PDEATHSIG, SIGTERM); // ends with the test, even one killed by a timeout
			const int quiet = ::open("/dev/null", O_WRONLY);
			::dup2(quiet, 1), ::dup2(quiet, 2);
			::execvp("Xvfb", const_cast<char **>(argv));
			::_exit(127);
		}
		::close(fds[1]);
		// The server writes its display number once it accepts connections.
		char buffer[32];
		pollfd readable{fds[0], POLLIN, 0};
		for (ssize_t n = 0; pid > 0 && display.find('\n') == std::string::npos && ::poll(&readable, 1, 15000) > 0;) {
			if ((n = ::read(fds[0], buffer, sizeof(buffer))) <= 0) break;
			display.append(buffer, std::size_t(n));
		}
		::close(fds[0]);
		if (display.find('\n') == std::string::npos) error = "Xvfb did not come up within 15 s", display.clear();
		else display = ":" + display.substr(0, display.find('\n'));
	}
	~Xvfb() {
		if (pid > 0) ::kill(pid, SIGTERM), ::waitpid(pid, nullptr, 0);
	}
};

struct ScreenImage {
	int width = 0, height = 0;
	std::vector<std::uint8_t> dark; // 1 where the pixel is ink: text and dial arcs are black on a light page
	bool at(int x, int y) const { return dark[std::size_t(y) * std::size_t(width) + std::size_t(x)]; }
};

// The window's contents with its children drawn in.
ScreenImage grabWindow(Display *display, Window window) {
	ScreenImage image;
	XWindowAttributes attributes;
	if (!XGetWindowAttributes(display, window, &attributes)) return image;
	XImage *x = XGetImage(display, window, 0, 0, unsigned(attributes.width), unsigned(attributes.height), AllPlanes, ZPixmap);
	if (!x) return image;
	image.width = x->width;
	image.height = x->height;
	for (int y = 0; y < x->height; ++y) {
		for (int px = 0; px < x->width; ++px) {
			const unsigned long p = XGetPixel(x, px, y);
			const unsigned r = (p & x->red_mask) >> 16, g = (p & x->green_mask) >> 8, b = p & x->blue_mask;
			image.dark.push_back((299 * r + 587 * g + 114 * b) / 1000 < 90); // Rec. 601 luminance
		}
	}
	XDestroyImage(x);
	return image;
}

// A box round dark pixels; empty (right < left) if there are none.
struct InkBox {
	int left = 1 << 30, right = -1, top = 1 << 30, bottom = -1;
	int width() const { return right - left + 1; }
	int height() const { return bottom - top + 1; }
	int centre() const { return (left + right) / 2; }
	int middle() const { return (top + bottom) / 2; }
	void add(int x, int y) { left = std::min(left, x), right = std::max(right, x), top = std::min(top, y), bottom = std::max(bottom, y); }
};

// Every dark pixel of rows [top, bottom).
InkBox inkIn(const ScreenImage &image, int top, int bottom) {
	InkBox box;
	for (int y = std::max(top, 0); y < std::min(bottom, image.height); ++y)
		for (int x = 0; x < image.width; ++x)
			if (image.at(x, y)) box.add(x, y);
	return box;
}

// The boxes of the 8-connected pieces of ink (each taken out of the copy as it is found).
std::vector<InkBox> inkPieces(ScreenImage image) {
	std::vector<InkBox> pieces;
	auto take = [&](int x, int y, std::vector<std::pair<int, int>> &stack) {
		if (x < 0 || y < 0 || x >= image.width || y >= image.height || !image.at(x, y)) return;
		image.dark[std::size_t(y) * std::size_t(image.width) + std::size_t(x)] = 0;
		stack.emplace_back(x, y);
	};
	for (int y = 0; y < image.height; ++y) {
		for (int x = 0; x < image.width; ++x) {
			std::vector<std::pair<int, int>> stack;
			InkBox piece;
			for (take(x, y, stack); !stack.empty();) {
				const auto [px, py] = stack.back();
				stack.pop_back();
				piece.add(px, py);
				for (int n = 0; n < 9; ++n) take(px + n % 3 - 1, py + n / 3 - 1, stack);
			}
			if (piece.right >= 0) pieces.push_back(piece);
		}
	}
	return pieces;
}

constexpr const char *effectId = "varkesh.lumbrel.swell";
constexpr int waitMs = 20000; // a loaded machine may start WebKit slowly
constexpr int headerRows = 48; // the page's header lies above this row

Xvfb &server() {
	static Xvfb xvfb;
	return xvfb;
}

std::string run(const std::string &command) {
	std::string output;
	FILE *pipe = ::popen(command.c_str(), "r");
	for (int c; pipe && (c = std::fgetc(pipe)) != EOF;) output += char(c);
	if (pipe) ::pclose(pipe);
	return output;
}

// What the X server shows of a window; also saved as a PNG to look at.
ScreenImage screenshot(Display *display, Window window, const std::string &name) {
	run("import -display " + server().display + " -window " + std::to_string(window) + " " + LUMBREL_TEST_OUTPUT_DIR "/" + name + ".png");
	return grabWindow(display, window);
}

// Proportional set size in KiB of this process, or of every process started under it but the X server.
long pssKiB(bool children) {
	std::map<pid_t, pid_t> parent;
	if (DIR *proc = ::opendir("/proc")) {
		while (dirent *entry = ::readdir(proc)) {
			const pid_t pid = std::atoi(entry->d_name);
			if (pid <= 0) continue;
			std::ifstream stat(std::string("/proc/") + entry->d_name + "/stat");
			std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>()), state;
			if (text.rfind(')') != std::string::npos) std::istringstream(text.substr(text.rfind(')') + 2)) >> state >> parent[pid];
		}
		::closedir(proc);
	}
	const pid_t self = ::getpid(), xvfb = server().pid;
	auto under = [&](pid_t pid) {
		for (pid_t up = pid; parent.count(up) && up != xvfb; up = parent[up])
			if (parent[up] == self) return true;
		return false;
	};
	long total = 0;
	for (const auto &entry : parent) {
		if (children ? !under(entry.first) : entry.first != self) continue;
		std::ifstream smaps("/proc/" + std::to_string(entry.first) + "/smaps_rollup");
		for (std::string line; std::getline(smaps, line);)
			if (line.compare(0, 4, "Pss:") == 0) total += std::atol(line.c_str() + 4);
	}
	return total;
}

std::vector<Window> childrenOf(Display *display, Window window) {
	Window root = 0, parent = 0, *children = nullptr;
	unsigned count = 0;
	std::vector<Window> result;
	if (XQueryTree(display, window, &root, &parent, &children, &count)) result.assign(children, children + count);
	if (children) XFree(children);
	return result;
}

class NativeView : public ::testing::Test {
protected:
	void SetUp() override {
		for (std::string tool : {"Xvfb", "xdotool", "import"})
			if (std::system(("command -v " + tool + " > /dev/null").c_str()) != 0) GTEST_SKIP() << tool << " is not installed (scripts/setup.sh installs it): the native editor is not tested";
		if (server().display.empty()) GTEST_SKIP() << "no X server could be started: " << server().error;
		::setenv("DISPLAY", server().display.c_str(), 1);
		display = XOpenDisplay(server().display.c_str());
		ASSERT_NE(display, nullptr) << "the X server on " << server().display << " took no connection";
		std::string error;
		bundle = Bundle::load(LUMBREL_BUNDLE_PATH, error);
		ASSERT_TRUE(bundle) << error;
		instance = std::make_unique<Instance>(*bundle, effectId, host);
		ASSERT_TRUE(instance->valid() && instance->init());
		gui = instance->extension<clap_plugin_gui>(CLAP_EXT_GUI);
		ASSERT_TRUE(gui && gui->get_size(plugin(), &width, &height));
		window = makeWindow();
	}
	void TearDown() override {
		instance.reset();
		if (display && window) XDestroyWindow(display, window);
		if (display) XCloseDisplay(display);
	}
	// The host's window for the editor: white, so that only the page's ink is dark.
	Window makeWindow() {
		const Window made = XCreateSimpleWindow(display, DefaultRootWindow(display), 0, 0, width, height, 0,
			BlackPixel(display, DefaultScreen(display)), WhitePixel(display, DefaultScreen(display)));
		XMapWindow(display, made);
		XSync(display, False);
		return made;
	}
	const clap_plugin *plugin() const { return instance->clapPlugin(); }
	// The host's main loop: polls the plug-in's descriptors, fires its timers every 16 ms, until `done()`.
	template<class Done>
	bool runUntil(Done done, int timeoutMs = waitMs) {
		const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
		while (!done()) {
			const auto now = Clock::now();
			if (now > deadline) return false;
			if (now >= nextTimer) {
				instance->fireTimers();
				nextTimer = now + std::chrono::milliseconds(16);
				continue;
			}
			const int wait = int(std::chrono::duration_cast<std::chrono::milliseconds>(nextTimer - now).count()) + 1;
			if (host.fds.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(wait));
			else instance->pollFds(wait);
		}
		return true;
	}
	bool openEditor() {
		clap_window parent{CLAP_WINDOW_API_X11, {}};
		parent.x11 = window;
		return gui->create(plugin(), CLAP_WINDOW_API_X11, false) && gui->set_parent(plugin(), &parent) && gui->show(plugin());
	}
	InkBox header() { return inkIn(grabWindow(display, window), 0, headerRows); }
	// The first paint shows "..." in the header; the whole state, the effect's name.
	bool stateDrawn() { return header().width() > 60; }
	double value(clap_id id) {
		double v = 0;
		instance->paramValue(id, v);
		return v;
	}
	double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }
	void xdotool(const std::string &arguments) { run("xdotool " + arguments); }

	Host host;
	std::unique_ptr<Bundle> bundle;
	std::unique_ptr<Instance> instance;
	const clap_plugin_gui *gui = nullptr;
	std::uint32_t width = 0, height = 0;
	Display *display = nullptr;
	Window window = 0;
	Clock::time_point nextTimer = Clock::now();
};

} // namespace

// x11 is offered only with the GTK object beside the bundle; a copy alone offers the host's web view and plays.
TEST(NativeViewOffer, X11IsOfferedOnlyWithTheGtkObjectWhichTheBundleDoesNotLink) {
	std::string error;
	auto bundle = Bundle::load(LUMBREL_BUNDLE_PATH, error);
	ASSERT_TRUE(bundle) << error;
	BundleCopy copy(LUMBREL_BUNDLE_PATH);
	auto alone = Bundle::load(copy.path, error);
	ASSERT_TRUE(alone) << error;
	Host host, aloneHost;
	Instance instance(*bundle, effectId, host), withoutGtk(*alone, effectId, aloneHost);
	ASSERT_TRUE(instance.init() && withoutGtk.init());
	const auto *gui = instance.extension<clap_plugin_gui>(CLAP_EXT_GUI), *aloneGui = withoutGtk.extension<clap_plugin_gui>(CLAP_EXT_GUI);
	EXPECT_TRUE(gui->is_api_supported(instance.clapPlugin(), CLAP_WINDOW_API_X11, false));
	EXPECT_FALSE(gui->is_api_supported(instance.clapPlugin(), CLAP_WINDOW_API_WAYLAND, false));
	std::ifstream maps("/proc/self/maps");
	const std::string mapped((std::istreambuf_iterator<char>(maps)), std::istreambuf_iterator<char>());
	EXPECT_NE(mapped.find("libgtk-3"), std::string::npos) << "the GTK object is loaded beside the bundle";
	const std::string needed = run(std::string("ldd ") + LUMBREL_BUNDLE_PATH);
	ASSERT_NE(needed.find("libc.so"), std::string::npos) << needed;
	EXPECT_TRUE(needed.find("gtk") == std::string::npos && needed.find("webkit") == std::string::npos) << needed;
	EXPECT_FALSE(aloneGui->is_api_supported(withoutGtk.clapPlugin(), CLAP_WINDOW_API_X11, false));
	EXPECT_FALSE(aloneGui->create(withoutGtk.clapPlugin(), CLAP_WINDOW_API_X11, false));
	EXPECT_TRUE(aloneHost.timers.empty());
	EXPECT_TRUE(aloneGui->create(withoutGtk.clapPlugin(), CLAP_WINDOW_API_WEBVIEW, false)) << "the host's web view still works";
	ASSERT_TRUE(withoutGtk.activate(48000, 1, 512) && withoutGtk.startProcessing());
	std::vector<float> buffer(512, 0.5f);
	float *channels[] = {buffer.data(), buffer.data()};
	InputEvents in;
	OutputEvents out;
	EXPECT_EQ(withoutGtk.process(channels, 2, channels, 2, 512, in, out), CLAP_PROCESS_CONTINUE);
}

TEST_F(NativeView, ShowsTheEffectAndTakesClicksAndKeys) {
	ASSERT_TRUE(gui->is_api_supported(plugin(), CLAP_WINDOW_API_X11, false));
	const long selfBefore = pssKiB(false), childrenBefore = pssKiB(true);
	const auto created = Clock::now();
	ASSERT_TRUE(openEditor());
	ASSERT_EQ(host.timers.size(), 1u) << "one pump timer while the editor is open";
	EXPECT_LE(host.timers.begin()->second, 20u) << "about 60 Hz";
	// No audio or state load drains messages here: the name comes only as the reply to the page's "ready".
	ASSERT_TRUE(runUntil([&] { return header().width() > 0; })) << "the page never drew";
	const double pageS = secondsSince(created);
	ASSERT_TRUE(runUntil([&] { return stateDrawn(); })) << "the whole state never came back";
	const double stateS = secondsSince(created);
	EXPECT_FALSE(host.fds.empty()) << "GLib's descriptors are watched by the host";
	runUntil([] { return false; }, 500); // fonts and dials settle
	const long selfKiB = pssKiB(false) - selfBefore, childrenKiB = pssKiB(true) - childrenBefore;
	std::printf("editor: first paint (\"ready\" posted) %.0f ms, whole state drawn %.0f ms after gui_create\n"
				"editor: memory added %.1f MiB in the host process, %.1f MiB in WebKit's processes (PSS)\n",
		pageS * 1000, stateS * 1000, selfKiB / 1024.0, childrenKiB / 1024.0);
	// The name centred in the header, dials with their arcs (ring segments some 40 px across; text is smaller).
	const ScreenImage shown = screenshot(display, window, "editor");
	ASSERT_EQ(shown.width, int(width));
	ASSERT_EQ(shown.height, int(height));
	const InkBox name = inkIn(shown, 0, headerRows);
	EXPECT_GT(name.width(), 60);
	EXPECT_NEAR(name.centre(), int(width) / 2, int(width) / 10) << "centred";
	std::vector<InkBox> arcs;
	for (const auto &piece : inkPieces(shown))
		if (piece.top > headerRows && piece.width() >= 20 && piece.height() >= 20 && piece.width() <= 80) arcs.push_back(piece);
	ASSERT_GE(arcs.size(), 3u) << "dials are drawn";
	// A press begins a gesture and takes the keyboard focus, the release ends it; the up arrow then moves
	// the dial by 15 px of its 250: 0.06 of its range.
	const int flushes = host.flushRequests.load();
	xdotool("mousemove --window " + std::to_string(window) + " " + std::to_string(arcs.front().centre()) + " "
		+ std::to_string(arcs.front().middle()) + " mousedown 1");
	ASSERT_TRUE(runUntil([&] { return host.flushRequests.load() > flushes; })) << "no gesture from the dial";
	const auto plug = childrenOf(display, window);
	ASSERT_EQ(plug.size(), 1u) << "the editor is one child window of the host's";
	Window focus = 0;
	int revert = 0;
	XGetInputFocus(display, &focus, &revert);
	EXPECT_EQ(focus, plug[0]);
	xdotool("mouseup 1");
	ASSERT_TRUE(runUntil([&] { return host.flushRequests.load() > flushes + 1; })) << "the gesture never ended";
	std::map<clap_id, double> before;
	for (std::uint32_t i = 0; i < instance->paramCount(); ++i) {
		clap_param_info info{};
		if (instance->paramInfo(i, info)) before[info.id] = value(info.id);
	}
	xdotool("key Up");
	clap_id turned = CLAP_INVALID_ID;
	ASSERT_TRUE(runUntil([&] {
		for (const auto &[id, v] : before)
			if (value(id) != v) turned = id;
		return turned != CLAP_INVALID_ID;
	})) << "the key never reached a parameter";
	EXPECT_NEAR(value(turned) - before[turned], 0.06, 0.005);
	// A new size: the plug window follows and the page lays itself out anew.
	XResizeWindow(display, window, 700, 360);
	XSync(display, False);
	ASSERT_TRUE(gui->set_size(plugin(), 700, 360));
	auto attributes = [&] {
		XWindowAttributes a{};
		if (!XGetWindowAttributes(display, plug[0], &a)) a.map_state = -1;
		return a;
	};
	EXPECT_TRUE(runUntil([&] { return attributes().width == 700 && attributes().height == 360 && std::abs(header().centre() - 350) < 20; }))
		<< "the page didn't follow the new size";
	screenshot(display, window, "editor-resized");
	// Hiding and showing unmap and map the editor's window in the host's.
	ASSERT_TRUE(gui->hide(plugin()));
	EXPECT_TRUE(runUntil([&] { return attributes().map_state == IsUnmapped; })) << "hidden";
	ASSERT_TRUE(gui->show(plugin()));
	EXPECT_TRUE(runUntil([&] { return attributes().map_state == IsViewable && stateDrawn(); })) << "shown again";
	// Closing ends the window, timer and watch; opening again starts the page and its "ready" anew.
	gui->destroy(plugin());
	XSync(display, False);
	EXPECT_TRUE(childrenOf(display, window).empty() && host.timers.empty() && host.fds.empty());
	EXPECT_LE(header().width(), 0) << "nothing of the page is left";
	const auto reopened = Clock::now();
	ASSERT_TRUE(openEditor());
	ASSERT_TRUE(runUntil([&] { return stateDrawn(); })) << "the reopened editor never got the state";
	std::printf("editor: opened again, whole state drawn %.0f ms after gui_create\n", secondsSince(reopened) * 1000);
	// A host may destroy its window before gui_destroy; the editor opens again in a new one.
	XDestroyWindow(display, window);
	XSync(display, False);
	window = makeWindow();
	runUntil([] { return false; }, 300);
	gui->destroy(plugin());
	EXPECT_TRUE(host.timers.empty());
	ASSERT_TRUE(openEditor());
	ASSERT_TRUE(runUntil([&] { return stateDrawn(); })) << "no editor in the host's new window";
	// An instance that ends with its editor open takes its window, timer and descriptors with it.
	instance.reset();
	XSync(display, False);
	EXPECT_TRUE(childrenOf(display, window).empty() && host.timers.empty() && host.fds.empty());
}
