// The editor in a host's X11 window, end to end, as a host drives it: an X
// server of our own (Xvfb), a host window, the plug-in's timer and
// descriptors run by the test's loop, and the page looked at (screenshots)
// and clicked (xdotool) from outside, as a user would.
//
// GTK binds to one display for the life of the process, so one Xvfb serves
// every test of the process.

// GoogleTest before Xlib, whose macros (None, Bool) would break its headers.
#include <gtest/gtest.h>

#include "host/bundle.h"
#include "host/host.h"
#include "host/instance.h"
#include "support/bundle_copy.h"
#include "webview/gtk_leak_check.h"
#include "webview/screen_image.h"
#include "webview/xvfb.h"

#include <clap/clap.h>

#include <X11/Xlib.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace lumbrel::host;
using namespace lumbrel_test;
using Clock = std::chrono::steady_clock;

namespace {

constexpr const char *effectId = "varkesh.lumbrel.swell";
constexpr const char *effectName = "Lumbrel: Swell"; // the header the page shows once the state has come
constexpr int waitMs = 20000; // for anything the page does; a loaded machine may start WebKit slowly
constexpr int headerRows = 48; // the page's header lies above this row

Xvfb &server() {
	static Xvfb xvfb;
	return xvfb;
}

std::string outputPath(const std::string &name) { return std::string(LUMBREL_TEST_OUTPUT_DIR) + "/" + name; }

std::string run(const std::string &command) {
	std::string output;
	if (FILE *pipe = ::popen(command.c_str(), "r")) {
		char buffer[65536];
		std::size_t n;
		while ((n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0) output.append(buffer, n);
		::pclose(pipe);
	}
	return output;
}

// What the X server shows of a window; also saved as a PNG to look at.
ScreenImage screenshot(Display *display, Window window, const std::string &name) {
	run("import -display " + server().display() + " -window " + std::to_string(window) + " " + outputPath(name + ".png"));
	return grabWindow(display, window);
}

// Proportional set size in KiB: the process's share of every page it maps.
long pssKiB(pid_t pid) {
	std::ifstream smaps("/proc/" + std::to_string(pid) + "/smaps_rollup");
	std::string line;
	while (std::getline(smaps, line)) {
		if (line.compare(0, 4, "Pss:") == 0) return std::atol(line.c_str() + 4);
	}
	return 0;
}

// Every process started under `root` (WebKit's web and network processes,
// and any sandbox around them), less the subtree of `except`.
std::vector<pid_t> descendants(pid_t root, pid_t except) {
	std::map<pid_t, pid_t> parent;
	if (DIR *proc = ::opendir("/proc")) {
		while (dirent *entry = ::readdir(proc)) {
			const pid_t pid = std::atoi(entry->d_name);
			if (pid <= 0) continue;
			std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
			std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
			const std::size_t close = text.rfind(')');
			if (close == std::string::npos) continue;
			std::istringstream fields(text.substr(close + 2));
			std::string state;
			pid_t ppid = 0;
			fields >> state >> ppid;
			parent[pid] = ppid;
		}
		::closedir(proc);
	}
	std::vector<pid_t> found;
	for (const auto &[pid, ppid] : parent) {
		for (pid_t up = pid; up > 1;) {
			if (up == except) break;
			const auto next = parent.find(up);
			if (next == parent.end()) break;
			if (next->second == root) {
				found.push_back(pid);
				break;
			}
			up = next->second;
		}
	}
	return found;
}

long childrenPssKiB() {
	long total = 0;
	for (pid_t pid : descendants(::getpid(), server().processId())) total += pssKiB(pid);
	return total;
}

std::vector<Window> childrenOf(Display *display, Window window) {
	Window root = 0, parent = 0, *children = nullptr;
	unsigned count = 0;
	std::vector<Window> result;
	if (XQueryTree(display, window, &root, &parent, &children, &count)) {
		result.assign(children, children + count);
		if (children) XFree(children);
	}
	return result;
}

class NativeView : public ::testing::Test {
protected:
	void SetUp() override {
		for (const char *tool : {"Xvfb", "xdotool", "import"}) {
			if (!onPath(tool)) {
				GTEST_SKIP() << tool << " is not installed (scripts/setup.sh installs it): the native editor is not tested";
			}
		}
		if (server().display().empty()) GTEST_SKIP() << "no X server could be started: " << server().error();
		::setenv("DISPLAY", server().display().c_str(), 1);
		display = XOpenDisplay(server().display().c_str());
		ASSERT_NE(display, nullptr) << "the X server on " << server().display() << " took no connection";

		std::string error;
		bundle = Bundle::load(LUMBREL_BUNDLE_PATH, error);
		ASSERT_TRUE(bundle) << error;
		instance = std::make_unique<Instance>(*bundle, effectId, host);
		ASSERT_TRUE(instance->valid() && instance->init());
		gui = instance->extension<clap_plugin_gui>(CLAP_EXT_GUI);
		ASSERT_NE(gui, nullptr);
		ASSERT_TRUE(gui->get_size(plugin(), &width, &height));

		window = makeWindow();
	}

	// The host's window for the editor: white, so that only the page's ink is dark.
	Window makeWindow() {
		const Window made = XCreateSimpleWindow(display, DefaultRootWindow(display), 0, 0, width, height, 0,
			BlackPixel(display, DefaultScreen(display)), WhitePixel(display, DefaultScreen(display)));
		XMapWindow(display, made);
		XSync(display, False);
		return made;
	}

	void TearDown() override {
		instance.reset();
		if (display) {
			if (window) XDestroyWindow(display, window);
			XCloseDisplay(display);
		}
	}

	const clap_plugin *plugin() const { return instance->clapPlugin(); }

	// The host's main loop: waits on the plug-in's descriptors, fires its
	// timers every 16 ms, until `done()` holds or `timeoutMs` is over.
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
			if (host.fds.empty()) {
				std::this_thread::sleep_for(std::chrono::milliseconds(wait));
			} else {
				instance->pollFds(wait);
			}
		}
		return true;
	}

