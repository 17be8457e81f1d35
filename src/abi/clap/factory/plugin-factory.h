#pragma once

#include "../plugin.h"

#ifdef __cplusplus
extern "C" {
#endif

static CLAP_CONSTEXPR const char CLAP_PLUGIN_FACTORY_ID[] = "clap.plugin-factory";

// Hosts scan plug-ins through this table, so every call must be thread-safe
// and quick.
typedef struct clap_plugin_factory {
   // [thread-safe] Number of plug-ins offered.
   uint32_t(CLAP_ABI *get_plugin_count)(const struct clap_plugin_factory *factory);

   // [thread-safe] Descriptor at index, or NULL on error. The factory keeps
   // ownership.
   const clap_plugin_descriptor_t *(CLAP_ABI *get_plugin_descriptor)(
      const struct clap_plugin_factory *factory, uint32_t index);

   // [thread-safe] Creates an instance of the plug-in with this descriptor id,
   // or returns NULL. The host frees it with plugin->destroy(plugin). No host
   // callback may be used from inside this call.
   const clap_plugin_t *(CLAP_ABI *create_plugin)(const struct clap_plugin_factory *factory,
                                                  const clap_host_t *host,
                                                  const char *plugin_id);
} clap_plugin_factory_t;

#ifdef __cplusplus
}
#endif
