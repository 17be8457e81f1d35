#include "render/automation.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace lumbrel::render {

namespace {

bool parseTime(const std::string &text, double sampleRate, std::uint64_t &frame) {
	errno = 0;
	char *end = nullptr;
	const double number = std::strtod(text.c_str(), &end);
	if (errno != 0 || end == text.c_str() || !std::isfinite(number) || number < 0) return false;
	const std::string unit = end;
	double frames = 0;
	if (unit.empty() || unit == "s") {
		frames = number * sampleRate;
	} else if (unit == "ms") {
		frames = number * sampleRate / 1000;
	} else if (unit == "smp") {
		if (number != std::floor(number)) return false;
		frames = number;
	} else {
		return false;
	}
	if (frames > 9e15) return false;
	frame = std::uint64_t(std::llround(frames));
	return true;
}

// The lane's value at `frame`: the last point at or before it, or the line
// from there to the next point.
double valueAt(const AutomationLane &lane, std::uint64_t frame) {
	const auto &points = lane.points;
	const auto after = std::upper_bound(points.begin(), points.end(), frame,
		[](std::uint64_t f, const AutomationPoint &p) { return f < p.frame; });
	if (after == points.begin()) return points.front().value;
	const auto &a = *(after - 1);
	if (after == points.end()) return a.value;
	const auto &b = *after;
	const double t = double(frame - a.frame) / double(b.frame - a.frame);
	return a.value + (b.value - a.value) * t;
}

} // namespace

bool parseAutomation(const std::string &text, double sampleRate, AutomationText &out, std::string &error) {
	out = {};
	const auto equals = text.find('=');
	if (equals == std::string::npos || equals == 0) {
		error = "--automate needs KEY=TIME:VALUE,..., not \"" + text + "\"";
		return false;
	}
	out.key = text.substr(0, equals);
	std::size_t start = equals + 1;
	while (start <= text.size()) {
		std::size_t comma = text.find(',', start);
		if (comma == std::string::npos) comma = text.size();
		const std::string point = text.substr(start, comma - start);
		const auto colon = point.find(':');
		std::uint64_t frame = 0;
		if (colon == std::string::npos || colon + 1 >= point.size()) {
			error = "--automate " + out.key + ": \"" + point + "\" is not TIME:VALUE";
			return false;
		}
		if (!parseTime(point.substr(0, colon), sampleRate, frame)) {
			error = "--automate " + out.key + ": \"" + point.substr(0, colon)
				+ "\" is not a time (seconds, or a number with s, ms or smp)";
			return false;
		}
		if (!out.points.empty() && frame < out.points.back().first) {
			error = "--automate " + out.key + ": times must not go back (\"" + point + "\")";
			return false;
		}
		out.points.emplace_back(frame, point.substr(colon + 1));
		start = comma + 1;
	}
	return true;
}

std::vector<ScheduledEvent> scheduleAutomation(const std::vector<AutomationLane> &lanes, std::uint64_t totalFrames) {
	std::vector<ScheduledEvent> events;
	for (const auto &lane : lanes) {
		if (lane.points.empty()) continue;
		std::vector<std::uint64_t> frames{0};
		for (std::size_t i = 0; i < lane.points.size(); ++i) {
			const auto &a = lane.points[i];
			frames.push_back(a.frame);
			if (i + 1 == lane.points.size()) continue;
			const auto &b = lane.points[i + 1];
			if (a.value == b.value) continue;
			for (std::uint64_t f = a.frame + rampStepFrames; f < b.frame && f < totalFrames; f += rampStepFrames) {
				frames.push_back(f);
			}
		}
		std::sort(frames.begin(), frames.end());
		frames.erase(std::unique(frames.begin(), frames.end()), frames.end());

		bool sent = false;
		double last = 0;
		for (const std::uint64_t frame : frames) {
			if (frame >= totalFrames) break;
			double value = valueAt(lane, frame);
			if (lane.stepped) value = std::round(value);
			if (sent && value == last) continue;
			events.push_back({frame, lane.id, value});
			sent = true;
			last = value;
		}
	}
	std::stable_sort(events.begin(), events.end(),
		[](const ScheduledEvent &a, const ScheduledEvent &b) { return a.frame < b.frame; });
	return events;
}

} // namespace lumbrel::render
