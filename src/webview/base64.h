#pragma once
#include <cstddef>
#include <string>
#include <vector>

namespace webview_gui {
namespace helpers {

// Standard base64 (alphabet A-Z a-z 0-9 + /), three bytes to four characters,
// "=" padding to a whole group, no line breaks. Appends to `output`; zero bytes
// append nothing. Any thread; allocates only by growing `output`.
void encodeBase64(const unsigned char *bytes, size_t length, std::string &output);

// Lenient decoder for text that this program or a web view produced: nothing is
// validated and nothing fails. Reads groups of four characters from the start of
// the NUL-terminated `text` and appends the bytes to `output`:
// - a group whose first character is NUL or "=" ends the text;
// - a character maps to six bits by ranges of its signed value, so "+" is 62,
//   "-", "/" and anything else below "0" (bytes above 0x7F included) are 63,
//   and other stray characters give some number;
// - the first byte of a group is always emitted, so a lone last character
//   gives a byte made with the terminating NUL (which counts as 63);
// - a NUL or "=" as third or fourth character ends the text after one or two
//   bytes of that group.
// `text` must not be null. Any thread.
void decodeBase64(const char *text, std::vector<unsigned char> &output);

} // namespace helpers
} // namespace webview_gui
