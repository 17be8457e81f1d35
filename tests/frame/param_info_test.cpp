// Parameter infos (position maps, texts both ways) and the frame's bookkeeping around an effect wrapper.
#include "frame/library_effect.h"
#include "frame/library_effect_base.h"
#include "frame/range_param_info.h"
#include "frame/stepped_param_info.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

using quorl::RangeParamInfo;
using quorl::SteppedParamInfo;

namespace {

// Ranges of the shapes the effects declare (mid below, at, above halfway; negative; wide), with units.
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
		for (const auto &[x, value] : {std::pair{0.0, d.low}, {0.5, d.mid}, {1.0, d.high}}) EXPECT_NEAR(info.fromPosition(x), value, 1e-9) << x;
		for (double x = 0; x <= 1; x += 1.0 / 64) EXPECT_NEAR(info.toPosition(info.fromPosition(x)), x, 1e-12);
	}
	// No clamp; fromRange after the map and toRange before its inverse: a log-scaled control.
	RangeParamInfo logged;
	logged.range(0, 1, 2);
	logged.fromRange = [](double v) { return std::exp(v); }, logged.toRange = [](double v) { return std::log(v); };
	EXPECT_NEAR(logged.fromPosition(0.5), std::exp(1.0), 1e-12);
	EXPECT_NEAR(logged.toPosition(std::exp(2.0)), 1, 1e-12);
	EXPECT_GT(straight.fromPosition(1.01), 0.95);
}

TEST(RangeParamInfoText, RoundingBranchesAndTrailingZeros) {
	// Truncated after a 0.45 nudge with no decimals; rounded, trailing zeros dropped, with some.
	const struct {
		int precision;
		double value;
		const char *text;
	} cases[] = {{0, 2.54, "2"}, {0, 2.55, "3"}, {0, -2.54, "-2"}, {0, 100, "100"}, {1, 2.004, "2"}, {1, 2.01, "2.1"},
		{2, 1.5, "1.5"}, {2, -0.0, "-0"}};
	for (const auto &c : cases) EXPECT_EQ(withUnit("", c.precision).toString(c.value), c.text) << c.value;
	RangeParamInfo keep(1);
	keep.unit("", 2, RangeParamInfo::identityMap, RangeParamInfo::identityMap, 1, 0);
	EXPECT_EQ(keep.toString(1.5), "1.50");
}

TEST(RangeParamInfoText, SuffixSpacingUnitChoiceAndExactValues) {
	RangeParamInfo spaced = withUnit(" ms", 1);
	EXPECT_EQ(spaced.units[0].suffix, "ms");
	std::string number, suffix;
	spaced.toString(7.25, number, suffix);
	EXPECT_EQ(number + "|" + suffix, "7.3|ms");
	// Unit ranges are inclusive; outside all, the first unit; a first unit spanning all doubles always wins.
	auto id = RangeParamInfo::identityMap;
	RangeParamInfo ranged(1), detune(1.5), exact = withUnit(" dB", 1);
	ranged.unit("a", 0, id, id, 0, 1).unit("b", 0, id, id, 1, 2);
	detune.unit("%", 2).unit("%", 1, id, id, 4, 10).unit("%", 0, id, id, 10, 1e100);
	// Exact values come first, in order, with no suffix.
	exact.exactValues = {{0, "off"}, {0, "silent"}};
	const std::pair<std::string, std::string> texts[] = {{spaced.toString(10), "10 ms"}, {withUnit("ms", 1).toString(10), "10ms"},
		{ranged.toString(0), "0a"}, {ranged.toString(1), "1a"}, {ranged.toString(2), "2b"}, {ranged.toString(5), "5a"},
		{detune.toString(12.34), "12.34%"}, {detune.toString(5.55), "5.55%"}, {exact.toString(0), "off"},
		{RangeParamInfo().toString(1.5), "1.500000"}};
	for (const auto &[text, expected] : texts) EXPECT_EQ(text, expected);
	exact.toString(0, number, suffix);
	EXPECT_EQ(number + "|" + suffix, "off|");
}

