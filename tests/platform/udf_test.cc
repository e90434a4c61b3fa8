// The UDF reader against images mastered by genisoimage and mkudffs, and
// against small hand-built images for what those tools do not write.
#include "platform/udf/udf.h"
#include "platform/log/log.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <sstream>

#include "platform/udf/udfFormat.h"
#include "support/imageFixtures.h"
#include "support/testSupport.h"
#include "support/udfImageBuilder.h"

namespace fs = std::filesystem;
using namespace testing_support;
using gp::udf::ImageBuilder;

namespace {

using Tree = std::map<std::string, std::string>;
using gp::udf::Walk;

std::string Pattern(size_t n, int seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) {
    s[i] = static_cast<char>((i * 131 + seed) ^ (i >> 9));
  }
  return s;
}

// A tree with the shapes detection meets: mixed case, long and non-ASCII
// names, nesting, an empty file, a directory of many entries.
void MakeTree(const fs::path &root) {
  fs::create_directories(root / "Sub" / "Deeper");
  fs::create_directories(root / "Many");
  fs::create_directories(root / "EmptyDir");
  WriteFile(root / "Readme.TXT", "hello\n");
  WriteFile(root / "isolinux.cfg", "default linux\n");
  WriteFile(root / "A rather long file name, with spaces and (punctuation).text", "long\n");
  WriteFile(root / "ünïcødé 日本 Ωμέγα.txt", "u\n");
  WriteFile(root / "empty", "");
  WriteFile(root / "Sub" / "Deeper" / "big.bin", Pattern(70000, 3));
  for (int i = 0; i < 300; ++i) {
    WriteFile(root / "Many" / ("entry-" + std::to_string(i) + ".dat"), std::to_string(i * i));
  }
}

class UdfGenisoimage : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!HaveTool("genisoimage")) {
      GTEST_SKIP() << "genisoimage not installed";
    }
    MakeTree(tmp_ / "tree");
    image_ = (tmp_ / "bridge.iso").string();
    ASSERT_NO_FATAL_FAILURE(Master("genisoimage",
                                   {"-udf", "-R", "-J", "-joliet-long", "-input-charset", "utf-8"},
                                   image_, tmp_ / "tree"));
    vol_ = UDF_Open(image_.c_str(), nullptr);
    ASSERT_NE(vol_, nullptr);
  }
  void TearDown() override { UDF_Close(vol_); }
  TempDir tmp_;
  std::string image_;
  UDFVolume *vol_ = nullptr;
};

TEST_F(UdfGenisoimage, TreeMatchesTheDisk) {
  UDFDir *root = UDF_OpenDir(vol_, nullptr, "");
  ASSERT_NE(root, nullptr);
  Tree seen = Walk(vol_, root);
  EXPECT_EQ(seen, Snapshot(tmp_ / "tree"));
  // Past its end a handle stays there; rewound, it lists the same again.
  EXPECT_EQ(UDF_ReadDir(root, nullptr), nullptr);
  UDF_RewindDir(root);
  EXPECT_TRUE(Walk(vol_, root) == seen);
  EXPECT_TRUE(UDF_CloseDir(root));
  // The bridge's Rock Ridge side, as isoinfo lists it, records the same sizes.
  if (!HaveTool("isoinfo")) {
    GTEST_SKIP() << "isoinfo not installed";
  }
  CommandResult r = RunCommand({"isoinfo", "-R", "-l", "-i", image_});
  ASSERT_EQ(r.exitCode, 0) << r.output;
  std::istringstream in(r.output);
  std::string line, dir, skip;
  size_t checked = 0;
  while (std::getline(in, line)) {
    size_t bracket = line.find("]  ");
    if (line.rfind("Directory listing of /", 0) == 0) {
      dir = line.substr(22);
    } else if (bracket != std::string::npos && line[0] != 'd') {
      std::string path = dir + line.substr(bracket + 3);
      path.erase(path.find_last_not_of(' ') + 1);
      std::istringstream fields(line);
      uint64_t size = 0;
      fields >> skip >> skip >> skip >> skip >> size;  // mode, links, uid, gid, size
      UDFFile *f = UDF_OpenFile(vol_, nullptr, path.c_str());
      EXPECT_EQ(f != nullptr ? UDF_GetFileSize(vol_, f) : UINT64_MAX, size) << path;
      UDF_CloseFile(f);
      ++checked;
    }
  }
  EXPECT_GT(checked, 300u);
}

