// The ABI declaration matches CLAP 1.2.7 to the byte, at compile time: a mistake stops the build naming
// the struct and field, or the constant, that differs.
#include <clap/all.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace {

// Offsets as on 64-bit targets; elsewhere (i386 aligns 8-byte fields to 4) only types are checked.
constexpr bool layout64 = UINTPTR_MAX == UINT64_MAX;

constexpr bool sameText(const char *a, const char *b) { return *a == *b && (!*a || sameText(a + 1, b + 1)); }

// ABI_EACH(m, x, (a...), (b...), ...) expands to m(x, a...) m(x, b...) ...
#define ABI_CALL(m, args) m args
#define ABI_APPLY(m, args) m args // a second name: expanded inside ABI_CALL
#define ABI_OPEN(...) __VA_ARGS__
#define ABI_ONE(m, x, t) ABI_APPLY(m, (x, ABI_OPEN t))
#define ABI_E1(m, x, t) ABI_ONE(m, x, t)
#define ABI_E2(m, x, t, ...) ABI_ONE(m, x, t) ABI_E1(m, x, __VA_ARGS__)
#define ABI_E3(m, x, t, ...) ABI_ONE(m, x, t) ABI_E2(m, x, __VA_ARGS__)
#define ABI_E4(m, x, t, ...) ABI_ONE(m, x, t) ABI_E3(m, x, __VA_ARGS__)
#define ABI_E5(m, x, t, ...) ABI_ONE(m, x, t) ABI_E4(m, x, __VA_ARGS__)
#define ABI_E6(m, x, t, ...) ABI_ONE(m, x, t) ABI_E5(m, x, __VA_ARGS__)
#define ABI_E7(m, x, t, ...) ABI_ONE(m, x, t) ABI_E6(m, x, __VA_ARGS__)
#define ABI_E8(m, x, t, ...) ABI_ONE(m, x, t) ABI_E7(m, x, __VA_ARGS__)
#define ABI_E9(m, x, t, ...) ABI_ONE(m, x, t) ABI_E8(m, x, __VA_ARGS__)
#define ABI_E10(m, x, t, ...) ABI_ONE(m, x, t) ABI_E9(m, x, __VA_ARGS__)
#define ABI_E11(m, x, t, ...) ABI_ONE(m, x, t) ABI_E10(m, x, __VA_ARGS__)
#define ABI_E12(m, x, t, ...) ABI_ONE(m, x, t) ABI_E11(m, x, __VA_ARGS__)
#define ABI_E13(m, x, t, ...) ABI_ONE(m, x, t) ABI_E12(m, x, __VA_ARGS__)
#define ABI_E14(m, x, t, ...) ABI_ONE(m, x, t) ABI_E13(m, x, __VA_ARGS__)
#define ABI_E15(m, x, t, ...) ABI_ONE(m, x, t) ABI_E14(m, x, __VA_ARGS__)
#define ABI_E16(m, x, t, ...) ABI_ONE(m, x, t) ABI_E15(m, x, __VA_ARGS__)
#define ABI_NTH(_1, _2, _3, _4, _5, _6, _7, _8, _9, _10, _11, _12, _13, _14, _15, _16, n, ...) n
#define ABI_EACH_(n, m, x, ...) ABI_E##n(m, x, __VA_ARGS__)
#define ABI_EACH(m, x, ...) \
   ABI_CALL(ABI_EACH_, (ABI_NTH(__VA_ARGS__, 16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0), m, x, __VA_ARGS__))

