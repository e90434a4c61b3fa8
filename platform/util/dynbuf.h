/*
 * Growable byte buffer.
 *
 * A DynBuf holds `size` bytes of data in a block of `allocated` bytes. The
 * block grows geometrically (appending n bytes one at a time costs O(n)
 * copies in total) and every size computation is checked for overflow. The
 * block can be handed to the caller (DynBuf_Detach), who frees it with
 * free(). A buffer is used by one thread at a time.
 *
 * The plain functions report failure (overflow, out of memory) with false
 * and one log line, leaving the buffer as it was; the Safe forms end the
 * process through Panic instead.
 */
#ifndef GUESTPREP_PLATFORM_DYNBUF_H
#define GUESTPREP_PLATFORM_DYNBUF_H

#include <cstddef>

struct DynBuf {
  char *data;
  size_t size;
  size_t allocated;
};

/* Smallest block a growing buffer allocates. */
constexpr size_t kDynBufMinAllocation = 128;
/* Largest block a buffer may grow to. Nothing in this library comes near
 * it (the biggest file it reads whole is 256 MiB); a request beyond it is a
 * corrupt length, refused before asking the allocator. */
constexpr size_t kDynBufMaxSize = size_t{1} << 30;

/* Makes b empty with no block. Call before any other use. */
void DynBuf_Init(DynBuf *b);

/* Frees the block and leaves b empty (re-initialised), ready for reuse. */
void DynBuf_Destroy(DynBuf *b);

/* The data (null when nothing was ever allocated). Valid until the next
 * call that may grow, trim, detach or destroy the buffer. */
void *DynBuf_Get(const DynBuf *b);
size_t DynBuf_GetSize(const DynBuf *b);
size_t DynBuf_GetAllocatedSize(const DynBuf *b);

/* Sets the data size, for callers that wrote into the block directly. The
 * size may not exceed the allocated size (DynBuf_Enlarge first): false and
 * a log line otherwise. Bytes exposed by growing the size are whatever the
 * block held. */
bool DynBuf_SetSize(DynBuf *b, size_t size);

/* Makes the block at least minSize bytes (the data is kept). False beyond
 * kDynBufMaxSize. */
bool DynBuf_Enlarge(DynBuf *b, size_t minSize);

/* Appends size bytes. data may point into the buffer itself. Appending 0
 * bytes always succeeds (data may then be null). */
bool DynBuf_Append(DynBuf *b, const void *data, size_t size);

/* DynBuf_Append that never fails: on exhaustion it ends the process with
 * "VERIFY <file>:<line> \n" naming the caller (filled in automatically). */
void DynBuf_SafeInternalAppend(DynBuf *b, const void *data, size_t size,
                               const char *file = __builtin_FILE(), int line = __builtin_LINE());
inline void DynBuf_SafeAppend(DynBuf *b, const void *data, size_t size,
                              const char *file = __builtin_FILE(), int line = __builtin_LINE()) {
  DynBuf_SafeInternalAppend(b, data, size, file, line);
}

/* Shrinks the block to the data size (frees it when empty). False, with
 * the buffer unchanged, when the system refuses the smaller block. */
bool DynBuf_Trim(DynBuf *b);

/* Hands the block to the caller (free() it) and leaves b empty. Null when
 * no block was ever allocated. */
void *DynBuf_Detach(DynBuf *b);

/* Hands the data over as a NUL-terminated string, appending a NUL unless
 * the data already ends with one; never null (an empty buffer gives "").
 * Ends the process on exhaustion. The caller frees it with free(). */
char *DynBuf_DetachString(DynBuf *b);

#endif
