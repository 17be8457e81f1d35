// The ABI declaration must match CLAP 1.2.7 to the byte: struct sizes,
// alignments, field offsets and exact field types, the ids, the numbers and the
// kind of each constant. Nearly everything is checked at compile time; a
// mistake stops the build with the name of the struct and field.

#include <clap/all.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

// The offsets were measured on 64-bit targets; elsewhere (i386 puts 8-byte
// fields on 4-byte boundaries) only the types are checked.
#define ABI_64BIT_LAYOUT (UINTPTR_MAX == UINT64_MAX)

#define ABI_STRUCT(tag, size, align)                                                 \
   static_assert(std::is_same<struct tag, tag##_t>::value, #tag "_t names struct " #tag); \
   static_assert(!ABI_64BIT_LAYOUT || sizeof(tag##_t) == (size), "sizeof " #tag);    \
   static_assert(!ABI_64BIT_LAYOUT || alignof(tag##_t) == (align), "alignof " #tag);
#define ABI_FIELD(type, field, offset, ...)                                          \
   static_assert(!ABI_64BIT_LAYOUT || offsetof(type, field) == (offset),              \
                 "offset of " #type "." #field);                                     \
   static_assert(std::is_same<decltype(type::field), __VA_ARGS__>::value, "type of " #type "." #field);
// An id is a char array, not a pointer: sizeof covers the text and its NUL.
#define ABI_ID(name, text)                                                           \
   static_assert(std::is_same<decltype(name), const char[sizeof(text)]>::value, #name " is a char array of its text");
#define ABI_ENUM(name, value) static_assert(name == (value), #name);
#include "abi_layout_table.h"
#undef ABI_STRUCT
#undef ABI_FIELD
#undef ABI_ID
#undef ABI_ENUM

namespace {

// ---- version ----------------------------------------------------------------

#if !defined(CLAP_VERSION_MAJOR) || !defined(CLAP_VERSION_MINOR) || !defined(CLAP_VERSION_REVISION)
#   error "the version numbers are macros"
#endif
static_assert(CLAP_VERSION_MAJOR == 1 && CLAP_VERSION_MINOR == 2 && CLAP_VERSION_REVISION == 7, "1.2.7");
static_assert(std::is_same<decltype(CLAP_VERSION), const clap_version_t>::value, "CLAP_VERSION is an object");
static_assert(CLAP_VERSION.major == 1 && CLAP_VERSION.minor == 2 && CLAP_VERSION.revision == 7,
              "CLAP_VERSION is 1.2.7 and usable in constant expressions");

constexpr clap_version_t initialised = CLAP_VERSION_INIT;
static_assert(initialised.major == 1 && initialised.minor == 2 && initialised.revision == 7,
              "CLAP_VERSION_INIT");

// The comparisons must be usable in #if and order by major, then minor, then
// revision: a smaller later component must not outweigh a larger earlier one.
#if !CLAP_VERSION_EQ(1, 2, 7) || CLAP_VERSION_EQ(1, 2, 6) || CLAP_VERSION_EQ(1, 7, 2)
#   error "CLAP_VERSION_EQ"
#endif
#if CLAP_VERSION_LT(1, 2, 7) || CLAP_VERSION_LT(1, 1, 9) || CLAP_VERSION_LT(0, 9, 9)
#   error "CLAP_VERSION_LT is true for an older version"
#endif
#if !CLAP_VERSION_LT(1, 2, 8) || !CLAP_VERSION_LT(1, 3, 0) || !CLAP_VERSION_LT(2, 0, 0)
#   error "CLAP_VERSION_LT is false for a newer version"
#endif
#if !CLAP_VERSION_GE(1, 2, 7) || !CLAP_VERSION_GE(1, 0, 9) || CLAP_VERSION_GE(1, 2, 8) || CLAP_VERSION_GE(2, 0, 0)
#   error "CLAP_VERSION_GE"
#endif

TEST(ClapVersion, OnlyReleaseLinesAreCompatible) {
   EXPECT_TRUE(clap_version_is_compatible(CLAP_VERSION));
   EXPECT_TRUE(clap_version_is_compatible(clap_version_t{1, 0, 0}));
   EXPECT_TRUE(clap_version_is_compatible(clap_version_t{2, 0, 0}));
   EXPECT_FALSE(clap_version_is_compatible(clap_version_t{0, 26, 0}));
}

// ---- scalar typedefs and object constants -----------------------------------

// Same width but wrong signedness would turn -1 into 65535 and break "<= 0"
// error checks, so the exact types matter.
static_assert(std::is_same<clap_id, uint32_t>::value, "clap_id");
static_assert(std::is_same<clap_beattime, int64_t>::value && std::is_same<clap_sectime, int64_t>::value,
              "fixed-point times");
static_assert(std::is_same<clap_process_status, int32_t>::value, "clap_process_status");
static_assert(std::is_same<clap_note_expression, int32_t>::value, "clap_note_expression");
static_assert(std::is_same<clap_param_info_flags, uint32_t>::value, "clap_param_info_flags");
static_assert(std::is_same<clap_param_rescan_flags, uint32_t>::value, "clap_param_rescan_flags");
static_assert(std::is_same<clap_param_clear_flags, uint32_t>::value, "clap_param_clear_flags");
static_assert(std::is_same<clap_posix_fd_flags_t, uint32_t>::value, "clap_posix_fd_flags_t");
static_assert(std::is_same<clap_hwnd, void *>::value && std::is_same<clap_nsview, void *>::value,
              "pointer handles");
static_assert(std::is_same<clap_xwnd, unsigned long>::value, "an X11 window is an unsigned long");

static_assert(std::is_same<decltype(CLAP_INVALID_ID), const clap_id>::value && CLAP_INVALID_ID == 0xFFFFFFFFu,
              "CLAP_INVALID_ID");
static_assert(std::is_same<decltype(CLAP_CORE_EVENT_SPACE_ID), const uint16_t>::value
                 && CLAP_CORE_EVENT_SPACE_ID == 0,
              "CLAP_CORE_EVENT_SPACE_ID");
static_assert(std::is_same<decltype(CLAP_BEATTIME_FACTOR), const int64_t>::value
                 && CLAP_BEATTIME_FACTOR == 2147483648LL,
              "CLAP_BEATTIME_FACTOR");
static_assert(std::is_same<decltype(CLAP_SECTIME_FACTOR), const int64_t>::value
                 && CLAP_SECTIME_FACTOR == 2147483648LL,
              "CLAP_SECTIME_FACTOR");

// The flag sets that have a name; fields still use uint32_t, never the enum.
static_assert(std::is_enum<clap_event_flags>::value && std::is_enum<clap_transport_flags>::value
                 && std::is_enum<clap_note_dialect>::value,
              "named flag enums");

// The module's one export is a data object of the entry type, not a function.
static_assert(std::is_same<decltype(clap_entry), const clap_plugin_entry_t>::value, "clap_entry");

#if defined(__linux__) || defined(__APPLE__)
#   define ABI_TEXT_(...) #__VA_ARGS__
#   define ABI_TEXT(...) ABI_TEXT_(__VA_ARGS__)
static_assert(sizeof(ABI_TEXT(CLAP_ABI)) == 1, "callbacks use the default C calling convention");
#endif

// ---- strings ----------------------------------------------------------------

struct NamedText {
   const char *name;
   const char *actual;
   const char *expected;
};

// Hosts and plug-ins compare ids with strcmp, each with its own copy, so the
// bytes must match exactly.
TEST(ClapIds, MatchByteForByte) {
   const NamedText ids[] = {
#define ABI_STRUCT(...)
#define ABI_FIELD(...)
#define ABI_ENUM(...)
#define ABI_ID(name, text) {#name, name, text},
#include "abi_layout_table.h"
#undef ABI_STRUCT
#undef ABI_FIELD
#undef ABI_ENUM
#undef ABI_ID
   };
   ASSERT_EQ(sizeof(ids) / sizeof(ids[0]), 17u);
   for (const NamedText &id : ids) {
      EXPECT_STREQ(id.actual, id.expected) << id.name;
      EXPECT_EQ(std::strlen(id.actual), std::strlen(id.expected)) << id.name;
   }
}

// Feature keywords are plain macros: string literals that concatenate.
TEST(ClapFeatures, AreStringLiteralMacros) {
   const NamedText features[] = {
      {"INSTRUMENT", "" CLAP_PLUGIN_FEATURE_INSTRUMENT, "instrument"},
      {"AUDIO_EFFECT", "" CLAP_PLUGIN_FEATURE_AUDIO_EFFECT, "audio-effect"},
      {"NOTE_EFFECT", "" CLAP_PLUGIN_FEATURE_NOTE_EFFECT, "note-effect"},
      {"ANALYZER", "" CLAP_PLUGIN_FEATURE_ANALYZER, "analyzer"},
      {"PITCH_SHIFTER", "" CLAP_PLUGIN_FEATURE_PITCH_SHIFTER, "pitch-shifter"},
      {"RESTORATION", "" CLAP_PLUGIN_FEATURE_RESTORATION, "restoration"},
      {"CHORUS", "" CLAP_PLUGIN_FEATURE_CHORUS, "chorus"},
      {"TRANSIENT_SHAPER", "" CLAP_PLUGIN_FEATURE_TRANSIENT_SHAPER, "transient-shaper"},
      {"UTILITY", "" CLAP_PLUGIN_FEATURE_UTILITY, "utility"},
      {"MONO", "" CLAP_PLUGIN_FEATURE_MONO, "mono"},
      {"STEREO", "" CLAP_PLUGIN_FEATURE_STEREO, "stereo"},
   };
   for (const NamedText &feature : features)
      EXPECT_STREQ(feature.actual, feature.expected) << feature.name;
}

// ---- the window union -------------------------------------------------------

// Brace initialisation sets the first union member, which must be the cocoa
// view (an X11 id first would not even take a pointer).
TEST(ClapWindow, BraceInitialisationSetsTheFirstHandle) {
   int view = 0;
   const clap_window_t window = {CLAP_WINDOW_API_COCOA, {&view}};
   EXPECT_STREQ(window.api, "cocoa");
   EXPECT_EQ(window.cocoa, static_cast<void *>(&view));
}

// ---- the C view -------------------------------------------------------------

extern "C" uint32_t lumbrel_abi_c_version_revision(void);

// abi_layout_c.c checks the same rows with the C compiler; this makes sure it
// is part of the test and that CLAP_VERSION_INIT works as a C initialiser.
TEST(ClapC, SeesTheSameVersion) {
   EXPECT_EQ(lumbrel_abi_c_version_revision(), 7u);
}

} // namespace
