// Hash-data files as the publisher writes them ("guestprep tools hashdata")
// and as tests/scripts/make_hashdata.py writes them independently, then
// read back by the library: the two agree byte for byte; an image opens
// with its signed hash data or gives the line of its refusal (open.tsv);
// reads check every block (reads.tsv), and a flipped byte fails the read
// of its block alone; an image mastered by genisoimage is read through the
// ISO reader over the verified callbacks.
//
// Tests that verify signatures hold the certificate directory's lease with
// the maker's root as the trusted bundle; they skip when the library was
// built to read the system's directory.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "guestprep/toolsiso.h"
#include "lib/toolsiso/toolsIsoHash.h"
#include "platform/iso9660/iso9660.h"
#include "support/signFixtures.h"
#include "support/testSupport.h"
#include "toolsiso/hashFixtures.h"

namespace {

using namespace hash_fixtures;
using testing_support::CertDirLease;
using testing_support::CertDirUsable;
using testing_support::HaveTool;
using testing_support::LogCapture;
using testing_support::Pattern;
using testing_support::ReadFile;
using testing_support::ReadTsv;
using testing_support::TempDir;
using testing_support::TsvRow;
using testing_support::TsvRowNamer;
using testing_support::WriteFile;

// The independent script's hash data for image, signed by the maker's leaf
// with its chain given apart.
void ScriptAsMaker(const fs::path &image, bool embed) {
  const fs::path &pki = testing_support::TestPki();
  std::vector<std::string> args = {image.string(),
                                   "--key",
                                   (pki / "maker-leaf.key").string(),
                                   "--cert",
                                   (pki / "maker-leaf.pem").string(),
                                   "--chain",
                                   (pki / "maker-leaf.chain").string()};
  if (embed) {
    args.push_back("--embed");
  }
  CommandResult r = RunHashDataScript(args);
  ASSERT_EQ(0, r.exitCode) << r.output;
}

std::string Canonical(const fs::path &path) {
  std::error_code ec;
  fs::path c = fs::canonical(path, ec);
  return ec ? path.string() : c.string();
}

struct LocalFile {
  ~LocalFile() {
    if (handle != nullptr) {
      EXPECT_TRUE(ToolsISO_LocalFileCloseCB(handle));
    }
  }
  ToolsIsoLocalFile *handle = nullptr;
};

// ---- the publisher against the independent script ----

class Publisher : public ::testing::TestWithParam<TsvRow> {};

// openssl's own check of a detached signature over body, by the key's
// self-signed certificate.
void ExpectOpensslVerifies(const TempDir &dir, const std::string &body, const std::string &sig,
                           const fs::path &cert) {
  WriteFile(dir / "body", body);
  WriteFile(dir / "body.sig", sig);
  CommandResult r = RunCommand({"openssl", "smime", "-verify", "-binary", "-inform", "PEM", "-in",
                                (dir / "body.sig").string(), "-content", (dir / "body").string(),
                                "-CAfile", cert.string(), "-purpose", "any", "-out", "/dev/null"});
  EXPECT_EQ(0, r.exitCode) << r.output;
}

TEST_P(Publisher, MatchesTheScriptByteForByte) {
  const std::vector<std::string> &c = GetParam().cells;
  const Signer &signer = TestRsaSigner();
  TempDir dir;
  const size_t size = static_cast<size_t>(std::stoull(c[1]));
  const bool embed = c[3] == "1";
  const std::string image = Pattern(size, 23);
  WriteFile(dir / "cli.iso", image);
  WriteFile(dir / "script.iso", image);
  std::vector<std::string> extra = {"--block-size", c[2]};
  if (embed) {
    extra.push_back("--embed");
  }
  Publish(dir / "cli.iso", signer, extra);
  std::vector<std::string> args = {(dir / "script.iso").string(), "--key", signer.key.string(),
                                   "--cert", signer.cert.string()};
  args.insert(args.end(), extra.begin(), extra.end());
  CommandResult r = RunHashDataScript(args);
  ASSERT_EQ(0, r.exitCode) << r.output;

  const std::string cli = ReadFile(dir / "cli.iso.sha");
  EXPECT_EQ(ReadFile(dir / "script.iso.sha"), cli);
  EXPECT_EQ(embed, !fs::exists(dir / "cli.iso.sig"));
  HashInfo info = Parse(cli);
  ASSERT_TRUE(info);
  EXPECT_EQ(std::stoull(c[4]), info->header.hashCount);
  EXPECT_EQ(std::stoul(c[2]), info->header.blockSize);
  EXPECT_EQ(512u, info->header.metadataLength);
  EXPECT_EQ(512u, info->header.firstHashOffset);
  EXPECT_EQ(32u, info->header.hashSize);
  EXPECT_EQ(embed ? 4096u : 0u, info->header.hashFileBlockSize);
  // Each hash is the SHA-256 of its block.
  const uint32_t blockSize = info->header.blockSize;
  for (uint64_t i = 0; i < info->header.hashCount; ++i) {
    const std::string block = image.substr(static_cast<size_t>(i * blockSize), blockSize);
    ASSERT_EQ(Sha256(block), cli.substr(static_cast<size_t>(512 + 32 * i), 32)) << "block " << i;
  }
  if (embed) {
    const size_t at = static_cast<size_t>(info->header.signatureOffset);
    EXPECT_EQ(512 + 32 * info->header.hashCount, at);
    EXPECT_EQ(cli.size() - at, info->header.signatureSize);
    ExpectOpensslVerifies(dir, cli.substr(0, at), cli.substr(at), signer.cert);
  } else {
    EXPECT_EQ(std::stoull(c[5]), cli.size());
    EXPECT_EQ(ReadFile(dir / "script.iso.sig"), ReadFile(dir / "cli.iso.sig"));
    ExpectOpensslVerifies(dir, cli, ReadFile(dir / "cli.iso.sig"), signer.cert);
  }
}

INSTANTIATE_TEST_SUITE_P(Table, Publisher,
                         ::testing::ValuesIn(ReadTsv("toolsiso-hash/publish.tsv", 6)),
                         TsvRowNamer());

// The maker's signer has an EC key: its signatures differ from run to run,
// everything before them may not.
TEST(PublisherMaker, BothFilesLoadAndAgreeBeforeTheSignature) {
  SKIP_WITHOUT_CERT_DIR();
  TempDir dir;
  const Signer signer = MakerSigner(dir.path());
  const std::string image = Pattern(200000, 29);
  for (const bool embed : {false, true}) {
    SCOPED_TRACE(embed ? "embedded" : "separate");
    fs::create_directories(dir / (embed ? "e" : "s"));
    const fs::path cliImage = dir / (embed ? "e" : "s") / "cli.iso";
    const fs::path scriptImage = dir / (embed ? "e" : "s") / "script.iso";
    WriteFile(cliImage, image);
    WriteFile(scriptImage, image);
    std::vector<std::string> extra;
    if (embed) {
      extra.push_back("--embed");
    }
    Publish(cliImage, signer, extra);
    ScriptAsMaker(scriptImage, embed);

    std::string cli = ReadFile(cliImage.string() + ".sha");
    std::string script = ReadFile(scriptImage.string() + ".sha");
    if (embed) {
      // Up to the signature's size field, and from it to the signature.
      const size_t at = static_cast<size_t>(Parse(cli)->header.signatureOffset);
      EXPECT_EQ(cli.substr(0, 88), script.substr(0, 88));
      EXPECT_EQ(cli.substr(96, at - 96), script.substr(96, at - 96));
    } else {
      EXPECT_EQ(script, cli);
    }
    CertDirLease lease("std");
    for (const fs::path &path : {cliImage, scriptImage}) {
      LogCapture log;
      ToolsIsoHashInfo *info = nullptr;
      EXPECT_TRUE(ToolsISO_GetLocalFileHashInfo(path.c_str(), image.size(), true, &info))
          << path << ": " << LogText(log);
      EXPECT_NE(nullptr, info);
      ToolsISO_FreeHashInfo(info);
    }
  }
}

struct CliFailure {
  const char *name;
  size_t imageSize;
  std::vector<std::string> extra;
  const char *message;  // part of the one stderr line
};

TEST(PublisherRefuses, WhatTheLoaderWouldRefuse) {
  const Signer &signer = TestRsaSigner();
  const CliFailure cases[] = {
      {"empty image", 0, {}, "is empty: there is nothing to hash"},
      {"hash data as big as the image", 500, {}, "would not be smaller than"},
      {"embedded bigger than the image", 2000, {"--embed"}, "would not be smaller than"},
      {"signature bigger than the hash data", 20000, {}, "use --embed or a smaller --block-size"},
      {"block size 511", 100000, {"--block-size", "511"}, "--block-size"},
      {"block size 4097", 100000, {"--block-size", "4097"}, "--block-size"},
  };
  for (const CliFailure &c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    WriteFile(dir / "i.iso", Pattern(c.imageSize, 1));
    std::vector<std::string> args = {(dir / "i.iso").string(), "--key", signer.key.string(),
                                     "--cert", signer.cert.string()};
    args.insert(args.end(), c.extra.begin(), c.extra.end());
    CommandResult r = RunHashDataCli(args);
    EXPECT_NE(0, r.exitCode);
    EXPECT_NE(std::string::npos, r.output.find(c.message)) << r.output;
    EXPECT_FALSE(fs::exists(dir / "i.iso.sha"));
    EXPECT_FALSE(fs::exists(dir / "i.iso.sig"));
  }
}

TEST(PublisherRefuses, AKeyThatIsNotTheCertificates) {
  TempDir dir;
  WriteFile(dir / "i.iso", Pattern(100000, 1));
  const fs::path &pki = testing_support::TestPki();
  CommandResult r =
      RunHashDataCli({(dir / "i.iso").string(), "--key", (pki / "other-leaf.key").string(),
                      "--cert", (pki / "maker-leaf.pem").string()});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_NE(std::string::npos, r.output.find("does not belong to the certificate")) << r.output;
  r = RunHashDataCli({(dir / "i.iso").string(), "--key", (dir / "none.key").string(), "--cert",
                      (pki / "maker-leaf.pem").string()});
  EXPECT_EQ(1, r.exitCode);
  EXPECT_NE(std::string::npos, r.output.find("cannot read the private key")) << r.output;
  EXPECT_FALSE(fs::exists(dir / "i.iso.sha"));
}

// ---- opening a local image ----

constexpr size_t kOpenImageSize = 200000;

class LocalOpen : public ::testing::TestWithParam<TsvRow> {};

// Lays out the row's setup in dir; the path to open.
fs::path LayOut(const std::string &setup, const TempDir &dir, const std::string &image) {
  const Signer maker = MakerSigner(dir.path());
  const fs::path iso = dir / "linux.iso";
  const std::string sha = iso.string() + ".sha", sig = iso.string() + ".sig";
  WriteFile(iso, image);
  auto publish = [&](std::vector<std::string> extra = {}) { Publish(iso, maker, extra); };
  if (setup == "separate" || setup == "no-sig" || setup == "tampered-sha" ||
      setup == "tampered-sig" || setup == "sig-too-big" || setup == "sha-too-big" ||
      setup == "swapped-sig") {
    publish();
  } else if (setup == "embedded" || setup == "tampered-embedded") {
    publish({"--embed"});
  } else if (setup.rfind("script-", 0) == 0) {
    ScriptAsMaker(iso, setup == "script-embedded");
  } else if (setup.rfind("other-signer", 0) == 0) {
    const fs::path &pki = testing_support::TestPki();
    WriteFile(dir / "other.pem",
              ReadFile(pki / "other-leaf.pem") + ReadFile(pki / "other-leaf.chain"));
    Signer other{pki / "other-leaf.key", dir / "other.pem"};
    Publish(iso, other,
            setup == "other-signer-embedded" ? std::vector<std::string>{"--embed"}
                                             : std::vector<std::string>{});
  } else if (setup == "sha-garbage") {
    WriteFile(sha, std::string(1000, 'x'));
  } else if (setup == "sha-empty") {
    WriteFile(sha, "");
  } else if (setup == "missing-image") {
    fs::remove(iso);
  } else if (setup == "directory-image") {
    fs::remove(iso);
    fs::create_directories(iso);
  } else if (setup == "link" || setup == "link-sha-beside-link") {
    // The hash data lies beside the file the link names.
    fs::create_directories(dir / "store");
    fs::rename(iso, dir / "store" / "linux-1.iso");
    fs::create_symlink(dir / "store" / "linux-1.iso", iso);
    Publish(dir / "store" / "linux-1.iso", maker);
    if (setup == "link-sha-beside-link") {
      fs::rename(dir / "store" / "linux-1.iso.sha", sha);
      fs::rename(dir / "store" / "linux-1.iso.sig", sig);
    }
  } else if (setup != "no-sha") {
    ADD_FAILURE() << "no setup " << setup;
  }

  if (setup == "no-sig") {
    fs::remove(sig);
  } else if (setup == "tampered-sha" || setup == "tampered-embedded") {
    FlipByte(sha, 512 + 40);
  } else if (setup == "tampered-sig") {
    // One Base64 character of the signature value near its end.
    std::string s = ReadFile(sig);
    const size_t end = s.find("-----END");
    s[end - 10] = s[end - 10] == 'A' ? 'B' : 'A';
    WriteFile(sig, s);
  } else if (setup == "swapped-sig") {
    // A good signature by the right signer, over another image's hash data.
    WriteFile(dir / "other.iso", Pattern(kOpenImageSize, 99));
    Publish(dir / "other.iso", maker);
    fs::copy_file(dir / "other.iso.sig", sig, fs::copy_options::overwrite_existing);
  } else if (setup == "sig-too-big") {
    WriteFile(sig, std::string(fs::file_size(sha), '\n'));
  } else if (setup == "sha-too-big") {
    fs::resize_file(iso, fs::file_size(sha));
  }
  return iso;
}

TEST_P(LocalOpen, OpensOrRefusesWithItsLine) {
  SKIP_WITHOUT_CERT_DIR();
  const std::vector<std::string> &c = GetParam().cells;
  TempDir dir;
  const std::string image = Pattern(kOpenImageSize, 31);
  const fs::path iso = LayOut(c[1], dir, image);
  CertDirLease lease("std");
  LogCapture log;
  LocalFile file;
  const uint32_t code = ToolsISO_LocalFileOpen(iso.c_str(), c[2] == "1", &file.handle);
  EXPECT_EQ(std::stoul(c[3]), code) << LogText(log);
  const std::string canonical = Canonical(iso);
  if (code != TOOLSISO_OPEN_OK) {
    EXPECT_EQ(nullptr, file.handle);
    ExpectLines(c[5], log, "{image}", canonical);
    return;
  }
  ASSERT_NE(nullptr, file.handle);
  if (c[5].empty()) {
    EXPECT_EQ("", LogText(log));
  } else {
    ExpectLines(c[5], log, "{image}", canonical);
  }
  // The whole image reads back; with hashes, a changed block would not.
  std::string back(image.size(), '\0');
  size_t count = 0;
  EXPECT_TRUE(ToolsISO_LocalFileReadCB(file.handle, back.data(), back.size(), 0, &count));
  EXPECT_EQ(image.size(), count);
  EXPECT_EQ(image, back);
  FlipByte(iso, 5000);
  log.clear();
  EXPECT_EQ(c[4] == "0", ToolsISO_LocalFileReadCB(file.handle, back.data(), 4096, 4096, &count));
}

INSTANTIATE_TEST_SUITE_P(Table, LocalOpen,
                         ::testing::ValuesIn(ReadTsv("toolsiso-hash/open.tsv", 6)), TsvRowNamer());

TEST(LocalOpenArgs, NullsAreRefused) {
  LogCapture log;
  ToolsIsoLocalFile *handle = nullptr;
  EXPECT_EQ(uint32_t{TOOLSISO_OPEN_FAILED}, ToolsISO_LocalFileOpen(nullptr, false, &handle));
  EXPECT_EQ(uint32_t{TOOLSISO_OPEN_FAILED}, ToolsISO_LocalFileOpen("/nonexistent", false, nullptr));
  EXPECT_FALSE(ToolsISO_LocalFileCloseCB(nullptr));
  char buffer[16];
  EXPECT_FALSE(ToolsISO_LocalFileReadCB(nullptr, buffer, sizeof buffer, 0, nullptr));
  ToolsIsoHashInfo *info = reinterpret_cast<ToolsIsoHashInfo *>(1);
  EXPECT_FALSE(ToolsISO_GetLocalFileHashInfo(nullptr, 100, false, &info));
}

// ---- reading a local image ----

class LocalReads : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!CertDirUsable()) {
      return;
    }
    dir_ = new TempDir();
    image_ = new std::string(Pattern(10240, 37));
    WriteFile(*dir_ / "tools.iso", *image_);
    Publish(*dir_ / "tools.iso", MakerSigner(dir_->path()), {"--block-size", "2048", "--embed"});
    // Unsigned bytes after the signed ones.
    *image_ += Pattern(3000, 41);
    WriteFile(*dir_ / "tools.iso", *image_);
  }
  static void TearDownTestSuite() {
    delete dir_;
    delete image_;
    dir_ = nullptr;
    image_ = nullptr;
  }
  void SetUp() override {
    SKIP_WITHOUT_CERT_DIR();
    CertDirLease lease("std");
    ASSERT_EQ(uint32_t{TOOLSISO_OPEN_OK},
              ToolsISO_LocalFileOpen((*dir_ / "tools.iso").c_str(), true, &file_.handle));
  }
  static TempDir *dir_;
  static std::string *image_;
  LocalFile file_;
};
TempDir *LocalReads::dir_ = nullptr;
std::string *LocalReads::image_ = nullptr;

