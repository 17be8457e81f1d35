#pragma once
#include "blocks/lumbrel_effect.h"
#include "blocks/peaks.h"
#include "blocks/smoothed_gains.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace varkesh::lumbrel {

template<typename Sample>
class PeakShifter;

// Moves each spectral peak to a new frequency and keeps its phase running
// coherently across frames. A peak is moved by adding one offset in Hz to all
// its bands, not by scaling them, so that its shape travels intact. Its
// complex gain is last frame's gain at the peak's top, rotated by the extra
// phase the frequency change makes in one frame and set to the peak's new
// magnitude; `gains.smooth` then removes the steps between peaks.
//
// Four levels, each a thin layer on the next; the function objects run once per
// peak per frame, inline, and must not allocate:
//   update(effect, peaks)                    the pitch map, gain 1
//   update(effect, peaks, gainFn)            float gainFn(float fromHz, float toHz)
//   updateWithMap(effect, peaks, mapFn)      void mapFn(float hz, float &newHz, float &gain)
//   updateWithPeakMap(effect, peaks, fn)     void fn(const Peak<float> &, float &newHz, float &gain)
// `gain` enters each function as 1.
//
// Set-up is gains.init(effect), from the owner's init(). An owner's reset()
// sets the gains to 1 + 0j; a fresh, zeroed gain also restarts at phase 0.
template<>
class PeakShifter<float> {
public:
	float semitones = 0;
	float tonalityLimit = 1e8f; // Hz from which the shift fades out; the default shifts everything
	SmoothedGains<float> gains;

	// Frequency map of a shift by `semitones`: the full ratio below `low`,
	// nothing above `high`, and a straight line in Hz between, so that the map
	// is continuous and monotonic. The fade never starts below 15 kHz.
	struct PitchMap {
		float ratio, low, high, slope;

		PitchMap(float semitones, float tonalityLimit) {
			ratio = std::exp2(semitones * 0.083333336f);
			low = tonalityLimit / std::sqrt(ratio);
			high = std::max(tonalityLimit * std::max(ratio, 1 / ratio) + tonalityLimit, 15000.0f);
			slope = 1 / (high - low);
		}

		float operator()(float hz) const {
			if (hz < low) return hz * ratio;
			if (hz > high) return hz;
			return (hz - low) * (high - low * ratio) * slope + low * ratio;
		}
	};

	PitchMap pitchMap() const { return PitchMap(semitones, tonalityLimit); }

	// [audio-thread, inside onSpectrum] Shift by the pitch map, gain 1.
	void update(LumbrelEffect<float> &effect, const Peaks<float> &peaks) {
		update(effect, peaks, [](float, float) { return 1.0f; });
	}

	// [audio-thread, inside onSpectrum] Shift by the pitch map, with the gain
	// gainFn(fromHz, toHz) per peak.
	template<class GainFn>
	void update(LumbrelEffect<float> &effect, const Peaks<float> &peaks, GainFn &&gainFn) {
		const PitchMap map = pitchMap();
		updateWithMap(effect, peaks, [&map, &gainFn](float hz, float &newHz, float &gain) {
			newHz = map(hz);
			gain = gainFn(hz, newHz);
		});
	}

	// [audio-thread, inside onSpectrum] Any map of a peak's mean frequency.
	template<class MapFn>
	void updateWithMap(LumbrelEffect<float> &effect, const Peaks<float> &peaks, MapFn &&mapFn) {
		updateWithPeakMap(effect, peaks, [&mapFn](const Peak<float> &peak, float &newHz, float &gain) {
			mapFn(peak.hz, newHz, gain);
		});
	}

	// [audio-thread, inside onSpectrum] Any map that may look at the whole peak;
	// writes one gain and one frequency offset to all bands of each peak, then
	// smooths the gains. Allocates nothing.
	template<class PeakMapFn>
	void updateWithPeakMap(LumbrelEffect<float> &effect, const Peaks<float> &peaks, PeakMapFn &&peakMapFn) {
		placeWithPeakMap(effect, peaks, peakMapFn);
		gains.smooth(effect, peaks.energy, false);
	}

