/*
 * Host string helpers: bounded copying and formatting (Str_*) and small
 * parsing and testing utilities (StrUtil_*).
 *
 * Conventions for the whole family:
 * - Strings are NUL-terminated byte strings. Nothing here looks at locales
 *   or encodings: case folding and classification are ASCII only, and
 *   truncation cuts at a byte, because callers also store text already
 *   converted to legacy code pages (where a UTF-8 boundary means nothing).
 * - The bounded functions (Str_Strcpy, Str_Strcat, Str_Snprintf,
 *   Str_Sprintf) never write a byte at or beyond dst[size], always leave a
 *   NUL-terminated result when size > 0, and truncate instead of ending the
 *   process: fixed-size text fields are filled with as much as fits.
 * - Returned strings are newly allocated; the caller frees them with free().
 * - A null string argument is treated as described per function; none of
 *   them dereferences one.
 */
#ifndef GUESTPREP_PLATFORM_STR_H
#define GUESTPREP_PLATFORM_STR_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>

/* Copies src into dst (capacity maxSize bytes, NUL included), truncating to
 * maxSize - 1 bytes when it does not fit. maxSize 0 writes nothing. A null
 * src copies the empty string. Overlapping buffers are allowed. Returns dst. */
char *Str_Strcpy(char *dst, const char *src, size_t maxSize);

/* Appends src to the NUL-terminated text in dst (capacity maxSize),
 * truncating what does not fit. A dst with no NUL inside its capacity is
 * first terminated at maxSize - 1. Returns dst. */
char *Str_Strcat(char *dst, const char *src, size_t maxSize);

/* Formats into str (capacity size). Returns the length written, or -1 when
 * the output was truncated (or the format failed); the text is then cut to
 * size - 1 bytes (empty on a format failure) and still NUL-terminated.
 * size 0 writes nothing and returns -1. Silent: truncation is an expected
 * outcome for fixed-size fields. */
int Str_Snprintf(char *str, size_t size, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
int Str_Vsnprintf(char *str, size_t size, const char *fmt, va_list args)
    __attribute__((format(printf, 3, 0)));

/* Like Str_Snprintf, for output the caller has sized to fit: a truncation
 * means a sizing bug, so it is also logged (one line, without the text).
 * The output is truncated rather than the process ended, because the text
 * can come from untrusted input. */
int Str_Sprintf(char *buf, size_t maxSize, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

/* Formats into a new string. *length (optional) receives its length. Null,
 * with one log line, when memory runs out or the format fails. */
char *Str_Asprintf(size_t *length, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
char *Str_Vasprintf(size_t *length, const char *fmt, va_list args)
    __attribute__((format(printf, 2, 0)));

/* As Str_Asprintf, but never null: exhaustion or a format failure ends the
 * process through Panic. */
char *Str_SafeAsprintf(size_t *length, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
char *Str_SafeVasprintf(size_t *length, const char *fmt, va_list args)
    __attribute__((format(printf, 2, 0)));

/* Convert ASCII letters in place; other bytes are left alone. Return str
 * (null for null). */
char *Str_ToLower(char *str);
char *Str_ToUpper(char *str);

/* ASCII case-insensitive comparisons, independent of the process locale.
 * Negative, zero or positive like strcmp; a null string sorts first. */
int Str_Strcasecmp(const char *s1, const char *s2);
int Str_Strncasecmp(const char *s1, const char *s2, size_t n);

/* Prefix and suffix tests; the Caseless forms ignore ASCII case. The first
 * argument is the text, the second the prefix or suffix. An empty prefix or
 * suffix matches; a null argument never does. */
bool StrUtil_StartsWith(const char *s, const char *prefix);
bool StrUtil_CaselessStartsWith(const char *s, const char *prefix);
bool StrUtil_EndsWith(const char *s, const char *suffix);
bool StrUtil_CaselessEndsWith(const char *s, const char *suffix);

/* Whole-string decimal conversions. The text is an optional sign ("+" or,
 * for the signed form, "-") and one or more ASCII digits, nothing else: no
 * white space, no base prefixes. False when the text is not such a number
 * or does not fit the type; *out is written only on success. */
bool StrUtil_StrToInt(int32_t *out, const char *str);
bool StrUtil_StrToUint(uint32_t *out, const char *str);
bool StrUtil_StrToInt64(int64_t *out, const char *str);
bool StrUtil_StrToUint64(uint64_t *out, const char *str);

/* Reads the ASCII digits at *str as an unsigned 32-bit number and advances
 * *str past them. No sign and no white space are accepted. False, with
 * *str and *out unchanged, when no digit is there or the number is too
 * big. */
bool StrUtil_DecimalStrToUint(unsigned *out, const char **str);

/* Tokenizer over str from position *index: skips delimiter characters (any
 * byte of delimiters), then returns the run of non-delimiters as a new
 * string and leaves *index on the byte that ended it (a delimiter or the
 * terminating NUL), so the next call continues from there and the caller
 * may also look at the rest of the text itself. Empty tokens are never
 * returned. Null when no token is left (*index then rests on the NUL), when
 * *index lies past the end of str (*index unchanged) or an argument is
 * null. */
char *StrUtil_GetNextToken(unsigned *index, const char *str, const char *delimiters);

/* The next token (as above) converted with StrUtil_StrToInt. False when no
 * token is left or it is not a number; *index has moved past the token in
 * the second case too. */
bool StrUtil_GetNextIntToken(int32_t *out, unsigned *index, const char *str,
                             const char *delimiters);

#include <cstdlib>
#include <memory>
#include <string>

namespace gp {
/* A string from these functions (or any malloc'd one), freed with it. */
struct FreeDeleter {
  void operator()(char *p) const { free(p); }
};
using UniqueText = std::unique_ptr<char, FreeDeleter>;

/* printf-style formatting into a std::string; empty on a formatting error.
 * args is consumed. */
std::string VFormat(const char *fmt, va_list args) __attribute__((format(printf, 1, 0)));
}  // namespace gp

#endif
