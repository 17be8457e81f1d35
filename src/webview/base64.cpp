#include "webview/base64.h"

namespace webview_gui {
namespace helpers {

namespace {

const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Four ranges and no table: anything outside the alphabet still gives a
// number, which is all this decoder promises.
int sixBits(char c) {
	int value = static_cast<signed char>(c);
	if (value >= 97) return value - 71;
	if (value >= 65) return value - 65;
	if (value >= 48) return value + 4;
	return c == '+' ? 62 : 63;
}

bool endsText(char c) { return c == '\0' || c == '='; }

} // namespace

void encodeBase64(const unsigned char *bytes, size_t length, std::string &output) {
	output.reserve(output.size() + (length + 2) / 3 * 4);
	size_t i = 0;
	for (; i + 3 <= length; i += 3) {
		unsigned group = (unsigned(bytes[i]) << 16) | (unsigned(bytes[i + 1]) << 8) | bytes[i + 2];
		output += alphabet[(group >> 18) & 63];
		output += alphabet[(group >> 12) & 63];
		output += alphabet[(group >> 6) & 63];
		output += alphabet[group & 63];
	}
	size_t rest = length - i;
	if (rest == 0) return;
	unsigned group = unsigned(bytes[i]) << 16;
	if (rest == 2) group |= unsigned(bytes[i + 1]) << 8;
	output += alphabet[(group >> 18) & 63];
	output += alphabet[(group >> 12) & 63];
	output += rest == 2 ? alphabet[(group >> 6) & 63] : '=';
	output += '=';
}

void decodeBase64(const char *text, std::vector<unsigned char> &output) {
	for (const char *group = text; !endsText(group[0]); group += 4) {
		int a = sixBits(group[0]), b = sixBits(group[1]);
		output.push_back(static_cast<unsigned char>((a << 2) | (b >> 4)));
		// A NUL second character has made its byte; nothing of the string is
		// left to look at.
		if (group[1] == '\0' || endsText(group[2])) return;
		int c = sixBits(group[2]);
		output.push_back(static_cast<unsigned char>((b << 4) | (c >> 2)));
		if (endsText(group[3])) return;
		int d = sixBits(group[3]);
		output.push_back(static_cast<unsigned char>((c << 6) | d));
	}
}

} // namespace helpers
} // namespace webview_gui
