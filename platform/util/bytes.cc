#include "platform/util/bytes.h"

#include <unicode/ustring.h>

namespace gp {

bool Ucs2BeToUtf8(const uint8_t *data, size_t len, std::string *out) {
  if (len % 2 != 0) {
    return false;
  }
  std::u16string units;
  units.reserve(len / 2);
  for (size_t i = 0; i < len; i += 2) {
    units.push_back(static_cast<char16_t>((data[i] << 8) | data[i + 1]));
  }
  int32_t need = 0;
  UErrorCode err = U_ZERO_ERROR;
  u_strToUTF8WithSub(nullptr, 0, &need, units.data(), static_cast<int32_t>(units.size()), 0xFFFD,
                     nullptr, &err);
  if (err != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(err)) {
    return false;
  }
  out->resize(static_cast<size_t>(need));
  err = U_ZERO_ERROR;
  u_strToUTF8WithSub(out->data(), need, &need, units.data(), static_cast<int32_t>(units.size()),
                     0xFFFD, nullptr, &err);
  return U_SUCCESS(err) || err == U_STRING_NOT_TERMINATED_WARNING;
}

// Length of the valid UTF-8 sequence at the start of text, 0 when it does not
// start with one (a stray byte, an overlong form, a surrogate, a cut sequence).
size_t Utf8SequenceLength(std::string_view text) {
  if (text.empty()) {
    return 0;
  }
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) {
    return 1;
  }
  size_t length = 0;
  // Bounds on the second byte rule out overlong forms, surrogates and code
  // points past U+10FFFF (RFC 3629's table).
  unsigned char low = 0x80, high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    low = lead == 0xE0 ? 0xA0 : 0x80;
    high = lead == 0xED ? 0x9F : 0xBF;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    low = lead == 0xF0 ? 0x90 : 0x80;
    high = lead == 0xF4 ? 0x8F : 0xBF;
  } else {
    return 0;
  }
  if (text.size() < length || byte(1) < low || byte(1) > high) {
    return 0;
  }
  for (size_t i = 2; i < length; ++i) {
    if (byte(i) < 0x80 || byte(i) > 0xBF) {
      return 0;
    }
  }
  return length;
}

bool IsValidUtf8(std::string_view text) {
  while (!text.empty()) {
    size_t length = Utf8SequenceLength(text);
    if (length == 0) {
      return false;
    }
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace gp
