#pragma once
#include "blocks/lumbrel_effect.h"
#include "blocks/spectrum.h"
#include "effects/parameter_groups.h"
#include "effects/within_range.h"
#include "engine/engine.h"
#include "frame/library_config.h"

#include <cstddef>
#include <cstring>
#include <memory>
#include <vector>

namespace varkesh::lumbrel::quorl {

// What every effect wrapper shares: the engine settings, the effect object
// that they build, and the spectrum the page plots. `Effect` is the plain DSP
// class; `Derived` is the wrapper, which provides
//   template<class Storage> void state(Storage &);
//   void copyParams(EffectWithPublic &);  parameter values into the effect's fields
// and may provide
//   bool wantsMono() const;  the effect reads input 0 only and feeds every output
//   void resetEffect(EffectWithPublic &);  instead of the effect's reset()
//   void refreshSpectrum(EffectWithPublic &);  the rows the page plots
//   void processEffect(EffectWithPublic &, inputs, outputs, length);
template<class Base, class Effect, class Derived>
struct LumbrelQUORL : Base {
	using ParamRange = typename Base::ParamRange;
	using ParamStepped = typename Base::ParamStepped;

	// Gives the wrapper the effect's protected members.
	struct EffectWithPublic : Effect {
		using Effect::Effect;
		~EffectWithPublic() override = default;
	};

	EngineConfig<ParamRange, ParamStepped> engineConfig;
	// The settings the current effect was built with.
	LumbrelConfig engineCache = varkesh_lumbrel_config_default();
	Spectrum analysisSpectrum;
	std::unique_ptr<EffectWithPublic> effect;

	// The effect, built or rebuilt when the engine settings (or the channel
	// layout) differ from the ones it was made with. A rebuild allocates, on
	// the audio thread when it follows a user's change of an engine setting.
	EffectWithPublic &getEffect(const ::quorl::LibraryConfig &config) {
		std::size_t channelsIn = config.inputChannels, channelsOut = config.outputChannels;
		if (derived().wantsMono()) channelsIn = channelsOut = 1;
		if (effect && config.inputChannels >= 2 && effect->channelsIn != channelsIn) effect.reset();

		// Hosts and saved states may hand any number to these parameters. The
		// engine is built only within the ranges the parameters declare (NaN
		// at the low end): a latency of -100 ms or 2^31 refinement rounds would
		// make no engine, or one that never finishes a block.
		const double latencyMs = withinRange(engineConfig.latencyMs.value, 2, 15);
		const double overlap = withinRange(engineConfig.overlap.value, 3, 6);
		const double intervalMs = overlap > 0 ? latencyMs / overlap : latencyMs * 0.25;
		const double resolution = withinRange(engineConfig.resolution.value, 5, 40);
		const double emphasis = withinRange(engineConfig.emphasis.value, 0, 24);
		const int iterationsLog2 = engineConfig.iterationsLog2.value < 0 ? 0 : (engineConfig.iterationsLog2.value > 3 ? 3 : engineConfig.iterationsLog2.value);
		const std::uint64_t iterations = std::uint64_t(1) << iterationsLog2;
		const bool direct = engineConfig.directCopy.value == 1;
		if (effect && engineCache.latencyMs == latencyMs && engineCache.intervalMs == intervalMs
			&& engineCache.resolution == resolution && engineCache.emphasis == emphasis
			&& engineCache.iterations == iterations && engineCache.directCopy == direct) {
			return *effect;
		}

		engineCache.latencyMs = latencyMs;
		engineCache.intervalMs = intervalMs;
		engineCache.resolution = resolution;
		engineCache.resolutionReference = resolution > 20 ? resolution : (resolution > 10 ? 20 : 2 * resolution);
		engineCache.emphasis = emphasis;
		engineCache.iterations = iterations;
		engineCache.directCopy = direct;

		// The old engine lives until the new one exists.
		std::unique_ptr<EffectWithPublic> fresh(
			new EffectWithPublic(channelsIn, channelsOut, float(config.sampleRate), engineCache, nullptr));
		effect.swap(fresh);
		fresh.reset();
		effect->init();

		analysisSpectrum.energy.clear();
		analysisSpectrum.hz.resize(effect->bands);
		for (std::size_t b = 0; b < effect->bands; ++b) analysisSpectrum.hz[b] = effect->nominalHz(b);
		analysisSpectrum.hzChanged = true;
		return *effect;
	}

	// [main-thread] The frame's configure(): a fresh effect for the config.
	void configureQUORL(::quorl::LibraryConfig &config) {
		effect.reset();
		getEffect(config);
	}

	// Clears the effect's history; nothing to do before there is an effect.
	void reset() {
		if (effect) derived().resetEffect(*effect);
	}

	// The engine's latency, or 0 before the first build.
	std::size_t latencySamples() const {
		return effect ? varkesh_lumbrel_engine_float_latencySamples(effect->engine) : 0;
	}

	// [audio-thread] One block: build if needed, copy parameters, run, fill
	// outputs the effect doesn't make, and publish the spectrum if asked.
	void processQUORL(const ::quorl::LibraryConfig &config, const float *const *inputs, float *const *outputs,
		std::size_t length, bool spectrumDue) {
		EffectWithPublic &fx = getEffect(config);
		derived().copyParams(fx);
		derived().processEffect(fx, inputs, outputs, length);
		// A mono effect feeds every host output, cycling through its own.
		for (std::size_t o = fx.channelsOut; o < config.outputChannels; ++o) {
			std::memcpy(outputs[o], outputs[o % fx.channelsOut], length * sizeof(float));
		}
		if (spectrumDue) derived().refreshSpectrum(fx);
	}

	// The page's spectrum, when the dirty set names it.
	template<class Storage>
	void uiState(Storage &storage) {
		storage("analysisSpectrum", analysisSpectrum);
	}
	// [audio-thread] The page starts afresh: the band frequencies go out again.
	void uiStateRestart() { analysisSpectrum.hzChanged = true; }

	// Defaults for what a wrapper may provide.
	bool wantsMono() const { return false; }
	void resetEffect(EffectWithPublic &fx) { fx.reset(); }
	void processEffect(EffectWithPublic &fx, const float *const *inputs, float *const *outputs, std::size_t length) {
		fx.process(inputs, outputs, length);
	}
	void refreshSpectrum(EffectWithPublic &) {}

protected:
	// Row `row` of the published spectrum, made on first use.
	std::vector<float> &spectrumRow(std::size_t row) {
		auto &energy = analysisSpectrum.energy;
		while (energy.size() <= row) energy.emplace_back(analysisSpectrum.hz.size(), 0.0f);
		return energy[row];
	}

private:
	Derived &derived() { return static_cast<Derived &>(*this); }
	const Derived &derived() const { return static_cast<const Derived &>(*this); }
};

} // namespace varkesh::lumbrel::quorl
