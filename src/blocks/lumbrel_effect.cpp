#include "blocks/lumbrel_effect.h"

namespace varkesh::lumbrel {

LumbrelEffect<float>::LumbrelEffect(std::size_t channelsIn, std::size_t channelsOut, float sampleRate,
	const LumbrelConfig &config, varkesh_lumbrel_engine_float *given)
	: engine(given ? given : varkesh_lumbrel_engine_float_new(channelsIn, channelsOut, sampleRate, &config)),
	  engineBorrowed(given != nullptr), channelsIn(channelsIn), channelsOut(channelsOut), sampleRate(sampleRate),
	  subRate(varkesh_lumbrel_engine_float_subRate(engine)), bands(varkesh_lumbrel_engine_float_bands(engine)),
	  resolution(float(config.resolution)) {
	varkesh_lumbrel_engine_float_setCallbacks(engine, this, staticOnSpectrum, staticOnSilence);
	nominalHzRow.resize(bands);
	for (std::size_t b = 0; b < bands; ++b) nominalHzRow[b] = varkesh_lumbrel_engine_float_nominalHz(engine, b);
}

LumbrelEffect<float>::~LumbrelEffect() {
	if (!engineBorrowed) varkesh_lumbrel_engine_float_delete(engine);
}

void LumbrelEffect<float>::process(const float *const *inputs, float *const *outputs, std::size_t length) {
	if (engineBorrowed) varkesh_lumbrel_engine_float_setCallbacks(engine, this, staticOnSpectrum, staticOnSilence);
	varkesh_lumbrel_engine_float_process(engine, inputs, const_cast<float **>(outputs), length);
}

bool LumbrelEffect<float>::staticOnSpectrum(void *self) {
	static_cast<LumbrelEffect *>(self)->onSpectrum();
	return true;
}

bool LumbrelEffect<float>::staticOnSilence(void *self) { return static_cast<LumbrelEffect *>(self)->onSilence(); }

} // namespace varkesh::lumbrel