	// [audio-thread, inside onSpectrum] update(effect, peaks) without the
	// smoothing, for owners that smooth several shifters at once with
	// SmoothedGains::smoothAll(effect, peaks.energy, false, ...).
	void place(LumbrelEffect<float> &effect, const Peaks<float> &peaks) {
		const PitchMap map = pitchMap();
		placeWithPeakMap(effect, peaks, [&map](const Peak<float> &peak, float &newHz, float &) {
			newHz = map(peak.hz);
		});
	}

	// [audio-thread, inside onSpectrum] updateWithPeakMap without the smoothing.
	//
	// A peak whose measured frequency lies in a neighbouring peak at least
	// 10 dB stronger is no partial of its own: it is a side lobe of that
	// partial (the analysis spreads a sine over lobes 25-35 dB down, which the
	// peak walk cuts into peaks of their own). It moves with that peak: same
	// shift, same phase, so that the lobes keep their relation to the partial.
	// Turned by their own slightly different frequencies they would drift
	// against it without bound, which showed as level errors of up to 1 dB.
	template<class PeakMapFn>
	void placeWithPeakMap(LumbrelEffect<float> &effect, const Peaks<float> &peaks, PeakMapFn &&peakMapFn) {
		float *gainsReal = gains.gainsReal.data();
		float *gainsImag = gains.gainsImag.data();
		float *outHz = gains.hz.data();
		const float *bandHz = gains.nominalHz.data();
		// Phase gained per Hz of shift in one frame.
		const float radiansPerHz = 6.2831855f / effect.subRate;
		// Per peak, until smooth() needs these working rows: the unit phase
		// and the shift of its own partial, and its gain.
		float *peakReal = gains.outReal.data();
		float *peakImag = gains.outImag.data();
		float *peakShift = gains.magnitudes.data();
		float *peakGain = gains.weightedReal.data();
		const std::size_t count = peaks.peaks.size();

		for (std::size_t p = 0; p < count; ++p) {
			const Peak<float> &peak = peaks.peaks[p];
			float newHz = peak.hz, gain = 1;
			peakMapFn(peak, newHz, gain);
			const float shift = newHz - peak.hz;
			const float theta = shift * radiansPerHz;

			// The top lies inside the peak's own range, so it still holds last
			// frame's smoothed gain.
			const float a = gainsReal[peak.peakIndex], b = gainsImag[peak.peakIndex];
			const float cosTheta = std::cos(theta), sinTheta = std::sin(theta);
			float re = a * cosTheta - b * sinTheta;
			float im = b * cosTheta + a * sinTheta;
			// Only the phase survives; a gain that has died away (or was never
			// set) starts again from phase 0.
			const float norm = re * re + im * im;
			if (norm >= 1e-30f) {
				const float root = std::sqrt(norm);
				re = re / root;
				im = im / root;
			} else {
				re = 1;
				im = 0;
			}
			peakReal[p] = re;
			peakImag[p] = im;
			peakShift[p] = shift;
			peakGain[p] = gain;
		}

		for (std::size_t p = 0; p < count; ++p) {
			const Peak<float> &peak = peaks.peaks[p];
			// The peak whose bands hold this one's frequency, from a band's
			// frequency up to the next band's.
			std::size_t owner = p;
			while (owner > 0 && peak.hz < bandHz[peaks.peaks[owner].start]) --owner;
			while (owner + 1 < count && peak.hz >= bandHz[peaks.peaks[owner].end]) ++owner;
			// Only a much stronger peak: of two close partials of like level,
			// each reads the other's frequency at times, and keeps its own way.
			if (peaks.peaks[owner].energy < 10 * peak.energy) owner = p;
			const float re = peakReal[owner] * peakGain[p], im = peakImag[owner] * peakGain[p];
			const float shift = peakShift[owner];
			for (std::size_t k = peak.start; k < peak.end; ++k) {
				gainsReal[k] = re;
				gainsImag[k] = im;
				outHz[k] = bandHz[k] + shift;
			}
		}
	}
};

} // namespace varkesh::lumbrel
