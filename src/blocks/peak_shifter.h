#pragma once
#include "blocks/lumbrel_effect.h"
#include "blocks/peaks.h"
#include "blocks/smoothed_gains.h"
#include "linear/platform_vector.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

// On the phase turn: without it GCC keeps the branches of its selects (a
// comparison may trap), and no lane runs. No result changes.
#if defined(__GNUC__) && !defined(__clang__)
#define LUMBREL_SELECTS __attribute__((optimize("no-trapping-math")))
#else
#define LUMBREL_SELECTS
#endif

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
	void place(LumbrelEffect<float> &effect, const Peaks<float> &peaks) { placeAll(effect, peaks, this, 1); }

	// [audio-thread, inside onSpectrum] place() on `count` shifters (at most
	// maxShared) over the same peaks, each with its own shift and history,
	// each with exactly the result it would get alone. What depends on the
	// peaks only (which peak owns which) is found once for all of them.
	static constexpr std::size_t maxShared = 4;
	static void placeAll(LumbrelEffect<float> &effect, const Peaks<float> &peaks, PeakShifter *shifters,
		std::size_t count) {
		assert(count <= maxShared);
		const std::size_t peakCount = peaks.peaks.size();
		for (std::size_t v = 0; v < count; ++v) {
			PeakShifter &shifter = shifters[v];
			const PitchMap map = shifter.pitchMap();
			float *peakShift = shifter.gains.magnitudes.data();
			float *peakGain = shifter.gains.weightedReal.data();
			for (std::size_t p = 0; p < peakCount; ++p) {
				const float hz = peaks.peaks[p].hz;
				peakShift[p] = map(hz) - hz;
				peakGain[p] = 1;
			}
			shifter.turnPhases(effect, peaks);
		}
		writeBands(peaks, shifters, count);
	}

	// [audio-thread, inside onSpectrum] updateWithPeakMap without the smoothing.
	template<class PeakMapFn>
	void placeWithPeakMap(LumbrelEffect<float> &effect, const Peaks<float> &peaks, PeakMapFn &&peakMapFn) {
		float *peakShift = gains.magnitudes.data();
		float *peakGain = gains.weightedReal.data();
		const std::size_t count = peaks.peaks.size();
		for (std::size_t p = 0; p < count; ++p) {
			const Peak<float> &peak = peaks.peaks[p];
			float newHz = peak.hz, gain = 1;
			peakMapFn(peak, newHz, gain);
			peakShift[p] = newHz - peak.hz;
			peakGain[p] = gain;
		}
		turnPhases(effect, peaks);
		writeBands(peaks, this, 1);
	}

	// sin and cos of a float angle, each rounded from a double-precision value
	// good to about 1e-14, so that it almost always equals the correctly
	// rounded float (as the library's sincosf gives; a rare case near a
	// rounding boundary differs by one ulp). Unlike that call it is inline and
	// branch-free, so that a loop over peaks runs in vector lanes. The angle is
	// reduced by k pi/2 with pi/2 in two parts, the first of 33 bits, so that
	// k times it is exact for |angle| below 1e6.
	LUMBREL_SELECTS static void sinCos(float angle, float &sine, float &cosine) {
		const double x = angle;
		const double round = 6755399441055744.0; // 1.5 * 2^52: adding and subtracting it rounds to an integer
		const double k = (x * 0.6366197723675814 + round) - round;
		const double r = (x - k * 1.5707963267341256) - k * 6.077100506506192e-11;
		const double r2 = r * r;
		const double s = r + r * r2 * (-0.16666666666666666 + r2 * (0.008333333333333333 +
			r2 * (-0.0001984126984126984 + r2 * (2.7557319223985893e-06 + r2 * (-2.505210838544172e-08 +
			r2 * 1.6059043836821613e-10)))));
		const double c = 1 + r2 * (-0.5 + r2 * (0.041666666666666664 + r2 * (-0.001388888888888889 +
			r2 * (2.48015873015873e-05 + r2 * (-2.755731922398589e-07 + r2 * (2.08767569878681e-09 +
			r2 * -1.1470745597729725e-11))))));
		// The quadrant, k modulo 4, as -2 to 2 (both 2 and -2 are the half turn).
		const double q = k - 4 * ((k * 0.25 + round) - round);
		const bool odd = q == 1 || q == -1;
		const double a = odd ? c : s, b = odd ? s : c;
		sine = float(q < 0 || q == 2 ? -a : a);
		cosine = float(q > 0 || q == -2 ? -b : b);
	}

