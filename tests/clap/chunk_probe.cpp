// A test bundle on the same Plugin<T> as Lumbrel.clap. The chunk probe shows
// how the instance cut each block: output 0 holds the length of the chunk that
// made each sample, output 1 the number of effect builds so far, and 1000 + key
// where a note starts. The spectral pass is the smallest spectral effect.
#include "blocks/lumbrel_effect.h"
#include "clap/plugin_instance.h"
#include "clap/plugins.h"
#include "effects/lumbrel_quorl.h"

#include <clap/clap.h>

#include <algorithm>
#include <cstring>

namespace {

template<class Base>
struct ChunkProbeQUORL : Base {
	using ParamRange = typename Base::ParamRange;
	using ParamStepped = typename Base::ParamStepped;
	struct EngineGroup {
		ParamRange latencyMs{10};
		template<class Storage>
		void state(Storage &storage) {
			storage.range("latencyMs", latencyMs).info("latency").range(2, 10, 50).unit("ms", 1);
		}
	};
	EngineGroup engineConfig;
	ParamRange time{0.5};
	ParamStepped channelMode{1};
	ParamStepped semitones{0};
	int builds = 0;
	bool hasEffect = false;
	static constexpr std::uint32_t noteInputId = 0x3000000;
	static constexpr const char *noteInputName = "notes";
	std::uint64_t noteAt = ~std::uint64_t(0);
	float noteKey = 0;
	void noteStart(std::uint64_t offset, std::int64_t, float note, float) { noteAt = offset, noteKey = note; }
	void noteEnd(std::int64_t, std::int64_t) {}
	template<class Storage>
	void state(Storage &storage) {
		storage("engineConfig", engineConfig);
		storage.range("time", time).info("time", "how long").range(0.05, 0.5, 2).unit(" sec", 2);
		storage.stepped("channelMode", channelMode).info("channels").labelsFrom(0).label("mono", "full");
		storage.stepped("semitones", semitones).info("shift").range(-24, 24);
	}
	void configureQUORL(quorl::LibraryConfig &) { hasEffect = true, ++builds; }
	void reset() {}
	std::size_t latencySamples() const { return hasEffect ? 7 : 0; }
	void processQUORL(const quorl::LibraryConfig &config, const float *const *, float *const *outputs,
		std::size_t length, bool) {
		if (config.outputChannels > 0) std::fill(outputs[0], outputs[0] + length, float(length));
		if (config.outputChannels > 1) std::fill(outputs[1], outputs[1] + length, float(builds));
		if (config.outputChannels > 1 && noteAt < length) outputs[1][noteAt] = 1000 + noteKey;
		noteAt = ~std::uint64_t(0);
	}
};

// Every input spectrum added back unchanged.
class SpectralPass : public varkesh::lumbrel::LumbrelEffect<float> {
public:
	using LumbrelEffect::LumbrelEffect;
	int spectra = 0;
	void init() {}
	void reset() { varkesh_lumbrel_engine_float_reset(engine); }

protected:
	void onSpectrum() override {
		++spectra;
		for (std::size_t c = 0; c < channelsIn; ++c)
			varkesh_lumbrel_engine_float_addOutputSplit(engine, c, inputReal(c), inputImag(c));
	}
};

template<class Base>
struct SpectralPassQUORL : varkesh::lumbrel::quorl::LumbrelQUORL<Base, SpectralPass, SpectralPassQUORL<Base>> {
	template<class Storage>
	void state(Storage &storage) {
		varkesh::lumbrel::quorl::groupHeader(storage, "Spectral pass");
		storage("engineConfig", this->engineConfig);
	}
	template<class Fx>
	void copyParams(Fx &) {}
	template<class Fx>
	void refreshSpectrum(Fx &fx) { this->spectrumRow(0).assign(this->analysisSpectrum.hz.size(), float(fx.spectra)); }
};

quorl::clap::Plugins plugins;

bool probe_init(const char *path) {
	plugins.add<ChunkProbeQUORL>(
		clap_plugin_descriptor{CLAP_VERSION, "lumbrel.test.chunk-probe", "Chunk probe", "", "", "", "", "1.0.0", "", nullptr},
		{CLAP_PLUGIN_FEATURE_AUDIO_EFFECT});
	plugins.add<SpectralPassQUORL>(
		clap_plugin_descriptor{CLAP_VERSION, "lumbrel.test.spectral-pass", "Spectral pass", "", "", "", "", "1.0.0", "", nullptr},
		{CLAP_PLUGIN_FEATURE_AUDIO_EFFECT});
	return plugins.clap_init(path);
}
void probe_deinit() {}
const void *probe_get_factory(const char *id) {
	return id && !std::strcmp(id, CLAP_PLUGIN_FACTORY_ID) ? quorl::clap::Plugins::factory(plugins) : nullptr;
}

} // namespace

extern "C" CLAP_EXPORT const clap_plugin_entry clap_entry = {CLAP_VERSION, probe_init, probe_deinit, probe_get_factory};
