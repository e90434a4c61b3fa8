// SHA-256 crypt: the scheme's published vectors and the salt-string rules
// from tests/data/crypt/, random keys and salts against the system's
// crypt(), the bounded base-64 writer, and the generated password hashes.
#include <crypt.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <ostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "lib/guestInstall/autoinstallCrypt.h"
#include "lib/guestInstall/autoinstallLinux.h"
#include "support/testSupport.h"

namespace {

struct Row {
  int line = 0;
  std::vector<std::string> fields;  // "" in the file is the empty text
};
void PrintTo(const Row &row, std::ostream *os) {
  *os << "line " << row.line;
}

std::vector<Row> ReadTable(const char *name, size_t columns) {
  std::ifstream in(testing_support::DataDir() / "crypt" / name);
  std::vector<Row> rows;
  std::string text;
  for (int line = 1; std::getline(in, text); ++line) {
    if (text.empty() || text[0] == '#') {
      continue;
    }
    Row row{line, {}};
    std::stringstream cells(text);
    for (std::string cell; std::getline(cells, cell, '\t');) {
      row.fields.push_back(cell == "\"\"" ? "" : cell);
    }
    row.fields.resize(columns);  // a short row fails its test, not the load
    rows.push_back(row);
  }
  return rows;
}

// "L<line>_" and the first field with everything but letters and digits
// as "_": the row is easy to find in its file.
std::string RowName(const testing::TestParamInfo<Row> &info) {
  std::string name = "L" + std::to_string(info.param.line) + "_" + info.param.fields[0];
  std::replace_if(
      name.begin(), name.end(), [](char c) { return !isalnum(c & 0xff); }, '_');
  return name.substr(0, 60);
}

std::string Crypt(const std::string &key, const std::string &setting) {
  char out[128];
  const char *hash = SHA256_crypt(key.c_str(), setting.c_str(), out, sizeof out);
  return hash != nullptr ? hash : "<null>";
}

// The system's crypt(); "*" and a digit when it refuses the setting.
std::string SystemCrypt(const std::string &key, const std::string &setting) {
  crypt_data data{};
  const char *hash = crypt_r(key.c_str(), setting.c_str(), &data);
  return hash != nullptr ? hash : "<null>";
}

class PublishedVector : public testing::TestWithParam<Row> {};

TEST_P(PublishedVector, Matches) {
  const std::string &key = GetParam().fields[0], &setting = GetParam().fields[1],
                    &expected = GetParam().fields[2];
  EXPECT_EQ(expected, Crypt(key, setting));
  // The vector itself, as the system's crypt() reads it back.
  EXPECT_EQ(expected, SystemCrypt(key, expected));
}
INSTANTIATE_TEST_SUITE_P(SHA256Crypt, PublishedVector,
                         testing::ValuesIn(ReadTable("sha256-vectors.tsv", 3)), RowName);

class SaltString : public testing::TestWithParam<Row> {};

TEST_P(SaltString, Reads) {
  const auto &f = GetParam().fields;
  const autoinstall::CryptSetting s = autoinstall::ParseCryptSetting(f[0].c_str());
  EXPECT_EQ(f[1], std::to_string(s.rounds));
  EXPECT_EQ(f[2], s.customRounds ? "custom" : "default");
  EXPECT_EQ(f[3], s.salt);
}
INSTANTIATE_TEST_SUITE_P(SHA256Crypt, SaltString,
                         testing::ValuesIn(ReadTable("sha256-settings.tsv", 4)), RowName);

// Keys and salts of every length from 0 to 64, some with a round count,
// hashed here and by the system's crypt().
TEST(SHA256Crypt, AgreesWithSystemCrypt) {
  std::mt19937 rng(5);
  const char kSaltChars[] = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  auto text = [](size_t length, auto pick) {
    std::string s;
    while (s.size() < length) {
      s.push_back(pick());
    }
    return s;
  };
  auto keyByte = [&rng] { return static_cast<char>(1 + rng() % 255); };
  auto saltChar = [&rng, &kSaltChars] { return kSaltChars[rng() % 64]; };
  for (size_t length = 0; length <= 64; ++length) {
    for (int variant = 0; variant < 4; ++variant) {
      const bool keyVaries = variant < 2;
      const std::string key = text(keyVaries ? length : rng() % 40, keyByte);
      std::string setting = "$5$";
      if (variant % 2 == 1) {
        setting += "rounds=" + std::to_string(1000 + rng() % 1500) + "$";
      }
      setting += text(keyVaries ? rng() % 20 : length, saltChar);
      const std::string expected = SystemCrypt(key, setting);
      ASSERT_EQ(0u, expected.rfind("$5$", 0)) << "crypt() refused " << setting;
      EXPECT_EQ(expected, Crypt(key, setting)) << "key length " << key.size() << ", " << setting;
    }
  }
}

TEST(SHA256Crypt, RefusesShortBuffersAndMissingArguments) {
  const std::string full = Crypt("k", "$5$rounds=1000$abc");  // 62 characters
  ASSERT_EQ(62u, full.size());
  char out[64];
  EXPECT_STREQ(full.c_str(), SHA256_crypt("k", "$5$rounds=1000$abc", out, 63));
  for (int32_t length : {62, 61, 1, 0, -1}) {
    EXPECT_EQ(nullptr, SHA256_crypt("k", "$5$rounds=1000$abc", out, length)) << length;
  }
  EXPECT_EQ(nullptr, SHA256_crypt(nullptr, "abc", out, sizeof out));
  EXPECT_EQ(nullptr, SHA256_crypt("k", nullptr, out, sizeof out));
  EXPECT_EQ(nullptr, SHA256_crypt("k", "abc", nullptr, sizeof out));
}

// A stored hash as the salt string gives the same hash back, also when it
// sits in the output buffer: this is how a password is checked.
TEST(SHA256Crypt, RehashesFromItsOwnOutput) {
  char buffer[128];
  ASSERT_NE(nullptr, SHA256_crypt("pw", "$5$rounds=1500$0123456789abcdefXYZ", buffer, 128));
  const std::string stored = buffer;
  EXPECT_STREQ(stored.c_str(), SHA256_crypt("pw", buffer, buffer, 128));
}

class B64From24Bit : public testing::TestWithParam<Row> {};

TEST_P(B64From24Bit, WritesWithinRoom) {
  const auto &f = GetParam().fields;
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
                         testing::ValuesIn(ReadTable("b64-from-24bit.tsv", 7)),
                         [](const auto &info) { return "L" + std::to_string(info.param.line); });

TEST(SHA256Crypt, B64IgnoresMissingPointers) {
  char out[4];
  char *cp = out;
  int32_t room = 4;
  b64_from_24bit(1, 2, 3, 4, nullptr, &cp);
  b64_from_24bit(1, 2, 3, 4, &room, nullptr);
  EXPECT_EQ(out, cp);
  EXPECT_EQ(4, room);
}

time_t FixedClock(time_t *t) {
  return t != nullptr ? *t = 1700000000 : 1700000000;
}
time_t NextSecond(time_t *) {
  return 1700000001;
}

class CryptPassword : public testing::Test {
 protected:
  void TearDown() override { autoinstall::SetCryptClockForTesting(nullptr); }
};

TEST_F(CryptPassword, IsSeededFromTheClockOnEveryCall) {
  const char kSaltAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789./";
  autoinstall::SetCryptClockForTesting(FixedClock);
  for (const std::string password : {"secret", "", "pässwörd with spaces $ and \" quotes"}) {
    const char *first = AutoInstallCryptPassword(password.c_str());
    ASSERT_NE(nullptr, first);
    const std::string hash = first;
    EXPECT_EQ(hash, AutoInstallCryptPassword(password.c_str()));   // the same second
    EXPECT_EQ(first, AutoInstallCryptPassword(password.c_str()));  // the one result buffer
    ASSERT_EQ(63u, hash.size()) << hash;
    EXPECT_EQ(0u, hash.rfind("$5$", 0));
    EXPECT_EQ(3, std::count(hash.begin(), hash.end(), '$')) << hash;
    EXPECT_EQ(std::string::npos, hash.substr(3, 16).find_first_not_of(kSaltAlphabet)) << hash;
    EXPECT_EQ('$', hash[19]);
    EXPECT_EQ(hash, SystemCrypt(password, hash));
  }
  const std::string now = AutoInstallCryptPassword("secret");
  autoinstall::SetCryptClockForTesting(NextSecond);
  EXPECT_NE(now.substr(0, 20), std::string(AutoInstallCryptPassword("secret")).substr(0, 20));
}

TEST_F(CryptPassword, NullForNull) {
  EXPECT_EQ(nullptr, AutoInstallCryptPassword(nullptr));
}

}  // namespace
