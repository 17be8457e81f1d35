#pragma once
// EngineImpl<float>: the spectral engine behind the exported C interface.
//
// Set-up (engine_setup.cpp) turns a sample rate and a configuration into the
// geometry: block, interval, windows, the kernel that models the analysis window
// in the bin domain, bands with their map, recursion coefficients of the tracked
// bands, and the emphasis shelves. The block loop (block_loop.cpp) cuts audio at
// interval boundaries and runs one step at each: STFT, analysis (analysis.cpp),
// onSpectrum, synthesis (synthesis.cpp).
//
// Threads: construction allocates (main thread); reset and process allocate
// nothing and run on one thread at a time, with the callbacks inside process.
#include "engine/band_grid.h"
#include "engine/bump_allocator.h"
#include "engine/emphasis_shelf.h"
#include "engine/engine.h"
#include "engine/window_convolve.h"
#include "linear/dynamic_stft.h"

#include <complex>
#include <cstddef>
#include <cstdint>

#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

namespace varkesh::lumbrel {

template <typename Sample>
class EngineImpl;

// Bands in runs that share a lower bin, in band order, so that a scatter sums
// each bin in registers in the same order as one band at a time would.
struct BinRun {
	std::size_t bin, first, end; // padded index of the lower bin; bands first..end-1
	bool upper;                  // the bin above exists
};

template <>
class EngineImpl<float> {
public:
	// [main-thread, allocates] Builds all geometry and arrays. The engine is not
	// fit for process until reset has run once.
	EngineImpl(std::size_t channelsIn, std::size_t channelsOut, float sampleRate, const LumbrelConfig &config);

	void setCallbacks(void *userData, varkesh_lumbrel_spectrum_callback onSpectrum,
		varkesh_lumbrel_silence_callback onSilence) {
		callbacks = {userData, onSpectrum, onSilence};
	}

	// [audio-thread, no allocation] Clears the signal state; the interval's phase
	// (samples since the last step) carries across.
	void reset();

	// [audio-thread, no allocation] See engine.h.
	void process(const float *const *inputs, float *const *outputs, std::size_t length);

	// [inside onSpectrum] Adds `bands` values to an output channel (channel below
	// channelsIn), at the nominal band positions while the channel's inputHz
	// pointer is the engine's row at stride paddedBins, else at its frequencies.
	void add(std::size_t channel, const float *real, const float *imag);
	void add(std::size_t channel, const std::complex<float> *values);
	// [inside onSpectrum] Adds `count` values at the given frequencies.
	void addMoved(std::size_t channel, const float *real, const float *imag, const float *hz, std::size_t count);
	void addMoved(std::size_t channel, const std::complex<float> *values, const float *hz, std::size_t count);

	// Constant geometry.
	std::size_t bands() const { return bandCount; }
	float subRate() const { return stepRate; }
	std::size_t latencySamples() const { return latencyBlock - latencyReduction; }
	float nominalHz(std::size_t band) const { return grid.bandHz[band]; }
	float nominalBand(float hz) const { return grid.map.nominalBand(hz, bandCount); }

	// Pointer tables of the band rows; see the set functions in engine.h.
	float *inputReal(std::size_t channel) const { return inputRealTable[channel]; }
	float *inputImag(std::size_t channel) const { return inputImagTable[channel]; }
	float *inputHz(std::size_t channel) const { return inputHzTable[channel]; }
	void setInputReal(std::size_t channel, float *row) { inputRealTable[channel] = row; }
	void setInputImag(std::size_t channel, float *row) { inputImagTable[channel] = row; }
	void setInputHz(std::size_t channel, float *row) { inputHzTable[channel] = row; }

	// Further geometry, for inspection.
	std::size_t latencyBlockSamples() const { return latencyBlock; }
	std::size_t interval() const { return intervalSamples; }
	std::size_t windowLength() const { return windowSamples; }
	std::size_t fftSize() const { return fftSamples; }
	std::size_t lowBandCount() const { return grid.lowBands; }
	float kneeHz() const { return grid.map.kneeHz; }
	float kneeBand() const { return grid.map.kneeBand; }

private:
	using Row = BumpVector<float>;

	struct Callbacks {
		void *userData = nullptr;
		varkesh_lumbrel_spectrum_callback onSpectrum = nullptr;
		varkesh_lumbrel_silence_callback onSilence = nullptr;
	};

