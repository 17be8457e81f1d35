#pragma once
// Octaver: up to four copies of the input, one and two octaves down and up,
// each at its own level, mixed with the dry signal. "sweep" slides all four
// together from the input's pitch to their full octave distance.
#include "blocks/lumbrel_effect.h"
#include "blocks/peak_shifter.h"
#include "blocks/peaks.h"
#include "effects/within_range.h"
#include "effects/lumbrel_quorl.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

namespace varkesh::lumbrel {

template<class Sample>
class Octaver;

// One peak analysis feeds four shifters (-2, -1, +1, +2 octaves), each with its
// own phase history; every copy is shifted and added, even at gain 0.
//
// The dry path is mixed in after the engine, sample by sample, from the block's
// input as it comes: it is not delayed to match the engine's latency. The wet
// and dry gains glide to their targets with a 10 ms one-pole, and the wet share
// falls to 0 as the sweep nears 0, so that a copy at the input's own pitch never
// beats against the dry signal.
template<>
class Octaver<float> : public LumbrelEffect<float> {
public:
	using LumbrelEffect::LumbrelEffect;

	float gainD2 = 0, gainD1 = 0, gainU1 = 1, gainU2 = 0; // levels of the copies at -2, -1, +1, +2 octaves
	float mix = 0.5f; // wet amount, 0 to 1
	float sweep = 1; // 1 is the full octave distance, 0 none
	Peaks<float> peaks;
	std::array<PeakShifter<float>, 4> shifters; // -2, -1, +1, +2 octaves
	std::pair<float, float> mixGains{0, 0}; // running wet and dry gains; a reset leaves them
	static constexpr std::size_t chunk = 64;
	BumpVector<float> dryInput; // one chunk of each input channel, taken before the engine writes
	BumpVector<const float *> inputRows;
	BumpVector<float *> outputRows;

	// [set-up, allocates] Sizes every row to `bands`.
	void init() {
		reserveScratch();
		dryInput.assign(channelsIn * chunk, 0.0f);
		inputRows.assign(channelsIn, nullptr);
		outputRows.assign(channelsOut, nullptr);
		peaks.init(*this);
		for (auto &shifter : shifters) shifter.gains.init(*this);
	}

	// [audio-thread] Clears the engine and the shifters' phase histories.
	void reset() {
		varkesh_lumbrel_engine_float_reset(engine);
		for (auto &shifter : shifters) {
			auto &gains = shifter.gains;
			std::fill(gains.gainsReal.begin(), gains.gainsReal.end(), 1.0f);
			std::fill(gains.gainsImag.begin(), gains.gainsImag.end(), 0.0f);
			std::fill(gains.previousEnergy.begin(), gains.previousEnergy.end(), 0.0f);
		}
	}

