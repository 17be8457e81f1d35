// Times the toolkit's transforms next to FFTW's single-precision plans
// (FFTW_MEASURE), in one run so that the table compares like with like.
//
// Names: <implementation>_<kind>/<size>, for example lumbrel_split/512,
// fftw_split/512, lumbrel_real/768, fftw_r2c/768. `lumbrel_baseline_split` is
// the SSE2 build of the same transform, which machines without AVX2 run;
// `fftw_interleaved` is FFTW's complex transform on interleaved data.
#include "linear/pow2_fft.h"
#include "linear/real_fft.h"
#if !defined(__APPLE__)
#include "linear/platform_fft_plan.h"
#endif

#include <benchmark/benchmark.h>
#if LUMBREL_BENCH_FFTW
#include <fftw3.h>
#endif

#include <complex>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

const std::size_t pow2Sizes[] = {64, 128, 256, 512, 1024};
const std::size_t realSizes[] = {640, 768, 1280, 1536};

// 64-byte aligned float rows, like FFTW's own allocation.
struct AlignedRow {
	float *data;
	explicit AlignedRow(std::size_t n) : data(static_cast<float *>(std::aligned_alloc(64, ((n * 4 + 63) / 64) * 64))) {
		std::mt19937 rng(n);
		std::uniform_real_distribution<float> dist(-1, 1);
		for (std::size_t i = 0; i < n; ++i) data[i] = dist(rng);
	}
	~AlignedRow() { std::free(data); }
	AlignedRow(const AlignedRow &) = delete;
};

void lumbrelSplit(benchmark::State &state, std::size_t n) {
	varkesh::linear::Pow2FFT<float> fft(n);
	AlignedRow inR(n), inI(n), outR(n), outI(n);
	for (auto _ : state) {
		fft.fft(inR.data, inI.data, outR.data, outI.data);
		benchmark::ClobberMemory();
	}
}

#if !defined(__APPLE__)
void lumbrelBaselineSplit(benchmark::State &state, std::size_t n) {
	using namespace varkesh::linear::platform;
	std::size_t log2 = 0;
	while ((std::size_t(1) << log2) < n) ++log2;
	FFTSetup *setup = detail::createFFTSetupFor(log2, detail::FFTImplementation::baseline);
	AlignedRow inR(n), inI(n), outR(n), outI(n);
	for (auto _ : state) {
		fftSplit(setup, inR.data, inI.data, outR.data, outI.data, log2, false);
		benchmark::ClobberMemory();
	}
	destroyFFTSetup(setup);
}
#endif

void lumbrelReal(benchmark::State &state, std::size_t n) {
	varkesh::linear::RealFFT<float, false, false> fft(n);
	AlignedRow time(n), spectrum(n);
	auto *out = reinterpret_cast<std::complex<float> *>(spectrum.data);
	const std::size_t steps = fft.steps();
	for (auto _ : state) {
		for (std::size_t s = 0; s < steps; ++s) fft.fft(s, time.data, out);
		benchmark::ClobberMemory();
	}
}

#if LUMBREL_BENCH_FFTW
void fftwSplit(benchmark::State &state, std::size_t n) {
	AlignedRow inR(n), inI(n), outR(n), outI(n);
	fftwf_iodim dim{int(n), 1, 1};
	fftwf_plan plan =
		fftwf_plan_guru_split_dft(1, &dim, 0, nullptr, inR.data, inI.data, outR.data, outI.data, FFTW_MEASURE);
	AlignedRow fresh(n); // planning with FFTW_MEASURE overwrites the input
	std::copy(fresh.data, fresh.data + n, inR.data);
	std::copy(fresh.data, fresh.data + n, inI.data);
	for (auto _ : state) {
		fftwf_execute_split_dft(plan, inR.data, inI.data, outR.data, outI.data);
		benchmark::ClobberMemory();
	}
	fftwf_destroy_plan(plan);
}

// FFTW's interleaved complex transform, for reference: its vector codelets
// are written for interleaved data.
void fftwInterleaved(benchmark::State &state, std::size_t n) {
	fftwf_complex *in = fftwf_alloc_complex(n), *out = fftwf_alloc_complex(n);
	fftwf_plan plan = fftwf_plan_dft_1d(int(n), in, out, FFTW_FORWARD, FFTW_MEASURE);
	AlignedRow fresh(2 * n);
	std::copy(fresh.data, fresh.data + 2 * n, reinterpret_cast<float *>(in));
	for (auto _ : state) {
		fftwf_execute_dft(plan, in, out);
		benchmark::ClobberMemory();
	}
	fftwf_destroy_plan(plan);
	fftwf_free(in);
	fftwf_free(out);
}

void fftwR2c(benchmark::State &state, std::size_t n) {
	float *in = fftwf_alloc_real(n);
	fftwf_complex *out = fftwf_alloc_complex(n / 2 + 1);
	fftwf_plan plan = fftwf_plan_dft_r2c_1d(int(n), in, out, FFTW_MEASURE);
	AlignedRow fresh(n);
	std::copy(fresh.data, fresh.data + n, in);
	for (auto _ : state) {
		fftwf_execute_dft_r2c(plan, in, out);
		benchmark::ClobberMemory();
	}
	fftwf_destroy_plan(plan);
	fftwf_free(in);
	fftwf_free(out);
}
#endif

int registerAll() {
	for (std::size_t n : pow2Sizes) {
		benchmark::RegisterBenchmark(("lumbrel_split/" + std::to_string(n)).c_str(), lumbrelSplit, n);
#if LUMBREL_BENCH_FFTW
		benchmark::RegisterBenchmark(("fftw_split/" + std::to_string(n)).c_str(), fftwSplit, n);
		benchmark::RegisterBenchmark(("fftw_interleaved/" + std::to_string(n)).c_str(), fftwInterleaved, n);
#endif
#if !defined(__APPLE__)
		benchmark::RegisterBenchmark(("lumbrel_baseline_split/" + std::to_string(n)).c_str(), lumbrelBaselineSplit, n);
#endif
	}
	for (std::size_t n : realSizes) {
		benchmark::RegisterBenchmark(("lumbrel_real/" + std::to_string(n)).c_str(), lumbrelReal, n);
#if LUMBREL_BENCH_FFTW
		benchmark::RegisterBenchmark(("fftw_r2c/" + std::to_string(n)).c_str(), fftwR2c, n);
#endif
	}
	return 0;
}
const int registered = registerAll();

} // namespace
