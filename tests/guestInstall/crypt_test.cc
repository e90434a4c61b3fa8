// SHA-256 crypt: the scheme's published vectors and the salt-string rules
// from tests/data/crypt/, random keys and salts against the system's
// crypt(), the bounded base-64 writer, and the generated password hashes.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "guestInstall/answerFileSupport.h"
#include "lib/guestInstall/autoinstallCrypt.h"
#include "lib/guestInstall/autoinstallLinux.h"
#include "support/testSupport.h"

namespace {

using answer_file_support::SystemCrypt;

using testing_support::ReadTsv;
using testing_support::TsvRow;
std::string RowName(const testing::TestParamInfo<TsvRow> &info) {
  return testing_support::TsvRowName(info.param);
}

std::string Crypt(const std::string &key, const std::string &setting) {
  char out[128];
  const char *hash = SHA256_crypt(key.c_str(), setting.c_str(), out, sizeof out);
  return hash != nullptr ? hash : "<null>";
}

class PublishedVector : public testing::TestWithParam<TsvRow> {};

TEST_P(PublishedVector, Matches) {
  const auto &f = GetParam().cells;  // key, setting, hash
  EXPECT_EQ(f[2], Crypt(f[0], f[1]));
  EXPECT_EQ(f[2], SystemCrypt(f[0], f[2]));  // the vector itself, as the system reads it back
  // A stored hash as the salt string gives it back, also from the output
  // buffer itself: this is how a password is checked.
  char buffer[128];
  snprintf(buffer, sizeof buffer, "%s", f[2].c_str());
  EXPECT_STREQ(f[2].c_str(), SHA256_crypt(f[0].c_str(), buffer, buffer, sizeof buffer));
}
INSTANTIATE_TEST_SUITE_P(SHA256Crypt, PublishedVector,
                         testing::ValuesIn(ReadTsv("crypt/sha256-vectors.tsv", 3)), RowName);

class SaltString : public testing::TestWithParam<TsvRow> {};

TEST_P(SaltString, Reads) {
  const auto &f = GetParam().cells;
  const autoinstall::CryptSetting s = autoinstall::ParseCryptSetting(f[0].c_str());
  EXPECT_EQ(f[1], std::to_string(s.rounds));
  EXPECT_EQ(f[2], s.customRounds ? "custom" : "default");
  EXPECT_EQ(f[3], s.salt);
}
INSTANTIATE_TEST_SUITE_P(SHA256Crypt, SaltString,
                         testing::ValuesIn(ReadTsv("crypt/sha256-settings.tsv", 4)), RowName);

// Keys of every length from 0 to 64 bytes and salts from 0 to 19
// characters, with and without a round count, hashed here and by the
// system's crypt().
TEST(SHA256Crypt, AgreesWithSystemCrypt) {
  std::mt19937 rng(5);
  const char kSaltChars[] = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  for (size_t length = 0; length <= 64; ++length) {
    std::string key, salt;
    while (key.size() < length) {
      key += static_cast<char>(1 + rng() % 255);
    }
    while (salt.size() < length % 20) {
      salt += kSaltChars[rng() % 64];
    }
    const std::string rounds = "rounds=" + std::to_string(1000 + rng() % 1500) + "$";
    for (const std::string &setting : {"$5$" + salt, "$5$" + rounds + salt}) {
      const std::string expected = SystemCrypt(key, setting);
      ASSERT_EQ(0u, expected.rfind("$5$", 0)) << "crypt() refused " << setting;
      EXPECT_EQ(expected, Crypt(key, setting)) << "key length " << length << ", " << setting;
    }
  }
}

TEST(SHA256Crypt, RefusesShortBuffersAndMissingArguments) {
  const std::string full = Crypt("k", "$5$rounds=1000$abc");  // 62 characters
  ASSERT_EQ(62u, full.size());
  char out[64];
  EXPECT_STREQ(full.c_str(), SHA256_crypt("k", "$5$rounds=1000$abc", out, 63));
  for (int32_t length : {62, 0, -1}) {
    EXPECT_EQ(nullptr, SHA256_crypt("k", "$5$rounds=1000$abc", out, length)) << length;
  }
  EXPECT_EQ(nullptr, SHA256_crypt(nullptr, "abc", out, sizeof out));
  EXPECT_EQ(nullptr, SHA256_crypt("k", nullptr, out, sizeof out));
  EXPECT_EQ(nullptr, SHA256_crypt("k", "abc", nullptr, sizeof out));
  char *cp = out;
  int32_t room = 4;
  b64_from_24bit(1, 2, 3, 4, nullptr, &cp);
  b64_from_24bit(1, 2, 3, 4, &room, nullptr);
  EXPECT_EQ(out, cp);
  EXPECT_EQ(4, room);
}

class B64From24Bit : public testing::TestWithParam<TsvRow> {};

TEST_P(B64From24Bit, WritesWithinRoom) {
  const auto &f = GetParam().cells;
  char out[16];
  memset(out, '#', sizeof out);
  char *cp = out;
  int32_t room = std::stoi(f[4]);
  b64_from_24bit(static_cast<uint8_t>(std::stoi(f[0])), static_cast<uint8_t>(std::stoi(f[1])),
                 static_cast<uint8_t>(std::stoi(f[2])), std::stoi(f[3]), &room, &cp);
  EXPECT_EQ(f[5], std::string(out, cp));
  EXPECT_EQ(std::stoi(f[6]), room);
  EXPECT_EQ('#', *cp);  // nothing past what was counted
}
INSTANTIATE_TEST_SUITE_P(SHA256Crypt, B64From24Bit,
                         testing::ValuesIn(ReadTsv("crypt/b64-from-24bit.tsv", 7)), RowName);

// A salt of 16 characters from crypt's alphabet, drawn again on every call
// from the clock's second, in the one result buffer; null for null. The
// answer-file suites check the hashes of many more passwords.
TEST(CryptPassword, IsSeededFromTheClockOnEveryCall) {
  struct RealClockAfter {
    ~RealClockAfter() { autoinstall::SetCryptClockForTesting(nullptr); }
  } realClockAfter;
  autoinstall::SetCryptClockForTesting(answer_file_support::FixedClock);
  const char *first = AutoInstallCryptPassword("secret");
  ASSERT_NE(nullptr, first);
  const std::string hash = first;
  EXPECT_TRUE(std::regex_match(hash, std::regex(R"(\$5\$[A-Za-z0-9./]{16}\$[A-Za-z0-9./]{43})")))
      << hash;
  answer_file_support::ExpectHashOf(hash, "secret");
  EXPECT_EQ(first, AutoInstallCryptPassword("secret"));  // the one buffer,
  EXPECT_EQ(hash, first);                                // the same salt within the second
  autoinstall::SetCryptClockForTesting([](time_t *) -> time_t { return 1700000001; });
  EXPECT_EQ(first, AutoInstallCryptPassword("secret"));
  EXPECT_NE(hash.substr(0, 20), std::string(first).substr(0, 20));
  EXPECT_EQ(nullptr, AutoInstallCryptPassword(nullptr));
}

}  // namespace
