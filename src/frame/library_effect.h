#pragma once
#include "frame/library_config.h"
#include "frame/library_param.h"
#include "linear/flush_to_zero.h"
#include "storage/discard_param_info.h"
#include "storage/has_state.h"

#include <atomic>
#include <cstddef>
#include <string>
#include <type_traits>
#include <vector>

namespace quorl {

// Turns an effect wrapper into a block processor with parameters. The
// wrapper derives from LibraryEffectBase (through the web base), which holds
// the frame's tempo slot and meter flags.
//
// The wrapper `Wrapped` provides:
//   template<class Storage> void state(Storage &);  parameters and groups, once
//   void configureQUORL(LibraryConfig &);  drops the effect object and builds it
//       anew for the config, which it may adjust
//   void processQUORL(const LibraryConfig &, const float *const *inputs,
//       float *const *outputs, std::size_t length, bool spectrumDue);
//       builds or rebuilds the effect if needed (getEffect), copies parameter
//       values into it and runs it
//   void reset();  clears the effect's history, if it has an effect
template<class Sample, class Wrapped>
class LibraryEffect : public Wrapped {
public:
	std::vector<LibraryParam<double> *> rangeParams;
	std::vector<LibraryParam<int> *> steppedParams;
	bool firstBlock = true;
	// 0 when no fade runs, otherwise its progress in (0, 1).
	double blockFade = 0;
	// First channel index of each auxiliary port.
	std::vector<std::size_t> inputOffsets, outputOffsets;
	LibraryConfig config;

	// Walks state() once to list every parameter.
	struct CollectParams {
		LibraryEffect &effect;
		DiscardParamInfo discard;

		explicit CollectParams(LibraryEffect &effect) : effect(effect) {}

		template<class V>
		void operator()(const char *, V &value) {
			if constexpr (detail::HasState<V, CollectParams>::value) value.state(*this);
		}
		DiscardParamInfo &range(const char *, LibraryParam<double> &param) {
			effect.rangeParams.push_back(&param);
			return discard;
		}
		DiscardParamInfo &stepped(const char *, LibraryParam<int> &param) {
			effect.steppedParams.push_back(&param);
			return discard;
		}
		template<class V>
		void extra(const char *, V &&) {}
	};

	LibraryEffect() {
		rangeParams.push_back(&this->bpm);
		CollectParams collect(*this);
		this->state(collect);
	}

	// [main-thread, inactive] Builds the effect for `config`. Returns false if
	// the effect wants a different config: `config` then holds its proposal and
	// the caller may call again.
	bool configure() {
		const LibraryConfig asked = config;
		config.outputChannels = config.inputChannels;
		config.auxInputs.clear();
		config.auxOutputs.clear();
		this->configureQUORL(config);
		if (config != asked) return false;

		restartParams();
		this->reset();
		firstBlock = true;

		auto offsets = [](std::vector<std::size_t> &out, std::size_t first, const std::vector<std::size_t> &aux) {
			out.clear();
			for (std::size_t channels : aux) {
				out.push_back(first);
				first += channels;
			}
		};
		offsets(inputOffsets, config.inputChannels, config.auxInputs);
		offsets(outputOffsets, config.outputChannels, config.auxOutputs);
		return true;
	}

	// [audio-thread] Resets the fade bookkeeping of every parameter.
	void restartParams() {
		for (auto *p : rangeParams) p->restart();
		for (auto *p : steppedParams) p->restart();
	}

	// [audio-thread] Processes `length` samples of every channel. Parameter
	// values are read once here, so a change reaches the audio at the next call.
	void process(const float *const *inputs, float *const *outputs, std::size_t length) {
		varkesh::linear::FlushToZeroScope flushToZero;

		double nextFade = blockFade + length / (0.02 * config.sampleRate); // fades last 20 ms
		if (blockFade == 0) {
			bool changed = false;
			for (auto *p : rangeParams) changed |= advance(*p);
			for (auto *p : steppedParams) changed |= advance(*p);
			if (!changed) nextFade = 0;
		}
		const bool spectrumDue = this->wantsMeters.load(std::memory_order_acquire);

		this->processQUORL(config, inputs, outputs, length, spectrumDue);

		blockFade = nextFade < 1 ? nextFade : 0;
		firstBlock = false;
		for (auto *p : rangeParams) p->current = p->value;
		for (auto *p : steppedParams) p->current = p->value;
		if (this->wantsMeters.load()) {
			this->wantsMeters.store(false);
			this->hasMeters.store(true, std::memory_order_release);
		}
	}

private:
	template<class V>
	static bool advance(LibraryParam<V> &p) {
		p.from = p.to;
		p.to = p.value;
		return p.from != p.to;
	}
};

} // namespace quorl
