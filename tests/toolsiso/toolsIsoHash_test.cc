// The hash-data loader and the block check: every load-time rule of the
// header against a mutation of a good file (tests/data/toolsiso-hash/
// header-rules.tsv), and block checks over an image with flipped bytes,
// unaligned and out-of-range reads (verify.tsv), with the mismatch lines'
// Base64 hashes computed by the openssl program.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "guestprep/toolsiso.h"
#include "lib/toolsiso/toolsIsoHash.h"
#include "support/signFixtures.h"
#include "support/testSupport.h"
#include "toolsiso/hashFixtures.h"

namespace {

using namespace hash_fixtures;
using testing_support::LogCapture;
using testing_support::ReadTsv;
using testing_support::Split;
using testing_support::TsvRow;
using testing_support::TsvRowNamer;
using testing_support::Unescape;

uint64_t Number(const std::string &text) {
  return std::stoull(text, nullptr, 0);
}

// ---- load-time rules ----

// The base file a row names: "sep:H" or "emb:H:S".
std::string BaseFile(const std::string &base) {
  std::vector<std::string> parts = Split(base, ":");
  const uint64_t hashes = Number(parts.at(1));
  const std::string image = testing_support::Pattern(static_cast<size_t>(hashes) * 4096, 3);
  return HashDataFor(image, 4096, hashes, parts[0] == "emb" ? Number(parts.at(2)) : 0);
}

void Mutate(std::string *file, const std::string &mutation) {
  const size_t eq = mutation.find('=');
  ASSERT_NE(std::string::npos, eq) << mutation;
  const std::string name = mutation.substr(0, eq), value = mutation.substr(eq + 1);
  if (name == "size") {
    file->resize(static_cast<size_t>(Number(value)), '\0');
  } else if (name == "algo") {
    std::string algo = Unescape(value);
    ASSERT_EQ(8u, algo.size()) << mutation;
    file->replace(96, 8, algo);
  } else if (name.rfind("byte", 0) == 0) {
    (*file)[std::stoul(name.substr(4))] = static_cast<char>(Number(value));
  } else {
    for (const Field &field : kFields) {
      if (name == field.name) {
        PutLe(file, field.offset, field.width, Number(value));
        return;
      }
    }
    FAIL() << "no field " << name;
  }
}

class HeaderRules : public ::testing::TestWithParam<TsvRow> {};

TEST_P(HeaderRules, RefusesWithItsLine) {
  const std::vector<std::string> &c = GetParam().cells;
  std::string file = BaseFile(c[1]);
  bool null = false;
  std::vector<std::string> mutations = c[2] == "-" ? std::vector<std::string>{} : Split(c[2], ",");
  // Sizes last, so that fields are set in the file as the base laid it out.
  std::stable_partition(mutations.begin(), mutations.end(),
                        [](const std::string &m) { return m.rfind("size=", 0) != 0; });
  for (const std::string &m : mutations) {
    if (m == "null") {
      null = true;
    } else {
      Mutate(&file, m);
    }
  }
  LogCapture log;
  uint8_t *buffer = nullptr;
  if (!null) {
    buffer = static_cast<uint8_t *>(malloc(file.size() + 1));
    memcpy(buffer, file.data(), file.size());
  }
  ToolsIsoHashInfo *info = ToolsISO_ParseHashData(buffer, file.size());
  if (c[3] == "OK") {
    ASSERT_NE(nullptr, info) << LogText(log);
    EXPECT_EQ("", LogText(log));
    EXPECT_EQ(buffer, info->data);  // the record took the buffer
    EXPECT_EQ(file.size(), info->size);
    ToolsIsoHashHeader decoded = gp::DecodeToolsIsoHashHeader(buffer);
    EXPECT_EQ(0, memcmp(&decoded, &info->header, sizeof decoded));
    ToolsISO_FreeHashInfo(info);
  } else {
    EXPECT_EQ(nullptr, info);
    EXPECT_EQ(c[3], LogText(log));
    free(buffer);  // still the caller's
  }
}

INSTANTIATE_TEST_SUITE_P(Table, HeaderRules,
                         ::testing::ValuesIn(ReadTsv("toolsiso-hash/header-rules.tsv", 4)),
                         TsvRowNamer());

TEST(HashHeader, DecodesEveryFieldLittleEndian) {
  std::string file(104, '\0');
  memcpy(file.data(), "A Brimle External Hashdata File", 32);
  const uint64_t values[] = {0x11223344,         0x55667788,         0x99aabbcc,
                             0xddeeff00,         0x0102030405060708, 0x1112131415161718,
                             0x2122232425262728, 0x3132333435363738};
  for (size_t i = 0; i < std::size(kFields); ++i) {
    PutLe(&file, kFields[i].offset, kFields[i].width, values[i]);
  }
  for (size_t i = 36; i < 44; ++i) {
    file[i] = static_cast<char>(0xa0 + i);
  }
  for (size_t i = 56; i < 64; ++i) {
    file[i] = static_cast<char>(0xb0 + i);
  }
  memcpy(file.data() + 96, "SHA-256", 8);
  const auto *bytes = reinterpret_cast<const uint8_t *>(file.data());
  ToolsIsoHashHeader h = gp::DecodeToolsIsoHashHeader(bytes);
  EXPECT_EQ(0x11223344u, h.metadataLength);
  EXPECT_EQ(0x55667788u, h.blockSize);
  EXPECT_EQ(0x99aabbccu, h.hashSize);
  EXPECT_EQ(0xddeeff00u, h.hashFileBlockSize);
  EXPECT_EQ(0x0102030405060708u, h.firstHashOffset);
  EXPECT_EQ(0x1112131415161718u, h.hashCount);
  EXPECT_EQ(0x2122232425262728u, h.signatureOffset);
  EXPECT_EQ(0x3132333435363738u, h.signatureSize);
  EXPECT_EQ(0, memcmp(h.reserved1, bytes + 36, 8));
  EXPECT_EQ(0, memcmp(h.reserved2, bytes + 56, 8));
  EXPECT_STREQ("SHA-256", h.hashAlgo);

  uint8_t again[104];
  gp::EncodeToolsIsoHashHeader(h, again);
  EXPECT_EQ(file, std::string(reinterpret_cast<char *>(again), sizeof again));
}

TEST(HashImpl, OnlySha256) {
  LogCapture log;
  const CryptoHashImpl *impl = ToolsISO_GetHashImpl("SHA-256");
  ASSERT_NE(nullptr, impl);
  EXPECT_EQ(32u, CryptoHash_GetOutputSize(impl));
  EXPECT_EQ("", LogText(log));
  EXPECT_EQ(nullptr, ToolsISO_GetHashImpl("SHA-1"));
  EXPECT_EQ(nullptr, ToolsISO_GetHashImpl("sha-256"));
  EXPECT_EQ(nullptr, ToolsISO_GetHashImpl(""));
  EXPECT_EQ(
      "ToolsISO: Unsupported hash algo 'SHA-1' | ToolsISO: Unsupported hash algo 'sha-256' | "
      "ToolsISO: Unsupported hash algo ''",
      LogText(log));
}

TEST(HashInfo, FreeAcceptsNull) {
  ToolsISO_FreeHashInfo(nullptr);
}

// ---- block checks ----

class VerifyHashes : public ::testing::TestWithParam<TsvRow> {};

// "mismatch@OFF/LEN" as the line the library writes for it.
std::string MismatchLine(const std::string &mismatch, const std::string &original,
                         const std::string &checked, uint32_t blockSize) {
  const size_t slash = mismatch.find('/');
  const uint64_t at = Number(mismatch.substr(9, slash - 9));
  const size_t len = static_cast<size_t>(Number(mismatch.substr(slash + 1)));
  char offset[32];
  snprintf(offset, sizeof offset, "0x%llx", static_cast<unsigned long long>(at));
  return std::string("ToolsISO: Error hash mismatch at offset ") + offset + ", expected hash [" +
         OpensslBase64Sha256(original.substr(static_cast<size_t>(at), blockSize)) +
         "], but found [" + OpensslBase64Sha256(checked.substr(static_cast<size_t>(at), len)) + "]";
}

TEST_P(VerifyHashes, ChecksBlocks) {
  const std::vector<std::string> &c = GetParam().cells;
  const size_t imageSize = static_cast<size_t>(Number(c[1]));
  const uint32_t blockSize = static_cast<uint32_t>(Number(c[2]));
  const std::string original = testing_support::Pattern(imageSize, 17);
  const uint64_t hashed = c[3] == "all" ? BlocksOf(imageSize, blockSize) : Number(c[3]);
  HashInfo info = Parse(HashDataFor(original, blockSize, hashed));
  ASSERT_TRUE(info);

  std::string image = original;
  if (c[4] != "-") {
    for (const std::string &at : Split(c[4], ",")) {
      image[static_cast<size_t>(Number(at))] ^= 0x5a;
    }
  }
  const uint64_t offset = Number(c[5]);
  const size_t length = static_cast<size_t>(Number(c[6]));
  // Out-of-range rows check bytes that are not in the image: zeros then.
  std::string data(length, '\0');
  if (offset < image.size()) {
    data.replace(0, std::min(length, image.size() - static_cast<size_t>(offset)),
                 image.substr(static_cast<size_t>(offset), length));
  }
  std::string expected;
  if (c[8] != "OK") {
    for (const std::string &piece : Split(c[8], " | ")) {
      expected +=
          (expected.empty() ? "" : " | ") + (piece.rfind("mismatch@", 0) == 0
                                                 ? MismatchLine(piece, original, image, blockSize)
                                                 : piece);
    }
  }
  LogCapture log;
  const bool good = ToolsISO_VerifyHashes(info.get(), offset, data.data(), length, c[7] == "1");
  EXPECT_EQ(c[8] == "OK", good);
  EXPECT_EQ(expected, LogText(log));
}

INSTANTIATE_TEST_SUITE_P(Table, VerifyHashes,
                         ::testing::ValuesIn(ReadTsv("toolsiso-hash/verify.tsv", 9)),
                         TsvRowNamer());

TEST(VerifyHashesRecord, RefusesATableOutsideItsData) {
  const std::string image = testing_support::Pattern(8192, 5);
  HashInfo info = Parse(HashDataFor(image, 4096, 2));
  ASSERT_TRUE(info);
  // A record put together by hand, its table claimed past its bytes.
  ToolsIsoHashInfo forged = *info;
  forged.header.firstHashOffset = forged.size - 16;
  LogCapture log;
  EXPECT_FALSE(ToolsISO_VerifyHashes(&forged, 0, image.data(), image.size(), false));
  EXPECT_EQ("ToolsISO: Error hashCount invalid.", LogText(log));
  log.clear();
  forged = *info;
  memcpy(forged.header.hashAlgo, "SHA-512", 8);
  EXPECT_FALSE(ToolsISO_VerifyHashes(&forged, 0, image.data(), image.size(), false));
  EXPECT_EQ("ToolsISO: Unsupported hash algo 'SHA-512' | ToolsISO: Error failed to load hashImpl.",
            LogText(log));
  log.clear();
  forged = *info;
  memcpy(forged.header.hashAlgo, "SHA-256X", 8);  // no terminating zero
  EXPECT_FALSE(ToolsISO_VerifyHashes(&forged, 0, image.data(), image.size(), false));
  EXPECT_EQ("ToolsISO: Unsupported hash algo 'SHA-256X' | ToolsISO: Error failed to load hashImpl.",
            LogText(log));
  EXPECT_FALSE(ToolsISO_VerifyHashes(nullptr, 0, image.data(), image.size(), false));
}

}  // namespace
