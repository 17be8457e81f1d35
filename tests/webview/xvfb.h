#pragma once
// An X server of the test's own: Xvfb on a display number it picks itself
// (-displayfd), so that tests running side by side don't meet. Bounded wait
// for it to come up; no fixed sleeps.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

namespace lumbrel_test {

class Xvfb {
public:
	// Starts the server; `display()` is empty and `error()` says why if it
	// didn't come up within `timeoutMs`.
	explicit Xvfb(int width = 1024, int height = 768, int timeoutMs = 15000) {
		int pipeFds[2];
		if (::pipe(pipeFds) != 0) {
			error_ = "pipe failed";
			return;
		}
		::fcntl(pipeFds[0], F_SETFD, FD_CLOEXEC);
		const std::string fd = std::to_string(pipeFds[1]);
		const std::string screen = std::to_string(width) + "x" + std::to_string(height) + "x24";
		const char *argv[] = {"Xvfb", "-displayfd", fd.c_str(), "-screen", "0", screen.c_str(), "-nolisten", "tcp",
			"-noreset", nullptr};
		pid = ::fork();
		if (pid == 0) {
			// The server ends with the test, even one killed by a timeout.
			::prctl(PR_SET_PDEATHSIG, SIGTERM);
			const int quiet = ::open("/dev/null", O_WRONLY);
			::dup2(quiet, 1); // its chatter about fonts and keymaps is none of the test's
			::dup2(quiet, 2);
			::execvp("Xvfb", const_cast<char **>(argv));
			::_exit(127);
		}
		::close(pipeFds[1]);
		if (pid < 0) {
			::close(pipeFds[0]);
			error_ = std::string("Xvfb could not be started (") + std::strerror(errno) + ")";
			return;
		}

		// The server writes its display number once it accepts connections.
		std::string number;
		const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
		while (number.find('\n') == std::string::npos) {
			const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
				deadline - std::chrono::steady_clock::now()).count();
			pollfd readable{pipeFds[0], POLLIN, 0};
			if (left <= 0 || ::poll(&readable, 1, int(left)) <= 0) {
				error_ = "Xvfb did not come up within " + std::to_string(timeoutMs) + " ms";
				break;
			}
			char buffer[32];
			const ssize_t n = ::read(pipeFds[0], buffer, sizeof(buffer));
			if (n <= 0) {
				error_ = "Xvfb ended without opening a display (is it installed?)";
				break;
			}
			number.append(buffer, std::size_t(n));
		}
		::close(pipeFds[0]);
		if (number.find('\n') == std::string::npos) {
			stop();
			return;
		}
		display_ = ":" + number.substr(0, number.find('\n'));
	}

	~Xvfb() { stop(); }
	Xvfb(const Xvfb &) = delete;
	Xvfb &operator=(const Xvfb &) = delete;

	const std::string &display() const { return display_; }
	const std::string &error() const { return error_; }
	pid_t processId() const { return pid; }

private:
	void stop() {
		if (pid <= 0) return;
		::kill(pid, SIGTERM);
		int status = 0;
		::waitpid(pid, &status, 0);
		pid = -1;
	}

	pid_t pid = -1;
	std::string display_, error_;
};

// True if `program` is found on PATH.
inline bool onPath(const std::string &program) {
	const char *path = std::getenv("PATH");
	std::string dirs = path ? path : "/usr/bin:/bin";
	std::size_t start = 0;
	while (start <= dirs.size()) {
		const std::size_t end = std::min(dirs.find(':', start), dirs.size());
		const std::string candidate = dirs.substr(start, end - start) + "/" + program;
		if (::access(candidate.c_str(), X_OK) == 0) return true;
		start = end + 1;
	}
	return false;
}

} // namespace lumbrel_test
