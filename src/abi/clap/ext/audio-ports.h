#pragma once

#include "../plugin.h"
#include "../string-sizes.h"

#ifdef __cplusplus
extern "C" {
#endif

static CLAP_CONSTEXPR const char CLAP_EXT_AUDIO_PORTS[] = "clap.audio-ports";

static CLAP_CONSTEXPR const char CLAP_PORT_MONO[] = "mono";
static CLAP_CONSTEXPR const char CLAP_PORT_STEREO[] = "stereo";

// Bits of clap_audio_port_info.flags.
enum {
   // The main input or output: at most one of each, at index 0.
   CLAP_AUDIO_PORT_IS_MAIN = 1 << 0,

   // 32-bit audio is mandatory; these two state 64-bit support and preference.
   CLAP_AUDIO_PORT_SUPPORTS_64BITS = 1 << 1,
   CLAP_AUDIO_PORT_PREFERS_64BITS = 1 << 2,

   // All ports with this flag use the same sample size.
   CLAP_AUDIO_PORT_REQUIRES_COMMON_SAMPLE_SIZE = 1 << 3,
};

typedef struct clap_audio_port_info {
   // Stable; the same id may be used once among inputs and once among outputs.
   clap_id id;
   char name[CLAP_NAME_SIZE];

   uint32_t flags;
   uint32_t channel_count;

   // CLAP_PORT_MONO, CLAP_PORT_STEREO, another extension's type, or NULL or ""
   // for unspecified. Must stay valid.
   const char *port_type;

   // The opposite-direction port that may share this buffer, or CLAP_INVALID_ID.
   clap_id in_place_pair;
} clap_audio_port_info_t;

// Ports change only while the plug-in is inactive, and are scanned then.
typedef struct clap_plugin_audio_ports {
   // [main-thread]
   uint32_t(CLAP_ABI *count)(const clap_plugin_t *plugin, bool is_input);

   // [main-thread] True on success.
   bool(CLAP_ABI *get)(const clap_plugin_t *plugin,
                       uint32_t index,
                       bool is_input,
                       clap_audio_port_info_t *info);
} clap_plugin_audio_ports_t;

// Flags of clap_host_audio_ports.rescan. All but NAMES require !active.
enum {
   CLAP_AUDIO_PORTS_RESCAN_NAMES = 1 << 0,
   CLAP_AUDIO_PORTS_RESCAN_FLAGS = 1 << 1,
   CLAP_AUDIO_PORTS_RESCAN_CHANNEL_COUNT = 1 << 2,
   CLAP_AUDIO_PORTS_RESCAN_PORT_TYPE = 1 << 3,
   CLAP_AUDIO_PORTS_RESCAN_IN_PLACE_PAIR = 1 << 4,
   CLAP_AUDIO_PORTS_RESCAN_LIST = 1 << 5,
};

typedef struct clap_host_audio_ports {
   // [main-thread] Whether the host accepts this kind of change.
   bool(CLAP_ABI *is_rescan_flag_supported)(const clap_host_t *host, uint32_t flag);

   // [main-thread] Only supported flags may be passed.
   void(CLAP_ABI *rescan)(const clap_host_t *host, uint32_t flags);
} clap_host_audio_ports_t;

#ifdef __cplusplus
}
#endif
