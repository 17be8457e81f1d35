#pragma once
// Complex power-of-two FFT on split rows: the bottom layer of the transforms,
// a thin owner of the platform's plan (platform_fft.h).
#include "linear/platform_fft.h"

#include <complex>
#include <cstddef>
#include <vector>

namespace varkesh::linear {

template <typename Sample>
class Pow2FFT;

// Unnormalised and out of place: forward X[k] = sum x[n] exp(-2 pi i n k / N),
// inverse with exp(+...), so ifft(fft(x)) = N x. Rows are split (one row of real
// parts, one of imaginary parts), each `size()` floats.
//
// Set-up (`resize`) allocates; the transforms allocate nothing and may run on
// the audio thread, one at a time per object.
template <>
class Pow2FFT<float> {
public:
	Pow2FFT() = default;
	explicit Pow2FFT(std::size_t size) { resize(size); }
	~Pow2FFT();
	Pow2FFT(const Pow2FFT &) = delete;
	Pow2FFT &operator=(const Pow2FFT &) = delete;
	Pow2FFT(Pow2FFT &&other) noexcept;
	Pow2FFT &operator=(Pow2FFT &&other) noexcept;

	// [set-up] Destroys any existing plan, allocates the work rows and makes a
	// plan for 2^round(log2(size)) points. Size 0 leaves no plan. A size that is
	// not a power of two is the caller's error.
	void resize(std::size_t size);

	std::size_t size() const { return _size; }
	std::size_t log2Size() const { return _log2Size; }
	// False after resize(0), or when the platform refused to make a plan; the
	// transforms must not be called then.
	bool hasSetup() const { return _setup != nullptr; }

	// [audio-thread] Split rows in, split rows out. Input and output rows must
	// not overlap.
	template <bool inverse>
	void fft(const float *inReal, const float *inImag, float *outReal, float *outImag) {
		platform::fftSplit(_setup, inReal, inImag, outReal, outImag, _log2Size, inverse);
	}
	void fft(const float *inReal, const float *inImag, float *outReal, float *outImag) {
		fft<false>(inReal, inImag, outReal, outImag);
	}
	void ifft(const float *inReal, const float *inImag, float *outReal, float *outImag) {
		fft<true>(inReal, inImag, outReal, outImag);
	}

	// [audio-thread] Interleaved complex in and out, through the work rows; in
	// and out may be the same array.
	void fft(const std::complex<float> *input, std::complex<float> *output);
	void ifft(const std::complex<float> *input, std::complex<float> *output);

private:
	std::size_t _size = 0;
	std::size_t _log2Size = 0;
	platform::FFTSetup *_setup = nullptr;
	// Work space for the interleaved forms: split rows in and out, `size()` floats each.
	std::vector<float> workReal, workImag, workOutReal, workOutImag;

	template <bool inverse>
	void interleaved(const std::complex<float> *input, std::complex<float> *output);
};

} // namespace varkesh::linear
