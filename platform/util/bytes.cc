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

}  // namespace gp
