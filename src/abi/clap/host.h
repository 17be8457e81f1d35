#pragma once

#include "private/macros.h"
#include "private/std.h"
#include "version.h"

#ifdef __cplusplus
extern "C" {
#endif

// What the host hands to each plug-in instance.
typedef struct clap_host {
   clap_version_t clap_version;

   // Belongs to the host; a plug-in never touches it.
   void *host_data;

   const char *name;    // mandatory
   const char *vendor;  // optional
   const char *url;     // optional
   const char *version; // mandatory

   // [thread-safe] The host's table for an extension id, or NULL. The host
   // keeps ownership. Not allowed before plugin->init; allowed during and after.
   const void *(CLAP_ABI *get_extension)(const struct clap_host *host, const char *extension_id);

   // [thread-safe] Asks to deactivate and reactivate the plug-in, possibly later.
   void(CLAP_ABI *request_restart)(const struct clap_host *host);

   // [thread-safe] Asks to activate the plug-in and start processing, e.g. to
   // wake it from sleep.
   void(CLAP_ABI *request_process)(const struct clap_host *host);

   // [thread-safe] Asks for plugin->on_main_thread soon, usually within the
   // next main-loop slice; no timing is promised.
   void(CLAP_ABI *request_callback)(const struct clap_host *host);
} clap_host_t;

#ifdef __cplusplus
}
#endif
