#pragma once
#include "blocks/lumbrel_effect.h"
#include "engine/bump_allocator.h"

namespace varkesh::lumbrel {

// `variant` is part of the type's name only: false is the one form there is.
template<typename Sample, bool variant = false>
class Envelope;

// Follows the energy of each band of each input channel, one value per band per
// frame: two one-pole stages in series whose rate adapts to the input. At low
// input they fall with the time constant `periodMs`; where energy jumps far above
// the envelope, the rate approaches 1, so a new sound is followed within a frame
// or two and the attack survives. There is no separate attack setting.
//
// Energy is re^2 + im^2 of the engine's input rows, optionally smoothed across
// bands first. The result is `envelope`, never below `floor`.
//
// No reset of its own: the owner's reset() zeroes `envelope` and `stage`.
template<>
class Envelope<float, false> {
public:
	float smoothing = 1;   // across-band smoothing width, units of the effect's `resolution`; 0 for none
	float periodMs = 20;   // time constant at low input, ms
	float floor = 1e-30f;  // lowest value an envelope takes, in energy units
	BumpVector<BumpVector<float>> envelope; // channelsIn x bands: the result
	BumpVector<BumpVector<float>> stage;    // channelsIn x bands: the first of the two poles
	BumpVector<float> energy;               // working row, bands
	BumpVector<float> rate;                 // working row, bands

	// [set-up, allocates] Sizes `envelope` and `stage` to channelsIn rows of
	// `bands`, and the working rows to `bands`. New values are zero; values
	// already there are kept.
	void init(LumbrelEffect<float> &effect);

	// [audio-thread, inside onSpectrum] One frame from the engine's input rows.
	// Nothing happens without input channels. Allocates nothing.
	void update(LumbrelEffect<float> &effect);
};

} // namespace varkesh::lumbrel
