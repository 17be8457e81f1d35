/* Preloaded into lumbrel-render for the behaviour check: the spectral chorus
 * seeds each instance from the system's random device, so that two instances
 * never sound alike. For a comparison of two builds the seed has to be the same;
 * this hands the chorus four fixed bytes in place of the device. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

static char fixedBytes[4] = {0x5a, 0x17, 0x3c, 0x2e};

typedef FILE *(*OpenFunction)(const char *, const char *);

static FILE *openFile(const char *name, const char *path, const char *mode) {
	if (path && strcmp(path, "/dev/urandom") == 0) return fmemopen(fixedBytes, sizeof fixedBytes, "rb");
	OpenFunction next = (OpenFunction)dlsym(RTLD_NEXT, name);
	return next(path, mode);
}

FILE *fopen(const char *path, const char *mode) { return openFile("fopen", path, mode); }
FILE *fopen64(const char *path, const char *mode) { return openFile("fopen64", path, mode); }
