#include "render/audio_file.h"

#include <sndfile.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace lumbrel::render {

namespace {

std::string lowerExtension(const std::string &path) {
	if (path == "-") return "-";
	const auto dot = path.rfind('.');
	const auto slash = path.rfind('/');
	if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
	std::string ext = path.substr(dot + 1);
	for (auto &c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
	return ext;
}

// libsndfile's message as the end of one of ours: "System error : No such
// file or directory." becomes "no such file or directory".
std::string soundFileError(SNDFILE *file) {
	std::string text = sf_strerror(file);
	const std::string system = "System error : ";
	if (text.compare(0, system.size(), system) == 0) text.erase(0, system.size());
	while (!text.empty() && (text.back() == '.' || text.back() == ' ' || text.back() == '\n')) text.pop_back();
	if (!text.empty()) text[0] = char(std::tolower(static_cast<unsigned char>(text[0])));
	return text;
}

int majorFormat(const std::string &ext) {
	if (ext == "wav" || ext == "-") return SF_FORMAT_WAV;
	if (ext == "aif" || ext == "aiff") return SF_FORMAT_AIFF;
	if (ext == "flac") return SF_FORMAT_FLAC;
	if (ext == "ogg" || ext == "oga") return SF_FORMAT_OGG;
	return 0;
}

int subFormat(int major, SampleEncoding encoding) {
	if (major == SF_FORMAT_OGG) return SF_FORMAT_VORBIS;
	switch (encoding) {
	case SampleEncoding::Pcm16:
		return SF_FORMAT_PCM_16;
	case SampleEncoding::Pcm24:
		return SF_FORMAT_PCM_24;
	case SampleEncoding::Float32:
		break;
	}
	return major == SF_FORMAT_FLAC ? SF_FORMAT_PCM_24 : SF_FORMAT_FLOAT;
}

// A hidden name in the target's folder, so that the final rename stays on
// one file system.
std::string temporaryBeside(const std::string &path) {
	const auto slash = path.rfind('/');
	const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
	const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
	return folder + "." + name + ".partial-" + std::to_string(::getpid());
}

// A whole file in memory, for libsndfile's virtual I/O: standard input read
// to its end, or standard output written at the end.
struct MemoryFile {
	std::vector<unsigned char> bytes;
	sf_count_t at = 0;

	static SF_VIRTUAL_IO io() {
		SF_VIRTUAL_IO v{};
		v.get_filelen = [](void *m) { return sf_count_t(self(m).bytes.size()); };
		v.seek = [](sf_count_t offset, int whence, void *m) {
			auto &f = self(m);
			const sf_count_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? f.at : sf_count_t(f.bytes.size());
			f.at = std::max<sf_count_t>(0, base + offset);
			return f.at;
		};
		v.read = [](void *to, sf_count_t n, void *m) {
			auto &f = self(m);
			const sf_count_t size = sf_count_t(f.bytes.size());
			n = std::max<sf_count_t>(0, std::min(n, size - f.at));
			if (n) std::memcpy(to, f.bytes.data() + f.at, std::size_t(n));
			f.at += n;
			return n;
		};
		v.write = [](const void *from, sf_count_t n, void *m) {
			auto &f = self(m);
			if (std::size_t(f.at + n) > f.bytes.size()) f.bytes.resize(std::size_t(f.at + n));
			std::memcpy(f.bytes.data() + f.at, from, std::size_t(n));
			f.at += n;
			return n;
		};
		v.tell = [](void *m) { return self(m).at; };
		return v;
	}
	static MemoryFile &self(void *m) { return *static_cast<MemoryFile *>(m); }
};

// Whether libsndfile found the data chunk shorter than the header says. A
// header that gives the largest size is a stream's, written before its length
// was known, and is not a fault.
bool truncatedData(SNDFILE *file) {
	std::vector<char> log(16384);
	sf_command(file, SFC_GET_LOG_INFO, log.data(), int(log.size()));
	const std::string text(log.data());
	for (const char *chunk : {"\ndata : ", "\nSSND : "}) {
		const auto at = text.find(chunk);
		if (at == std::string::npos) continue;
		const auto line = text.substr(at + 1, text.find('\n', at + 1) - at - 1);
		const auto should = line.find("(should be ");
		if (should == std::string::npos) continue;
		const double declared = std::atof(line.c_str() + line.find(':') + 1);
		const double actual = std::atof(line.c_str() + should + 11);
		if (actual < declared && declared < double(0x7FFFF000)) return true;
	}
	return false;
}

} // namespace

SampleEncoding keptEncoding(int fileFormat) {
	switch (fileFormat & SF_FORMAT_SUBMASK) {
	case SF_FORMAT_PCM_S8:
	case SF_FORMAT_PCM_U8:
	case SF_FORMAT_PCM_16:
		return SampleEncoding::Pcm16;
	case SF_FORMAT_PCM_24:
		return SampleEncoding::Pcm24;
	default:
		return SampleEncoding::Float32;
	}
}

bool encodingApplies(const std::string &path, SampleEncoding encoding, std::string &error) {
	const int major = majorFormat(lowerExtension(path));
	if (major == SF_FORMAT_OGG) {
		error = "--bits does not apply to " + path + ": OGG Vorbis has no sample width";
		return false;
	}
	if (major == SF_FORMAT_FLAC && encoding == SampleEncoding::Float32) {
		error = "FLAC holds 16 or 24 bits, not float: use --bits 16 or 24 for " + path;
		return false;
	}
	return true;
}

bool clipsAtFullScale(const std::string &path, SampleEncoding encoding) {
	const int major = majorFormat(lowerExtension(path));
	return subFormat(major, encoding) != SF_FORMAT_FLOAT;
}

bool readAudio(const std::string &path, Audio &audio, std::string &error) {
	SF_INFO info{};
	SNDFILE *file = nullptr;
	MemoryFile standardInput;
	SF_VIRTUAL_IO io = MemoryFile::io();
	struct stat status {};
	if (path == "-") {
		char buffer[65536];
		for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, stdin)) > 0;) {
			standardInput.bytes.insert(standardInput.bytes.end(), buffer, buffer + n);
		}
		file = sf_open_virtual(&io, SFM_READ, &info, &standardInput);
		if (!file) {
			error = "cannot read standard input: " + soundFileError(nullptr);
			return false;
		}
	} else if (::stat(path.c_str(), &status) != 0) {
		std::string why = std::strerror(errno);
		why[0] = char(std::tolower(static_cast<unsigned char>(why[0])));
		error = "cannot read " + path + ": " + why;
		return false;
	}
	if (path != "-" && S_ISDIR(status.st_mode)) {
		error = "cannot read " + path + ": it is a folder";
		return false;
	}
	if (!file) file = sf_open(path.c_str(), SFM_READ, &info);
	if (!file) {
		error = "cannot read " + path + ": " + soundFileError(nullptr);
		return false;
	}
	if (truncatedData(file)) {
		sf_close(file);
		error = "cannot read " + path + ": it is truncated (shorter than its header says)";
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
	audio.fileFormat = info.format;
	audio.channels.assign(channels, std::vector<float>(std::size_t(read)));
	for (std::size_t i = 0; i < std::size_t(read); ++i) {
		for (std::size_t c = 0; c < channels; ++c) audio.channels[c][i] = interleaved[i * channels + c];
	}
	return true;
}