	// Set-up parts (engine_setup.cpp).
	void buildBandPositions();
	void buildLowBandTables(double resolutionRatio);
	void buildWindowKernel();
	void buildShelves(double emphasisDb);

	// Block loop parts (block_loop.cpp).
	bool isQuiet(const float *const *inputs, std::size_t length) const;
	void writeInput(const float *const *inputs, std::size_t offset, std::size_t count);
	void readOutput(float *const *outputs, std::size_t offset, std::size_t count);
	void step();

	// Analysis (analysis.cpp).
	void lumbrelAnalysis();
	void trackBands(std::size_t channel);
	void predictBands(std::size_t channel);
	void resolveBands(std::size_t channel);
	void residualBeyondPredictions(std::size_t channel);
	void firstGains(float *bandEnergy);
	void refineGains(const float *bandEnergy);
	void measureFrequencies(std::size_t channel);
	float evaluate(const float *bandEnergy);
	template <class Value>
	void scatterPair(const BumpVector<BinRun> &runs, Value value, float *real, float *imag) const;
	void scatterRow(const BumpVector<BinRun> &runs, const float *values, float *row) const;
	void gatherPair(std::size_t from, std::size_t to, const float *real, const float *imag, float *outReal,
		float *outImag) const;
	// stftWindowConvolve with folding (analysis.cpp).
	template <bool imaginary>
	void convolve(float *in, float *out) const;

	// Synthesis (synthesis.cpp).
	template <class Read>
	void placeAtBands(std::size_t channel, Read read);
	template <class Read>
	void placeAtHz(std::size_t channel, Read read, const float *hz, std::size_t count);
	void synthesise();

	// Channel rows of per-band storage.
	float *row(Row &storage, std::size_t channel) { return storage.data() + channel * bandCount; }
	float *padded(Row &storage, std::size_t channel) { return storage.data() + channel * paddedBins; }

	std::size_t channelsIn, channelsOut;
	float sampleRate;
	std::size_t latencyBlock, intervalSamples, windowSamples, latencyReduction;
	float stepRate; // subRate: spectra per second
	float binHz;    // resolution of the window, sampleRate / windowSamples
	float emphasis;
	std::size_t iterations;

	varkesh::linear::DynamicSTFT<float, false, 2> stft;
	std::size_t fftSamples = 0, fftBins = 0, paddedBins = 0;

	BandGrid grid;
	std::size_t bandCount = 0;
	BumpVector<std::size_t> bandBin; // lower FFT bin of each band, at most fftBins - 2
	Row bandFraction;                // position between bandBin and the next; can exceed 1 at the top
	Row bandFractionBelow;           // 1 - bandFraction
	Row bandWeights;                 // 1 - f, 1 - f, f, f per band: a scatter's weights for a complex value
	BumpVector<std::uint32_t> bandIndex; // padded index of bandBin

	// Bands in runs that share a lower bin (see BinRun).
	BumpVector<BinRun> allRuns, lowRuns;
	// The low bands' scatter touches padded indices below lowScatterEnd. When that
	// is far below the top (lowRegionOnly), the refinement convolves, subtracts and
	// divides only up to lowConvolveEnd, the reach of the kernel beyond it; above
	// it the residual is that of the step, whose squared sum there is tailError.
	std::size_t lowScatterEnd = 0, lowConvolveEnd = 0;
	bool lowRegionOnly = false;
	float tailError = 0;

	// Tracked bands: rotation per interval, memory of the smoothed STFT, and the
	// decay of the frequency estimate.
	Row rotateReal, rotateImag, keep, mix, decay;

	WindowKernel kernel;
	BumpVector<Shelf> inputFilter, outputFilter;
	Row inputFlatten, outputFlatten;

	// Padded spectra over max(channelsIn, channelsOut) channels: the input
	// spectrum during analysis, then the output accumulators.
	Row spectrumReal, spectrumImag;
	// Padded scratch for one channel at a time.
	Row scatterReal, scatterImag, convolvedReal, convolvedImag, residualReal, residualImag, energySpectrum;
	Row energyPerBin; // 1e-30 plus the band energies scattered, during the refinement
	Row timeRow; // fftSamples floats