TEST_F(UdfGenisoimage, PathsAndLookups) {
  struct Case {
    const char *dir;
    const char *file;
    bool found;
  } cases[] = {
      {"", "Readme.TXT", true},
      {"/", "isolinux.cfg", true},
      {"Sub/Deeper", "big.bin", true},
      {"/Sub/Deeper/", "big.bin", true},
      {"Sub//Deeper", "big.bin", true},
      {"", "readme.txt", false},  // names match exactly
      {"", "Sub", false},         // a directory is not a file
      {"SUB", nullptr, false},
      {"Readme.TXT", nullptr, false},  // a file is not a directory
      {"Sub/../Sub", nullptr, false},
  };
  for (const Case &c : cases) {
    UDFDir *d = UDF_OpenDir(vol_, nullptr, c.dir);
    ASSERT_EQ(d != nullptr, c.file != nullptr) << c.dir;
    UDFFile *f = d != nullptr ? UDF_OpenFile(vol_, d, c.file) : nullptr;
    EXPECT_EQ(f != nullptr, c.found) << c.dir << " " << (c.file != nullptr ? c.file : "");
    UDF_CloseFile(f);
    EXPECT_TRUE(d == nullptr || UDF_CloseDir(d));
  }
}

// Detection probes every image as UDF first: an image without UDF, or none
// at all, is an expected outcome, no report and only a verbose line.
TEST(Udf, NotUdfIsAQuietProbe) {
  TempDir tmp;
  std::vector<std::string> images{"", std::string(1 << 20, '\0'), Pattern(1 << 20, 7)};
  if (HaveTool("xorriso")) {
    MakeTree(tmp / "tree");
    ASSERT_NO_FATAL_FAILURE(
        Master("xorriso", {"-quiet", "-R", "-J"}, tmp / "plain.iso", tmp / "tree"));
    images.push_back(ReadFile(tmp / "plain.iso"));
  }
  for (const std::string &img : images) {
    gp::FirstDamageReporter damage;
    LogCapture log;
    EXPECT_EQ(UDF_OpenReader(MemoryReader(img), &damage), nullptr);
    int previous = Log_SetMaxLevel(LOG_LEVEL_VERBOSE);
    EXPECT_EQ(UDF_OpenReader(MemoryReader(img)), nullptr);
    EXPECT_EQ(UDF_Open("/nonexistent/image.iso", nullptr), nullptr);
    Log_SetMaxLevel(previous);
    EXPECT_EQ(damage.count(), 0u) << damage.first();
    ASSERT_EQ(log.lines().size(), 2u) << log.all();
    EXPECT_TRUE(log.contains("UDF: no UDF volume recognition sequence")) << log.all();
    EXPECT_TRUE(log.contains("UDF: cannot open")) << log.all();
  }
}

// Empty file systems from mkudffs: every block size and allocation form it
// writes; the root lists nothing.
TEST(Udf, MkudffsEmptyFileSystems) {
  if (!HaveTool("mkudffs")) {
    GTEST_SKIP() << "mkudffs (udftools) not installed";
  }
  struct Case {
    std::array<std::string, 4> opts;  // media type, revision, block size, descriptors
    bool opens;                       // write-once media get a virtual partition, which is refused
  } cases[] = {
      {{"hd", "1.02", "2048", "short"}, true},   {{"hd", "2.01", "2048", "inicb"}, true},
      {{"hd", "2.01", "512", "long"}, true},     {{"hd", "2.01", "1024", "short"}, true},
      {{"hd", "2.01", "4096", "inicb"}, true},   {{"hd", "2.01", "4096", "long"}, true},
      {{"bdr", "2.50", "2048", "inicb"}, false},
  };
  for (const Case &c : cases) {
    const auto &[media, rev, blockSize, ad] = c.opts;
    SCOPED_TRACE(media + " " + rev + " " + blockSize + " " + ad);
    TempDir tmp;
    fs::path image = tmp / "empty.udf";
    WriteFile(image, "");
    fs::resize_file(image, 8 << 20);
    CommandResult r =
        RunCommand({"mkudffs", "--media-type=" + media, "--udfrev=" + rev,
                    "--blocksize=" + blockSize, "--ad=" + ad, "--label=Empty", image.string()});
    ASSERT_EQ(r.exitCode, 0) << r.output;
    LogCapture log;
    UDFVolume *vol = UDF_Open(image.c_str(), nullptr);
    if (!c.opens) {
      EXPECT_EQ(vol, nullptr);
      EXPECT_TRUE(log.contains("UDF: unsupported partition map")) << log.all();
      continue;
    }
    ASSERT_NE(vol, nullptr) << log.all();
    UDFDir *root = UDF_OpenDir(vol, nullptr, "/");
    ASSERT_NE(root, nullptr);
    EXPECT_TRUE(Walk(vol, root).empty());
    EXPECT_TRUE(UDF_CloseDir(root));
    UDF_Close(vol);
  }
}

