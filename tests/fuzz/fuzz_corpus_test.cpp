// Replays a fuzz target's seeds and their prefixes (every LUMBREL_FUZZ_PREFIX_STEP-th length)
// through the target: a failed check aborts the process, which fails the test.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

TEST(FuzzCorpus, SeedsAndTheirPrefixesPassTheChecks) {
	std::size_t seeds = 0;
	for (const auto &entry : std::filesystem::directory_iterator(LUMBREL_FUZZ_CORPUS_DIR)) {
		SCOPED_TRACE(entry.path().filename().string());
		std::ifstream file(entry.path(), std::ios::binary);
		const std::vector<std::uint8_t> seed((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
		for (std::size_t length = 0; length < seed.size() + LUMBREL_FUZZ_PREFIX_STEP; length += LUMBREL_FUZZ_PREFIX_STEP) {
			// An exact-size copy, so that a sanitizer build sees any read past the end.
			const std::vector<std::uint8_t> prefix(seed.begin(), seed.begin() + std::ptrdiff_t(std::min(length, seed.size())));
			LLVMFuzzerTestOneInput(prefix.data(), prefix.size());
		}
		++seeds;
	}
	EXPECT_GE(seeds, std::size_t(LUMBREL_FUZZ_MIN_SEEDS));
}
