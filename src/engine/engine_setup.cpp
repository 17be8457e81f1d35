// EngineImpl set-up: geometry, tables and arrays, and reset.
#include "engine/engine_impl.h"

#include "engine/engine_windows.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace varkesh::lumbrel {

namespace {
constexpr double twoPi = 6.283185307179586;

std::size_t roundedSamples(double ms, float sampleRate) {
	return std::size_t(std::round(ms * (double(sampleRate) * 0.001)));
}
} // namespace

EngineImpl<float>::EngineImpl(std::size_t channelsIn, std::size_t channelsOut, float sampleRate,
	const LumbrelConfig &config)
	: channelsIn(channelsIn), channelsOut(channelsOut), sampleRate(sampleRate) {
	latencyBlock = roundedSamples(config.latencyMs, sampleRate);
	intervalSamples = config.intervalMs > 0 ? roundedSamples(config.intervalMs, sampleRate) : (latencyBlock + 3) >> 2;
	// The analysis window's centre sits windowSamples / 2 before the newest input,
	// the synthesis window's peak one interval after the output: together the block.
	windowSamples = 2 * (latencyBlock - intervalSamples);
	stepRate = sampleRate / float(intervalSamples);
	emphasis = float(config.emphasis);
	iterations = config.iterations;
	latencyReduction = config.blockMultiple ? std::gcd(std::size_t(config.blockMultiple), intervalSamples) : 0;

	stft.windowProductMode = 2;
	stft.configure(channelsIn, channelsOut, windowSamples, 0, intervalSamples, 0.0f, 0);
	fftSamples = stft.fftSamples;
	fftBins = stft.fftBins;
	paddedBins = padded::rowLength(fftBins);
	// Own windows and time origins: the analysis window centred on the FFT's time
	// 0, the synthesis window's peak one interval into the output.
	stft.analysisOffset = windowSamples / 2;
	stft.synthesisOffset = intervalSamples;
	fillAnalysisWindow(stft.analysisWindow.data(), windowSamples, intervalSamples);
	fillSynthesisWindow(stft.synthesisWindow.data(), windowSamples, intervalSamples);

	std::size_t spectrumChannels = std::max(channelsIn, channelsOut);
	spectrumReal.assign(spectrumChannels * paddedBins, 0.0f);
	spectrumImag.assign(spectrumChannels * paddedBins, 0.0f);
	for (Row *scratch : {&scatterReal, &scatterImag, &convolvedReal, &convolvedImag, &residualReal, &residualImag,
			 &energySpectrum, &energyPerBin}) {
		scratch->assign(paddedBins, 0.0f);
	}
	timeRow.assign(fftSamples, 0.0f);

	binHz = sampleRate / float(windowSamples);
	grid = scanBands(sampleRate, config.resolution, binHz, config.directCopy);
	bandCount = grid.bands();

	inputHzStorage.resize(channelsIn * bandCount);
	for (std::size_t c = 0; c < channelsIn; ++c) std::copy(grid.bandHz.begin(), grid.bandHz.end(), row(inputHzStorage, c));

	buildBandPositions();
	buildLowBandTables(config.resolution / config.resolutionReference);

	std::size_t perChannel = channelsIn * bandCount;
	for (Row *storage : {&inputRealStorage, &inputImagStorage, &trackedReal, &trackedImag, &energy, &predictedReal,
			 &predictedImag, &phaseSumReal, &phaseSumImag, &powerSum, &coherenceReal, &coherenceImag, &incoherence}) {
		storage->assign(perChannel, 0.0f);
	}
	// D, and the refinement's gathered residual.
	for (Row *scratch : {&gainReal, &gainImag, &gainBackupReal, &gainBackupImag, &localReal, &localImag, &localNorm,
			 &updateReal, &updateImag}) {
		scratch->assign(bandCount, 0.0f);
	}
	bandPairs.assign(2 * bandCount, 0.0f);
	inputRealTable.assign(channelsIn, nullptr);
	inputImagTable.assign(channelsIn, nullptr);
	inputHzTable.assign(channelsIn, nullptr);

	buildWindowKernel();
	buildShelves(double(emphasis));

	silentSamples = std::size_t(sampleRate);
	isSilent = false;
}

