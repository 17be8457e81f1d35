// DynamicSTFT: the FFT size rule, windows and offsets, the window-product
// bookkeeping, the analysis layout against a direct DFT, and reconstruction of
// noise and a chirp through analysis and synthesis, measured in dB.
#include "linear/dynamic_stft.h"

#include "dft_reference.h"
#include "support/alloc_counter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <vector>

namespace {

using Stft = varkesh::linear::DynamicSTFT<float, false, 2>;

std::size_t fftSizeFor(std::size_t block, std::size_t hint) {
	Stft stft;
	stft.configure(0, 0, block, 0, std::max<std::size_t>(block / 4, 1), 0, hint);
	return stft.fftSamples;
}

TEST(DynamicSTFT, FftSizeRule) {
	EXPECT_EQ(fftSizeFor(720, 0), 768u);
	EXPECT_EQ(fftSizeFor(1000, 0), 1024u);
	EXPECT_EQ(fftSizeFor(1440, 0), 1536u);
	EXPECT_EQ(fftSizeFor(1200, 0), 1280u);
	EXPECT_EQ(fftSizeFor(662, 0), 768u); // 44.1 kHz defaults
	EXPECT_EQ(fftSizeFor(16, 720), 768u); // the hint wins over the block
	for (std::size_t block = 1; block <= 4000; block += 37) {
		std::size_t n = fftSizeFor(block, 0), odd = n;
		while (odd % 2 == 0) odd /= 2;
		EXPECT_GE(n, block);
		EXPECT_TRUE(odd == 1 || odd == 3 || odd == 5) << block << " -> " << n;
		EXPECT_LT(n, 2 * block + 64) << block << " -> " << n; // never wasteful
	}
}

TEST(DynamicSTFT, SymmetricWindowsArePowerComplementaryAndPeakAtTheOffsets) {
	for (std::size_t block : {720u, 721u}) {
		Stft stft;
		stft.configure(1, 1, block, 0, 120, 0, 0);
		EXPECT_EQ(stft.analysisWindow, stft.synthesisWindow);
		for (std::size_t p = 0; p < 120; ++p) {
			double sum = 0;
			for (std::size_t i = p; i < block; i += 120) sum += double(stft.synthesisWindow[i]) * stft.synthesisWindow[i];
			EXPECT_NEAR(sum, 1.0, 1e-6);
		}
		float peak = *std::max_element(stft.synthesisWindow.begin(), stft.synthesisWindow.end());
		EXPECT_EQ(stft.synthesisWindow[stft.synthesisOffset], peak);
		EXPECT_EQ(stft.analysisWindow[stft.analysisOffset], peak);
		EXPECT_NEAR(double(stft.synthesisOffset), double(block) / 2, 1.0);
	}
}

TEST(DynamicSTFT, AsymmetricPairPeaksAtTwoDifferentPlaces) {
	Stft stft;
	stft.configure(1, 1, 720, 0, 120, 0.4f, 0);
	for (std::size_t i = 0; i < 720; ++i) EXPECT_EQ(stft.analysisWindow[i], stft.synthesisWindow[719 - i]);
	EXPECT_NE(stft.analysisOffset, stft.synthesisOffset);
	EXPECT_EQ(stft.analysisWindow[stft.analysisOffset],
		*std::max_element(stft.analysisWindow.begin(), stft.analysisWindow.end()));
	EXPECT_EQ(stft.synthesisWindow[stft.synthesisOffset],
		*std::max_element(stft.synthesisWindow.begin(), stft.synthesisWindow.end()));
}

TEST(DynamicSTFT, ResetPrimesTheSteadyStateProducts) {
	// As if a step had run every interval up to now: ring position p holds
	// fftSamples * (w[p]^2 + w[p + interval]^2 + ...), the contributions of the
	// latest step and those before it. Summed over a whole residue class this
	// is fftSamples, since the windows are power-complementary. The positions of
	// the first interval are consumed by the move at the end of reset.
	Stft stft;
	stft.windowProductMode = 2;
	stft.configure(1, 1, 720, 0, 120, 0, 0);
	EXPECT_EQ(stft.outputPos, 120u);
	EXPECT_EQ(stft.samplesSinceSynthesis, 120u);
	for (std::size_t i = 0; i < 720; ++i) {
		if (i < 120) {
			EXPECT_EQ(stft.windowProducts[i], 1e-30f) << i;
		} else {
			double expected = 0;
			for (std::size_t j = i; j < 720; j += 120) expected += 768.0 * stft.synthesisWindow[j] * stft.synthesisWindow[j];
			EXPECT_NEAR(stft.windowProducts[i], expected, 768.0 * 1e-6) << i;
		}
	}
	// One more step-and-move completes the class of the next interval.
	stft.synthesiseStep(0);
	for (std::size_t i = 120; i < 240; ++i) EXPECT_NEAR(stft.windowProducts[i], 768.0, 768.0 * 1e-5) << i;
	stft.reset(1.0f);
	// A weight scales the primed sum.
	float full = stft.windowProducts[400];
	stft.reset(0.5f);
	EXPECT_NEAR(stft.windowProducts[400], 0.5 * full, full * 1e-6);

	// Mode 0: reset primes nothing, and a synthesis step sets the FFT size over
	// the whole block.
	Stft plain;
	plain.configure(1, 1, 64, 0, 16, 0, 0);
	EXPECT_EQ(plain.windowProducts[20], 1e-30f);
	plain.synthesiseStep(0);
	for (float p : plain.windowProducts) EXPECT_EQ(p, 64.0f);
}

TEST(DynamicSTFT, MoveOutputClearsWithWrapAndCounts) {
	Stft stft;
	stft.configure(0, 2, 100, 0, 25, 0, 0);
	std::fill(stft.outputRing.begin(), stft.outputRing.end(), 1.0f);
	std::fill(stft.windowProducts.begin(), stft.windowProducts.end(), 2.0f);
	stft.outputPos = 90;
	stft.samplesSinceSynthesis = 0;

	stft.moveOutput(0);
	EXPECT_EQ(stft.outputPos, 90u);
	EXPECT_TRUE(std::all_of(stft.outputRing.begin(), stft.outputRing.end(), [](float v) { return v == 1.0f; }));

	stft.moveOutput(15); // 90..99, then 0..4
	EXPECT_EQ(stft.outputPos, 5u);
	EXPECT_EQ(stft.samplesSinceSynthesis, 15u);
	for (std::size_t c = 0; c < 2; ++c) {
		for (std::size_t i = 0; i < 100; ++i) {
			bool cleared = i >= 90 || i < 5;
			EXPECT_EQ(stft.outputRow(c)[i], cleared ? 0.0f : 1.0f) << c << " " << i;
			EXPECT_EQ(stft.windowProducts[i], cleared ? 1e-30f : 2.0f) << i;
		}
	}
	// The one-sample form clears and advances, but leaves the counter.
	stft.moveOutput(1);
	EXPECT_EQ(stft.outputPos, 6u);
	EXPECT_EQ(stft.outputRow(1)[5], 0.0f);
	EXPECT_EQ(stft.samplesSinceSynthesis, 15u);
}

TEST(DynamicSTFT, AnalysisIsTheDftOfTheWindowedBlockRotatedToItsOffset) {
	const std::size_t block = 360, extra = 13, fftSize = 384;
	Stft stft;
	stft.configure(2, 0, block, extra, 30, 0.2f, 0);
	ASSERT_EQ(stft.fftSamples, fftSize);
	const std::size_t length = stft.inputLengthSamples;
	auto noise = lumbrel_test::whiteNoise(length, 4);
	std::copy(noise.begin(), noise.end(), stft.inputRow(1));
	stft.inputPos = 20;
	const std::size_t past = 29; // the block wraps round the ring's end
	stft.analyseStep(1, past);
	EXPECT_EQ(stft.samplesSinceAnalysis, past);

	// Expected: window index i holds the ring sample i - block before the one
	// at inputPos - past, and lands at FFT time i - analysisOffset (wrapped).
	std::vector<std::complex<double>> time(fftSize, 0.0);
	for (std::size_t i = 0; i < block; ++i) {
		std::size_t ring = (stft.inputPos + 2 * length - past - block + i) % length;
		std::size_t t = (i + fftSize - stft.analysisOffset) % fftSize;
		time[t] = double(noise[ring]) * stft.analysisWindow[i];
	}
	auto expected = lumbrel_test::directDft(time, false);
	expected.resize(stft.fftBins);
	const std::complex<float> *row = stft.spectrumRow(1);
	std::vector<std::complex<float>> got(row, row + stft.fftBins);
	EXPECT_LT(lumbrel_test::relativeRmsError(got, expected), 1e-6);
	EXPECT_EQ(got[0].imag(), 0.0f);
	EXPECT_EQ(got[stft.fftBins - 1].imag(), 0.0f);
}

// Runs a signal through analysis and synthesis the way the engine does: per
// chunk, write the input, read the output (divided by the window products),
// then analyse and resynthesise. Returns the output.
std::vector<float> roundTrip(Stft &stft, const std::vector<float> &input, const std::vector<std::size_t> &chunks) {
	std::vector<float> output;
	std::size_t pos = 0, chunkIndex = 0;
	const std::size_t length = stft.inputLengthSamples, block = stft.blockSamples;
	while (pos < input.size()) {
		std::size_t chunk = std::min(chunks[chunkIndex++ % chunks.size()], input.size() - pos);
		for (std::size_t i = 0; i < chunk; ++i) {
			stft.inputRow(0)[stft.inputPos % length] = input[pos + i];
			stft.inputPos = (stft.inputPos % length) + 1;
		}
		for (std::size_t i = 0; i < chunk; ++i) {
			std::size_t at = (stft.outputPos + i) % block;
			output.push_back(stft.outputRow(0)[at] / stft.windowProducts[at]);
		}
		stft.moveOutput(chunk);
		stft.analyseStep(0, 0);
		stft.synthesiseStep(0);
		pos += chunk;
	}
	return output;
}

// Error of output against input delayed by `delay`, in dB relative to the
// input, over the part after the first two blocks.
double errorDb(const std::vector<float> &input, const std::vector<float> &output, std::size_t delay, std::size_t skip) {
	double err = 0, energy = 0;
	for (std::size_t t = skip; t + delay < output.size(); ++t) {
		double d = double(output[t + delay]) - input[t];
		err += d * d;
		energy += double(input[t]) * input[t];
	}
	return 10 * std::log10(err / energy + 1e-300);
}

std::vector<float> chirp(std::size_t n) {
	std::vector<float> v(n);
	for (std::size_t i = 0; i < n; ++i) {
		double t = double(i) / double(n);
		v[i] = float(0.8 * std::sin(2 * M_PI * (0.001 * i + 0.2 * i * t))); // 0.001 to 0.4 cycles per sample
	}
	return v;
}

struct Geometry {
	std::size_t block, interval;
};

TEST(DynamicSTFT, ReconstructsNoiseAndChirpBelowMinus100Db) {
	for (Geometry g : {Geometry{720, 120}, Geometry{721, 97}, Geometry{255, 64}, Geometry{100, 33},
			 Geometry{1440, 240}, Geometry{64, 16}, Geometry{301, 120}}) {
		for (int signal = 0; signal < 2; ++signal) {
			Stft stft;
			stft.windowProductMode = 2;
			stft.configure(1, 1, g.block, 0, g.interval, 0, 0);
			const std::size_t n = 30 * g.block;
			auto input = signal ? chirp(n) : lumbrel_test::whiteNoise(n, unsigned(g.block));
			auto output = roundTrip(stft, input, {g.interval});
			// The analysis offset lies block - analysisOffset before the newest
			// input; the synthesis offset that far after the next output.
			std::size_t delay = g.block - stft.analysisOffset + stft.synthesisOffset;
			EXPECT_LT(errorDb(input, output, delay, 2 * g.block), -100.0)
				<< "block " << g.block << " interval " << g.interval << (signal ? " chirp" : " noise");
		}
	}
}

TEST(DynamicSTFT, ReconstructsWithIrregularStepsAndOtherWindows) {
	// The running products normalise any step pattern that keeps the windows
	// overlapping, any window shape, and skewed pairs. A skewed pair's synthesis
	// window reaches past the analysed block by the difference of the offsets, so
	// there the FFT must be longer than the block by that much (fftHint), or the
	// block's far end is read back aliased (about -60 dB at asymmetry 0.3).
	struct Case {
		Stft::WindowShape shape;
		float asymmetry;
		std::vector<std::size_t> chunks;
	};
	for (const Case &c : {Case{Stft::WindowShape::approximateConfinedGaussian, 0, {100, 141, 77, 120, 133}},
			 Case{Stft::WindowShape::kaiser, 0, {120}}, Case{Stft::WindowShape::kaiser, 0.3f, {90, 110}},
			 Case{Stft::WindowShape::approximateConfinedGaussian, -0.25f, {120, 101}}}) {
		Stft stft;
		stft.windowProductMode = 2;
		stft.configure(1, 1, 720, 0, 120, 0, c.asymmetry != 0 ? 1600 : 0);
		stft.setInterval(120, c.shape, c.asymmetry);
		stft.reset(1.0f);
		const std::size_t n = 40 * 720;
		auto input = lumbrel_test::whiteNoise(n, 99);
		auto output = roundTrip(stft, input, c.chunks);
		std::size_t delay = 720 - stft.analysisOffset + stft.synthesisOffset;
		EXPECT_LT(errorDb(input, output, delay, 2 * 720), -100.0)
			<< "shape " << int(c.shape) << " asymmetry " << c.asymmetry;
	}
}

TEST(DynamicSTFT, ReplacedWindowsAndOffsetsStillReconstruct) {
	// The engine's arrangement: analysis centred at block / 2, synthesis a raised
	// cosine of two intervals peaking at the interval; latency block / 2 + interval.
	const std::size_t block = 720, interval = 120;
	Stft stft;
	stft.windowProductMode = 2;
	stft.configure(1, 1, block, 0, interval, 0, 0);
	stft.analysisOffset = block / 2;
	stft.synthesisOffset = interval;
	for (std::size_t i = 0; i < block; ++i) {
		double x = (2.0 * double(i) - block) / block;
		stft.analysisWindow[i] = float(std::exp(-8 * x * x));
		double u = (double(i) - interval) / interval;
		stft.synthesisWindow[i] = std::abs(u) >= 1 ? 0.0f : float(std::cos(u * M_PI) + 1);
	}
	stft.reset(1.0f);
	auto input = lumbrel_test::whiteNoise(30 * block, 5);
	auto output = roundTrip(stft, input, {interval});
	EXPECT_LT(errorDb(input, output, block / 2 + interval, 2 * block), -100.0);
}

TEST(DynamicSTFT, StepsAllocateNothing) {
	if (!lumbrel_test::allocationCountingAvailable()) GTEST_SKIP() << "allocations aren't counted in this build";
	Stft stft;
	stft.windowProductMode = 2;
	stft.configure(2, 2, 720, 0, 120, 0, 0);
	lumbrel_test::AllocationScope scope;
	for (int i = 0; i < 10; ++i) {
		stft.analyseStep(0, 3);
		stft.analyseStep(1, 0);
		stft.synthesiseStep(0);
		stft.synthesiseStep(1);
		stft.moveOutput(120);
		stft.moveOutput(1);
	}
	stft.reset(1.0f);
	EXPECT_EQ(scope.count(), 0u);
}

} // namespace
