/*
 * Base64 (RFC 4648, standard alphabet, with "=" padding, no line breaks)
 * into a caller's buffer, over OpenSSL's encoder.
 */
#ifndef GUESTPREP_PLATFORM_BASE64_H
#define GUESTPREP_PLATFORM_BASE64_H

#include <cstddef>
#include <cstdint>

/* Bytes Base64_Encode needs for srcLength bytes: the text and its NUL. */
constexpr size_t Base64_EncodedSize(size_t srcLength) {
  return (srcLength / 3 + (srcLength % 3 != 0)) * 4 + 1;
}

/* Encodes srcLength bytes of src into target (targetSize bytes) as a
 * NUL-terminated text; *dataLength (optional) receives its length. False,
 * with target untouched, when it does not fit (or src is null with a
 * length). */
bool Base64_Encode(const uint8_t *src, size_t srcLength, char *target, size_t targetSize,
                   size_t *dataLength);

#endif
