#pragma once
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace quorl {

// Description of a ranged parameter (a `LibraryParam<double>`): name, the map
// between its value and the 0-to-1 position that the host and the page see,
// and its text in one or more units. A visitor of `state()` makes one with the
// parameter's present value as default and hands it to the declaration, which
// chains the rest:
//   storage.range("time", time).info("time").range(0.05, 0.5, 2).unit(" sec", 2);
//
// Main thread, except `toPosition` and `fromPosition`, which allocate nothing
// and may run on the audio thread. Nothing here checks or clamps a range.
class RangeParamInfo {
public:
	using Map = double (*)(double);
	static double identityMap(double value) { return value; }

	// One way of showing the value: a suffix and a number of decimals, meant
	// for the values from `minValue` to `maxValue`.
	struct UnitEntry {
		std::string suffix; // without the leading blank of the declaration
		bool spaceBefore; // the declared suffix began with a blank
		bool keepZeros; // declared with minValue > maxValue: trailing zeros stay
		Map fromUnit; // displayed number -> value
		Map toUnit; // value -> displayed number
		double minValue, maxValue;
		int precision; // digits after the point

		UnitEntry(const std::string &suffix, int precision, Map fromUnit, Map toUnit, double minValue,
			double maxValue);

		// The number leans upwards: 0.45 of the last digit is added (away from
		// zero) before printing, and precision 0 truncates after that, so 2.54
		// shows "2" and 2.55 "3". Trailing zeros after the point are cut unless
		// `keepZeros`.
		void toString(double value, std::string &number, std::string &suffixOut) const;
		// Number, a blank if `spaceBefore`, suffix.
		std::string toString(double value) const;
	};

	double defaultValue;
	double low, high; // the range ends; both start at the default
	std::string name; // short display name
	std::string longName; // longer description, usually empty
	// Optional value-side maps around the position map; fromRange runs after it
	// (position -> value), toRange before its inverse (value -> position).
	std::function<double(double)> toRange, fromRange;
	// Position map v = (rangeA x + rangeLow) / (rangeC x + 1); identity until `range`.
	double rangeLow = 0, rangeA = 1, rangeC = 0;
	// Values with a text of their own, searched in order before any unit.
	std::vector<std::pair<double, std::string>> exactValues;
	// Tried in declaration order; the first one whose range holds the value wins.
	std::vector<UnitEntry> units;

	explicit RangeParamInfo(double defaultValue = 0)
		: defaultValue(defaultValue), low(defaultValue), high(defaultValue) {}

	// Sets the display name and the long description.
	RangeParamInfo &info(const std::string &name, const std::string &longName = std::string());

	// Sets the ends and a rational position map through (0, low), (0.5, mid)
	// and (1, high); straight when mid is halfway. mid must differ from high.
	RangeParamInfo &range(double low, double mid, double high);

	// Appends a unit. A leading blank in `suffix` means "print a blank before
	// the suffix"; it is not part of the suffix matched by `fromString`.
	RangeParamInfo &unit(const std::string &suffix, int precision, Map fromUnit = identityMap,
		Map toUnit = identityMap, double minValue = std::numeric_limits<double>::lowest(),
		double maxValue = std::numeric_limits<double>::max());

	// Text of `value`, apart (the page shows the number and the unit separately)
	// or as one string. Exact values first, then the first unit whose range
	// holds the value, else the first unit; with no unit the plain "%f" text.
	void toString(double value, std::string &number, std::string &suffix) const;
	std::string toString(double value) const;

	// Reads a number with an optional unit, as in "  -3.5 dB". A unit found
	// among `units` converts through its `fromUnit`; any other unit text is
	// ignored. Text without a digit picks the exact value sharing the longest
	// prefix with it, or `defaultValue`. Never clamps. Throws std::out_of_range
	// for numbers beyond a double (as std::stod does).
	double fromString(const std::string &text) const;

	// Reads what a user types into a host's field, strictly: the text of an
	// exact value, or a number alone or followed by one of the units' suffixes
	// (any case, with or without a blank between). "1,5" reads as 1.5. False,
	// with `value` untouched, for anything else. Never clamps.
	bool readText(const std::string &text, double &value) const;

	// [any thread] Position (0 to 1) -> value, through `fromRange` if set.
	double fromPosition(double position) const {
		double value = (rangeA * position + rangeLow) / (rangeC * position + 1);
		return fromRange ? fromRange(value) : value;
	}
	// [any thread] Value -> position, through `toRange` if set. Values outside
	// the range give positions outside 0 to 1.
	double toPosition(double value) const {
		if (toRange) value = toRange(value);
		return (value - rangeLow) / (rangeA - rangeC * value);
	}

private:
	const UnitEntry *unitFor(double value) const;
	const std::string *exactText(double value) const;
};

} // namespace quorl
