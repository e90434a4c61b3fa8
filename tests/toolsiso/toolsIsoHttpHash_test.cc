// Hash data and verified reads of tools images on a web server: lighttpd on
// 127.0.0.1 serving images published by the maker's signer, some of them
// broken on purpose. Hash-data lookups follow tests/data/toolsiso-hash/
// http.tsv; the verified reader fetches each block once when read in
// order, little more than it uses when read here and there, fails only
// the reads that touch a changed block, and serves the ISO reader.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "guestprep/toolsiso.h"
#include "lib/toolsiso/toolsIsoHttpReader.h"
#include "platform/http/http.h"
#include "platform/iso9660/iso9660.h"
#include "support/httpServer.h"
#include "support/signFixtures.h"
#include "support/testSupport.h"
#include "toolsiso/hashFixtures.h"

namespace {

using namespace hash_fixtures;
using testing_support::CertDirLease;
using testing_support::CertDirUsable;
using testing_support::HttpServer;
using testing_support::HttpServerKind;
using testing_support::LogCapture;
using testing_support::Pattern;
using testing_support::ReadFile;
using testing_support::ReadTsv;
using testing_support::TempDir;
using testing_support::TsvRow;
using testing_support::TsvRowNamer;
using testing_support::WriteFile;

constexpr size_t kImageSize = 200000;

// One server over a document root of published images for the whole file.
class HttpImages : public ::testing::Test {
 public:
  static void SetUpTestSuite() {
    if (!CertDirUsable()) {
      return;
    }
    root_ = new TempDir();
    const TempDir &root = *root_;
    const Signer maker = MakerSigner(root.path() / "keys");
    image_ = new std::string(Pattern(kImageSize, 53));
    for (const char *name :
         {"good.iso", "emb.iso", "nosha.iso", "tampered.iso", "tampered-emb.iso", "nosig.iso",
          "other.iso", "bigsig.iso", "garbage.iso", "empty.iso", "image.bin", "upper.ISO",
          "dir/linux.iso", "reader.iso", "changed.iso", "small-blocks.iso"}) {
      WriteFile(root / name, *image_);
    }
    for (const char *name : {"good.iso", "tampered.iso", "nosig.iso", "bigsig.iso", "dir/linux.iso",
                             "reader.iso", "changed.iso"}) {
      Publish(root / name, maker);
    }
    for (const char *name : {"emb.iso", "tampered-emb.iso"}) {
      Publish(root / name, maker, {"--embed"});
    }
    Publish(root / "small-blocks.iso", maker, {"--block-size", "512"});
    const fs::path &pki = testing_support::TestPki();
    WriteFile(root / "keys" / "other.pem",
              ReadFile(pki / "other-leaf.pem") + ReadFile(pki / "other-leaf.chain"));
    Publish(root / "other.iso", Signer{pki / "other-leaf.key", root / "keys" / "other.pem"});
    FlipByte(root / "tampered.iso.sha", 600);
    FlipByte(root / "tampered-emb.iso.sha", 600);
    fs::remove(root / "nosig.iso.sig");
    WriteFile(root / "bigsig.iso.sig", std::string(2080, '\n'));
    WriteFile(root / "garbage.iso.sha", std::string(1000, 'x'));
    WriteFile(root / "empty.iso.sha", "");
    // Published, then changed: the block at 8192 no longer matches.
    FlipByte(root / "changed.iso", 10000);
    server_ = new HttpServer(HttpServerKind::kLighttpd, root.path());
  }
  static void TearDownTestSuite() {
    delete server_;
    delete root_;
    delete image_;
    server_ = nullptr;
    root_ = nullptr;
    image_ = nullptr;
  }

 protected:
  void SetUp() override {
    SKIP_WITHOUT_CERT_DIR();
    ASSERT_TRUE(server_->ok()) << server_->error();
  }

