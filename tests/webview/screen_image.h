#pragma once
// Reading what a window shows, straight from the X server, and the shapes
// the editor tests look for in it: dark ink, its connected pieces, and the solid
// triangles of the stepper buttons.
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace lumbrel_test {

struct ScreenImage {
	int width = 0, height = 0;
	std::vector<std::uint8_t> rgb; // rows top to bottom, 3 bytes a pixel

	// 0 black to 255 white (Rec. 601 weights, in integers).
	int luminance(int x, int y) const {
		const std::uint8_t *p = &rgb[(std::size_t(y) * std::size_t(width) + std::size_t(x)) * 3];
		return (299 * p[0] + 587 * p[1] + 114 * p[2]) / 1000;
	}
	bool dark(int x, int y) const { return luminance(x, y) < darkBelow; }

	// Text and dial arcs are black on a light page: anything below this is ink.
	static constexpr int darkBelow = 90;
};

// The window's contents with its children drawn in, as the X server has them.
inline ScreenImage grabWindow(Display *display, Window window) {
	ScreenImage image;
	XWindowAttributes attributes;
	if (!XGetWindowAttributes(display, window, &attributes)) return image;
	XImage *x = XGetImage(display, window, 0, 0, unsigned(attributes.width), unsigned(attributes.height), AllPlanes,
		ZPixmap);
	if (!x) return image;
	image.width = x->width;
	image.height = x->height;
	image.rgb.resize(std::size_t(x->width) * std::size_t(x->height) * 3);
	for (int y = 0; y < x->height; ++y) {
		for (int px = 0; px < x->width; ++px) {
			const unsigned long pixel = XGetPixel(x, px, y);
			std::uint8_t *out = &image.rgb[(std::size_t(y) * std::size_t(x->width) + std::size_t(px)) * 3];
			out[0] = std::uint8_t((pixel & x->red_mask) >> 16);
			out[1] = std::uint8_t((pixel & x->green_mask) >> 8);
			out[2] = std::uint8_t(pixel & x->blue_mask);
		}
	}
	XDestroyImage(x);
	return image;
}

// The smallest box holding every dark pixel of rows [top, bottom); empty
// (right < left) if there is none.
struct InkBox {
	int left = 0, right = -1, top = 0, bottom = -1;
	int width() const { return right - left + 1; }
	int centre() const { return (left + right) / 2; }
};

inline InkBox inkIn(const ScreenImage &image, int top, int bottom) {
	InkBox box{image.width, -1, image.height, -1};
	for (int y = std::max(top, 0); y < std::min(bottom, image.height); ++y) {
		for (int x = 0; x < image.width; ++x) {
			if (!image.dark(x, y)) continue;
			box.left = std::min(box.left, x);
			box.right = std::max(box.right, x);
			box.top = std::min(box.top, y);
			box.bottom = std::max(box.bottom, y);
		}
	}
	return box;
}

// One 8-connected piece of dark pixels.
struct InkPiece {
	int left, top, right, bottom;
	std::vector<std::pair<int, int>> pixels;
	int width() const { return right - left + 1; }
	int height() const { return bottom - top + 1; }
	int centreX() const { return (left + right) / 2; }
	int centreY() const { return (top + bottom) / 2; }
};

inline std::vector<InkPiece> inkPieces(const ScreenImage &image) {
	std::vector<InkPiece> pieces;
	std::vector<std::uint8_t> seen(std::size_t(image.width) * std::size_t(image.height), 0);
	std::vector<std::pair<int, int>> stack;
	for (int y = 0; y < image.height; ++y) {
		for (int x = 0; x < image.width; ++x) {
			const std::size_t index = std::size_t(y) * std::size_t(image.width) + std::size_t(x);
			if (seen[index] || !image.dark(x, y)) continue;
			InkPiece piece{x, y, x, y, {}};
			stack.assign(1, {x, y});
			seen[index] = 1;
			while (!stack.empty()) {
				const auto [px, py] = stack.back();
				stack.pop_back();
				piece.pixels.emplace_back(px, py);
				piece.left = std::min(piece.left, px);
				piece.right = std::max(piece.right, px);
				piece.top = std::min(piece.top, py);
				piece.bottom = std::max(piece.bottom, py);
				for (int dy = -1; dy <= 1; ++dy) {
					for (int dx = -1; dx <= 1; ++dx) {
						const int nx = px + dx, ny = py + dy;
						if (nx < 0 || ny < 0 || nx >= image.width || ny >= image.height) continue;
						const std::size_t next = std::size_t(ny) * std::size_t(image.width) + std::size_t(nx);
						if (seen[next] || !image.dark(nx, ny)) continue;
						seen[next] = 1;
						stack.emplace_back(nx, ny);
					}
				}
			}
			pieces.push_back(std::move(piece));
		}
	}
	return pieces;
}

// A solid triangle standing on its base (U+25B2) or on its tip (U+25BC), as
// the stepper buttons draw them: every row one unbroken run, the runs
// centred on one column and growing (or shrinking) from top to bottom, from a
// point to a base of at least 5 pixels. Letters fail it: "A" and "V" have two
// runs in a row, "L" leans to one side.
inline bool isTriangle(const InkPiece &piece, bool pointingUp) {
	if (piece.width() < 5 || piece.width() > 20 || piece.height() < 4 || piece.height() > 16) return false;
	std::vector<int> first(std::size_t(piece.height()), piece.right + 1), last(std::size_t(piece.height()), -1),
		count(std::size_t(piece.height()), 0);
	for (const auto &[x, y] : piece.pixels) {
		const std::size_t row = std::size_t(y - piece.top);
		first[row] = std::min(first[row], x);
		last[row] = std::max(last[row], x);
		++count[row];
	}
	std::vector<int> widths;
	const int middle = piece.left + piece.right; // twice the centre, to stay in integers
	for (std::size_t row = 0; row < first.size(); ++row) {
		if (count[row] == 0 || count[row] != last[row] - first[row] + 1) return false;
		if (std::abs(first[row] + last[row] - middle) > 2) return false; // "L" and "4" lean to one side
		widths.push_back(count[row]);
	}
	if (!pointingUp) std::reverse(widths.begin(), widths.end());
	for (std::size_t row = 1; row < widths.size(); ++row) {
		if (widths[row] + 1 < widths[row - 1]) return false; // anti-aliasing may wobble a pixel
	}
	return widths.front() <= 3 && widths.back() >= 5;
}

} // namespace lumbrel_test