	// Per band and input channel.
	Row inputRealStorage, inputImagStorage, inputHzStorage; // X and its frequency
	Row trackedReal, trackedImag;                           // T
	Row energy;                                             // E
	Row predictedReal, predictedImag;                       // P
	Row phaseSumReal, phaseSumImag;                         // A
	Row powerSum;                                           // Q
	Row coherenceReal, coherenceImag, incoherence;          // Z, written and never read
	// Per band, one channel at a time.
	Row gainReal, gainImag, gainBackupReal, gainBackupImag; // G
	Row localReal, localImag;                               // F
	Row localNorm;                                          // |F|^2 + 1e-30
	Row updateReal, updateImag;                             // D

	BumpVector<float *> inputRealTable, inputImagTable, inputHzTable;

	Callbacks callbacks;
	std::size_t silentSamples = 0;
	bool isSilent = false;
};

// Scatter: each band adds (1 - f) of its value to its lower bin and f to the
// bin above. A run's bands are summed in registers, each bin in band order from
// the value it held, which is the order of adding one band at a time. The upper
// sums stay in registers as the next run's start when that run begins at the
// bin above. With SSE2 a bin's real and imaginary sums share a register, the
// same products and additions lane by lane.
// value(b, re, im) gives band b's complex value.
// weights holds (1 - f, 1 - f, f, f) per band, below 1 - f and above f.
template <class Value>
inline void scatterRuns(const BinRun *begin, const BinRun *end, const float *weights, const float *below,
	const float *above, Value value, float *real, float *imag) {
	std::size_t carriedBin = ~std::size_t(0);
#if defined(__SSE2__)
	(void)below, (void)above;
	__m128 carried = _mm_setzero_ps();
	for (const BinRun *r = begin; r != end; ++r) {
		const BinRun &run = *r;
		__m128 lo = run.bin == carriedBin ? carried : _mm_unpacklo_ps(_mm_load_ss(real + run.bin), _mm_load_ss(imag + run.bin));
		__m128 hi = _mm_unpacklo_ps(_mm_load_ss(real + run.bin + 1), _mm_load_ss(imag + run.bin + 1));
		for (std::size_t b = run.first; b < run.end; ++b) {
			float re, im;
			value(b, re, im);
			__m128 v = _mm_unpacklo_ps(_mm_set_ss(re), _mm_set_ss(im));
			__m128 w = _mm_loadu_ps(weights + 4 * b);
			lo = _mm_add_ps(lo, _mm_mul_ps(w, v));
			hi = _mm_add_ps(hi, _mm_mul_ps(_mm_movehl_ps(w, w), v));
		}
		_mm_store_ss(real + run.bin, lo);
		_mm_store_ss(imag + run.bin, _mm_shuffle_ps(lo, lo, _MM_SHUFFLE(1, 1, 1, 1)));
		if (run.upper) {
			_mm_store_ss(real + run.bin + 1, hi);
			_mm_store_ss(imag + run.bin + 1, _mm_shuffle_ps(hi, hi, _MM_SHUFFLE(1, 1, 1, 1)));
		}
		carriedBin = run.upper ? run.bin + 1 : ~std::size_t(0);
		carried = hi;
	}
#else
	(void)weights;
	float carriedR = 0, carriedI = 0;
	for (const BinRun *r = begin; r != end; ++r) {
		const BinRun &run = *r;
		bool carry = run.bin == carriedBin;
		float loR = carry ? carriedR : real[run.bin], loI = carry ? carriedI : imag[run.bin];
		float hiR = real[run.bin + 1], hiI = imag[run.bin + 1];
		for (std::size_t b = run.first; b < run.end; ++b) {
			float re, im;
			value(b, re, im);
			loR += below[b] * re;
			loI += below[b] * im;
			hiR += above[b] * re;
			hiI += above[b] * im;
		}
		real[run.bin] = loR;
		imag[run.bin] = loI;
		if (run.upper) {
			real[run.bin + 1] = hiR;
			imag[run.bin + 1] = hiI;
		}
		carriedBin = run.upper ? run.bin + 1 : ~std::size_t(0);
		carriedR = hiR;
		carriedI = hiI;
	}
#endif
}

template <class Value>
inline void EngineImpl<float>::scatterPair(const BumpVector<BinRun> &runs, Value value, float *real, float *imag) const {
	scatterRuns(runs.data(), runs.data() + runs.size(), bandWeights.data(), bandFractionBelow.data(), bandFraction.data(),
		value, real, imag);
}

} // namespace varkesh::lumbrel

// The exported handle is the engine itself.
struct varkesh_lumbrel_engine_float : varkesh::lumbrel::EngineImpl<float> {
	using EngineImpl<float>::EngineImpl;
};
