#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Capacities in bytes of the fixed char arrays in info structs; the
// terminating NUL must fit inside.
enum {
   // User-visible names: parameter names, port names.
   CLAP_NAME_SIZE = 256,

   // Hierarchical paths such as a parameter's module, e.g. "Osc/Wavetable 1";
   // not meant for file-system paths.
   CLAP_PATH_SIZE = 1024,
};

#ifdef __cplusplus
}
#endif
