#pragma once

#include "../plugin.h"

#ifdef __cplusplus
extern "C" {
#endif

static CLAP_CONSTEXPR const char CLAP_EXT_GUI[] = "clap.gui";

// Window APIs, and the pixels their sizes are given in.
// Physical pixels; embedding through SetParent.
static CLAP_CONSTEXPR const char CLAP_WINDOW_API_WIN32[] = "win32";
// Logical pixels; the host does not call set_scale.
static CLAP_CONSTEXPR const char CLAP_WINDOW_API_COCOA[] = "cocoa";
// Physical pixels; embedding through XEmbed.
static CLAP_CONSTEXPR const char CLAP_WINDOW_API_X11[] = "x11";
// Physical pixels; floating windows only.
static CLAP_CONSTEXPR const char CLAP_WINDOW_API_WAYLAND[] = "wayland";

typedef void *clap_hwnd;
typedef void *clap_nsview;
typedef unsigned long clap_xwnd; // not fixed-width: 4 bytes on Windows

typedef struct clap_window {
   const char *api; // a CLAP_WINDOW_API_* string
   union {
      clap_nsview cocoa;
      clap_xwnd x11;
      clap_hwnd win32;
      void *ptr; // a handle of an API defined elsewhere
   };
} clap_window_t;

typedef struct clap_gui_resize_hints {
   bool can_resize_horizontally;
   bool can_resize_vertically;

   // The ratio applies only when both directions are resizable.
   bool preserve_aspect_ratio;
   uint32_t aspect_ratio_width;
   uint32_t aspect_ratio_height;
} clap_gui_resize_hints_t;

// Sizes are physical or logical pixels according to the window API.
// A host creates (is_api_supported, create), then sets up a floating window
// (set_transient, suggest_title) or an embedded one (set_scale, can_resize,
// set_size or get_size, set_parent), then shows and hides at will, and
// finally destroys.
typedef struct clap_plugin_gui {
   // [main-thread] Whether api works embedded or floating.
   bool(CLAP_ABI *is_api_supported)(const clap_plugin_t *plugin, const char *api, bool is_floating);

   // [main-thread] Optional hint. Stores in *api a pointer to one of the
   // CLAP_WINDOW_API_* arrays, which must outlive the call. True if there is a
   // preference.
   bool(CLAP_ABI *get_preferred_api)(const clap_plugin_t *plugin, const char **api, bool *is_floating);

   // [main-thread] Allocates the GUI without showing it. A floating GUI may get
   // a NULL or empty api. True on success.
   bool(CLAP_ABI *create)(const clap_plugin_t *plugin, const char *api, bool is_floating);

   // [main-thread] Frees everything the GUI holds.
   void(CLAP_ABI *destroy)(const clap_plugin_t *plugin);

   // [main-thread] Absolute scale, 2.0 = 200%; unused by logical-pixel APIs.
   // False if ignored or not applicable.
   bool(CLAP_ABI *set_scale)(const clap_plugin_t *plugin, double scale);

   // [main-thread] Current size; only after create. True on success.
   bool(CLAP_ABI *get_size)(const clap_plugin_t *plugin, uint32_t *width, uint32_t *height);

   // [main-thread & !floating] Whether the user may drag-resize.
   bool(CLAP_ABI *can_resize)(const clap_plugin_t *plugin);

   // [main-thread & !floating] True if hints were provided.
   bool(CLAP_ABI *get_resize_hints)(const clap_plugin_t *plugin, clap_gui_resize_hints_t *hints);

   // [main-thread & !floating] Rounds a proposed size to the nearest usable one
   // without resizing; a drag resize is adjust_size then set_size. True if it
   // could.
   bool(CLAP_ABI *adjust_size)(const clap_plugin_t *plugin, uint32_t *width, uint32_t *height);

   // [main-thread & !floating] True on success.
   bool(CLAP_ABI *set_size)(const clap_plugin_t *plugin, uint32_t width, uint32_t height);

   // [main-thread & !floating] Embeds into the host's window. True on success.
   bool(CLAP_ABI *set_parent)(const clap_plugin_t *plugin, const clap_window_t *window);

   // [main-thread & floating] Keeps the window above the given one. True on
   // success.
   bool(CLAP_ABI *set_transient)(const clap_plugin_t *plugin, const clap_window_t *window);

   // [main-thread & floating]
   void(CLAP_ABI *suggest_title)(const clap_plugin_t *plugin, const char *title);

   // [main-thread] True on success.
   bool(CLAP_ABI *show)(const clap_plugin_t *plugin);

   // [main-thread] Hides without freeing; a good moment to stop redraw timers.
   // True on success.
   bool(CLAP_ABI *hide)(const clap_plugin_t *plugin);
} clap_plugin_gui_t;

typedef struct clap_host_gui {
   // [thread-safe & !floating] Asks the host to call get_resize_hints again.
   void(CLAP_ABI *resize_hints_changed)(const clap_host_t *host);

   // [thread-safe & !floating] Asks for a new client-area size; true if
   // accepted, and then no set_size follows. Off the main thread true only
   // means queued; a later failure comes back as a set_size to the old size.
   bool(CLAP_ABI *request_resize)(const clap_host_t *host, uint32_t width, uint32_t height);

   // [thread-safe] True on success.
   bool(CLAP_ABI *request_show)(const clap_host_t *host);

   // [thread-safe] True on success.
   bool(CLAP_ABI *request_hide)(const clap_host_t *host);

   // [thread-safe] The floating window was closed or the GUI connection lost.
   // With was_destroyed the host must call the plug-in's gui destroy.
   void(CLAP_ABI *closed)(const clap_host_t *host, bool was_destroyed);
} clap_host_gui_t;

#ifdef __cplusplus
}
#endif
