#pragma once
// Detune chorus: three pitch-shifted voices, each a whole peak-shifted copy of
// the input whose shift follows a slow sine, the three a third of a cycle
// apart. Output channels take the voices at different levels and from rotated
// input channels, so that the sound spreads across channels.
#include "blocks/lumbrel_effect.h"
#include "blocks/peak_shifter.h"
#include "blocks/peaks.h"
#include "effects/lumbrel_quorl.h"
#include "engine/bump_allocator.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>

namespace varkesh::lumbrel {

// `voiceCount` is the number of voices; the phase offsets and the level table
// are those of three.
template<class Sample, int voiceCount>
class ChorusDetune : public LumbrelEffect<float> {
	static_assert(voiceCount == 3, "the spread of voices over channels is laid out for three");

public:
	using LumbrelEffect::LumbrelEffect;

	float mix = 0.8f; // wet amount; above 1 the dry part turns negative
	float detune = 5; // depth, cents
	float spin = 1; // oscillator rate, Hz
	float width = 0.8f; // kept for the page and saved state; no sound reads it
	bool crisp = false; // pull phase hard toward zero on transients
	Peaks<float> peaks;
	float phase = 0; // oscillator phase, 0 up to 1
	std::array<PeakShifter<float>, voiceCount> voices;
	BumpVector<float> dryReal, dryImag; // work space of the dry path

	// [set-up, allocates] Each voice shifts the whole spectrum (no tonality
	// limit) with unsmoothed gains and no detail boost.
	void init() {
		peaks.init(*this);
		for (PeakShifter<float> &voice : voices) {
			voice.gains.init(*this);
			voice.tonalityLimit = 1e10f;
			voice.gains.phaseSmoothing = 0;
			voice.gains.transientReset = 0;
			voice.gains.detailBoost = 0;
		}
		dryReal.assign(bands, 0.0f);
		dryImag.assign(bands, 0.0f);
	}

	// [audio-thread] The engine, unit gains with no energy history, and the
	// oscillator back at the start of its cycle.
	void reset() {
		varkesh_lumbrel_engine_float_reset(engine);
		for (PeakShifter<float> &voice : voices) {
			std::fill(voice.gains.gainsReal.begin(), voice.gains.gainsReal.end(), 1.0f);
			std::fill(voice.gains.gainsImag.begin(), voice.gains.gainsImag.end(), 0.0f);
			std::fill(voice.gains.previousEnergy.begin(), voice.gains.previousEnergy.end(), 0.0f);
		}
		phase = 0;
	}

protected:
	void onSpectrum() override {
		const std::size_t outs = channelsOut, ins = channelsIn;
		peaks.update(*this, true);

		phase += spin / subRate;
		phase -= std::floor(phase);
		// A bent cycle: slower at its start, ending at 2 pi with no jump at the wrap.
		const float x = (0.8f + 0.2f * phase) * phase * 6.2831855f;
		const float base = mix * 0.57735026f * (2 - mix); // 1/sqrt(3) per voice

		static constexpr float offsets[3] = {0, 2.0943952f, 4.1887903f};
		SmoothedGains<float> *sets[voiceCount];
		for (int v = 0; v < voiceCount; ++v) {
			PeakShifter<float> &voice = voices[std::size_t(v)];
			voice.semitones = std::sin(x + offsets[v]) * 0.01f * detune; // cents to semitones
			voice.gains.transientReset = crisp ? 4.0f : 0.0f;
			sets[v] = &voice.gains;
		}
		PeakShifter<float>::placeAll(*this, peaks, voices.data(), voiceCount);
		SmoothedGains<float>::smoothAll(*this, peaks.energy, false, sets, voiceCount);
		for (int v = 0; v < voiceCount; ++v) {
			PeakShifter<float> &voice = voices[std::size_t(v)];
			for (std::size_t o = 0; o < outs; ++o) {
				const std::size_t i = (o + std::size_t(v)) % ins;
				float gain = base;
				if (v == 0) gain = base * (1 - float(o % outs) / float(outs));
				if (v == 2) gain = base * (1 + float((o + 2) % outs) / float(outs));
				voice.gains.addOutput(*this, o, inputReal(i), inputImag(i), gain);
			}
		}

		const float dry = 1 - 0.5f * mix * mix * (3 - mix);
		float *dr = dryReal.data(), *di = dryImag.data();
		// An output with no input of its own has no dry part.
		for (std::size_t o = 0; o < outs && o < ins; ++o) {
			const float *inR = inputReal(o), *inI = inputImag(o);
			for (std::size_t b = 0; b < bands; ++b) {
				dr[b] = inR[b] * dry;
				di[b] = inI[b] * dry;
			}
			varkesh_lumbrel_engine_float_addOutputSplit(engine, o, dr, di);
		}
	}
};

namespace quorl {

template<class ParamRange, class ParamStepped>
struct ChorusDetuneConfig {
	ParamRange mix{0.8};
	ParamRange detune{8};
	ParamRange spin{1};
	ParamRange width{1};
	ParamStepped crisp{0};

	template<class Storage>
	void state(Storage &storage) {
		groupHeader(storage, "Chorus");
		storage.range("mix", mix).info("mix").range(0, 0.8, 1.5).unit("", 2);
		storage.range("detune", detune).info("detune").range(1, 10, 50).unit("cents", 0);
		storage.range("spin", spin).info("spin").range(0.1, 1, 10).unit("Hz", 1);
		storage.range("width", width).info("width").range(0, 0.8, 1.5).unit("", 2);
		storage.stepped("crisp", crisp).info("mode").labelsFrom(0).label("smooth", "crisp");
	}
};

} // namespace quorl

template<class Base>
struct ChorusDetuneQUORL : quorl::LumbrelQUORL<Base, ChorusDetune<float, 3>, ChorusDetuneQUORL<Base>> {
	using EffectWithPublic =
		typename quorl::LumbrelQUORL<Base, ChorusDetune<float, 3>, ChorusDetuneQUORL<Base>>::EffectWithPublic;

	quorl::ChorusDetuneConfig<typename Base::ParamRange, typename Base::ParamStepped> chorusConfig;

	template<class Storage>
	void state(Storage &storage) {
		quorl::groupHeader(storage, "Lumbrel: Chorus (Pitch-Shifter)");
		storage("engineConfig", this->engineConfig);
		storage("chorusConfig", chorusConfig);
	}

	// [audio-thread] Host values arrive unclamped; each is held to its
	// control's range, since a runaway rate or depth would turn the
	// oscillator's phase or a voice's frequency into infinity.
	void copyParams(EffectWithPublic &fx) {
		fx.mix = float(quorl::withinRange(chorusConfig.mix.value, 0, 1.5));
		fx.detune = float(quorl::withinRange(chorusConfig.detune.value, 1, 50));
		fx.spin = float(quorl::withinRange(chorusConfig.spin.value, 0.1, 10));
		fx.width = float(chorusConfig.width.value);
		fx.crisp = chorusConfig.crisp.value == 1;
	}

	// The peak energy curve only.
	void refreshSpectrum(EffectWithPublic &fx) {
		this->spectrumRow(0).assign(fx.peaks.energy, fx.peaks.energy + fx.bands);
	}

private:
	// `value` held to [low, high]; NaN goes to `low`.
};

} // namespace varkesh::lumbrel