	bool openEditor() {
		if (!gui->create(plugin(), CLAP_WINDOW_API_X11, false)) return false;
		clap_window parent{CLAP_WINDOW_API_X11, {}};
		parent.x11 = window;
		return gui->set_parent(plugin(), &parent) && gui->show(plugin());
	}

	InkBox header() { return inkIn(grabWindow(display, window), 0, headerRows); }
	// The page's first paint: the header's "..." (posted "ready" just before).
	bool pageDrawn() { return header().width() > 0; }
	// The whole state has come and been drawn: the header holds the name.
	bool stateDrawn() { return header().width() > 60; }

	// What the host reads of the stepped (or the ranged) parameters, by id.
	std::map<clap_id, double> values(bool stepped) {
		std::map<clap_id, double> values;
		for (std::uint32_t i = 0; i < instance->paramCount(); ++i) {
			clap_param_info info{};
			double value = 0;
			if (instance->paramInfo(i, info) && bool(info.flags & CLAP_PARAM_IS_STEPPED) == stepped
				&& instance->paramValue(info.id, value)) {
				values[info.id] = value;
			}
		}
		return values;
	}

	// Runs the loop until one of the parameters differs from `before`.
	clap_id waitForChange(const std::map<clap_id, double> &before, bool stepped) {
		clap_id changed = CLAP_INVALID_ID;
		runUntil([&] {
			for (const auto &[id, value] : values(stepped)) {
				if (value != before.at(id)) changed = id;
			}
			return changed != CLAP_INVALID_ID;
		});
		return changed;
	}

