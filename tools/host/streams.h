#pragma once
#include <clap/clap.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace lumbrel::host {

// A clap_ostream into memory. `maxChunk` limits what one write takes (hosts
// may take less than asked); `failAfter` makes writes fail once that many
// bytes are in.
struct MemoryOStream {
	std::vector<std::uint8_t> bytes;
	std::uint64_t maxChunk = UINT64_MAX;
	std::uint64_t failAfter = UINT64_MAX;
	int writes = 0;
	clap_ostream stream{this, write};

	static std::int64_t write(const clap_ostream *stream, const void *buffer, std::uint64_t size) {
		auto *self = static_cast<MemoryOStream *>(stream->ctx);
		++self->writes;
		if (self->bytes.size() >= self->failAfter) return -1;
		size = std::min(size, self->maxChunk);
		auto *data = static_cast<const std::uint8_t *>(buffer);
		self->bytes.insert(self->bytes.end(), data, data + size);
		return std::int64_t(size);
	}
};

// A clap_istream over bytes, handing out at most `maxChunk` per read; after
// `failAfter` bytes a read fails with -1.
struct MemoryIStream {
	std::vector<std::uint8_t> bytes;
	std::size_t position = 0;
	std::uint64_t maxChunk = UINT64_MAX;
	std::uint64_t failAfter = UINT64_MAX;
	int reads = 0;
	clap_istream stream{this, read};

	explicit MemoryIStream(std::vector<std::uint8_t> data = {}) : bytes(std::move(data)) {}

	static std::int64_t read(const clap_istream *stream, void *buffer, std::uint64_t size) {
		auto *self = static_cast<MemoryIStream *>(stream->ctx);
		++self->reads;
		if (self->position >= self->failAfter) return -1;
		size = std::min<std::uint64_t>({size, self->maxChunk, self->bytes.size() - self->position});
		if (size) std::memcpy(buffer, self->bytes.data() + self->position, size);
		self->position += size;
		return std::int64_t(size);
	}
};

} // namespace lumbrel::host
