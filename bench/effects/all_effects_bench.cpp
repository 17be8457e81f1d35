// The cost of the engine and of all ten effects in one run, with Rubber Band R3
// (real-time, +5 semitones) beside them as the peer.
//
// Every row runs the demo signal (voice, plucked melody over a chord, drum
// loop, over a faint hiss), stereo, in blocks of 256, looped, after one pass to
// warm up. The effects run through the CLAP ABI with their defaults (the pitch
// shifter at +5 semitones); "engine" is the engine alone through its C
// interface, with a pass-through effect. Counters per benchmark:
//   core_percent  CPU time per second of audio, as a share of one core
//   x_real_time   seconds of audio per second of CPU
// At the end, a table of the medians (run with --benchmark_repetitions=N, best
// with --benchmark_enable_random_interleaving=true on a busy machine) and each
// row's ratio to R3 from the same run.
#include "engine/engine.h"
#include "host/bundle.h"
#include "render/demo_signal.h"
#include "support/param_ids.h"
#include "support/plugin_runner.h"

#include <benchmark/benchmark.h>

#if LUMBREL_BENCH_RUBBERBAND
#include <rubberband/RubberBandStretcher.h>
#endif

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr std::size_t block = 256;

double processCpuSeconds() {
	timespec now;
	clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
	return double(now.tv_sec) + 1e-9 * double(now.tv_nsec);
}

const lumbrel::host::Bundle *bundle() {
	static std::string error;
	static std::unique_ptr<lumbrel::host::Bundle> loaded = lumbrel::host::Bundle::load(LUMBREL_BUNDLE_PATH, error);
	if (!loaded) std::fprintf(stderr, "cannot load %s: %s\n", LUMBREL_BUNDLE_PATH, error.c_str());
	return loaded.get();
}

const lumbrel::render::Audio &signalAt(double rate) {
	static std::map<double, lumbrel::render::Audio> made;
	auto found = made.find(rate);
	if (found == made.end()) found = made.emplace(rate, lumbrel::render::demoSignal(rate)).first;
	return found->second;
}

// Runs stereo blocks; process() handles up to `block` frames.
class Processor {
public:
	virtual ~Processor() = default;
	virtual bool ok() const { return true; }
	virtual void process(const float *const *input, std::size_t frames, float *const *output) = 0;
};

class PluginProcessor final : public Processor {
public:
	PluginProcessor(const std::string &id, double rate, const std::vector<std::pair<clap_id, double>> &values)
		: runner(*bundle(), id.c_str(), rate, block) {
		if (runner.ok) {
			for (const auto &[param, value] : values) runner.set(param, value);
		}
	}
	bool ok() const override { return runner.ok; }
	void process(const float *const *input, std::size_t frames, float *const *output) override {
		runner.out.clear();
		runner.instance->process(const_cast<float *const *>(input), 2, output, 2, std::uint32_t(frames), runner.events,
			runner.out);
	}

private:
	lumbrel_test::PluginRunner runner;
};

class EngineProcessor final : public Processor {
public:
	explicit EngineProcessor(double rate) {
		varkesh_lumbrel_config config = varkesh_lumbrel_config_default();
		engine = varkesh_lumbrel_engine_float_new(2, 2, float(rate), &config);
		varkesh_lumbrel_engine_float_setCallbacks(engine, engine, passThrough, nullptr);
		varkesh_lumbrel_engine_float_reset(engine);
	}
	~EngineProcessor() override { varkesh_lumbrel_engine_float_delete(engine); }
	void process(const float *const *input, std::size_t frames, float *const *output) override {
		varkesh_lumbrel_engine_float_process(engine, input, const_cast<float **>(output), frames);
	}

private:
	varkesh_lumbrel_engine_float *engine;
	static bool passThrough(void *user) {
		auto *e = static_cast<varkesh_lumbrel_engine_float *>(user);
		for (std::size_t c = 0; c < 2; ++c) {
			varkesh_lumbrel_engine_float_addOutputSplit(
				e, c, varkesh_lumbrel_engine_float_inputReal(e, c), varkesh_lumbrel_engine_float_inputImag(e, c));
		}
		return true;
	}
};

#if LUMBREL_BENCH_RUBBERBAND
class RubberBandProcessor final : public Processor {
public:
	explicit RubberBandProcessor(double rate)
		: stretcher(std::size_t(rate), 2,
			  RubberBand::RubberBandStretcher::OptionProcessRealTime | RubberBand::RubberBandStretcher::OptionEngineFiner,
			  1.0, std::exp2(5 / 12.0)),
		  scratchL(8192), scratchR(8192) {
		stretcher.setMaxProcessSize(block);
	}
	void process(const float *const *input, std::size_t frames, float *const *) override {
		stretcher.process(input, frames, false);
		float *at[2] = {scratchL.data(), scratchR.data()};
		for (int ready; (ready = stretcher.available()) > 0;) stretcher.retrieve(at, std::min<std::size_t>(ready, 8192));
	}

private:
	RubberBand::RubberBandStretcher stretcher;
	std::vector<float> scratchL, scratchR;
};
#endif