class LocalReadRows : public LocalReads, public ::testing::WithParamInterface<TsvRow> {};

TEST_P(LocalReadRows, ReadsOrRefuses) {
  const std::vector<std::string> &c = GetParam().cells;
  const uint64_t offset = std::stoull(c[1]);
  const size_t length = static_cast<size_t>(std::stoull(c[2]));
  std::string buffer(length, '?');
  size_t count = 12345;
  LogCapture log;
  const bool ok = ToolsISO_LocalFileReadCB(file_.handle, buffer.data(), length, offset,
                                           c[3] == "1" ? &count : nullptr);
  ASSERT_EQ(c[4] == "OK", ok) << LogText(log);
  if (ok) {
    EXPECT_EQ("", LogText(log));
    const size_t want = static_cast<size_t>(std::stoull(c[5]));
    if (c[3] == "1") {
      EXPECT_EQ(want, count);
    }
    EXPECT_EQ(image_->substr(static_cast<size_t>(std::min<uint64_t>(offset, image_->size())), want),
              buffer.substr(0, want));
  } else {
    if (!c[6].empty()) {
      ExpectLines(c[6], log);
    }
    // Bytes that failed their check are not left in the buffer.
    EXPECT_EQ(std::string::npos, buffer.find_first_not_of(std::string("?\0", 2))) << c[0];
  }
}

