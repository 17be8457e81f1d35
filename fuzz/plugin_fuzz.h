#pragma once
// What the plug-in fuzz targets share. The plug-ins are linked into the
// target (their clap_entry, no dlopen, so libFuzzer sees their coverage) and
// driven through the CLAP ABI by the project's host library, the way a DAW
// drives them. The first byte of an input picks the plug-in; audio runs
// through it in short blocks and must come out finite and below +24 dBFS.
//
// Each plug-in is made and activated once per run (an activation costs far
// more than an input) and brought back to its defaults before every input:
// its default state loaded, its history reset, its page lease ended.
#include "host/bundle.h"
#include "host/events.h"
#include "host/host.h"
#include "host/instance.h"

#include <clap/clap.h>
#include <clap/ext/draft/webview.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

extern "C" const clap_plugin_entry clap_entry;

namespace lumbrel_fuzz {

[[noreturn]] inline void fail(const char *what, const char *file, int line) {
	std::fprintf(stderr, "%s:%d: check failed: %s\n", file, line, what);
	std::abort();
}
#define FUZZ_CHECK(condition) ((condition) ? (void)0 : lumbrel_fuzz::fail(#condition, __FILE__, __LINE__))

// The linked bundle, initialised once for the whole run (as a host does).
inline const lumbrel::host::Bundle &bundle() {
	static const std::unique_ptr<lumbrel::host::Bundle> linked = [] {
		std::string error;
		auto b = lumbrel::host::Bundle::linked(clap_entry, "Lumbrel.clap", error);
		if (!b) {
			std::fprintf(stderr, "plugin_fuzz: %s\n", error.c_str());
			std::abort();
		}
		return b;
	}();
	return *linked;
}

// A plug-in of the bundle, created, activated at 48 kHz and processing.
class FuzzedPlugin {
public:
	static constexpr std::uint32_t maxFrames = 256;

	// The plug-in that `selector` picks, as it is after loading its defaults.
	static FuzzedPlugin &pick(std::uint8_t selector) {
		static std::vector<std::unique_ptr<FuzzedPlugin>> plugins(bundle().count());
		auto &plugin = plugins[selector % plugins.size()];
		if (!plugin) plugin.reset(new FuzzedPlugin(selector % plugins.size()));
		plugin->restart();
		return *plugin;
	}

	lumbrel::host::Host host;
	std::unique_ptr<lumbrel::host::Instance> instance;
	const clap_plugin_webview *webview = nullptr;

	bool receive(const std::uint8_t *bytes, std::size_t size) {
		return webview->receive(instance->clapPlugin(), bytes, std::uint32_t(size));
	}

	// One block of a full-scale input (a chord with a noise burst on every
	// other block); the output must be finite and within +24 dBFS.
	void process(std::uint32_t frames = maxFrames) {
		if (frames > maxFrames) frames = maxFrames;
		for (std::uint32_t i = 0; i < frames; ++i, ++time) {
			const double t = double(time) / 48000;
			double v = 0.3 * std::sin(2 * M_PI * 220 * t) + 0.3 * std::sin(2 * M_PI * 277.2 * t)
				+ 0.2 * std::sin(2 * M_PI * 329.6 * t);
			if ((time / maxFrames) % 2) {
				noise = noise * 1664525u + 1013904223u;
				v += 0.2 * (double(noise >> 8) / double(1u << 24) * 2 - 1);
			}
			left[i] = float(v);
			right[i] = float(-v);
		}
		float *inputs[2] = {left, right};
		float *outputs[2] = {outLeft, outRight};
		out.clear();
		instance->process(inputs, 2, outputs, 2, frames, events, out);
		const float limit = 15.848932f; // +24 dBFS
		for (std::uint32_t i = 0; i < frames; ++i) {
			FUZZ_CHECK(std::isfinite(outLeft[i]) && std::isfinite(outRight[i]));
			FUZZ_CHECK(std::fabs(outLeft[i]) <= limit && std::fabs(outRight[i]) <= limit);
		}
	}

	// The main thread's turn: on_main_thread and due timers; what the plug-in
	// sends to the page is dropped.
	void mainThread() {
		instance->onMainThread();
		instance->fireTimers();
		host.sentMessages.clear();
	}

	// Whatever state the plug-in is in, its saved state loads back, and
	// saving again gives the same bytes.
	void checkStateRoundTrip() {
		std::vector<std::uint8_t> saved, again;
		FUZZ_CHECK(instance->saveState(saved));
		FUZZ_CHECK(instance->loadState(saved));
		FUZZ_CHECK(instance->saveState(again));
		FUZZ_CHECK(saved == again);
	}

private:
	explicit FuzzedPlugin(std::uint32_t index) {
		const auto &b = bundle();
		const auto *descriptor = b.descriptor(index);
		FUZZ_CHECK(descriptor != nullptr);
		instance = std::make_unique<lumbrel::host::Instance>(b, descriptor->id, host);
		FUZZ_CHECK(instance->valid());
		FUZZ_CHECK(instance->init());
		FUZZ_CHECK(instance->activate(48000, 1, maxFrames));
		FUZZ_CHECK(instance->startProcessing());
		webview = instance->extension<clap_plugin_webview>(CLAP_EXT_WEBVIEW);
		FUZZ_CHECK(webview != nullptr);
		FUZZ_CHECK(instance->saveState(defaults));
	}

	void restart() {
		FUZZ_CHECK(instance->loadState(defaults));
		const std::uint8_t endLease[] = {0x83, 0x66, 'm', 'e', 't', 'e', 'r', 's', 0x00, 0x00};
		FUZZ_CHECK(receive(endLease, sizeof(endLease)));
		instance->reset();
		process(1); // the engine settings take effect in the first block
		mainThread();
		time = 0;
		noise = 1;
	}

	std::vector<std::uint8_t> defaults;
	lumbrel::host::InputEvents events;
	lumbrel::host::OutputEvents out;
	float left[maxFrames], right[maxFrames], outLeft[maxFrames], outRight[maxFrames];
	std::uint64_t time = 0;
	std::uint32_t noise = 1;
};

} // namespace lumbrel_fuzz
