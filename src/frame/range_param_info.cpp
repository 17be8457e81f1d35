#include "frame/range_param_info.h"
#include "frame/typed_text.h"

#include <cmath>
#include <cstddef>
#include <charconv>
#include <stdexcept>
#if defined(__APPLE__)
#include <cstdio>
#include <xlocale.h>
#endif

namespace quorl {

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Writes `value` in fixed notation with `precision` decimals into text[0, 360),
// rounding as printf does but never by the process's locale; returns the end.
char *fixedText(char *text, double value, int precision) {
#if defined(__APPLE__)
	// macOS's libc++ has floating-point to_chars only from macOS 13.3 on; the
	// xlocale functions take a null locale as the C locale.
	int length = snprintf_l(text, 360, nullptr, "%.*f", precision, value);
	return text + (length > 0 && length < 360 ? length : 0);
#else
	const auto written = std::to_chars(text, text + 360, value, std::chars_format::fixed, precision);
	return written.ec == std::errc() ? written.ptr : text;
#endif
}

// "%f" of a double, whatever the process's locale.
std::string plainText(double value) {
	char text[360];
	return std::string(text, fixedText(text, value, 6));
}

// The number at the start of `text` (after blanks), as strtod reads it in the
// C locale; throws std::out_of_range beyond a double, as std::stod does.
double leadingNumber(const std::string &text) {
	std::size_t start = 0;
	while (start < text.size() && isBlank(text[start])) ++start;
	double value = 0;
	bool outOfRange = false;
	typed_text::readDouble(text.substr(start), value, outOfRange);
	if (outOfRange) throw std::out_of_range("number out of range: " + text);
	return value;
}

} // namespace

RangeParamInfo::UnitEntry::UnitEntry(const std::string &suffixIn, int precision, Map fromUnit, Map toUnit,
	double minValue, double maxValue)
	: suffix(suffixIn), spaceBefore(false), keepZeros(minValue > maxValue), fromUnit(fromUnit), toUnit(toUnit),
	  minValue(minValue), maxValue(maxValue), precision(precision) {
	if (!suffix.empty() && suffix[0] == ' ') {
		suffix.erase(0, 1);
		spaceBefore = true;
	}
}

// Formats without a stream: the host's automation reaches here on the audio
// thread, and short texts then stay within std::string's own storage.
void RangeParamInfo::UnitEntry::toString(double value, std::string &number, std::string &suffixOut) const {
	double d = toUnit(value);
	// Lean towards the next digit: the shown number is at or just above the value.
	d += std::copysign(0.45 * std::pow(10.0, -precision), d);
	char text[360]; // room for any double in fixed notation
	char *end;
	if (precision < 1 && std::fabs(d) < 9.2e18) {
		auto written = std::to_chars(text, text + sizeof(text), static_cast<long long>(d)); // truncates towards zero
		end = written.ec == std::errc() ? written.ptr : text;
	} else {
		// Also the integer branch's fallback for magnitudes beyond long long,
		// where a double has no fraction left to truncate.
		end = fixedText(text, d, precision < 0 ? 0 : precision);
	}
	number.assign(text, end);

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
		number = plainText(value);
		suffix.clear();
	}
}

std::string RangeParamInfo::toString(double value) const {
	if (const std::string *text = exactText(value)) return *text;
	if (const UnitEntry *entry = unitFor(value)) return entry->toString(value);
	return plainText(value);
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
		// The conversion reads the text itself; it stops at a comma, so "1,5"
		// is 1 although the scan above accepted the comma.
		double value = leadingNumber(text);
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

bool RangeParamInfo::readText(const std::string &text, double &value) const {
	const std::string_view typed = typed_text::trimmed(text);
	if (typed.empty()) return false;
	for (auto &exact : exactValues) {
		if (typed_text::equalsIgnoringCase(typed, exact.second)) {
			value = exact.first;
			return true;
		}
	}
	double number = 0;
	const std::size_t used = typed_text::leadingNumber(typed, number);
	if (used == 0) return false;
	const std::string_view unitText = typed_text::trimmed(typed.substr(used));
	if (unitText.empty()) {
		value = number;
		return true;
	}
	for (auto &entry : units) {
		if (!entry.suffix.empty() && typed_text::equalsIgnoringCase(unitText, entry.suffix)) {
			value = entry.fromUnit(number);
			return true;
		}
	}
	return false;
}

} // namespace quorl
