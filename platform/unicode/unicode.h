/*
 * Text encodings: UTF-8 text converted into a host code page (through
 * iconv), for files whose readers expect the user's legacy code page, such
 * as the Windows text answer file.
 *
 * Encodings are named by the host's fixed encoding numbers below; the
 * numbers are part of the host interface and never change. Every function
 * here is thread-safe and never logs.
 */
#ifndef GUESTPREP_PLATFORM_UNICODE_H
#define GUESTPREP_PLATFORM_UNICODE_H

#include <cstdint>

typedef int32_t StringEncoding;

enum : StringEncoding {
  STRING_ENCODING_UTF8 = 0,
  STRING_ENCODING_UTF16_LE = 1,
  STRING_ENCODING_US_ASCII = 7,
  STRING_ENCODING_ISO_8859_1 = 8,
  STRING_ENCODING_BIG5 = 22,          // Traditional Chinese
  STRING_ENCODING_GBK = 24,           // Simplified Chinese (code page 936)
  STRING_ENCODING_SHIFT_JIS = 27,     // Japanese (code page 932)
  STRING_ENCODING_WINDOWS_1251 = 34,  // Cyrillic
  STRING_ENCODING_WINDOWS_1252 = 35,  // Western European
  STRING_ENCODING_CP949 = 62,         // Korean (Unified Hangul Code)
};

/* The text utf8 (NUL-terminated UTF-8) in the encoding enc, as a new
 * NUL-terminated byte string (release with free()). Null when utf8 is null
 * or not valid UTF-8, when enc is unknown, or when any character of the text
 * has no representation in enc: nothing is ever replaced or dropped. */
char *Unicode_GetAllocBytes(const char *utf8, StringEncoding enc);

/* The name of enc as iconv and log lines spell it ("SHIFT_JIS",
 * "WINDOWS-1251", "CP949"...), a constant string; "UNKNOWN" for a number
 * that names no encoding. */
const char *Unicode_EncodingEnumToName(StringEncoding enc);

#endif
