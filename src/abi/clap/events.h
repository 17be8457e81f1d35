#pragma once

#include "fixedpoint.h"
#include "id.h"
#include "private/macros.h"
#include "private/std.h"

#ifdef __cplusplus
extern "C" {
#endif

// Every event starts with this header and is one contiguous block that can be
// copied with memcpy(dst, header, header->size).
typedef struct clap_event_header {
   uint32_t size;     // of the whole event struct, tail padding included
   uint32_t time;     // sample offset within the block
   uint16_t space_id; // CLAP_CORE_EVENT_SPACE_ID for the events below
   uint16_t type;     // CLAP_EVENT_* within the space
   uint32_t flags;    // clap_event_flags bits
} clap_event_header_t;

// Check space_id against this before switching on type.
static CLAP_CONSTEXPR const uint16_t CLAP_CORE_EVENT_SPACE_ID = 0;

enum clap_event_flags {
   // Caused live by the user, e.g. a physical knob or key.
   CLAP_EVENT_IS_LIVE = 1 << 0,

   // Not to be recorded, e.g. a parameter moved by a MIDI CC that is recorded itself.
   CLAP_EVENT_DONT_RECORD = 1 << 1,
};

// Core event types (header.type). A note arrives in one encoding only: CLAP
// note, MIDI or MIDI 2. A NOTE_ON with velocity 0 is still a note-on.
enum {
   // clap_event_note. CHOKE (host to plug-in) silences voices at once; END
   // (plug-in to host) reports a finished voice with its note-on's addressing.
   CLAP_EVENT_NOTE_ON = 0,
   CLAP_EVENT_NOTE_OFF = 1,
   CLAP_EVENT_NOTE_CHOKE = 2,
   CLAP_EVENT_NOTE_END = 3,

   // clap_event_note_expression
   CLAP_EVENT_NOTE_EXPRESSION = 4,

   // clap_event_param_value and clap_event_param_mod; what is heard is value
   // plus modulation.
   CLAP_EVENT_PARAM_VALUE = 5,
   CLAP_EVENT_PARAM_MOD = 6,

   // clap_event_param_gesture, around user edits (optional).
   CLAP_EVENT_PARAM_GESTURE_BEGIN = 7,
   CLAP_EVENT_PARAM_GESTURE_END = 8,

   CLAP_EVENT_TRANSPORT = 9,   // clap_event_transport
   CLAP_EVENT_MIDI = 10,       // clap_event_midi
   CLAP_EVENT_MIDI_SYSEX = 11, // clap_event_midi_sysex
   CLAP_EVENT_MIDI2 = 12,      // clap_event_midi2
};

// A voice is addressed by (port_index, channel, key, note_id); -1 in any of
// them is a wildcard. A note-on has port, channel and key >= 0, and note_id -1
// when the host has no note ids.
typedef struct clap_event_note {
   clap_event_header_t header;

   int32_t note_id;    // >= 0, or -1
   int16_t port_index; // note port, or -1
   int16_t channel;    // 0..15, or -1
   int16_t key;        // 0..127, 60 = middle C, or -1
   double velocity;    // 0..1; ignored by CHOKE and END
} clap_event_note_t;

// Values of clap_note_expression, with the range of clap_event_note_expression.value.
enum {
   // 0 < x <= 4; plain dB = 20 * log(x)
   CLAP_NOTE_EXPRESSION_VOLUME = 0,

   // 0 left, 0.5 centre, 1 right
   CLAP_NOTE_EXPRESSION_PAN = 1,

   // semitones, -120..120, equal temperament
   CLAP_NOTE_EXPRESSION_TUNING = 2,

   // the rest 0..1
   CLAP_NOTE_EXPRESSION_VIBRATO = 3,
   CLAP_NOTE_EXPRESSION_EXPRESSION = 4,
   CLAP_NOTE_EXPRESSION_BRIGHTNESS = 5,
   CLAP_NOTE_EXPRESSION_PRESSURE = 6,
};
typedef int32_t clap_note_expression;

// An absolute value, applied as an offset from the voice's default from the
// event's sample on; events do not accumulate.
typedef struct clap_event_note_expression {
   clap_event_header_t header;

   clap_note_expression expression_id;

   // Target voice; -1 is a wildcard.
   int32_t note_id;
   int16_t port_index;
   int16_t channel;
   int16_t key;

   double value;
} clap_event_note_expression_t;

// A global and a polyphonic value compete: a voice takes the polyphonic one,
// which already contains the global part. The same holds for modulation.
typedef struct clap_event_param_value {
   clap_event_header_t header;

   clap_id param_id;
   void *cookie; // the param info's cookie, or NULL

   // Target voice; -1 is a wildcard.
   int32_t note_id;
   int16_t port_index;
   int16_t channel;
   int16_t key;

   double value; // plain value
} clap_event_param_value_t;

typedef struct clap_event_param_mod {
   clap_event_header_t header;

   clap_id param_id;
   void *cookie; // the param info's cookie, or NULL

   // Target voice; -1 is a wildcard.
   int32_t note_id;
   int16_t port_index;
   int16_t channel;
   int16_t key;

   double amount; // plain-value offset
} clap_event_param_mod_t;

typedef struct clap_event_param_gesture {
   clap_event_header_t header;

   clap_id param_id;
} clap_event_param_gesture_t;

enum clap_transport_flags {
   CLAP_TRANSPORT_HAS_TEMPO = 1 << 0,
   CLAP_TRANSPORT_HAS_BEATS_TIMELINE = 1 << 1,
   CLAP_TRANSPORT_HAS_SECONDS_TIMELINE = 1 << 2,
   CLAP_TRANSPORT_HAS_TIME_SIGNATURE = 1 << 3,
   CLAP_TRANSPORT_IS_PLAYING = 1 << 4,
   CLAP_TRANSPORT_IS_RECORDING = 1 << 5,
   CLAP_TRANSPORT_IS_LOOP_ACTIVE = 1 << 6,
   CLAP_TRANSPORT_IS_WITHIN_PRE_ROLL = 1 << 7,
};

// Both clap_process.transport (state at sample 0) and an in-block event.
typedef struct clap_event_transport {
   clap_event_header_t header;

   uint32_t flags; // clap_transport_flags bits

   clap_beattime song_pos_beats;
   clap_sectime song_pos_seconds;

   double tempo;     // BPM
   double tempo_inc; // per sample, until the next transport update

   clap_beattime loop_start_beats;
   clap_beattime loop_end_beats;
   clap_sectime loop_start_seconds;
   clap_sectime loop_end_seconds;

   clap_beattime bar_start; // start of the current bar
   int32_t bar_number;      // the bar at song position 0 is bar 0

   uint16_t tsig_num;
   uint16_t tsig_denom;
} clap_event_transport_t;

// MIDI events carry an unsigned port index, unlike note events.
typedef struct clap_event_midi {
   clap_event_header_t header;

   uint16_t port_index;
   uint8_t data[3];
} clap_event_midi_t;

typedef struct clap_event_midi_sysex {
   clap_event_header_t header;

   uint16_t port_index;
   // Valid only during the process call (host to plug-in) or the try_push call
   // (plug-in to host); copy to keep.
   const uint8_t *buffer;
   uint32_t size;
} clap_event_midi_sysex_t;

typedef struct clap_event_midi2 {
   clap_event_header_t header;

   uint16_t port_index;
   uint32_t data[4]; // one UMP
} clap_event_midi2_t;

// Read-only, time-sorted list of events for one block.
typedef struct clap_input_events {
   void *ctx; // belongs to the list's owner

   uint32_t(CLAP_ABI *size)(const struct clap_input_events *list);

   // The list keeps ownership of the event.
   const clap_event_header_t *(CLAP_ABI *get)(const struct clap_input_events *list, uint32_t index);
} clap_input_events_t;

typedef struct clap_output_events {
   void *ctx; // belongs to the list's owner

   // Copies header->size bytes of the event. False if it could not, e.g. out of
   // memory. Push in sample order.
   bool(CLAP_ABI *try_push)(const struct clap_output_events *list, const clap_event_header_t *event);
} clap_output_events_t;

#ifdef __cplusplus
}
#endif
