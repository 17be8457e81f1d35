// The exported C functions: thin forwards to EngineImpl<float>.
#include "engine/engine.h"

#include "engine/bump_allocator.h"
#include "engine/engine_impl.h"

#include <new>

namespace {
constexpr std::size_t engineAlignment = 8;
}

extern "C" {

const char *varkesh_lumbrel_core_version(void) { return "(development)"; }

varkesh_lumbrel_config varkesh_lumbrel_config_default(void) {
	varkesh_lumbrel_config config;
	config.latencyMs = 10.0;
	config.intervalMs = 2.5;
	config.resolution = 20.0;
	config.resolutionReference = 20.0;
	config.emphasis = 12.0;
	config.iterations = 4;
	config.directCopy = true;
	config.blockMultiple = 0;
	return config;
}

bool varkesh_lumbrel_set_bump_malloc(varkesh_lumbrel_bump_malloc hook) {
	varkesh::lumbrel::bumpMallocHook = hook;
	return true;
}

varkesh_lumbrel_bump_malloc varkesh_lumbrel_get_bump_malloc(void) { return varkesh::lumbrel::bumpMallocHook; }

varkesh_lumbrel_engine_float *varkesh_lumbrel_engine_float_new(
	size_t channelsIn, size_t channelsOut, float sampleRate, const varkesh_lumbrel_config *config) {
	static_assert(alignof(varkesh_lumbrel_engine_float) <= engineAlignment, "engine needs a larger alignment");
	void *memory = varkesh::lumbrel::bumpAllocate(sizeof(varkesh_lumbrel_engine_float), engineAlignment);
	return new (memory) varkesh_lumbrel_engine_float(channelsIn, channelsOut, sampleRate, *config);
}

void varkesh_lumbrel_engine_float_delete(varkesh_lumbrel_engine_float *engine) {
	engine->~varkesh_lumbrel_engine_float();
	varkesh::lumbrel::bumpFree(engine);
}

void varkesh_lumbrel_engine_float_setCallbacks(varkesh_lumbrel_engine_float *engine, void *userData,
	varkesh_lumbrel_spectrum_callback onSpectrum, varkesh_lumbrel_silence_callback onSilence) {
	engine->setCallbacks(userData, onSpectrum, onSilence);
}

void varkesh_lumbrel_engine_float_reset(varkesh_lumbrel_engine_float *engine) { engine->reset(); }

void varkesh_lumbrel_engine_float_process(
	varkesh_lumbrel_engine_float *engine, const float *const *inputs, float **outputs, size_t length) {
	engine->process(inputs, outputs, length);
}

size_t varkesh_lumbrel_engine_float_bands(varkesh_lumbrel_engine_float *engine) { return engine->bands(); }

float varkesh_lumbrel_engine_float_subRate(varkesh_lumbrel_engine_float *engine) { return engine->subRate(); }

size_t varkesh_lumbrel_engine_float_latencySamples(varkesh_lumbrel_engine_float *engine) {
	return engine->latencySamples();
}

float varkesh_lumbrel_engine_float_nominalHz(varkesh_lumbrel_engine_float *engine, size_t band) {
	return engine->nominalHz(band);
}

float varkesh_lumbrel_engine_float_nominalBand(varkesh_lumbrel_engine_float *engine, float hz) {
	return engine->nominalBand(hz);
}

float *varkesh_lumbrel_engine_float_inputReal(varkesh_lumbrel_engine_float *engine, size_t channel) {
	return engine->inputReal(channel);
}
float *varkesh_lumbrel_engine_float_inputImag(varkesh_lumbrel_engine_float *engine, size_t channel) {
	return engine->inputImag(channel);
}
float *varkesh_lumbrel_engine_float_inputHz(varkesh_lumbrel_engine_float *engine, size_t channel) {
	return engine->inputHz(channel);
}

void varkesh_lumbrel_engine_float_setInputReal(varkesh_lumbrel_engine_float *engine, size_t channel, float *row) {
	engine->setInputReal(channel, row);
}
void varkesh_lumbrel_engine_float_setInputImag(varkesh_lumbrel_engine_float *engine, size_t channel, float *row) {
	engine->setInputImag(channel, row);
}
void varkesh_lumbrel_engine_float_setInputHz(varkesh_lumbrel_engine_float *engine, size_t channel, float *row) {
	engine->setInputHz(channel, row);
}

void varkesh_lumbrel_engine_float_addOutputSplit(
	varkesh_lumbrel_engine_float *engine, size_t channel, const float *real, const float *imag) {
	engine->add(channel, real, imag);
}

void varkesh_lumbrel_engine_float_addOutputInterleaved(
	varkesh_lumbrel_engine_float *engine, size_t channel, const varkesh_lumbrel_complex_float *values) {
	engine->add(channel, values);
}

void varkesh_lumbrel_engine_float_addOutputSplitMoved(varkesh_lumbrel_engine_float *engine, size_t channel,
	const float *real, const float *imag, const float *hz, size_t count) {
	engine->addMoved(channel, real, imag, hz, count);
}

void varkesh_lumbrel_engine_float_addOutputInterleavedMoved(varkesh_lumbrel_engine_float *engine, size_t channel,
	const varkesh_lumbrel_complex_float *values, const float *hz, size_t count) {
	engine->addMoved(channel, values, hz, count);
}

} // extern "C"
