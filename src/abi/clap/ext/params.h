#pragma once

#include "../plugin.h"
#include "../string-sizes.h"

#ifdef __cplusplus
extern "C" {
#endif

static CLAP_CONSTEXPR const char CLAP_EXT_PARAMS[] = "clap.params";

// Bits of clap_param_info_flags.
enum {
   // Integer values only; the double is truncated as by a cast.
   CLAP_PARAM_IS_STEPPED = 1 << 0,

   // Wraps around, e.g. a phase.
   CLAP_PARAM_IS_PERIODIC = 1 << 1,

   // Not in use at the moment: hide it; its automation need not be processed.
   CLAP_PARAM_IS_HIDDEN = 1 << 2,

   // The host cannot change it.
   CLAP_PARAM_IS_READONLY = 1 << 3,

   // Tied to the host's bypass button: 0 off, 1 bypassed. Implies stepped.
   CLAP_PARAM_IS_BYPASS = 1 << 4,

   // Automation can be recorded and played back. Live edits need no flag.
   CLAP_PARAM_IS_AUTOMATABLE = 1 << 5,
   CLAP_PARAM_IS_AUTOMATABLE_PER_NOTE_ID = 1 << 6,
   CLAP_PARAM_IS_AUTOMATABLE_PER_KEY = 1 << 7,
   CLAP_PARAM_IS_AUTOMATABLE_PER_CHANNEL = 1 << 8,
   CLAP_PARAM_IS_AUTOMATABLE_PER_PORT = 1 << 9,

   // Accepts CLAP_EVENT_PARAM_MOD.
   CLAP_PARAM_IS_MODULATABLE = 1 << 10,
   CLAP_PARAM_IS_MODULATABLE_PER_NOTE_ID = 1 << 11,
   CLAP_PARAM_IS_MODULATABLE_PER_KEY = 1 << 12,
   CLAP_PARAM_IS_MODULATABLE_PER_CHANNEL = 1 << 13,
   CLAP_PARAM_IS_MODULATABLE_PER_PORT = 1 << 14,

   // Changes the output, so while active a change must pass through process().
   CLAP_PARAM_REQUIRES_PROCESS = 1 << 15,

   // An enumeration: requires CLAP_PARAM_IS_STEPPED, and every value from min
   // to max needs non-blank text.
   CLAP_PARAM_IS_ENUM = 1 << 16,
};
typedef uint32_t clap_param_info_flags;

typedef struct clap_param_info {
   // Stable: never changes.
   clap_id id;

   clap_param_info_flags flags;

   // Echoed by the host in parameter events. Invalid after
   // rescan(CLAP_PARAM_RESCAN_ALL) or when the instance is destroyed.
   void *cookie;

   // Display name, UTF-8, NUL-terminated; without the module.
   char name[CLAP_NAME_SIZE];

   // Group path separated by '/', e.g. "Osc/Wavetable 1".
   char module[CLAP_PATH_SIZE];

   // Plain values; finite, and min <= default <= max.
   double min_value;
   double max_value;
   double default_value;
} clap_param_info_t;

typedef struct clap_plugin_params {
   // [main-thread]
   uint32_t(CLAP_ABI *count)(const clap_plugin_t *plugin);

   // [main-thread] True on success.
   bool(CLAP_ABI *get_info)(const clap_plugin_t *plugin,
                            uint32_t param_index,
                            clap_param_info_t *param_info);

   // [main-thread] True on success.
   bool(CLAP_ABI *get_value)(const clap_plugin_t *plugin, clap_id param_id, double *out_value);

   // [main-thread] NUL-terminated UTF-8 within out_buffer_capacity bytes. True
   // on success.
   bool(CLAP_ABI *value_to_text)(const clap_plugin_t *plugin,
                                 clap_id param_id,
                                 double value,
                                 char *out_buffer,
                                 uint32_t out_buffer_capacity);

   // [main-thread] True on success.
   bool(CLAP_ABI *text_to_value)(const clap_plugin_t *plugin,
                                 clap_id param_id,
                                 const char *param_value_text,
                                 double *out_value);

   // [active ? audio-thread : main-thread] Takes parameter events and emits
   // output events without audio. Never concurrent with process(), and not
   // needed while processing since process() carries events both ways.
   void(CLAP_ABI *flush)(const clap_plugin_t *plugin,
                         const clap_input_events_t *in,
                         const clap_output_events_t *out);
} clap_plugin_params_t;

// Bits of clap_param_rescan_flags.
enum {
   // Values changed, e.g. a preset was loaded; not recorded as automation.
   CLAP_PARAM_RESCAN_VALUES = 1 << 0,

   // value_to_text output changed.
   CLAP_PARAM_RESCAN_TEXT = 1 << 1,

   // Name, module, or the periodic or hidden flags changed.
   CLAP_PARAM_RESCAN_INFO = 1 << 2,

   // Anything may have changed, the list itself included. Only while
   // inactive: if active, request_restart and wait for deactivate first.
   CLAP_PARAM_RESCAN_ALL = 1 << 3,
};
typedef uint32_t clap_param_rescan_flags;

// Bits of clap_param_clear_flags.
enum {
   CLAP_PARAM_CLEAR_ALL = 1 << 0,
   CLAP_PARAM_CLEAR_AUTOMATIONS = 1 << 1,
   CLAP_PARAM_CLEAR_MODULATIONS = 1 << 2,
};
typedef uint32_t clap_param_clear_flags;

typedef struct clap_host_params {
   // [main-thread]
   void(CLAP_ABI *rescan)(const clap_host_t *host, clap_param_rescan_flags flags);

   // [main-thread] Drops the host's references to a parameter.
   void(CLAP_ABI *clear)(const clap_host_t *host, clap_id param_id, clap_param_clear_flags flags);

   // [thread-safe, !audio-thread] Asks for process() or flush() soon. The
   // audio thread is already inside one of them.
   void(CLAP_ABI *request_flush)(const clap_host_t *host);
} clap_host_params_t;

#ifdef __cplusplus
}
#endif
