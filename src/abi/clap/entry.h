#pragma once

#include "private/macros.h"
#include "private/std.h"
#include "version.h"

#ifdef __cplusplus
extern "C" {
#endif

// The table a host finds by looking up the data symbol clap_entry in the module.
typedef struct clap_plugin_entry {
   // Set to CLAP_VERSION.
   clap_version_t clap_version;

   // Any thread, but never concurrently with itself or any other call into the
   // module. plugin_path is the module file (Linux, Windows) or the bundle
   // (macOS). Must be quick: no GUI, no user interaction. Returns true on
   // success, also when already initialised; after false the host treats the
   // module as uninitialised and calls nothing else, not even deinit.
   // Hosts pair init and deinit, but repeated calls must still be tolerated,
   // and deinit may come on another thread than its init.
   bool(CLAP_ABI *init)(const char *plugin_path);

   // Same threading as init. Undoes init; afterwards only init may be called.
   void(CLAP_ABI *deinit)(void);

   // [thread-safe] Returns the factory with this id, or NULL if it is not
   // provided. The module keeps ownership.
   const void *(CLAP_ABI *get_factory)(const char *factory_id);
} clap_plugin_entry_t;

// The one exported symbol: a data object with C linkage, not a function.
CLAP_EXPORT extern const clap_plugin_entry_t clap_entry;

#ifdef __cplusplus
}
#endif
