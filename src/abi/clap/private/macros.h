#pragma once

// Calling convention of every callback. Only 32-bit x86 Windows honours
// __cdecl; everywhere else the platform's default C convention applies.
#if !defined(CLAP_ABI)
#   if defined(_WIN32) || defined(__CYGWIN__)
#      define CLAP_ABI __cdecl
#   else
#      define CLAP_ABI
#   endif
#endif

// Marks the one symbol a plug-in exports (clap_entry). Default visibility keeps
// it exported when the rest of the module is built with -fvisibility=hidden.
#if !defined(CLAP_EXPORT)
#   if defined(_WIN32) || defined(__CYGWIN__)
#      if defined(__GNUC__)
#         define CLAP_EXPORT __attribute__((dllexport))
#      else
#         define CLAP_EXPORT __declspec(dllexport)
#      endif
#   elif (defined(__GNUC__) && __GNUC__ >= 4) || defined(__clang__)
#      define CLAP_EXPORT __attribute__((visibility("default")))
#   else
#      define CLAP_EXPORT
#   endif
#endif

// MSVC keeps __cplusplus at 199711L unless asked otherwise; _MSVC_LANG has the
// real language level there.
#if defined(__cplusplus) \
   && ((defined(_MSVC_LANG) && _MSVC_LANG >= 201103L) || (!defined(_MSVC_LANG) && __cplusplus >= 201103L))
#   define CLAP_CONSTEXPR constexpr
#else
#   define CLAP_CONSTEXPR
#endif

#if defined(__cplusplus) \
   && ((defined(_MSVC_LANG) && _MSVC_LANG >= 201703L) || (!defined(_MSVC_LANG) && __cplusplus >= 201703L))
#   define CLAP_NODISCARD [[nodiscard]]
#else
#   define CLAP_NODISCARD
#endif
