#include "bridge/frames.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace lumbrel::bridge {

void FrameReader::append(const std::uint8_t *bytes, std::size_t size) {
	// Drop what has been taken before growing, so the buffer stays near one frame.
	if (start > 0 && start == buffer.size()) {
		buffer.clear();
		start = 0;
	} else if (start > (1u << 16)) {
		buffer.erase(buffer.begin(), buffer.begin() + std::ptrdiff_t(start));
		start = 0;
	}
	buffer.insert(buffer.end(), bytes, bytes + size);
}

bool FrameReader::next(Frame &frame) {
	if (broken_) return false;
	const std::size_t available = buffer.size() - start;
	if (available < 4) return false;
	const std::uint8_t *head = buffer.data() + start;
	const std::size_t length = std::size_t(head[0]) | std::size_t(head[1]) << 8 | std::size_t(head[2]) << 16
		| std::size_t(head[3]) << 24;
	if (length == 0 || length > maxFrameBytes) {
		broken_ = true;
		return false;
	}
	if (available < 4 + length) return false;
	frame.kind = char(head[4]);
	frame.payload.assign(head + 5, head + 4 + length);
	start += 4 + length;
	return true;
}

std::uint32_t PayloadReader::u32() {
	if (position + 4 > bytes.size()) {
		short_ = true;
		position = bytes.size();
		return 0;
	}
	const std::uint8_t *b = bytes.data() + position;
	position += 4;
	return std::uint32_t(b[0]) | std::uint32_t(b[1]) << 8 | std::uint32_t(b[2]) << 16 | std::uint32_t(b[3]) << 24;
}

double PayloadReader::f64() {
	if (position + 8 > bytes.size()) {
		short_ = true;
		position = bytes.size();
		return 0;
	}
	std::uint64_t bits = 0;
	for (int i = 7; i >= 0; --i) bits = bits << 8 | bytes[position + std::size_t(i)];
	position += 8;
	double value;
	std::memcpy(&value, &bits, sizeof value);
	return value;
}

std::string PayloadReader::restText() {
	std::string text(bytes.begin() + std::ptrdiff_t(position), bytes.end());
	position = bytes.size();
	return text;
}

const std::uint8_t *PayloadReader::rest(std::size_t &size) const {
	size = bytes.size() - position;
	return bytes.data() + position;
}

FrameWriter::FrameWriter(char kind) : out{0, 0, 0, 0, std::uint8_t(kind)} {}

FrameWriter &FrameWriter::u8(std::uint8_t value) {
	out.push_back(value);
	return *this;
}

FrameWriter &FrameWriter::u32(std::uint32_t value) {
	for (int i = 0; i < 4; ++i) out.push_back(std::uint8_t(value >> (8 * i)));
	return *this;
}

FrameWriter &FrameWriter::bytes(const void *data, std::size_t size) {
	const auto *b = static_cast<const std::uint8_t *>(data);
	out.insert(out.end(), b, b + size);
	return *this;
}

const std::vector<std::uint8_t> &FrameWriter::finish() {
	const std::uint32_t length = std::uint32_t(out.size() - 4);
	for (int i = 0; i < 4; ++i) out[std::size_t(i)] = std::uint8_t(length >> (8 * i));
	return out;
}

bool writeAll(int fd, const std::vector<std::uint8_t> &bytes) {
	std::size_t done = 0;
	while (done < bytes.size()) {
		const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
		if (n < 0 && errno == EINTR) continue;
		if (n <= 0) return false;
		done += std::size_t(n);
	}
	return true;
}

} // namespace lumbrel::bridge
