// SHA-256 crypt ("$5$"): the password hashes the Linux answer files carry,
// computed the way the C library's crypt() does, so the installed guest's
// login accepts them; and the salts this library draws for them.
#include "lib/guestInstall/autoinstallCrypt.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "lib/guestInstall/autoinstallLinux.h"
#include "platform/crypto/cryptoHash.h"

namespace {

constexpr char kPrefix[] = "$5$";
constexpr char kRoundsPrefix[] = "rounds=";
constexpr size_t kSaltMax = 16;
constexpr unsigned long kRoundsMin = 1000;
constexpr unsigned long kRoundsMax = 999999999;
constexpr size_t kDigestChars = 43;  // 32 bytes, six bits a character

constexpr char kB64Alphabet[] = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr char kSaltAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789./";
static_assert(sizeof(kB64Alphabet) == 65 && sizeof(kSaltAlphabet) == 65);

// The last hash AutoInstallCryptPassword made; callers copy it before the
// next call.
constexpr int32_t kResultSize = 120;
char cryptResult[kResultSize];

time_t (*cryptClock)(time_t *) = time;

// Everything derived from the key, wiped however the computation ends so
// none of it outlives the call.
struct KeyMaterial {
  // p is null when memory runs out; the caller checks.
  explicit KeyMaterial(size_t keyLength)
      : p(new (std::nothrow) uint8_t[keyLength]), pLength(p ? keyLength : 0) {}
  ~KeyMaterial() {
    if (p) {
      OPENSSL_cleanse(p.get(), pLength);
    }
    OPENSSL_cleanse(s, sizeof s);
    OPENSSL_cleanse(a, sizeof a);
    OPENSSL_cleanse(b, sizeof b);
  }
  KeyMaterial(const KeyMaterial &) = delete;
  KeyMaterial &operator=(const KeyMaterial &) = delete;

  std::unique_ptr<uint8_t[]> p;  // the P sequence, key-length bytes
  size_t pLength;
  uint8_t s[kSaltMax];               // the S sequence
  uint8_t a[kCryptoHashSHA256Size];  // the running digest
  uint8_t b[kCryptoHashSHA256Size];  // B, then DP, then DS
};

// One SHA-256 context for the whole computation. The first failure
// sticks, so the rounds check only the result of each Final.
class Hasher {
 public:
  bool Init() { return Check(CryptoHash_InitSHA256(&ctx_)); }
  void Add(const void *bytes, size_t length) {
    Check(CryptoHash_UpdateSHA256(&ctx_, bytes, length));
  }
  // Feeds bytes repeated to length bytes in total: whole copies, then a
  // prefix.
  void AddRepeated(const uint8_t *bytes, size_t size, size_t length) {
    for (; length > size; length -= size) {
      Add(bytes, size);
    }
    Add(bytes, length);
  }
  bool Final(uint8_t *digest) { return Check(CryptoHash_FinalSHA256(&ctx_, digest)); }
  // Wipes the context's state; it may hold key bytes not yet hashed.
  void Reset() { CryptoHash_Release(&ctx_); }

 private:
  bool Check(CryptoError e) {
    ok_ = ok_ && e == CRYPTO_ERROR_SUCCESS;
    return ok_;
  }
  CryptoHashContext ctx_;
  bool ok_ = true;
};

// Runs the digest rounds for key and salt, leaving the final digest in
// m.a. False when libcrypto failed.
bool Digest(std::string_view key, std::string_view salt, uint32_t rounds, Hasher &h,
            KeyMaterial &m) {
  // B = H(key salt key)
  h.Init();
  h.Add(key.data(), key.size());
  h.Add(salt.data(), salt.size());
  h.Add(key.data(), key.size());
  if (!h.Final(m.b)) {
    return false;
  }

  // A = H(key salt B-to-key-length, then for each bit of the key length,
  // lowest first: B for a 1, the key for a 0)
  h.Init();
  h.Add(key.data(), key.size());
  h.Add(salt.data(), salt.size());
  h.AddRepeated(m.b, sizeof m.b, key.size());
  for (size_t bits = key.size(); bits > 0; bits >>= 1) {
    if (bits & 1) {
      h.Add(m.b, sizeof m.b);
    } else {
      h.Add(key.data(), key.size());
    }
  }
  if (!h.Final(m.a)) {
    return false;
  }

  // DP = H(key repeated key-length times); P is DP repeated to key length.
  h.Init();
  for (size_t i = 0; i < key.size(); ++i) {
    h.Add(key.data(), key.size());
  }
  if (!h.Final(m.b)) {
    return false;
  }
  for (size_t at = 0; at < m.pLength; at += sizeof m.b) {
    memcpy(m.p.get() + at, m.b, std::min(sizeof m.b, m.pLength - at));
  }

  // DS = H(salt repeated 16 + A0 times); S is its first salt-length bytes.
  h.Init();
  for (unsigned i = 0; i < 16u + m.a[0]; ++i) {
    h.Add(salt.data(), salt.size());
  }
  if (!h.Final(m.b)) {
    return false;
  }
  memcpy(m.s, m.b, salt.size());

  const uint8_t *p = m.p.get();
  const size_t pLength = m.pLength;
  for (uint32_t i = 0; i < rounds; ++i) {
    h.Init();
    if (i & 1) {
      h.Add(p, pLength);
    } else {
      h.Add(m.a, sizeof m.a);
    }
    if (i % 3 != 0) {
      h.Add(m.s, salt.size());
    }
    if (i % 7 != 0) {
      h.Add(p, pLength);
    }
    if (i & 1) {
      h.Add(m.a, sizeof m.a);
    } else {
      h.Add(p, pLength);
    }
    if (!h.Final(m.a)) {
      return false;
    }
  }
  return true;
}

}  // namespace

