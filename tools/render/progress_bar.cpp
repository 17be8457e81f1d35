#include "render/progress_bar.h"

#include <unistd.h>

namespace lumbrel::render {

namespace {
constexpr int width = 30;
}

ProgressBar::ProgressBar(std::string label, std::FILE *stream) : label(std::move(label)), stream(stream) {
	enabled_ = stream && ::isatty(::fileno(stream));
}

void ProgressBar::update(double fraction) {
	if (!enabled_) return;
	fraction = fraction < 0 ? 0 : fraction > 1 ? 1 : fraction;
	const int percent = int(fraction * 100);
	if (percent == shown) return;
	shown = percent;
	const int filled = int(fraction * width);
	char bar[width + 1];
	for (int i = 0; i < width; ++i) bar[i] = i < filled ? '#' : '-';
	bar[width] = '\0';
	std::fprintf(stream, "\r%-18.18s [%s] %3d%%", label.c_str(), bar, percent);
	std::fflush(stream);
	drawn = true;
}

void ProgressBar::finish() {
	if (!drawn) return;
	// Blank the bar so that the summary line starts clean.
	std::fprintf(stream, "\r%*s\r", 18 + width + 8, "");
	std::fflush(stream);
	drawn = false;
	shown = -1;
}

} // namespace lumbrel::render
