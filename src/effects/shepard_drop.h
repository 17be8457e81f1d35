#pragma once
// Shepard drop: a pitch shift that can keep moving without end. Four shifted
// copies of the input, an octave apart, are mixed with a bell-shaped weight
// around the unshifted pitch; a copy that moves out at one edge of the bell
// fades while another comes in at the other, so a shift by a whole octave
// sounds as no shift at all.
#include "blocks/lumbrel_effect.h"
#include "blocks/peak_shifter.h"
#include "blocks/peaks.h"
#include "effects/lumbrel_quorl.h"
#include "effects/within_range.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace varkesh::lumbrel {

template<class Sample>
class ShepardDrop;

// The shift control is followed in about 10 ms, always towards the octave
// copy of it nearest to where the voices are, and kept in [0, 12): a jump of
// the control by 12 or 24 semitones moves nothing. Each voice keeps its array
// index (and its phase history) for life; `slot` says which one is lowest.
// Movement widens the bell, so a fast glide is heard across more octaves, and
// the voices are normalised by power so that loudness stays put.
//
// The settings must lie within their parameters' ranges (the wrapper clamps
// them): overlap and period above 0, the shift within an octave or two.
template<>
class ShepardDrop<float> : public LumbrelEffect<float> {
public:
	using LumbrelEffect::LumbrelEffect;

	float octaveOverlap = 1; // the bell's width at rest is 0.5 * overlap + 0.5 octaves
	float sensitivity = 1; // octaves of width added by a glide of one octave per second
	float smoothTime = 1; // seconds over which movement widens and narrows the bell
	float semitones = 0; // the shift control
	Peaks<float> peaks; // one analysis for all four voices
	std::array<PeakShifter<float>, 4> voices; // each with its own smoothed gains
	std::uint8_t slot = 0; // the voice lowest in pitch
	float position = 0; // shift of voice (slot + 2) mod 4, in [0, 12) after each frame
	float previousPosition = 0;
	float movement = 1; // smoothed movement, octaves
	float width = 1; // smoothed width of the bell, octaves

	// [set-up, allocates] Sizes every row to `bands`.
	void init() {
		reserveScratch();
		peaks.init(*this);
		for (auto &voice : voices) voice.gains.init(*this);
	}

	// [audio-thread] Clears the engine and every voice's history, and puts the
	// voices at the control's present value with the bell at rest.
	void reset() {
		varkesh_lumbrel_engine_float_reset(engine);
		for (auto &voice : voices) {
			auto &gains = voice.gains;
			std::fill(gains.gainsReal.begin(), gains.gainsReal.end(), 1.0f);
			std::fill(gains.gainsImag.begin(), gains.gainsImag.end(), 0.0f);
			std::fill(gains.previousEnergy.begin(), gains.previousEnergy.end(), 0.0f);
		}
		position = previousPosition = semitones;
		movement = width = 0.5f * octaveOverlap + 0.5f;
		slot = 0;
	}

protected:
	void onSpectrum() override {
		const float frameRate = subRate;
		peaks.update(*this, false);

		// Follow the control towards its nearest octave copy (halves away from zero).
		const float octaves = std::round((position - semitones) / 12);
		position += (12 * octaves + semitones - position) / (0.01f * frameRate + 1);
		while (!(position >= 0)) {
			position += 12;
			slot = (slot + 1) & 3;
		}
		while (position >= 12) {
			position -= 12;
			slot = (slot + 3) & 3;
		}

		// An octave's wrap counts as the short step it sounds like.
		const float step = std::fabs(position - previousPosition);
		previousPosition = position;
		const float moved = std::min(step, 12 - step);

		const float period = smoothTime * frameRate;
		const float rest = 0.5f * octaveOverlap + 0.5f;
		const float target = (frameRate / 12) * sensitivity * moved + rest;
		movement += (1 - std::exp(-1 / period)) * (target - movement);
		width += (1 - std::exp(-3 / period)) * (std::min(movement, 2.0f) - width);

		std::array<float, 4> offsets, weights;
		offsets[slot] = position - 24;
		offsets[(slot + 1) & 3] = position - 12;
		offsets[(slot + 2) & 3] = position;
		offsets[(slot + 3) & 3] = position + 12;
		float power = 0;
		for (std::size_t i = 0; i < 4; ++i) {
			const float t = std::max(1 - (std::fabs(offsets[i]) / 12) / width, 0.0f);
			weights[i] = t * t * (2 - t);
			power += weights[i] * weights[i];
		}
		const float norm = 1 / std::sqrt(power + 1e-30f);

		// Silent voices run too, so that their phase is right when they come in.
		SmoothedGains<float> *sets[4];
		for (std::size_t i = 0; i < 4; ++i) {
			voices[i].semitones = offsets[i];
			sets[i] = &voices[i].gains;
		}
		PeakShifter<float>::placeAll(*this, peaks, voices.data(), 4);
		SmoothedGains<float>::smoothAll(*this, peaks.energy, false, sets, 4);
		for (std::size_t i = 0; i < 4; ++i) {
			PeakShifter<float> &voice = voices[i];
			const float gain = weights[i] * norm;
			if (gain == 0) continue; // adding zeros changes nothing
			for (std::size_t o = 0; o < channelsOut; ++o) {
				const std::size_t c = o % channelsIn;
				voice.gains.addOutput(*this, o, inputReal(c), inputImag(c), gain);
			}
		}
	}
};

