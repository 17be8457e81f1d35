#include "linear/dynamic_stft.h"

#include "linear/approximate_confined_gaussian.h"
#include "linear/vector_hints.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace varkesh::linear {

namespace {

constexpr double pi = 3.14159265358979323846;

LUMBREL_VECTOR_CLONES void multiplyInto(float *__restrict out, const float *__restrict a, const float *__restrict b,
	std::size_t size) {
	for (std::size_t i = 0; i < size; ++i) out[i] = a[i] * b[i];
}
LUMBREL_VECTOR_CLONES void multiplyAddInto(float *__restrict out, const float *__restrict a,
	const float *__restrict b, std::size_t size) {
	for (std::size_t i = 0; i < size; ++i) out[i] += a[i] * b[i];
}

// Sum of z^(2i) / (4^i (i!)^2), the terms added while they are above 1e-4.
double besselI0(double z) {
	double sum = 0, term = 1;
	for (int i = 1; term > 0.0001; ++i) {
		sum += term;
		term *= z * z / (4.0 * i * i);
	}
	return sum;
}

// Calls f(from, to, ringStart) for the stretches of [from, to) over which the
// ring index (ringStart + i) mod ringLength runs without wrapping.
template <class F>
void ringStretches(std::size_t from, std::size_t to, std::size_t ringStart, std::size_t ringLength, F &&f) {
	while (from < to) {
		std::size_t ring = (ringStart + from) % ringLength;
		std::size_t run = std::min(to - from, ringLength - ring);
		f(from, from + run, ring);
		from += run;
	}
}

} // namespace

void DynamicSTFT<float, false, 2>::configure(std::size_t analyse, std::size_t synthesise, std::size_t block,
	std::size_t extraInput, std::size_t interval, float asymmetry, std::size_t fftHint) {
	analyseChannels = analyse;
	synthesiseChannels = synthesise;
	blockSamples = block;
	inputLengthSamples = block + extraInput;

	// A power of two times 1, 3 or 5 (never 7: that becomes 8), four times a
	// quarter of the size rounded up twice.
	std::size_t n = fftHint ? fftHint : block;
	std::size_t q = ((n + 1) / 2 + 1) / 2;
	std::size_t p = 1;
	while (p < std::min<std::size_t>(q, 16)) p *= 2;
	while (8 * p < q) p *= 2;
	std::size_t m = (q + p - 1) / p;
	if (m == 7) m = 8;
	fftSamples = 4 * p * m;
	fftBins = fftSamples / 2 + 1;

	fft.resize(fftSamples);
	inputRing.assign(analyseChannels * inputLengthSamples, 0.0f);
	outputRing.assign(synthesiseChannels * blockSamples, 0.0f);
	windowProducts.assign(blockSamples, 0.0f);
	analysisWindow.assign(blockSamples, 0.0f);
	synthesisWindow.assign(blockSamples, 0.0f);
	spectrum.assign(std::max(analyseChannels, synthesiseChannels) * fftBins, 0.0f);
	timeBuffer.assign(std::max(fftSamples, blockSamples), 0.0f);

	setInterval(interval ? interval : blockSamples / 4, WindowShape::approximateConfinedGaussian, asymmetry);
	reset(1.0f);
}

void DynamicSTFT<float, false, 2>::fillKaiser(float *window, std::size_t size, double interval, double a) {
	double r = double(size) / interval;
	double b = std::max(2.0, r + 0.25 * std::max(0.0, 3 - r) + 8 / ((r + 3) * (r + 3)));
	double beta = pi * std::sqrt(b * b / 4 - 1);
	double norm = besselI0(beta);
	for (std::size_t i = 0; i < size; ++i) {
		double x = double(2 * i + (size & 1)) / double(size);
		double u = (x + a - 1) / ((x - 1) * a + 1);
		double w = besselI0(beta * std::sqrt(std::max(0.0, 1 - u * u))) / norm;
		window[i] = float(w);
	}
	if (a != 0) {
		for (std::size_t i = 0; i < size; ++i) {
			double w = double(window[i]);
			window[i] = float(w * std::sqrt((1 + a) / (1 + a * (2 * w - 1))));
		}
	}
}