void EngineImpl<float>::buildBandPositions() {
	bandBin.resize(bandCount);
	bandFraction.resize(bandCount);
	float fftSize = float(fftSamples), invRate = 1 / sampleRate;
	for (std::size_t b = 0; b < bandCount; ++b) {
		float p = grid.bandHz[b] * fftSize * invRate;
		std::size_t bin = std::min(std::size_t(std::floor(p)), fftBins - 2);
		bandBin[b] = bin;
		bandFraction[b] = p - float(bin);
	}
	bandFractionBelow.resize(bandCount);
	bandWeights.resize(4 * bandCount);
	bandIndex.resize(bandCount);
	for (std::size_t b = 0; b < bandCount; ++b) {
		bandFractionBelow[b] = 1 - bandFraction[b];
		float *w = bandWeights.data() + 4 * b;
		w[0] = w[1] = bandFractionBelow[b];
		w[2] = w[3] = bandFraction[b];
		bandIndex[b] = std::uint32_t(bandBin[b] + padded::before);
	}

	gatherBase.clear();
	gatherOffsets.clear();
	gatherBase.reserve(grid.lowBands / 8);
	gatherOffsets.reserve(grid.lowBands / 8 * 8);
	for (std::size_t g = 0; 8 * g + 8 <= grid.lowBands; ++g) {
		std::uint32_t base = bandIndex[8 * g];
		// The upper bin of every band, and the whole load, within the row.
		if (bandIndex[8 * g + 7] + 1 - base >= 8 || base + 8 > paddedBins) break;
		gatherBase.push_back(base);
		for (std::size_t j = 0; j < 8; ++j) gatherOffsets.push_back(std::int32_t(bandIndex[8 * g + j] - base));
	}

	auto buildRuns = [&](ScatterPlan &plan, std::size_t count) {
		plan.chains.clear();
		plan.runEnds.clear();
		// One block each, never regrown: a bump hook frees nothing.
		plan.chains.reserve(count);
		plan.runEnds.reserve(count);
		std::size_t runBin = 0, runEnd = 0; // the last run's
		for (std::size_t b = 0; b < count; ++b) {
			std::size_t bin = bandBin[b];
			if (bin >= fftBins) continue;
			bin += padded::before;
			bool follows = !plan.runEnds.empty() && runEnd == b;
			if (follows && bin == runBin) {
				plan.runEnds.back() = std::uint32_t(++runEnd);
				continue;
			}
			std::uint32_t run = std::uint32_t(plan.runEnds.size());
			if (follows && bin == runBin + 1 && plan.chains.back().upper) {
				plan.chains.back().endRun = run + 1;
			} else {
				plan.chains.push_back({std::uint32_t(bin), std::uint32_t(b), run, run + 1, true});
			}
			plan.chains.back().upper = bin < padded::before + fftBins - 1;
			plan.runEnds.push_back(std::uint32_t(b + 1));
			runBin = bin;
			runEnd = b + 1;
		}
		plan.endBin = plan.runEnds.empty() ? padded::before : runBin + 2;
	};
	buildRuns(allRuns, bandCount);
	buildRuns(lowRuns, grid.lowBands);
	lowScatterEnd = lowRuns.endBin;
	lowConvolveEnd = lowScatterEnd + kernelReach;
	// The convolution up to lowConvolveEnd reads kernelReach further, and the
	// folds at the top touch fftBins - 2 and above.
	lowRegionOnly = lowConvolveEnd + kernelReach < fftBins - 2;
	if (!lowRegionOnly) lowConvolveEnd = padded::before + fftBins;
}

void EngineImpl<float>::buildLowBandTables(double resolutionRatio) {
	std::size_t low = grid.lowBands;
	for (Row *table : {&rotateReal, &rotateImag, &keep, &mix, &decay}) table->resize(low);
	float radiansPerHz = float(twoPi / double(stepRate));
	float invBinHz = 1 / binHz;
	for (std::size_t b = 0; b < low; ++b) {
		float angle = grid.bandHz[b] * radiansPerHz;
		rotateReal[b] = std::cos(angle);
		rotateImag[b] = std::sin(angle);
		float width = grid.bandWidthHz[b];
		keep[b] = 1 - width * invBinHz;
		mix[b] = 1 - keep[b];
		// The frequency estimate remembers for as long as the band is narrow.
		decay[b] = std::exp(width * float(resolutionRatio) * -2.0f * 6.2831855f / stepRate);
	}
}