INSTANTIATE_TEST_SUITE_P(Table, LocalReadRows,
                         ::testing::ValuesIn(ReadTsv("toolsiso-hash/reads.tsv", 7)), TsvRowNamer());

TEST_F(LocalReads, AFlippedByteFailsOnlyItsBlock) {
  // A copy, changed after it was opened: the published image stays whole
  // for the other tests.
  const std::string path = (*dir_ / "tools.iso").string();
  std::string changed = *image_;
  changed[5000] ^= 0x5a;  // in the block at 4096
  TempDir copyDir;
  fs::copy_file(path, copyDir / "tools.iso");
  fs::copy_file(path + ".sha", copyDir / "tools.iso.sha");
  LocalFile copy;
  {
    CertDirLease lease("std");
    ASSERT_EQ(uint32_t{TOOLSISO_OPEN_OK},
              ToolsISO_LocalFileOpen((copyDir / "tools.iso").c_str(), true, &copy.handle));
  }
  WriteFile(copyDir / "tools.iso", changed);
  for (uint64_t block = 0; block < 5; ++block) {
    SCOPED_TRACE("block " + std::to_string(block));
    std::string buffer(2048, '\0');
    LogCapture log;
    const bool ok =
        ToolsISO_LocalFileIsoReadCB(copy.handle, buffer.data(), buffer.size(), block * 2048);
    if (block != 2) {
      EXPECT_TRUE(ok) << LogText(log);
      EXPECT_EQ(image_->substr(static_cast<size_t>(block * 2048), 2048), buffer);
      continue;
    }
    EXPECT_FALSE(ok);
    const std::string expected = "ToolsISO: Error hash mismatch at offset 0x1000, expected hash [" +
                                 OpensslBase64Sha256(image_->substr(4096, 2048)) +
                                 "], but found [" +
                                 OpensslBase64Sha256(changed.substr(4096, 2048)) +
                                 "] | ToolsISO: Invalid data at offset 1000 (bytes 2048)";
    EXPECT_EQ(expected, LogText(log));
    EXPECT_EQ(std::string(2048, '\0'), buffer);
  }
  // Pieces of blocks: only those in the changed block fail.
  const struct {
    uint64_t offset;
    size_t length;
    bool ok;
  } pieces[] = {{4100, 100, false},
                {3990, 106, true},
                {3990, 200, false},
                {6100, 44, false},
                {6144, 44, true}};
  for (const auto &piece : pieces) {
    SCOPED_TRACE("piece at " + std::to_string(piece.offset));
    std::string buffer(piece.length, '\0');
    LogCapture log;
    EXPECT_EQ(piece.ok,
              ToolsISO_LocalFileIsoReadCB(copy.handle, buffer.data(), buffer.size(), piece.offset));
    EXPECT_EQ(piece.ok ? image_->substr(static_cast<size_t>(piece.offset), piece.length)
                       : std::string(piece.length, '\0'),
              buffer);
    EXPECT_EQ(piece.ok, !log.contains("ToolsISO: Error hash mismatch at offset 0x1000,"));
  }
}

