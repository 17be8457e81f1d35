#pragma once
// Small readers for text that a user typed into a host's parameter field.
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <string>
#include <string_view>
#if defined(__APPLE__)
#include <cerrno>
#include <cstdlib>
#include <xlocale.h>
#endif

namespace quorl::typed_text {

// Reads the decimal number at the start of `text` as strtod does in the C
// locale, whatever the process's; returns how many characters it took (0 for
// none). `outOfRange` tells a number beyond a double.
inline std::size_t readDouble(const std::string &text, double &value, bool &outOfRange) {
	outOfRange = false;
#if defined(__APPLE__)
	// macOS's libc++ has no floating-point from_chars; the xlocale functions
	// take a null locale as the C locale.
	char *end = nullptr;
	errno = 0;
	const double read = strtod_l(text.c_str(), &end, nullptr);
	if (end == text.c_str()) return 0;
	outOfRange = errno == ERANGE && std::isinf(read);
	value = read;
	return std::size_t(end - text.c_str());
#else
	double read = 0;
	const auto result = std::from_chars(text.data(), text.data() + text.size(), read);
	if (result.ptr == text.data()) return 0;
	outOfRange = result.ec == std::errc::result_out_of_range;
	if (result.ec == std::errc()) value = read;
	return std::size_t(result.ptr - text.data());
#endif
}

inline std::string_view trimmed(std::string_view text) {
	while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
	while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
	return text;
}

inline bool equalsIgnoringCase(std::string_view a, std::string_view b) {
	if (a.size() != b.size()) return false;
	for (std::size_t i = 0; i < a.size(); ++i) {
		if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i]))) return false;
	}
	return true;
}

// A finite decimal number at the start of `text` ("-3.5", "+2", "1,5", "1e3"),
// whatever the process's locale. Returns how many characters it took, or 0
// for no number (and for "inf" or "nan").
inline std::size_t leadingNumber(std::string_view text, double &value) {
	std::size_t start = 0;
	if (!text.empty() && text[0] == '+') start = 1;
	if (start == 1 && text.size() > 1 && text[1] == '-') return 0;
	// One decimal comma is taken for a point, as many users type it.
	std::string copy(text.substr(start, 64));
	const std::size_t comma = copy.find(',');
	if (comma != std::string::npos && copy.find('.') == std::string::npos) copy[comma] = '.';
	if (copy.empty() || (copy[0] != '-' && copy[0] != '.' && !std::isdigit(static_cast<unsigned char>(copy[0])))) return 0;
	double number = 0;
	bool outOfRange = false;
	const std::size_t used = readDouble(copy, number, outOfRange);
	if (used == 0 || outOfRange || !std::isfinite(number)) return 0;
	value = number;
	return start + used;
}

} // namespace quorl::typed_text