// What the mastered and hand-built images do not hold: characters beyond
// UCS-2 and names that cannot be decoded.
TEST(UdfFormat, Cs0Names) {
  struct Case {
    std::vector<uint8_t> raw;
    bool ok;
    std::string utf8;
  } cases[] = {
      {{16, 0xD8, 0x3D, 0xDE, 0x00}, true, "\U0001F600"},  // a surrogate pair
      {{16, 0xD8, 0x3D}, true, "\uFFFD"},                  // a stray surrogate
      {{16, 0x00}, false, ""},                             // odd UCS-2 length
      {{9, 'a'}, false, ""},                               // unknown compression
      {{}, true, ""},
  };
  for (const Case &c : cases) {
    std::string out;
    EXPECT_EQ(gp::udf::DecodeCs0(c.raw.data(), c.raw.size(), &out), c.ok);
    if (c.ok) {
      EXPECT_EQ(out, c.utf8);
    }
  }
}

constexpr uint32_t kRootLb = 1, kDataLb = 2, kNameLb = 3, kSubLb = 4, kAedLb = 5;

// A root with a parent entry, a deleted entry, data.bin (in three extents,
// or embedded), a Latin-1 name and an empty subdirectory.
struct CraftCase {
  const char *label;
  ImageBuilder::AdType kind;
  bool extended;
  bool metadata;
  int continuations;  // allocation extent descriptors in data.bin's chain
  friend void PrintTo(const CraftCase &c, std::ostream *os) { *os << c.label; }
};

std::string BuildCrafted(ImageBuilder *b, const CraftCase &c) {
  b->Embed(kRootLb, 4,
           b->Fids({{u"", kRootLb, 0x0A},  // the parent, then a deleted entry
                    {u"gone", kDataLb, 0x04},
                    {u"data.bin", kDataLb},
                    {u"\u00dcn\u00efc\u00f6d\u00e9.txt", kNameLb},  // 8-bit, not ASCII
                    {u"sub", kSubLb, 0x02}}),
           c.extended);
  b->Embed(kSubLb, 4, b->Fids({{u"", kRootLb, 0x0A}}), c.extended);
  b->Embed(kNameLb, 5, {'n', 'a', 'm', 'e'}, c.extended);
  if (c.kind == ImageBuilder::kEmbedded) {
    std::string data = Pattern(1500, 1);
    b->Embed(kDataLb, 5, std::vector<uint8_t>(data.begin(), data.end()), c.extended);
    return data;
  }
  // Short descriptors stay in the entry's own partition (the metadata
  // partition when there is one); long and extended ones point at the
  // physical partition. Descriptor i is in the entry or, with
  // continuations, in allocation extent i - 1, each extent but the last
  // ending in a pointer to the next.
  const bool inMeta = c.kind == ImageBuilder::kShort && c.metadata;
  const uint16_t dataPart = c.kind == ImageBuilder::kShort ? b->FsPart() : 0;
  std::string data = Pattern(10000, 2);
  std::vector<uint8_t> ads[3];
  for (uint32_t i = 0; i < 3; ++i) {
    const uint32_t lb = (inMeta ? 20 : 100) + 3 * i, len = i < 2 ? 4096 : 1808;
    b->PutData(inMeta ? ImageBuilder::kMetaStart + lb : lb, 0, data.substr(4096 * i, len));
    ImageBuilder::AddAd(&ads[std::min<int>(i, c.continuations)], c.kind, len, lb, dataPart);
  }
  for (int g = c.continuations - 1; g >= 0; --g) {  // last first: each holds the next's pointer
    const uint32_t aed = kAedLb + static_cast<uint32_t>(g);
    ImageBuilder::AddAd(&ads[g], c.kind, 2048, aed, b->FsPart(), 3);
    ImageBuilder::AllocExtent(b->Fs(aed), aed, ads[g + 1]);
  }
  b->Entry(b->Fs(kDataLb), kDataLb, 5, data.size(), c.kind, ads[0], c.extended);
  return data;
}

class UdfCrafted : public ::testing::TestWithParam<CraftCase> {};