TEST(LocalReadsUnchecked, WithoutHashDataWhenOptional) {
  TempDir dir;
  const std::string image = Pattern(7000, 43);
  WriteFile(dir / "plain.iso", image);
  LogCapture log;
  LocalFile file, required;
  ASSERT_EQ(uint32_t{TOOLSISO_OPEN_OK},
            ToolsISO_LocalFileOpen((dir / "plain.iso").c_str(), false, &file.handle));
  std::string buffer(100, '\0');
  EXPECT_TRUE(ToolsISO_LocalFileIsoReadCB(file.handle, buffer.data(), buffer.size(), 1234));
  EXPECT_EQ(image.substr(1234, 100), buffer);
  EXPECT_FALSE(ToolsISO_LocalFileIsoReadCB(file.handle, buffer.data(), buffer.size(), 6950));
  EXPECT_EQ(uint32_t{TOOLSISO_OPEN_BAD_HASHES},
            ToolsISO_LocalFileOpen((dir / "plain.iso").c_str(), true, &required.handle));
  EXPECT_EQ(nullptr, required.handle);
}

// ---- the ISO reader over the verified callbacks ----

class VerifiedIso : public ::testing::Test {
 protected:
  void SetUp() override {
    SKIP_WITHOUT_CERT_DIR();
    if (!HaveTool("genisoimage")) {
      GTEST_SKIP() << "genisoimage not installed";
    }
    WriteFile(dir_ / "tree" / "manifest.txt", "version = \"12.1.0\"\n");
    big_ = Pattern(300000, 47);
    WriteFile(dir_ / "tree" / "sub" / "big.bin", big_);
    CommandResult r = testing_support::RunMasteringTool({"genisoimage", "-quiet", "-R", "-J", "-o",
                                                         (dir_ / "tools.iso").string(),
                                                         (dir_ / "tree").string()});
    ASSERT_EQ(0, r.exitCode) << r.output;
  }

