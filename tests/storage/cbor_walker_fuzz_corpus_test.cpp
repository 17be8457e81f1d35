// Replays the seed corpus of fuzz/cbor_walker_fuzz.cpp through the fuzz target
// in the ordinary test build: every seed, and every prefix of it, so that each
// seed also stands for the buffers that stop inside it.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace {

TEST(CborWalkerFuzzCorpus, SeedsAndTheirPrefixesPassTheChecks) {
	std::size_t seeds = 0;
	for (const auto &entry : std::filesystem::directory_iterator(LUMBREL_CBOR_CORPUS_DIR)) {
		if (!entry.is_regular_file()) continue;
		SCOPED_TRACE(entry.path().filename().string());
		std::ifstream file(entry.path(), std::ios::binary);
		const std::vector<std::uint8_t> seed((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
		for (std::size_t length = 0; length <= seed.size(); ++length) {
			// An exact-size copy, so that a sanitizer build sees any read past the end.
			const std::vector<std::uint8_t> prefix(seed.begin(), seed.begin() + length);
			EXPECT_EQ(LLVMFuzzerTestOneInput(prefix.data(), prefix.size()), 0);
		}
		++seeds;
	}
	EXPECT_GE(seeds, 30u);
}

} // namespace
