#pragma once
// Hints for the compiler's vectoriser on the portable hot loops.
//
// LUMBREL_VECTOR_CLONES: with GCC on x86-64 Linux a marked function is built
// twice, for the baseline and for x86-64-v3 (AVX2, FMA), and the loader picks
// one by the processor; elsewhere it is one plain function. Mark only functions
// with internal linkage. Not under ThreadSanitizer: the loader runs the
// resolvers while relocating, and in a program linked with this code that is
// before the sanitizer's runtime exists, whose hooks the resolvers would call.
// LUMBREL_MULTIVERSION is defined where clones are built: there a function with
// internal linkage may also come in two written versions, target("default")
// and target("arch=x86-64-v3"), picked the same way.
//
// LUMBREL_IVDEP, before a loop: no dependence between iterations, for loops
// whose output may be exactly one of their input rows (which carries none).
#if defined(__GNUC__) && !defined(__clang__) && defined(__x86_64__) && defined(__linux__) && \
	!defined(LUMBREL_NO_MULTIVERSION) && !defined(__SANITIZE_THREAD__)
#define LUMBREL_VECTOR_CLONES __attribute__((target_clones("arch=x86-64-v3", "default")))
#define LUMBREL_MULTIVERSION 1
#else
#define LUMBREL_VECTOR_CLONES
#endif

#if defined(__clang__)
#define LUMBREL_IVDEP _Pragma("clang loop vectorize(assume_safety)")
#elif defined(__GNUC__)
#define LUMBREL_IVDEP _Pragma("GCC ivdep")
#else
#define LUMBREL_IVDEP
#endif
