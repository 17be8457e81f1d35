#pragma once
// Swell: an automatic per-band fade-in. A sound that starts in a band is held
// back and rises over the set time, so notes swell up instead of striking.
#include "blocks/lumbrel_effect.h"
#include "blocks/smooth_bands.h"
#include "effects/lumbrel_quorl.h"
#include "engine/bump_allocator.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace varkesh::lumbrel {

// Follows each band's energy through three chains of `layerCount` one-pole
// filters: `rising` follows the energy, `capped` follows it but never above it
// (so it lags at an onset), and `tail` follows `capped`. The gain squared is
// capped/energy (the swell) times rising/tail (making up what the swell held
// back), limited by autoGain.
template<class Sample, int layerCount>
class Swell : public LumbrelEffect<float> {
public:
	using LumbrelEffect::LumbrelEffect;

	float time = 0.25f; // seconds
	float sweep = 0; // >0 makes high bands slower and low bands faster
	float autoGain = 20; // dB, the most the makeup may add
	float focus = 0.3f; // how much of the neighbourhood's energy is taken away
	float smoothing = 0.1f; // across-band smoothing of the energy, in units of resolution

	struct Layer {
		BumpVector<float> rising, tail, capped;
	};
	BumpVector<std::array<Layer, layerCount>> layers; // per input channel
	BumpVector<float> energy, gains, rates, bandScale;
	float ratesPerFrame = -1, ratesSweep = 0; // what `rates` were made for; none yet

	void init() {
		reserveScratch();
		for (auto *v : {&energy, &gains, &rates, &bandScale}) v->assign(bands, 0.0f);
		ratesPerFrame = -1;
		layers.resize(channelsIn);
		for (auto &channel : layers) {
			for (auto &layer : channel) {
				for (auto *v : {&layer.rising, &layer.tail, &layer.capped}) v->assign(bands, 1e-30f);
			}
		}
		// Frequency to a scale from about -1.1 at the bottom, through 0 at some
		// hundreds of Hz, to about 1.6 at the top.
		for (std::size_t b = 0; b < bands; ++b) {
			const float f = nominalHz(b);
			bandScale[b] = (1.5338548f * f + 28.96142f) / (0.5528328f * f + 1176.7571f) - 1.161384f;
		}
	}

	void reset() {
		varkesh_lumbrel_engine_float_reset(engine);
		for (auto &channel : layers) {
			for (auto &layer : channel) {
				for (auto *v : {&layer.rising, &layer.tail, &layer.capped}) std::fill(v->begin(), v->end(), 1e-30f);
			}
		}
	}

protected:
	void onSpectrum() override {
		const std::size_t n = bands;
		float *rate = rates.data();
		// Three poles in series: each gets a third of the time's square.
		const float perFrame = subRate * time * 0.57735026f;
		// The rates change only with the time and the sweep.
		if (!(perFrame == ratesPerFrame && sweep == ratesSweep)) {
			ratesPerFrame = perFrame;
			ratesSweep = sweep;
			for (std::size_t b = 0; b < n; ++b) {
				float r = (bandScale[b] - 0.25f * std::fabs(sweep)) * sweep;
				r = std::exp(r) * perFrame;
				rate[b] = 1 / (r + 1);
			}
		}
		const float floorRatio = std::pow(10.0f, -0.1f * autoGain);
		float *e = energy.data(), *g = gains.data();

		for (std::size_t c = 0; c < channelsIn; ++c) {
			auto &layer = layers[c];
			const float *re = inputReal(c), *im = inputImag(c);
			for (std::size_t b = 0; b < n; ++b) e[b] = re[b] * re[b] + im[b] * im[b] + 1e-30f;
			smoothBands(e, n, smoothing * resolution);

			const float *x = e;
			for (auto &l : layer) {
				float *y = l.rising.data();
				for (std::size_t b = 0; b < n; ++b) y[b] += rate[b] * (x[b] - y[b]);
				x = y;
			}
			x = e;
			for (auto &l : layer) {
				float *y = l.capped.data();
				for (std::size_t b = 0; b < n; ++b) y[b] = std::min(y[b] + rate[b] * (x[b] - y[b]), x[b]);
				x = y;
			}
			x = layer[layerCount - 1].capped.data();
			for (auto &l : layer) {
				float *y = l.tail.data();
				for (std::size_t b = 0; b < n; ++b) y[b] += rate[b] * (x[b] - y[b]);
				x = y;
			}
			float *tail = layer[layerCount - 1].tail.data();
			const float *rising = layer[layerCount - 1].rising.data(), *capped = layer[layerCount - 1].capped.data();
			for (std::size_t b = 0; b < n; ++b) tail[b] = std::max(tail[b], floorRatio * rising[b]);

			// How much each band stands out above its neighbours.
			std::copy(e, e + n, g);
			smoothBands(g, n, 0.25f * resolution);
			for (std::size_t b = 0; b < n; ++b) {
				float gain = (e[b] - focus * g[b]) / e[b];
				gain = std::max(gain, 1e-30f);
				gain *= capped[b] / e[b];
				gain *= rising[b] / tail[b];
				const float amplitude = std::sqrt(gain);
				g[b] = amplitude * im[b];
				e[b] = amplitude * re[b];
			}
			varkesh_lumbrel_engine_float_addOutputSplit(engine, c % channelsOut, e, g);
		}
	}
};