namespace autoinstall {

CryptSetting ParseCryptSetting(const char *setting) {
  CryptSetting out;
  if (strncmp(setting, kPrefix, sizeof kPrefix - 1) == 0) {
    setting += sizeof kPrefix - 1;
  }
  if (strncmp(setting, kRoundsPrefix, sizeof kRoundsPrefix - 1) == 0) {
    const char *number = setting + sizeof kRoundsPrefix - 1;
    char *end = nullptr;
    unsigned long rounds = strtoul(number, &end, 10);
    if (*end == '$') {
      setting = end + 1;
      out.rounds = static_cast<uint32_t>(std::clamp(rounds, kRoundsMin, kRoundsMax));
      out.customRounds = true;
    }
  }
  out.salt = std::string_view(setting, std::min(strcspn(setting, "$"), kSaltMax));
  return out;
}

void SetCryptClockForTesting(time_t (*clock)(time_t *)) {
  cryptClock = clock != nullptr ? clock : time;
}

}  // namespace autoinstall

void b64_from_24bit(uint8_t b2, uint8_t b1, uint8_t b0, int32_t n, int32_t *buflen, char **cp) {
  if (buflen == nullptr || cp == nullptr || *cp == nullptr) {
    return;
  }
  uint32_t w = (uint32_t{b2} << 16) | (uint32_t{b1} << 8) | b0;
  for (; n > 0 && *buflen > 0; --n, --*buflen, w >>= 6) {
    *(*cp)++ = kB64Alphabet[w & 0x3f];
  }
}

char *SHA256_crypt(const char *key, const char *salt, char *buffer, int32_t buflen) {
  if (key == nullptr || salt == nullptr || buffer == nullptr) {
    return nullptr;
  }
  const autoinstall::CryptSetting setting = autoinstall::ParseCryptSetting(salt);

  // The whole string is assembled here (at most 3 + 17 + 16 + 1 + 43
  // characters) and copied out only when it fits, so a short buffer is
  // refused before any hashing and the salt may live in the buffer.
  char text[96];
  int head = setting.customRounds
                 ? snprintf(text, sizeof text, "%s%s%u$", kPrefix, kRoundsPrefix, setting.rounds)
                 : snprintf(text, sizeof text, "%s", kPrefix);
  memcpy(text + head, setting.salt.data(), setting.salt.size());
  const size_t digestAt = head + setting.salt.size() + 1;
  const size_t length = digestAt + kDigestChars;
  if (buflen <= 0 || static_cast<size_t>(buflen) < length + 1) {
    return nullptr;
  }
  text[digestAt - 1] = '$';

  const std::string_view keyText(key);
  KeyMaterial m(keyText.size());
  if (!m.p) {
    return nullptr;
  }
  Hasher h;
  const bool ok = Digest(keyText, setting.salt, setting.rounds, h, m);
  h.Reset();
  if (!ok) {
    return nullptr;
  }

  const uint8_t *a = m.a;
  char *cp = text + digestAt;
  int32_t room = static_cast<int32_t>(kDigestChars);
  // Each group's bytes lie ten apart, rotating which one leads; the order
  // is the scheme's, and only it gives the strings crypt() gives.
  static const uint8_t kGroups[10][3] = {{0, 10, 20}, {21, 1, 11}, {12, 22, 2}, {3, 13, 23},
                                         {24, 4, 14}, {15, 25, 5}, {6, 16, 26}, {27, 7, 17},
                                         {18, 28, 8}, {9, 19, 29}};
  for (const auto &g : kGroups) {
    b64_from_24bit(a[g[0]], a[g[1]], a[g[2]], 4, &room, &cp);
  }
  b64_from_24bit(0, a[31], a[30], 3, &room, &cp);
  text[length] = '\0';
  memcpy(buffer, text, length + 1);
  return buffer;
}

const char *AutoInstallCryptPassword(const char *password) {
  if (password == nullptr) {
    return nullptr;
  }
  srand(static_cast<unsigned>(cryptClock(nullptr)));
  char salt[kSaltMax + 1];
  for (size_t i = 0; i < kSaltMax; ++i) {
    salt[i] = kSaltAlphabet[rand() % 64];
  }
  salt[kSaltMax] = '\0';
  return SHA256_crypt(password, salt, cryptResult, kResultSize);
}
