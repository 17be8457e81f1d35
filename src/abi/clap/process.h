#pragma once

#include "audio-buffer.h"
#include "events.h"
#include "private/std.h"

#ifdef __cplusplus
extern "C" {
#endif

// Values of clap_process_status.
enum {
   // Processing failed; the host discards the output.
   CLAP_PROCESS_ERROR = 0,

   // Success; keep processing.
   CLAP_PROCESS_CONTINUE = 1,

   // Success; keep processing while the output is not silent.
   CLAP_PROCESS_CONTINUE_IF_NOT_QUIET = 2,

   // The tail extension decides whether to continue.
   CLAP_PROCESS_TAIL = 3,

   // Success; nothing more to do until the next event or a change of the input.
   CLAP_PROCESS_SLEEP = 4,
};
typedef int32_t clap_process_status;

typedef struct clap_process {
   // Per-instance sample counter: -1 if unknown, otherwise >= 0 and advanced by
   // at least frames_count per call.
   int64_t steady_time;

   uint32_t frames_count;

   // Transport at sample 0, or NULL for a free-running host (which then sends
   // no transport events either).
   const clap_event_transport_t *transport;

   // One buffer per port, in the order of the audio-ports extension. Inputs are
   // read-only. Both pointers come before both counts.
   const clap_audio_buffer_t *audio_inputs;
   clap_audio_buffer_t *audio_outputs;
   uint32_t audio_inputs_count;
   uint32_t audio_outputs_count;

   // Input events, sorted by time.
   const clap_input_events_t *in_events;
   // Output queue; push in non-decreasing time order.
   const clap_output_events_t *out_events;
} clap_process_t;

#ifdef __cplusplus
}
#endif
