#pragma once
// Transients: a per-band transient shaper. Each band's amplitude is split into
// attack, body and sustain, and each part gets a gain of its own.
#include "blocks/envelope.h"
#include "blocks/lumbrel_effect.h"
#include "effects/envelope_config.h"
#include "effects/lumbrel_quorl.h"
#include "effects/within_range.h"
#include "engine/bump_allocator.h"
#include "linear/platform_vector.h"

#include <algorithm>
#include <array>

namespace varkesh::lumbrel {

// Splits the amplitude of each band (the square root of its envelope) with a
// chain of `stageCount` two-pole time lowpasses, each fed by the one before and
// never above its input. With amps >= slow[0] >= slow[1], the parts are
//   attack  = amps - slow[0]      (gain stages[0].gain)
//   body    = slow[0] - slow[1]   (gain stages[1].gain)
//   sustain = slow[1]             (gain `sustain`)
// and they add up to amps, so the band's gain is a weighted mean of the three
// gains, 1 to float precision when all are 1. Gains are real: phases are kept.
// Channels are handled each for itself.
template<class Sample, int stageCount>
class Transients : public LumbrelEffect<float> {
	static_assert(stageCount >= 1);

public:
	using LumbrelEffect::LumbrelEffect;

	struct Stage {
		float periodMs = 10; // time constant of both poles, ms
		float gain = 1; // gain of what this stage takes away from its input
	};

	float sustain = 1; // gain of what the last stage lets through
	std::array<Stage, stageCount> stages{};
	Envelope<float, false> envelope;
	BumpVector<BumpVector<float>> amps; // channelsIn x bands: band amplitude this frame
	std::array<BumpVector<BumpVector<float>>, stageCount> fast, slow; // per stage: channelsIn x bands
	BumpVector<float> inverse, temp, gains, outReal, outImag; // working rows, bands

	// [set-up, allocates] Stage periods from 10 ms, each three times the last
	// (10 and 30 ms for two stages); every row sized and zeroed.
	void init() {
		reserveScratch();
		envelope.init(*this);
		float periodMs = 10;
		for (auto &stage : stages) {
			stage.periodMs = periodMs;
			periodMs *= 3;
		}
		amps.resize(channelsIn);
		for (auto &row : amps) row.assign(bands, 0.0f);
		for (int s = 0; s < stageCount; ++s) {
			for (auto *rows : {&fast[s], &slow[s]}) {
				rows->resize(channelsIn);
				for (auto &row : *rows) row.assign(bands, 0.0f);
			}
		}
		for (auto *v : {&inverse, &temp, &gains, &outReal, &outImag}) v->assign(bands, 0.0f);
	}

