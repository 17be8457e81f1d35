#pragma once
#include "render/audio_file.h"

#include <string>

namespace lumbrel::render {

// Spectrogram pictures for the demo page: time across, frequency up on a
// logarithmic axis from lowHz to highHz, level from -100 dBFS (black) to
// 0 dBFS (white). The page draws the axes' labels itself, in text that stays
// readable at any width, from these numbers.
struct SpectrogramLayout {
	static constexpr int width = 800; // pixels, the whole file
	static constexpr int panelHeight = 240; // pixels per panel
	static constexpr int gap = 4; // pixels between the left and right panels
	static constexpr double lowHz = 50, highHz = 20000;
	static constexpr double floorDb = -100;
};

// Draws `audio` into the PNG `pngPath`: one panel of the channels' mean, or
// a left and a right panel (left on top) when the channels differ. `stereo`
// says which. False with one line in `error` if the file can't be written.
bool drawSpectrogram(const Audio &audio, const std::string &pngPath, bool &stereo, std::string &error);

} // namespace lumbrel::render
