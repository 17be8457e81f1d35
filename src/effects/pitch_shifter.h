#pragma once
// Pitch shifter: moves every spectral peak by a whole number of semitones (up
// to two octaves either way), fading the shift out above the tonality limit,
// and can keep the spectral envelope in place while the partials move under it.
#include "blocks/lumbrel_effect.h"
#include "blocks/peak_shifter.h"
#include "blocks/peaks.h"
#include "blocks/timbre.h"
#include "effects/within_range.h"
#include "effects/lumbrel_quorl.h"
#include "linear/platform_vector.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>

namespace varkesh::lumbrel {

template<class Sample>
class PitchShifter;

// One analysis, one shifter, one set of gains for every output channel: output
// o takes input o modulo channelsIn through the shared gains.
//
// Timbre correction compares the envelope at a peak's old and new frequency.
// The envelope used is the square root of Timbre's amplitude envelope, so the
// squared ratio of the two is an amplitude ratio: a partial that moves from a
// strong region into a weak one is turned down by as much as the envelope falls.
template<>
class PitchShifter<float> : public LumbrelEffect<float> {
public:
	using LumbrelEffect::LumbrelEffect;

	float timbreCorrection = 0; // 0 moves the envelope with the partials; towards 1 it stays put
	Peaks<float> peaks;
	PeakShifter<float> shifter;
	Timbre<float> timbre;

	// [set-up, allocates] Sizes every row to `bands`.
	void init() {
		reserveScratch();
		peaks.init(*this);
		shifter.gains.init(*this);
		timbre.init(*this);
	}

	// [audio-thread] Clears the engine and every history: gains back to 1 + 0j,
	// so that the next frame starts from phase 0.
	void reset() {
		varkesh_lumbrel_engine_float_reset(engine);
		std::fill(peaks.peaks.begin(), peaks.peaks.end(), Peak<float>{});
		std::fill(peaks.energyBuffer.begin(), peaks.energyBuffer.end(), 0.0f);
		auto &gains = shifter.gains;
		std::fill(gains.gainsReal.begin(), gains.gainsReal.end(), 1.0f);
		std::fill(gains.gainsImag.begin(), gains.gainsImag.end(), 0.0f);
		std::fill(gains.previousEnergy.begin(), gains.previousEnergy.end(), 0.0f);
		std::fill(timbre.hold.begin(), timbre.hold.end(), 0.0f);
		std::fill(timbre.envelope.begin(), timbre.envelope.end(), 0.0f);
	}

protected:
	void onSpectrum() override {
		peaks.update(*this, true);
		if (timbreCorrection > 0) {
			timbre.update(*this, peaks.energy, false);
			float *envelope = timbre.envelope.data();
			// The fourth root of energy: its squared ratio is an amplitude ratio.
			linear::platform::sqrt(envelope, envelope, bands);
			const float c = timbreCorrection * 0.99f;
			shifter.update(*this, peaks, [this, envelope, c](float fromHz, float toHz) {
				const float t0 = envelope[std::size_t(nominalBand(fromHz))];
				const float t1 = envelope[std::size_t(nominalBand(toHz))];
				const float ratio = t1 / (c * (t0 - t1) + t1 + 1e-30f);
				return ratio * ratio;
			});
		} else {
			shifter.update(*this, peaks);
		}
		for (std::size_t o = 0; o < channelsOut; ++o) {
			const std::size_t i = o % channelsIn;
			shifter.gains.addOutput(*this, o, inputReal(i), inputImag(i));
		}
	}
};

template<class Base>
struct PitchShifterQUORL : quorl::LumbrelQUORL<Base, PitchShifter<float>, PitchShifterQUORL<Base>> {
	using ParamRange = typename Base::ParamRange;
	using ParamStepped = typename Base::ParamStepped;

	ParamStepped channelMode{1}; // 0: input 0 alone feeds every output; 1: each channel its own
	quorl::PeaksConfig<ParamRange, ParamStepped> peaksConfig;
	quorl::SmoothedGainsConfig<ParamRange, ParamStepped> gainsConfig;
	quorl::PeakShifterConfig<ParamRange, ParamStepped> peakShifterConfig;
	quorl::TimbreConfig<ParamRange, ParamStepped> timbreConfig;
	ParamRange timbreCorrection{0};

	template<class Storage>
	void state(Storage &storage) {
		quorl::groupHeader(storage, "Lumbrel: Pitch Shifter");
		storage("engineConfig", this->engineConfig);
		storage.stepped("channelMode", channelMode).info("channels").labelsFrom(0).label("mono", "full");
		storage("peaksConfig", peaksConfig);
		storage("gainsConfig", gainsConfig);
		storage("peakShifterConfig", peakShifterConfig);
		storage("timbreConfig", timbreConfig);
		storage.range("timbreCorrection", timbreCorrection).info("timbre").range(0, 0.5, 0.95).unit("", 2);
	}

	bool wantsMono() const { return channelMode.value == 0; }

	// Values reach the effect inside their declared ranges.
	template<class Effect>
	void copyParams(Effect &fx) {
		using quorl::withinRange;
		fx.peaks.smoothing = withinRange(peaksConfig.smoothing.value, 0, 10);
		auto &gains = fx.shifter.gains;
		gainsConfig.copyTo(gains);
		const int semitones = std::clamp(int(peakShifterConfig.semitones.value), -24, 24);
		fx.shifter.semitones = float(semitones);
		fx.shifter.tonalityLimit = withinRange(peakShifterConfig.tonalityLimit.value, 4000, 24000);
		// No transient boost without a shift: at 0 semitones transients pass as they are.
		if (std::abs(semitones) < 1) gains.transientBoost *= float(std::abs(semitones));
		fx.timbre.smoothing = withinRange(timbreConfig.smoothing.value, 0, 2);
		fx.timbreCorrection = withinRange(timbreCorrection.value, 0, 0.95);
	}

	// Row 0: the peak energy; row 1: the same after the gains, before any move.
	template<class Effect>
	void refreshSpectrum(Effect &fx) {
		const std::size_t n = std::min(fx.bands, this->analysisSpectrum.hz.size());
		const float *energy = fx.peaks.energy;
		const float *re = fx.shifter.gains.gainsReal.data(), *im = fx.shifter.gains.gainsImag.data();
		float *output = this->spectrumRow(1).data(); // makes row 0 too
		float *input = this->spectrumRow(0).data();
		for (std::size_t b = 0; b < n; ++b) {
			input[b] = energy[b];
			output[b] = energy[b] * (re[b] * re[b] + im[b] * im[b]);
		}
	}
};

} // namespace varkesh::lumbrel
