#pragma once
// Short-time Fourier transform whose steps the owner calls whenever it likes,
// over ring buffers, with separate analysis and synthesis windows, a movable
// time origin for each, and a running sum of window products that normalises
// the output for any window pair and any pattern of steps.
//
// Owner's side of the contract (the engine reaches into the object):
// - it writes input samples into inputRow(c) at `inputPos` and advances
//   `inputPos` itself (modulo `inputLengthSamples`), then calls analyseStep;
// - it reads `spectrum` after analyseStep and writes it before synthesiseStep;
// - it reads output from outputRow(c) at `outputPos`, divides by
//   `windowProducts` at the same index, and calls moveOutput to consume it;
// - it may replace the windows, their offsets and `windowProductMode` (the mode
//   before configure, whose reset uses it).
#include "linear/real_fft.h"

#include <complex>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace varkesh::linear {

template <typename Sample, bool variant, int level>
class DynamicSTFT;

template <>
class DynamicSTFT<float, false, 2> {
public:
	enum class WindowShape { ignore = 0, approximateConfinedGaussian = 1, kaiser = 2 };

	// Sizes, set by configure.
	std::size_t analyseChannels = 0, synthesiseChannels = 0;
	std::size_t inputLengthSamples = 0, blockSamples = 0;
	std::size_t fftSamples = 0, fftBins = 0; // fftBins = fftSamples / 2 + 1
	std::size_t defaultInterval = 0;

	// analyseChannels rows of inputLengthSamples; inputPos is the next sample to
	// write. reset sets it to blockSamples, which equals inputLengthSamples (that
	// is, 0) when there is no extra input: take it modulo the length.
	std::vector<float> inputRing;
	std::size_t inputPos = 0;
	// synthesiseChannels rows of blockSamples; outputPos is the next sample to read.
	std::vector<float> outputRing;
	std::size_t outputPos = 0;
	// blockSamples floats, indexed like the output ring.
	std::vector<float> windowProducts;
	// blockSamples floats each; the offsets are the window indices at the FFT's time 0.
	std::vector<float> analysisWindow, synthesisWindow;
	std::size_t analysisOffset = 0, synthesisOffset = 0;
	// max(analyseChannels, synthesiseChannels) rows of fftBins bins. Bin 0 and
	// the top bin have imaginary part 0 after analysis; synthesis ignores them.
	std::vector<std::complex<float>> spectrum;
	// max(fftSamples, blockSamples) floats.
	std::vector<float> timeBuffer;
	std::size_t samplesSinceAnalysis = 0, samplesSinceSynthesis = 0;
	// 0: products fixed at fftSamples; 1: synthesis window only; 2: analysis
	// times synthesis window.
	int windowProductMode = 0;

	// The transform, of fftSamples points; the owner may use it between steps.
	RealFFT<float, false, false> fft;

	DynamicSTFT() { fft.resize(0); }

	float *inputRow(std::size_t channel) { return inputRing.data() + channel * inputLengthSamples; }
	float *outputRow(std::size_t channel) { return outputRing.data() + channel * blockSamples; }
	std::complex<float> *spectrumRow(std::size_t channel) { return spectrum.data() + channel * fftBins; }
	const float *inputRow(std::size_t channel) const { return inputRing.data() + channel * inputLengthSamples; }
	const float *outputRow(std::size_t channel) const { return outputRing.data() + channel * blockSamples; }
	const std::complex<float> *spectrumRow(std::size_t channel) const { return spectrum.data() + channel * fftBins; }

	// [set-up, allocates] Sets sizes, picks the FFT size (from fftHint, or from
	// blockSamples when that is 0; always a power of two times 1, 3 or 5, and no
	// smaller than the block unless the hint says so), allocates, then runs
	// setInterval(interval or blockSamples / 4, approximate confined Gaussian,
	// asymmetry) and reset(1).
	void configure(std::size_t analyseChannels, std::size_t synthesiseChannels, std::size_t blockSamples,
		std::size_t extraInput, std::size_t interval, float asymmetry, std::size_t fftHint);

	// [set-up] Sets defaultInterval; unless shape is `ignore`, refills both
	// windows (power-complementary for the interval when symmetric) and moves
	// both offsets to the windows' maxima.
	void setInterval(std::size_t interval, WindowShape shape, float asymmetry);

	// [audio-thread, no allocation] Clears the rings, spectrum and products, and
	// primes the products as if steps at defaultInterval had run before, each
	// product scaled by productWeight. Leaves outputPos at defaultInterval.
	void reset(float productWeight);

	// [audio-thread, no allocation] Windows the block whose newest sample is
	// samplesInPast (< inputLengthSamples) before inputPos, transforms it and
	// writes the channel's spectrum row (top bin unpacked, imaginary parts of
	// bin 0 and the top bin 0).
	void analyseStep(std::size_t channel, std::size_t samplesInPast);

	// [audio-thread, no allocation] Inverse-transforms the channel's spectrum
	// row (packing the top bin's real part into bin 0's imaginary part, in the
	// row itself), windows it and adds it to the output ring from outputPos on.
	// Channel 0 also adds this step's window product first.
	void synthesiseStep(std::size_t channel);

	// [audio-thread] Adds this step's window product from outputPos on (by
	// mode; fftSamples times the windows, matching the unnormalised inverse FFT)
	// and sets samplesSinceSynthesis to 0.
	void addWindowProduct();

	// [audio-thread] Consumes `samples` output positions: clears them in every
	// channel, sets their products to 1e-30, advances outputPos and adds to
	// samplesSinceSynthesis (except for a move of exactly one sample).
	void moveOutput(std::size_t samples);

private:
	void fillKaiser(float *window, std::size_t size, double interval, double asymmetry);
};

} // namespace varkesh::linear
