// Inside SHA-256 crypt: how a salt string ("setting") is read.
#ifndef GUESTPREP_LIB_AUTOINSTALL_CRYPT_H
#define GUESTPREP_LIB_AUTOINSTALL_CRYPT_H

#include <cstdint>
#include <string_view>

namespace autoinstall {

struct CryptSetting {
  std::string_view salt;      // at most 16 characters, pointing into the setting
  uint32_t rounds = 5000;     // clamped to 1000..999999999 when custom
  bool customRounds = false;  // the output then carries "rounds=N$"
};

// Reads an optional "$5$", an optional "rounds=N$" and the salt up to the
// next "$" from setting (NUL-terminated, not null). A "rounds=" whose
// number is not directly followed by "$" stays part of the salt.
CryptSetting ParseCryptSetting(const char *setting);

}  // namespace autoinstall

#endif