  // Opens the image through the callbacks: the ISO reader's result.
  Iso9660Result Open(Iso9660Volume **volume) {
    CertDirLease lease("std");
    ToolsIsoLocalFile *handle = nullptr;
    EXPECT_EQ(uint32_t{TOOLSISO_OPEN_OK},
              ToolsISO_LocalFileOpen((dir_ / "tools.iso").c_str(), true, &handle));
    if (handle == nullptr) {
      return ISO9660_ERR_IO;
    }
    Iso9660Result r =
        Iso9660_OpenWithReader(ToolsISO_LocalFileIsoReadCB, ToolsISO_LocalFileCloseCB, handle,
                               fs::file_size(dir_ / "tools.iso"), ISO9660_FORMAT_ROCKRIDGE, volume);
    if (r != ISO9660_OK) {
      EXPECT_TRUE(ToolsISO_LocalFileCloseCB(handle));  // still ours
    }
    return r;
  }

  TempDir dir_;
  std::string big_;
};

// The ISO reader reads sectors, records and file tails at any offset; the
// callbacks serve each from its checked blocks, whatever their size.
TEST_F(VerifiedIso, ExtractsThroughTheHashes) {
  for (const char *blockSize : {"512", "2048", "4096"}) {
    for (const bool embed : {false, true}) {
      SCOPED_TRACE(std::string(blockSize) + (embed ? " embedded" : " separate"));
      std::vector<std::string> extra = {"--block-size", blockSize};
      if (embed) {
        extra.push_back("--embed");
      }
      Publish(dir_ / "tools.iso", MakerSigner(dir_.path()), extra);
      Iso9660Volume *volume = nullptr;
      ASSERT_EQ(ISO9660_OK, Open(&volume));
      LogCapture log;
      EXPECT_EQ(ISO9660_OK,
                Iso9660_ExtractFileEx(volume, "/manifest.txt", (dir_ / "manifest.txt").c_str()));
      EXPECT_EQ(ISO9660_OK,
                Iso9660_ExtractFileEx(volume, "/sub/big.bin", (dir_ / "big.bin").c_str()));
      EXPECT_EQ("", LogText(log));
      EXPECT_EQ("version = \"12.1.0\"\n", ReadFile(dir_ / "manifest.txt"));
      EXPECT_TRUE(big_ == ReadFile(dir_ / "big.bin"));
      EXPECT_EQ(ISO9660_OK, Iso9660_Close(volume));
      fs::remove(dir_ / "tools.iso.sig");
    }
  }
}

