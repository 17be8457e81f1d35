#pragma once
#include <string>
#include <unordered_map>

namespace webview_gui {
namespace helpers {

// One row of the media type table: top-level type ("text", "image", ...) and
// subtype ("html", "svg+xml", ...), as static strings.
struct Entry {
	const char *type;
	const char *subtype;
};

// The table of media types by file extension: 432 rows, keys in lower case
// without the leading dot, subtypes as the IANA registry names them. Built on
// the first call under the guarded initialisation of a local static, read-only
// afterwards; any thread.
const std::unordered_map<std::string, Entry> &extMap();

// Media type for a URL path or file name, for answering a web view's resource
// request. The extension is what follows the last "." or "/" before the first
// "?" or "#" (the whole text if there is neither); it is lower-cased by
// setting bit 5 of each byte, which is exact for ASCII letters and leaves
// digits and "-" alone.
// - empty extension (e.g. "", "/folder/", "name."): "text/html;charset=utf-8",
//   since such a path asks for a page;
// - extension without a row: "application/octet-stream";
// - otherwise type "/" subtype, with ";charset=utf-8" behind text types.
// `path` must not be null. Any thread; the first call builds `extMap()`.
std::string guessMediaType(const char *path);

} // namespace helpers
} // namespace webview_gui
