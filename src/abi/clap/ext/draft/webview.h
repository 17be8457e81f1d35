#pragma once

#include "../../plugin.h"
#include "../../stream.h"

#ifdef __cplusplus
extern "C" {
#endif

// A draft extension: clap/clap.h leaves it out, clap/all.h brings it in.
static CLAP_CONSTEXPR const char CLAP_EXT_WEBVIEW[] = "clap.webview/3";

// Window API for the gui extension: the window handle is NULL, sizes are
// logical pixels, and set_scale is not called. Messages reach the page as a
// MessageEvent holding an ArrayBuffer; the page answers with
// window.parent.postMessage() and an ArrayBuffer or typed array.
static CLAP_CONSTEXPR const char CLAP_WINDOW_API_WEBVIEW[] = "webview";

typedef struct clap_plugin_webview {
   // [main-thread] Writes the URI of the first navigation as NUL-terminated
   // UTF-8 and returns its full length including the NUL, or <= 0 on error. A
   // result above uri_capacity means the string was cut short; with capacity 0
   // (uri may be NULL) nothing is written, only the length returned. The host
   // calls this before any message goes either way.
   // Absolute URIs (data:, and file: on local systems) work as they stand; a
   // relative URI with an absolute path is served by get_resource under a
   // scheme or prefix of the host's choosing, so pages link their resources
   // by relative paths only.
   int32_t(CLAP_ABI *get_uri)(const clap_plugin_t *plugin, char *uri, uint32_t uri_capacity);

   // [main-thread] Serves path (absolute, host prefix removed): writes the
   // NUL-terminated media type into mime if it fits, and streams the body into
   // data_stream. True only if both were delivered completely.
   bool(CLAP_ABI *get_resource)(const clap_plugin_t *plugin,
                                const char *path,
                                char *mime,
                                uint32_t mime_capacity,
                                const clap_ostream_t *data_stream);

   // [main-thread] One message from the page; the view is open and replies may
   // be sent. True on success.
   bool(CLAP_ABI *receive)(const clap_plugin_t *plugin, const void *buffer, uint32_t size);
} clap_plugin_webview_t;

typedef struct clap_host_webview {
   // [main-thread] One message to the page. True on success; false whenever the
   // view is not open.
   bool(CLAP_ABI *send)(const clap_host_t *host, const void *buffer, uint32_t size);
} clap_host_webview_t;

#ifdef __cplusplus
}
#endif
