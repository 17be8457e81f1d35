#pragma once

#include "../plugin.h"

#ifdef __cplusplus
extern "C" {
#endif

static CLAP_CONSTEXPR const char CLAP_EXT_LATENCY[] = "clap.latency";

typedef struct clap_plugin_latency {
   // [main-thread & (being-activated or active)] Latency in samples.
   uint32_t(CLAP_ABI *get)(const clap_plugin_t *plugin);
} clap_plugin_latency_t;

typedef struct clap_host_latency {
   // [main-thread & being-activated] Latency may change only inside activate;
   // an active plug-in asks for a restart instead.
   void(CLAP_ABI *changed)(const clap_host_t *host);
} clap_host_latency_t;

#ifdef __cplusplus
}
#endif
