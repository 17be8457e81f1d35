// --automate: the text taken apart, and the value events a course calls for.
#include "render/automation.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace lumbrel::render;

TEST(AutomationText, TimesInSecondsMillisecondsAndFrames) {
	AutomationText parsed;
	std::string error;
	ASSERT_TRUE(parseAutomation("swell.time=0:0.1sec,250ms:0.5 sec,1.5s:1sec,96000smp:2sec", 48000, parsed, error))
		<< error;
	EXPECT_EQ(parsed.key, "swell.time");
	ASSERT_EQ(parsed.points.size(), 4u);
	EXPECT_EQ(parsed.points[0], (std::pair<std::uint64_t, std::string>{0, "0.1sec"}));
	EXPECT_EQ(parsed.points[1], (std::pair<std::uint64_t, std::string>{12000, "0.5 sec"}));
	EXPECT_EQ(parsed.points[2].first, 72000u);
	EXPECT_EQ(parsed.points[3].first, 96000u);
	ASSERT_TRUE(parseAutomation("mix=1:0,1:1", 44100, parsed, error)) << "a jump: two points at one time";
	EXPECT_EQ(parsed.points[1].first, 44100u);
}

TEST(AutomationText, MalformedTextIsAOneLineError) {
	const char *bad[] = {"mix", "=0:1", "mix=", "mix=1", "mix=1:", "mix=abc:1", "mix=-1:0", "mix=1min:0",
		"mix=0.5smp:1", "mix=2:0,1:1", "mix=0:0,"};
	for (const char *text : bad) {
		AutomationText parsed;
		std::string error;
		EXPECT_FALSE(parseAutomation(text, 48000, parsed, error)) << text;
		EXPECT_FALSE(error.empty()) << text;
		EXPECT_EQ(error.find('\n'), std::string::npos) << text;
	}
}

TEST(AutomationSchedule, ARampSteppedAtTheRampStepEndsExactlyOnItsPoint) {
	const std::uint64_t end = 100 + 4 * rampStepFrames;
	const AutomationLane lane{7, false, {{100, 0.0}, {end, 1.0}}};
	const auto events = scheduleAutomation({lane}, 48000);
	// Held at 0 until frame 100 (no repeat), then a quarter per step.
	ASSERT_EQ(events.size(), 5u);
	EXPECT_EQ(events[0].frame, 0u);
	EXPECT_EQ(events[0].value, 0.0);
	for (int k = 1; k <= 4; ++k) {
		EXPECT_EQ(events[k].frame, 100 + k * rampStepFrames);
		EXPECT_DOUBLE_EQ(events[k].value, 0.25 * k);
		EXPECT_EQ(events[k].id, 7u);
	}
}

TEST(AutomationSchedule, AJumpIsOneEventAtItsFrame) {
	const AutomationLane lane{1, false, {{1000, 0.2}, {1000, 0.8}}};
	const auto events = scheduleAutomation({lane}, 48000);
	ASSERT_EQ(events.size(), 2u);
	EXPECT_EQ(events[0].frame, 0u);
	EXPECT_EQ(events[0].value, 0.2);
	EXPECT_EQ(events[1].frame, 1000u);
	EXPECT_EQ(events[1].value, 0.8);
}

TEST(AutomationSchedule, SteppedLanesSendWholeValuesOnlyWhenTheyChange) {
	const AutomationLane lane{2, true, {{0, 0.0}, {640, 3.0}}};
	const auto events = scheduleAutomation({lane}, 48000);
	ASSERT_EQ(events.size(), 4u);
	for (std::size_t i = 0; i < events.size(); ++i) EXPECT_EQ(events[i].value, double(i));
	// 0.5 is passed at frame 106.7, the first step after it is frame 128; 2.5
	// at frame 533.3, and 576 follows.
	EXPECT_EQ(events[1].frame, 128u);
	EXPECT_EQ(events[3].frame, 576u);
}

TEST(AutomationSchedule, LanesMergeByFrameAndStopAtTheEnd) {
	const AutomationLane a{1, false, {{0, 0.0}, {200, 1.0}}};
	const AutomationLane b{2, false, {{0, 5.0}, {64, 6.0}}};
	const auto events = scheduleAutomation({a, b}, 150);
	ASSERT_FALSE(events.empty());
	for (std::size_t i = 1; i < events.size(); ++i) EXPECT_LE(events[i - 1].frame, events[i].frame);
	for (const auto &e : events) EXPECT_LT(e.frame, 150u);
	EXPECT_EQ(events[0].id, 1u) << "lanes keep their order at equal frames";
	EXPECT_EQ(events[1].id, 2u);
	EXPECT_EQ(events[1].value, 5.0);
}

} // namespace
