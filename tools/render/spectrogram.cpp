#include "render/spectrogram.h"

#include <cstring>
#include <spawn.h>
#include <sys/wait.h>
#include <vector>

extern char **environ;

namespace lumbrel::render {

bool drawSpectrogram(const std::string &audioPath, const std::string &pngPath, const std::string &title,
	std::string &error) {
	// Resampling to 24 kHz first gives the picture to the range where the
	// effects do their work.
	std::vector<std::string> args = {"sox", "-V1", audioPath, "-n", "rate", "24k", "spectrogram", "-x", "720", "-y",
		"241", "-z", "90", "-t", title, "-o", pngPath};
	std::vector<char *> argv;
	for (auto &arg : args) argv.push_back(arg.data());
	argv.push_back(nullptr);

	pid_t pid = 0;
	const int spawned = posix_spawnp(&pid, "sox", nullptr, nullptr, argv.data(), environ);
	if (spawned != 0) {
		error = std::string("cannot run sox for the spectrograms: ") + std::strerror(spawned)
			+ " (Debian: apt-get install sox)";
		return false;
	}
	int status = 0;
	if (waitpid(pid, &status, 0) < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
		error = "sox failed to draw " + pngPath;
		return false;
	}
	return true;
}

} // namespace lumbrel::render