  static TempDir *root_;
  static std::string *image_;
  static HttpServer *server_;
};
TempDir *HttpImages::root_ = nullptr;
std::string *HttpImages::image_ = nullptr;
HttpServer *HttpImages::server_ = nullptr;

// ---- hash data over HTTP ----

class HttpHashInfo : public HttpImages, public ::testing::WithParamInterface<TsvRow> {};

TEST_P(HttpHashInfo, LoadsOrRefusesWithItsLine) {
  const std::vector<std::string> &c = GetParam().cells;
  std::string base = server_->Url("");
  std::string path = c[1];
  if (path.rfind("down:", 0) == 0) {
    base = "http://127.0.0.1:" + std::to_string(testing_support::FreeLoopbackPort());
    path = path.substr(5);
  }
  const std::string url = base + path;
  CertDirLease lease("std");
  LogCapture log;
  ToolsIsoHashInfo *info = reinterpret_cast<ToolsIsoHashInfo *>(1);
  const bool result =
      ToolsISO_GetHttpHashInfo(nullptr, url.c_str(), std::stoull(c[2]), c[3] == "1", &info);
  EXPECT_EQ(c[4] == "1", result) << LogText(log);
  EXPECT_EQ(c[5] == "1", info != nullptr);
  if (info != nullptr) {
    EXPECT_EQ(BlocksOf(kImageSize, 4096), info->header.hashCount);
    // The hashes are the image's.
    EXPECT_EQ(
        Sha256(image_->substr(4096, 4096)),
        std::string(reinterpret_cast<char *>(info->data) + info->header.firstHashOffset + 32, 32));
  }
  ToolsISO_FreeHashInfo(info);
  if (c[6].empty()) {
    EXPECT_EQ("", LogText(log));
  }
  ExpectLines(c[6], log, "{base}", base);
}

INSTANTIATE_TEST_SUITE_P(Table, HttpHashInfo,
                         ::testing::ValuesIn(ReadTsv("toolsiso-hash/http.tsv", 7)), TsvRowNamer());

TEST_F(HttpImages, AGivenConnectionStaysOpen) {
  const std::string url = server_->Url("/good.iso");
  HttpConnection *conn = nullptr;
  ASSERT_EQ(HTTP_OK, Http_Connect(url.c_str(), 0, 15000, &conn));
  CertDirLease lease("std");
  for (int round = 0; round < 2; ++round) {
    ToolsIsoHashInfo *info = nullptr;
    EXPECT_TRUE(ToolsISO_GetHttpHashInfo(conn, url.c_str(), kImageSize, true, &info));
    EXPECT_NE(nullptr, info);
    ToolsISO_FreeHashInfo(info);
  }
  uint64_t size = 0;
  EXPECT_EQ(HTTP_OK, Http_GetFileSize(conn, url.c_str(), &size));
  EXPECT_EQ(kImageSize, size);
  EXPECT_EQ(HTTP_OK, Http_Close(conn));
}

// ---- the verified reader ----

struct Reader {
  ~Reader() {
    if (handle != nullptr) {
      EXPECT_TRUE(ToolsISO_HttpReaderCloseCB(handle));
    }
  }
  ToolsIsoHttpReaderStats Stats() const {
    ToolsIsoHttpReaderStats stats{};
    ToolsISO_HttpReaderGetStats(handle, &stats);
    return stats;
  }
  ToolsIsoHttpReader *handle = nullptr;
};

uint32_t OpenReader(const std::string &url, bool required, Reader *reader) {
  CertDirLease lease("std");
  return ToolsISO_HttpReaderOpen(url.c_str(), required, &reader->handle);
}

TEST_F(HttpImages, ReaderInOrderFetchesEachBlockOnce) {
  for (const char *name : {"/reader.iso", "/small-blocks.iso"}) {
    SCOPED_TRACE(name);
    Reader reader;
    ASSERT_EQ(uint32_t{TOOLSISO_OPEN_OK}, OpenReader(server_->Url(name), true, &reader));
    EXPECT_TRUE(ToolsISO_HttpReaderHasHashes(reader.handle));
    EXPECT_EQ(kImageSize, ToolsISO_HttpReaderSize(reader.handle));
    std::string back(kImageSize, '\0');
    // Sector by sector, as the ISO reader goes.
    for (size_t at = 0; at < kImageSize; at += 2048) {
      const size_t n = std::min<size_t>(2048, kImageSize - at);
      ASSERT_TRUE(ToolsISO_HttpReaderIsoReadCB(reader.handle, back.data() + at, n, at)) << at;
    }
    EXPECT_TRUE(*image_ == back);
    const ToolsIsoHttpReaderStats stats = reader.Stats();
    EXPECT_EQ(kImageSize, stats.bytesFetched);
    EXPECT_EQ(kImageSize, stats.bytesVerified);
    EXPECT_EQ(kImageSize, stats.bytesDelivered);
    // The read-ahead grows: a handful of requests, not one per sector.
    EXPECT_LE(stats.requests, 4u);
    EXPECT_GE(stats.connectionBytes, kImageSize);
  }
}

TEST_F(HttpImages, ReaderHereAndThereFetchesLittleMore) {
  Reader reader;
  ASSERT_EQ(uint32_t{TOOLSISO_OPEN_OK}, OpenReader(server_->Url("/reader.iso"), true, &reader));
  const uint64_t offsets[] = {150000, 3, 90000, 199990, 40000, 4095};
  for (uint64_t offset : offsets) {
    std::string buffer(100, '\0');
    size_t count = 0;
    ASSERT_TRUE(
        ToolsISO_HttpReaderReadCB(reader.handle, buffer.data(), buffer.size(), offset, &count))
        << offset;
    const size_t want = std::min<size_t>(100, kImageSize - offset);
    EXPECT_EQ(want, count);
    EXPECT_EQ(image_->substr(offset, want), buffer.substr(0, want));
  }
  // One or two blocks for each read.
  const ToolsIsoHttpReaderStats stats = reader.Stats();
  EXPECT_LE(stats.bytesFetched, 7u * 4096);
  EXPECT_EQ(stats.bytesFetched, stats.bytesVerified);
}

TEST_F(HttpImages, ReaderFailsOnlyTheReadsOfAChangedBlock) {
  Reader reader;
  ASSERT_EQ(uint32_t{TOOLSISO_OPEN_OK}, OpenReader(server_->Url("/changed.iso"), true, &reader));
  const std::string changed = ReadFile(root_->path() / "changed.iso");
  struct Piece {
    uint64_t offset;
    size_t length;
    bool ok;
  };
  // In order from the start: the read-ahead brings the changed block with
  // its neighbours, which still read.
  const Piece pieces[] = {{0, 8192, true},     {8192, 100, false}, {8292, 3900, false},
                          {12288, 5000, true}, {4000, 200, true},  {10000, 1, false},
                          {0, 20000, false},   {12288, 100, true}};
  for (const Piece &p : pieces) {
    SCOPED_TRACE("piece at " + std::to_string(p.offset));
    std::string buffer(p.length, '?');
    LogCapture log;
    EXPECT_EQ(p.ok, ToolsISO_HttpReaderIsoReadCB(reader.handle, buffer.data(), p.length, p.offset));
    if (p.ok) {
      EXPECT_EQ(image_->substr(p.offset, p.length), buffer);
      EXPECT_EQ("", LogText(log));
    } else {
      EXPECT_EQ(std::string(p.length, '\0'), buffer);
      const std::string mismatch =
          "ToolsISO: Error hash mismatch at offset 0x2000, expected hash [" +
          OpensslBase64Sha256(image_->substr(8192, 4096)) + "], but found [" +
          OpensslBase64Sha256(changed.substr(8192, 4096)) + "]";
      EXPECT_EQ(mismatch + " | ToolsISO: Invalid data at offset 2000 (bytes 4096)", LogText(log));
    }
  }
}

TEST_F(HttpImages, ReaderOpenResults) {
  LogCapture log;
  {
    Reader reader;
    EXPECT_EQ(uint32_t{TOOLSISO_OPEN_FAILED},
              OpenReader(server_->Url("/missing.iso"), false, &reader));
    EXPECT_EQ(nullptr, reader.handle);
  }
  EXPECT_TRUE(log.contains("ToolsISO: Unable to get the size of Tools ISO '" +
                           server_->Url("/missing.iso") + "' (error=4).\n"))
      << log.all();
  {
    Reader reader;
    EXPECT_EQ(uint32_t{TOOLSISO_OPEN_BAD_HASHES},
              OpenReader(server_->Url("/nosha.iso"), true, &reader));
    EXPECT_EQ(uint32_t{TOOLSISO_OPEN_BAD_HASHES},
              OpenReader(server_->Url("/tampered.iso"), false, &reader));
  }
  {
    // Optional and absent: read unchecked.
    Reader reader;
    ASSERT_EQ(uint32_t{TOOLSISO_OPEN_OK}, OpenReader(server_->Url("/nosha.iso"), false, &reader));
    EXPECT_FALSE(ToolsISO_HttpReaderHasHashes(reader.handle));
    std::string buffer(1000, '\0');
    EXPECT_TRUE(ToolsISO_HttpReaderIsoReadCB(reader.handle, buffer.data(), 1000, 12345));
    EXPECT_EQ(image_->substr(12345, 1000), buffer);
    EXPECT_EQ(0u, reader.Stats().bytesVerified);
    // Past the end: a count, or a failure without one.
    size_t count = 7;
    EXPECT_TRUE(
        ToolsISO_HttpReaderReadCB(reader.handle, buffer.data(), 1000, kImageSize - 10, &count));
    EXPECT_EQ(10u, count);
    EXPECT_FALSE(ToolsISO_HttpReaderIsoReadCB(reader.handle, buffer.data(), 1000, kImageSize - 10));
  }
}

TEST_F(HttpImages, ReaderServesTheIsoReader) {
  if (!testing_support::HaveTool("genisoimage")) {
    GTEST_SKIP() << "genisoimage not installed";
  }
  TempDir tree;
  const std::string big = Pattern(500000, 59);
  WriteFile(tree / "t" / "manifest.txt", "version = \"12.1.0\"\n");
  WriteFile(tree / "t" / "sub" / "big.bin", big);
  const fs::path iso = root_->path() / "tools-image.iso";
  CommandResult r = testing_support::RunMasteringTool(
      {"genisoimage", "-quiet", "-R", "-J", "-o", iso.string(), (tree / "t").string()});
  ASSERT_EQ(0, r.exitCode) << r.output;
  Publish(iso, MakerSigner(tree.path()), {"--embed"});

  Reader reader;
  ASSERT_EQ(uint32_t{TOOLSISO_OPEN_OK},
            OpenReader(server_->Url("/tools-image.iso"), true, &reader));
  Iso9660Volume *volume = nullptr;
  ASSERT_EQ(ISO9660_OK,
            Iso9660_OpenWithReader(ToolsISO_HttpReaderIsoReadCB, ToolsISO_HttpReaderCloseCB,
                                   reader.handle, ToolsISO_HttpReaderSize(reader.handle),
                                   ISO9660_FORMAT_ROCKRIDGE, &volume));
  ToolsIsoHttpReaderStats stats{};
  ToolsISO_HttpReaderGetStats(reader.handle, &stats);
  reader.handle = nullptr;  // the volume closes it
  EXPECT_EQ(ISO9660_OK,
            Iso9660_ExtractFileEx(volume, "/manifest.txt", (tree / "manifest.txt").c_str()));
  EXPECT_EQ(ISO9660_OK, Iso9660_ExtractFileEx(volume, "/sub/big.bin", (tree / "big.bin").c_str()));
  EXPECT_EQ("version = \"12.1.0\"\n", ReadFile(tree / "manifest.txt"));
  EXPECT_TRUE(big == ReadFile(tree / "big.bin"));
  EXPECT_EQ(ISO9660_OK, Iso9660_Close(volume));
}

}  // namespace