bool knownOutputFormat(const std::string &path) { return majorFormat(lowerExtension(path)) != 0; }

bool writeAudio(const std::string &path, const Audio &audio, std::string &error, SampleEncoding encoding) {
	const int major = majorFormat(lowerExtension(path));
	if (!major) {
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
	info.format = major | subFormat(major, encoding);
	if (!sf_format_check(&info)) {
		error = "the format of " + path + " cannot hold " + std::to_string(info.channels) + " channels at "
			+ std::to_string(info.samplerate) + " Hz";
		return false;
	}

	const bool toStandardOutput = path == "-";
	const std::string temporary = toStandardOutput ? "" : temporaryBeside(path);
	MemoryFile memory;
	SF_VIRTUAL_IO io = MemoryFile::io();
	SNDFILE *file = toStandardOutput ? sf_open_virtual(&io, SFM_WRITE, &info, &memory)
									 : sf_open(temporary.c_str(), SFM_WRITE, &info);
	if (!file) {
		error = "cannot write " + path + ": " + soundFileError(nullptr);
		return false;
	}
	// Integer and lossy encodings clip at full scale rather than wrapping.
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
	const std::string writeError = ok ? "" : soundFileError(file);
	ok = sf_close(file) == 0 && ok;
	if (!ok) {
		if (!toStandardOutput) std::remove(temporary.c_str());
		error = "cannot write " + path + ": " + (writeError.empty() ? "the disk may be full" : writeError);
		return false;
	}
	if (toStandardOutput) {
		if (std::fwrite(memory.bytes.data(), 1, memory.bytes.size(), stdout) != memory.bytes.size()
			|| std::fflush(stdout) != 0) {
			error = std::string("cannot write to standard output: ") + std::strerror(errno);
			return false;
		}
		return true;
	}
	if (std::rename(temporary.c_str(), path.c_str()) != 0) {
		const std::string why = std::strerror(errno);
		std::remove(temporary.c_str());
		error = "cannot write " + path + ": " + why;
		return false;
	}
	return true;
}

} // namespace lumbrel::render
