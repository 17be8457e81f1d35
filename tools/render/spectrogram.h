#pragma once
#include <string>

namespace lumbrel::render {

// Draws the spectrogram of the audio file `audioPath` into the PNG
// `pngPath` with sox's spectrogram effect: 0 to 12 kHz, one pane per
// channel, titled `title`. Waits for sox. False with one line in `error` if
// sox is missing or fails.
bool drawSpectrogram(const std::string &audioPath, const std::string &pngPath, const std::string &title,
	std::string &error);

} // namespace lumbrel::render
