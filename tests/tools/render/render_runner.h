#pragma once
// Runs the built lumbrel-render as a person would, and makes and reads the
// small audio files it works on (libsndfile directly, not the tool's code).
#include <sndfile.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <pty.h>
#include <random>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace lumbrel_test {

struct RunResult {
	int exitCode = -1;
	std::string out, err;
};

inline std::string readText(const std::string &path) {
	std::ifstream file(path, std::ios::binary);
	return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// A fresh folder under the system's temporary folder, removed with its files.
struct TempFolder {
	std::filesystem::path path = std::filesystem::temp_directory_path()
		/ ("lumbrel-render-test-" + std::to_string(::getpid()) + "-" + std::to_string(std::random_device()()));
	TempFolder() { std::filesystem::create_directories(path); }
	~TempFolder() { std::error_code ignored; std::filesystem::remove_all(path, ignored); }
	std::string operator/(const std::string &name) const { return (path / name).string(); }
	std::vector<std::string> files() const {
		std::vector<std::string> names;
		for (const auto &entry : std::filesystem::directory_iterator(path)) names.push_back(entry.path().filename());
		return names;
	}
};

// Runs `args` (the program first) through the shell, standard output and
// error into files of `folder`.
inline RunResult run(const TempFolder &folder, const std::vector<std::string> &args) {
	std::string command;
	for (const auto &a : args) command += "'" + a + "' ";
	const std::string out = folder / ".stdout", err = folder / ".stderr";
	const int status = std::system((command + "> '" + out + "' 2> '" + err + "'").c_str());
	RunResult result{WIFEXITED(status) ? WEXITSTATUS(status) : -1, readText(out), readText(err)};
	std::filesystem::remove(out);
	std::filesystem::remove(err);
	return result;
}

// Runs a program on a terminal of its own, `columns` wide, and returns its
// exit code and all it drew there.
inline RunResult runOnTerminal(std::vector<std::string> args, unsigned short columns) {
	std::vector<char *> argv;
	for (auto &a : args) argv.push_back(a.data());
	argv.push_back(nullptr);
	winsize size{};
	size.ws_col = columns;
	size.ws_row = 24;
	int terminal = -1;
	RunResult result;
	const pid_t pid = forkpty(&terminal, nullptr, nullptr, &size);
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

struct SoundFile {
	int format = 0; // SF_FORMAT_* of the file
	double sampleRate = 0;
	std::vector<std::vector<float>> channels;
	std::size_t frames() const { return channels.empty() ? 0 : channels[0].size(); }
};

inline bool writeSound(const std::string &path, const std::vector<std::vector<float>> &channels, double sampleRate,
	int format = SF_FORMAT_WAV | SF_FORMAT_FLOAT) {
	SF_INFO info{0, int(sampleRate), int(channels.size()), format, 0, 0};
	SNDFILE *file = sf_open(path.c_str(), SFM_WRITE, &info);
	if (!file) return false;
	std::vector<float> interleaved;
	for (std::size_t i = 0; i < channels[0].size(); ++i)
		for (const auto &channel : channels) interleaved.push_back(channel[i]);
	const sf_count_t frames = sf_count_t(channels[0].size());
	return (sf_writef_float(file, interleaved.data(), frames) == frames) & (sf_close(file) == 0);
}

inline bool readSound(const std::string &path, SoundFile &sound) {
	SF_INFO info{};
	SNDFILE *file = sf_open(path.c_str(), SFM_READ, &info);
	if (!file) return false;
	std::vector<float> interleaved(std::size_t(info.frames * info.channels));
	const auto frames = std::size_t(sf_readf_float(file, interleaved.data(), info.frames));
	sf_close(file);
	sound = {info.format, double(info.samplerate), std::vector<std::vector<float>>(std::size_t(info.channels))};
	for (std::size_t c = 0; c < sound.channels.size(); ++c)
		for (std::size_t i = 0; i < frames; ++i) sound.channels[c].push_back(interleaved[i * info.channels + c]);
	return true;
}

// Index of the largest magnitude.
inline std::size_t peakIndex(const std::vector<float> &x) {
	std::size_t best = 0;
	for (std::size_t i = 1; i < x.size(); ++i)
		if (std::abs(x[i]) > std::abs(x[best])) best = i;
	return best;
}

} // namespace lumbrel_test