using Factory = std::function<std::unique_ptr<Processor>(double rate)>;

struct Row {
	std::string name;
	double rate;
	Factory make;
};

std::vector<Row> &rows() {
	static std::vector<Row> list;
	return list;
}

void cost(benchmark::State &state, const Row &row) {
	auto processor = row.make(row.rate);
	if (!processor || !processor->ok()) {
		state.SkipWithError("could not be made");
		return;
	}
	const auto &signal = signalAt(row.rate);
	const std::size_t length = signal.frames();
	std::vector<float> outL(block), outR(block);
	float *out[2] = {outL.data(), outR.data()};
	auto pass = [&] {
		for (std::size_t pos = 0; pos < length; pos += block) {
			const float *in[2] = {signal.channels[0].data() + pos, signal.channels[1].data() + pos};
			processor->process(in, std::min(block, length - pos), out);
		}
		benchmark::DoNotOptimize(outL.data());
		benchmark::ClobberMemory();
	};
	pass(); // warm-up
	const double start = processCpuSeconds();
	for (auto _ : state) pass();
	const double cpu = processCpuSeconds() - start;
	const double audio = double(state.iterations()) * double(length) / row.rate;
	state.counters["core_percent"] = 100 * cpu / audio;
	state.counters["x_real_time"] = audio / cpu;
}

// Collects the median (or the only run) of each benchmark's core_percent.
class Collector : public benchmark::ConsoleReporter {
public:
	std::map<std::string, std::vector<double>> runs;
	std::vector<std::string> order;
	void ReportRuns(const std::vector<Run> &reports) override {
		ConsoleReporter::ReportRuns(reports);
		for (const auto &run : reports) {
			if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
			auto found = run.counters.find("core_percent");
			if (found == run.counters.end()) continue;
			std::string name = run.run_name.function_name;
			if (!runs.count(name)) order.push_back(name);
			runs[name].push_back(found->second.value);
		}
	}
};

double median(std::vector<double> v) {
	std::sort(v.begin(), v.end());
	std::size_t n = v.size();
	return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

void printTable(const Collector &collector) {
	const auto r3 = collector.runs.find("rubberband-r3/48k");
	const double r3Median = r3 == collector.runs.end() ? 0 : median(r3->second);
	std::printf("\nMedians of %zu run(s); stereo, blocks of 256, demo signal\n",
		collector.runs.empty() ? std::size_t(0) : collector.runs.begin()->second.size());
	std::printf("%-26s %14s %12s %10s\n", "", "% of one core", "x real time", "/ R3");
	for (const auto &name : collector.order) {
		const double m = median(collector.runs.at(name));
		std::printf("%-26s %12.2f %% %12.1f", name.c_str(), m, 100 / m);
		if (r3Median > 0) std::printf(" %9.2fx", m / r3Median);
		std::printf("\n");
	}
}

void add(const std::string &name, double rate, Factory make) {
	rows().push_back({name, rate, std::move(make)});
}

Factory plugin(const std::string &shortId, std::vector<std::pair<clap_id, double>> values = {}) {
	return [id = "varkesh.lumbrel." + shortId, values](double rate) -> std::unique_ptr<Processor> {
		if (!bundle()) return nullptr;
		return std::make_unique<PluginProcessor>(id, rate, values);
	};
}

void registerAll() {
	auto engine = [](double rate) -> std::unique_ptr<Processor> { return std::make_unique<EngineProcessor>(rate); };
	add("engine/48k", 48000, engine);
	add("engine/44.1k", 44100, engine);
	add("engine/96k", 96000, engine);
	const char *effects[] = {"octaver", "cleanup", "chorus", "chorus-detune", "transients", "swell", "decay-scale",
		"frequency-snap", "shepard-drop"};
	const auto shifter = plugin("pitch-shifter-layer1", {{lumbrel_test::paramId({"peakShifterConfig", "semitones"}), 5}});
	add("pitch-shifter+5/48k", 48000, shifter);
	add("pitch-shifter+5/44.1k", 44100, shifter);
	add("pitch-shifter+5/96k", 96000, shifter);
	for (const char *effect : effects) add(std::string(effect) + "/48k", 48000, plugin(effect));
#if LUMBREL_BENCH_RUBBERBAND
	add("rubberband-r3/48k", 48000, [](double rate) { return std::make_unique<RubberBandProcessor>(rate); });
#endif
	for (const Row &row : rows()) {
		benchmark::RegisterBenchmark(row.name.c_str(), [&row](benchmark::State &state) { cost(state, row); })
			->Unit(benchmark::kMillisecond);
	}
}

} // namespace

int main(int argc, char **argv) {
	registerAll();
	benchmark::Initialize(&argc, argv);
	if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
	Collector collector;
	benchmark::RunSpecifiedBenchmarks(&collector);
	printTable(collector);
	benchmark::Shutdown();
	return 0;
}