	// [audio-thread] The engine's wet output, then the dry input mixed in over
	// the channels that both sides have. Takes the place of the base's process.
	// Works in chunks whose dry input is copied before the engine runs, since a
	// host may hand the same buffers as input and output.
	void process(const float *const *inputs, float *const *outputs, std::size_t length) {
		const float k = 1 / (sampleRate * 0.01f + 1);
		const float m = std::min(sweep * 100, 1.0f) * mix;
		const float wetTarget = (2 - m) * m, dryTarget = 1 - m * m;
		const std::size_t channels = std::min(channelsIn, channelsOut);
		float wet = mixGains.first, dry = mixGains.second;
		// The glide is a serial recursion: run it over a chunk into two rows,
		// then mix every channel with a loop that vectorises.
		float wetRow[chunk], dryRow[chunk];
		for (std::size_t start = 0; start < length; start += chunk) {
			const std::size_t count = std::min(chunk, length - start);
			for (std::size_t c = 0; c < channelsIn; ++c) {
				inputRows[c] = inputs[c] + start;
				if (c < channels) std::copy_n(inputs[c] + start, count, dryInput.data() + c * chunk);
			}
			for (std::size_t c = 0; c < channelsOut; ++c) outputRows[c] = outputs[c] + start;
			LumbrelEffect::process(inputRows.data(), outputRows.data(), count);

			for (std::size_t n = 0; n < count; ++n) {
				wet += (wetTarget - wet) * k;
				dry += (dryTarget - dry) * k;
				wetRow[n] = wet;
				dryRow[n] = dry;
			}
			for (std::size_t c = 0; c < channels; ++c) {
				float *out = outputs[c] + start;
				const float *in = dryInput.data() + c * chunk;
				for (std::size_t n = 0; n < count; ++n) out[n] = wetRow[n] * out[n] + dryRow[n] * in[n];
			}
		}
		mixGains = {wet, dry};
	}

protected:
	void onSpectrum() override {
		peaks.update(*this, false);
		const float semitones[4] = {sweep * -24, sweep * -12, sweep * 12, sweep * 24};
		const float levels[4] = {gainD2, gainD1, gainU1, gainU2};
		SmoothedGains<float> *sets[4];
		for (std::size_t k = 0; k < 4; ++k) {
			shifters[k].semitones = semitones[k];
			sets[k] = &shifters[k].gains;
		}
		PeakShifter<float>::placeAll(*this, peaks, shifters.data(), 4);
		SmoothedGains<float>::smoothAll(*this, peaks.energy, false, sets, 4);
		for (std::size_t k = 0; k < 4; ++k) {
			auto &shifter = shifters[k];
			for (std::size_t o = 0; o < channelsOut; ++o) {
				const std::size_t i = o % channelsIn;
				shifter.gains.addOutput(*this, o, inputReal(i), inputImag(i), levels[k]);
			}
		}
	}
};

namespace quorl {

template<class ParamRange, class ParamStepped>
struct OctavesConfig {
	ParamRange gainD2{0};
	ParamRange gainD1{0.5};
	ParamRange gainU1{0.5};
	ParamRange gainU2{0};

	template<class Storage>
	void state(Storage &storage) {
		groupHeader(storage, "Octaves");
		storage.range("gainD2", gainD2).info("-2").range(0, 0.3, 1).unit("", 2);
		storage.range("gainD1", gainD1).info("-1").range(0, 0.3, 1).unit("", 2);
		storage.range("gainU1", gainU1).info("+1").range(0, 0.3, 1).unit("", 2);
		storage.range("gainU2", gainU2).info("+2").range(0, 0.3, 1).unit("", 2);
	}
};

} // namespace quorl

template<class Base>
struct OctaverQUORL : quorl::LumbrelQUORL<Base, Octaver<float>, OctaverQUORL<Base>> {
	using ParamRange = typename Base::ParamRange;
	using ParamStepped = typename Base::ParamStepped;

	quorl::OctavesConfig<ParamRange, ParamStepped> octaves;
	ParamRange mix{0.5};
	ParamRange sweep{1};

	template<class Storage>
	void state(Storage &storage) {
		quorl::groupHeader(storage, "Lumbrel: Octaver");
		storage("engineConfig", this->engineConfig);
		storage("octaves", octaves);
		storage.range("mix", mix).info("mix").range(0, 0.5, 1).unit("", 2);
		storage.range("sweep", sweep).info("sweep").range(0, 0.5, 1).unit("", 2);
	}

	// Values reach the effect inside their declared ranges.
	template<class Effect>
	void copyParams(Effect &fx) {
		using quorl::withinRange;
		fx.gainD2 = withinRange(octaves.gainD2.value, 0, 1);
		fx.gainD1 = withinRange(octaves.gainD1.value, 0, 1);
		fx.gainU1 = withinRange(octaves.gainU1.value, 0, 1);
		fx.gainU2 = withinRange(octaves.gainU2.value, 0, 1);
		fx.mix = withinRange(mix.value, 0, 1);
		fx.sweep = withinRange(sweep.value, 0, 1);
	}

	// The peak energy alone.
	template<class Effect>
	void refreshSpectrum(Effect &fx) {
		const std::size_t n = std::min(fx.bands, this->analysisSpectrum.hz.size());
		std::copy(fx.peaks.energy, fx.peaks.energy + n, this->spectrumRow(0).data());
	}
};

} // namespace varkesh::lumbrel
