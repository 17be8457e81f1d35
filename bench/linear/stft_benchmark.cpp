// One analysis and one synthesis step of the STFT at the engine's default
// geometry (48 kHz: block 720, interval 120, FFT 768), per channel.
#include "linear/dynamic_stft.h"

#include <benchmark/benchmark.h>

#include <random>

namespace {

void stftStep(benchmark::State &state) {
	const std::size_t block = std::size_t(state.range(0)), interval = std::size_t(state.range(1));
	varkesh::linear::DynamicSTFT<float, false, 2> stft;
	stft.windowProductMode = 2;
	stft.configure(1, 1, block, 0, interval, 0, 0);
	std::mt19937 rng(1);
	std::uniform_real_distribution<float> dist(-1, 1);
	for (auto &v : stft.inputRing) v = dist(rng);
	for (auto _ : state) {
		stft.analyseStep(0, 0);
		stft.synthesiseStep(0);
		stft.moveOutput(interval);
		benchmark::ClobberMemory();
	}
}
BENCHMARK(stftStep)->Args({720, 120})->Args({1440, 240})->Name("lumbrel_stft_step");

} // namespace
