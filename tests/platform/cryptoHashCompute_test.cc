// One-shot hashing by name and Base64 encoding, against the openssl
// program: digests of inputs around the hash block boundaries for every
// algorithm the host offers, Base64 of every length up to a few blocks,
// and the refusals (unknown names, outputs that are too small).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/crypto/cryptoHash.h"
#include "platform/util/base64.h"
#include "support/testSupport.h"

namespace {

using testing_support::CommandResult;
using testing_support::Hex;
using testing_support::Pattern;
using testing_support::RunCommand;
using testing_support::TempDir;
using testing_support::WriteFile;

// What "openssl dgst -ALG -r" prints for data: the hex digest.
std::string OpensslDigest(const std::string &algorithm, const std::string &data) {
  TempDir dir;
  WriteFile(dir / "in", data);
  CommandResult r = RunCommand({"openssl", "dgst", "-" + algorithm, "-r", (dir / "in").string()});
  EXPECT_EQ(0, r.exitCode) << r.output;
  return r.output.substr(0, r.output.find(' '));
}

std::string OpensslBase64(const std::string &data) {
  TempDir dir;
  WriteFile(dir / "in", data);
  CommandResult r = RunCommand({"openssl", "base64", "-A", "-in", (dir / "in").string()});
  EXPECT_EQ(0, r.exitCode) << r.output;
  return r.output;
}

struct Algorithm {
  const char *name;     // as CryptoHash_FromString takes it
  const char *openssl;  // as the openssl program does
  size_t size;
};

class OneShotDigest : public ::testing::TestWithParam<Algorithm> {};

TEST_P(OneShotDigest, MatchesOpenssl) {
  const Algorithm &a = GetParam();
  const CryptoHashImpl *impl = nullptr;
  ASSERT_EQ(CRYPTO_ERROR_SUCCESS, CryptoHash_FromString(a.name, &impl));
  EXPECT_EQ(a.size, CryptoHash_GetOutputSize(impl));
  // Empty, short, around the 64- and 128-byte blocks and their padding, long.
  for (size_t length : {0, 1, 3, 55, 56, 63, 64, 65, 111, 112, 127, 128, 129, 4096, 1000003}) {
    SCOPED_TRACE(length);
    const std::string data = Pattern(length, 61);
    std::string digest(64, '\0');
    ASSERT_EQ(CRYPTO_ERROR_SUCCESS,
              CryptoHash_Compute(impl, data.data(), data.size(), digest.data(), digest.size()));
    EXPECT_EQ(OpensslDigest(a.openssl, data), Hex(digest.substr(0, a.size)));
    // Nothing past the digest is written.
    EXPECT_EQ(std::string(64 - a.size, '\0'), digest.substr(a.size));
  }
  std::string small(a.size - 1, '\0');
  EXPECT_EQ(CRYPTO_ERROR_OUTPUT_TOO_SMALL,
            CryptoHash_Compute(impl, "x", 1, small.data(), small.size()));
  EXPECT_EQ(CRYPTO_ERROR_BAD_PARAMETER, CryptoHash_Compute(impl, nullptr, 1, small.data(), 64));
  EXPECT_EQ(CRYPTO_ERROR_BAD_PARAMETER, CryptoHash_Compute(impl, "x", 1, nullptr, 64));
}

INSTANTIATE_TEST_SUITE_P(Algorithms, OneShotDigest,
                         ::testing::Values(Algorithm{"SHA-256", "sha256", 32},
                                           Algorithm{"SHA-1", "sha1", 20},
                                           Algorithm{"SHA-384", "sha384", 48},
                                           Algorithm{"SHA-512", "sha512", 64}),
                         [](const auto &info) { return std::string(info.param.openssl); });

TEST(OneShotDigestNames, UnknownNamesAreRefused) {
  for (const char *name : {"sha-256", "SHA256", "SHA-256 ", "MD5", "", "SHA-224"}) {
    const CryptoHashImpl *impl = nullptr;
    EXPECT_EQ(CRYPTO_ERROR_UNKNOWN_ALGORITHM, CryptoHash_FromString(name, &impl)) << name;
    EXPECT_EQ(nullptr, impl);
  }
  const CryptoHashImpl *impl = nullptr;
  EXPECT_EQ(CRYPTO_ERROR_BAD_PARAMETER, CryptoHash_FromString(nullptr, &impl));
  EXPECT_EQ(0u, CryptoHash_GetOutputSize(nullptr));
  EXPECT_EQ(CRYPTO_ERROR_BAD_PARAMETER, CryptoHash_Compute(nullptr, "x", 1, nullptr, 0));
  EXPECT_STREQ("unknown algorithm", CryptoError_ToString(CRYPTO_ERROR_UNKNOWN_ALGORITHM));
  EXPECT_STREQ("output buffer too small", CryptoError_ToString(CRYPTO_ERROR_OUTPUT_TOO_SMALL));
  EXPECT_STREQ("unknown error", CryptoError_ToString(static_cast<CryptoError>(99)));
}

TEST(Base64, EveryLengthMatchesOpenssl) {
  for (size_t length = 0; length <= 70; ++length) {
    SCOPED_TRACE(length);
    const std::string data = Pattern(length, 67);
    const std::string expected = OpensslBase64(data);
    const size_t need = Base64_EncodedSize(length);
    EXPECT_EQ(expected.size() + 1, need);
    std::string out(need + 4, '#');
    size_t written = 0;
    ASSERT_TRUE(Base64_Encode(reinterpret_cast<const uint8_t *>(data.data()), length, out.data(),
                              need, &written));
    EXPECT_EQ(expected, std::string(out.c_str()));
    EXPECT_EQ(expected.size(), written);
    EXPECT_EQ("####", out.substr(need));  // nothing past the given size
    // One byte less does not fit, and nothing is written.
    std::string tight(need, '#');
    EXPECT_FALSE(Base64_Encode(reinterpret_cast<const uint8_t *>(data.data()), length, tight.data(),
                               need - 1, nullptr));
    EXPECT_EQ(std::string(need, '#'), tight);
  }
  char out[8];
  EXPECT_FALSE(Base64_Encode(nullptr, 3, out, sizeof out, nullptr));
  EXPECT_FALSE(Base64_Encode(reinterpret_cast<const uint8_t *>("abc"), 3, nullptr, 8, nullptr));
  EXPECT_TRUE(Base64_Encode(nullptr, 0, out, 1, nullptr));
  EXPECT_STREQ("", out);
}

}  // namespace
