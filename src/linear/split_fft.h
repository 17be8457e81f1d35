#pragma once
// Complex FFT of size innerSize * outerSize (a power of two times an odd
// factor), by decimation in time: the odd factor's interleaved sub-sequences
// are transformed by the power-of-two layer, twiddled, and joined by a small DFT
// of size outerSize per column.
//
// The transform runs as a list of numbered steps so that a caller can spread it
// over time or interleave other work; a full transform is
//     for (size_t s = 0; s < fft.steps(); ++s) fft.fftStep<inverse>(fft.step(s), in..., out...);
// with the same rows at every step.
#include "linear/pow2_fft.h"

#include <complex>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace varkesh::linear {

template <typename Sample, bool variant>
class SplitFFT;

// One step of a SplitFFT. Types:
//   0        whole power-of-two transform, input to output
//   1..5     transposition of the input into the work rows (unrolled for outer
//            sizes 2, 3, 4, 5; 5 is the general form)
//   6        power-of-two transform of work row 0 into output row 0
//   7        the same for the row starting at `offset`
//   8        twiddle multiplication of the output from index innerSize on
//   9..13    final pass, in place on the output: DFT of size outerSize down each
//            column (2, 3, 4, 5; 13 is the general form)
struct SplitFFTStep {
	std::uint8_t type = 0;
	std::size_t offset = 0;
};

// Unnormalised, as Pow2FFT. Set-up (`resize`) allocates; steps allocate nothing
// and may run on the audio thread. Input and output rows are split, `size()`
// floats each, and must not overlap. The steps of one transform must not be
// interleaved with those of another on the same object (the work rows are
// shared).
template <>
class SplitFFT<float, false> {
public:
	using Step = SplitFFTStep;

	SplitFFT() = default;
	explicit SplitFFT(std::size_t size) { resize(size); }

	// [set-up] Factorises size into innerSize (a power of two) times outerSize
	// (odd), builds the twiddle tables and the step list. Size 0 leaves no steps.
	void resize(std::size_t size);

	std::size_t size() const { return innerSize * outerSize; }
	std::size_t inner() const { return innerSize; }
	std::size_t outer() const { return outerSize; }
	std::size_t steps() const { return stepList.size(); }
	// The power-of-two transform of innerSize points, for callers that run the
	// odd factor's passes themselves (its scratch is this object's).
	Pow2FFT<float> &innerTransform() { return innerFFT; }
	const Step &step(std::size_t index) const { return stepList[index]; }

	// [audio-thread] Performs one step, reading the input rows and writing the
	// output rows (and the object's work rows).
	template <bool inverse>
	void fftStep(const Step &step, const float *inReal, const float *inImag, float *outReal, float *outImag);

	// [audio-thread] All steps in order.
	template <bool inverse>
	void fft(const float *inReal, const float *inImag, float *outReal, float *outImag) {
		for (auto &s : stepList) fftStep<inverse>(s, inReal, inImag, outReal, outImag);
	}

	// [audio-thread] The radix-5 and general final passes, in place on a split
	// row of `size()` floats.
	template <bool inverse>
	void finalPass5(float *real, float *imag);
	template <bool inverse>
	void finalPassN(float *real, float *imag);

private:
	std::size_t innerSize = 0, outerSize = 0;
	Pow2FFT<float> innerFFT;
	std::vector<Step> stepList;

	// Work rows for the transposition, `size()` complex values as two halves.
	std::vector<float> work; // real half, then imaginary half

	// Twiddles: entry (j - 1) * innerSize + i = exp(-2 pi i * i * j / size), for
	// j = 1..outerSize - 1; kept interleaved and as split rows (the passes use
	// the split rows).
	std::vector<std::complex<float>> twiddles;
	std::vector<float> twiddleReal, twiddleImag;

	// General final pass: exp(-2 pi i k / outerSize), and one column's values.
	std::vector<std::complex<float>> dftTwiddles;
	std::vector<std::complex<float>> dftWork;

	template <bool inverse>
	void finalPass2(float *real, float *imag);
	template <bool inverse>
	void finalPass3(float *real, float *imag);
	template <bool inverse>
	void finalPass4(float *real, float *imag);
};

} // namespace varkesh::linear