void EngineImpl<float>::buildWindowKernel() {
	// The window's spectrum, centred on time 0 so that it is real and symmetric.
	std::fill(timeRow.begin(), timeRow.end(), 0.0f);
	std::copy(stft.analysisWindow.begin(), stft.analysisWindow.begin() + windowSamples, timeRow.begin());
	std::rotate(timeRow.begin(), timeRow.begin() + windowSamples / 2, timeRow.end());
	float *real = scatterReal.data(), *imag = scatterImag.data();
	stft.fft.fft(timeRow.data(), real, imag);

	kernel = WindowKernel{};
	bool positive = true;
	for (std::size_t i = 0; i < 6; ++i) {
		kernel.coefficients[i] = std::max(0.0f, real[i] / float(windowSamples));
		positive = positive && kernel.coefficients[i] > 0;
		if (positive) ++kernel.taps;
	}
	std::fill(timeRow.begin(), timeRow.end(), 0.0f);
	std::fill(scatterReal.begin(), scatterReal.end(), 0.0f);
	std::fill(scatterImag.begin(), scatterImag.end(), 0.0f);
}

void EngineImpl<float>::buildShelves(double emphasisDb) {
	inputFilter.assign(channelsIn, Shelf{});
	outputFilter.assign(channelsOut, Shelf{});
	if (channelsIn) {
		designEmphasisShelf(inputFilter[0], emphasisDb, sampleRate);
		inputFlatten.resize(fftBins);
		fillFlatten(inputFlatten.data(), fftBins, fftSamples, inputFilter[0]);
	}
	if (channelsOut) {
		designEmphasisShelf(outputFilter[0], -emphasisDb, sampleRate);
		outputFlatten.resize(fftBins);
		fillFlatten(outputFlatten.data(), fftBins, fftSamples, outputFilter[0]);
	}
	// The 1 / windowSamples of the spectrum's scale rides on the input shelf, and
	// the output shelf gives it back. The flatten tables are of the unscaled shelves.
	if (channelsIn) {
		float scale = 1 / float(windowSamples);
		Shelf &shelf = inputFilter[0];
		shelf.b0 *= scale;
		shelf.b1 *= scale;
		shelf.b2 *= scale;
	}
	if (channelsOut) {
		double scale = double(windowSamples);
		Shelf &shelf = outputFilter[0];
		shelf.b0 = float(double(shelf.b0) * scale);
		shelf.b1 = float(double(shelf.b1) * scale);
		shelf.b2 = float(double(shelf.b2) * scale);
	}
	for (std::size_t c = 1; c < channelsIn; ++c) inputFilter[c] = inputFilter[0];
	for (std::size_t c = 1; c < channelsOut; ++c) outputFilter[c] = outputFilter[0];
}

void EngineImpl<float>::reset() {
	for (Row *storage : {&trackedReal, &trackedImag, &inputRealStorage, &inputImagStorage, &predictedReal,
			 &predictedImag, &energy, &phaseSumReal, &phaseSumImag, &powerSum, &coherenceReal, &coherenceImag}) {
		std::fill(storage->begin(), storage->end(), 0.0f);
	}
	std::fill(incoherence.begin(), incoherence.end(), 1e-30f);
	for (std::size_t c = 0; c < channelsIn; ++c) {
		std::copy(grid.bandHz.begin(), grid.bandHz.end(), row(inputHzStorage, c));
		inputRealTable[c] = row(inputRealStorage, c);
		inputImagTable[c] = row(inputImagStorage, c);
		inputHzTable[c] = row(inputHzStorage, c);
	}
	for (Shelf &shelf : inputFilter) shelf.reset();
	for (Shelf &shelf : outputFilter) shelf.reset();
	silentSamples = std::size_t(sampleRate);
	isSilent = false;
	stft.reset(1.0f);
}

} // namespace varkesh::lumbrel
