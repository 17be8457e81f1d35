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

// Output is counted and passed on. The C library's own stdio calls its write
// internally, so each output function is counted where a caller enters it.
extern "C" {
ssize_t write(int fd, const void *buffer, std::size_t size) {
	static auto real = next<ssize_t (*)(int, const void *, std::size_t)>("write");
	++threadWrites;
	return real(fd, buffer, size);
}
ssize_t writev(int fd, const struct iovec *parts, int count) {
	static auto real = next<ssize_t (*)(int, const struct iovec *, int)>("writev");
	++threadWrites;
	return real(fd, parts, count);
}
std::size_t fwrite(const void *buffer, std::size_t size, std::size_t count, FILE *file) {
	static auto real = next<std::size_t (*)(const void *, std::size_t, std::size_t, FILE *)>("fwrite");
	++threadWrites;
	return real(buffer, size, count, file);
}
int fputs(const char *text, FILE *file) {
	static auto real = next<int (*)(const char *, FILE *)>("fputs");
	++threadWrites;
	return real(text, file);
}
int puts(const char *text) {
	static auto real = next<int (*)(const char *)>("puts");
	++threadWrites;
	return real(text);
}
int fputc(int c, FILE *file) {
	static auto real = next<int (*)(int, FILE *)>("fputc");
	++threadWrites;
	return real(c, file);
}
int putchar(int c) {
	static auto real = next<int (*)(int)>("putchar");
	++threadWrites;
	return real(c);
}
int vfprintf(FILE *file, const char *format, va_list args) {
	static auto real = next<int (*)(FILE *, const char *, va_list)>("vfprintf");
	++threadWrites;
	return real(file, format, args);
}
int vprintf(const char *format, va_list args) { return vfprintf(stdout, format, args); }
int fprintf(FILE *file, const char *format, ...) {
	va_list args;
	va_start(args, format);
	const int result = vfprintf(file, format, args);
	va_end(args);
	return result;
}
// The fortified forms that _FORTIFY_SOURCE builds call instead.
int __vfprintf_chk(FILE *file, int, const char *format, va_list args) { return vfprintf(file, format, args); }
int __fprintf_chk(FILE *file, int, const char *format, ...) {
	va_list args;
	va_start(args, format);
	const int result = vfprintf(file, format, args);
	va_end(args);
	return result;
}
int __printf_chk(int, const char *format, ...) {
	va_list args;
	va_start(args, format);
	const int result = vfprintf(stdout, format, args);
	va_end(args);
	return result;
}
int printf(const char *format, ...) {
	va_list args;
	va_start(args, format);
	const int result = vfprintf(stdout, format, args);
	va_end(args);
	return result;
}
}

extern "C" {
// Mutex locks are counted and passed on to the C library's own functions.
int pthread_mutex_lock(pthread_mutex_t *mutex) {
	static auto real = next<int (*)(pthread_mutex_t *)>("pthread_mutex_lock");
	++threadLocks;
	return real(mutex);
}
int pthread_mutex_trylock(pthread_mutex_t *mutex) {
	static auto real = next<int (*)(pthread_mutex_t *)>("pthread_mutex_trylock");
	++threadLocks;
	return real(mutex);
}
int pthread_mutex_timedlock(pthread_mutex_t *mutex, const struct timespec *until) {
	static auto real = next<int (*)(pthread_mutex_t *, const struct timespec *)>("pthread_mutex_timedlock");
	++threadLocks;
	return real(mutex, until);
}

void *malloc(std::size_t size) {
	++threadAllocations;
	return __libc_malloc(size);
}
void *calloc(std::size_t count, std::size_t size) {
	++threadAllocations;
	return __libc_calloc(count, size);
}
void *realloc(void *ptr, std::size_t size) {
	++threadAllocations;
	return __libc_realloc(ptr, size);
}
void free(void *ptr) { __libc_free(ptr); }
int posix_memalign(void **out, std::size_t align, std::size_t size) {
	++threadAllocations;
	void *p = __libc_memalign(align, size);
	if (!p) return 12; // ENOMEM
	*out = p;
	return 0;
}
void *aligned_alloc(std::size_t align, std::size_t size) {
	++threadAllocations;
	return __libc_memalign(align, size);
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