void DynamicSTFT<float, false, 2>::setInterval(std::size_t interval, WindowShape shape, float asymmetry) {
	defaultInterval = interval;
	if (shape == WindowShape::ignore) return;
	const std::size_t block = blockSamples;
	if (shape == WindowShape::approximateConfinedGaussian) {
		ApproximateConfinedGaussian acg(double(block) * 0.6944444444444444 / double(interval));
		acg.fill(synthesisWindow.data(), block, asymmetry, false);
	} else {
		fillKaiser(synthesisWindow.data(), block, double(interval), asymmetry);
	}
	analysisOffset = synthesisOffset = block / 2;

	if (analyseChannels == 0) {
		std::fill(analysisWindow.begin(), analysisWindow.end(), 1.0f);
	} else if (asymmetry != 0) {
		std::reverse_copy(synthesisWindow.begin(), synthesisWindow.end(), analysisWindow.begin());
	} else {
		// Power-complementary at this interval: the squares of the samples one
		// interval apart sum to 1, so analysis times synthesis overlap-adds to 1.
		for (std::size_t p = 0; p < interval && p < block; ++p) {
			double sum2 = 0;
			for (std::size_t i = p; i < block; i += interval) sum2 += double(synthesisWindow[i]) * synthesisWindow[i];
			float scale = float(1 / std::sqrt(sum2));
			for (std::size_t i = p; i < block; i += interval) synthesisWindow[i] *= scale;
		}
		analysisWindow = synthesisWindow;
	}

	auto peak = [block](const std::vector<float> &window, std::size_t &offset) {
		for (std::size_t i = 0; i < block; ++i) {
			if (window[i] > window[offset]) offset = i;
		}
	};
	if (block) {
		peak(synthesisWindow, synthesisOffset);
		peak(analysisWindow, analysisOffset);
	}
}

void DynamicSTFT<float, false, 2>::reset(float productWeight) {
	inputPos = blockSamples;
	outputPos = 0;
	std::fill(inputRing.begin(), inputRing.end(), 0.0f);
	std::fill(outputRing.begin(), outputRing.end(), 0.0f);
	std::fill(spectrum.begin(), spectrum.end(), std::complex<float>(0));
	std::fill(windowProducts.begin(), windowProducts.end(), 0.0f);
	if (windowProductMode != 0) {
		addWindowProduct();
		// As if steps every defaultInterval had run since forever.
		if (defaultInterval < blockSamples) {
			for (std::size_t i = blockSamples - defaultInterval; i-- > 0;) {
				windowProducts[i] += windowProducts[i + defaultInterval];
			}
		}
	}
	for (auto &w : windowProducts) w = w * productWeight + 1e-30f;
	moveOutput(defaultInterval);
}

void DynamicSTFT<float, false, 2>::analyseStep(std::size_t channel, std::size_t samplesInPast) {
	samplesSinceAnalysis = samplesInPast;
	const std::size_t block = blockSamples, length = inputLengthSamples, offset = analysisOffset;
	const std::size_t fftSize = fftSamples;
	const float *ring = inputRow(channel);
	const float *window = analysisWindow.data();
	float *time = timeBuffer.data();
	const std::size_t start = (inputPos + 2 * length - samplesInPast - block) % length;

	if (fftSize >= block) {
		// Window index i lands at time i - offset, the part before the offset
		// wrapping to the end of the FFT buffer.
		ringStretches(0, std::min(offset, block), start, length, [&](std::size_t from, std::size_t to, std::size_t r) {
			multiplyInto(time + fftSize - offset + from, ring + r, window + from, to - from);
		});
		ringStretches(std::min(offset, block), block, start, length, [&](std::size_t from, std::size_t to, std::size_t r) {
			multiplyInto(time + from - offset, ring + r, window + from, to - from);
		});
		if (fftSize > block) std::fill(time + (block - offset), time + (fftSize - offset), 0.0f);
	} else if (fftSize) {
		// A block longer than the FFT: time wraps onto the FFT's length.
		std::fill(time, time + fftSize, 0.0f);
		for (std::size_t i = 0; i < block; ++i) {
			float v = ring[(start + i) % length] * window[i];
			std::size_t t = (i + fftSize - offset % fftSize) % fftSize;
			time[t] += v;
		}
	}

	std::complex<float> *row = spectrumRow(channel);
	for (std::size_t s = 0, steps = fft.steps(); s < steps; ++s) fft.fft(s, time, row);
	// The packed Nyquist value goes to its own bin.
	row[fftBins - 1] = {row[0].imag(), 0.0f};
	row[0].imag(0.0f);
}

