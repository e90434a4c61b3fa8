#include "platform/util/safeAlloc.h"

#include <cstdlib>
#include <cstring>

#include "platform/log/log.h"

namespace {

[[noreturn]] void OutOfMemory(size_t size) {
  Panic("Unrecoverable memory allocation failure (%zu bytes)\n", size);
}

}  // namespace

void *UtilSafeMalloc0(size_t size) {
  void *p = malloc(size == 0 ? 1 : size);
  if (p == nullptr) {
    OutOfMemory(size);
  }
  return p;
}

void *UtilSafeCalloc0(size_t count, size_t size) {
  if (count == 0 || size == 0) {
    count = size = 1;
  }
  void *p = calloc(count, size);
  if (p == nullptr) {
    OutOfMemory(count * size);  // calloc also fails on overflow
  }
  return p;
}

void *UtilSafeRealloc0(void *ptr, size_t size) {
  void *p = realloc(ptr, size == 0 ? 1 : size);
  if (p == nullptr) {
    OutOfMemory(size);
  }
  return p;
}

char *UtilSafeStrdup0(const char *s) {
  if (s == nullptr) {
    return nullptr;
  }
  size_t n = strlen(s) + 1;
  char *p = static_cast<char *>(UtilSafeMalloc0(n));
  memcpy(p, s, n);
  return p;
}

char *UtilSafeStrndup0(const char *s, size_t n) {
  if (s == nullptr) {
    return nullptr;
  }
  size_t len = strnlen(s, n);
  char *p = static_cast<char *>(UtilSafeMalloc0(len + 1));
  memcpy(p, s, len);
  p[len] = '\0';
  return p;
}
