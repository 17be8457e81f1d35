#include "host/host.h"

#include <cstring>

namespace lumbrel::host {

const clap_host_params Host::paramsExtension{params_rescan, params_clear, params_request_flush};
const clap_host_latency Host::latencyExtension{latency_changed};
const clap_host_webview Host::webviewExtension{webview_send};
const clap_host_timer_support Host::timerExtension{timer_register, timer_unregister};
const clap_host_posix_fd_support Host::fdExtension{fd_register, fd_modify, fd_unregister};

Host::Host() {
	host = clap_host{CLAP_VERSION, this, "Lumbrel host", "Varkesh Audio", "", "1.0.0",
		get_extension, request_restart, request_process, request_callback};
}

const void *Host::get_extension(const clap_host *host, const char *id) {
	Host &self = of(host);
	if (!id) return nullptr;
	if (self.offerParams && !std::strcmp(id, CLAP_EXT_PARAMS)) return &paramsExtension;
	if (self.offerLatency && !std::strcmp(id, CLAP_EXT_LATENCY)) return &latencyExtension;
	if (self.offerWebview && !std::strcmp(id, CLAP_EXT_WEBVIEW)) return &webviewExtension;
	if (self.offerTimers && !std::strcmp(id, CLAP_EXT_TIMER_SUPPORT)) return &timerExtension;
	if (self.offerFds && !std::strcmp(id, CLAP_EXT_POSIX_FD_SUPPORT)) return &fdExtension;
	return nullptr;
}

void Host::request_restart(const clap_host *host) { ++of(host).restartRequests; }
void Host::request_process(const clap_host *host) { ++of(host).processRequests; }
void Host::request_callback(const clap_host *host) { ++of(host).callbackRequests; }

void Host::params_rescan(const clap_host *host, clap_param_rescan_flags flags) {
	++of(host).rescanCalls;
	of(host).lastRescanFlags = flags;
}
void Host::params_clear(const clap_host *, clap_id, clap_param_clear_flags) {}
void Host::params_request_flush(const clap_host *host) { ++of(host).flushRequests; }
void Host::latency_changed(const clap_host *host) { ++of(host).latencyChanges; }

bool Host::webview_send(const clap_host *host, const void *buffer, std::uint32_t size) {
	Host &self = of(host);
	if (!self.webviewOpen) return false;
	std::lock_guard<std::mutex> lock(self.messageMutex);
	auto *bytes = static_cast<const std::uint8_t *>(buffer);
	self.sentMessages.emplace_back(bytes, bytes + size);
	return true;
}

bool Host::timer_register(const clap_host *host, std::uint32_t periodMs, clap_id *id) {
	Host &self = of(host);
	*id = self.nextTimerId++;
	self.timers[*id] = periodMs;
	return true;
}

bool Host::timer_unregister(const clap_host *host, clap_id id) { return of(host).timers.erase(id) > 0; }

// A descriptor is registered once; modify and unregister need it registered.
bool Host::fd_register(const clap_host *host, int fd, clap_posix_fd_flags_t flags) {
	return fd >= 0 && of(host).fds.emplace(fd, flags).second;
}

bool Host::fd_modify(const clap_host *host, int fd, clap_posix_fd_flags_t flags) {
	auto found = of(host).fds.find(fd);
	if (found == of(host).fds.end()) return false;
	found->second = flags;
	return true;
}

bool Host::fd_unregister(const clap_host *host, int fd) { return of(host).fds.erase(fd) > 0; }

} // namespace lumbrel::host
