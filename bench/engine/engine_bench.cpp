// The engine's cost with a pass-through effect, stereo, in blocks of 256: CPU
// time per second of audio (cpu_ms_per_audio_s) and the share of one core that
// real time takes (core_percent).
#include "engine/engine.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <ctime>
#include <random>
#include <vector>

namespace {

double threadCpuSeconds() {
	timespec now;
	clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
	return double(now.tv_sec) + 1e-9 * double(now.tv_nsec);
}

bool passThrough(void *engine) {
	auto *e = static_cast<varkesh_lumbrel_engine_float *>(engine);
	for (std::size_t c = 0; c < 2; ++c) {
		varkesh_lumbrel_engine_float_addOutputSplit(
			e, c, varkesh_lumbrel_engine_float_inputReal(e, c), varkesh_lumbrel_engine_float_inputImag(e, c));
	}
	return true;
}

void engineCost(benchmark::State &state) {
	float sampleRate = float(state.range(0));
	varkesh_lumbrel_config config = varkesh_lumbrel_config_default();
	config.iterations = std::uint64_t(state.range(1));
	varkesh_lumbrel_engine_float *engine = varkesh_lumbrel_engine_float_new(2, 2, sampleRate, &config);
	varkesh_lumbrel_engine_float_setCallbacks(engine, engine, passThrough, nullptr);
	varkesh_lumbrel_engine_float_reset(engine);

	// One second of music-like input: a few partials over quiet noise.
	std::size_t length = std::size_t(sampleRate), block = 256;
	std::vector<float> left(length), right(length), outLeft(length), outRight(length);
	std::mt19937 random(2);
	std::normal_distribution<float> noise(0.0f, 0.01f);
	for (std::size_t i = 0; i < length; ++i) {
		double t = double(i) / sampleRate;
		double tone = 0.2 * std::sin(2 * 3.141592653589793 * 220 * t) + 0.1 * std::sin(2 * 3.141592653589793 * 1330 * t) +
			0.05 * std::sin(2 * 3.141592653589793 * 5100 * t);
		left[i] = float(tone) + noise(random);
		right[i] = float(0.8 * tone) + noise(random);
	}

	double cpuStart = threadCpuSeconds();
	for (auto _ : state) {
		for (std::size_t pos = 0; pos < length; pos += block) {
			std::size_t n = std::min(block, length - pos);
			const float *in[2] = {left.data() + pos, right.data() + pos};
			float *out[2] = {outLeft.data() + pos, outRight.data() + pos};
			varkesh_lumbrel_engine_float_process(engine, in, out, n);
		}
		benchmark::DoNotOptimize(outLeft.data());
		benchmark::ClobberMemory();
	}
	// Each iteration is one second of audio.
	double cpuSeconds = threadCpuSeconds() - cpuStart;
	double audioSeconds = double(state.iterations());
	state.counters["cpu_ms_per_audio_s"] = 1000 * cpuSeconds / audioSeconds;
	state.counters["core_percent"] = 100 * cpuSeconds / audioSeconds;
	state.SetLabel("stereo, pass-through, " + std::to_string(int(sampleRate)) + " Hz, " +
		std::to_string(state.range(1)) + " iterations");
	varkesh_lumbrel_engine_float_delete(engine);
}

BENCHMARK(engineCost)
	->ArgNames({"rate", "iterations"})
	->ArgsProduct({{44100, 48000, 96000}, {1, 4, 8}})
	->Unit(benchmark::kMillisecond);

} // namespace
