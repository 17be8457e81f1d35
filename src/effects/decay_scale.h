#pragma once
// Decay scale: stretches or shortens how fast tonal sounds die away, while
// noisy parts pass. One gain curve, from all input channels, for all outputs.
#include "blocks/lumbrel_effect.h"
#include "blocks/smooth_bands.h"
#include "effects/lumbrel_quorl.h"
#include "engine/bump_allocator.h"

#include <algorithm>
#include <cmath>

namespace varkesh::lumbrel {

// Compares each band's tonal energy (what stands above a harmonic-mean floor)
// with a memory that falls by 20 dB in `rt20` seconds; the ratio, raised to a
// power set by `factor`, is the gain of the band's tonal share.
template<class Sample>
class DecayScale : public LumbrelEffect<float> {
public:
	using LumbrelEffect::LumbrelEffect;

	float smoothing = 2; // % of resolution
	float tonalLimit = 1.25f; // how far above the floor counts as tonal
	float rt20 = 15; // seconds for the reference decay to fall 20 dB
	float rangeDb = 30; // the memory sits at most this far above the present
	float factor = 0.5f; // 1 leaves decays alone; below 1 lengthens, above shortens
	BumpVector<float> energy, tonal, history, inverse, fraction, gains, outReal, outImag;

	void init() {
		reserveScratch();
		for (auto *v : {&energy, &tonal, &history, &inverse, &fraction, &gains, &outReal, &outImag}) v->assign(bands, 0.0f);
	}

	void reset() {
		varkesh_lumbrel_engine_float_reset(engine);
		std::fill(history.begin(), history.end(), 0.0f);
	}

protected:
	void onSpectrum() override {
		const std::size_t n = bands;
		float *e = energy.data(), *t = tonal.data(), *h = history.data(), *inv = inverse.data(), *frac = fraction.data(),
			  *g = gains.data();
		std::fill(e, e + n, 0.0f);
		for (std::size_t c = 0; c < channelsIn; ++c) {
			const float *re = inputReal(c), *im = inputImag(c);
			for (std::size_t b = 0; b < n; ++b) e[b] += re[b] * re[b] + im[b] * im[b];
		}

		// The floor under the peaks: smoothing the reciprocal makes a harmonic
		// mean, which follows the valleys and ignores the peaks.
		std::copy(e, e + n, inv);
		const float s = 0.01f * resolution * smoothing;
		if (s > 1e-18f) {
			for (std::size_t b = 0; b < n; ++b) inv[b] = 1 / (inv[b] + 1e-30f);
			smoothBands(inv, n, s);
			for (std::size_t b = 0; b < n; ++b) inv[b] = 1 / (inv[b] + 1e-30f);
		}
		for (std::size_t b = 0; b < n; ++b) {
			inv[b] *= tonalLimit;
			t[b] = std::max(e[b] - inv[b], 0.0f);
			frac[b] = t[b] / (e[b] + 1e-30f);
		}
		if (s > 1e-18f) spreadPeaks(t, n, 1 / (s + 1));

		const float decay = std::exp2(-6.643856f / (subRate * rt20)); // 20 dB in rt20 seconds
		const float range = std::pow(10.0f, 0.1f * rangeDb);
		const float exponent = 0.5f * factor - 0.5f;
		for (std::size_t b = 0; b < n; ++b) {
			h[b] = std::min(std::max(h[b] * decay, t[b]), t[b] * range);
			const float gain = std::pow((t[b] + 1e-30f) / (h[b] + 1e-30f), exponent);
			g[b] = frac[b] * gain + 1 - frac[b];
		}

		for (std::size_t o = 0; o < channelsOut; ++o) {
			const std::size_t c = o % channelsIn;
			const float *re = inputReal(c), *im = inputImag(c);
			for (std::size_t b = 0; b < n; ++b) {
				outReal[b] = re[b] * g[b];
				outImag[b] = im[b] * g[b];
			}
			varkesh_lumbrel_engine_float_addOutputSplit(engine, o, outReal.data(), outImag.data());
		}
	}

private:
	// The two passes of smoothBands, but never below the value itself: peaks
	// keep their height and spread into their neighbours.
	static void spreadPeaks(float *x, std::size_t n, float a) {
		float y = x[n - 1];
		for (std::size_t b = n - 1; b-- > 1;) {
			y = std::max(x[b], a * x[b] + (1 - a) * y);
			x[b] = y;
		}
		for (std::size_t b = 0; b < n; ++b) {
			y = std::max(x[b], a * x[b] + (1 - a) * y);
			x[b] = y;
		}
	}
};

namespace quorl {

template<class ParamRange, class ParamStepped>
struct DecayConfig {
	ParamRange smoothing{2};
	ParamRange tonalLimit{1.25};
	ParamRange rt20{15};
	ParamRange rangeDb{30};
	ParamRange factor{0.5};

	template<class Storage>
	void state(Storage &storage) {
		groupHeader(storage, "Decay");
		storage.range("smoothing", smoothing).info("smoothing").range(1, 2, 5).unit("%", 1);
		storage.range("tonalLimit", tonalLimit).info("tonality").range(1, 2, 4).unit("", 2);
		storage.range("rt20", rt20).info("RT20 (peak)").range(1, 10, 30).unit("sec", 1);
		storage.range("rangeDb", rangeDb).info("range").range(10, 30, 60).unit("dB", 1);
		storage.range("factor", factor).info("rate").range(0, 1, 4).unit("", 2);
	}
};

} // namespace quorl

template<class Base>
struct DecayScaleQUORL : quorl::LumbrelQUORL<Base, DecayScale<float>, DecayScaleQUORL<Base>> {
	quorl::DecayConfig<typename Base::ParamRange, typename Base::ParamStepped> decay;

	template<class Storage>
	void state(Storage &storage) {
		quorl::groupHeader(storage, "Lumbrel (Bespoke Effect Example): Decay Scale");
		storage("engineConfig", this->engineConfig);
		storage("decay", decay);
	}

	// Values reach the effect inside their declared ranges: an RT20 of 0 or a
	// huge range or rate makes the gains overflow.
	template<class Effect>
	void copyParams(Effect &fx) {
		fx.smoothing = float(quorl::withinRange(decay.smoothing.value, 1, 5));
		fx.tonalLimit = float(quorl::withinRange(decay.tonalLimit.value, 1, 4));
		fx.rt20 = float(quorl::withinRange(decay.rt20.value, 1, 30));
		fx.rangeDb = float(quorl::withinRange(decay.rangeDb.value, 10, 60));
		fx.factor = float(quorl::withinRange(decay.factor.value, 0, 4));
	}

	// Energy, its tonal part, and the decaying memory of it.
	template<class Effect>
	void refreshSpectrum(Effect &fx) {
		this->spectrumRow(0).assign(fx.energy.begin(), fx.energy.end());
		this->spectrumRow(1).assign(fx.tonal.begin(), fx.tonal.end());
		this->spectrumRow(2).assign(fx.history.begin(), fx.history.end());
	}
};

} // namespace varkesh::lumbrel
