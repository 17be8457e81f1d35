#pragma once
#include <clap/clap.h>

#include <cstdint>
#include <string>
#include <vector>

namespace lumbrel::render {

// One point of a parameter's course: at `frame`, the host value `value`.
struct AutomationPoint {
	std::uint64_t frame = 0;
	double value = 0;
};

// A parameter's course through the render: held at the first point's value
// until that point, straight lines between points, held at the last value
// after it. Two points at the same frame make a jump.
struct AutomationLane {
	clap_id id = CLAP_INVALID_ID;
	bool stepped = false; // whole host values only, sent when the rounded value changes
	std::vector<AutomationPoint> points; // frames in non-decreasing order
};

// A value event due at `frame` of the input's timeline.
struct ScheduledEvent {
	std::uint64_t frame = 0;
	clap_id id = CLAP_INVALID_ID;
	double value = 0;
};

// Frames between the events of a ramp: 1.3 ms at 48 kHz, fine enough that
// the plug-in's own smoothing hides the steps.
constexpr std::uint64_t rampStepFrames = 64;

// The text of one --automate option, "KEY=TIME:VALUE,TIME:VALUE,...", taken
// apart; values stay texts for the plug-in to read. TIME is seconds ("1.5",
// "1.5s"), milliseconds ("250ms") or frames ("12000smp"); times must not go
// back. False with a one-line `error` if the text is malformed.
struct AutomationText {
	std::string key;
	std::vector<std::pair<std::uint64_t, std::string>> points; // frame, value text
};
bool parseAutomation(const std::string &text, double sampleRate, AutomationText &out, std::string &error);

// Every value event that the lanes call for in frames [0, totalFrames),
// sorted by frame (lanes in their given order at equal frames): one at frame
// 0 for each lane, one at each point, and one every rampStepFrames along a
// ramp, each only if the value differs from the lane's last event.
std::vector<ScheduledEvent> scheduleAutomation(const std::vector<AutomationLane> &lanes, std::uint64_t totalFrames);

} // namespace lumbrel::render
