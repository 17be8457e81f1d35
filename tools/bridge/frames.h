#pragma once
// The framing between lumbrel-editor-host and the program that drives it:
// each frame is a 32-bit little-endian byte count, then that many bytes, of
// which the first is the frame's kind (a letter, see editor_host.h) and the
// rest its payload. Pipes carry it both ways; nothing is interleaved.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace lumbrel::bridge {

struct Frame {
	char kind = 0;
	std::vector<std::uint8_t> payload;
};

// Frames larger than this are a broken stream, not a message.
constexpr std::size_t maxFrameBytes = 64u << 20;

// Cuts frames out of bytes as they arrive, in pieces of any size.
class FrameReader {
public:
	// Adds bytes read from the stream.
	void append(const std::uint8_t *bytes, std::size_t size);
	// Takes the next complete frame into `frame`; false if none is complete.
	// Once `broken()`, it returns false for good.
	bool next(Frame &frame);
	// A frame that announced more than maxFrameBytes, or none at all.
	bool broken() const { return broken_; }

private:
	std::vector<std::uint8_t> buffer;
	std::size_t start = 0;
	bool broken_ = false;
};

// Reads little-endian numbers from a payload, front to back. Reading past the
// end gives zeros and sets `short_`.
class PayloadReader {
public:
	PayloadReader(const std::vector<std::uint8_t> &payload) : bytes(payload) {}
	std::uint32_t u32();
	double f64();
	// What remains, as text or bytes.
	std::string restText();
	const std::uint8_t *rest(std::size_t &size) const;
	bool tooShort() const { return short_; }

private:
	const std::vector<std::uint8_t> &bytes;
	std::size_t position = 0;
	bool short_ = false;
};

// Builds one frame: the kind, then fields appended in order.
class FrameWriter {
public:
	explicit FrameWriter(char kind);
	FrameWriter &u8(std::uint8_t value);
	FrameWriter &u32(std::uint32_t value);
	FrameWriter &bytes(const void *data, std::size_t size);
	FrameWriter &text(const std::string &text) { return bytes(text.data(), text.size()); }
	// The whole frame, count included.
	const std::vector<std::uint8_t> &finish();

private:
	std::vector<std::uint8_t> out;
};

// Writes all of `bytes` to `fd`, retrying after interruptions and short
// writes; false when the other end has gone.
bool writeAll(int fd, const std::vector<std::uint8_t> &bytes);

} // namespace lumbrel::bridge
