#include "render/audio_file.h"

#include <sndfile.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <unistd.h>

namespace lumbrel::render {

namespace {

std::string lowerExtension(const std::string &path) {
	const auto dot = path.rfind('.');
	const auto slash = path.rfind('/');
	if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
	std::string ext = path.substr(dot + 1);
	for (auto &c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
	return ext;
}

} // namespace

bool readAudio(const std::string &path, Audio &audio, std::string &error) {
	SF_INFO info{};
	SNDFILE *file = sf_open(path.c_str(), SFM_READ, &info);
	if (!file) {
		error = "cannot read " + path + ": " + sf_strerror(nullptr);
		return false;
	}
	if (info.channels < 1 || info.samplerate < 1 || info.frames < 0) {
		sf_close(file);
		error = path + " has no usable audio (channels " + std::to_string(info.channels) + ", rate "
			+ std::to_string(info.samplerate) + " Hz)";
		return false;
	}
	const auto channels = std::size_t(info.channels);
	std::vector<float> interleaved(std::size_t(info.frames) * channels);
	const sf_count_t read = sf_readf_float(file, interleaved.data(), info.frames);
	sf_close(file);
	if (read < 0) {
		error = "cannot read the samples of " + path;
		return false;
	}
	audio.sampleRate = info.samplerate;
	audio.channels.assign(channels, std::vector<float>(std::size_t(read)));
	for (std::size_t i = 0; i < std::size_t(read); ++i) {
		for (std::size_t c = 0; c < channels; ++c) audio.channels[c][i] = interleaved[i * channels + c];
	}
	return true;
}

bool writeAudio(const std::string &path, const Audio &audio, std::string &error) {
	const std::string ext = lowerExtension(path);
	int format = 0;
	if (ext == "wav") {
		format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
	} else if (ext == "aif" || ext == "aiff") {
		format = SF_FORMAT_AIFF | SF_FORMAT_FLOAT;
	} else if (ext == "flac") {
		format = SF_FORMAT_FLAC | SF_FORMAT_PCM_24;
	} else if (ext == "ogg" || ext == "oga") {
		format = SF_FORMAT_OGG | SF_FORMAT_VORBIS;
	} else {
		error = "cannot tell the output format from \"" + path + "\": use .wav, .flac, .aiff or .ogg";
		return false;
	}
	if (audio.channels.empty()) {
		error = "nothing to write to " + path;
		return false;
	}
	SF_INFO info{};
	info.samplerate = int(audio.sampleRate);
	info.channels = int(audio.channels.size());
	info.format = format;
	if (!sf_format_check(&info)) {
		error = "the format of " + path + " cannot hold " + std::to_string(info.channels) + " channels at "
			+ std::to_string(info.samplerate) + " Hz";
		return false;
	}

	const std::string temporary = path + ".partial-" + std::to_string(::getpid());
	SNDFILE *file = sf_open(temporary.c_str(), SFM_WRITE, &info);
	if (!file) {
		error = "cannot write " + path + ": " + sf_strerror(nullptr);
		return false;
	}
	// Lossy and integer formats clip at full scale rather than wrapping.
	sf_command(file, SFC_SET_CLIPPING, nullptr, SF_TRUE);

	const std::size_t channels = audio.channels.size(), frames = audio.frames();
	const std::size_t chunk = 4096;
	std::vector<float> interleaved(chunk * channels);
	bool ok = true;
	for (std::size_t start = 0; start < frames && ok; start += chunk) {
		const std::size_t n = std::min(chunk, frames - start);
		for (std::size_t i = 0; i < n; ++i) {
			for (std::size_t c = 0; c < channels; ++c) interleaved[i * channels + c] = audio.channels[c][start + i];
		}
		ok = sf_writef_float(file, interleaved.data(), sf_count_t(n)) == sf_count_t(n);
	}
	ok = sf_close(file) == 0 && ok;
	if (!ok || std::rename(temporary.c_str(), path.c_str()) != 0) {
		std::remove(temporary.c_str());
		error = "cannot write " + path + " (disk full or no permission?)";
		return false;
	}
	return true;
}

} // namespace lumbrel::render
