#pragma once

#include "private/macros.h"
#include "private/std.h"

#ifdef __cplusplus
extern "C" {
#endif

// A call may move fewer bytes than asked for: loop until done, and handle the
// zero and negative returns.

typedef struct clap_istream {
   void *ctx; // belongs to the stream's owner

   // Bytes read; 0 at end of stream; -1 on a read error.
   int64_t(CLAP_ABI *read)(const struct clap_istream *stream, void *buffer, uint64_t size);
} clap_istream_t;

typedef struct clap_ostream {
   void *ctx; // belongs to the stream's owner

   // Bytes written; -1 on a write error.
   int64_t(CLAP_ABI *write)(const struct clap_ostream *stream, const void *buffer, uint64_t size);
} clap_ostream_t;

#ifdef __cplusplus
}
#endif
