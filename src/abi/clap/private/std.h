#pragma once

// The ABI is built from fixed-width integers, size_t and bool only. The C
// headers are used in C++ as well so that the integer names sit in the global
// namespace in both languages; C gets bool from <stdbool.h>.
#include <stddef.h>
#include <stdint.h>

#ifndef __cplusplus
#   include <stdbool.h>
#endif
