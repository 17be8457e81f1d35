#pragma once
#include <cstddef>

namespace quorl {

// The editor page's files, stored in the program: "/index.html",
// "/cbor.min.js" and "/zelmar-bundle.min.js". Constant data; any thread.
struct QuorlHtml {
	struct File {
		const unsigned char *data; // null when not found
		std::size_t size;
	};

	// True if `path` starts with `name` and goes on with NUL, "?" or "#".
	static bool match(const char *name, const char *path);
	// The file for a request path such as "/index.html?compact"; {null, 0} if none.
	static File get(const char *path);
};

} // namespace quorl