TEST(RangeParamInfoText, FromStringEdgeCases) {
	RangeParamInfo db = withUnit("dB", 1), spacedDb = withUnit(" dB", 1), ms(7), hz(440), exact(-1);
	ms.unit(" ms", 0);
	// A matching unit converts, the first match in declaration order.
	hz.unit("Hz", 0)
		.unit("kHz", 2, [](double k) { return k * 1000; }, [](double v) { return v / 1000; })
		.unit("kHz", 2, [](double k) { return -k; });
	// Without a digit: longest common prefix with an exact value, first on a tie.
	exact.exactValues = {{0, "off"}, {1, "octave"}, {2, "on"}};
	const struct {
		const RangeParamInfo &info;
		const char *text;
		double value;
	} cases[] = {{db, "  -3.5 dB\t", -3.5}, {spacedDb, "  -3.5 dB\t", -3.5}, {db, "1,5 dB", 1} /* stops at the comma */,
		{ms, "abc", 7}, {ms, "5 sec", 5} /* unknown unit: the number as it stands */, {ms, ".", 7}, {ms, "-", 7},
		{hz, "2.5 kHz", 2500}, {hz, "300 Hz", 300}, {exact, "of", 0}, {exact, "oct", 1}, {exact, "o", 0},
		{exact, " off", -1} /* no blank skipping here */, {exact, "x", -1}};
	for (const auto &c : cases) EXPECT_EQ(c.info.fromString(c.text), c.value) << c.text;
}

// Text reads back within a step of its last digit, leaning from zero by up to 0.95 of a step when
// rounded, and from -0.55 to 0.45 when truncated (no decimals).
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

TEST(SteppedParamInfo, LabelsWidenTheRangeAndTextsReadBack) {
	SteppedParamInfo channels(1), reversed(2), repeated(0), onOff(0), iterations(2), semitones(0);
	channels.info("channels").labelsFrom(0).label("mono", "full");
	EXPECT_TRUE(channels.low == 0 && channels.high == 1 && channels.name == "channels");
	reversed.range(2, 1).labelsFrom(-1).label("a", "b", "c", "d");
	EXPECT_TRUE(reversed.low == 2 && reversed.high == -1) << "stays reversed while it grows";
	repeated.labelsFrom(0).label("x", "y", "x"); // a repeated text reads back as the later value
	onOff.labelsFrom(0).label("off", "on");
	iterations.labelsFrom(0).label("1", "2", "4", "8");
	semitones.range(-24, 24).labelsFrom(0).label("none");
	const std::pair<std::string, std::string> texts[] = {{channels.toString(1), "full"}, {channels.toString(7), "7"},
		{repeated.toString(0), "x"}, {semitones.toString(0), "none"}, {semitones.toString(-5), "-5"}};
	for (const auto &[text, expected] : texts) EXPECT_EQ(text, expected);
	// Labels, or numbers with a tail (bare digits are no value), clamped to the range.
	const struct {
		const SteppedParamInfo &info;
		const char *text;
		int value;
	} cases[] = {{repeated, "x", 2}, {onOff, "on", 1}, {onOff, "1", 0}, {onOff, "1x", 1}, {onOff, "9x", 1}, {onOff, "-4x", 0},
		{iterations, "4", 2}, {iterations, "3", 2}, {semitones, "-5", 0}, {semitones, "-5 st", -5}, {semitones, "30 st", 24}};
	for (const auto &c : cases) EXPECT_EQ(c.info.fromString(c.text), c.value) << c.text;
}

namespace {
// A group of a ranged and a stepped parameter; counts builds and blocks, wants outputs >= inputs.
template<class Base>
struct CountingQUORL : Base {
	struct Group {
		typename Base::ParamRange gain{0.5};
		typename Base::ParamStepped mode{1};
		template<class Storage>
		void state(Storage &s) {
			s.range("gain", gain).info("gain").range(0, 0.5, 1).unit("", 2), s.stepped("mode", mode).info("mode").labelsFrom(0).label("a", "b");
		}
	};
	Group group;
	typename Base::ParamRange level{2.0};
	int builds = 0, resets = 0, blocks = 0;
	bool lastSpectrumDue = false;

