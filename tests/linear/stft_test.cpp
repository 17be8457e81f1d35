// DynamicSTFT: its FFT size rule, its windows, the analysis layout against a direct DFT, and reconstruction (noise and a
// chirp, any step pattern, window shape and skew) below -100 dB.
#include "dft_reference.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using Stft = varkesh::linear::DynamicSTFT<float, false, 2>;
using lumbrel_test::whiteNoise;

TEST(DynamicSTFT, FftSizeRule) {
	EXPECT_EQ(lumbrel_test::stftFftSize(720), 768u);
	EXPECT_EQ(lumbrel_test::stftFftSize(1200), 1280u);
	EXPECT_EQ(lumbrel_test::stftFftSize(16, 720), 768u); // the hint wins over the block
	for (std::size_t block = 1; block <= 4000; block += 37) {
		std::size_t n = lumbrel_test::stftFftSize(block), odd = n;
		while (odd % 2 == 0) odd /= 2;
		EXPECT_TRUE(n >= block && n < 2 * block + 64 && (odd == 1 || odd == 3 || odd == 5)) << block << " -> " << n;
	}
}

// Symmetric pairs are power-complementary at their interval and peak at their offsets; a skewed pair is one window
// mirrored, peaking at two places.
TEST(DynamicSTFT, WindowsAndOffsets) {
	for (std::size_t block : {720u, 721u}) {
		Stft stft;
		stft.configure(1, 1, block, 0, 120, 0, 0);
		EXPECT_EQ(stft.analysisWindow, stft.synthesisWindow);
		for (std::size_t p = 0; p < 120; ++p) {
			double sum = 0;
			for (std::size_t i = p; i < block; i += 120) sum += double(stft.synthesisWindow[i]) * stft.synthesisWindow[i];
			EXPECT_NEAR(sum, 1.0, 1e-6) << block << " " << p;
		}
		EXPECT_EQ(stft.analysisWindow[stft.analysisOffset], *std::max_element(stft.analysisWindow.begin(), stft.analysisWindow.end()));
		EXPECT_NEAR(double(stft.synthesisOffset), double(block) / 2, 1.0);
	}
	Stft skewed;
	skewed.configure(1, 1, 720, 0, 120, 0.4f, 0);
	for (std::size_t i = 0; i < 720; ++i) ASSERT_EQ(skewed.analysisWindow[i], skewed.synthesisWindow[719 - i]) << i;
	EXPECT_NE(skewed.analysisOffset, skewed.synthesisOffset);
	EXPECT_EQ(skewed.synthesisWindow[skewed.synthesisOffset], *std::max_element(skewed.synthesisWindow.begin(), skewed.synthesisWindow.end()));
}

// Window index i holds the ring sample i - block before the one at inputPos - past, and lands at FFT time i -
// analysisOffset (wrapped round the FFT).
TEST(DynamicSTFT, AnalysisIsTheDftOfTheWindowedBlockRotatedToItsOffset) {
	const std::size_t block = 360, fftSize = 384, past = 29;
	Stft stft;
	stft.configure(2, 0, block, 13, 30, 0.2f, 0);
	ASSERT_EQ(stft.fftSamples, fftSize);
	const std::size_t length = stft.inputLengthSamples;
	auto noise = whiteNoise(length, 1, 4);
	std::copy(noise.begin(), noise.end(), stft.inputRow(1));
	stft.inputPos = 20; // the block wraps round the ring's end
	stft.analyseStep(1, past);
	std::vector<std::complex<double>> time(fftSize, 0.0);
	for (std::size_t i = 0; i < block; ++i) {
		time[(i + fftSize - stft.analysisOffset) % fftSize] =
			double(noise[(stft.inputPos + 2 * length - past - block + i) % length]) * stft.analysisWindow[i];
	}
	auto expected = lumbrel_test::directDft(time, false);
	expected.resize(stft.fftBins);
	std::vector<std::complex<float>> got(stft.spectrumRow(1), stft.spectrumRow(1) + stft.fftBins);
	EXPECT_LT(lumbrel_test::relativeRmsError(got, expected), 1e-6);
	EXPECT_EQ(got[0].imag(), 0.0f);
	EXPECT_EQ(got[stft.fftBins - 1].imag(), 0.0f);
}

