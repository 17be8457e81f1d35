/* The same rows as abi_layout_test.cpp, checked by the C compiler: C has its
 * own bool and its own rules for the headers' macros, so its layout is proven
 * separately. */

#include <clap/all.h>

#define ABI_64BIT_LAYOUT (UINTPTR_MAX == UINT64_MAX)

#if defined(__GNUC__)
/* Exact types through a GCC/Clang builtin; top-level qualifiers are ignored,
 * pointee const is not. */
#   define ABI_SAME_TYPE(a, b) __builtin_types_compatible_p(a, b)
#else
#   define ABI_SAME_TYPE(a, b) 1
#endif

#define ABI_STRUCT(tag, size, align)                                                         \
   _Static_assert(ABI_SAME_TYPE(struct tag, tag##_t), #tag "_t names struct " #tag);         \
   _Static_assert(!ABI_64BIT_LAYOUT || sizeof(tag##_t) == (size), "sizeof " #tag);            \
   _Static_assert(!ABI_64BIT_LAYOUT || _Alignof(tag##_t) == (align), "alignof " #tag);
#define ABI_FIELD(type, field, offset, ...)                                                  \
   _Static_assert(!ABI_64BIT_LAYOUT || offsetof(type, field) == (offset),                     \
                  "offset of " #type "." #field);                                            \
   _Static_assert(ABI_SAME_TYPE(__typeof__(((type *)0)->field), __VA_ARGS__),                \
                  "type of " #type "." #field);
#define ABI_ID(name, text) _Static_assert(sizeof(name) == sizeof(text), #name " is a char array of its text");
#define ABI_ENUM(name, value) _Static_assert(name == (value), #name);
#include "abi_layout_table.h"

_Static_assert(sizeof(bool) == 1, "bool is one byte");

/* C has no constexpr: the macro must vanish. */
#define ABI_TEXT_(...) #__VA_ARGS__
#define ABI_TEXT(...) ABI_TEXT_(__VA_ARGS__)
_Static_assert(sizeof(ABI_TEXT(CLAP_CONSTEXPR)) == 1, "CLAP_CONSTEXPR is empty in C");
_Static_assert(sizeof(ABI_TEXT(CLAP_NODISCARD)) == 1, "CLAP_NODISCARD is empty in C");

static const clap_version_t abi_initialised = CLAP_VERSION_INIT;

/* Keeps the object file non-empty and the initialiser used. */
uint32_t lumbrel_abi_c_version_revision(void);
uint32_t lumbrel_abi_c_version_revision(void) {
   return abi_initialised.revision;
}
