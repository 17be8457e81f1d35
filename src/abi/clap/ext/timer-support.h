#pragma once

#include "../plugin.h"

#ifdef __cplusplus
extern "C" {
#endif

static CLAP_CONSTEXPR const char CLAP_EXT_TIMER_SUPPORT[] = "clap.timer-support";

typedef struct clap_plugin_timer_support {
   // [main-thread] A registered timer fired.
   void(CLAP_ABI *on_timer)(const clap_plugin_t *plugin, clap_id timer_id);
} clap_plugin_timer_support_t;

typedef struct clap_host_timer_support {
   // [main-thread] Starts a periodic timer and writes its id. The host may
   // lengthen very short periods; 30 Hz should be accepted. True on success.
   bool(CLAP_ABI *register_timer)(const clap_host_t *host, uint32_t period_ms, clap_id *timer_id);

   // [main-thread] True on success.
   bool(CLAP_ABI *unregister_timer)(const clap_host_t *host, clap_id timer_id);
} clap_host_timer_support_t;

#ifdef __cplusplus
}
#endif
