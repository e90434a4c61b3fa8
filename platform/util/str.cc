#include "platform/util/str.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "platform/log/log.h"
#include "platform/util/safeAlloc.h"

namespace {

constexpr char AsciiLower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
}
constexpr char AsciiUpper(char c) {
  return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c;
}
constexpr bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

// Token positions travel in an unsigned; text beyond what it can index is
// treated as absent rather than wrapping around.
constexpr size_t kMaxTokenizedLength = UINT_MAX;

// Parses [sign] digits covering the whole string. A "-" is accepted only
// when maxNegative is non-zero; the magnitude must not exceed the bound of
// its sign.
bool ParseWholeDecimal(const char *str, uint64_t maxPositive, uint64_t maxNegative, bool *negative,
                       uint64_t *magnitude) {
  if (str == nullptr) {
    return false;
  }
  bool neg = false;
  if (*str == '+' || (maxNegative != 0 && *str == '-')) {
    neg = (*str == '-');
    ++str;
  }
  if (!IsDigit(*str)) {
    return false;
  }
  const uint64_t limit = neg ? maxNegative : maxPositive;
  uint64_t value = 0;
  for (; IsDigit(*str); ++str) {
    uint64_t digit = static_cast<uint64_t>(*str - '0');
    if (value > (limit - digit) / 10) {
      return false;
    }
    value = value * 10 + digit;
  }
  if (*str != '\0') {
    return false;
  }
  *negative = neg;
  *magnitude = value;
  return true;
}

// Formats into a fresh malloc'd buffer; null when the format fails or
// memory runs out. Uses two passes so arbitrarily long output works.
char *FormatAlloc(size_t *length, const char *fmt, va_list args) {
  va_list probe;
  va_copy(probe, args);
  int needed = vsnprintf(nullptr, 0, fmt, probe);
  va_end(probe);
  if (needed < 0) {
    return nullptr;
  }
  size_t size = static_cast<size_t>(needed) + 1;
  char *buf = static_cast<char *>(malloc(size));
  if (buf == nullptr) {
    return nullptr;
  }
  va_list again;
  va_copy(again, args);
  int written = vsnprintf(buf, size, fmt, again);
  va_end(again);
  if (written != needed) {
    free(buf);
    return nullptr;
  }
  if (length != nullptr) {
    *length = static_cast<size_t>(written);
  }
  return buf;
}

}  // namespace

char *Str_Strcpy(char *dst, const char *src, size_t maxSize) {
  if (dst == nullptr || maxSize == 0) {
    return dst;
  }
  if (src == nullptr) {
    src = "";
  }
  size_t len = strnlen(src, maxSize - 1);
  memmove(dst, src, len);
  dst[len] = '\0';
  return dst;
}

char *Str_Strcat(char *dst, const char *src, size_t maxSize) {
  if (dst == nullptr || maxSize == 0) {
    return dst;
  }
  size_t used = strnlen(dst, maxSize);
  if (used == maxSize) {
    // Not terminated inside its capacity: make it a full, valid string.
    dst[maxSize - 1] = '\0';
    return dst;
  }
  Str_Strcpy(dst + used, src, maxSize - used);
  return dst;
}

int Str_Vsnprintf(char *str, size_t size, const char *fmt, va_list args) {
  if (str == nullptr || size == 0) {
    return -1;
  }
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(str, size, fmt, copy);
  va_end(copy);
  if (n < 0) {
    str[0] = '\0';
    return -1;
  }
  if (static_cast<size_t>(n) >= size) {
    return -1;  // vsnprintf already cut and terminated it at size - 1
  }
  return n;
}

int Str_Snprintf(char *str, size_t size, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  int n = Str_Vsnprintf(str, size, fmt, args);
  va_end(args);
  return n;
}

int Str_Sprintf(char *buf, size_t maxSize, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  int n = Str_Vsnprintf(buf, maxSize, fmt, args);
  va_end(args);
  if (n < 0) {
    Log("Str_Sprintf: output did not fit in %zu bytes, truncated\n", maxSize);
  }
  return n;
}

char *Str_Vasprintf(size_t *length, const char *fmt, va_list args) {
  char *s = FormatAlloc(length, fmt, args);
  if (s == nullptr) {
    Log("Str_Vasprintf: formatting failed or out of memory\n");
  }
  return s;
}

char *Str_Asprintf(size_t *length, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  char *s = Str_Vasprintf(length, fmt, args);
  va_end(args);
  return s;
}

char *Str_SafeVasprintf(size_t *length, const char *fmt, va_list args) {
  char *s = FormatAlloc(length, fmt, args);
  if (s == nullptr) {
    Panic("Str_SafeVasprintf: formatting failed or out of memory\n");
  }
  return s;
}

char *Str_SafeAsprintf(size_t *length, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  char *s = Str_SafeVasprintf(length, fmt, args);
  va_end(args);
  return s;
}

char *Str_ToLower(char *str) {
  if (str != nullptr) {
    for (char *p = str; *p != '\0'; ++p) {
      *p = AsciiLower(*p);
    }
  }
  return str;
}

char *Str_ToUpper(char *str) {
  if (str != nullptr) {
    for (char *p = str; *p != '\0'; ++p) {
      *p = AsciiUpper(*p);
    }
  }
  return str;
}

