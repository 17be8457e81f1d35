#include "support/alloc_counter.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>

#include <dlfcn.h>
#include <pthread.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

// glibc's own entry points, so the replacements below can forward to them.
extern "C" void *__libc_malloc(std::size_t);
extern "C" void *__libc_calloc(std::size_t, std::size_t);
extern "C" void *__libc_realloc(void *, std::size_t);
extern "C" void *__libc_memalign(std::size_t, std::size_t);
extern "C" void __libc_free(void *);

namespace {
thread_local std::size_t threadAllocations = 0;
thread_local std::size_t threadLocks = 0;
thread_local std::size_t threadWrites = 0;

template<class Fn>
Fn next(const char *name) {
	return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}
} // namespace

namespace lumbrel_test {
std::size_t allocationCount() { return threadAllocations; }
bool allocationCountingAvailable() { return true; }
std::size_t lockCount() { return threadLocks; }
std::size_t writeCount() { return threadWrites; }
}

// Output and mutex locks are counted and passed on to the C library's own functions. Its stdio calls its write
// internally, so each output function is counted where a caller enters it.
#define PASS_ON(counter, type, name, params, args) \
	type name params { \
		static auto real = next<type(*) params>(#name); \
		++counter; \
		return real args; \
	}
extern "C" {
PASS_ON(threadWrites, ssize_t, write, (int fd, const void *buffer, std::size_t size), (fd, buffer, size))
PASS_ON(threadWrites, ssize_t, writev, (int fd, const struct iovec *parts, int count), (fd, parts, count))
PASS_ON(threadWrites, std::size_t, fwrite, (const void *buffer, std::size_t size, std::size_t count, FILE *file),
	(buffer, size, count, file))
PASS_ON(threadWrites, int, fputs, (const char *text, FILE *file), (text, file))
PASS_ON(threadWrites, int, puts, (const char *text), (text))
PASS_ON(threadWrites, int, fputc, (int c, FILE *file), (c, file))
PASS_ON(threadWrites, int, putchar, (int c), (c))
PASS_ON(threadWrites, int, vfprintf, (FILE *file, const char *format, va_list args), (file, format, args))
PASS_ON(threadLocks, int, pthread_mutex_lock, (pthread_mutex_t *mutex), (mutex))
PASS_ON(threadLocks, int, pthread_mutex_trylock, (pthread_mutex_t *mutex), (mutex))
PASS_ON(threadLocks, int, pthread_mutex_timedlock, (pthread_mutex_t *mutex, const struct timespec *until), (mutex, until))
int vprintf(const char *format, va_list args) { return vfprintf(stdout, format, args); }
#define VA_FORWARD(file) \
	va_list args; \
	va_start(args, format); \
	const int result = vfprintf(file, format, args); \
	va_end(args); \
	return result;
int fprintf(FILE *file, const char *format, ...) { VA_FORWARD(file) }
int printf(const char *format, ...) { VA_FORWARD(stdout) }
// The fortified forms that _FORTIFY_SOURCE builds call instead.
int __vfprintf_chk(FILE *file, int, const char *format, va_list args) { return vfprintf(file, format, args); }
int __fprintf_chk(FILE *file, int, const char *format, ...) { VA_FORWARD(file) }
int __printf_chk(int, const char *format, ...) { VA_FORWARD(stdout) }

void *malloc(std::size_t size) { return ++threadAllocations, __libc_malloc(size); }
void *calloc(std::size_t count, std::size_t size) { return ++threadAllocations, __libc_calloc(count, size); }
void *realloc(void *ptr, std::size_t size) { return ++threadAllocations, __libc_realloc(ptr, size); }
void *aligned_alloc(std::size_t align, std::size_t size) { return ++threadAllocations, __libc_memalign(align, size); }
void free(void *ptr) { __libc_free(ptr); }
int posix_memalign(void **out, std::size_t align, std::size_t size) {
	++threadAllocations;
	void *p = __libc_memalign(align, size);
	if (!p) return 12; // ENOMEM
	*out = p;
	return 0;
}
}

void *operator new(std::size_t size) {
	if (void *p = malloc(size ? size : 1)) return p;
	throw std::bad_alloc();
}
void *operator new[](std::size_t size) { return operator new(size); }
void *operator new(std::size_t size, const std::nothrow_t &) noexcept { return malloc(size ? size : 1); }
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept { return malloc(size ? size : 1); }
void *operator new(std::size_t size, std::align_val_t align) {
	void *p = nullptr;
	if (posix_memalign(&p, static_cast<std::size_t>(align), size ? size : 1) != 0) throw std::bad_alloc();
	return p;
}
void *operator new[](std::size_t size, std::align_val_t align) { return operator new(size, align); }
void operator delete(void *p) noexcept { free(p); }
void operator delete[](void *p) noexcept { free(p); }
void operator delete(void *p, std::size_t) noexcept { free(p); }
void operator delete[](void *p, std::size_t) noexcept { free(p); }
void operator delete(void *p, std::align_val_t) noexcept { free(p); }
void operator delete[](void *p, std::align_val_t) noexcept { free(p); }
void operator delete(void *p, std::size_t, std::align_val_t) noexcept { free(p); }
void operator delete[](void *p, std::size_t, std::align_val_t) noexcept { free(p); }
