#pragma once
#include "clap/host_streams.h"
#include "web/quorl_html.h"
#include "webview/media_type.h"

#include <clap/clap.h>
#include <clap/ext/draft/webview.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace quorl::clap {

// "clap.webview/3" of a `Plugin`, for a host that shows the page itself: the
// page's files from the program, and the page's messages to the effect.
template<class Plugin>
struct WebviewExtension {
	// The page's address, relative: whoever shows it resolves it against a
	// base of its own. Copied as a bounded copy, so a short buffer gets no
	// terminator; the result is always the full length.
	static std::int32_t webview_get_uri(const clap_plugin *, char *uri, std::uint32_t capacity) {
		static const char page[] = "/index.html";
		if (uri && capacity) std::strncpy(uri, page, capacity);
		return std::int32_t(sizeof(page) - 1);
	}

	// [any thread] One of the page's files, from the program itself.
	static bool webview_get_resource(const clap_plugin *, const char *path, char *mediaType, std::uint32_t capacity,
		const clap_ostream *stream) {
		if (!path) return false;
		const std::string type = webview_gui::helpers::guessMediaType(path);
		if (mediaType && capacity) std::strncpy(mediaType, type.c_str(), capacity);
		const QuorlHtml::File file = QuorlHtml::get(path);
		if (!file.data || !stream) return false;
		return writeWhole(stream, file.data, file.size);
	}

	// [main-thread] A message from the page; replies go out at once.
	static bool webview_receive(const clap_plugin *plugin, const void *bytes, std::uint32_t length) {
		auto *p = Plugin::self(plugin);
		if (bytes || length == 0) p->effect.webReceive(bytes, length);
		p->sendWebMessages();
		return true;
	}

	static constexpr clap_plugin_webview table{webview_get_uri, webview_get_resource, webview_receive};
};

} // namespace quorl::clap
