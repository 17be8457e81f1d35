#pragma once
#include "blocks/lumbrel_effect.h"
#include "engine/bump_allocator.h"

#include <cstddef>

namespace varkesh::lumbrel {

template<typename Sample>
class Timbre;

// The spectral envelope of one frame: a curve that rides over the peaks of the
// energy curve and follows its overall shape but not the single partials.
// Each band casts a slope that falls by e^2 per W bands to both sides (W =
// resolution x smoothing), which bridges the gaps between partials; what is
// left is rounded off in the amplitude domain at 0.71 W.
//
// No memory across frames. The owner sizes both rows to `bands` (init() does
// it) and zeroes them in its reset().
template<>
class Timbre<float> {
public:
	float smoothing = 1; // envelope width, units of `resolution`; 0 gives sqrt(energy + 1e-30)
	BumpVector<float> envelope;
	BumpVector<float> hold; // working row of the peak-hold passes

	// [set-up, allocates] Sizes both rows to `bands`.
	void init(LumbrelEffect<float> &effect);

	// [audio-thread] Computes `envelope` from `bands` values of `energy`: in
	// amplitude units (the square root of energy), or squared back into energy
	// units with `asEnergy`. Allocates nothing.
	void update(LumbrelEffect<float> &effect, const float *energy, bool asEnergy);
};

} // namespace varkesh::lumbrel
