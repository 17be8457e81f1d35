#pragma once
#include "engine/bump_allocator.h"
#include "engine/engine.h"
#include "linear/linear.h"

#include <cstddef>

namespace varkesh::lumbrel {

template<typename Sample>
class LumbrelEffect;

// The base of the spectral effects: owns one engine, registers itself as its
// callback target, and hands each analysed frame to onSpectrum(). Everything
// an effect does to sound happens there: it reads the input spectra, works out
// gains and frequencies with the building blocks, and adds output back.
//
// The fields are read by the building blocks; `subRate`, `bands` and
// `resolution` are fixed for the object's life, since a change of engine
// settings makes a new object.
template<>
class LumbrelEffect<float> {
public:
	varkesh_lumbrel_engine_float *engine;
	bool engineBorrowed; // the engine was passed in and is never deleted here
	std::size_t channelsIn, channelsOut;
	float sampleRate;
	float subRate; // spectra per second
	std::size_t bands;
	float resolution; // bands per scale unit; smoothing widths are multiples of it
	linear::LinearImpl<true> linear;
	BumpVector<float> nominalHzRow; // the engine's nominal frequency of each band

	// Makes an engine for `config`, unless one is given to share.
	LumbrelEffect(std::size_t channelsIn, std::size_t channelsOut, float sampleRate, const LumbrelConfig &config,
		varkesh_lumbrel_engine_float *engine = nullptr);
	virtual ~LumbrelEffect();
	LumbrelEffect(const LumbrelEffect &) = delete;
	LumbrelEffect &operator=(const LumbrelEffect &) = delete;

	// [audio-thread] Runs the engine over `length` samples; a shared engine is
	// pointed back at this object first.
	void process(const float *const *inputs, float *const *outputs, std::size_t length);

	static bool staticOnSpectrum(void *self);
	static bool staticOnSilence(void *self);

	// The engine's rows for one input channel, valid inside onSpectrum().
	float *inputReal(std::size_t channel) const { return varkesh_lumbrel_engine_float_inputReal(engine, channel); }
	float *inputImag(std::size_t channel) const { return varkesh_lumbrel_engine_float_inputImag(engine, channel); }
	float *inputHz(std::size_t channel) const { return varkesh_lumbrel_engine_float_inputHz(engine, channel); }
	float nominalBand(float hz) const { return varkesh_lumbrel_engine_float_nominalBand(engine, hz); }
	// A band's nominal frequency, kept in a row: effects read it per band and frame.
	float nominalHz(std::size_t band) const { return nominalHzRow[band]; }

protected:
	// [set-up] Room in the expression layer's scratch store for four rows of
	// `bands`, so that steady-state expressions allocate nothing.
	void reserveScratch() { linear.reserve(4 * bands); }

	// [audio-thread] One frame: read the spectra, add output.
	virtual void onSpectrum() = 0;
	// [audio-thread] After a window of silence: true keeps the engine running;
	// false (the default) lets it sleep until sound returns, and onSpectrum()
	// is not called meanwhile.
	virtual bool onSilence() { return false; }
};

} // namespace varkesh::lumbrel
