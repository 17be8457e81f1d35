#pragma once
#include <clap/clap.h>

#include <cstdint>
#include <vector>

namespace quorl::clap {

// Writes all of `data`, in as many writes as the stream takes; false if the
// stream stops taking bytes first.
inline bool writeWhole(const clap_ostream *stream, const void *data, std::size_t size) {
	const auto *bytes = static_cast<const unsigned char *>(data);
	std::size_t written = 0;
	while (written < size) {
		const std::int64_t n = stream->write(stream, bytes + written, size - written);
		if (n <= 0) break;
		written += std::size_t(n);
	}
	return written == size;
}

// Reads a whole stream, in reads that grow with the buffer; only a read of
// 0 ends it. A failed read empties the buffer and answers false.
inline bool readWhole(const clap_istream *stream, std::vector<unsigned char> &buffer) {
	buffer.clear();
	std::size_t filled = 0, chunk = 1024;
	while (true) {
		buffer.resize(filled + chunk);
		const std::int64_t n = stream->read(stream, buffer.data() + filled, chunk);
		if (n < 0 || std::uint64_t(n) > chunk) {
			buffer.clear();
			return false;
		}
		filled += std::size_t(n);
		chunk = buffer.size();
		if (n == 0) break;
	}
	buffer.resize(filled);
	return true;
}

} // namespace quorl::clap