void DynamicSTFT<float, false, 2>::synthesiseStep(std::size_t channel) {
	if (channel == 0) addWindowProduct();
	const std::size_t block = blockSamples, offset = synthesisOffset, fftSize = fftSamples;
	std::complex<float> *row = spectrumRow(channel);
	row[0].imag(row[fftBins - 1].real());
	float *time = timeBuffer.data();
	for (std::size_t s = 0, steps = fft.steps(); s < steps; ++s) fft.ifft(s, row, time);

	float *out = outputRow(channel);
	const float *window = synthesisWindow.data();
	if (fftSize >= block) {
		ringStretches(0, std::min(offset, block), outputPos, block, [&](std::size_t from, std::size_t to, std::size_t r) {
			multiplyAddInto(out + r, time + fftSize - offset + from, window + from, to - from);
		});
		ringStretches(std::min(offset, block), block, outputPos, block, [&](std::size_t from, std::size_t to, std::size_t r) {
			multiplyAddInto(out + r, time + from - offset, window + from, to - from);
		});
	} else if (fftSize) {
		for (std::size_t i = 0; i < block; ++i) {
			std::size_t t = (i + fftSize - offset % fftSize) % fftSize;
			out[(outputPos + i) % block] += time[t] * window[i];
		}
	}
}

void DynamicSTFT<float, false, 2>::addWindowProduct() {
	samplesSinceSynthesis = 0;
	const std::ptrdiff_t block = std::ptrdiff_t(blockSamples);
	const std::ptrdiff_t shift = std::ptrdiff_t(synthesisOffset) - std::ptrdiff_t(analysisOffset);
	const float f = float(fftSamples);
	const std::ptrdiff_t from = std::max<std::ptrdiff_t>(shift, 0), to = std::min(block, block + shift);
	if (from >= to) return;
	float *products = windowProducts.data();
	const float *synthesis = synthesisWindow.data(), *analysis = analysisWindow.data();
	ringStretches(std::size_t(from), std::size_t(to), outputPos, blockSamples,
		[&](std::size_t a, std::size_t b, std::size_t r) {
			float *p = products + r;
			std::size_t n = b - a;
			if (windowProductMode == 2) {
				const float *aw = analysis + (std::ptrdiff_t(a) - shift), *sw = synthesis + a;
				for (std::size_t i = 0; i < n; ++i) p[i] += aw[i] * f * sw[i];
			} else if (windowProductMode == 1) {
				const float *sw = synthesis + a;
				for (std::size_t i = 0; i < n; ++i) p[i] += sw[i] * f;
			} else {
				for (std::size_t i = 0; i < n; ++i) p[i] = f;
			}
		});
}

void DynamicSTFT<float, false, 2>::moveOutput(std::size_t samples) {
	const std::size_t block = blockSamples;
	if (block == 0 || samples == 0) return;
	if (samples == 1) {
		for (std::size_t c = 0; c < synthesiseChannels; ++c) outputRow(c)[outputPos] = 0;
		windowProducts[outputPos] = 1e-30f;
		outputPos = (outputPos + 1 == block) ? 0 : outputPos + 1;
		return;
	}
	ringStretches(0, std::min(samples, block), outputPos, block, [&](std::size_t a, std::size_t b, std::size_t r) {
		for (std::size_t c = 0; c < synthesiseChannels; ++c) std::fill_n(outputRow(c) + r, b - a, 0.0f);
		std::fill_n(windowProducts.data() + r, b - a, 1e-30f);
	});
	outputPos = (outputPos + samples) % block;
	samplesSinceSynthesis += samples;
}

} // namespace varkesh::linear
