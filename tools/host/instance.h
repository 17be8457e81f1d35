#pragma once
#include "host/bundle.h"
#include "host/events.h"
#include "host/host.h"

#include <clap/clap.h>
#include <clap/ext/draft/webview.h>

#include <cstdint>
#include <string>
#include <vector>

namespace lumbrel::host {

// One plug-in instance, driven through its clap_plugin the way a DAW does.
// Tracks the lifecycle so that the destructor can wind it down in order.
class Instance {
public:
	// Creates the plug-in `id` (an exact descriptor id) on `host`. Check
	// `valid()`: creation may have failed.
	Instance(const Bundle &bundle, const char *id, Host &host);
	~Instance(); // stop processing, deactivate, destroy

	Instance(const Instance &) = delete;
	Instance &operator=(const Instance &) = delete;

	bool valid() const { return plugin != nullptr; }
	const clap_plugin *clapPlugin() const { return plugin; }
	Host &host() const { return host_; }

	bool init();
	bool activate(double sampleRate, std::uint32_t minFrames, std::uint32_t maxFrames);
	void deactivate();
	bool startProcessing();
	void stopProcessing();
	void reset();
	void onMainThread() { plugin->on_main_thread(plugin); }

	// The host's main loop, one turn at a time: fireTimers calls on_timer
	// once for every timer registered now; pollFds waits up to `timeoutMs`
	// for the registered descriptors and calls on_fd for each that is ready.
	// pollFds returns how many were, or 0 at once with none registered.
	void fireTimers();
	int pollFds(int timeoutMs);

	// Processes one block of one stereo-or-other main port each way. The
	// pointer arrays hold one pointer per channel. Allocates nothing.
	clap_process_status process(float *const *inputs, std::uint32_t inputChannels, float *const *outputs,
		std::uint32_t outputChannels, std::uint32_t frames, const InputEvents &in, OutputEvents &out);

	template<class Extension>
	const Extension *extension(const char *id) const {
		return static_cast<const Extension *>(plugin->get_extension(plugin, id));
	}

	// clap.params, each false/empty if the plug-in lacks the extension.
	std::uint32_t paramCount() const;
	bool paramInfo(std::uint32_t index, clap_param_info &info) const;
	bool paramValue(clap_id id, double &value) const;
	std::string paramText(clap_id id, double value) const;
	bool paramFromText(clap_id id, const std::string &text, double &value) const;
	void paramsFlush(const InputEvents &in, OutputEvents &out) const;

	// clap.latency; 0 if the plug-in lacks it.
	std::uint32_t latency() const;

	// clap.state through memory streams.
	bool saveState(std::vector<std::uint8_t> &bytes) const;
	bool loadState(const std::vector<std::uint8_t> &bytes) const;

	bool active() const { return active_; }
	bool processing() const { return processing_; }

private:
	const clap_plugin *plugin = nullptr;
	Host &host_;
	bool active_ = false, processing_ = false;
	std::int64_t steadyTime = 0;
};

} // namespace lumbrel::host
