#pragma once

#include "private/macros.h"
#include "private/std.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct clap_version {
   // 0: a pre-release whose ABI may still change; 1: the stable release line.
   uint32_t major;
   uint32_t minor;
   uint32_t revision;
} clap_version_t;

#ifdef __cplusplus
}
#endif

#define CLAP_VERSION_MAJOR 1
#define CLAP_VERSION_MINOR 2
#define CLAP_VERSION_REVISION 7

#define CLAP_VERSION_INIT \
   { (uint32_t)CLAP_VERSION_MAJOR, (uint32_t)CLAP_VERSION_MINOR, (uint32_t)CLAP_VERSION_REVISION }

// Compare the version these headers declare with maj.min.rev; usable in #if.
#define CLAP_VERSION_LT(maj, min, rev)                                                          \
   ((CLAP_VERSION_MAJOR < (maj))                                                                \
    || (CLAP_VERSION_MAJOR == (maj) && CLAP_VERSION_MINOR < (min))                              \
    || (CLAP_VERSION_MAJOR == (maj) && CLAP_VERSION_MINOR == (min) && CLAP_VERSION_REVISION < (rev)))
#define CLAP_VERSION_EQ(maj, min, rev) \
   (CLAP_VERSION_MAJOR == (maj) && CLAP_VERSION_MINOR == (min) && CLAP_VERSION_REVISION == (rev))
#define CLAP_VERSION_GE(maj, min, rev) (!CLAP_VERSION_LT(maj, min, rev))

#ifdef __cplusplus
extern "C" {
#endif

// The version a plug-in writes into clap_plugin_entry and its descriptors.
static CLAP_CONSTEXPR const clap_version_t CLAP_VERSION = CLAP_VERSION_INIT;

// Every 1.x (and later) version can talk to every other; 0.x never could.
static inline bool clap_version_is_compatible(const clap_version_t v) {
   return v.major >= 1;
}

#ifdef __cplusplus
}
#endif
