#include "render/progress_bar.h"

#include <algorithm>
#include <cstdlib>
#include <sys/ioctl.h>
#include <unistd.h>

namespace lumbrel::render {

namespace {

int terminalColumns(std::FILE *stream) {
	winsize size{};
	if (::ioctl(::fileno(stream), TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
	if (const char *columns = std::getenv("COLUMNS")) {
		const int n = std::atoi(columns);
		if (n > 0) return n;
	}
	return 80;
}

std::string minutesAndSeconds(double seconds) {
	const long s = long(seconds + 0.5);
	char text[32];
	std::snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
	return text;
}

} // namespace

ProgressBar::ProgressBar(std::string label, std::FILE *stream) : label(std::move(label)), stream(stream) {
	enabled_ = stream && ::isatty(::fileno(stream));
}

void ProgressBar::update(double fraction) {
	if (!enabled_) return;
	fraction = std::clamp(fraction, 0.0, 1.0);
	const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
	const int percent = int(fraction * 100), second = int(elapsed);
	if (percent == shown && second == shownSecond) return;
	shown = percent;
	shownSecond = second;

	char tail[64];
	std::snprintf(tail, sizeof tail, " %3d%% %s", percent, minutesAndSeconds(elapsed).c_str());
	std::string text = tail;
	// The estimate needs a little progress to mean anything.
	if (fraction > 0.02 && fraction < 1) text += ", " + minutesAndSeconds(elapsed * (1 - fraction) / fraction) + " left";
	// One column stays free: writing the last one makes some terminals wrap.
	const int room = terminalColumns(stream) - 1;
	std::string name = label;
	int bar = room - int(text.size()) - int(name.size()) - 3;
	if (bar < 10) {
		name.clear();
		bar = room - int(text.size()) - 2;
	}
	std::string line;
	if (bar >= 4) {
		const int filled = int(fraction * bar);
		line = name + (name.empty() ? "" : " ") + "[" + std::string(filled, '#') + std::string(bar - filled, '-') + "]";
	}
	line += text;
	if (int(line.size()) > room) line.resize(std::max(room, 0));
	const int blank = std::max(drawnWidth - int(line.size()), 0);
	std::fprintf(stream, "\r%s%*s", line.c_str(), blank, "");
	std::fflush(stream);
	drawnWidth = int(line.size());
}

void ProgressBar::finish() {
	if (!drawnWidth) return;
	// Blank the bar so that the summary line starts clean.
	std::fprintf(stream, "\r%*s\r", drawnWidth, "");
	std::fflush(stream);
	drawnWidth = 0;
	shown = shownSecond = -1;
}

} // namespace lumbrel::render
