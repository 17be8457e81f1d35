// Engine geometry as seen through the exported functions (and, for sizes the C
// interface does not show, the engine object behind the handle).
#include "engine/engine_impl.h"
#include "engine_harness.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using lumbrel_test::Engine;
using varkesh::lumbrel::EngineImpl;

const EngineImpl<float> &impl(const Engine &engine) { return *engine.handle; }

TEST(EngineInterface, DefaultsAndVersion) {
	varkesh_lumbrel_config config = varkesh_lumbrel_config_default();
	EXPECT_EQ(config.latencyMs, 10.0);
	EXPECT_EQ(config.intervalMs, 2.5);
	EXPECT_EQ(config.resolution, 20.0);
	EXPECT_EQ(config.resolutionReference, 20.0);
	EXPECT_EQ(config.emphasis, 12.0);
	EXPECT_EQ(config.iterations, 4u);
	EXPECT_TRUE(config.directCopy);
	EXPECT_EQ(config.blockMultiple, 0u);
	EXPECT_STREQ(varkesh_lumbrel_core_version(), "(development)");
}

struct GeometryCase {
	float sampleRate;
	std::size_t latency, interval, window, fft, bands, lowBands;
};

class EngineGeometry : public ::testing::TestWithParam<GeometryCase> {};

// Block, interval and window from the milliseconds; the FFT size a power of two
// times 1, 3 or 5 no smaller than the window; bands up to Nyquist, and the same
// number of tracked bands wherever the window's bin width is the same.
TEST_P(EngineGeometry, SizesAtDefaults) {
	const GeometryCase &expected = GetParam();
	Engine engine(2, 2, expected.sampleRate, varkesh_lumbrel_config_default());
	EXPECT_EQ(varkesh_lumbrel_engine_float_latencySamples(engine), expected.latency);
	EXPECT_FLOAT_EQ(varkesh_lumbrel_engine_float_subRate(engine), expected.sampleRate / float(expected.interval));
	EXPECT_EQ(varkesh_lumbrel_engine_float_bands(engine), expected.bands);
	EXPECT_EQ(impl(engine).interval(), expected.interval);
	EXPECT_EQ(impl(engine).windowLength(), expected.window);
	EXPECT_EQ(impl(engine).fftSize(), expected.fft);
	EXPECT_EQ(impl(engine).lowBandCount(), expected.lowBands);
}

INSTANTIATE_TEST_SUITE_P(SampleRates, EngineGeometry,
	::testing::Values(GeometryCase{48000, 480, 120, 720, 768, 677, 417}, GeometryCase{44100, 441, 110, 662, 768, 648, 417},
		GeometryCase{96000, 960, 240, 1440, 1536, 1037, 417}),
	[](const auto &info) { return std::to_string(int(info.param.sampleRate)); });

// Bands are spaced below the window's bin width up to the knee and exactly one
// bin width apart above it; band 0 is 0 Hz and the top band is below Nyquist.
TEST(EngineGeometry, BandLayoutAroundTheKnee) {
	Engine engine(1, 1, 48000, varkesh_lumbrel_config_default());
	std::size_t bands = varkesh_lumbrel_engine_float_bands(engine);
	std::size_t low = impl(engine).lowBandCount();
	float binHz = 48000.0f / 720.0f;
	auto hz = [&](std::size_t b) { return varkesh_lumbrel_engine_float_nominalHz(engine, b); };

	EXPECT_EQ(hz(0), 0.0f);
	for (std::size_t b = 2; b <= low; ++b) {
		EXPECT_GT(hz(b) - hz(b - 1), hz(b - 1) - hz(b - 2) - 1e-3f) << "spacing shrinks at band " << b;
		EXPECT_LT(hz(b) - hz(b - 1), binHz) << "band " << b;
	}
	EXPECT_FLOAT_EQ(impl(engine).kneeHz(), hz(low));
	for (std::size_t b = low + 1; b < bands; ++b) EXPECT_NEAR(hz(b) - hz(b - 1), binHz, 0.01f) << "band " << b;
	EXPECT_LT(hz(bands - 1), 24000.0f);
	EXPECT_GE(hz(bands - 1) + binHz, 24000.0f);
}