	template<class Storage>
	void state(Storage &storage) {
		storage("group", group), storage.range("level", level).info("level").range(0, 2, 4).unit(" dB", 1);
	}
	void configureQUORL(quorl::LibraryConfig &config) {
		++builds;
		if (config.outputChannels < config.inputChannels) config.outputChannels = config.inputChannels;
	}
	void reset() { ++resets; }
	void processQUORL(const quorl::LibraryConfig &, const float *const *, float *const *, std::size_t, bool due) { ++blocks, lastSpectrumDue = due; }
};

using Effect = quorl::LibraryEffect<float, CountingQUORL<quorl::LibraryEffectBase<float>>>;

void run(Effect &effect, std::size_t length) {
	std::vector<float> in(length), out(length);
	const float *inputs[2] = {in.data(), in.data()};
	float *outputs[2] = {out.data(), out.data()};
	effect.process(inputs, outputs, length);
}

} // namespace

TEST(LibraryEffect, CollectsEveryParameterAndAcceptsOnlyAConfigTheEffectKeeps) {
	Effect effect;
	EXPECT_EQ(effect.rangeParams, (std::vector<decltype(effect.rangeParams)::value_type>{&effect.bpm, &effect.group.gain, &effect.level}));
	EXPECT_EQ(effect.steppedParams, (std::vector<decltype(effect.steppedParams)::value_type>{&effect.group.mode}));
	EXPECT_EQ(effect.bpm.value, 120.0);
	EXPECT_TRUE(effect.configure()); // 2 in, 2 out
	EXPECT_TRUE(effect.builds == 1 && effect.resets == 1 && effect.firstBlock);
	EXPECT_TRUE(effect.configure() && effect.builds == 2) << "nothing changed, rebuilt all the same";
	// What the effect doesn't keep fails once with the proposal taken: outputs equal to inputs, no aux ports.
	effect.config.inputChannels = 1;
	effect.config.outputChannels = 2;
	EXPECT_TRUE(!effect.configure() && effect.config.outputChannels == 1 && effect.configure());
	effect.config.auxInputs = {2};
	EXPECT_TRUE(!effect.configure() && effect.config.auxInputs.empty() && effect.configure());
	EXPECT_TRUE(effect.inputOffsets.empty());
}

TEST(LibraryEffect, ParameterChangesRunA20msFade) {
	Effect effect;
	ASSERT_TRUE(effect.configure());
	run(effect, 256);
	EXPECT_EQ(effect.blockFade, 0.0) << "steady parameters keep the fade at rest";
	EXPECT_FALSE(effect.firstBlock);
	effect.level.value = 3.0;
	run(effect, 240);
	EXPECT_DOUBLE_EQ(effect.blockFade, 240 / (0.02 * 48000));
	EXPECT_TRUE(effect.level.from == 2.0 && effect.level.to == 3.0 && effect.level.current == 3.0);
	// During a fade `from` and `to` stand still, even when the value moves on.
	effect.level.value = 4.0;
	run(effect, 240);
	EXPECT_DOUBLE_EQ(effect.blockFade, 480 / (0.02 * 48000));
	EXPECT_EQ(effect.level.to, 3.0);
	run(effect, 480); // reaches 960 samples: the fade ends
	EXPECT_EQ(effect.blockFade, 0.0);
	// A block of 960 samples or more ends a fade at once.
	effect.group.mode.value = 0;
	run(effect, 960);
	EXPECT_EQ(effect.blockFade, 0.0);
	EXPECT_EQ(effect.group.mode.to, 0);
}

TEST(LibraryEffect, MeterRequestIsAnsweredAfterTheBlockAndTheControlWordRestored) {
	Effect effect;
	ASSERT_TRUE(effect.configure());
	run(effect, 64);
	EXPECT_FALSE(effect.lastSpectrumDue || effect.hasMeters.load());
	effect.wantsMeters = true;
#if defined(__x86_64__)
	const unsigned before = _mm_getcsr();
#endif
	run(effect, 64);
	EXPECT_TRUE(effect.lastSpectrumDue && effect.hasMeters.load() && !effect.wantsMeters.load());
#if defined(__x86_64__)
	EXPECT_EQ(_mm_getcsr(), before);
#endif
}
