#pragma once
#include "render/audio_file.h"

namespace lumbrel::render {

// Length of the built-in demo, in seconds.
constexpr double demoSeconds = 8;

// The built-in demo: eight seconds of stereo at `sampleRate` in three parts,
// so that every effect has something of its own to work on, over a faint
// hiss for the clean-up:
//   0 to 2.7 s    a voice: `voice` if given (any channel count, at
//                 `sampleRate`; the first 2.6 s of it), otherwise sung vowels
//                 from a formant synthesiser;
//   2.7 to 5.4 s  a plucked melody over a held chord;
//   5.4 to 8 s    a drum loop (kick, snare, hi-hat) with bass and chord.
// Deterministic; the peak is 0.7.
Audio demoSignal(double sampleRate = 48000, const Audio *voice = nullptr);

} // namespace lumbrel::render
