#pragma once
// Runs the built lumbrel-render as a person would, and makes and reads the
// small audio files it works on (libsndfile directly, not the tool's code).
#include <sndfile.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <pty.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace lumbrel_test {

struct RunResult {
	int exitCode = -1;
	std::string out, err;
};

// Runs a program on a terminal of its own, `columns` wide (0: the default),
// and returns its exit code and all it drew there.
inline RunResult runOnTerminal(std::vector<std::string> args, unsigned short columns = 0) {
	std::vector<char *> argv;
	for (auto &a : args) argv.push_back(a.data());
	argv.push_back(nullptr);
	winsize size{};
	size.ws_col = columns;
	size.ws_row = 24;
	int terminal = -1;
	RunResult result;
	const pid_t pid = forkpty(&terminal, nullptr, nullptr, columns ? &size : nullptr);
	if (pid < 0) return result;
	if (pid == 0) {
		execv(argv[0], argv.data());
		_exit(127);
	}
	char buffer[512];
	for (ssize_t n; (n = read(terminal, buffer, sizeof buffer)) > 0;) result.out.append(buffer, std::size_t(n));
	int status = 0;
	waitpid(pid, &status, 0);
	close(terminal);
	result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
	return result;
}

// A fresh folder under the system's temporary folder, removed with its files.
struct TempFolder {
	std::filesystem::path path;
	TempFolder() {
		std::random_device seed;
		path = std::filesystem::temp_directory_path() / ("lumbrel-render-test-" + std::to_string(::getpid()) + "-"
			+ std::to_string(seed()));
		std::filesystem::create_directories(path);
	}
	~TempFolder() {
		std::error_code ignored;
		std::filesystem::remove_all(path, ignored);
	}
	std::string operator/(const std::string &name) const { return (path / name).string(); }
	std::vector<std::string> files() const {
		std::vector<std::string> names;
		for (const auto &entry : std::filesystem::directory_iterator(path)) names.push_back(entry.path().filename());
		return names;
	}
};

inline std::string readText(const std::string &path) {
	std::ifstream file(path, std::ios::binary);
	return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Runs lumbrel-render with `args`, stdout and stderr into files of `folder`.
inline RunResult runRender(const TempFolder &folder, const std::vector<std::string> &args) {
	std::vector<std::string> argvStrings = {LUMBREL_RENDER_PATH};
	argvStrings.insert(argvStrings.end(), args.begin(), args.end());
	std::vector<char *> argv;
	for (auto &a : argvStrings) argv.push_back(a.data());
	argv.push_back(nullptr);
	const std::string outPath = folder / ".stdout", errPath = folder / ".stderr";
	posix_spawn_file_actions_t actions;
	posix_spawn_file_actions_init(&actions);
	posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
	posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
	RunResult result;
	pid_t pid = 0;
	if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0) {
		int status = 0;
		waitpid(pid, &status, 0);
		result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
	}
	posix_spawn_file_actions_destroy(&actions);
	result.out = readText(outPath);
	result.err = readText(errPath);
	std::remove(outPath.c_str());
	std::remove(errPath.c_str());
	return result;
}

struct SoundFile {
	int format = 0; // SF_FORMAT_* of the file
	double sampleRate = 0;
	std::vector<std::vector<float>> channels;
	std::size_t frames() const { return channels.empty() ? 0 : channels[0].size(); }
};

inline bool writeSound(const std::string &path, const std::vector<std::vector<float>> &channels, double sampleRate,
	int format = SF_FORMAT_WAV | SF_FORMAT_FLOAT) {
	SF_INFO info{};
	info.samplerate = int(sampleRate);
	info.channels = int(channels.size());
	info.format = format;
	SNDFILE *file = sf_open(path.c_str(), SFM_WRITE, &info);
	if (!file) return false;
	const std::size_t frames = channels[0].size();
	std::vector<float> interleaved(frames * channels.size());
	for (std::size_t i = 0; i < frames; ++i) {
		for (std::size_t c = 0; c < channels.size(); ++c) interleaved[i * channels.size() + c] = channels[c][i];
	}
	const bool ok = sf_writef_float(file, interleaved.data(), sf_count_t(frames)) == sf_count_t(frames);
	return sf_close(file) == 0 && ok;
}

inline bool readSound(const std::string &path, SoundFile &sound) {
	SF_INFO info{};
	SNDFILE *file = sf_open(path.c_str(), SFM_READ, &info);
	if (!file) return false;
	std::vector<float> interleaved(std::size_t(info.frames) * std::size_t(info.channels));
	const sf_count_t read = sf_readf_float(file, interleaved.data(), info.frames);
	sf_close(file);
	sound.format = info.format;
	sound.sampleRate = info.samplerate;
	sound.channels.assign(std::size_t(info.channels), std::vector<float>(std::size_t(read)));
	for (std::size_t i = 0; i < std::size_t(read); ++i) {
		for (std::size_t c = 0; c < sound.channels.size(); ++c) {
			sound.channels[c][i] = interleaved[i * sound.channels.size() + c];
		}
	}
	return true;
}

// Index of the largest magnitude.
inline std::size_t peakIndex(const std::vector<float> &x) {
	std::size_t best = 0;
	for (std::size_t i = 1; i < x.size(); ++i) {
		if (std::abs(x[i]) > std::abs(x[best])) best = i;
	}
	return best;
}

} // namespace lumbrel_test
