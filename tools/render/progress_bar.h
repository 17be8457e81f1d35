#pragma once
#include <chrono>
#include <cstdio>
#include <string>

namespace lumbrel::render {

// A one-line progress bar, redrawn in place on a terminal:
//   out.wav [##########----------]  50%  0:04, 0:04 left
// It fits the terminal's width (the bar shrinks, then the label goes), so a
// narrow terminal still gets one line. Draws nothing unless `stream` is a
// terminal, so that logs and pipes get only the summary lines. Redraws when
// the whole percentage or the second changes.
class ProgressBar {
public:
	ProgressBar(std::string label, std::FILE *stream = stderr);
	~ProgressBar() { finish(); }
	ProgressBar(const ProgressBar &) = delete;
	ProgressBar &operator=(const ProgressBar &) = delete;

	bool enabled() const { return enabled_; }
	// `fraction` from 0 to 1.
	void update(double fraction);
	// Clears the line, leaving the cursor at its start.
	void finish();

private:
	std::string label;
	std::FILE *stream;
	bool enabled_ = false;
	int shown = -1, shownSecond = -1, drawnWidth = 0;
	std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
};

} // namespace lumbrel::render
