// Replays a fuzz target's seed corpus through the target itself in the
// ordinary test build: every seed, and prefixes of it (every
// LUMBREL_FUZZ_PREFIX_STEP-th length), so that a seed also stands for the
// inputs that stop inside it. A target's failed check aborts the process,
// which fails this test; its return value says nothing.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace {

TEST(FuzzCorpus, SeedsAndTheirPrefixesPassTheChecks) {
	std::size_t seeds = 0;
	for (const auto &entry : std::filesystem::directory_iterator(LUMBREL_FUZZ_CORPUS_DIR)) {
		if (!entry.is_regular_file()) continue;
		SCOPED_TRACE(entry.path().filename().string());
		std::ifstream file(entry.path(), std::ios::binary);
		const std::vector<std::uint8_t> seed((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
		for (std::size_t length = 0; length <= seed.size(); length += LUMBREL_FUZZ_PREFIX_STEP) {
			// An exact-size copy, so that a sanitizer build sees any read past the end.
			const std::vector<std::uint8_t> prefix(seed.begin(), seed.begin() + std::ptrdiff_t(length));
			LLVMFuzzerTestOneInput(prefix.data(), prefix.size());
		}
		LLVMFuzzerTestOneInput(seed.data(), seed.size());
		++seeds;
	}
	EXPECT_GE(seeds, std::size_t(LUMBREL_FUZZ_MIN_SEEDS));
}

} // namespace