namespace quorl {

template<class ParamRange, class ParamStepped>
struct ShepardConfig {
	ParamRange octaveOverlap{1};
	ParamRange sensitivity{1};
	ParamRange smoothTime{1};

	template<class Storage>
	void state(Storage &storage) {
		groupHeader(storage, "Shepard");
		storage.range("octaveOverlap", octaveOverlap).info("overlap").range(0.1, 2, 4).unit("oct.", 2);
		storage.range("sensitivity", sensitivity).info("sensitivity").range(0, 1, 10).unit("", 2);
		storage.range("smoothTime", smoothTime).info("period").range(0.1, 1, 10).unit("", 1);
	}
};

} // namespace quorl

template<class Base>
struct ShepardDropQUORL : quorl::LumbrelQUORL<Base, ShepardDrop<float>, ShepardDropQUORL<Base>> {
	using ParamRange = typename Base::ParamRange;
	using ParamStepped = typename Base::ParamStepped;

	quorl::ShepardConfig<ParamRange, ParamStepped> shepard;
	ParamRange semitones{0};

	template<class Storage>
	void state(Storage &storage) {
		quorl::groupHeader(storage, "Lumbrel (Bespoke Effect Example): Shepard Drop");
		storage("engineConfig", this->engineConfig);
		storage("shepard", shepard);
		storage.range("semitones", semitones).info("shift").range(-12, 0, 12).unit("s.t.", 2);
	}

	// Values reach the effect inside their declared ranges: the bell's width
	// and the followers' periods stay above 0, and the shift keeps the wrap to
	// a step or two.
	template<class Effect>
	void copyParams(Effect &fx) {
		using quorl::withinRange;
		fx.octaveOverlap = withinRange(shepard.octaveOverlap.value, 0.1, 4);
		fx.sensitivity = withinRange(shepard.sensitivity.value, 0, 10);
		fx.smoothTime = withinRange(shepard.smoothTime.value, 0.1, 10);
		fx.semitones = withinRange(semitones.value, -12, 12);
	}

	// The reset places the voices at the settings as they stand now, not at
	// whatever the effect last copied.
	template<class Effect>
	void resetEffect(Effect &fx) {
		copyParams(fx);
		fx.reset();
	}

	// The peak energy that all four voices share.
	template<class Effect>
	void refreshSpectrum(Effect &fx) {
		auto &row = this->spectrumRow(0);
		const std::size_t n = std::min(fx.bands, row.size());
		std::copy(fx.peaks.energy, fx.peaks.energy + n, row.begin());
	}
};

} // namespace varkesh::lumbrel
