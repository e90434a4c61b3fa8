// Broken UDF images: genisoimage images patched in place (tags recomputed
// so the damage reaches the deeper checks) and hand-built ones. Each must
// give null/false and one log line, never a crash or a hang.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <random>

#include "platform/log/log.h"
#include "platform/udf/udf.h"
#include "platform/udf/udfFormat.h"
#include "support/imageFixtures.h"
#include "support/testSupport.h"
#include "support/udfImageBuilder.h"

using namespace testing_support;
using gp::udf::ImageBuilder;
using gp::udf::Le16;
using gp::udf::Le32;

namespace {

constexpr size_t kBs = 2048;

std::string MakeImage() {
  TempDir tmp;
  std::filesystem::create_directories(tmp / "tree" / "Sub" / "Deeper");
  WriteFile(tmp / "tree" / "Readme.TXT", "hello\n");
  WriteFile(tmp / "tree" / "Sub" / "Deeper" / "big.bin", std::string(5000, 'b'));
  CommandResult r = RunCommand(
      {"genisoimage", "-quiet", "-udf", "-o", (tmp / "u.iso").string(), (tmp / "tree").string()});
  EXPECT_EQ(r.exitCode, 0) << r.output;
  return ReadFile(tmp / "u.iso");
}

uint8_t *At(std::string &img, size_t off) {
  return reinterpret_cast<uint8_t *>(&img[off]);
}

// Recomputes a descriptor's CRC (over its recorded CRC length) and checksum.
void Retag(std::string &img, size_t off) {
  uint8_t *d = At(img, off);
  ImageBuilder::Put16(d + 8, gp::udf::Crc16(d + 16, Le16(d + 10)));
  d[4] = gp::udf::TagChecksum(d);
}

bool IsTag(std::string &img, size_t off, uint16_t id) {
  return off + 16 <= img.size() && Le16(At(img, off)) == id &&
         gp::udf::TagChecksum(At(img, off)) == At(img, off)[4];
}

// Offsets of the sectors holding a descriptor with this tag.
std::vector<size_t> Sectors(std::string &img, uint16_t id) {
  std::vector<size_t> out;
  for (size_t off = 0; off + kBs <= img.size(); off += kBs) {
    if (IsTag(img, off, id)) {
      out.push_back(off);
    }
  }
  return out;
}

// Offset of the File Identifier Descriptor with this 8-bit name.
size_t FindFid(std::string &img, const std::string &name) {
  for (size_t off = 0; off + 38 + name.size() < img.size(); off += 4) {
    if (IsTag(img, off, gp::udf::kTagFileId) && At(img, off)[19] == name.size() + 1 &&
        img.compare(off + 38 + Le16(At(img, off + 36)) + 1, name.size(), name) == 0) {
      return off;
    }
  }
  ADD_FAILURE() << "no identifier " << name;
  return 0;
}

// The file entry recording this information length.
size_t FindEntryOfSize(std::string &img, uint64_t size) {
  for (size_t off : Sectors(img, gp::udf::kTagFileEntry)) {
    if (gp::udf::Le64(At(img, off + 56)) == size) {
      return off;
    }
  }
  ADD_FAILURE() << "no entry of size " << size;
  return 0;
}

uint32_t RootBlock(std::string &img) {
  return Le32(At(img, Sectors(img, 256).at(0) + 404));
}

enum Stage { kOpen, kOpenDir, kOpenFile };

struct Case {
  const char *label;
  std::function<void(std::string &)> patch;
  Stage failsAt;
  const char *path;  // directory for kOpenDir, file for kOpenFile
  const char *log;
};

const Case kCases[] = {
    {"all anchors corrupt",
     [](std::string &img) {
       for (size_t off : Sectors(img, gp::udf::kTagAnchor)) {
         At(img, off)[4] ^= 0xFF;
       }
     },
     kOpen, nullptr, "UDF: no valid anchor"},
    {"sequences past the end",
     [](std::string &img) {
       for (size_t off : Sectors(img, gp::udf::kTagAnchor)) {
         ImageBuilder::Put32(At(img, off + 20), 0x7FFFFFF0);
         ImageBuilder::Put32(At(img, off + 28), 0x7FFFFFF0);
         Retag(img, off);
       }
     },
     kOpen, nullptr, "past the end of the image"},
    {"partition past the end",
     [](std::string &img) {
       for (size_t off : Sectors(img, gp::udf::kTagPartition)) {
         ImageBuilder::Put32(At(img, off + 188), 0x00F00000);
         Retag(img, off);
       }
     },
     kOpen, nullptr, "past the image"},
    {"root directory too large",
     [](std::string &img) {
       // A 1 GiB unrecorded extent keeps the size consistent with the allocation.
       size_t fe = Sectors(img, gp::udf::kTagFileEntry).at(0);  // the root comes first
       ImageBuilder::Put64(At(img, fe + 56), 1ull << 29);
       ImageBuilder::Put32(At(img, fe + 176 + Le32(At(img, fe + 168))), 2u << 30 | 0x3FFFFFFF);
       Retag(img, fe);
     },
     kOpen, nullptr, "limit"},
    {"data past the partition",
     [](std::string &img) {
       size_t fe = FindEntryOfSize(img, 5000);
       ImageBuilder::Put32(At(img, fe + 176 + Le32(At(img, fe + 168)) + 4), 0x00FFFF00);
       Retag(img, fe);
     },
     kOpenFile, "Sub/Deeper/big.bin", "runs past partition"},
    {"descriptor lengths too large",
     [](std::string &img) {
       size_t fe = FindEntryOfSize(img, 5000);
       ImageBuilder::Put32(At(img, fe + 172), 0xFFFFFFF0);
       Retag(img, fe);
     },
     kOpenFile, "Sub/Deeper/big.bin", "too large"},
    {"continuation back to its own entry",
     [](std::string &img) {
       size_t fe = FindEntryOfSize(img, 5000);
       uint8_t *ad = At(img, fe + 176 + Le32(At(img, fe + 168)));
       ImageBuilder::Put32(ad, 3u << 30 | 2048);
       ImageBuilder::Put32(ad + 4, Le32(At(img, fe + 12)));
       Retag(img, fe);
     },
     kOpenFile, "Sub/Deeper/big.bin", "loops back"},
    {"directory entry pointing at the root",
     [](std::string &img) {
       size_t fid = FindFid(img, "Deeper");
       ImageBuilder::Put32(At(img, fid + 24), RootBlock(img));
       Retag(img, fid);
     },
     kOpenDir, "Sub/Deeper", "its own ancestor"},
    {"directory entry pointing at its parent",
     [](std::string &img) {
       size_t sub = FindFid(img, "Sub");
       size_t fid = FindFid(img, "Deeper");
       memcpy(At(img, fid + 24), At(img, sub + 24), 6);
       Retag(img, fid);
     },
     kOpenDir, "Sub/Deeper", "its own ancestor"},
    {"identifier running past its directory",
     [](std::string &img) {
       size_t fid = FindFid(img, "Deeper");
       ImageBuilder::Put16(At(img, fid + 36), 0x4000);  // implementation use length
       Retag(img, fid);
     },
     kOpenDir, "Sub", "runs past its directory"},
    {"identifier with a bad CRC",
     [](std::string &img) {
       size_t fid = FindFid(img, "Deeper");
       At(img, fid + 40)[0] ^= 1;
     },
     kOpenDir, "Sub", "CRC mismatch"},
    {"file entry tag moved",
     [](std::string &img) {
       size_t fe = FindEntryOfSize(img, 5000);
       ImageBuilder::Put32(At(img, fe + 12), Le32(At(img, fe + 12)) + 1);
       Retag(img, fe);
     },
     kOpenFile, "Sub/Deeper/big.bin", "records location"},
};

class UdfHostile : public ::testing::TestWithParam<Case> {
 protected:
  static void SetUpTestSuite() {
    if (HaveTool("genisoimage")) {
      image_ = new std::string(MakeImage());
    }
  }
  static void TearDownTestSuite() { delete image_; }
  void SetUp() override {
    if (image_ == nullptr) {
      GTEST_SKIP() << "genisoimage not installed";
    }
  }
  static std::string *image_;
};
std::string *UdfHostile::image_ = nullptr;

TEST_P(UdfHostile, FailsCleanlyWithOneLogLine) {
  const Case &c = GetParam();
  std::string img = *image_;
  c.patch(img);
  LogCapture log;
  UDFVolume *vol = UDF_OpenReader(MemoryReader(img));
  if (c.failsAt == kOpen) {
    EXPECT_EQ(vol, nullptr);
  } else {
    ASSERT_NE(vol, nullptr) << log.all();
    ASSERT_TRUE(log.lines().empty()) << log.all();
    if (c.failsAt == kOpenDir) {
      EXPECT_EQ(UDF_OpenDir(vol, nullptr, c.path), nullptr);
    } else {
      EXPECT_EQ(UDF_OpenFile(vol, nullptr, c.path), nullptr);
    }
    UDF_Close(vol);
  }
  EXPECT_EQ(log.lines().size(), 1u) << log.all();
  EXPECT_TRUE(log.contains(c.log)) << log.all();
}

INSTANTIATE_TEST_SUITE_P(Patched, UdfHostile, ::testing::ValuesIn(kCases), LabelName());

TEST_F(UdfHostile, BackupAnchorStandsInForABrokenMain) {
  std::string img = *image_;
  At(img, 256 * kBs)[4] ^= 0xFF;
  UDFVolume *vol = UDF_OpenReader(MemoryReader(img));
  ASSERT_NE(vol, nullptr);
  UDFFile *f = UDF_OpenFile(vol, nullptr, "Sub/Deeper/big.bin");
  EXPECT_NE(f, nullptr);
  UDF_CloseFile(f);
  UDF_Close(vol);
}

// Allocation extent chains that loop: an extent pointing at itself, and two
// pointing at each other.
TEST(UdfHostileCrafted, ContinuationLoops) {
  for (bool selfLoop : {true, false}) {
    ImageBuilder b(256, false);
    b.Finish();
    std::vector<uint8_t> root, ads, a, c;
    ImageBuilder::AddFid(&root, u"f", 2, 0, 0);
    b.Entry(b.Fs(1), 1, 4, root.size(), ImageBuilder::kEmbedded, root);
    ImageBuilder::AddAd(&ads, ImageBuilder::kShort, 2048, 100, 0);
    ImageBuilder::AddAd(&ads, ImageBuilder::kShort, 2048, 10, 0, 3);
    b.Entry(b.Fs(2), 2, 5, 8192, ImageBuilder::kShort, ads);
    ImageBuilder::AddAd(&a, ImageBuilder::kShort, 2048, 101, 0);
    ImageBuilder::AddAd(&a, ImageBuilder::kShort, 2048, selfLoop ? 10 : 11, 0, 3);
    ImageBuilder::AllocExtent(b.Fs(10), 10, a);
    ImageBuilder::AddAd(&c, ImageBuilder::kShort, 2048, 102, 0);
    ImageBuilder::AddAd(&c, ImageBuilder::kShort, 2048, 10, 0, 3);
    ImageBuilder::AllocExtent(b.Fs(11), 11, c);
    UDFVolume *vol = UDF_OpenReader(b.Reader());
    ASSERT_NE(vol, nullptr);
    LogCapture log;
    EXPECT_EQ(UDF_OpenFile(vol, nullptr, "f"), nullptr);
    EXPECT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(log.contains("loops back")) << log.all();
    UDF_Close(vol);
  }
}

// Walks everything below dir, reading every file; bounded.
void Walk(UDFVolume *vol, UDFDir *dir, int depth, int *budget) {
  UDFDirEntryInfo info;
  while (const char *name = UDF_ReadDir(dir, &info)) {
    if (--*budget < 0) {
      return;
    }
    std::string n = name;
    if (UDFDir *child = depth < 8 ? UDF_OpenDir(vol, dir, n.c_str()) : nullptr) {
      Walk(vol, child, depth + 1, budget);
      UDF_CloseDir(child);
    } else if (UDFFile *f = UDF_OpenFile(vol, dir, n.c_str())) {
      uint64_t size = UDF_GetFileSize(vol, f);
      std::vector<char> buf(std::min<uint64_t>(size, 1 << 20));
      UDF_PReadFile(f, buf.data(), 0, buf.size());
      UDF_CloseFile(f);
    }
  }
}

// Damage anywhere in the metadata, with tags made valid again so it gets
// past the checksums: never a crash (under the sanitizers), never a hang.
TEST_F(UdfHostile, SweepRandomDamageWithValidTags) {
  const std::string &base = *image_;
  std::string probe = base;
  std::vector<size_t> tags;
  for (uint16_t id : {1, 2, 5, 6, 8, 256, 261}) {
    for (size_t off : Sectors(probe, id)) {
      tags.push_back(off);
    }
  }
  ASSERT_FALSE(tags.empty());
  std::mt19937 rng(1234);
  int previousLevel = Log_SetMaxLevel(-1);  // thousands of expected failures
  int opened = 0;
  for (int round = 0; round < 600; ++round) {
    std::string img = base;
    size_t off = tags[rng() % tags.size()];
    for (int k = 0, n = 1 + rng() % 4; k < n; ++k) {
      At(img, off + 16 + rng() % (kBs - 16))[0] = static_cast<uint8_t>(rng());
    }
    Retag(img, off);
    if (UDFVolume *vol = UDF_OpenReader(MemoryReader(img))) {
      ++opened;
      if (UDFDir *root = UDF_OpenDir(vol, nullptr, "")) {
        int budget = 1000;
        Walk(vol, root, 0, &budget);
        UDF_CloseDir(root);
      }
      UDF_Close(vol);
    }
  }
  Log_SetMaxLevel(previousLevel);
  EXPECT_GT(opened, 0);
}

TEST_F(UdfHostile, SweepIoErrorsAtEveryRead) {
  // Some failures read as "not UDF", which is a verbose line.
  int previous = Log_SetMaxLevel(LOG_LEVEL_VERBOSE);
  for (int ok = 0;; ++ok) {
    ASSERT_LT(ok, 1000);
    LogCapture log;
    size_t failures = 0;
    UDFVolume *vol = UDF_OpenReader(std::make_unique<FailingReader>(MemoryReader(*image_), ok));
    UDFFile *f = vol != nullptr ? UDF_OpenFile(vol, nullptr, "Sub/Deeper/big.bin") : nullptr;
    char buf[5000];
    bool read = f != nullptr && UDF_PReadFile(f, buf, 0, sizeof buf);
    failures += vol == nullptr || f == nullptr || !read;
    UDF_CloseFile(f);
    UDF_Close(vol);
    EXPECT_EQ(log.lines().size(), failures) << ok << log.all();
    if (read) {
      break;  // enough reads for everything: no more failure to inject
    }
  }
  Log_SetMaxLevel(previous);
}

}  // namespace
