#pragma once
#include "render/audio_file.h"

namespace lumbrel::render {

// The built-in demo: eight seconds of stereo music-like material at
// `sampleRate`: a plucked melody over a held chord, drum-like hits, a spoken-
// like formant sweep and a little noise, so that every effect has something to
// work on. Deterministic.
Audio demoSignal(double sampleRate = 48000);

} // namespace lumbrel::render
