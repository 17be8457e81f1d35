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
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace varkesh::lumbrel {

template <typename Sample>
class EngineImpl;

// Bands in runs that share a lower bin, runs in chains over consecutive bins, in
// band order. A run's bands add to its lower bin and the one above; the run
// after it in a chain starts at that upper bin. See scatterRuns.
struct BinChain {
	std::uint32_t bin;              // padded index of the first run's lower bin
	std::uint32_t firstBand;        // the first run's first band
	std::uint32_t firstRun, endRun; // the chain's runs in ScatterPlan::runEnds
	bool upper;                     // the bin above the last run's exists
};

struct ScatterPlan {
	BumpVector<BinChain> chains;
	BumpVector<std::uint32_t> runEnds; // per run, one past its last band
	std::size_t endBin = 0;           // one past the last bin touched (padded index)
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
	// Scatter of band values given as (re, im) pairs, or as two rows (paired up
	// in bandPairs first).
	void scatterPair(const ScatterPlan &plan, const float *pairs, float *real, float *imag) const;
	void scatterPair(const ScatterPlan &plan, const float *values, const float *valuesImag, float *real,
		float *imag);
	void scatterRow(const ScatterPlan &plan, const float *values, float *row) const;
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
	// Groups of eight low bands, from band 0, whose bins lie within eight of the
	// group's first: that bin's padded index, and each band's bin from it. With
	// AVX2 a group's gather is one load and permutes (gatherPair).
	BumpVector<std::uint32_t> gatherBase;
	BumpVector<std::int32_t> gatherOffsets;

	// All bands' scatter and the low bands' (see BinChain).
	ScatterPlan allRuns, lowRuns;
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
	Row bandPairs;                                          // band values as (re, im) pairs, for a scatter

	BumpVector<float *> inputRealTable, inputImagTable, inputHzTable;

	Callbacks callbacks;
	std::size_t silentSamples = 0;
	bool isSilent = false;
};

// Scatter: each band adds (1 - f) of its value to its lower bin and f to the
// bin above. Each bin is summed in band order from the value it held, which is
// the order of adding one band at a time, in registers: along a chain a run's
// upper sums are the next run's lower ones, and only the chain's first bin is
// read and its last written back through memory. With SSE2 a band's four
// products are one (1 - f, 1 - f, f, f) times (re, im, re, im); the lower and
// upper bin's sums stay in registers of their own, so that each bin's chain of
// additions waits only on its own bands, and the chains of neighbouring runs
// overlap. The same products and additions lane by lane.
// pairs holds band b's value as (re, im) at 2b; weights holds (1 - f, 1 - f, f, f)
// per band, below 1 - f and above f.
inline void scatterRuns(const ScatterPlan &plan, const float *weights, const float *below, const float *above,
	const float *pairs, float *real, float *imag) {
	const std::uint32_t *runEnds = plan.runEnds.data();
	for (const BinChain &chain : plan.chains) {
		std::size_t bin = chain.bin, b = chain.firstBand;
#if defined(__SSE2__)
		(void)below, (void)above;
		auto loadBin = [real, imag](std::size_t i) { return _mm_unpacklo_ps(_mm_load_ss(real + i), _mm_load_ss(imag + i)); };
		__m128 lower = loadBin(bin);
		for (const std::uint32_t *e = runEnds + chain.firstRun, *last = runEnds + chain.endRun; e != last; ++e, ++bin) {
			// The entry above the top bin is padding, read but never written.
			__m128 upper = loadBin(bin + 1);
			for (; b < *e; ++b) {
				double pair; // (re, im), loaded twice over into one register
				std::memcpy(&pair, pairs + 2 * b, sizeof pair);
				__m128 products = _mm_mul_ps(_mm_loadu_ps(weights + 4 * b), _mm_castpd_ps(_mm_set1_pd(pair)));
				lower = _mm_add_ps(lower, products);
				upper = _mm_add_ps(upper, _mm_movehl_ps(products, products));
			}
			_mm_store_ss(real + bin, lower);
			_mm_store_ss(imag + bin, _mm_shuffle_ps(lower, lower, _MM_SHUFFLE(1, 1, 1, 1)));
			lower = upper;
		}
		if (chain.upper) {
			_mm_store_ss(real + bin, lower);
			_mm_store_ss(imag + bin, _mm_shuffle_ps(lower, lower, _MM_SHUFFLE(1, 1, 1, 1)));
		}
#else
		(void)weights;
		float loR = real[bin], loI = imag[bin];
		for (const std::uint32_t *e = runEnds + chain.firstRun, *last = runEnds + chain.endRun; e != last; ++e, ++bin) {
			float hiR = real[bin + 1], hiI = imag[bin + 1];
			for (; b < *e; ++b) {
				float re = pairs[2 * b], im = pairs[2 * b + 1];
				loR += below[b] * re;
				loI += below[b] * im;
				hiR += above[b] * re;
				hiI += above[b] * im;
			}
			real[bin] = loR;
			imag[bin] = loI;
			loR = hiR;
			loI = hiI;
		}
		if (chain.upper) {
			real[bin] = loR;
			imag[bin] = loI;
		}
#endif
	}
}

} // namespace varkesh::lumbrel

// The exported handle is the engine itself.
struct varkesh_lumbrel_engine_float : varkesh::lumbrel::EngineImpl<float> {
	using EngineImpl<float>::EngineImpl;
};