TEST_F(VerifiedIso, AChangedFileDoesNotExtract) {
  Publish(dir_ / "tools.iso", MakerSigner(dir_.path()));
  // Where big.bin's data lies, then one byte of it changed.
  Iso9660Volume *plain = nullptr;
  ASSERT_EQ(ISO9660_OK,
            Iso9660_Open((dir_ / "tools.iso").c_str(), ISO9660_FORMAT_ROCKRIDGE, &plain));
  Iso9660DirEntry entry;
  ASSERT_EQ(ISO9660_OK, Iso9660_Stat(plain, "/sub/big.bin", &entry));
  Iso9660_Close(plain);
  FlipByte(dir_ / "tools.iso", static_cast<size_t>(entry.extent) * 2048 + 150000);

  Iso9660Volume *volume = nullptr;
  ASSERT_EQ(ISO9660_OK, Open(&volume));
  LogCapture log;
  EXPECT_EQ(ISO9660_OK,
            Iso9660_ExtractFileEx(volume, "/manifest.txt", (dir_ / "manifest.txt").c_str()));
  EXPECT_NE(ISO9660_OK, Iso9660_ExtractFileEx(volume, "/sub/big.bin", (dir_ / "big.bin").c_str()));
  EXPECT_FALSE(fs::exists(dir_ / "big.bin"));
  EXPECT_TRUE(log.contains("ToolsISO: Error hash mismatch at offset 0x")) << log.all();
  EXPECT_EQ(ISO9660_OK, Iso9660_Close(volume));
}

}  // namespace
