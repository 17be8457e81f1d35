#pragma once
#include "blocks/lumbrel_effect.h"
#include "engine/bump_allocator.h"

#include <cstddef>

namespace varkesh::lumbrel {

template<typename Sample>
class SmoothedGains;

// One complex gain and one output frequency per band. The owner writes raw
// gains (flat steps, one value per peak) and frequencies; smooth() turns them
// into the gains that are applied: it detects new energy per band, pulls the
// phase toward zero and boosts level where it arrives, smooths the gains across
// bands in the complex plane weighted by energy (so that neighbouring peaks do
// not cancel at their border), and restores the level that disagreeing phases
// lose in smoothing. The result stays in gainsReal/gainsImag as next frame's
// phase history.
//
// Between frames only hz, the gains and previousEnergy matter; the other rows
// are working space. There is no reset member: an owner's reset() sets
// gainsReal to 1, gainsImag to 0 and previousEnergy to 0.
template<>
class SmoothedGains<float> {
public:
	// Settings, read at each smooth(); the owner sets them before the frame.
	float phaseSmoothing = 1;     // width of the gain smoothing, percent of `resolution`
	float transientReset = 1;     // how far a transient pulls phase toward zero
	float lowCutHz = 120;         // transients fade out below this; read once by init()
	float detailBoost = 0.8f;     // level restore where phases disagree; negative cuts (-0.95 to 0.95)
	float transientSmoothing = 1; // energy smoothing before transient detection, units of `resolution`
	float transientBoost = 0;     // extra level on transients

	BumpVector<float> hz;                   // output frequency per band, Hz
	BumpVector<float> nominalHz;            // each band's own frequency, Hz, fixed by init
	BumpVector<float> gainsReal, gainsImag; // the complex gain per band
	BumpVector<float> outReal;              // working row; addOutput's real output
	BumpVector<float> outImag;              // working row; addOutput's imaginary output
	BumpVector<float> magnitudes;           // target magnitude per band
	BumpVector<float> previousEnergy;       // last frame's faded energy: the transient reference
	BumpVector<float> weightedReal, weightedImag;
	BumpVector<float> weightedAbs;
	float lowCutBands = 0; // band position of lowCutHz

	// [set-up, allocates] Sizes every row to `bands`, fills hz with the nominal
	// band frequencies, and places lowCutHz on the band axis.
	void init(LumbrelEffect<float> &effect);

	// [audio-thread, inside onSpectrum] The frame update over `bands` values of
	// `energy` (the peak energy curve). `unitGains` promises that every raw gain
	// has magnitude 1, so that it need not be measured. Silence (all-zero
	// energy) gives exactly zero gains. Allocates nothing.
	void smooth(LumbrelEffect<float> &effect, const float *energy, bool unitGains);

	// [audio-thread, inside onSpectrum] smooth() on `count` independent gain
	// sets with the same energy, each with exactly the result it would get
	// alone; their band smoothing runs side by side, which is much faster than
	// one set after another. Allocates nothing.
	static void smoothAll(LumbrelEffect<float> &effect, const float *energy, bool unitGains,
		SmoothedGains *const *sets, std::size_t count);

	// [audio-thread, inside onSpectrum] out = in x gain per band, scaled by
	// `gain` unless it is exactly 1, added to output `channel` at the
	// frequencies of hz. Leaves the result in outReal/outImag. At a gain of
	// exactly 0 it does nothing at all.
	void addOutput(LumbrelEffect<float> &effect, std::size_t channel, const float *inReal, const float *inImag,
		float gain = 1);

private:
	// The steps of smooth() between its band smoothings; see smoothAll.
	void fadeEnergy(const float *energy, bool unitGains);
	void weigh(const float *energy, bool unitGains);
	void restore();
	bool magnitudeKnown = false; // between weigh() and restore()
};

} // namespace varkesh::lumbrel
