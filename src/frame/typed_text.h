#pragma once
// Small readers for text that a user typed into a host's parameter field.
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <string>
#include <string_view>

namespace quorl::typed_text {

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
	double number = 0;
	const auto read = std::from_chars(copy.data(), copy.data() + copy.size(), number);
	if (read.ec != std::errc() || read.ptr == copy.data() || !std::isfinite(number)) return 0;
	if (copy[0] != '-' && copy[0] != '.' && !std::isdigit(static_cast<unsigned char>(copy[0]))) return 0;
	value = number;
	return start + std::size_t(read.ptr - copy.data());
}

} // namespace quorl::typed_text