	void xdotool(const std::string &arguments) { run("xdotool " + arguments); }
	void click(int x, int y) {
		xdotool("mousemove --window " + std::to_string(window) + " " + std::to_string(x) + " " + std::to_string(y)
			+ " click 1");
	}

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

// Scanning, and a machine (here, a copy of the bundle) without the GTK object.

namespace {
bool gtkMapped() {
	std::ifstream maps("/proc/self/maps");
	const std::string text((std::istreambuf_iterator<char>(maps)), std::istreambuf_iterator<char>());
	return text.find("libgtk-3") != std::string::npos || text.find("libwebkit2gtk") != std::string::npos;
}
} // namespace

TEST(NativeViewOffer, X11IsOfferedToEveryHostAndCreatedOnlyWithItsTimer) {
	std::string error;
	auto bundle = Bundle::load(LUMBREL_BUNDLE_PATH, error);
	ASSERT_TRUE(bundle) << error;
	Host timed, bare;
	bare.offerTimers = false;
	Instance withTimers(*bundle, effectId, timed), without(*bundle, effectId, bare);
	ASSERT_TRUE(withTimers.init() && without.init());
	const auto *gui = withTimers.extension<clap_plugin_gui>(CLAP_EXT_GUI);
	ASSERT_NE(gui, nullptr);
	EXPECT_TRUE(gui->is_api_supported(withTimers.clapPlugin(), CLAP_WINDOW_API_X11, false));
	EXPECT_TRUE(gui->is_api_supported(without.clapPlugin(), CLAP_WINDOW_API_X11, false)) << "a scanner learns of the editor";
	EXPECT_FALSE(gui->create(without.clapPlugin(), CLAP_WINDOW_API_X11, false)) << "nothing would run the page";
	EXPECT_TRUE(bare.timers.empty());
	EXPECT_FALSE(gui->is_api_supported(withTimers.clapPlugin(), CLAP_WINDOW_API_X11, true)) << "nothing floats";
	EXPECT_FALSE(gui->is_api_supported(withTimers.clapPlugin(), CLAP_WINDOW_API_WAYLAND, false));
	EXPECT_TRUE(gtkMapped()) << "the answer comes from opening the editor's library";
}

TEST(NativeViewOffer, WithoutTheGtkObjectTheBundleStillWorks) {
	// The bundle links nothing of GTK or WebKit.
	const std::string needed = run(std::string("ldd ") + LUMBREL_BUNDLE_PATH);
	ASSERT_NE(needed.find("libc.so"), std::string::npos) << needed;
	EXPECT_EQ(needed.find("gtk"), std::string::npos) << needed;
	EXPECT_EQ(needed.find("webkit"), std::string::npos) << needed;

	// A copy alone in another folder: no GTK object beside it.
	BundleCopy copy(LUMBREL_BUNDLE_PATH);
	std::string error;
	auto bundle = Bundle::load(copy.path, error);
	ASSERT_TRUE(bundle) << error;
	Host host;
	Instance instance(*bundle, effectId, host);
	ASSERT_TRUE(instance.init());
	const auto *gui = instance.extension<clap_plugin_gui>(CLAP_EXT_GUI);
	EXPECT_FALSE(gui->is_api_supported(instance.clapPlugin(), CLAP_WINDOW_API_X11, false));
	EXPECT_FALSE(gui->create(instance.clapPlugin(), CLAP_WINDOW_API_X11, false));
	EXPECT_TRUE(host.timers.empty());
	EXPECT_TRUE(gui->create(instance.clapPlugin(), CLAP_WINDOW_API_WEBVIEW, false)) << "the host's web view still works";

	// And it plays.
	ASSERT_TRUE(instance.activate(48000, 1, 512) && instance.startProcessing());
	std::vector<float> buffer(512, 0.5f);
	float *channels[] = {buffer.data(), buffer.data()};
	InputEvents in;
	OutputEvents out;
	EXPECT_EQ(instance.process(channels, 2, channels, 2, 512, in, out), CLAP_PROCESS_CONTINUE);
}

TEST_F(NativeView, ShowsTheEffectAndTakesClicks) {
	ASSERT_TRUE(gui->is_api_supported(plugin(), CLAP_WINDOW_API_X11, false));
	const long selfBefore = pssKiB(::getpid()), childrenBefore = childrenPssKiB();

	const auto created = Clock::now();
	ASSERT_TRUE(openEditor());
	ASSERT_EQ(host.timers.size(), 1u) << "one pump timer while the editor is open";
	EXPECT_LE(host.timers.begin()->second, 20u) << "about 60 Hz";

	// Nothing else drains the plug-in's messages here (no audio, no state
	// load), so the name can only come by the page's "ready" reaching the
	// plug-in and the whole state coming back.
	ASSERT_TRUE(runUntil([&] { return pageDrawn(); })) << "the page never drew";
	const double pageMs = std::chrono::duration<double, std::milli>(Clock::now() - created).count();
	ASSERT_TRUE(runUntil([&] { return stateDrawn(); })) << "the whole state never came back";
	const double stateMs = std::chrono::duration<double, std::milli>(Clock::now() - created).count();
	EXPECT_FALSE(host.fds.empty()) << "GLib's descriptors are watched by the host";

	// Let the page settle (fonts, dials) before the numbers and the picture.
	runUntil([] { return false; }, 500);
	const long selfKiB = pssKiB(::getpid()) - selfBefore, childrenKiB = childrenPssKiB() - childrenBefore;
	std::printf("editor: first paint (\"ready\" posted) %.0f ms, whole state drawn %.0f ms after gui_create\n", pageMs,
		stateMs);
	std::printf("editor: memory added %.1f MiB in the host process, %.1f MiB in WebKit's processes (PSS)\n",
		selfKiB / 1024.0, childrenKiB / 1024.0);
	RecordProperty("first_paint_ms", int(pageMs));
	RecordProperty("state_drawn_ms", int(stateMs));
	RecordProperty("host_process_kib", int(selfKiB));
	RecordProperty("webkit_processes_kib", int(childrenKiB));

	// The picture: the name centred in the header, dials with their arcs.
	const ScreenImage shown = screenshot(display, window, "editor");
	ASSERT_EQ(shown.width, int(width));
	ASSERT_EQ(shown.height, int(height));
	const InkBox name = inkIn(shown, 0, headerRows);
	EXPECT_GT(name.width(), 60) << effectName << " in the header";
	EXPECT_NEAR(name.centre(), int(width) / 2, int(width) / 10) << "centred";
	const auto pieces = inkPieces(shown);
	std::vector<InkPiece> arcs, upButtons;
	for (const auto &piece : pieces) {
		if (piece.top <= headerRows) continue;
		// A dial's arc is a ring segment some 40 px across; text is smaller.
		if (piece.width() >= 20 && piece.height() >= 20 && piece.width() <= 80) arcs.push_back(piece);
		if (isTriangle(piece, true)) upButtons.push_back(piece);
	}
	EXPECT_GE(arcs.size(), 3u) << "dials are drawn";
	ASSERT_FALSE(upButtons.empty()) << "a stepper with an enabled up button";

	// A click on the first up button steps its parameter up by one.
	const auto stepped = values(true);
	click(upButtons.front().centreX(), upButtons.front().centreY());
	const clap_id step = waitForChange(stepped, true);
	ASSERT_NE(step, CLAP_INVALID_ID) << "the click never reached a parameter";
	EXPECT_EQ(values(true).at(step), stepped.at(step) + 1);
	EXPECT_GT(host.flushRequests.load(), 0) << "the host was asked to flush the edit";

	// Keys reach the page once it has been pressed: a press on a dial, then
	// the up arrow, which moves a dial by 15 px of its 250: 0.06 of its range.
	// Press and release go one at a time, each seen through to the plug-in
	// (a gesture's begin, then its end), so that the key comes after both.
	ASSERT_FALSE(arcs.empty());
	const auto ranged = values(false);
	const int flushes = host.flushRequests.load();
	xdotool("mousemove --window " + std::to_string(window) + " " + std::to_string(arcs.front().centreX()) + " "
		+ std::to_string(arcs.front().centreY()) + " mousedown 1");
	ASSERT_TRUE(runUntil([&] { return host.flushRequests.load() > flushes; })) << "no gesture from the dial";
	const auto plug = childrenOf(display, window);
	ASSERT_EQ(plug.size(), 1u) << "the editor is one child window of the host's";
	Window focus = 0;
	int revert = 0;
	XGetInputFocus(display, &focus, &revert);
	EXPECT_EQ(focus, plug[0]) << "a press gives the editor the keyboard focus";
	xdotool("mouseup 1");
	ASSERT_TRUE(runUntil([&] { return host.flushRequests.load() > flushes + 1; })) << "the gesture never ended";
	xdotool("key Up");
	const clap_id turned = waitForChange(ranged, false);
	ASSERT_NE(turned, CLAP_INVALID_ID) << "the key never reached a parameter";
	EXPECT_NEAR(values(false).at(turned) - ranged.at(turned), 0.06, 0.005);

	// A new size: the plug window follows and the page lays itself out anew.
	XResizeWindow(display, window, 700, 360);
	XSync(display, False);
	ASSERT_TRUE(gui->set_size(plugin(), 700, 360));
	ASSERT_TRUE(runUntil([&] {
		XWindowAttributes attributes{};
		return XGetWindowAttributes(display, plug[0], &attributes) && attributes.width == 700
			&& attributes.height == 360 && std::abs(header().centre() - 350) < 20;
	})) << "the page didn't follow the new size";
	runUntil([] { return false; }, 300);
	const ScreenImage resized = screenshot(display, window, "editor-resized");
	EXPECT_NEAR(inkIn(resized, 0, headerRows).centre(), 350, 20) << "the header is centred in the new width";

	// Hiding and showing map and unmap the editor's window in the host's.
	auto mapState = [&] {
		XWindowAttributes attributes{};
		return XGetWindowAttributes(display, plug[0], &attributes) ? attributes.map_state : -1;
	};
	ASSERT_TRUE(gui->hide(plugin()));
	EXPECT_TRUE(runUntil([&] { return mapState() == IsUnmapped; })) << "hidden";
	ASSERT_TRUE(gui->show(plugin()));
	EXPECT_TRUE(runUntil([&] { return mapState() == IsViewable && stateDrawn(); })) << "shown again";

	// Closing ends the window, the timer and the watch; opening again starts
	// the page anew, and its "ready" brings the whole state again.
	gui->destroy(plugin());
	XSync(display, False);
	EXPECT_TRUE(childrenOf(display, window).empty());
	EXPECT_TRUE(host.timers.empty());
	EXPECT_TRUE(host.fds.empty());
	EXPECT_FALSE(header().width() > 0) << "nothing of the page is left";

	const auto reopened = Clock::now();
	ASSERT_TRUE(openEditor());
	ASSERT_TRUE(runUntil([&] { return stateDrawn(); })) << "the reopened editor never got the state";
	const double reopenMs = std::chrono::duration<double, std::milli>(Clock::now() - reopened).count();
	std::printf("editor: opened again, whole state drawn %.0f ms after gui_create\n", reopenMs);
	RecordProperty("reopen_state_drawn_ms", int(reopenMs));
	screenshot(display, window, "editor-reopened");

	// A host may destroy its window before gui_destroy: the editor goes with
	// it, is ended cleanly afterwards, and opens again in a new window.
	XDestroyWindow(display, window);
	XSync(display, False);
	window = makeWindow();
	runUntil([] { return false; }, 300);
	gui->destroy(plugin());
	EXPECT_TRUE(host.timers.empty());
	ASSERT_TRUE(openEditor());
	ASSERT_TRUE(runUntil([&] { return stateDrawn(); })) << "no editor in the host's new window";

	// The instance ends with its editor open: it takes its window, timer
	// and descriptors with it.
	instance.reset();
	XSync(display, False);
	EXPECT_TRUE(childrenOf(display, window).empty());
	EXPECT_TRUE(host.timers.empty());
	EXPECT_TRUE(host.fds.empty());
}
