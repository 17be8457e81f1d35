#pragma once

#include "private/macros.h"
#include "private/std.h"

#ifdef __cplusplus
extern "C" {
#endif

// Parameter, port and timer ids.
typedef uint32_t clap_id;

static CLAP_CONSTEXPR const clap_id CLAP_INVALID_ID = UINT32_MAX;

#ifdef __cplusplus
}
#endif
