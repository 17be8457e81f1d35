#pragma once

#include "private/std.h"

#ifdef __cplusplus
extern "C" {
#endif

// One port's audio for one block. Exactly one of data32 and data64 is set.
// Neither pointer level is const, not even for inputs: clap_process makes
// inputs read-only by pointing at them through a const pointer.
typedef struct clap_audio_buffer {
   float **data32;          // channel_count channel pointers
   double **data64;         // channel_count channel pointers
   uint32_t channel_count;
   uint32_t latency;        // to or from the audio interface, in samples
   // Bit i set: every sample of channel i equals its sample 0. A hint only; the
   // channel is still filled completely.
   uint64_t constant_mask;
} clap_audio_buffer_t;

#ifdef __cplusplus
}
#endif
