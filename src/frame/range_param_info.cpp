#include "frame/range_param_info.h"

#include <cmath>
#include <cstddef>
#include <locale>
#include <sstream>

namespace quorl {

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

} // namespace

RangeParamInfo::UnitEntry::UnitEntry(const std::string &suffixIn, int precision, Map fromUnit, Map toUnit,
	double minValue, double maxValue)
	: suffix(suffixIn), spaceBefore(false), keepZeros(minValue > maxValue), fromUnit(fromUnit), toUnit(toUnit),
	  minValue(minValue), maxValue(maxValue), precision(precision), epsilon(0.4999 * std::pow(10.0, -precision)) {
	if (!suffix.empty() && suffix[0] == ' ') {
		suffix.erase(0, 1);
		spaceBefore = true;
	}
}

void RangeParamInfo::UnitEntry::toString(double value, std::string &number, std::string &suffixOut) const {
	std::ostringstream stream;
	stream.imbue(std::locale::classic());
	stream.setf(std::ios::fixed, std::ios::floatfield);
	stream.precision(precision);

	double d = toUnit(value);
	// Lean towards the next digit: the shown number is at or just above the value.
	d += std::copysign(0.45 * std::pow(10.0, -precision), d);
	if (precision < 1 && std::fabs(d) < 9.2e18) {
		stream << static_cast<long long>(d); // truncates towards zero
	} else {
		// Also the integer branch's fallback for magnitudes beyond long long,
		// where a double has no fraction left to truncate.
		stream << d;
	}
	number = stream.str();

	if (!keepZeros && !number.empty() && number.find('.') != std::string::npos) {
		std::size_t end = number.size();
		while (end > 0 && number[end - 1] == '0') --end;
		if (end > 0 && number[end - 1] == '.') --end;
		number.resize(end);
	}
	suffixOut = suffix;
}

std::string RangeParamInfo::UnitEntry::toString(double value) const {
	std::string number, suffixText;
	toString(value, number, suffixText);
	if (spaceBefore) number += ' ';
	return number + suffixText;
}

RangeParamInfo &RangeParamInfo::info(const std::string &nameIn, const std::string &longNameIn) {
	name = nameIn;
	longName = longNameIn;
	return *this;
}

RangeParamInfo &RangeParamInfo::range(double lowIn, double mid, double highIn) {
	low = lowIn;
	high = highIn;
	rangeLow = lowIn;
	rangeC = (lowIn + highIn - 2 * mid) / (mid - highIn);
	rangeA = highIn * (rangeC + 1) - lowIn;
	return *this;
}

RangeParamInfo &RangeParamInfo::unit(const std::string &suffix, int precision, Map fromUnit, Map toUnit,
	double minValue, double maxValue) {
	units.emplace_back(suffix, precision, fromUnit, toUnit, minValue, maxValue);
	return *this;
}

const std::string *RangeParamInfo::exactText(double value) const {
	for (auto &exact : exactValues) {
		if (exact.first == value) return &exact.second;
	}
	return nullptr;
}

const RangeParamInfo::UnitEntry *RangeParamInfo::unitFor(double value) const {
	for (auto &entry : units) {
		if (value >= entry.minValue && value <= entry.maxValue) return &entry;
	}
	return units.empty() ? nullptr : &units.front();
}

void RangeParamInfo::toString(double value, std::string &number, std::string &suffix) const {
	if (const std::string *text = exactText(value)) {
		number = *text;
		suffix.clear();
	} else if (const UnitEntry *entry = unitFor(value)) {
		entry->toString(value, number, suffix);
	} else {
		number = std::to_string(value);
		suffix.clear();
	}
}

std::string RangeParamInfo::toString(double value) const {
	if (const std::string *text = exactText(value)) return *text;
	if (const UnitEntry *entry = unitFor(value)) return entry->toString(value);
	return std::to_string(value);
}

double RangeParamInfo::fromString(const std::string &text) const {
	const std::size_t size = text.size();
	std::size_t p = 0;
	while (p < size && isBlank(text[p])) ++p;
	if (p < size && text[p] == '-') ++p;

	bool hasDigit = false, hasSeparator = false;
	for (; p < size; ++p) {
		char c = text[p];
		if (isDigit(c)) {
			hasDigit = true;
		} else if ((c == '.' || c == ',') && !hasSeparator) {
			hasSeparator = true;
		} else {
			break;
		}
	}

	if (hasDigit) {
		// The library conversion reads the whole text itself; it stops at a
		// comma, so "1,5" is 1 although the scan above accepted the comma.
		double value = std::stod(text);
		while (p < size && isBlank(text[p])) ++p;
		std::size_t end = size;
		while (end > p && isBlank(text[end - 1])) --end;
		const std::string unitText = text.substr(p, end - p);
		for (auto &entry : units) {
			if (entry.suffix == unitText) return entry.fromUnit(value);
		}
		return value;
	}

	// No number: the exact value whose text shares the longest prefix with
	// the input, the earlier one on a tie.
	double value = defaultValue;
	std::size_t best = 0;
	for (auto &exact : exactValues) {
		const std::string &candidate = exact.second;
		std::size_t agree = 0;
		while (agree < size && agree < candidate.size() && candidate[agree] == text[agree]) ++agree;
		if (agree > best) {
			best = agree;
			value = exact.first;
		}
	}
	return value;
}

} // namespace quorl
