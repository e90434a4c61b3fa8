// Shared by the hash-data suites: images, hash-data files laid out byte by
// byte (independently of the library's encoder), an RSA signer made with
// the openssl program, and runs of "guestprep tools hashdata" and of the
// independent tests/scripts/make_hashdata.py.
#ifndef GUESTPREP_TESTS_TOOLSISO_HASHFIXTURES_H
#define GUESTPREP_TESTS_TOOLSISO_HASHFIXTURES_H

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "guestprep/toolsiso.h"
#include "support/signFixtures.h"
#include "support/testSupport.h"

namespace hash_fixtures {

namespace fs = std::filesystem;
using testing_support::CommandResult;
using testing_support::RunCommand;

// The captured log lines without their line feeds.
inline std::vector<std::string> LogLines(const testing_support::LogCapture &log) {
  std::vector<std::string> out;
  for (std::string line : log.lines()) {
    if (!line.empty() && line.back() == '\n') {
      line.pop_back();
    }
    out.push_back(line);
  }
  return out;
}

// The same as one text, " | " between them.
inline std::string LogText(const testing_support::LogCapture &log) {
  std::string out;
  for (const std::string &line : LogLines(log)) {
    out += (out.empty() ? "" : " | ") + line;
  }
  return out;
}

// Every line of expected (" | "-separated, placeholder replaced by value)
// is one of the log's lines.
inline void ExpectLines(const std::string &expected, const testing_support::LogCapture &log,
                        const std::string &placeholder = "", const std::string &value = "") {
  const std::vector<std::string> got = LogLines(log);
  for (std::string want : testing_support::Split(expected, " | ")) {
    if (!placeholder.empty()) {
      want = testing_support::Replace(want, placeholder, value);
    }
    EXPECT_NE(got.end(), std::find(got.begin(), got.end(), want))
        << "no line \"" << want << "\" in: " << LogText(log);
  }
}

inline void FlipByte(const fs::path &path, size_t offset) {
  std::string bytes = testing_support::ReadFile(path);
  ASSERT_LT(offset, bytes.size());
  bytes[offset] ^= 0x5a;
  testing_support::WriteFile(path, bytes);
}

inline std::string Sha256(const std::string &bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  EXPECT_EQ(1, EVP_Digest(bytes.data(), bytes.size(), digest, &size, EVP_sha256(), nullptr));
  return std::string(reinterpret_cast<char *>(digest), size);
}

inline void PutLe(std::string *file, size_t offset, size_t width, uint64_t value) {
  if (file->size() < offset + width) {
    file->resize(offset + width, '\0');
  }
  for (size_t i = 0; i < width; ++i) {
    (*file)[offset + i] = static_cast<char>(value >> (8 * i));
  }
}

// Header fields by name: offset and width.
struct Field {
  const char *name;
  size_t offset;
  size_t width;
};
inline constexpr Field kFields[] = {
    {"metadataLength", 32, 4},    {"blockSize", 44, 4},       {"hashSize", 48, 4},
    {"hashFileBlockSize", 52, 4}, {"firstHashOffset", 64, 8}, {"hashCount", 72, 8},
    {"signatureOffset", 80, 8},   {"signatureSize", 88, 8},
};

// A hash-data file for image with the given layout: metadata of 512 bytes,
// hashes of the first `hashed` blocks, then signatureSize bytes of stand-in
// signature when embedded (hashFileBlockSize 4096 then).
inline std::string HashDataFor(const std::string &image, uint32_t blockSize, uint64_t hashed,
                               size_t embeddedSignature = 0) {
  std::string file(512, '\0');
  memcpy(file.data(), "A Brimle External Hashdata File", 32);  // with its zero
  PutLe(&file, 32, 4, 512);
  PutLe(&file, 44, 4, blockSize);
  PutLe(&file, 48, 4, 32);
  PutLe(&file, 52, 4, embeddedSignature != 0 ? 4096 : 0);
  PutLe(&file, 64, 8, 512);
  PutLe(&file, 72, 8, hashed);
  memcpy(file.data() + 96, "SHA-256", 8);
  for (uint64_t i = 0; i < hashed; ++i) {
    const size_t at = static_cast<size_t>(i * blockSize);
    file += Sha256(at < image.size() ? image.substr(at, blockSize) : "");
  }
  if (embeddedSignature != 0) {
    PutLe(&file, 80, 8, file.size());
    PutLe(&file, 88, 8, embeddedSignature);
    file += std::string(embeddedSignature, 'S');
  }
  return file;
}

inline uint64_t BlocksOf(uint64_t size, uint32_t blockSize) {
  return (size + blockSize - 1) / blockSize;
}

struct HashInfoDeleter {
  void operator()(ToolsIsoHashInfo *p) const { ToolsISO_FreeHashInfo(p); }
};
using HashInfo = std::unique_ptr<ToolsIsoHashInfo, HashInfoDeleter>;

// The file parsed into a record that owns a malloc'd copy; null when refused
// (the copy is then freed here, as the caller still owns it).
inline HashInfo Parse(const std::string &file) {
  auto *copy = static_cast<uint8_t *>(malloc(file.size() + 1));
  memcpy(copy, file.data(), file.size());
  ToolsIsoHashInfo *info = ToolsISO_ParseHashData(copy, file.size());
  if (info == nullptr) {
    free(copy);
  }
  return HashInfo(info);
}

// Base64 of the SHA-256 of bytes, as the openssl program writes it.
inline std::string OpensslBase64Sha256(const std::string &bytes) {
  testing_support::TempDir dir;
  testing_support::WriteFile(dir / "in", bytes);
  CommandResult r =
      RunCommand({"sh", "-c", "openssl dgst -sha256 -binary \"$1\" | openssl base64 -A", "sh",
                  (dir / "in").string()});
  EXPECT_EQ(0, r.exitCode) << r.output;
  return r.output;
}

// An RSA key and a self-signed certificate (made once per process): RSA
// signatures without attributes are deterministic, so two signers' files
// compare byte for byte.
struct Signer {
  fs::path key;
  fs::path cert;
};
inline const Signer &TestRsaSigner() {
  static testing_support::TempDir *dir = new testing_support::TempDir();
  static const Signer signer = [] {
    Signer s{*dir / "rsa.key", *dir / "rsa.pem"};
    CommandResult r = RunCommand(
        {"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", s.key.string(),
         "-out", s.cert.string(), "-subj", "/CN=guestprep hash data test", "-days", "30"},
        120);
    EXPECT_EQ(0, r.exitCode) << r.output;
    return s;
  }();
  return signer;
}

// The maker's usual signer from the test hierarchy: its certificate with
// the intermediate it ships, in one file as "tools hashdata --cert" takes.
inline Signer MakerSigner(const fs::path &dir) {
  const fs::path &pki = testing_support::TestPki();
  Signer s{pki / "maker-leaf.key", dir / "maker-leaf-with-chain.pem"};
  testing_support::WriteFile(s.cert, testing_support::ReadFile(pki / "maker-leaf.pem") +
                                         testing_support::ReadFile(pki / "maker-leaf.chain"));
  return s;
}

inline CommandResult RunHashDataCli(const std::vector<std::string> &args) {
  std::vector<std::string> argv = {GUESTPREP_CLI, "tools", "hashdata"};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunCommand(argv, 300);
}

// "guestprep tools hashdata" over image, signed by signer.
inline void Publish(const fs::path &image, const Signer &signer,
                    std::vector<std::string> extra = {}) {
  std::vector<std::string> args = {image.string(), "--key", signer.key.string(), "--cert",
                                   signer.cert.string()};
  args.insert(args.end(), extra.begin(), extra.end());
  CommandResult r = RunHashDataCli(args);
  ASSERT_EQ(0, r.exitCode) << r.output;
}

inline CommandResult RunHashDataScript(const std::vector<std::string> &args) {
  std::vector<std::string> argv = {
      "python3",
      (testing_support::DataDir().parent_path() / "scripts" / "make_hashdata.py").string()};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunCommand(argv, 300);
}

}  // namespace hash_fixtures

#endif
