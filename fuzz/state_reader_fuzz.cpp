// libFuzzer target for reading an object tree from arbitrary bytes, the way a
// saved state or a page's merge is read. Whatever the bytes, the read must end
// without a fault, keep every row within what the input could describe, and
// leave an object that writes and reads back to the same bytes.
//
// Built by scripts/fuzz.sh with clang and -fsanitize=fuzzer,address,undefined.
#include "storage/storage_cbor_reader.h"
#include "storage/storage_cbor_writer.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

struct FuzzKind {};
using Writer = varkesh::storage::StorageCborWriter<FuzzKind>;
using Reader = varkesh::storage::StorageCborReader<FuzzKind>;

[[noreturn]] void fail(const char *what, int line) {
	std::fprintf(stderr, "state_reader_fuzz.cpp:%d: check failed: %s\n", line, what);
	std::abort();
}
#define FUZZ_CHECK(condition) ((condition) ? (void)0 : fail(#condition, __LINE__))

// A parameter as the effects have them: notices its own change.
struct Param {
	double value = 0.5;
	template<class S>
	void state(S &s) {
		if constexpr (S::isWriter) {
			s("value", value);
		} else {
			const double before = value;
			s("value", value);
			if (!(value == before) && !(value != value && before != before)) {
				s.changed = true;
				if (s.dirty) s.dirty->whole.insert(s.currentObject);
			}
		}
	}
};

struct Stepped {
	int value = 1;
	template<class S>
	void state(S &s) {
		s("value", value);
	}
};

struct Group {
	char own = 0;
	Param latencyMs, overlap;
	Stepped directCopy;
	template<class S>
	void state(S &s) {
		s.extra("name", "Engine");
		s.extra("desc", "");
		int version = 0;
		s("version", version);
		s.range("latencyMs", latencyMs);
		s.range("overlap", overlap);
		s.stepped("directCopy", directCopy);
	}
};

struct Spectrum {
	bool hzChanged = true;
	std::vector<float> hz{0, 100, 200};
	std::vector<std::vector<float>> energy{{1, 2, 3}};
	template<class S>
	void state(S &s) {
		s("hzChanged", hzChanged);
		s("hz", hz);
		s("energy", energy);
	}
};

struct Root {
	char own = 0;
	Group engineConfig;
	Param mix;
	Stepped mode;
	Spectrum analysisSpectrum;
	template<class S>
	void state(S &s) {
		s.extra("name", "Fuzz");
		s("engineConfig", engineConfig);
		s.range("mix", mix);
		s.stepped("mode", mode);
	}
	template<class S>
	void uiState(S &s) {
		s("analysisSpectrum", analysisSpectrum);
	}
};

std::vector<unsigned char> write(Root &root) {
	std::vector<unsigned char> bytes;
	Writer writer(bytes, nullptr, true);
	writer.writeObject(root);
	return bytes;
}

std::size_t cells(const Root &root) {
	std::size_t n = root.analysisSpectrum.hz.size() + root.analysisSpectrum.energy.size();
	for (const auto &row : root.analysisSpectrum.energy) n += row.size();
	return n;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
	Root root;
	const std::size_t cellsBefore = cells(root);
	varkesh::storage::DirtySet dirty;
	Reader reader(varkesh::cbor::TaggedCborWalker(data, data + size), &dirty, true);
	reader.readObject(root);
	// Rows can only grow by what the input describes: no element costs less
	// than a byte, and a typed array's elements lie inside the input.
	FUZZ_CHECK(cells(root) <= cellsBefore + 4 * size + 8);

	// What was read writes and reads back the same.
	const std::vector<unsigned char> first = write(root);
	Root again;
	Reader back(varkesh::cbor::TaggedCborWalker(first.data(), first.data() + first.size()), nullptr, true);
	FUZZ_CHECK(back.readObject(again));
	FUZZ_CHECK(write(again) == first);
	return 0;
}
