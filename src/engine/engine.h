#pragma once
// The spectral engine's exported C interface.
//
// An engine cuts the audio it is given into steps one interval apart. At each
// step it analyses every input channel onto a non-uniform band grid (Bark-like
// up to a knee, one band per window bin above it), calls onSpectrum, and
// resynthesises whatever the callback added with the addOutput* functions.
// Bands below the knee are tracked oscillators with a measured frequency, which
// is how a short window still gives narrow low bands.
//
// Threads: one engine is used by one thread at a time. bands, subRate,
// latencySamples, nominalHz and nominalBand never change for an engine's life
// and may be read from any thread. The bump-allocation hook is a plain global:
// set it before any engine exists. Nothing here checks a channel, band or count
// argument; out-of-range values are undefined.
//
// Calling order: new, setCallbacks, reset, then process and reset in any order,
// delete last.
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#include <complex>
#endif

#define VARKESH_LUMBREL_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
typedef std::complex<float> varkesh_lumbrel_complex_float;
extern "C" {
#else
typedef float _Complex varkesh_lumbrel_complex_float;
#endif

// Engine settings, read only while an engine is created.
typedef struct varkesh_lumbrel_config {
	double latencyMs;           // length of the latency block, ms (default 10)
	double intervalMs;          // time between spectra, ms; <= 0 picks a quarter of the block (default 2.5)
	double resolution;          // bands per unit of the frequency scale (default 20)
	double resolutionReference; // divides resolution in the memory of the frequency estimate (default 20)
	double emphasis;            // input high-shelf gain in dB, undone at the output (default 12)
	uint64_t iterations;        // gain refinement rounds per step and channel (default 4)
	bool directCopy;            // bands above the knee are read straight from the STFT (default true)
	uint64_t blockMultiple;     // every process length is a multiple of this; 0 = unknown (default 0)
} varkesh_lumbrel_config;

// Opaque engine handle, owned by whoever called varkesh_lumbrel_engine_float_new.
typedef struct varkesh_lumbrel_engine_float varkesh_lumbrel_engine_float;

// Called once per interval from inside process, on the caller's thread. When it
// runs, every input channel has `bands` complex values and a frequency per band;
// all output accumulators are zero; it adds output with the addOutput* functions.
// Band 0 is 0 Hz with an imaginary part of exactly 0. The result is ignored.
typedef bool (*varkesh_lumbrel_spectrum_callback)(void *userData);
// Called when the engine has seen a whole window of silence: true keeps it
// running for one more window, false lets it sleep until sound returns.
typedef bool (*varkesh_lumbrel_silence_callback)(void *userData);
// Process-wide allocation hook: byte count and alignment in, pointer out (null
// falls back to malloc). With a hook installed the engine never frees memory;
// the hook's owner reclaims its arena at once.
typedef void *(*varkesh_lumbrel_bump_malloc)(size_t bytes, size_t alignment);

// The text "(development)".
VARKESH_LUMBREL_EXPORT const char *varkesh_lumbrel_core_version(void);
// 10, 2.5, 20, 20, 12, 4, true, 0.
VARKESH_LUMBREL_EXPORT varkesh_lumbrel_config varkesh_lumbrel_config_default(void);
// Installs (or with null removes) the allocation hook. Always returns true.
VARKESH_LUMBREL_EXPORT bool varkesh_lumbrel_set_bump_malloc(varkesh_lumbrel_bump_malloc hook);
VARKESH_LUMBREL_EXPORT varkesh_lumbrel_bump_malloc varkesh_lumbrel_get_bump_malloc(void);

// [main-thread] Allocates and builds an engine. Allocates through the hook when
// one is set. The engine is not usable until reset has run once.
VARKESH_LUMBREL_EXPORT varkesh_lumbrel_engine_float *varkesh_lumbrel_engine_float_new(
	size_t channelsIn, size_t channelsOut, float sampleRate, const varkesh_lumbrel_config *config);
// Runs the destructor; frees the object only when no hook is set at this moment.
VARKESH_LUMBREL_EXPORT void varkesh_lumbrel_engine_float_delete(varkesh_lumbrel_engine_float *engine);
// onSpectrum must not be null; a null onSilence counts as "false".
VARKESH_LUMBREL_EXPORT void varkesh_lumbrel_engine_float_setCallbacks(
	varkesh_lumbrel_engine_float *engine, void *userData,
	varkesh_lumbrel_spectrum_callback onSpectrum, varkesh_lumbrel_silence_callback onSilence);
// [audio-thread] Clears all signal state; allocates nothing.
VARKESH_LUMBREL_EXPORT void varkesh_lumbrel_engine_float_reset(varkesh_lumbrel_engine_float *engine);
// [audio-thread] Processes `length` samples of channelsIn inputs into channelsOut
// outputs, delayed by latencySamples. Allocates nothing, takes no lock. Sets
// flush-to-zero for the call (and the callbacks inside it).
VARKESH_LUMBREL_EXPORT void varkesh_lumbrel_engine_float_process(
	varkesh_lumbrel_engine_float *engine, const float *const *inputs, float **outputs, size_t length);

// Number of bands.
VARKESH_LUMBREL_EXPORT size_t varkesh_lumbrel_engine_float_bands(varkesh_lumbrel_engine_float *engine);
// Spectra per second: sample rate over the interval in samples.
VARKESH_LUMBREL_EXPORT float varkesh_lumbrel_engine_float_subRate(varkesh_lumbrel_engine_float *engine);
// Input-to-output delay in samples: the latency block minus the blockMultiple reduction.
VARKESH_LUMBREL_EXPORT size_t varkesh_lumbrel_engine_float_latencySamples(varkesh_lumbrel_engine_float *engine);
// A band's nominal centre in Hz (band 0 is exactly 0 Hz).
VARKESH_LUMBREL_EXPORT float varkesh_lumbrel_engine_float_nominalHz(varkesh_lumbrel_engine_float *engine, size_t band);
// Fractional band position of a frequency, from 0 up to bands - 1.001.
VARKESH_LUMBREL_EXPORT float varkesh_lumbrel_engine_float_nominalBand(varkesh_lumbrel_engine_float *engine, float hz);

// The channel's rows of `bands` values: spectrum real and imaginary parts (on the
// scale of the windowed FFT divided by the window length) and frequency in Hz.
// Valid inside onSpectrum; the effect may scribble on them, but the tracked range
// is carried into the next step.
VARKESH_LUMBREL_EXPORT float *varkesh_lumbrel_engine_float_inputReal(varkesh_lumbrel_engine_float *engine, size_t channel);
VARKESH_LUMBREL_EXPORT float *varkesh_lumbrel_engine_float_inputImag(varkesh_lumbrel_engine_float *engine, size_t channel);
VARKESH_LUMBREL_EXPORT float *varkesh_lumbrel_engine_float_inputHz(varkesh_lumbrel_engine_float *engine, size_t channel);
// Replace the channel's row pointer until the end of the next analysis, when the
// engine's own rows come back. A replaced inputHz row moves where addOutputSplit
// and addOutputInterleaved put that channel's values.
VARKESH_LUMBREL_EXPORT void varkesh_lumbrel_engine_float_setInputReal(varkesh_lumbrel_engine_float *engine, size_t channel, float *row);
VARKESH_LUMBREL_EXPORT void varkesh_lumbrel_engine_float_setInputImag(varkesh_lumbrel_engine_float *engine, size_t channel, float *row);
VARKESH_LUMBREL_EXPORT void varkesh_lumbrel_engine_float_setInputHz(varkesh_lumbrel_engine_float *engine, size_t channel, float *row);

// [audio-thread, inside onSpectrum only] Adds `bands` values to an output
// channel's accumulator. Channel 0 (while its inputHz row is the engine's own)
// places them at the nominal band positions; other channels place them at the
// frequencies of their inputHz row. channel must be below channelsIn.
VARKESH_LUMBREL_EXPORT void varkesh_lumbrel_engine_float_addOutputSplit(
	varkesh_lumbrel_engine_float *engine, size_t channel, const float *real, const float *imag);
VARKESH_LUMBREL_EXPORT void varkesh_lumbrel_engine_float_addOutputInterleaved(
	varkesh_lumbrel_engine_float *engine, size_t channel, const varkesh_lumbrel_complex_float *values);
// [audio-thread, inside onSpectrum only] Adds `count` values at frequencies of the
// caller's choosing, shared linearly between the two neighbouring FFT bins.
// Frequencies at or above Nyquist + one bin are dropped, and so are negative ones
// on x86. Calls add up.
VARKESH_LUMBREL_EXPORT void varkesh_lumbrel_engine_float_addOutputSplitMoved(
	varkesh_lumbrel_engine_float *engine, size_t channel, const float *real, const float *imag,
	const float *hz, size_t count);
VARKESH_LUMBREL_EXPORT void varkesh_lumbrel_engine_float_addOutputInterleavedMoved(
	varkesh_lumbrel_engine_float *engine, size_t channel, const varkesh_lumbrel_complex_float *values,
	const float *hz, size_t count);

#ifdef __cplusplus
} // extern "C"

namespace varkesh::lumbrel {
using LumbrelConfig = ::varkesh_lumbrel_config;
} // namespace varkesh::lumbrel
#endif