int Str_Strncasecmp(const char *s1, const char *s2, size_t n) {
  if (s1 == nullptr || s2 == nullptr) {
    return (s1 == nullptr ? 0 : 1) - (s2 == nullptr ? 0 : 1);
  }
  for (size_t i = 0; i < n; ++i) {
    unsigned char a = static_cast<unsigned char>(AsciiLower(s1[i]));
    unsigned char b = static_cast<unsigned char>(AsciiLower(s2[i]));
    if (a != b) {
      return a < b ? -1 : 1;
    }
    if (a == '\0') {
      break;
    }
  }
  return 0;
}

int Str_Strcasecmp(const char *s1, const char *s2) {
  return Str_Strncasecmp(s1, s2, SIZE_MAX);
}

bool StrUtil_StartsWith(const char *s, const char *prefix) {
  if (s == nullptr || prefix == nullptr) {
    return false;
  }
  for (; *prefix != '\0'; ++s, ++prefix) {
    if (*s != *prefix) {
      return false;  // also stops at the end of s
    }
  }
  return true;
}

bool StrUtil_CaselessStartsWith(const char *s, const char *prefix) {
  if (s == nullptr || prefix == nullptr) {
    return false;
  }
  for (; *prefix != '\0'; ++s, ++prefix) {
    if (*s == '\0' || AsciiLower(*s) != AsciiLower(*prefix)) {
      return false;
    }
  }
  return true;
}

bool StrUtil_EndsWith(const char *s, const char *suffix) {
  if (s == nullptr || suffix == nullptr) {
    return false;
  }
  return std::string_view(s).ends_with(suffix);
}

bool StrUtil_CaselessEndsWith(const char *s, const char *suffix) {
  if (s == nullptr || suffix == nullptr) {
    return false;
  }
  size_t slen = strlen(s);
  size_t xlen = strlen(suffix);
  return xlen <= slen && Str_Strncasecmp(s + slen - xlen, suffix, xlen) == 0;
}

bool StrUtil_StrToInt64(int64_t *out, const char *str) {
  bool neg;
  uint64_t mag;
  constexpr uint64_t kMaxNeg = static_cast<uint64_t>(INT64_MAX) + 1;
  if (out == nullptr || !ParseWholeDecimal(str, INT64_MAX, kMaxNeg, &neg, &mag)) {
    return false;
  }
  // Negate in unsigned arithmetic so INT64_MIN needs no signed overflow.
  *out = neg ? static_cast<int64_t>(0 - mag) : static_cast<int64_t>(mag);
  return true;
}

bool StrUtil_StrToInt(int32_t *out, const char *str) {
  bool neg;
  uint64_t mag;
  constexpr uint64_t kMaxNeg = static_cast<uint64_t>(INT32_MAX) + 1;
  if (out == nullptr || !ParseWholeDecimal(str, INT32_MAX, kMaxNeg, &neg, &mag)) {
    return false;
  }
  *out = static_cast<int32_t>(neg ? -static_cast<int64_t>(mag) : static_cast<int64_t>(mag));
  return true;
}

bool StrUtil_StrToUint64(uint64_t *out, const char *str) {
  bool neg;
  uint64_t mag;
  if (out == nullptr || !ParseWholeDecimal(str, UINT64_MAX, 0, &neg, &mag)) {
    return false;
  }
  *out = mag;
  return true;
}

bool StrUtil_StrToUint(uint32_t *out, const char *str) {
  bool neg;
  uint64_t mag;
  if (out == nullptr || !ParseWholeDecimal(str, UINT32_MAX, 0, &neg, &mag)) {
    return false;
  }
  *out = static_cast<uint32_t>(mag);
  return true;
}

bool StrUtil_DecimalStrToUint(unsigned *out, const char **str) {
  if (out == nullptr || str == nullptr || *str == nullptr || !IsDigit(**str)) {
    return false;
  }
  const char *p = *str;
  uint64_t value = 0;
  for (; IsDigit(*p); ++p) {
    value = value * 10 + static_cast<uint64_t>(*p - '0');
    if (value > UINT_MAX) {
      return false;
    }
  }
  *out = static_cast<unsigned>(value);
  *str = p;
  return true;
}

char *StrUtil_GetNextToken(unsigned *index, const char *str, const char *delimiters) {
  if (index == nullptr || str == nullptr || delimiters == nullptr) {
    return nullptr;
  }
  const size_t len = strnlen(str, kMaxTokenizedLength);
  if (*index > len) {
    return nullptr;
  }
  std::string_view text(str, len);
  size_t start = text.find_first_not_of(delimiters, *index);
  if (start == std::string_view::npos) {
    *index = static_cast<unsigned>(len);
    return nullptr;
  }
  size_t end = text.find_first_of(delimiters, start);
  if (end == std::string_view::npos) {
    end = len;
  }
  *index = static_cast<unsigned>(end);
  return UtilSafeStrndup0(str + start, end - start);
}

bool StrUtil_GetNextIntToken(int32_t *out, unsigned *index, const char *str,
                             const char *delimiters) {
  char *token = StrUtil_GetNextToken(index, str, delimiters);
  if (token == nullptr) {
    return false;
  }
  bool ok = StrUtil_StrToInt(out, token);
  free(token);
  return ok;
}

namespace gp {

std::string VFormat(const char *fmt, va_list args) {
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  if (n <= 0) {
    return {};
  }
  std::string out(static_cast<size_t>(n) + 1, '\0');
  vsnprintf(out.data(), out.size(), fmt, args);
  out.resize(static_cast<size_t>(n));
  return out;
}

}  // namespace gp