TEST_P(UdfCrafted, ListsAndReads) {
  const CraftCase &c = GetParam();
  ImageBuilder b(4096, c.metadata);
  b.Finish();
  std::string data = BuildCrafted(&b, c);
  LogCapture log;
  UDFVolume *vol = UDF_OpenReader(b.Reader());
  ASSERT_NE(vol, nullptr) << log.all();
  UDFDir *root = UDF_OpenDir(vol, nullptr, "/");
  ASSERT_NE(root, nullptr) << log.all();
  EXPECT_EQ(Walk(vol, root),
            (Tree{{"data.bin", SnapshotFile(data)}, {"Ünïcödé.txt", "f:name"}, {"sub", "d"}}));
  UDF_CloseDir(root);
  UDF_Close(vol);
  EXPECT_TRUE(log.lines().empty()) << log.all();
}

INSTANTIATE_TEST_SUITE_P(
    Forms, UdfCrafted,
    ::testing::Values(CraftCase{"short", ImageBuilder::kShort, false, false, 0},
                      CraftCase{"long", ImageBuilder::kLong, false, false, 0},
                      CraftCase{"extended", ImageBuilder::kExtended, true, false, 0},
                      CraftCase{"embedded", ImageBuilder::kEmbedded, false, false, 0},
                      CraftCase{"embeddedEfe", ImageBuilder::kEmbedded, true, false, 0},
                      CraftCase{"longChain", ImageBuilder::kLong, false, false, 2},
                      CraftCase{"shortChain", ImageBuilder::kShort, true, false, 1},
                      CraftCase{"metaShort", ImageBuilder::kShort, true, true, 0},
                      CraftCase{"metaLong", ImageBuilder::kLong, true, true, 1},
                      CraftCase{"metaEmbedded", ImageBuilder::kEmbedded, true, true, 0}),
    LabelName());

// A 4 GiB+ file in five extents of 1 GiB less a block (the most one
// descriptor may hold), the third allocated but not recorded.
TEST(UdfCraftedBig, FileOverFourGiB) {
  constexpr uint32_t kExt = (1u << 30) - ImageBuilder::kBs;
  constexpr uint64_t kSize = 4ull * kExt + 5000;
  ImageBuilder b(5ull * (kExt / ImageBuilder::kBs) + 200, false);
  b.Finish();
  b.Embed(kRootLb, 4, b.Fids({{u"", kRootLb, 0x0A}, {u"huge.img", kDataLb}}));
  std::vector<uint8_t> ads;
  for (uint32_t i = 0; i < 5; ++i) {
    uint32_t lb = 100 + i * (kExt / ImageBuilder::kBs);
    ImageBuilder::AddAd(&ads, ImageBuilder::kLong, i == 4 ? 5000 : kExt, lb, 0, i == 2 ? 1 : 0);
    b.PutData(lb, 0, "START-" + std::to_string(i));
    if (i < 4) {
      b.PutData(lb, kExt - 4, "END" + std::to_string(i));
    }
  }
  b.Entry(b.Fs(kDataLb), kDataLb, 5, kSize, ImageBuilder::kLong, ads, true);

  UDFVolume *vol = UDF_OpenReader(b.Reader());
  ASSERT_NE(vol, nullptr);
  UDFDir *dir = UDF_OpenDir(vol, nullptr, "");
  UDFDirEntryInfo info;
  ASSERT_STREQ(UDF_ReadDir(dir, &info), "huge.img");
  EXPECT_EQ(info.size, kSize);
  UDFFile *f = UDF_OpenFile(vol, dir, "huge.img");
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(UDF_GetFileSize(vol, f), kSize);
  struct Case {
    uint64_t offset;
    std::string bytes;
    bool ok = true;
  } cases[] = {
      {0, "START-0"},
      {kExt - 4, std::string("END0START-1", 11)},
      {2ull * kExt - 4, std::string("END1\0\0\0\0", 8)},  // extent 2 reads as zeros
      {3ull * kExt - 4, std::string("\0\0\0\0START-3", 11)},
      {4ull * kExt - 4, "END3START-4"},  // past 4 GiB
      {kSize - 2, std::string("\0\0", 2)},
      {kSize, ""},
      {kSize - 1, "xx", false},  // past the end: misuse, one line each
      {kSize + 1, "", false},
      {UINT64_MAX, "x", false},
  };
  LogCapture log;
  for (const Case &c : cases) {
    std::string got(c.bytes.size(), 'x');
    ASSERT_EQ(UDF_PReadFile(f, got.data(), c.offset, got.size()), c.ok) << c.offset;
    EXPECT_EQ(got, c.bytes) << c.offset;
  }
  EXPECT_EQ(log.lines().size(), 3u) << log.all();
  UDF_CloseFile(f);
  UDF_CloseDir(dir);
  UDF_Close(vol);
}

}  // namespace
