#pragma once

#include "../plugin.h"
#include "../stream.h"

#ifdef __cplusplus
extern "C" {
#endif

static CLAP_CONSTEXPR const char CLAP_EXT_STATE[] = "clap.state";

typedef struct clap_plugin_state {
   // [main-thread] Writes the whole state, parameter values included. True on
   // success.
   bool(CLAP_ABI *save)(const clap_plugin_t *plugin, const clap_ostream_t *stream);

   // [main-thread] True on success.
   bool(CLAP_ABI *load)(const clap_plugin_t *plugin, const clap_istream_t *stream);
} clap_plugin_state_t;

typedef struct clap_host_state {
   // [main-thread] The state changed and should be saved. A parameter change
   // implies this already.
   void(CLAP_ABI *mark_dirty)(const clap_host_t *host);
} clap_host_state_t;

#ifdef __cplusplus
}
#endif