namespace quorl {

template<class ParamRange, class ParamStepped>
struct SwellConfig {
	ParamRange time{0.25};
	ParamRange sweep{0};
	ParamRange focus{0.5};
	ParamRange autoGain{12};

	template<class Storage>
	void state(Storage &storage) {
		groupHeader(storage, "Swell");
		storage.range("time", time).info("time").range(0.05, 0.5, 2).unit("sec", 2);
		storage.range("sweep", sweep).info("sweep").range(-2, 0, 2).unit("", 2);
		storage.range("focus", focus).info("focus").range(0, 1, 2).unit("", 2);
		storage.range("autoGain", autoGain).info("auto-gain").range(0, 12, 48).unit("dB", 1);
	}
};

} // namespace quorl

template<class Base>
struct SwellQUORL : quorl::LumbrelQUORL<Base, Swell<float, 3>, SwellQUORL<Base>> {
	quorl::SwellConfig<typename Base::ParamRange, typename Base::ParamStepped> swell;

	template<class Storage>
	void state(Storage &storage) {
		quorl::groupHeader(storage, "Lumbrel: Swell");
		storage("engineConfig", this->engineConfig);
		storage("swell", swell);
	}

	// Values reach the effect inside their declared ranges: a time of 0 or
	// less, or a huge sweep, takes the filters' rates out of (0, 1].
	template<class Effect>
	void copyParams(Effect &fx) {
		fx.time = float(quorl::withinRange(swell.time.value, 0.05, 2));
		fx.sweep = float(quorl::withinRange(swell.sweep.value, -2, 2));
		fx.autoGain = float(quorl::withinRange(swell.autoGain.value, 0, 48));
		fx.focus = float(quorl::withinRange(swell.focus.value, 0, 2));
	}

	// Input energy of channel 0, and its rising, capped and tail curves.
	template<class Effect>
	void refreshSpectrum(Effect &fx) {
		auto &input = this->spectrumRow(0);
		const float *re = fx.inputReal(0), *im = fx.inputImag(0);
		// A rebuilt engine has no input rows until its first analysis.
		for (std::size_t b = 0; b < input.size(); ++b) input[b] = re && im ? re[b] * re[b] + im[b] * im[b] : 0.0f;
		const auto &layer = fx.layers[0][2];
		this->spectrumRow(1).assign(layer.rising.begin(), layer.rising.end());
		this->spectrumRow(2).assign(layer.capped.begin(), layer.capped.end());
		this->spectrumRow(3).assign(layer.tail.begin(), layer.tail.end());
	}
};

} // namespace varkesh::lumbrel
