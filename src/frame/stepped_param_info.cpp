#include "frame/stepped_param_info.h"
#include "frame/typed_text.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace quorl {

SteppedParamInfo &SteppedParamInfo::info(const std::string &nameIn, const std::string &longNameIn) {
	name = nameIn;
	longName = longNameIn;
	return *this;
}

SteppedParamInfo &SteppedParamInfo::range(int lowIn, int highIn) {
	low = lowIn;
	high = highIn;
	return *this;
}

SteppedParamInfo &SteppedParamInfo::labelsFrom(int value) {
	nextLabel = value;
	return *this;
}

SteppedParamInfo &SteppedParamInfo::label(const std::string &text) {
	const int n = nextLabel;
	if (high < low) {
		high = std::min(high, n);
		low = std::max(low, n);
	} else {
		low = std::min(low, n);
		high = std::max(high, n);
	}
	labels[n] = text;
	values[text] = n;
	++nextLabel;
	return *this;
}

std::string SteppedParamInfo::toString(int value) const {
	auto found = labels.find(value);
	return found != labels.end() ? found->second : std::to_string(value);
}

int SteppedParamInfo::fromString(const std::string &text) const {
	auto found = values.find(text);
	if (found != values.end()) return found->second;

	const bool negative = !text.empty() && text[0] == '-';
	std::size_t p = negative ? 1 : 0;
	while (p < text.size() && text[p] >= '0' && text[p] <= '9') ++p;
	// Bare digits are a value only as a label (found above); a number must
	// carry something after it.
	if (p == text.size()) return defaultValue;
	if (p == 0 || (p == 1 && negative)) return defaultValue;

	const int value = std::stoi(text, nullptr, 10);
	return std::clamp(value, std::min(low, high), std::max(low, high));
}

bool SteppedParamInfo::readText(const std::string &text, int &value) const {
	const std::string_view typed = typed_text::trimmed(text);
	if (typed.empty()) return false;
	// Exact labels first: "C#/Db" and "c#/db" could both be labels.
	auto found = values.find(std::string(typed));
	if (found == values.end()) {
		found = std::find_if(values.begin(), values.end(),
			[&](const auto &entry) { return typed_text::equalsIgnoringCase(typed, entry.first); });
	}
	if (found != values.end()) {
		value = found->second;
		return true;
	}
	double number = 0;
	if (typed_text::leadingNumber(typed, number) != typed.size()) return false;
	if (number != std::floor(number) || std::fabs(number) > 2147483647.0) return false;
	value = int(number);
	return true;
}

} // namespace quorl
