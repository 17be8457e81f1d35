#pragma once

#include "private/macros.h"
#include "private/std.h"

#ifdef __cplusplus
extern "C" {
#endif

// Fixed-point beats and seconds as carried by the transport: stored value =
// round(FACTOR * x).
static CLAP_CONSTEXPR const int64_t CLAP_BEATTIME_FACTOR = 1LL << 31;
static CLAP_CONSTEXPR const int64_t CLAP_SECTIME_FACTOR = 1LL << 31;

typedef int64_t clap_beattime;
typedef int64_t clap_sectime;

#ifdef __cplusplus
}
#endif
