/*
 * Allocation that ends the process on exhaustion instead of returning null.
 * Callers never check the result. A zero-byte request still gives a unique,
 * freeable pointer. Everything returned is released with free().
 */
#ifndef GUESTPREP_PLATFORM_SAFEALLOC_H
#define GUESTPREP_PLATFORM_SAFEALLOC_H

#include <cstddef>

void *UtilSafeMalloc0(size_t size);
void *UtilSafeCalloc0(size_t count, size_t size);
void *UtilSafeRealloc0(void *ptr, size_t size);
/* A null string gives null (not a failure). */
char *UtilSafeStrdup0(const char *s);
/* Copies at most n bytes of s and NUL-terminates; a null string gives null. */
char *UtilSafeStrndup0(const char *s, size_t n);

#endif
