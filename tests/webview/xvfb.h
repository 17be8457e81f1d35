#pragma once
// An X server of the test's own: Xvfb on a display number it picks itself
// (-displayfd), so that tests running side by side don't meet; a bounded wait, no fixed sleeps.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace lumbrel_test {

class Xvfb {
public:
	// `display()` is empty and `error()` says why if the server didn't come up within 15 s.
	Xvfb() {
		int fds[2];
		if (::pipe(fds) != 0) {
			error_ = "pipe failed";
			return;
		}
		::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
		const std::string fd = std::to_string(fds[1]);
		const char *argv[] = {"Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "1024x768x24", "-nolisten", "tcp", "-noreset", nullptr};
		pid = ::fork();
		if (pid == 0) {
			::prctl(PR_SET_PDEATHSIG, SIGTERM); // ends with the test, even one killed by a timeout
			const int quiet = ::open("/dev/null", O_WRONLY);
			::dup2(quiet, 1), ::dup2(quiet, 2);
			::execvp("Xvfb", const_cast<char **>(argv));
			::_exit(127);
		}
		::close(fds[1]);
		// The server writes its display number once it accepts connections.
		std::string number;
		char buffer[32];
		pollfd readable{fds[0], POLLIN, 0};
		while (pid > 0 && number.find('\n') == std::string::npos && ::poll(&readable, 1, 15000) > 0) {
			const ssize_t n = ::read(fds[0], buffer, sizeof(buffer));
			if (n <= 0) break;
			number.append(buffer, std::size_t(n));
		}
		::close(fds[0]);
		if (number.find('\n') == std::string::npos) {
			error_ = "Xvfb did not come up within 15 s";
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
		::waitpid(pid, nullptr, 0);
		pid = -1;
	}
	pid_t pid = -1;
	std::string display_, error_;
};

inline bool onPath(const std::string &program) { return std::system(("command -v " + program + " > /dev/null").c_str()) == 0; }

} // namespace lumbrel_test
