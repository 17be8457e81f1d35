#pragma once
#include <clap/clap.h>
#include <clap/ext/draft/webview.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

namespace lumbrel::host {

// The host side handed to a plug-in: a clap_host with the params, latency,
// webview/3, timer-support and posix-fd-support extensions. It records what
// the plug-in asks of it, so that tests can look.
class Host {
public:
	Host();
	Host(const Host &) = delete;
	Host &operator=(const Host &) = delete;

	const clap_host *clapHost() const { return &host; }

	// Which extensions get_extension offers; all by default.
	bool offerParams = true, offerLatency = true, offerWebview = true, offerTimers = true, offerFds = true;

	// Requests from the plug-in, counted.
	std::atomic<int> restartRequests{0}, processRequests{0}, callbackRequests{0};
	std::atomic<int> flushRequests{0}, rescanCalls{0}, latencyChanges{0};
	std::atomic<std::uint32_t> lastRescanFlags{0};

	// Messages sent to the page through webview/3; `webviewOpen` false makes
	// send fail as a closed web view does.
	bool webviewOpen = true;
	std::vector<std::vector<std::uint8_t>> sentMessages;

	// Timers the plug-in registered: id to period in ms. Instance::fireTimers
	// runs them.
	std::map<clap_id, std::uint32_t> timers;

	// Descriptors the plug-in asked to be watched: fd to CLAP_POSIX_FD_* bits.
	// Instance::pollFds waits on them.
	std::map<int, clap_posix_fd_flags_t> fds;

	static Host &of(const clap_host *host) { return *static_cast<Host *>(host->host_data); }

private:
	clap_host host;
	clap_id nextTimerId = 1;
	std::mutex messageMutex;

	static const void *get_extension(const clap_host *host, const char *id);
	static void request_restart(const clap_host *host);
	static void request_process(const clap_host *host);
	static void request_callback(const clap_host *host);

	static void params_rescan(const clap_host *host, clap_param_rescan_flags flags);
	static void params_clear(const clap_host *host, clap_id id, clap_param_clear_flags flags);
	static void params_request_flush(const clap_host *host);
	static void latency_changed(const clap_host *host);
	static bool webview_send(const clap_host *host, const void *buffer, std::uint32_t size);
	static bool timer_register(const clap_host *host, std::uint32_t periodMs, clap_id *id);
	static bool timer_unregister(const clap_host *host, clap_id id);
	static bool fd_register(const clap_host *host, int fd, clap_posix_fd_flags_t flags);
	static bool fd_modify(const clap_host *host, int fd, clap_posix_fd_flags_t flags);
	static bool fd_unregister(const clap_host *host, int fd);

	static const clap_host_params paramsExtension;
	static const clap_host_latency latencyExtension;
	static const clap_host_webview webviewExtension;
	static const clap_host_timer_support timerExtension;
	static const clap_host_posix_fd_support fdExtension;
};

} // namespace lumbrel::host
