#pragma once

#include "../plugin.h"
#include "../string-sizes.h"

#ifdef __cplusplus
extern "C" {
#endif

static CLAP_CONSTEXPR const char CLAP_EXT_NOTE_PORTS[] = "clap.note-ports";

enum clap_note_dialect {
   // clap_event_note and clap_event_note_expression
   CLAP_NOTE_DIALECT_CLAP = 1 << 0,

   // clap_event_midi without polyphonic expression
   CLAP_NOTE_DIALECT_MIDI = 1 << 1,

   // clap_event_midi with MPE
   CLAP_NOTE_DIALECT_MIDI_MPE = 1 << 2,

   // clap_event_midi2
   CLAP_NOTE_DIALECT_MIDI2 = 1 << 3,
};

typedef struct clap_note_port_info {
   // Stable; the same id may be used once among inputs and once among outputs.
   clap_id id;
   uint32_t supported_dialects; // clap_note_dialect bits
   uint32_t preferred_dialect;  // exactly one clap_note_dialect value
   char name[CLAP_NAME_SIZE];
} clap_note_port_info_t;

// Note ports change only while the plug-in is inactive, and are scanned then.
typedef struct clap_plugin_note_ports {
   // [main-thread]
   uint32_t(CLAP_ABI *count)(const clap_plugin_t *plugin, bool is_input);

   // [main-thread] True on success.
   bool(CLAP_ABI *get)(const clap_plugin_t *plugin,
                       uint32_t index,
                       bool is_input,
                       clap_note_port_info_t *info);
} clap_plugin_note_ports_t;

// Flags of clap_host_note_ports.rescan.
enum {
   // Everything; only while inactive (request_restart first if active).
   CLAP_NOTE_PORTS_RESCAN_ALL = 1 << 0,

   CLAP_NOTE_PORTS_RESCAN_NAMES = 1 << 1,
};

typedef struct clap_host_note_ports {
   // [main-thread] clap_note_dialect bits the host supports.
   uint32_t(CLAP_ABI *supported_dialects)(const clap_host_t *host);

   // [main-thread]
   void(CLAP_ABI *rescan)(const clap_host_t *host, uint32_t flags);
} clap_host_note_ports_t;

#ifdef __cplusplus
}
#endif
