#pragma once
#include <map>
#include <string>

namespace quorl {

// Description of a stepped parameter (a `LibraryParam<int>`): name, integer
// range and a label per value. A visitor of `state()` makes one with the
// parameter's present value as default; the declaration chains the rest:
//   storage.stepped("directCopy", directCopy).info("direct").labelsFrom(0).label("off", "on");
// Main thread only: every function here may allocate.
class SteppedParamInfo {
public:
	int defaultValue;
	int low, high; // both start at the default; `label` widens them
	std::string name; // short display name
	std::string longName; // longer description, usually empty
	int nextLabel; // the value the next `label` names; starts at the default
	std::map<int, std::string> labels;
	std::map<std::string, int> values;

	explicit SteppedParamInfo(int defaultValue = 0)
		: defaultValue(defaultValue), low(defaultValue), high(defaultValue), nextLabel(defaultValue) {}

	// Sets the display name and the long description.
	SteppedParamInfo &info(const std::string &name, const std::string &longName = std::string());
	// Sets both ends, for values that have no label of their own.
	SteppedParamInfo &range(int low, int high);
	// Sets the value that the next `label` names.
	SteppedParamInfo &labelsFrom(int value);

	// Names the value `nextLabel` and moves on to the next one. The range
	// grows to hold it, keeping a reversed range (high < low) reversed. A text
	// given twice reads back as the later value.
	SteppedParamInfo &label(const std::string &text);
	// label(a, b, c) is label(a).label(b).label(c).
	template<class... More>
	SteppedParamInfo &label(const std::string &first, const std::string &second, const More &...more) {
		label(first);
		return label(second, more...);
	}

	// The label of `value`, or its decimal text.
	std::string toString(int value) const;

	// A label reads as its value. Otherwise only a leading integer followed by
	// something else ("2 steps") reads as a number, clamped into the range; bare
	// digits that are no label, and any other text, give `defaultValue`. Throws
	// std::out_of_range for an integer beyond an int (as std::stoi does).
	int fromString(const std::string &text) const;

	// Reads what a user types into a host's field, strictly: a label (exactly,
	// else in any case) or a whole number. False, with `value` untouched, for
	// anything else. Never clamps.
	bool readText(const std::string &text, int &value) const;
};

} // namespace quorl
