#pragma once
#include <cstdio>
#include <string>

namespace lumbrel::render {

// A one-line progress bar, redrawn in place on a terminal:
//   swell             [##########----------]  50%
// Draws nothing unless `stream` is a terminal, so that logs and pipes get
// only the summary lines. Redraws only when the whole percentage changes.
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
	bool enabled_ = false, drawn = false;
	int shown = -1;
};

} // namespace lumbrel::render