	// [audio-thread] Clears the engine, the envelope and every stage. `amps`
	// is left: each frame rewrites it.
	void reset() {
		varkesh_lumbrel_engine_float_reset(engine);
		for (auto *rows : {&envelope.envelope, &envelope.stage}) {
			for (auto &row : *rows) std::fill(row.begin(), row.end(), 0.0f);
		}
		for (int s = 0; s < stageCount; ++s) {
			for (auto *rows : {&fast[s], &slow[s]}) {
				for (auto &row : *rows) std::fill(row.begin(), row.end(), 0.0f);
			}
		}
	}

protected:
	void onSpectrum() override {
		envelope.update(*this);
		if (channelsIn == 0) return;
		const std::size_t n = bands;

		// The envelope's floor (1e-30) keeps amps at 1e-15 or above.
		for (std::size_t c = 0; c < channelsIn; ++c) {
			linear::platform::sqrt(amps[c].data(), envelope.envelope[c].data(), n);
		}

		for (int s = 0; s < stageCount; ++s) {
			const float k = 1 / (stages[s].periodMs * 0.001f * subRate + 1);
			for (std::size_t c = 0; c < channelsIn; ++c) {
				const float *__restrict x = stageInput(s, c);
				float *__restrict f = fast[s][c].data();
				float *__restrict y = slow[s][c].data();
				for (std::size_t b = 0; b < n; ++b) {
					f[b] += k * (x[b] - f[b]);
					y[b] += k * (f[b] - y[b]);
				}
				// Clamps in passes of their own, which GCC vectorises. The upper
				// one keeps the stages ordered: the split never goes negative.
				for (std::size_t b = 0; b < n; ++b) y[b] = std::max(y[b], 0.0f);
				for (std::size_t b = 0; b < n; ++b) y[b] = std::min(y[b], x[b]);
			}
		}

		float *__restrict inv = inverse.data();
		float *__restrict part = temp.data();
		float *__restrict g = gains.data();
		float *__restrict outRe = outReal.data();
		float *__restrict outIm = outImag.data();
		for (std::size_t c = 0; c < channelsIn; ++c) {
			const float *__restrict a = amps[c].data();
			const float *__restrict last = slow[stageCount - 1][c].data();
			for (std::size_t b = 0; b < n; ++b) inv[b] = 1 / a[b];
			const float sustainGain = sustain;
			for (std::size_t b = 0; b < n; ++b) g[b] = sustainGain * last[b] * inv[b];
			for (int s = 0; s < stageCount; ++s) {
				const float *__restrict x = stageInput(s, c);
				const float *__restrict y = slow[s][c].data();
				const float stageGain = stages[s].gain;
				for (std::size_t b = 0; b < n; ++b) part[b] = x[b] - y[b];
				for (std::size_t b = 0; b < n; ++b) g[b] += stageGain * part[b] * inv[b];
			}
			const float *__restrict re = inputReal(c);
			const float *__restrict im = inputImag(c);
			for (std::size_t b = 0; b < n; ++b) {
				outRe[b] = re[b] * g[b];
				outIm[b] = im[b] * g[b];
			}
			varkesh_lumbrel_engine_float_addOutputSplit(engine, c, outRe, outIm);
		}
	}

private:
	// What stage `s` of channel `c` follows: the amplitude, or the stage before.
	const float *stageInput(int s, std::size_t c) const { return s == 0 ? amps[c].data() : slow[s - 1][c].data(); }
};

namespace quorl {

// The three gains of the transient shaper. All at 1 leave the sound as it is.
template<class ParamRange, class ParamStepped>
struct TransientGains {
	ParamRange attack{1};
	ParamRange body{1};
	ParamRange sustain{1};

	template<class Storage>
	void state(Storage &storage) {
		groupHeader(storage, "Gains");
		storage.range("attack", attack).info("attack").range(0, 1, 4).unit("", 2);
		storage.range("body", body).info("body").range(0, 1, 4).unit("", 2);
		storage.range("sustain", sustain).info("sustain").range(0, 1, 4).unit("", 2);
	}
};

} // namespace quorl

template<class Base>
struct TransientsQUORL : quorl::LumbrelQUORL<Base, Transients<float, 2>, TransientsQUORL<Base>> {
	using ParamRange = typename Base::ParamRange;
	using ParamStepped = typename Base::ParamStepped;

	quorl::EnvelopeConfig<ParamRange, ParamStepped> envelopeConfig;
	quorl::TransientGains<ParamRange, ParamStepped> gains;

	// A finer spectrum smoothing than the group's own default; set before the
	// parameters are scanned, so the host and the page see it as the default.
	TransientsQUORL() { envelopeConfig.smoothing = 0.25; }

	template<class Storage>
	void state(Storage &storage) {
		quorl::groupHeader(storage, "Lumbrel3: Transients");
		storage("engineConfig", this->engineConfig);
		storage("envelopeConfig", envelopeConfig);
		storage("gains", gains);
	}

	// Values reach the effect inside the ranges the controls declare: a gain
	// at the pole of its position curve would be infinite, and a negative
	// period would make the envelope unstable.
	template<class Effect>
	void copyParams(Effect &fx) {
		fx.envelope.smoothing = float(quorl::withinRange(envelopeConfig.smoothing.value, 0, 4));
		fx.envelope.periodMs = float(quorl::withinRange(envelopeConfig.periodMs.value, 5, 120));
		fx.stages[0].gain = float(quorl::withinRange(gains.attack.value, 0, 4));
		fx.stages[1].gain = float(quorl::withinRange(gains.body.value, 0, 4));
		fx.sustain = float(quorl::withinRange(gains.sustain.value, 0, 4));
	}

	// Channel 0's amplitude and the two stages, as energies.
	template<class Effect>
	void refreshSpectrum(Effect &fx) {
		if (fx.channelsIn == 0) return;
		const float *rows[3] = {fx.amps[0].data(), fx.slow[0][0].data(), fx.slow[1][0].data()};
		for (std::size_t line = 0; line < 3; ++line) {
			auto &energy = this->spectrumRow(line);
			const float *x = rows[line];
			for (std::size_t b = 0; b < energy.size(); ++b) energy[b] = x[b] * x[b];
		}
	}
};

} // namespace varkesh::lumbrel
