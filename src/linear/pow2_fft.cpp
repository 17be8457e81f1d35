#include "linear/pow2_fft.h"

#include <cmath>
#include <utility>

namespace varkesh::linear {

Pow2FFT<float>::~Pow2FFT() { platform::destroyFFTSetup(_setup); }

Pow2FFT<float>::Pow2FFT(Pow2FFT &&other) noexcept
	: _size(other._size), _log2Size(other._log2Size), _setup(std::exchange(other._setup, nullptr)),
	  workReal(std::move(other.workReal)), workImag(std::move(other.workImag)),
	  workOutReal(std::move(other.workOutReal)), workOutImag(std::move(other.workOutImag)) {
	other._size = other._log2Size = 0;
}

Pow2FFT<float> &Pow2FFT<float>::operator=(Pow2FFT &&other) noexcept {
	if (this != &other) {
		platform::destroyFFTSetup(_setup);
		_size = std::exchange(other._size, 0);
		_log2Size = std::exchange(other._log2Size, 0);
		_setup = std::exchange(other._setup, nullptr);
		workReal = std::move(other.workReal);
		workImag = std::move(other.workImag);
		workOutReal = std::move(other.workOutReal);
		workOutImag = std::move(other.workOutImag);
	}
	return *this;
}

void Pow2FFT<float>::resize(std::size_t size) {
	platform::destroyFFTSetup(_setup);
	_setup = nullptr;
	_size = size;
	_log2Size = 0;
	workReal.assign(size, 0.0f);
	workImag.assign(size, 0.0f);
	workOutReal.assign(size, 0.0f);
	workOutImag.assign(size, 0.0f);
	if (size == 0) return;
	_log2Size = std::size_t(std::lround(std::log2(double(size))));
	_setup = platform::createFFTSetup(_log2Size);
}

template <bool inverse>
void Pow2FFT<float>::interleaved(const std::complex<float> *input, std::complex<float> *output) {
	for (std::size_t i = 0; i < _size; ++i) {
		workReal[i] = input[i].real();
		workImag[i] = input[i].imag();
	}
	fft<inverse>(workReal.data(), workImag.data(), workOutReal.data(), workOutImag.data());
	for (std::size_t i = 0; i < _size; ++i) output[i] = {workOutReal[i], workOutImag[i]};
}

void Pow2FFT<float>::fft(const std::complex<float> *input, std::complex<float> *output) {
	interleaved<false>(input, output);
}
void Pow2FFT<float>::ifft(const std::complex<float> *input, std::complex<float> *output) {
	interleaved<true>(input, output);
}

} // namespace varkesh::linear
