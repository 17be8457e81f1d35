// The engine's geometry at each rate and resolution, the band map and its inverse, the emphasis shelf, the allocation
// hook.
#include "engine/bump_allocator.h"
#include "engine/emphasis_shelf.h"
#include "engine/engine_impl.h"
#include "engine_harness.h"

#include <gtest/gtest.h>

namespace {

using namespace lumbrel_test;
using varkesh::lumbrel::EngineImpl;

const EngineImpl<float> &impl(const Engine &engine) { return *engine.handle; }

// The FFT a power of two times 1, 3 or 5 no smaller than the window; bands up to Nyquist, as many tracked wherever the
// bin width is the same, all of them without directCopy; resolution sets the knee.
TEST(EngineGeometry, SizesAtEachRateAndResolution) {
	struct Case {
		float sampleRate; double resolution; bool directCopy;
		std::size_t latency, interval, window, fft, bands, lowBands;
	};
	const Case cases[] = {{48000, 20, true, 480, 120, 720, 768, 677, 417}, {44100, 20, true, 441, 110, 662, 768, 648, 417},
		{96000, 20, true, 960, 240, 1440, 1536, 1037, 417}, {48000, 20, false, 480, 120, 720, 768, 677, 677},
		{48000, 5, true, 480, 120, 720, 768, 397, 71}, {48000, 40, true, 480, 120, 720, 768, 1118, 912}};
	for (const Case &c : cases) {
		varkesh_lumbrel_config config = varkesh_lumbrel_config_default();
		config.resolution = c.resolution;
		config.directCopy = c.directCopy;
		Engine engine(2, 2, c.sampleRate, config);
		SCOPED_TRACE(testing::Message() << c.sampleRate << " Hz, resolution " << c.resolution << (c.directCopy ? "" : ", all tracked"));
		EXPECT_EQ(varkesh_lumbrel_engine_float_latencySamples(engine), c.latency);
		EXPECT_FLOAT_EQ(varkesh_lumbrel_engine_float_subRate(engine), c.sampleRate / float(c.interval));
		EXPECT_EQ(varkesh_lumbrel_engine_float_bands(engine), c.bands);
		EXPECT_EQ(impl(engine).interval(), c.interval);
		EXPECT_EQ(impl(engine).windowLength(), c.window);
		EXPECT_EQ(impl(engine).fftSize(), c.fft);
		EXPECT_EQ(impl(engine).lowBandCount(), c.lowBands);
	}
}

// Bands widen up to the knee and are one bin apart above it; band 0 is 0 Hz, the top band below Nyquist. The map back
// from Hz inverts it.
TEST(EngineGeometry, BandLayoutAndItsInverse) {
	for (double resolution : {5.0, 20.0, 40.0}) {
		varkesh_lumbrel_config config = varkesh_lumbrel_config_default();
		config.resolution = resolution;
		Engine engine(1, 1, 48000, config);
		const std::size_t bands = varkesh_lumbrel_engine_float_bands(engine), low = impl(engine).lowBandCount();
		const float binHz = 48000.0f / 720.0f;
		auto hz = [&](std::size_t b) { return varkesh_lumbrel_engine_float_nominalHz(engine, b); };
		auto band = [&](float f) { return varkesh_lumbrel_engine_float_nominalBand(engine, f); };
		SCOPED_TRACE(resolution);
		EXPECT_EQ(hz(0), 0.0f);
		for (std::size_t b = 2; b <= low; ++b) {
			ASSERT_GT(hz(b) - hz(b - 1), hz(b - 1) - hz(b - 2) - 1e-3f) << "spacing shrinks at band " << b;
			ASSERT_LT(hz(b) - hz(b - 1), binHz) << "band " << b;
		}
		for (std::size_t b = low + 1; b < bands; ++b) ASSERT_NEAR(hz(b) - hz(b - 1), binHz, 0.01f) << "band " << b;
		EXPECT_FLOAT_EQ(impl(engine).kneeHz(), hz(low));
		EXPECT_LT(hz(bands - 1), 24000.0f);
		EXPECT_GE(hz(bands - 1) + binHz, 24000.0f);
		EXPECT_EQ(band(0), 0.0f);
		EXPECT_EQ(band(-100), 0.0f);
		EXPECT_EQ(band(impl(engine).kneeHz()), float(low));
		EXPECT_EQ(band(1e6f), float(bands) - 1.001f);
		EXPECT_NEAR(band(hz(low / 2)), float(low / 2), 1e-3f * float(low));
		EXPECT_NEAR(band(hz(low - 1)), float(low - 1), 1e-3f * float(low));
		for (std::size_t b = 1; b < low; b += 7) EXPECT_NEAR(band(hz(b)), float(b), 0.02f * float(low)) << "band " << b;
		for (std::size_t b = low; b < bands; b += 13) EXPECT_NEAR(band(hz(b)), float(b), 1e-3f * float(b)) << "band " << b;
	}
}

// The shelf lifts the top by its gain and leaves the bottom alone.
TEST(EmphasisShelf, LiftsTheTopByTheGain) {
	for (float sampleRate : {44100.0f, 48000.0f, 96000.0f}) {
		varkesh::lumbrel::Shelf shelf;
		varkesh::lumbrel::designEmphasisShelf(shelf, 12.0, sampleRate);
		const std::size_t fft = 1536;
		std::vector<float> flatten(fft / 2 + 1);
		varkesh::lumbrel::fillFlatten(flatten.data(), flatten.size(), fft, shelf);
		auto gainAt = [&](double hz) { return -dB(flatten[std::size_t(hz / sampleRate * double(fft) + 0.5)]); };
		SCOPED_TRACE(sampleRate);
		EXPECT_NEAR(gainAt(0), 0.0, 0.01);
		EXPECT_NEAR(gainAt(150), 0.0, 0.5);
		EXPECT_NEAR(gainAt(15000), 12.0, 0.5);
		EXPECT_NEAR(gainAt(sampleRate * 0.5), 12.0, 0.1);
		EXPECT_TRUE(gainAt(1200) > 3 && gainAt(1200) < 9) << gainAt(1200);
	}
}

// A bump arena that records each request.
struct Arena {
	alignas(64) static inline unsigned char memory[8 << 20];
	static inline std::size_t used = 0, calls = 0, badAlignments = 0;
	static inline bool answerNull = false;
	static void *allocate(std::size_t bytes, std::size_t alignment) {
		++calls;
		badAlignments += alignment != 4 && alignment != 8;
		used = (used + alignment - 1) / alignment * alignment;
		if (answerNull || used + bytes > sizeof(memory)) return nullptr;
		used += bytes;
		return memory + used - bytes;
	}
	static bool owns(const void *p) { return p >= memory && p < memory + sizeof(memory); }
};

// With the hook set the engine and its rows come from the arena, aligned, and delete leaves it alone; a null answer
// falls back to malloc.
TEST(BumpHook, EngineLivesInTheArenaOrFallsBackToMalloc) {
	EXPECT_EQ(varkesh_lumbrel_get_bump_malloc(), nullptr);
	for (bool answerNull : {false, true}) {
		Arena::answerNull = answerNull;
		Arena::calls = 0;
		ASSERT_TRUE(varkesh_lumbrel_set_bump_malloc(Arena::allocate));
		EXPECT_EQ(varkesh_lumbrel_get_bump_malloc(), &Arena::allocate);
		varkesh_lumbrel_config config = varkesh_lumbrel_config_default();
		auto *engine = varkesh_lumbrel_engine_float_new(2, 2, 48000, &config);
		EXPECT_EQ(Arena::owns(engine), !answerNull);
		EXPECT_GT(Arena::calls, 30u);
		EXPECT_EQ(Arena::badAlignments, 0u);
		PassThrough effect{engine, 2};
		effect.attach();
		varkesh_lumbrel_engine_float_reset(engine);
		EXPECT_EQ(Arena::owns(varkesh_lumbrel_engine_float_inputReal(engine, 1)), !answerNull);
		const Signal x = sine(300, 48000, 4800);
		const Channels y = run(engine, {x, x}, 2, 256);
		EXPECT_LT(std::abs(levelDb(y[1], x, 480, 2400, 2400)), 1.0);
		const std::size_t used = Arena::used;
		if (answerNull) varkesh_lumbrel_set_bump_malloc(nullptr);
		varkesh_lumbrel_engine_float_delete(engine);
		EXPECT_EQ(Arena::used, used);
		varkesh_lumbrel_set_bump_malloc(nullptr);
	}
}

} // namespace
