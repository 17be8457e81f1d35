#pragma once
#include <cstddef>
#include <string>
#include <vector>

namespace lumbrel::render {

// Planar audio: one row of samples per channel.
struct Audio {
	double sampleRate = 48000;
	std::vector<std::vector<float>> channels;
	int fileFormat = 0; // libsndfile's SF_FORMAT_* of the file it was read from; 0 if none

	std::size_t frames() const { return channels.empty() ? 0 : channels[0].size(); }
};

// Sample encodings that writeAudio offers; formats that can't hold the one
// asked for fall back as writeAudio says.
enum class SampleEncoding { Float32, Pcm16, Pcm24 };

// Reads any file libsndfile knows (WAV, FLAC, AIFF, OGG, ...); "-" reads
// standard input. A file shorter than its header says is an error. On
// failure returns false with one line in `error`.
bool readAudio(const std::string &path, Audio &audio, std::string &error);

// True if writeAudio can tell a format from the file name: .wav, .flac,
// .aif/.aiff or .ogg/.oga, in any case, or "-".
bool knownOutputFormat(const std::string &path);

// The encoding that keeps a file's sample format (SF_FORMAT_*): 16 and 24
// bits as they are, anything else as float.
SampleEncoding keptEncoding(int fileFormat);

// Whether `encoding` applies to the format of `path`; false, with why in
// `error`, for an encoding the format can't hold (any --bits for OGG, float
// for FLAC).
bool encodingApplies(const std::string &path, SampleEncoding encoding, std::string &error);

// True if the format of `path` with `encoding` stores fixed-point samples,
// which clip at full scale.
bool clipsAtFullScale(const std::string &path, SampleEncoding encoding);

// Writes `audio` in the format the file name's extension names ("-":
// WAV on standard output), in
// `encoding`: WAV and AIFF as asked, FLAC as 24-bit for Float32 (FLAC has no
// float), OGG always as Vorbis. Integer encodings clip at full scale. The
// file is written beside the target and renamed over it only when complete,
// so a failure never leaves a half file in its place or in its name.
bool writeAudio(const std::string &path, const Audio &audio, std::string &error,
	SampleEncoding encoding = SampleEncoding::Float32);

} // namespace lumbrel::render
