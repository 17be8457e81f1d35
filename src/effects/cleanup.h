#pragma once
// Cleanup: removes steady noise. The user teaches it a noise print, or lets it
// follow the noise by itself; a control sets how hard it cleans.
#include "blocks/lumbrel_effect.h"
#include "blocks/noise_removal.h"
#include "effects/lumbrel_quorl.h"
#include "effects/within_range.h"

#include <algorithm>
#include <cstddef>

namespace varkesh::lumbrel {

// Runs SimpleNoiseRemoval over every input channel. While `learn` is set the
// print gathers: by the noise removal's own epochs when `adaptive`, otherwise
// as the loudest each band has been since the print began (no decay, so a loud
// passage learned this way silences itself). The sound is cleaned with the
// print so far in every mode. The print lives here only: a rebuild forgets it,
// a reset keeps it.
template<class Sample>
class CleanupDraft2 : public LumbrelEffect<float> {
public:
	using LumbrelEffect::LumbrelEffect;

	bool learn = false; // the print gathers this frame
	bool adaptive = true; // gathers by updateNoiseAuto rather than by the running maximum
	float cleanup = 1; // strength: the gate opens cleanup^2 above the print
	float mix = 1; // 0 dry to 1 wet
	SimpleNoiseRemoval<float> noiseRemoval;

	// [set-up, allocates] A fast, unsmoothed envelope, and a blank print.
	void init() {
		reserveScratch();
		noiseRemoval.envelope.smoothing = 0;
		noiseRemoval.envelope.periodMs = 10;
		noiseRemoval.envelope.floor = 1e-30f;
		noiseRemoval.init(*this);
	}

	// [audio-thread] Clears the engine and the envelope; the print and its
	// weights survive.
	void reset() {
		varkesh_lumbrel_engine_float_reset(engine);
		auto &envelope = noiseRemoval.envelope;
		for (auto *rows : {&envelope.envelope, &envelope.stage}) {
			for (auto &row : *rows) std::fill(row.begin(), row.end(), 0.0f);
		}
		noiseRemoval.warmup = 0;
	}

	// [audio-thread] Forgets the print: the next frames that learn start a
	// new one. Allocates nothing.
	void beginPrint() {
		auto &nr = noiseRemoval;
		nr.epochAge = nr.noiseWeight = nr.noiseNextWeight = 0;
		for (auto *rows : {&nr.noise, &nr.noiseNext}) {
			for (auto &row : *rows) std::fill(row.begin(), row.end(), 1e-30f);
		}
	}

protected:
	void onSpectrum() override {
		auto &nr = noiseRemoval;
		nr.envelope.update(*this);
		if (channelsIn == 0) return;
		const std::size_t n = bands;

		if (learn) {
			if (adaptive) {
				nr.updateNoiseAuto(*this, 10); // epochs of 10 seconds
			} else {
				for (std::size_t c = 0; c < channelsIn; ++c) {
					const float *__restrict e = nr.envelope.envelope[c].data();
					float *__restrict now = nr.noise[c].data();
					float *__restrict next = nr.noiseNext[c].data();
					for (std::size_t b = 0; b < n; ++b) now[b] = std::max(now[b], e[b]);
					for (std::size_t b = 0; b < n; ++b) next[b] = std::max(next[b], e[b]);
				}
			}
		}

		// The engine's input rows are the cleaned ones from here on.
		nr.subtract(*this, cleanup, mix);
		for (std::size_t o = 0; o < channelsOut; ++o) {
			const std::size_t c = o % channelsIn;
			varkesh_lumbrel_engine_float_addOutputSplit(engine, o, inputReal(c), inputImag(c));
		}
	}
};

template<class Base>
struct CleanupDraft2QUORL : quorl::LumbrelQUORL<Base, CleanupDraft2<float>, CleanupDraft2QUORL<Base>> {
	using ParamRange = typename Base::ParamRange;
	using ParamStepped = typename Base::ParamStepped;

	// 0 "noise": learn a print from what plays; 1 "static": hold it and clean
	// with it; 2 "adaptive": follow the noise.
	ParamStepped nrMode{1};
	ParamRange nrCleanup{1};
	ParamRange nrMix{0.8};

	template<class Storage>
	void state(Storage &storage) {
		quorl::groupHeader(storage, "Lumbrel (WIP): Cleanup");
		storage("engineConfig", this->engineConfig);
		storage.stepped("nrMode", nrMode).info("mode").labelsFrom(0).label("noise", "static", "adaptive");
		storage.range("nrCleanup", nrCleanup).info("cleanup").range(0, 1, 3).unit("", 2);
		storage.range("nrMix", nrMix).info("mix").range(0, 0.5, 1).unit("", 2);
	}

	// [audio-thread] Entering "noise" mode from any other starts a new print;
	// "adaptive" carries on from whatever print there is. Ranged values go in
	// inside their declared ranges: a mix below 0 would amplify without bound.
	template<class Effect>
	void copyParams(Effect &fx) {
		const int mode = nrMode.value;
		if (mode == 0 && previousMode != 0) fx.beginPrint();
		previousMode = mode;
		fx.learn = mode != 1;
		fx.adaptive = mode == 2;
		fx.cleanup = float(quorl::withinRange(nrCleanup.value, 0, 3));
		fx.mix = float(quorl::withinRange(nrMix.value, 0, 1));
	}

	// The cleaned output, the print, and the energy before cleaning, from
	// channel 0.
	template<class Effect>
	void refreshSpectrum(Effect &fx) {
		// Make the last row first: adding rows may move the earlier ones.
		auto &before = this->spectrumRow(2);
		auto &print = this->spectrumRow(1);
		auto &cleaned = this->spectrumRow(0);
		if (fx.channelsIn == 0) {
			for (auto *row : {&cleaned, &print, &before}) std::fill(row->begin(), row->end(), 0.0f);
			return;
		}
		// The engine's rows outlive onSpectrum() until its next analysis, but a
		// freshly rebuilt engine has none before its first one.
		const float *re = fx.inputReal(0), *im = fx.inputImag(0);
		if (re && im) {
			for (std::size_t b = 0; b < cleaned.size(); ++b) cleaned[b] = re[b] * re[b] + im[b] * im[b];
		} else {
			std::fill(cleaned.begin(), cleaned.end(), 0.0f);
		}
		const auto &noise = fx.noiseRemoval.noise[0];
		std::copy(noise.begin(), noise.begin() + std::ptrdiff_t(print.size()), print.begin());
		const auto &envelope = fx.noiseRemoval.envelope.envelope[0];
		std::copy(envelope.begin(), envelope.begin() + std::ptrdiff_t(before.size()), before.begin());
	}

private:
	int previousMode = 1;
};

} // namespace varkesh::lumbrel