TEST(EngineGeometry, WithoutDirectCopyAllBandsAreTracked) {
	varkesh_lumbrel_config config = varkesh_lumbrel_config_default();
	config.directCopy = false;
	Engine engine(2, 2, 48000, config);
	EXPECT_EQ(varkesh_lumbrel_engine_float_bands(engine), 677u);
	EXPECT_EQ(impl(engine).lowBandCount(), 677u);
}

TEST(EngineGeometry, ResolutionSetsTheKnee) {
	varkesh_lumbrel_config config = varkesh_lumbrel_config_default();
	config.resolution = 5;
	Engine coarse(1, 1, 48000, config);
	EXPECT_EQ(varkesh_lumbrel_engine_float_bands(coarse), 397u);
	EXPECT_EQ(impl(coarse).lowBandCount(), 71u);
	EXPECT_NEAR(impl(coarse).kneeHz(), 2272.76f, 0.01f);

	config.resolution = 40;
	Engine fine(1, 1, 48000, config);
	EXPECT_EQ(varkesh_lumbrel_engine_float_bands(fine), 1118u);
	EXPECT_EQ(impl(fine).lowBandCount(), 912u);
}

// The map from Hz back to bands passes through 0, the middle and the last low
// band and the knee, is linear above it, and stays below the last band.
TEST(EngineGeometry, NominalBandInvertsNominalHz) {
	for (double resolution : {5.0, 20.0, 40.0}) {
		varkesh_lumbrel_config config = varkesh_lumbrel_config_default();
		config.resolution = resolution;
		Engine engine(1, 1, 48000, config);
		std::size_t bands = varkesh_lumbrel_engine_float_bands(engine);
		std::size_t low = impl(engine).lowBandCount();
		auto band = [&](float hz) { return varkesh_lumbrel_engine_float_nominalBand(engine, hz); };
		auto hz = [&](std::size_t b) { return varkesh_lumbrel_engine_float_nominalHz(engine, b); };
		SCOPED_TRACE(resolution);

		EXPECT_EQ(band(0), 0.0f);
		EXPECT_EQ(band(-100), 0.0f);
		EXPECT_EQ(band(impl(engine).kneeHz()), impl(engine).kneeBand());
		EXPECT_EQ(impl(engine).kneeBand(), float(low));
		EXPECT_EQ(band(1e6f), float(bands) - 1.001f);
		EXPECT_NEAR(band(hz(low / 2)), float(low / 2), 1e-3f * float(low));
		EXPECT_NEAR(band(hz(low - 1)), float(low - 1), 1e-3f * float(low));
		// Between the anchors the rational map is only close to the scan.
		for (std::size_t b = 1; b < low; b += 7) EXPECT_NEAR(band(hz(b)), float(b), 0.02f * float(low)) << "band " << b;
		for (std::size_t b = low; b < bands; b += 13) EXPECT_NEAR(band(hz(b)), float(b), 1e-3f * float(b)) << "band " << b;
	}
}

TEST(EngineGeometry, BlockMultipleLowersTheLatencyByTheCommonDivisor) {
	varkesh_lumbrel_config config = varkesh_lumbrel_config_default();
	for (auto [multiple, latency] : {std::pair{0, 480}, {64, 472}, {120, 360}, {7, 479}, {480, 360}}) {
		config.blockMultiple = std::uint64_t(multiple);
		Engine engine(1, 1, 48000, config);
		EXPECT_EQ(varkesh_lumbrel_engine_float_latencySamples(engine), std::size_t(latency)) << "blockMultiple " << multiple;
	}
}

} // namespace
