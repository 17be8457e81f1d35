#pragma once
#include "blocks/envelope.h"
#include "blocks/lumbrel_effect.h"
#include "engine/bump_allocator.h"

namespace varkesh::lumbrel {

template<typename Sample>
class SimpleNoiseRemoval;

// Keeps a per-band noise profile for each input channel and removes it from the
// engine's input spectrum: subtract() replaces the engine's input rows by
// cleaned ones, so whatever follows in onSpectrum() hears the cleaned sound.
//
// Everything is measured on `envelope`, whose update() the owner calls first in
// each frame. How the profile is learned is the owner's choice: it may write
// `noise` itself (a running maximum, say), or call updateNoiseAuto(), which
// follows the noise in epochs. Profiles are in band-energy units; 1e-30 means
// "nothing learned yet", and an untrained profile lets the sound pass.
//
// A reset of the owner zeroes the envelope's rows and `warmup` only; the
// profiles survive it. To start a new profile, set `epochAge` and both weights
// to 0 and fill `noise` and `noiseNext` with 1e-30.
template<>
class SimpleNoiseRemoval<float> {
public:
	BumpVector<BumpVector<float>> noise;     // channelsIn x bands: the profile in use
	BumpVector<BumpVector<float>> noiseNext; // channelsIn x bands: the profile gathered for the next epoch
	BumpVector<BumpVector<float>> outReal;   // channelsIn x bands: cleaned rows lent to the engine
	BumpVector<BumpVector<float>> outImag;
	BumpVector<float> scratchSmooth, scratchDiff, scratchGain; // working rows, bands
	Envelope<float, false> envelope; // the energy contour everything is measured on
	float warmup = 0;          // seconds since the last reset, counted by updateNoiseAuto
	float epochAge = 0;        // seconds since noiseNext began
	float noiseWeight = 0;     // weight gathered by `noise`
	float noiseNextWeight = 0; // weight gathered by `noiseNext`

	// [set-up, allocates] Sizes the envelope and every row, clears the weights
	// and `warmup`, and fills both profiles with 1e-30.
	void init(LumbrelEffect<float> &effect);

	// [audio-thread, inside onSpectrum, after envelope.update] Gathers one frame
	// into both profiles. `seconds` is the epoch length: in the second half of
	// each epoch the profile in use slides towards the one being gathered, and
	// at its end the gathered one takes over. Nothing is learned during the
	// first four envelope periods after a reset. Quiet frames weigh more than
	// loud ones, and the average is taken over reciprocals, so each band's
	// profile leans to its quietest moments. Allocates nothing.
	void updateNoiseAuto(LumbrelEffect<float> &effect, float seconds);

	// [audio-thread, inside onSpectrum, after envelope.update] Cleans every
	// input channel: a power-subtraction gain times a soft gate that opens
	// `strength` squared above the profile (in envelope-over-noise ratio,
	// smoothed across bands). `mix` from 0 (dry) to 1 (all wet), on the curve
	// (2 - mix) x mix. The engine's input rows then point at outReal/outImag
	// until its next analysis. Allocates nothing.
	void subtract(LumbrelEffect<float> &effect, float strength, float mix);
};

} // namespace varkesh::lumbrel
