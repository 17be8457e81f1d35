#pragma once
#include <cstddef>
#include <string>
#include <vector>

namespace lumbrel::render {

// Planar audio: one row of samples per channel.
struct Audio {
	double sampleRate = 48000;
	std::vector<std::vector<float>> channels;

	std::size_t frames() const { return channels.empty() ? 0 : channels[0].size(); }
};

// Reads any file libsndfile knows (WAV, FLAC, AIFF, OGG, ...). On failure
// returns false with one line in `error`.
bool readAudio(const std::string &path, Audio &audio, std::string &error);

// Writes `audio` in the format the file name's extension names (.wav, .flac,
// .aif/.aiff, .ogg), 32-bit float where the format allows it, else 24-bit
// (FLAC) or Vorbis. The file is written beside the target and renamed over it
// only when complete, so a failure never leaves a half file in its place.
bool writeAudio(const std::string &path, const Audio &audio, std::string &error);

} // namespace lumbrel::render
