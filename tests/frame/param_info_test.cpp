#include "frame/range_param_info.h"
#include "frame/stepped_param_info.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

using quorl::RangeParamInfo;
using quorl::SteppedParamInfo;

namespace {

// Ranges of the shapes the effects declare (mid below, at and above the
// halfway point; negative; wide), each with a unit and its decimals.
struct Declaration {
	double low, mid, high;
	const char *suffix;
	int precision;
};
const std::vector<Declaration> declarations = {
	{2, 8, 15, "ms", 1}, {5, 20, 40, "", 0}, {-0.95, 0, 0.95, "", 2}, {4000, 8000, 24000, "Hz", 0},
	{0.05, 0.5, 2, "sec", 2}, {0, 12, 48, "dB", 1}, {-12, 0, 12, "s.t.", 2}, {3, 4, 6, "", 1},
};

RangeParamInfo withUnit(const std::string &suffix, int precision) {
	RangeParamInfo info(1);
	info.unit(suffix, precision);
	return info;
}

} // namespace

TEST(RangeParamInfoPosition, CurvePassesThroughLowMidHighAndInverts) {
	RangeParamInfo straight;
	straight.range(-0.95, 0, 0.95);
	EXPECT_EQ(straight.rangeC, 0); // mid halfway: linear

	for (auto &d : declarations) {
		SCOPED_TRACE(d.high);
		RangeParamInfo info;
		info.range(d.low, d.mid, d.high);
		EXPECT_NEAR(info.fromPosition(0), d.low, 1e-9);
		EXPECT_NEAR(info.fromPosition(0.5), d.mid, 1e-9);
		EXPECT_NEAR(info.fromPosition(1), d.high, 1e-9);
		for (double x = 0; x <= 1; x += 1.0 / 64) EXPECT_NEAR(info.toPosition(info.fromPosition(x)), x, 1e-12);
	}

	// No clamp; fromRange after the map and toRange before its inverse: a log-scaled control.
	RangeParamInfo logged;
	logged.range(0, 1, 2);
	logged.fromRange = [](double v) { return std::exp(v); };
	logged.toRange = [](double v) { return std::log(v); };
	EXPECT_NEAR(logged.fromPosition(0.5), std::exp(1.0), 1e-12);
	EXPECT_NEAR(logged.toPosition(std::exp(2.0)), 1, 1e-12);
	EXPECT_GT(straight.fromPosition(1.01), 0.95);
}

TEST(RangeParamInfoText, RoundingBranchesAndTrailingZeros) {
	EXPECT_EQ(withUnit("", 0).toString(2.54), "2"); // truncates after the 0.45 nudge
	EXPECT_EQ(withUnit("", 0).toString(2.55), "3");
	EXPECT_EQ(withUnit("", 0).toString(-2.54), "-2");
	EXPECT_EQ(withUnit("", 0).toString(100), "100");
	EXPECT_EQ(withUnit("", 1).toString(2.004), "2"); // 2.049 -> "2.0" -> "2"
	EXPECT_EQ(withUnit("", 1).toString(2.01), "2.1"); // 2.055 rounds up
	EXPECT_EQ(withUnit("", 2).toString(1.5), "1.5");
	EXPECT_EQ(withUnit("", 2).toString(-0.0), "-0"); // the nudge keeps the sign
	RangeParamInfo keep(1);
	keep.unit("", 2, RangeParamInfo::identityMap, RangeParamInfo::identityMap, 1, 0);
	EXPECT_EQ(keep.toString(1.5), "1.50");
}

TEST(RangeParamInfoText, SuffixSpacingAndUnitChoice) {
	RangeParamInfo spaced = withUnit(" ms", 1);
	EXPECT_EQ(spaced.units[0].suffix, "ms");
	EXPECT_EQ(spaced.toString(10), "10 ms");
	EXPECT_EQ(withUnit("ms", 1).toString(10), "10ms");
	std::string number, suffix;
	spaced.toString(7.25, number, suffix);
	EXPECT_EQ(number, "7.3");
	EXPECT_EQ(suffix, "ms");

	// Unit ranges are inclusive at both ends; outside all of them the first unit is used.
	RangeParamInfo ranged(1);
	ranged.unit("a", 0, RangeParamInfo::identityMap, RangeParamInfo::identityMap, 0, 1)
		.unit("b", 0, RangeParamInfo::identityMap, RangeParamInfo::identityMap, 1, 2);
	EXPECT_EQ(ranged.toString(0), "0a");
	EXPECT_EQ(ranged.toString(1), "1a");
	EXPECT_EQ(ranged.toString(2), "2b");
	EXPECT_EQ(ranged.toString(5), "5a");

	// The detune declaration: the first unit spans all doubles and always wins.
	auto id = RangeParamInfo::identityMap;
	RangeParamInfo detune(1.5);
	detune.unit("%", 2).unit("%", 1, id, id, 4, 10).unit("%", 0, id, id, 10, 1e100);
	EXPECT_EQ(detune.toString(12.34), "12.34%");
	EXPECT_EQ(detune.toString(5.55), "5.55%");

	// Exact values come first, in order, with no suffix; no unit at all gives "%f".
	RangeParamInfo exact = withUnit(" dB", 1);
	exact.exactValues = {{0, "off"}, {0, "silent"}};
	exact.toString(0, number, suffix);
	EXPECT_EQ(number, "off");
	EXPECT_EQ(suffix, "");
	EXPECT_EQ(exact.toString(0), "off");
	EXPECT_EQ(RangeParamInfo().toString(1.5), "1.500000");
}

