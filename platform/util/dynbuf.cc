#include "platform/util/dynbuf.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "platform/log/log.h"

namespace {

// The block size to grow to for at least minSize (<= kDynBufMaxSize)
// bytes: double the current block until it is big enough, capped at the
// maximum.
size_t GrowthTarget(size_t allocated, size_t minSize) {
  size_t target = allocated < kDynBufMinAllocation ? kDynBufMinAllocation : allocated;
  while (target < minSize) {
    target *= 2;  // cannot overflow: target < minSize <= kDynBufMaxSize
  }
  return target < kDynBufMaxSize ? target : kDynBufMaxSize;
}

}  // namespace

void DynBuf_Init(DynBuf *b) {
  b->data = nullptr;
  b->size = 0;
  b->allocated = 0;
}

void DynBuf_Destroy(DynBuf *b) {
  free(b->data);
  DynBuf_Init(b);
}

void *DynBuf_Get(const DynBuf *b) {
  return b->data;
}

size_t DynBuf_GetSize(const DynBuf *b) {
  return b->size;
}

size_t DynBuf_GetAllocatedSize(const DynBuf *b) {
  return b->allocated;
}

bool DynBuf_SetSize(DynBuf *b, size_t size) {
  if (size > b->allocated) {
    Log("DynBuf_SetSize: size %zu exceeds the allocated %zu bytes\n", size, b->allocated);
    return false;
  }
  b->size = size;
  return true;
}

bool DynBuf_Enlarge(DynBuf *b, size_t minSize) {
  if (minSize <= b->allocated) {
    return true;
  }
  if (minSize > kDynBufMaxSize) {
    Log("DynBuf_Enlarge: %zu bytes exceed the limit of %zu\n", minSize, kDynBufMaxSize);
    return false;
  }
  size_t target = GrowthTarget(b->allocated, minSize);
  void *block = realloc(b->data, target);
  if (block == nullptr && target > minSize) {
    // The geometric step may be what failed; try the exact need.
    target = minSize;
    block = realloc(b->data, target);
  }
  if (block == nullptr) {
    Log("DynBuf_Enlarge: cannot allocate %zu bytes\n", minSize);
    return false;
  }
  b->data = static_cast<char *>(block);
  b->allocated = target;
  return true;
}

bool DynBuf_Append(DynBuf *b, const void *data, size_t size) {
  if (size == 0) {
    return true;
  }
  if (data == nullptr) {
    Log("DynBuf_Append: null data for %zu bytes\n", size);
    return false;
  }
  if (size > SIZE_MAX - b->size) {
    Log("DynBuf_Append: size overflow appending %zu bytes to %zu\n", size, b->size);
    return false;
  }
  // Data taken from the buffer itself must be found again after a realloc.
  const char *src = static_cast<const char *>(data);
  const bool inside = b->data != nullptr && std::less_equal<const char *>()(b->data, src) &&
                      std::less<const char *>()(src, b->data + b->allocated);
  const size_t offset = inside ? static_cast<size_t>(src - b->data) : 0;
  if (!DynBuf_Enlarge(b, b->size + size)) {
    return false;
  }
  if (inside) {
    src = b->data + offset;
  }
  memmove(b->data + b->size, src, size);
  b->size += size;
  return true;
}

void DynBuf_SafeInternalAppend(DynBuf *b, const void *data, size_t size, const char *file,
                               int line) {
  if (!DynBuf_Append(b, data, size)) {
    Panic("VERIFY %s:%d \n", file, line);
  }
}

bool DynBuf_Trim(DynBuf *b) {
  if (b->size == b->allocated) {
    return true;
  }
  if (b->size == 0) {
    DynBuf_Destroy(b);
    return true;
  }
  void *block = realloc(b->data, b->size);
  if (block == nullptr) {
    Log("DynBuf_Trim: cannot shrink to %zu bytes\n", b->size);
    return false;
  }
  b->data = static_cast<char *>(block);
  b->allocated = b->size;
  return true;
}

void *DynBuf_Detach(DynBuf *b) {
  void *data = b->data;
  DynBuf_Init(b);
  return data;
}

char *DynBuf_DetachString(DynBuf *b) {
  if (b->size == 0 || b->data[b->size - 1] != '\0') {
    DynBuf_SafeAppend(b, "", 1);
  }
  return static_cast<char *>(DynBuf_Detach(b));
}
