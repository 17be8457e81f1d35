#include "host/instance.h"
#include "host/streams.h"

#include <poll.h>

namespace lumbrel::host {

Instance::Instance(const Bundle &bundle, const char *id, Host &host) : host_(host) {
	const auto &factory = bundle.factory();
	plugin = factory.create_plugin(&factory, host.clapHost(), id);
}

Instance::~Instance() {
	if (!plugin) return;
	if (processing_) stopProcessing();
	if (active_) deactivate();
	plugin->destroy(plugin);
}

bool Instance::init() { return plugin->init(plugin); }

bool Instance::activate(double sampleRate, std::uint32_t minFrames, std::uint32_t maxFrames) {
	if (processing_) stopProcessing();
	if (active_) deactivate();
	active_ = plugin->activate(plugin, sampleRate, minFrames, maxFrames);
	return active_;
}

void Instance::deactivate() {
	if (processing_) stopProcessing();
	plugin->deactivate(plugin);
	active_ = false;
}

bool Instance::startProcessing() {
	processing_ = plugin->start_processing(plugin);
	return processing_;
}

void Instance::stopProcessing() {
	plugin->stop_processing(plugin);
	processing_ = false;
}

void Instance::reset() { plugin->reset(plugin); }

void Instance::fireTimers() {
	auto *timers = extension<clap_plugin_timer_support>(CLAP_EXT_TIMER_SUPPORT);
	if (!timers) return;
	// A timer may unregister (or register) another while we go.
	std::vector<clap_id> ids;
	for (const auto &timer : host_.timers) ids.push_back(timer.first);
	for (clap_id id : ids) {
		if (host_.timers.count(id)) timers->on_timer(plugin, id);
	}
}

int Instance::pollFds(int timeoutMs) {
	auto *support = extension<clap_plugin_posix_fd_support>(CLAP_EXT_POSIX_FD_SUPPORT);
	if (!support || host_.fds.empty()) return 0;
	std::vector<pollfd> polled;
	for (const auto &entry : host_.fds) {
		short events = 0;
		if (entry.second & CLAP_POSIX_FD_READ) events |= POLLIN;
		if (entry.second & CLAP_POSIX_FD_WRITE) events |= POLLOUT;
		polled.push_back(pollfd{entry.first, events, 0});
	}
	const int ready = ::poll(polled.data(), nfds_t(polled.size()), timeoutMs);
	if (ready <= 0) return 0;
	for (const auto &entry : polled) {
		if (!entry.revents || !host_.fds.count(entry.fd)) continue;
		clap_posix_fd_flags_t flags = 0;
		if (entry.revents & POLLIN) flags |= CLAP_POSIX_FD_READ;
		if (entry.revents & POLLOUT) flags |= CLAP_POSIX_FD_WRITE;
		if (entry.revents & (POLLERR | POLLHUP | POLLNVAL)) flags |= CLAP_POSIX_FD_ERROR;
		support->on_fd(plugin, entry.fd, flags);
	}
	return ready;
}

clap_process_status Instance::process(float *const *inputs, std::uint32_t inputChannels, float *const *outputs,
	std::uint32_t outputChannels, std::uint32_t frames, const InputEvents &in, OutputEvents &out) {
	clap_audio_buffer input{const_cast<float **>(inputs), nullptr, inputChannels, 0, 0};
	clap_audio_buffer output{const_cast<float **>(outputs), nullptr, outputChannels, 0, 0};
	clap_process process{};
	process.steady_time = steadyTime;
	process.frames_count = frames;
	process.transport = nullptr;
	process.audio_inputs = &input;
	process.audio_outputs = &output;
	process.audio_inputs_count = inputChannels ? 1 : 0;
	process.audio_outputs_count = outputChannels ? 1 : 0;
	process.in_events = in.list();
	process.out_events = out.list();
	steadyTime += frames;
	return plugin->process(plugin, &process);
}

std::uint32_t Instance::paramCount() const {
	auto *params = extension<clap_plugin_params>(CLAP_EXT_PARAMS);
	return params ? params->count(plugin) : 0;
}

bool Instance::paramInfo(std::uint32_t index, clap_param_info &info) const {
	auto *params = extension<clap_plugin_params>(CLAP_EXT_PARAMS);
	return params && params->get_info(plugin, index, &info);
}

bool Instance::paramValue(clap_id id, double &value) const {
	auto *params = extension<clap_plugin_params>(CLAP_EXT_PARAMS);
	return params && params->get_value(plugin, id, &value);
}

std::string Instance::paramText(clap_id id, double value) const {
	auto *params = extension<clap_plugin_params>(CLAP_EXT_PARAMS);
	char text[CLAP_NAME_SIZE] = {};
	if (!params || !params->value_to_text(plugin, id, value, text, sizeof(text) - 1)) return {};
	return text;
}

bool Instance::paramFromText(clap_id id, const std::string &text, double &value) const {
	auto *params = extension<clap_plugin_params>(CLAP_EXT_PARAMS);
	return params && params->text_to_value(plugin, id, text.c_str(), &value);
}

void Instance::paramsFlush(const InputEvents &in, OutputEvents &out) const {
	if (auto *params = extension<clap_plugin_params>(CLAP_EXT_PARAMS)) params->flush(plugin, in.list(), out.list());
}

std::uint32_t Instance::latency() const {
	auto *latency = extension<clap_plugin_latency>(CLAP_EXT_LATENCY);
	return latency ? latency->get(plugin) : 0;
}

bool Instance::saveState(std::vector<std::uint8_t> &bytes) const {
	auto *state = extension<clap_plugin_state>(CLAP_EXT_STATE);
	if (!state) return false;
	MemoryOStream stream;
	if (!state->save(plugin, &stream.stream)) return false;
	bytes = std::move(stream.bytes);
	return true;
}

bool Instance::loadState(const std::vector<std::uint8_t> &bytes) const {
	auto *state = extension<clap_plugin_state>(CLAP_EXT_STATE);
	if (!state) return false;
	MemoryIStream stream(bytes);
	return state->load(plugin, &stream.stream);
}

} // namespace lumbrel::host
