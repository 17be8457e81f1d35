#pragma once
// What a window shows, read straight from the X server, and the dark ink in it.
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <algorithm>
#include <cstdint>
#include <vector>

namespace lumbrel_test {

struct ScreenImage {
	int width = 0, height = 0;
	std::vector<std::uint8_t> dark; // 1 where the pixel is ink: text and dial arcs are black on a light page
	bool at(int x, int y) const { return dark[std::size_t(y) * std::size_t(width) + std::size_t(x)]; }
};

// The window's contents with its children drawn in.
inline ScreenImage grabWindow(Display *display, Window window) {
	ScreenImage image;
	XWindowAttributes attributes;
	if (!XGetWindowAttributes(display, window, &attributes)) return image;
	XImage *x = XGetImage(display, window, 0, 0, unsigned(attributes.width), unsigned(attributes.height), AllPlanes, ZPixmap);
	if (!x) return image;
	image.width = x->width;
	image.height = x->height;
	for (int y = 0; y < x->height; ++y) {
		for (int px = 0; px < x->width; ++px) {
			const unsigned long p = XGetPixel(x, px, y);
			const unsigned r = (p & x->red_mask) >> 16, g = (p & x->green_mask) >> 8, b = p & x->blue_mask;
			image.dark.push_back((299 * r + 587 * g + 114 * b) / 1000 < 90); // Rec. 601 luminance
		}
	}
	XDestroyImage(x);
	return image;
}

// A box round dark pixels; empty (right < left) if there are none.
struct InkBox {
	int left = 1 << 30, right = -1, top = 1 << 30, bottom = -1;
	int width() const { return right - left + 1; }
	int height() const { return bottom - top + 1; }
	int centre() const { return (left + right) / 2; }
	int middle() const { return (top + bottom) / 2; }
	void add(int x, int y) {
		left = std::min(left, x), right = std::max(right, x), top = std::min(top, y), bottom = std::max(bottom, y);
	}
};

// Every dark pixel of rows [top, bottom).
inline InkBox inkIn(const ScreenImage &image, int top, int bottom) {
	InkBox box;
	for (int y = std::max(top, 0); y < std::min(bottom, image.height); ++y)
		for (int x = 0; x < image.width; ++x)
			if (image.at(x, y)) box.add(x, y);
	return box;
}

// The boxes of the 8-connected pieces of ink.
inline std::vector<InkBox> inkPieces(const ScreenImage &image) {
	std::vector<InkBox> pieces;
	std::vector<std::uint8_t> seen(image.dark.size(), 0);
	std::vector<std::pair<int, int>> stack;
	for (int y = 0; y < image.height; ++y) {
		for (int x = 0; x < image.width; ++x) {
			if (seen[std::size_t(y) * std::size_t(image.width) + std::size_t(x)] || !image.at(x, y)) continue;
			InkBox piece;
			stack.assign(1, {x, y});
			seen[std::size_t(y) * std::size_t(image.width) + std::size_t(x)] = 1;
			while (!stack.empty()) {
				const auto [px, py] = stack.back();
				stack.pop_back();
				piece.add(px, py);
				for (int ny = std::max(py - 1, 0); ny <= std::min(py + 1, image.height - 1); ++ny) {
					for (int nx = std::max(px - 1, 0); nx <= std::min(px + 1, image.width - 1); ++nx) {
						const std::size_t next = std::size_t(ny) * std::size_t(image.width) + std::size_t(nx);
						if (!seen[next] && image.at(nx, ny)) seen[next] = 1, stack.emplace_back(nx, ny);
					}
				}
			}
			pieces.push_back(piece);
		}
	}
	return pieces;
}

} // namespace lumbrel_test
