#pragma once

#include "host.h"
#include "private/macros.h"
#include "process.h"
#include "version.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct clap_plugin_descriptor {
   // Set to CLAP_VERSION.
   clap_version_t clap_version;

   // Mandatory and non-empty: a unique reverse-DNS id, e.g. "com.vendor.product".
   const char *id;
   // Mandatory and non-empty: the display name.
   const char *name;

   // The rest are optional; an empty string is kinder to hosts than NULL.
   const char *vendor;
   const char *url;
   const char *manual_url;
   const char *support_url;
   // Preferably MAJOR(.MINOR(.REVISION)?)?( (Alpha|Beta) XREV)?
   const char *version;
   const char *description;

   // NULL-terminated list of CLAP_PLUGIN_FEATURE_* keywords.
   const char *const *features;
} clap_plugin_descriptor_t;

typedef struct clap_plugin {
   const clap_plugin_descriptor_t *desc;

   // Free for the plug-in's own use; the host never touches it.
   void *plugin_data;

   // [main-thread] Called once after creation; host callbacks and host
   // extensions may be used here. On false the host destroys the instance; on
   // true the instance is initialised and inactive.
   bool(CLAP_ABI *init)(const struct clap_plugin *plugin);

   // [main-thread & !active] Frees the instance.
   void(CLAP_ABI *destroy)(const struct clap_plugin *plugin);

   // [main-thread & !active] The place to allocate. Sample rate, latency and
   // port layout then hold until deactivate, and every frames_count lies in
   // [min_frames_count, max_frames_count] within [1, INT32_MAX]. Host methods
   // marked [being-activated] may be called from inside. True on success.
   bool(CLAP_ABI *activate)(const struct clap_plugin *plugin,
                            double sample_rate,
                            uint32_t min_frames_count,
                            uint32_t max_frames_count);

   // [main-thread & active]
   void(CLAP_ABI *deactivate)(const struct clap_plugin *plugin);

   // [audio-thread & active & !processing] Before the first process call.
   // True on success.
   bool(CLAP_ABI *start_processing)(const struct clap_plugin *plugin);

   // [audio-thread & active & processing] Before the plug-in is put to sleep.
   void(CLAP_ABI *stop_processing)(const struct clap_plugin *plugin);

   // [audio-thread & active] Clears buffers and all DSP state; parameter values
   // stay. steady_time may go backwards afterwards.
   void(CLAP_ABI *reset)(const struct clap_plugin *plugin);

   // [audio-thread & active & processing] One block. Nothing reachable from
   // process outlives the call.
   clap_process_status(CLAP_ABI *process)(const struct clap_plugin *plugin,
                                          const clap_process_t *process);

   // [thread-safe] The plug-in's table for an extension id, or NULL; the
   // plug-in keeps ownership. Never called before init, possibly during it.
   const void *(CLAP_ABI *get_extension)(const struct clap_plugin *plugin, const char *id);

   // [main-thread] The answer to an earlier host->request_callback().
   void(CLAP_ABI *on_main_thread)(const struct clap_plugin *plugin);
} clap_plugin_t;

#ifdef __cplusplus
}
#endif