TEST(RangeParamInfoText, FromStringEdgeCases) {
	RangeParamInfo db = withUnit("dB", 1), spacedDb = withUnit(" dB", 1);
	EXPECT_EQ(db.fromString("  -3.5 dB\t"), -3.5);
	EXPECT_EQ(spacedDb.fromString("  -3.5 dB\t"), -3.5);
	EXPECT_EQ(db.fromString("1,5 dB"), 1); // the conversion stops at the comma
	RangeParamInfo ms(7);
	ms.unit(" ms", 0);
	EXPECT_EQ(ms.fromString("abc"), 7);
	EXPECT_EQ(ms.fromString("5 sec"), 5); // unknown unit: the number as it stands
	EXPECT_EQ(ms.fromString("."), 7);
	EXPECT_EQ(ms.fromString("-"), 7);

	// A matching unit converts, the first match in declaration order.
	RangeParamInfo hz(440);
	hz.unit("Hz", 0)
		.unit("kHz", 2, [](double k) { return k * 1000; }, [](double v) { return v / 1000; })
		.unit("kHz", 2, [](double k) { return -k; });
	EXPECT_EQ(hz.fromString("2.5 kHz"), 2500);
	EXPECT_EQ(hz.fromString("300 Hz"), 300);

	// Without a digit: longest common prefix with an exact value, first on a tie.
	RangeParamInfo exact(-1);
	exact.exactValues = {{0, "off"}, {1, "octave"}, {2, "on"}};
	EXPECT_EQ(exact.fromString("of"), 0);
	EXPECT_EQ(exact.fromString("oct"), 1);
	EXPECT_EQ(exact.fromString("o"), 0);
	EXPECT_EQ(exact.fromString(" off"), -1); // no blank skipping here
	EXPECT_EQ(exact.fromString("x"), -1);
}

// Text shown to the user reads back to within one step of the last digit.
// The display leans away from zero: by up to 0.95 of a step when rounded, and
// from 0.55 of a step towards zero to 0.45 away when truncated (no decimals).
TEST(RangeParamInfoText, EffectDeclarationsRoundTripThroughText) {
	for (auto &d : declarations) {
		for (bool spaced : {false, true}) {
			SCOPED_TRACE(std::to_string(d.high) + (spaced ? " (spaced)" : ""));
			RangeParamInfo info(d.mid);
			info.range(d.low, d.mid, d.high).unit((spaced ? " " : "") + std::string(d.suffix), d.precision);
			const double step = std::pow(10.0, -d.precision);
			for (double x = 0; x <= 1; x += 1.0 / 256) {
				const double value = info.fromPosition(x);
				const std::string text = info.toString(value);
				const double back = info.fromString(text);
				const double lean = std::fabs(back) - std::fabs(value);
				EXPECT_LE(lean, (d.precision < 1 ? 0.45 : 0.95) * step + 1e-9) << text;
				EXPECT_GE(lean, (d.precision < 1 ? -0.55 : -0.05) * step - 1e-9) << text;
			}
		}
	}
}

TEST(SteppedParamInfo, LabelsWidenTheRange) {
	SteppedParamInfo channels(1);
	EXPECT_EQ(channels.info("channels").labelsFrom(0).label("mono", "full").low, 0);
	EXPECT_EQ(channels.high, 1);
	EXPECT_EQ(channels.name, "channels");
	EXPECT_EQ(channels.toString(1), "full");
	EXPECT_EQ(channels.toString(7), "7");

	// A reversed range stays reversed while it grows.
	SteppedParamInfo reversed(2);
	reversed.range(2, 1).labelsFrom(-1).label("a", "b", "c", "d");
	EXPECT_EQ(reversed.low, 2);
	EXPECT_EQ(reversed.high, -1);

	// A repeated text reads back as the later value.
	SteppedParamInfo repeated(0);
	repeated.labelsFrom(0).label("x", "y", "x");
	EXPECT_EQ(repeated.fromString("x"), 2);
	EXPECT_EQ(repeated.toString(0), "x");
}

TEST(SteppedParamInfo, FromStringTakesLabelsOrNumbersWithATail) {
	SteppedParamInfo onOff(0);
	onOff.labelsFrom(0).label("off", "on");
	EXPECT_EQ(onOff.fromString("on"), 1);
	EXPECT_EQ(onOff.fromString("1"), 0); // bare digits are no value
	EXPECT_EQ(onOff.fromString("1x"), 1);
	EXPECT_EQ(onOff.fromString("9x"), 1); // clamped
	EXPECT_EQ(onOff.fromString("-4x"), 0);

	SteppedParamInfo iterations(2);
	iterations.labelsFrom(0).label("1", "2", "4", "8");
	EXPECT_EQ(iterations.fromString("4"), 2);
	EXPECT_EQ(iterations.fromString("3"), 2);

	SteppedParamInfo semitones(0);
	semitones.range(-24, 24).labelsFrom(0).label("none");
	EXPECT_EQ(semitones.toString(0), "none");
	EXPECT_EQ(semitones.toString(-5), "-5");
	EXPECT_EQ(semitones.fromString("-5"), 0);
	EXPECT_EQ(semitones.fromString("-5 st"), -5);
	EXPECT_EQ(semitones.fromString("30 st"), 24);
}
