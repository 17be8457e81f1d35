// The pitch shifter side by side with Rubber Band (real-time mode, R3 and R2
// engines) and SoundTouch, all at +5 semitones, stereo, 48 kHz, blocks of 256.
// One benchmark per implementation, named after it; each reports
//   cpu_s_per_audio_s  CPU seconds spent per second of audio (whole process,
//                      so helper threads would count too),
//   latency_ms         input to output delay of what a host would play,
//   pitch_error_cents  the worst partial of a 220 Hz harmonic tone, against
//                      its ideal shifted frequency,
//   spurious_db        the strongest component that is not a shifted partial,
//                      relative to the partials' mean level.
// The library shifters hand back output in bursts; a host has to play it from
// a FIFO that never runs dry, and that FIFO's delay is part of their latency.
#include "host/bundle.h"
#include "support/param_ids.h"
#include "support/plugin_runner.h"
#include "support/quality_measures.h"
#include "support/signals.h"

#include <benchmark/benchmark.h>

#if LUMBREL_BENCH_RUBBERBAND
#include <rubberband/RubberBandStretcher.h>
#endif
#if LUMBREL_BENCH_SOUNDTOUCH
#include <SoundTouch.h>
#endif

#include <algorithm>
#include <cmath>
#include <complex>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

using namespace lumbrel_test;

