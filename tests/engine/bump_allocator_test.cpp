// The allocation hook: engine memory comes from it, a null answer falls back to
// malloc, and with a hook set nothing is ever freed piece by piece.
#include "engine/bump_allocator.h"
#include "engine_harness.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

using namespace lumbrel_test;

// A bump arena: hands out aligned pieces of one block and records each request.
struct Arena {
	alignas(64) static inline unsigned char memory[8 << 20];
	static inline std::size_t used = 0, calls = 0, badAlignments = 0;
	static inline bool answerNull = false;

	static void *allocate(std::size_t bytes, std::size_t alignment) {
		++calls;
		if (alignment != 4 && alignment != 8) ++badAlignments;
		if (answerNull) return nullptr;
		used = (used + alignment - 1) / alignment * alignment;
		if (used + bytes > sizeof(memory)) return nullptr;
		void *p = memory + used;
		used += bytes;
		return p;
	}
	static bool owns(const void *p) {
		auto *b = static_cast<const unsigned char *>(p);
		return b >= memory && b < memory + sizeof(memory);
	}
	static void clear() { used = calls = badAlignments = 0; answerNull = false; }
};

struct BumpHook : ::testing::Test {
	void SetUp() override { Arena::clear(); }
	void TearDown() override { varkesh_lumbrel_set_bump_malloc(nullptr); }
};

TEST_F(BumpHook, SetAndGet) {
	EXPECT_EQ(varkesh_lumbrel_get_bump_malloc(), nullptr);
	EXPECT_TRUE(varkesh_lumbrel_set_bump_malloc(Arena::allocate));
	EXPECT_EQ(varkesh_lumbrel_get_bump_malloc(), &Arena::allocate);
	EXPECT_TRUE(varkesh_lumbrel_set_bump_malloc(nullptr));
	EXPECT_EQ(varkesh_lumbrel_get_bump_malloc(), nullptr);
}

// The allocator asks for the element's alignment and frees nothing with a hook
// set (a free of arena memory would abort the process).
TEST_F(BumpHook, AllocatorUsesTheHookWithTheElementAlignment) {
	varkesh_lumbrel_set_bump_malloc(Arena::allocate);
	{
		varkesh::lumbrel::BumpVector<float> floats(100, 1.0f);
		varkesh::lumbrel::BumpVector<double *> pointers(10, nullptr);
		EXPECT_TRUE(Arena::owns(floats.data()));
		EXPECT_TRUE(Arena::owns(pointers.data()));
		EXPECT_EQ(reinterpret_cast<std::uintptr_t>(pointers.data()) % 8, 0u);
	}
	EXPECT_EQ(Arena::calls, 2u);
	EXPECT_EQ(Arena::badAlignments, 0u);
}

// With a hook, the engine object and its arrays come from the arena; delete runs
// the destructor and leaves the memory to the arena's owner.
TEST_F(BumpHook, EngineLivesInTheArenaAndDeleteLeavesItAlone) {
	varkesh_lumbrel_set_bump_malloc(Arena::allocate);
	varkesh_lumbrel_config config = varkesh_lumbrel_config_default();
	auto *engine = varkesh_lumbrel_engine_float_new(2, 2, 48000, &config);
	EXPECT_TRUE(Arena::owns(engine));
	EXPECT_EQ(reinterpret_cast<std::uintptr_t>(engine) % 8, 0u);
	EXPECT_GT(Arena::calls, 30u);
	EXPECT_EQ(Arena::badAlignments, 0u);

	PassThrough effect{engine, 2};
	effect.attach();
	varkesh_lumbrel_engine_float_reset(engine);
	EXPECT_TRUE(Arena::owns(varkesh_lumbrel_engine_float_inputReal(engine, 1)));
	Signal x = sine(300, 48000, 4800);
	Channels y = run(engine, {x, x}, 2, 256);
	EXPECT_LT(std::abs(levelDb(y[1], x, 480, 2400, 2400)), 1.0);

	std::size_t used = Arena::used;
	varkesh_lumbrel_engine_float_delete(engine);
	EXPECT_EQ(Arena::used, used);
}

// A hook that answers null leaves every allocation to malloc, and the engine
// works as without one.
TEST_F(BumpHook, NullAnswerFallsBackToMalloc) {
	varkesh_lumbrel_set_bump_malloc(Arena::allocate);
	Arena::answerNull = true;
	varkesh_lumbrel_config config = varkesh_lumbrel_config_default();
	auto *engine = varkesh_lumbrel_engine_float_new(1, 1, 48000, &config);
	EXPECT_FALSE(Arena::owns(engine));
	EXPECT_GT(Arena::calls, 30u);

	PassThrough effect{engine, 1};
	effect.attach();
	varkesh_lumbrel_engine_float_reset(engine);
	Signal x = sine(300, 48000, 4800);
	Channels y = run(engine, {x}, 1, 256);
	EXPECT_LT(std::abs(levelDb(y[0], x, 480, 2400, 2400)), 1.0);
	// With the hook still set, delete would leave the fallback memory allocated (a
	// leak by design); everything came from malloc, so removing the hook first
	// gives it all back.
	varkesh_lumbrel_set_bump_malloc(nullptr);
	varkesh_lumbrel_engine_float_delete(engine);
}

} // namespace