// ABI_STRUCT(tag, sizeof, alignof, (field, offsetof)...), every field in declaration order.
#define ABI_FIELD(tag, field, offset)                                                                \
   static_assert(!layout64 || offsetof(tag##_t, field) == (offset), "offset of " #tag "." #field);
#define ABI_STRUCT(tag, size, align, ...)                                                            \
   static_assert(std::is_same<struct tag, tag##_t>::value, #tag "_t names struct " #tag);           \
   static_assert(!layout64 || sizeof(tag##_t) == (size), "sizeof " #tag);                           \
   static_assert(!layout64 || alignof(tag##_t) == (align), "alignof " #tag);                        \
   ABI_EACH(ABI_FIELD, tag, __VA_ARGS__)
// An id is a char array (its text and NUL) whose bytes match: hosts compare ids with strcmp.
#define ABI_ID(_, name, text)                                                                        \
   static_assert(std::is_same<decltype(name), const char[sizeof(text)]>::value && sameText(name, text), #name);
#define ABI_IDS(...) ABI_EACH(ABI_ID, _, __VA_ARGS__)
#define ABI_ENUM(_, name, value) static_assert(name == (value), #name);
#define ABI_ENUMS(...) ABI_EACH(ABI_ENUM, _, __VA_ARGS__)
// Feature keywords are plain macros: string literals that concatenate.
#define ABI_FEATURE(_, name, text) static_assert(sameText("" name, text), #name);
#define ABI_FEATURES(...) ABI_EACH(ABI_FEATURE, _, __VA_ARGS__)

ABI_STRUCT(clap_version, 12, 4, (major, 0), (minor, 4), (revision, 8))
ABI_STRUCT(clap_plugin_entry, 40, 8, (clap_version, 0), (init, 16), (deinit, 24), (get_factory, 32))
ABI_STRUCT(clap_plugin_factory, 24, 8, (get_plugin_count, 0), (get_plugin_descriptor, 8), (create_plugin, 16))
ABI_STRUCT(clap_plugin_descriptor, 88, 8, (clap_version, 0), (id, 16), (name, 24), (vendor, 32), (url, 40),
   (manual_url, 48), (support_url, 56), (version, 64), (description, 72), (features, 80))
ABI_STRUCT(clap_plugin, 96, 8, (desc, 0), (plugin_data, 8), (init, 16), (destroy, 24), (activate, 32),
   (deactivate, 40), (start_processing, 48), (stop_processing, 56), (reset, 64), (process, 72), (get_extension, 80),
   (on_main_thread, 88))
ABI_STRUCT(clap_host, 88, 8, (clap_version, 0), (host_data, 16), (name, 24), (vendor, 32), (url, 40), (version, 48),
   (get_extension, 56), (request_restart, 64), (request_process, 72), (request_callback, 80))
ABI_STRUCT(clap_audio_buffer, 32, 8, (data32, 0), (data64, 8), (channel_count, 16), (latency, 20),
   (constant_mask, 24))
ABI_STRUCT(clap_process, 64, 8, (steady_time, 0), (frames_count, 8), (transport, 16), (audio_inputs, 24),
   (audio_outputs, 32), (audio_inputs_count, 40), (audio_outputs_count, 44), (in_events, 48), (out_events, 56))
ABI_STRUCT(clap_event_header, 16, 4, (size, 0), (time, 4), (space_id, 8), (type, 10), (flags, 12))
ABI_STRUCT(clap_event_note, 40, 8, (header, 0), (note_id, 16), (port_index, 20), (channel, 22), (key, 24),
   (velocity, 32))
ABI_STRUCT(clap_event_note_expression, 40, 8, (header, 0), (expression_id, 16), (note_id, 20), (port_index, 24),
   (channel, 26), (key, 28), (value, 32))
ABI_STRUCT(clap_event_param_value, 56, 8, (header, 0), (param_id, 16), (cookie, 24), (note_id, 32), (port_index, 36),
   (channel, 38), (key, 40), (value, 48))
ABI_STRUCT(clap_event_param_mod, 56, 8, (header, 0), (param_id, 16), (cookie, 24), (note_id, 32), (port_index, 36),
   (channel, 38), (key, 40), (amount, 48))
ABI_STRUCT(clap_event_param_gesture, 20, 4, (header, 0), (param_id, 16))
ABI_STRUCT(clap_event_transport, 104, 8, (header, 0), (flags, 16), (song_pos_beats, 24), (song_pos_seconds, 32),
   (tempo, 40), (tempo_inc, 48), (loop_start_beats, 56), (loop_end_beats, 64), (loop_start_seconds, 72),
   (loop_end_seconds, 80), (bar_start, 88), (bar_number, 96), (tsig_num, 100), (tsig_denom, 102))
ABI_STRUCT(clap_event_midi, 24, 4, (header, 0), (port_index, 16), (data, 18))
ABI_STRUCT(clap_event_midi_sysex, 40, 8, (header, 0), (port_index, 16), (buffer, 24), (size, 32))
ABI_STRUCT(clap_event_midi2, 36, 4, (header, 0), (port_index, 16), (data, 20))
ABI_STRUCT(clap_input_events, 24, 8, (ctx, 0), (size, 8), (get, 16))
ABI_STRUCT(clap_output_events, 16, 8, (ctx, 0), (try_push, 8))
ABI_STRUCT(clap_istream, 16, 8, (ctx, 0), (read, 8))
ABI_STRUCT(clap_ostream, 16, 8, (ctx, 0), (write, 8))
ABI_STRUCT(clap_param_info, 1320, 8, (id, 0), (flags, 4), (cookie, 8), (name, 16), (module, 272), (min_value, 1296),
   (max_value, 1304), (default_value, 1312))
ABI_STRUCT(clap_plugin_params, 48, 8, (count, 0), (get_info, 8), (get_value, 16), (value_to_text, 24),
   (text_to_value, 32), (flush, 40))
ABI_STRUCT(clap_host_params, 24, 8, (rescan, 0), (clear, 8), (request_flush, 16))
ABI_STRUCT(clap_audio_port_info, 288, 8, (id, 0), (name, 4), (flags, 260), (channel_count, 264), (port_type, 272),
   (in_place_pair, 280))
ABI_STRUCT(clap_plugin_audio_ports, 16, 8, (count, 0), (get, 8))
ABI_STRUCT(clap_host_audio_ports, 16, 8, (is_rescan_flag_supported, 0), (rescan, 8))
ABI_STRUCT(clap_note_port_info, 268, 4, (id, 0), (supported_dialects, 4), (preferred_dialect, 8), (name, 12))
ABI_STRUCT(clap_plugin_note_ports, 16, 8, (count, 0), (get, 8))
ABI_STRUCT(clap_host_note_ports, 16, 8, (supported_dialects, 0), (rescan, 8))
ABI_STRUCT(clap_plugin_state, 16, 8, (save, 0), (load, 8))
ABI_STRUCT(clap_host_state, 8, 8, (mark_dirty, 0))
ABI_STRUCT(clap_plugin_latency, 8, 8, (get, 0))
ABI_STRUCT(clap_host_latency, 8, 8, (changed, 0))
ABI_STRUCT(clap_window, 16, 8, (api, 0), (cocoa, 8), (x11, 8), (win32, 8), (ptr, 8))
ABI_STRUCT(clap_gui_resize_hints, 12, 4, (can_resize_horizontally, 0), (can_resize_vertically, 1),
   (preserve_aspect_ratio, 2), (aspect_ratio_width, 4), (aspect_ratio_height, 8))
ABI_STRUCT(clap_plugin_gui, 120, 8, (is_api_supported, 0), (get_preferred_api, 8), (create, 16), (destroy, 24),
   (set_scale, 32), (get_size, 40), (can_resize, 48), (get_resize_hints, 56), (adjust_size, 64), (set_size, 72),
   (set_parent, 80), (set_transient, 88), (suggest_title, 96), (show, 104), (hide, 112))
ABI_STRUCT(clap_host_gui, 40, 8, (resize_hints_changed, 0), (request_resize, 8), (request_show, 16),
   (request_hide, 24), (closed, 32))
ABI_STRUCT(clap_plugin_timer_support, 8, 8, (on_timer, 0))
ABI_STRUCT(clap_host_timer_support, 16, 8, (register_timer, 0), (unregister_timer, 8))
ABI_STRUCT(clap_plugin_posix_fd_support, 8, 8, (on_fd, 0))
ABI_STRUCT(clap_host_posix_fd_support, 24, 8, (register_fd, 0), (modify_fd, 8), (unregister_fd, 16))
ABI_STRUCT(clap_plugin_webview, 24, 8, (get_uri, 0), (get_resource, 8), (receive, 16))
ABI_STRUCT(clap_host_webview, 8, 8, (send, 0))

ABI_IDS((CLAP_PLUGIN_FACTORY_ID, "clap.plugin-factory"), (CLAP_EXT_PARAMS, "clap.params"),
   (CLAP_EXT_AUDIO_PORTS, "clap.audio-ports"), (CLAP_EXT_NOTE_PORTS, "clap.note-ports"),
   (CLAP_EXT_STATE, "clap.state"), (CLAP_EXT_LATENCY, "clap.latency"), (CLAP_EXT_GUI, "clap.gui"),
   (CLAP_EXT_TIMER_SUPPORT, "clap.timer-support"), (CLAP_EXT_POSIX_FD_SUPPORT, "clap.posix-fd-support"))
ABI_IDS((CLAP_EXT_WEBVIEW, "clap.webview/3"), (CLAP_PORT_MONO, "mono"), (CLAP_PORT_STEREO, "stereo"),
   (CLAP_WINDOW_API_WIN32, "win32"), (CLAP_WINDOW_API_COCOA, "cocoa"), (CLAP_WINDOW_API_X11, "x11"),
   (CLAP_WINDOW_API_WAYLAND, "wayland"), (CLAP_WINDOW_API_WEBVIEW, "webview"))
ABI_ENUMS((CLAP_NAME_SIZE, 256), (CLAP_PATH_SIZE, 1024), (CLAP_PROCESS_ERROR, 0), (CLAP_PROCESS_CONTINUE, 1),
   (CLAP_PROCESS_CONTINUE_IF_NOT_QUIET, 2), (CLAP_PROCESS_TAIL, 3), (CLAP_PROCESS_SLEEP, 4), (CLAP_EVENT_IS_LIVE, 0x1),
   (CLAP_EVENT_DONT_RECORD, 0x2), (CLAP_EVENT_NOTE_ON, 0), (CLAP_EVENT_NOTE_OFF, 1), (CLAP_EVENT_NOTE_CHOKE, 2),
   (CLAP_EVENT_NOTE_END, 3), (CLAP_EVENT_NOTE_EXPRESSION, 4), (CLAP_EVENT_PARAM_VALUE, 5), (CLAP_EVENT_PARAM_MOD, 6))
ABI_ENUMS((CLAP_EVENT_PARAM_GESTURE_BEGIN, 7), (CLAP_EVENT_PARAM_GESTURE_END, 8), (CLAP_EVENT_TRANSPORT, 9),
   (CLAP_EVENT_MIDI, 10), (CLAP_EVENT_MIDI_SYSEX, 11), (CLAP_EVENT_MIDI2, 12), (CLAP_NOTE_EXPRESSION_VOLUME, 0),
   (CLAP_NOTE_EXPRESSION_PAN, 1), (CLAP_NOTE_EXPRESSION_TUNING, 2), (CLAP_NOTE_EXPRESSION_VIBRATO, 3),
   (CLAP_NOTE_EXPRESSION_EXPRESSION, 4), (CLAP_NOTE_EXPRESSION_BRIGHTNESS, 5), (CLAP_NOTE_EXPRESSION_PRESSURE, 6),
   (CLAP_TRANSPORT_HAS_TEMPO, 0x01), (CLAP_TRANSPORT_HAS_BEATS_TIMELINE, 0x02),
   (CLAP_TRANSPORT_HAS_SECONDS_TIMELINE, 0x04))
ABI_ENUMS((CLAP_TRANSPORT_HAS_TIME_SIGNATURE, 0x08), (CLAP_TRANSPORT_IS_PLAYING, 0x10),
   (CLAP_TRANSPORT_IS_RECORDING, 0x20), (CLAP_TRANSPORT_IS_LOOP_ACTIVE, 0x40),
   (CLAP_TRANSPORT_IS_WITHIN_PRE_ROLL, 0x80), (CLAP_PARAM_IS_STEPPED, 0x1), (CLAP_PARAM_IS_PERIODIC, 0x2),
   (CLAP_PARAM_IS_HIDDEN, 0x4), (CLAP_PARAM_IS_READONLY, 0x8), (CLAP_PARAM_IS_BYPASS, 0x10),
   (CLAP_PARAM_IS_AUTOMATABLE, 0x20), (CLAP_PARAM_IS_AUTOMATABLE_PER_NOTE_ID, 0x40),
   (CLAP_PARAM_IS_AUTOMATABLE_PER_KEY, 0x80), (CLAP_PARAM_IS_AUTOMATABLE_PER_CHANNEL, 0x100),
   (CLAP_PARAM_IS_AUTOMATABLE_PER_PORT, 0x200), (CLAP_PARAM_IS_MODULATABLE, 0x400))
ABI_ENUMS((CLAP_PARAM_IS_MODULATABLE_PER_NOTE_ID, 0x800), (CLAP_PARAM_IS_MODULATABLE_PER_KEY, 0x1000),
   (CLAP_PARAM_IS_MODULATABLE_PER_CHANNEL, 0x2000), (CLAP_PARAM_IS_MODULATABLE_PER_PORT, 0x4000),
   (CLAP_PARAM_IS_ENUM, 0x10000), (CLAP_PARAM_REQUIRES_PROCESS, 0x8000), (CLAP_PARAM_RESCAN_VALUES, 0x1),
   (CLAP_PARAM_RESCAN_TEXT, 0x2), (CLAP_PARAM_RESCAN_INFO, 0x4), (CLAP_PARAM_RESCAN_ALL, 0x8),
   (CLAP_PARAM_CLEAR_ALL, 0x1), (CLAP_PARAM_CLEAR_AUTOMATIONS, 0x2), (CLAP_PARAM_CLEAR_MODULATIONS, 0x4),
   (CLAP_AUDIO_PORT_IS_MAIN, 0x1), (CLAP_AUDIO_PORT_SUPPORTS_64BITS, 0x2), (CLAP_AUDIO_PORT_PREFERS_64BITS, 0x4))
ABI_ENUMS((CLAP_AUDIO_PORT_REQUIRES_COMMON_SAMPLE_SIZE, 0x8), (CLAP_AUDIO_PORTS_RESCAN_NAMES, 0x1),
   (CLAP_AUDIO_PORTS_RESCAN_FLAGS, 0x2), (CLAP_AUDIO_PORTS_RESCAN_CHANNEL_COUNT, 0x4),
   (CLAP_AUDIO_PORTS_RESCAN_PORT_TYPE, 0x8), (CLAP_AUDIO_PORTS_RESCAN_IN_PLACE_PAIR, 0x10),
   (CLAP_AUDIO_PORTS_RESCAN_LIST, 0x20), (CLAP_NOTE_DIALECT_CLAP, 0x1), (CLAP_NOTE_DIALECT_MIDI, 0x2),
   (CLAP_NOTE_DIALECT_MIDI_MPE, 0x4), (CLAP_NOTE_DIALECT_MIDI2, 0x8), (CLAP_NOTE_PORTS_RESCAN_ALL, 0x1),
   (CLAP_NOTE_PORTS_RESCAN_NAMES, 0x2), (CLAP_POSIX_FD_READ, 0x1), (CLAP_POSIX_FD_WRITE, 0x2),
   (CLAP_POSIX_FD_ERROR, 0x4))

ABI_FEATURES((CLAP_PLUGIN_FEATURE_INSTRUMENT, "instrument"), (CLAP_PLUGIN_FEATURE_AUDIO_EFFECT, "audio-effect"),
   (CLAP_PLUGIN_FEATURE_NOTE_EFFECT, "note-effect"), (CLAP_PLUGIN_FEATURE_ANALYZER, "analyzer"),
   (CLAP_PLUGIN_FEATURE_PITCH_SHIFTER, "pitch-shifter"), (CLAP_PLUGIN_FEATURE_RESTORATION, "restoration"),
   (CLAP_PLUGIN_FEATURE_CHORUS, "chorus"), (CLAP_PLUGIN_FEATURE_TRANSIENT_SHAPER, "transient-shaper"),
   (CLAP_PLUGIN_FEATURE_UTILITY, "utility"), (CLAP_PLUGIN_FEATURE_MONO, "mono"), (CLAP_PLUGIN_FEATURE_STEREO, "stereo"))

// Exact types: a wrong signedness turns -1 into 65535, and hosts' compilers check const; fields never use enums.
static_assert(std::is_same<clap_id, uint32_t>::value && std::is_same<clap_process_status, int32_t>::value
                 && std::is_same<clap_note_expression, int32_t>::value, "clap_id, status, expression");
static_assert(std::is_same<clap_beattime, int64_t>::value && std::is_same<clap_sectime, int64_t>::value, "times");
static_assert(std::is_same<clap_param_info_flags, uint32_t>::value && std::is_same<clap_param_rescan_flags, uint32_t>::value
                 && std::is_same<clap_param_clear_flags, uint32_t>::value
                 && std::is_same<clap_posix_fd_flags_t, uint32_t>::value, "flag types");
static_assert(std::is_same<clap_hwnd, void *>::value && std::is_same<clap_nsview, void *>::value
                 && std::is_same<clap_xwnd, unsigned long>::value, "window handles");
static_assert(std::is_enum<clap_event_flags>::value && std::is_enum<clap_transport_flags>::value
                 && std::is_enum<clap_note_dialect>::value, "named flag enums");
static_assert(std::is_same<decltype(CLAP_INVALID_ID), const clap_id>::value && CLAP_INVALID_ID == 0xFFFFFFFFu, "");
static_assert(std::is_same<decltype(CLAP_CORE_EVENT_SPACE_ID), const uint16_t>::value && CLAP_CORE_EVENT_SPACE_ID == 0, "");
static_assert(std::is_same<decltype(CLAP_BEATTIME_FACTOR), const int64_t>::value && CLAP_BEATTIME_FACTOR == 1LL << 31, "");
static_assert(std::is_same<decltype(CLAP_SECTIME_FACTOR), const int64_t>::value && CLAP_SECTIME_FACTOR == 1LL << 31, "");
// The module's one export is a data object of the entry type, not a function.
static_assert(std::is_same<decltype(clap_entry), const clap_plugin_entry_t>::value, "clap_entry");
#if defined(__linux__) || defined(__APPLE__)
#   define ABI_TEXT_(...) #__VA_ARGS__
#   define ABI_TEXT(...) ABI_TEXT_(__VA_ARGS__)
static_assert(sizeof(ABI_TEXT(CLAP_ABI)) == 1, "callbacks use the default C calling convention");
#endif

#define ABI_TYPE(_, type, field, ...) static_assert(std::is_same<decltype(type::field), __VA_ARGS__>::value, #type "." #field);
ABI_EACH(ABI_TYPE, _, (clap_event_note_t, port_index, int16_t), (clap_event_note_t, note_id, int32_t),
   (clap_event_param_value_t, key, int16_t), (clap_event_midi_t, port_index, uint16_t),
   (clap_event_header_t, space_id, uint16_t), (clap_process_t, steady_time, int64_t),
   (clap_process_t, audio_inputs, const clap_audio_buffer_t *),
   (clap_process_t, audio_outputs, clap_audio_buffer_t *), (clap_process_t, out_events, const clap_output_events_t *),
   (clap_audio_buffer_t, data32, float **))
ABI_EACH(ABI_TYPE, _, (clap_audio_buffer_t, constant_mask, uint64_t),
   (clap_plugin_descriptor_t, features, const char *const *),
   (clap_output_events_t, try_push, bool (*)(const clap_output_events_t *, const clap_event_header_t *)),
   (clap_plugin_gui_t, get_preferred_api, bool (*)(const clap_plugin_t *, const char **, bool *)),
   (clap_plugin_webview_t, get_uri, int32_t (*)(const clap_plugin_t *, char *, uint32_t)),
   (clap_istream_t, read, int64_t (*)(const clap_istream_t *, void *, uint64_t)),
   (clap_plugin_posix_fd_support_t, on_fd, void (*)(const clap_plugin_t *, int, clap_posix_fd_flags_t)),
   (clap_window_t, x11, clap_xwnd), (clap_param_info_t, min_value, double),
   (clap_plugin_t, init, bool (*)(const clap_plugin_t *)))

// The version: macros usable in #if, a constant object, comparisons by major, minor, revision.
#if !defined(CLAP_VERSION_MAJOR) || CLAP_VERSION_MAJOR != 1 || CLAP_VERSION_MINOR != 2 || CLAP_VERSION_REVISION != 7
#   error "the version numbers are macros for 1.2.7"
#endif
#if !CLAP_VERSION_EQ(1, 2, 7) || CLAP_VERSION_EQ(1, 2, 6) || CLAP_VERSION_EQ(1, 7, 2) || CLAP_VERSION_LT(1, 2, 7) \
   || CLAP_VERSION_LT(1, 1, 9) || !CLAP_VERSION_LT(1, 2, 8) || !CLAP_VERSION_LT(1, 3, 0) || !CLAP_VERSION_LT(2, 0, 0) \
   || !CLAP_VERSION_GE(1, 2, 7) || !CLAP_VERSION_GE(1, 0, 9) || CLAP_VERSION_GE(1, 2, 8) || CLAP_VERSION_GE(2, 0, 0)
#   error "CLAP_VERSION_EQ, _LT or _GE"
#endif
static_assert(std::is_same<decltype(CLAP_VERSION), const clap_version_t>::value, "CLAP_VERSION is an object");
constexpr clap_version_t initialised = CLAP_VERSION_INIT;
static_assert(CLAP_VERSION.major == 1 && CLAP_VERSION.minor == 2 && CLAP_VERSION.revision == 7
                 && initialised.major == 1 && initialised.minor == 2 && initialised.revision == 7, "1.2.7");

// Brace initialisation sets the window's first union member: the cocoa view.
int view;
constexpr clap_window_t window = {CLAP_WINDOW_API_COCOA, {&view}};
static_assert(window.cocoa == &view, "clap_window's union starts with the cocoa view");

TEST(ClapVersion, OnlyReleaseLinesAreCompatible) {
   EXPECT_TRUE(clap_version_is_compatible(CLAP_VERSION) && clap_version_is_compatible(clap_version_t{2, 0, 0})
               && !clap_version_is_compatible(clap_version_t{0, 26, 0}));
}

} // namespace
