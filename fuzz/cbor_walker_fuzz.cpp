// libFuzzer target for the CBOR reader. Whatever the bytes, every walk must
// end, stay inside the buffer and agree with itself; whatever reads cleanly
// must survive a copy through the writer unchanged. A failed check prints one
// line and aborts, which libFuzzer reports as a crash.
//
// Built by scripts/fuzz.sh with clang and -fsanitize=fuzzer,address,undefined;
// the storage tests also link it and replay the seed corpus through it.
#include "storage/cbor_diagnostic.h"
#include "storage/cbor_walker.h"
#include "storage/cbor_writer.h"
#include "storage/tagged_cbor_walker.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using varkesh::cbor::CborType;
using varkesh::cbor::CborWalker;
using varkesh::cbor::CborWriter;
using varkesh::cbor::TaggedCborWalker;

[[noreturn]] void fail(const char *what, int line) {
	std::fprintf(stderr, "cbor_walker_fuzz.cpp:%d: check failed: %s\n", line, what);
	std::abort();
}

#define FUZZ_CHECK(condition) ((condition) ? (void)0 : fail(#condition, __LINE__))

// Deeper items are still stepped over by next(), just not visited child by child.
constexpr unsigned visitDepth = 48;

struct Buffer {
	const unsigned char *begin;
	const unsigned char *end;

	bool holds(const CborWalker &w) const { return w.end == end && w.begin >= begin && w.begin <= end; }
};

// Reads a typed array into containers of four element types, which must all
// get the same count; a 32-bit float array must hold the source's bits and
// come back bit for bit through the writer.
void checkTypedArray(const TaggedCborWalker &item, std::size_t offset) {
	constexpr std::size_t room = 64;
	float floats[room];
	double doubles[room];
	std::int32_t ints[room];
	std::uint8_t small[room];
	const std::size_t count = item.readTypedArray(floats, offset, room);
	FUZZ_CHECK(count <= room);
	FUZZ_CHECK(item.readTypedArray(doubles, offset, room) == count);
	FUZZ_CHECK(item.readTypedArray(ints, offset, room) == count);
	FUZZ_CHECK(item.readTypedArray(small, offset, room) == count);
	if (count == 0 || (item.typedArrayTag & ~4) != 81) return;

	const bool bigEndian = (item.typedArrayTag & 4) == 0;
	for (std::size_t i = 0; i < count; ++i) {
		const unsigned char *source = item.data + 4 * (offset + i);
		FUZZ_CHECK(source + 4 <= item.end);
		std::uint32_t expected = 0;
		for (int b = 0; b < 4; ++b) expected |= std::uint32_t(source[bigEndian ? 3 - b : b]) << (8 * b);
		std::uint32_t got;
		std::memcpy(&got, &floats[i], 4);
		FUZZ_CHECK(got == expected);
	}
	std::vector<unsigned char> bytes;
	CborWriter writer(bytes);
	writer.addTypedArray(floats, count, bigEndian);
	const TaggedCborWalker copy(bytes.data(), bytes.data() + bytes.size());
	float back[room];
	FUZZ_CHECK(copy.readTypedArray(back, 0, room) == count);
	FUZZ_CHECK(std::memcmp(back, floats, 4 * count) == 0);
}

void visit(const Buffer &buffer, const CborWalker &item, unsigned depth) {
	FUZZ_CHECK(buffer.holds(item));
	(void)item.asInteger();
	(void)item.asDouble();
	if (item.contentFits()) {
		const std::string_view content = item.stringView();
		FUZZ_CHECK(reinterpret_cast<const unsigned char *>(content.data()) + content.size() <= buffer.end);
		if (item.type == CborType::Utf8) FUZZ_CHECK(item.textEquals(content));
	}

	const CborWalker after = item.next();
	FUZZ_CHECK(buffer.holds(after));
	if (!after.isError()) FUZZ_CHECK(after.begin > item.begin);

	const TaggedCborWalker tagged(item);
	FUZZ_CHECK(buffer.holds(tagged));
	FUZZ_CHECK(tagged.taggedBegin == item.begin);
	if (tagged.typedArrayTag != 0) {
		checkTypedArray(tagged, 0);
		checkTypedArray(tagged, buffer.end[-1] & 15); // an offset that the input chooses
	}

	if (depth >= visitDepth) return;
	if (item.type == CborType::Tag) {
		visit(buffer, CborWalker(item.data, item.end), depth + 1);
		return;
	}

	// Children are visited once: through forEachPair for maps, forEach
	// otherwise. Walks that both succeed must end where next() ends.
	const bool isMap = item.type == CborType::Map || item.type == CborType::IndefiniteMap;
	std::string joined;
	bool chunksFit = true;
	const CborWalker walked = item.forEach([&](const CborWalker &child, std::size_t) {
		if (!isMap) visit(buffer, child, depth + 1);
		if (item.type == CborType::IndefiniteUtf8) {
			chunksFit = chunksFit && child.contentFits();
			joined += child.stringView();
		}
	});
	FUZZ_CHECK(buffer.holds(walked));
	if (!walked.isError() && !after.isError()) FUZZ_CHECK(walked.begin == after.begin);
	if (item.type == CborType::IndefiniteUtf8 && !walked.isError() && chunksFit) {
		FUZZ_CHECK(item.textEquals(joined));
		FUZZ_CHECK(!item.textEquals(joined + "x"));
	}

	std::size_t values = 0;
	const CborWalker walkedValues = item.forEach([&](const CborWalker &, std::size_t) { ++values; }, true);
	const CborWalker paired = item.forEachPair([&](const CborWalker &key, const CborWalker &value) {
		visit(buffer, key, depth + 1);
		visit(buffer, value, depth + 1);
	});
	FUZZ_CHECK(buffer.holds(walkedValues));
	FUZZ_CHECK(buffer.holds(paired));
	if (!isMap) FUZZ_CHECK(paired.isError());
	if (isMap && !paired.isError() && !walked.isError()) FUZZ_CHECK(paired.begin == walked.begin);

	const CborWalker taggedWalk = tagged.forEach([&](const TaggedCborWalker &child, std::size_t) {
		FUZZ_CHECK(buffer.holds(child));
		FUZZ_CHECK(child.type != CborType::Tag || child.isError());
	});
	FUZZ_CHECK(taggedWalk.begin == walked.begin && taggedWalk.type == walked.type);
}

// Copies the item through the writer; a clean copy must read as the same
// item, end where it should, and copy again to the same bytes.
void checkRoundTrip(const CborWalker &item) {
	std::vector<unsigned char> once;
	CborWriter writer(once);
	if (!lumbrel_test::reencode(item, writer)) return;
	const CborWalker copy(once.data(), once.data() + once.size());
	FUZZ_CHECK(copy.next().atBufferEnd());
	FUZZ_CHECK(lumbrel_test::diagnostic(copy) == lumbrel_test::diagnostic(item));
	std::vector<unsigned char> twice;
	CborWriter again(twice);
	FUZZ_CHECK(lumbrel_test::reencode(copy, again));
	FUZZ_CHECK(twice == once);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
	const Buffer buffer{data, data + size};
	CborWalker item(buffer.begin, buffer.end);
	while (!item.isError()) {
		visit(buffer, item, 0);
		checkRoundTrip(item);
		const CborWalker after = item.next();
		FUZZ_CHECK(buffer.holds(after));
		if (after.isError()) break;
		FUZZ_CHECK(after.begin > item.begin);
		item = after;
	}
	return 0;
}
