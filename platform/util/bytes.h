/*
 * Little-endian fields and UCS-2 names as the on-disk formats (ISO 9660,
 * UDF, FAT) store them, and UTF-8 checks for text that other programs
 * parse. Callers check that the bytes are there first.
 */
#ifndef GUESTPREP_PLATFORM_BYTES_H
#define GUESTPREP_PLATFORM_BYTES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace gp {

inline uint16_t Le16(const uint8_t *p) {
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
inline uint32_t Le32(const uint8_t *p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
inline uint64_t Le64(const uint8_t *p) {
  return static_cast<uint64_t>(Le32(p)) | (static_cast<uint64_t>(Le32(p + 4)) << 32);
}

/* UCS-2 big-endian (in practice UTF-16) to UTF-8; unpaired surrogates become
 * U+FFFD rather than invalid UTF-8. False on an odd byte count. */
bool Ucs2BeToUtf8(const uint8_t *data, size_t len, std::string *out);

/* Length of the valid UTF-8 sequence at the start of text, 0 when it does
 * not start with one (a stray byte, an overlong form, a surrogate, a cut
 * sequence). */
size_t Utf8SequenceLength(std::string_view text);

/* Whether all of text is valid UTF-8. */
bool IsValidUtf8(std::string_view text);

}  // namespace gp

#endif