private:
	// The unit phase of each peak's own partial: last frame's gain at the
	// peak's top (which lies inside the peak's own range, so it still holds
	// last frame's smoothed gain), turned by the extra phase the shift makes in
	// one frame. Only the phase survives; a gain that has died away (or was
	// never set) starts again from phase 0. Reads the shifts from `magnitudes`
	// and leaves the phases in outReal/outImag, per peak, until smooth() needs
	// these working rows.
	void turnPhases(LumbrelEffect<float> &effect, const Peaks<float> &peaks) {
		const std::size_t count = peaks.peaks.size();
		float *re = gains.outReal.data(), *im = gains.outImag.data();
		float *norm = gains.weightedImag.data(), *root = gains.weightedAbs.data();
		for (std::size_t p = 0; p < count; ++p) {
			const std::size_t top = peaks.peaks[p].peakIndex;
			re[p] = gains.gainsReal[top];
			im[p] = gains.gainsImag[top];
		}
		// Phase gained per Hz of shift in one frame.
		turn(re, im, norm, gains.magnitudes.data(), 6.2831855f / effect.subRate, count);
		linear::platform::sqrt(root, norm, count);
		normalise(re, im, norm, root, count);
	}

	LUMBREL_SELECTS static void turn(float *__restrict re, float *__restrict im, float *__restrict norm,
		const float *__restrict shift, float radiansPerHz, std::size_t count) {
		for (std::size_t p = 0; p < count; ++p) {
			float sine, cosine;
			sinCos(shift[p] * radiansPerHz, sine, cosine);
			const float a = re[p], b = im[p];
			const float turnedRe = a * cosine - b * sine, turnedIm = b * cosine + a * sine;
			re[p] = turnedRe;
			im[p] = turnedIm;
			norm[p] = turnedRe * turnedRe + turnedIm * turnedIm;
		}
	}

	// The selects as bit masks: GCC keeps a float select in a loop as a branch
	// (its comparison may trap) and runs no lane.
	static void normalise(float *__restrict re, float *__restrict im, const float *__restrict norm,
		const float *__restrict root, std::size_t count) {
		const float one = 1;
		std::uint32_t oneBits;
		std::memcpy(&oneBits, &one, 4);
		for (std::size_t p = 0; p < count; ++p) {
			// Where alive, the root is at least 1e-15 and divides unchanged.
			const float divisor = std::max(root[p], 1e-20f);
			const float unitRe = re[p] / divisor, unitIm = im[p] / divisor;
			const std::uint32_t alive = 0u - std::uint32_t(norm[p] >= 1e-30f);
			std::uint32_t reBits, imBits;
			std::memcpy(&reBits, &unitRe, 4);
			std::memcpy(&imBits, &unitIm, 4);
			reBits = (reBits & alive) | (oneBits & ~alive);
			imBits &= alive;
			std::memcpy(re + p, &reBits, 4);
			std::memcpy(im + p, &imBits, 4);
		}
	}

	// Each shifter's gain and frequency offset onto all bands of each peak.
	//
	// A peak whose measured frequency lies in a neighbouring peak at least
	// 10 dB stronger is no partial of its own: it is a side lobe of that
	// partial (the analysis spreads a sine over lobes 25-35 dB down, which the
	// peak walk cuts into peaks of their own). It moves with that peak: same
	// shift, same phase, so that the lobes keep their relation to the partial.
	// Turned by their own slightly different frequencies they would drift
	// against it without bound, which showed as level errors of up to 1 dB.
	static void writeBands(const Peaks<float> &peaks, PeakShifter *shifters, std::size_t count) {
		const float *bandHz = shifters[0].gains.nominalHz.data();
		const std::size_t peakCount = peaks.peaks.size();
		const float *peakReal[maxShared], *peakImag[maxShared], *peakShift[maxShared], *peakGain[maxShared];
		float *gainsReal[maxShared], *gainsImag[maxShared], *outHz[maxShared];
		for (std::size_t v = 0; v < count; ++v) {
			SmoothedGains<float> &gains = shifters[v].gains;
			peakReal[v] = gains.outReal.data();
			peakImag[v] = gains.outImag.data();
			peakShift[v] = gains.magnitudes.data();
			peakGain[v] = gains.weightedReal.data();
			gainsReal[v] = gains.gainsReal.data();
			gainsImag[v] = gains.gainsImag.data();
			outHz[v] = gains.hz.data();
		}
		for (std::size_t p = 0; p < peakCount; ++p) {
			const Peak<float> &peak = peaks.peaks[p];
			// The peak whose bands hold this one's frequency, from a band's
			// frequency up to the next band's.
			std::size_t owner = p;
			while (owner > 0 && peak.hz < bandHz[peaks.peaks[owner].start]) --owner;
			while (owner + 1 < peakCount && peak.hz >= bandHz[peaks.peaks[owner].end]) ++owner;
			// Only a much stronger peak: of two close partials of like level,
			// each reads the other's frequency at times, and keeps its own way.
			if (peaks.peaks[owner].energy < 10 * peak.energy) owner = p;
			for (std::size_t v = 0; v < count; ++v) {
				const float gain = peakGain[v][p];
				fillPeak(gainsReal[v], gainsImag[v], outHz[v], bandHz, peak.start, peak.end,
					peakReal[v][owner] * gain, peakImag[v][owner] * gain, peakShift[v][owner]);
			}
		}
	}

	static void fillPeak(float *__restrict gainsReal, float *__restrict gainsImag, float *__restrict outHz,
		const float *__restrict bandHz, std::size_t start, std::size_t end, float re, float im, float shift) {
		for (std::size_t k = start; k < end; ++k) {
			gainsReal[k] = re;
			gainsImag[k] = im;
			outHz[k] = bandHz[k] + shift;
		}
	}
};

} // namespace varkesh::lumbrel
