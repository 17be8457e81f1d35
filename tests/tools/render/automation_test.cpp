// --automate: the text taken apart, and the value events a course calls for.
#include "render/automation.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace lumbrel::render;

TEST(AutomationText, TimesInSecondsMillisecondsAndFramesAndMalformedTextIsAOneLineError) {
	AutomationText parsed;
	std::string error;
	ASSERT_TRUE(parseAutomation("swell.time=0:0.1sec,250ms:0.5 sec,1.5s:1sec,96000smp:2sec", 48000, parsed, error))
		<< error;
	EXPECT_EQ(parsed.key, "swell.time");
	EXPECT_EQ(parsed.points, (std::vector<std::pair<std::uint64_t, std::string>>{
								 {0, "0.1sec"}, {12000, "0.5 sec"}, {72000, "1sec"}, {96000, "2sec"}}));
	ASSERT_TRUE(parseAutomation("mix=1:0,1:1", 44100, parsed, error)) << "a jump: two points at one time";
	EXPECT_EQ(parsed.points[1].first, 44100u);

	for (const char *text : {"mix", "=0:1", "mix=", "mix=1", "mix=1:", "mix=abc:1", "mix=-1:0", "mix=1min:0",
			 "mix=0.5smp:1", "mix=2:0,1:1", "mix=0:0,"}) {
		error.clear();
		EXPECT_FALSE(parseAutomation(text, 48000, parsed, error)) << text;
		EXPECT_FALSE(error.empty()) << text;
		EXPECT_EQ(error.find('\n'), std::string::npos) << text;
	}
}

// The events as (frame, id, value), for comparing whole schedules.
std::vector<std::tuple<std::uint64_t, clap_id, double>> schedule(const std::vector<AutomationLane> &lanes,
	std::uint64_t frames) {
	std::vector<std::tuple<std::uint64_t, clap_id, double>> out;
	for (const auto &e : scheduleAutomation(lanes, frames)) out.emplace_back(e.frame, e.id, e.value);
	return out;
}

TEST(AutomationSchedule, RampsStepJumpsAndSteppedLanes) {
	// Held at 0 until frame 100 (no repeat), then a quarter per ramp step,
	// ending exactly on the point.
	const std::uint64_t s = rampStepFrames;
	EXPECT_EQ(schedule({{7, false, {{100, 0.0}, {100 + 4 * s, 1.0}}}}, 48000),
		(decltype(schedule({}, 0)){{0, 7, 0.0}, {100 + s, 7, 0.25}, {100 + 2 * s, 7, 0.5}, {100 + 3 * s, 7, 0.75},
			{100 + 4 * s, 7, 1.0}}));
	// A jump is one event at its frame.
	EXPECT_EQ(schedule({{1, false, {{1000, 0.2}, {1000, 0.8}}}}, 48000), (decltype(schedule({}, 0)){{0, 1, 0.2}, {1000, 1, 0.8}}));
	// Whole values only when they change: 0.5 is passed at frame 106.7, the
	// first step after it is 128; 2.5 at 533.3, and 576 follows.
	const auto stepped = schedule({{2, true, {{0, 0.0}, {640, 3.0}}}}, 48000);
	ASSERT_EQ(stepped.size(), 4u);
	EXPECT_EQ(stepped[1], std::make_tuple(std::uint64_t(128), clap_id(2), 1.0));
	EXPECT_EQ(stepped[3], std::make_tuple(std::uint64_t(576), clap_id(2), 3.0));
}

TEST(AutomationSchedule, LanesMergeByFrameAndStopAtTheEnd) {
	const auto events = schedule({{1, false, {{0, 0.0}, {200, 1.0}}}, {2, false, {{0, 5.0}, {64, 6.0}}}}, 150);
	ASSERT_GE(events.size(), 2u);
	for (std::size_t i = 1; i < events.size(); ++i) EXPECT_LE(std::get<0>(events[i - 1]), std::get<0>(events[i]));
	for (const auto &e : events) EXPECT_LT(std::get<0>(e), 150u);
	EXPECT_EQ(std::get<1>(events[0]), 1u) << "lanes keep their order at equal frames";
	EXPECT_EQ(events[1], std::make_tuple(std::uint64_t(0), clap_id(2), 5.0));
}

} // namespace
