#pragma once
#include "blocks/lumbrel_effect.h"
#include "engine/bump_allocator.h"

#include <cstddef>

namespace varkesh::lumbrel {

// One spectral peak: a run of bands around one local maximum of energy, which
// later stages move as a whole.
template<typename Sample>
struct Peak {
	std::size_t start;     // first band
	std::size_t end;       // one past the last band
	std::size_t peakIndex; // band of the local energy maximum, start <= peakIndex < end
	Sample energy;         // sum of the energy curve over [start, end)
	Sample hz;             // energy-weighted mean frequency, Hz
};

template<typename Sample>
class Peaks;

// Per frame: one energy curve and one frequency curve from all input channels,
// smoothed across bands, and the whole band range cut into consecutive peaks.
//
// After update():
// - peaks[0].start is 0, each peak's end is the next one's start, the last end
//   is `bands`, and every peak holds at least one band;
// - `energy` points at energyBuffer and `hz` at hzBuffer: each band's frequency
//   from the phase step since the last frame of its value smoothed with its
//   neighbours' over 0.35 of an analysis bin (not the analysis' frequency
//   row, which trails a glide by its memory); a band with no history reads its
//   own frequency.
//
// An owner's reset() zeroes energyBuffer and the peak list; update() keeps
// only the last frame's band values across frames.
template<>
class Peaks<float> {
public:
	float smoothing = 1; // width of the band smoothing, percent of `resolution`
	const float *energy = nullptr;
	const float *hz = nullptr;
	BumpVector<Peak<float>> peaks; // this frame's peaks, in rising band order
	BumpVector<float> energyBuffer;
	BumpVector<float> hzBuffer; // the frequency curve when it has to be computed
	BumpVector<float> nominalHz, rotateReal, rotateImag; // each band's own frequency and its step per frame
	BumpVector<float> previousReal, previousImag;        // last frame's band values, channel after channel
	BumpVector<float> stepReal, stepImag;                // working rows: phase step summed over channels
	BumpVector<float> nearReal, nearImag;                // working rows: two channels' band values, smoothed backwards
	BumpVector<float> nearWeight; // per band, the weight of its own value in that smoothing

	// [set-up, allocates] Sizes the buffers to `bands` and reserves the peak
	// list at bands/2 + 1, which no frame can exceed: two tops never touch.
	void init(LumbrelEffect<float> &effect);

	// [audio-thread, inside onSpectrum] The frame update. With `smoothHz` the
	// frequency curve is smoothed with the energy, weighted by it, so that a
	// strong partial pulls its neighbours' frequency toward its own. Allocates
	// nothing.
	void update(LumbrelEffect<float> &effect, bool smoothHz);

	// [audio-thread] The peak walk alone, over `energy` and `hz` as they stand,
	// for `bands` bands (at least 1). update() ends with it.
	//
	// Each peak climbs to its top (of a flat top, the last band) and descends
	// until the curve rises strictly. The valley band goes to the side whose
	// neighbour has more energy: right if the right one is strictly higher, left
	// on a tie, and always left while the band after the valley is below 3.
	void walk(std::size_t bands);
};

} // namespace varkesh::lumbrel