namespace {

constexpr double rate = 48000;
constexpr int semitones = 5;
constexpr std::size_t block = 256;
// The most output a shifter may hand back after one block.
constexpr std::size_t maxOutput = 8192;

const double ratio = std::exp2(semitones / 12.0);

double processCpuSeconds() {
	timespec now;
	clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
	return double(now.tv_sec) + 1e-9 * double(now.tv_nsec);
}

// A real-time pitch shifter fed stereo blocks. process() takes up to `block`
// frames and writes what output is ready (at most maxOutput frames per row);
// it returns how many frames it wrote.
class Shifter {
public:
	virtual ~Shifter() = default;
	virtual bool ok() const { return true; }
	virtual std::size_t process(const float *const *input, std::size_t frames, float *const *output) = 0;
};

const lumbrel::host::Bundle *bundle() {
	static std::string error;
	static std::unique_ptr<lumbrel::host::Bundle> loaded = lumbrel::host::Bundle::load(LUMBREL_BUNDLE_PATH, error);
	return loaded.get();
}

// Lumbrel's pitch shifter through the CLAP ABI, with its defaults (10 ms).
class LumbrelShifter final : public Shifter {
public:
	explicit LumbrelShifter(const lumbrel::host::Bundle &bundle)
		: runner(bundle, "varkesh.lumbrel.pitch-shifter-layer1", rate, block) {
		if (runner.ok) runner.set(paramId({"peakShifterConfig", "semitones"}), semitones);
	}
	bool ok() const override { return runner.ok; }
	std::size_t process(const float *const *input, std::size_t frames, float *const *output) override {
		runner.out.clear();
		// The plug-in only reads its inputs; the host API takes them non-const.
		runner.instance->process(const_cast<float *const *>(input), 2, output, 2, std::uint32_t(frames), runner.events,
			runner.out);
		return frames;
	}

private:
	PluginRunner runner;
};

#if LUMBREL_BENCH_RUBBERBAND
class RubberBandShifter final : public Shifter {
public:
	explicit RubberBandShifter(RubberBand::RubberBandStretcher::Options engine)
		: stretcher(std::size_t(rate), 2, RubberBand::RubberBandStretcher::OptionProcessRealTime | engine, 1.0, ratio) {
		stretcher.setMaxProcessSize(block);
	}
	std::size_t process(const float *const *input, std::size_t frames, float *const *output) override {
		stretcher.process(input, frames, false);
		std::size_t written = 0;
		for (int ready; (ready = stretcher.available()) > 0 && written < maxOutput;) {
			float *at[2] = {output[0] + written, output[1] + written};
			written += stretcher.retrieve(at, std::min(std::size_t(ready), maxOutput - written));
		}
		return written;
	}

private:
	RubberBand::RubberBandStretcher stretcher;
};
#endif

#if LUMBREL_BENCH_SOUNDTOUCH
// SoundTouch takes interleaved frames.
class SoundTouchShifter final : public Shifter {
public:
	SoundTouchShifter() : interleavedIn(2 * block), interleavedOut(2 * maxOutput) {
		touch.setSampleRate(unsigned(rate));
		touch.setChannels(2);
		touch.setPitchSemiTones(semitones);
	}
	std::size_t process(const float *const *input, std::size_t frames, float *const *output) override {
		for (std::size_t i = 0; i < frames; ++i) {
			interleavedIn[2 * i] = input[0][i];
			interleavedIn[2 * i + 1] = input[1][i];
		}
		touch.putSamples(interleavedIn.data(), unsigned(frames));
		const std::size_t written = touch.receiveSamples(interleavedOut.data(), unsigned(maxOutput));
		for (std::size_t i = 0; i < written; ++i) {
			output[0][i] = interleavedOut[2 * i];
			output[1][i] = interleavedOut[2 * i + 1];
		}
		return written;
	}

private:
	soundtouch::SoundTouch touch;
	std::vector<float> interleavedIn, interleavedOut;
};
#endif

// What a host plays when it runs `input` through `shifter` in blocks: the
// shifter's output behind the shortest FIFO that never runs dry, so that the
// whole stream has one fixed delay. Same length as the input.
std::vector<std::vector<float>> hostOutput(Shifter &shifter, const std::vector<std::vector<float>> &input) {
	const std::size_t frames = input[0].size();
	std::vector<std::vector<float>> produced(2);
	std::vector<float> scratchL(maxOutput), scratchR(maxOutput);
	float *scratch[2] = {scratchL.data(), scratchR.data()};
	std::size_t fifo = 0;
	for (std::size_t start = 0; start < frames; start += block) {
		const std::size_t n = std::min(block, frames - start);
		const float *in[2] = {input[0].data() + start, input[1].data() + start};
		const std::size_t written = shifter.process(in, n, scratch);
		for (int c = 0; c < 2; ++c) produced[c].insert(produced[c].end(), scratch[c], scratch[c] + written);
		// By the end of this block the host has played start + n frames.
		if (start + n > produced[0].size()) fifo = std::max(fifo, start + n - produced[0].size());
	}
	std::vector<std::vector<float>> output(2, std::vector<float>(frames, 0.0f));
	for (int c = 0; c < 2; ++c) {
		for (std::size_t i = fifo; i < frames && i - fifo < produced[c].size(); ++i) output[c][i] = produced[c][i - fifo];
	}
	return output;
}

// Where the power of x, averaged over centred 20 ms windows, first reaches
// half of `steadyPower`: for a tone switched on, the moment it starts.
double halfPowerTime(const std::vector<float> &x, double steadyPower) {
	const std::size_t half = std::size_t(0.01 * rate);
	std::vector<double> sum(x.size() + 1, 0.0);
	for (std::size_t i = 0; i < x.size(); ++i) sum[i + 1] = sum[i] + double(x[i]) * x[i];
	for (std::size_t i = half; i + half < x.size(); ++i) {
		if ((sum[i + half] - sum[i - half]) / double(2 * half) >= 0.5 * steadyPower) return double(i);
	}
	return double(x.size());
}

struct Quality {
	double latencyMs = 0, worstCents = 0, spuriousDb = 0;
};

// The measurements on a 220 Hz harmonic tone switched on after 0.25 s of
// silence. 25 partials reach 5.5 kHz, 7.3 kHz once shifted: all of them below
// the frequency where Lumbrel's tonality limit starts to shift less.
Quality measureQuality(Shifter &shifter) {
	constexpr double f0 = 220;
	constexpr int partials = 25;
	constexpr double amplitude = 0.02;
	const std::size_t onset = std::size_t(0.25 * rate), frames = std::size_t(2.5 * rate);
	std::vector<float> tone(frames, 0.0f);
	const auto harmonic = harmonicTone(f0, partials, rate, frames - onset, amplitude);
	std::copy(harmonic.begin(), harmonic.end(), tone.begin() + std::ptrdiff_t(onset));
	const auto out = hostOutput(shifter, {tone, tone});

	// Analysed well after the onset, with every shifter settled.
	constexpr std::size_t window = 16384; // 2.9 Hz bins
	const std::size_t from = std::size_t(1.5 * rate);
	Quality q;
	const double inputPower = std::pow(rms(tone, onset + window, onset + 2 * window), 2);
	const double outputPower = std::pow(rms(out[0], from, from + window), 2);
	q.latencyMs = 1000 * (halfPowerTime(out[0], outputPower) - halfPowerTime(tone, inputPower)) / rate;

	std::vector<double> found;
	for (int k = 1; k <= partials; ++k) {
		const double target = k * f0 * ratio;
		found.push_back(peakFrequency(out[0], from, window, target, 15, rate));
		q.worstCents = std::max(q.worstCents, std::fabs(cents(found.back(), target)));
	}

	// Partials are what lies within the main lobe of each partial found;
	// everything else from 20 Hz to 20 kHz is spurious.
	const auto spectrum = amplitudeSpectrum(out[0], from, window);
	const double binHz = rate / double(window);
	std::vector<bool> partialBin(spectrum.size(), false);
	double partialSum = 0;
	for (double hz : found) {
		const double centre = hz / binHz;
		double peak = 0;
		for (std::size_t k = std::size_t(std::max(0.0, centre - 4.5)); k <= std::size_t(centre + 4.5) && k < spectrum.size(); ++k) {
			partialBin[k] = true;
			peak = std::max(peak, spectrum[k]);
		}
		partialSum += peak;
	}
	double spurious = 0;
	for (std::size_t k = std::size_t(20 / binHz); k < std::size_t(20000 / binHz); ++k) {
		if (!partialBin[k]) spurious = std::max(spurious, spectrum[k]);
	}
	q.spuriousDb = dB(spurious / (partialSum / partials));
	return q;
}

using Factory = std::function<std::unique_ptr<Shifter>()>;

void shifterCost(benchmark::State &state, const std::string &name, const Factory &make) {
	// Quality once per implementation: the benchmark function runs several times.
	static std::map<std::string, Quality> measured;
	if (!measured.count(name)) {
		auto fresh = make();
		if (!fresh || !fresh->ok()) {
			state.SkipWithError("the shifter could not be made");
			return;
		}
		measured[name] = measureQuality(*fresh);
	}
	auto shifter = make();

	// One second of music-like input, looped: the harmonic tone over quiet
	// noise, the channels a little different.
	const std::size_t length = std::size_t(rate);
	const auto tone = harmonicTone(220, 25, rate, length, 0.02);
	std::vector<float> left(length), right(length);
	std::mt19937 random(2);
	std::normal_distribution<float> noise(0.0f, 0.003f);
	for (std::size_t i = 0; i < length; ++i) {
		left[i] = tone[i] + noise(random);
		right[i] = 0.8f * tone[i] + noise(random);
	}
	std::vector<float> outL(maxOutput), outR(maxOutput);
	float *out[2] = {outL.data(), outR.data()};
	auto oneSecond = [&] {
		for (std::size_t pos = 0; pos < length; pos += block) {
			const float *in[2] = {left.data() + pos, right.data() + pos};
			shifter->process(in, std::min(block, length - pos), out);
		}
		benchmark::DoNotOptimize(outL.data());
		benchmark::ClobberMemory();
	};
	oneSecond(); // past the start-up

	const double cpuStart = processCpuSeconds();
	for (auto _ : state) oneSecond();
	const double cpuSeconds = processCpuSeconds() - cpuStart;

	const Quality &q = measured[name];
	state.counters["cpu_s_per_audio_s"] = cpuSeconds / double(state.iterations());
	state.counters["latency_ms"] = q.latencyMs;
	state.counters["pitch_error_cents"] = q.worstCents;
	state.counters["spurious_db"] = q.spuriousDb;
	state.SetLabel("stereo, 48 kHz, +5 semitones, blocks of 256");
}

void add(const std::string &name, Factory make) {
	benchmark::RegisterBenchmark(name.c_str(), [name, make](benchmark::State &state) { shifterCost(state, name, make); })
		->Unit(benchmark::kMillisecond);
}

const bool registered = [] {
	add("lumbrel", []() -> std::unique_ptr<Shifter> {
		const auto *b = bundle();
		return b ? std::make_unique<LumbrelShifter>(*b) : nullptr;
	});
#if LUMBREL_BENCH_RUBBERBAND
	using RubberBand::RubberBandStretcher;
	add("rubberband-r3", [] { return std::make_unique<RubberBandShifter>(RubberBandStretcher::OptionEngineFiner); });
	add("rubberband-r2", [] {
		return std::make_unique<RubberBandShifter>(
			RubberBandStretcher::OptionEngineFaster | RubberBandStretcher::OptionTransientsSmooth);
	});
#endif
#if LUMBREL_BENCH_SOUNDTOUCH
	add("soundtouch", [] { return std::make_unique<SoundTouchShifter>(); });
#endif
	return true;
}();

} // namespace