// Runs a signal through the STFT the way the engine does, per chunk: write the input, read the output over the window
// products, analyse, resynthesise. Returns the error against the input delayed by the offsets, in dB, from the third
// block on.
double roundTripErrorDb(Stft &stft, const std::vector<float> &input, const std::vector<std::size_t> &chunks) {
	const std::size_t length = stft.inputLengthSamples, block = stft.blockSamples;
	const std::size_t delay = block - stft.analysisOffset + stft.synthesisOffset;
	double err = 0, energy = 0;
	for (std::size_t pos = 0, c = 0; pos < input.size(); ++c) {
		const std::size_t chunk = std::min(chunks[c % chunks.size()], input.size() - pos);
		for (std::size_t i = 0; i < chunk; ++i) {
			stft.inputRow(0)[stft.inputPos % length] = input[pos + i];
			stft.inputPos = (stft.inputPos % length) + 1;
			const std::size_t at = (stft.outputPos + i) % block, t = pos + i;
			const double out = stft.outputRow(0)[at] / stft.windowProducts[at];
			if (t >= 2 * block + delay) {
				err += (out - input[t - delay]) * (out - input[t - delay]);
				energy += double(input[t - delay]) * input[t - delay];
			}
		}
		stft.moveOutput(chunk);
		stft.analyseStep(0, 0);
		stft.synthesiseStep(0);
		pos += chunk;
	}
	return 10 * std::log10(err / energy + 1e-300);
}

TEST(DynamicSTFT, ReconstructsBelowMinus100Db) {
	// A skewed pair's synthesis window reaches past the block: a longer FFT (the hint).
	using Shape = Stft::WindowShape;
	struct Case {
		std::size_t block, interval;
		Shape shape;
		float asymmetry;
		std::vector<std::size_t> chunks;
	};
	const Shape acg = Shape::approximateConfinedGaussian;
	const Case cases[] = {{720, 120, acg, 0, {120}}, {721, 97, acg, 0, {97}}, {255, 64, acg, 0, {64}},
		{100, 33, acg, 0, {33}}, {64, 16, acg, 0, {16}}, {301, 120, acg, 0, {120}},
		{720, 120, acg, 0, {100, 141, 77, 120, 133}}, {720, 120, Shape::kaiser, 0, {120}},
		{720, 120, Shape::kaiser, 0.3f, {90, 110}}, {720, 120, acg, -0.25f, {120, 101}}};
	for (const Case &c : cases) {
		for (int chirp = 0; chirp < 2; ++chirp) {
			Stft stft;
			stft.windowProductMode = 2;
			stft.configure(1, 1, c.block, 0, c.interval, 0, c.asymmetry != 0 ? 1600 : 0);
			stft.setInterval(c.interval, c.shape, c.asymmetry);
			stft.reset(1.0f);
			const std::size_t n = 30 * c.block;
			std::vector<float> input = whiteNoise(n, 1, unsigned(c.block));
			for (std::size_t i = 0; chirp && i < n; ++i) { // 0.001 to 0.4 cycles per sample
				input[i] = float(0.8 * std::sin(2 * M_PI * (0.001 * double(i) + 0.2 * double(i) * double(i) / double(n))));
			}
			EXPECT_LT(roundTripErrorDb(stft, input, c.chunks), -100.0) << "block " << c.block << " interval " << c.interval
				<< " shape " << int(c.shape) << " asymmetry " << c.asymmetry << " chunks " << c.chunks.size() << (chirp ? " chirp" : " noise");
		}
	}
}

} // namespace
