// Broken and hostile UDF images: genisoimage and mkudffs images patched or
// cut short, and hand-built ones. Each gives null/false or skips the damage,
// with at most one report per volume, never a crash, a hang or a flood of
// reads.
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
  Master("genisoimage", {"-udf"}, tmp / "u.iso", tmp / "tree");
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

// The entry of Sub/Deeper/big.bin, the only file of 5000 bytes.
size_t BigEntry(std::string &img) {
  for (size_t off : Sectors(img, gp::udf::kTagFileEntry)) {
    if (gp::udf::Le64(At(img, off + 56)) == 5000) {
      return off;
    }
  }
  ADD_FAILURE() << "no entry of 5000 bytes";
  return 0;
}

struct Lookup {
  std::string path;  // a trailing "/" opens a directory
  bool found;
};

// Opens the path as a directory, or as a file and reads up to 4 KiB from
// its middle; true when that worked.
bool Probe(UDFVolume *vol, const std::string &path) {
  if (path.back() == '/') {
    UDFDir *d = UDF_OpenDir(vol, nullptr, path.c_str());
    return d != nullptr && UDF_CloseDir(d);
  }
  UDFFile *f = UDF_OpenFile(vol, nullptr, path.c_str());
  uint64_t size = f != nullptr ? UDF_GetFileSize(vol, f) : 0;
  char buf[4096];
  size_t n = static_cast<size_t>(std::min<uint64_t>(size, sizeof buf));
  bool read = f != nullptr && UDF_PReadFile(f, buf, size / 2 - n / 2, n);
  UDF_CloseFile(f);
  return read;
}

struct Case {
  const char *label;
  std::function<void(std::string &)> patch;
  const char *path;  // what the damage hides ("/" at the end: a directory); null: the open fails
  const char *log;   // the one line; null: no damage, the path is found
  friend void PrintTo(const Case &c, std::ostream *os) { *os << c.label; }
};

const Case kCases[] = {
    {"all anchors corrupt",
     [](std::string &img) {
       for (size_t off : Sectors(img, gp::udf::kTagAnchor)) {
         At(img, off)[4] ^= 0xFF;
       }
     },
     nullptr, "UDF: no valid anchor"},
    {"sequences past the end",
     [](std::string &img) {
       for (size_t off : Sectors(img, gp::udf::kTagAnchor)) {
         ImageBuilder::Put32(At(img, off + 20), 0x7FFFFFF0);
         ImageBuilder::Put32(At(img, off + 28), 0x7FFFFFF0);
         Retag(img, off);
       }
     },
     nullptr, "past the end of the image"},
    {"partition past the end",
     [](std::string &img) {
       for (size_t off : Sectors(img, gp::udf::kTagPartition)) {
         ImageBuilder::Put32(At(img, off + 188), 0x00F00000);
         Retag(img, off);
       }
     },
     nullptr, "past the image"},
    {"data past the partition",
     [](std::string &img) {
       size_t fe = BigEntry(img);
       ImageBuilder::Put32(At(img, fe + 176 + Le32(At(img, fe + 168)) + 4), 0x00FFFF00);
       Retag(img, fe);
     },
     "Sub/Deeper/big.bin", "runs past partition"},
    {"descriptor lengths too large",
     [](std::string &img) {
       size_t fe = BigEntry(img);
       ImageBuilder::Put32(At(img, fe + 172), 0xFFFFFFF0);
       Retag(img, fe);
     },
     "Sub/Deeper/big.bin", "too large"},
    {"directory entry pointing at its parent",
     [](std::string &img) {
       size_t sub = FindFid(img, "Sub");
       size_t fid = FindFid(img, "Deeper");
       memcpy(At(img, fid + 24), At(img, sub + 24), 6);
       Retag(img, fid);
     },
     "Sub/Deeper/", "its own ancestor"},
    // A damaged identifier is skipped (Sub still opens): what it named is gone.
    {"identifier with a bad CRC",
     [](std::string &img) { At(img, FindFid(img, "Deeper") + 40)[0] ^= 1; }, "Sub/Deeper/",
     "skipped damaged file identifiers"},
    {"main anchor broken, a backup stands in",
     [](std::string &img) { At(img, 256 * kBs)[4] ^= 0xFF; }, "Sub/Deeper/big.bin", nullptr},
    {"file entry tag moved",
     [](std::string &img) {
       size_t fe = BigEntry(img);
       ImageBuilder::Put32(At(img, fe + 12), Le32(At(img, fe + 12)) + 1);
       Retag(img, fe);
     },
     "Sub/Deeper/big.bin", "records location"},
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

// Without a reporter, the volume's one report is its one log line; met
// again, the damage is not reported again.
TEST_P(UdfHostile, OneLogLinePerVolume) {
  const Case &c = GetParam();
  std::string img = *image_;
  c.patch(img);
  LogCapture log;
  UDFVolume *vol = UDF_OpenReader(MemoryReader(img));
  ASSERT_EQ(vol != nullptr, c.path != nullptr) << log.all();
  for (int again = 0; vol != nullptr && again < 3; ++again) {
    EXPECT_EQ(Probe(vol, c.path), c.log == nullptr) << c.path;
  }
  UDF_Close(vol);
  EXPECT_EQ(log.lines().size(), c.log != nullptr ? 1u : 0u) << log.all();
  EXPECT_TRUE(c.log == nullptr || log.contains(c.log)) << log.all();
}

INSTANTIATE_TEST_SUITE_P(Patched, UdfHostile, ::testing::ValuesIn(kCases), LabelName());

// ---------------------------------------------------------------------------
// Hand-built attacks: each row builds its image and names the lookups that
// detection-like use makes on it; the whole run must stay within a read
// budget and give the one report (or none) the row expects.

using Bytes = std::vector<uint8_t>;
constexpr uint32_t kRoot = 1;
constexpr uint8_t kDirType = 4, kFileType = 5, kDir = 2;

std::u16string U16(const std::string &s) {
  return {s.begin(), s.end()};
}

struct Attack {
  const char *label;
  std::function<std::vector<Lookup>(ImageBuilder &)> build;  // writes the root, gives the lookups
  int rounds;                                                // times the lookups are made
  const char *report;                                        // the one report, or null
  uint64_t maxKiB;                                           // read from the image, all told
  friend void PrintTo(const Attack &a, std::ostream *os) { *os << a.label; }
};

const Attack kAttacks[] = {
    {"directory looked up again and again",
     [](ImageBuilder &b) {
       std::vector<ImageBuilder::Name> names;
       for (int i = 0; i < 1500; ++i) {  // 66 KiB of identifiers
         names.push_back({U16("f" + std::to_string(i)), 3});
       }
       Bytes big = b.Fids(names);
       b.Embed(kRoot, kDirType, b.Fids({{u"d", 2, kDir}}));
       b.PutData(100, 0, std::string(big.begin(), big.end()));
       b.Extents(2, kDirType, big.size(), {{static_cast<uint32_t>(big.size()), 100, 0}});
       b.Embed(3, kFileType, {'x'});
       return std::vector<Lookup>{{"d/f700", true}, {"d/f1499", true}, {"d/none", false}};
     },
     100, nullptr, 200},  // the directory once, not 300 times (20 MiB)
    {"extents sharing blocks",
     [](ImageBuilder &b) {
       b.Embed(kRoot, kDirType, b.Fids({{u"file", 2}, {u"dir", 3, kDir}}));
       ImageBuilder::Ads same(200, {2048, 100, 0});
       b.Extents(2, kFileType, 200 * 2048, same);
       b.Extents(3, kDirType, 200 * 2048, same);
       return std::vector<Lookup>{{"file", false}, {"dir/", false}};
     },
     100, "sharing block", 64},
    {"unrecorded extents",
     [](ImageBuilder &b) {
       b.Embed(kRoot, kDirType, b.Fids({{u"sparse", 2}, {u"hole", 3, kDir}}));
       // 1 GiB of holes, then descriptors past the size that would be damage if read.
       b.Extents(2, kFileType, 1ull << 30,
                 {{1u << 29, 0, 2}, {1u << 29, 0, 2}, {2048, 0xFFFFFF, 0}, {2048, 0, 3}});
       b.Extents(3, kDirType, 1u << 20, {{1u << 20, 500, 1}});  // allocated, never recorded
       return std::vector<Lookup>{{"sparse", true}, {"hole/", false}};
     },
     100, "unrecorded", 64},
    {"damaged identifiers in the middle",
     [](ImageBuilder &b) {
       Bytes root = b.Fids({{u"a", 2}, {u"bad", 2}});
       uint8_t *bad = &root[root.size() - 44];
       ImageBuilder::Put16(bad + 36, 0x7000);  // runs past the directory
       ImageBuilder::Tag(bad, gp::udf::kTagFileId, 1, 44);
       root.insert(root.end(), {1, 1, 2, 0, 0xAB, 0, 0, 0});  // a stray tag fragment
       Bytes rest = b.Fids({{u"b", 2}, {u"c", 2}});
       root.insert(root.end(), rest.begin(), rest.end());
       b.Embed(kRoot, kDirType, root);
       b.Embed(2, kFileType, {'x'});
       return std::vector<Lookup>{{"a", true}, {"bad", false}, {"b", true}, {"c", true}};
     },
     3, "skipped damaged file identifiers", 64},
    {"unreadable file entries",
     [](ImageBuilder &b) {
       // The first "twice" is damaged, the second sound.
       b.Embed(kRoot, kDirType,
               b.Fids({{u"twice", 4}, {u"twice", 2}, {u"bad", 4}, {u"sub", 4, kDir}}));
       b.Embed(2, kFileType, {'x'});
       b.Fs(4)[0] = 0x05;  // a stray byte where a tag belongs
       return std::vector<Lookup>{{"twice", true}, {"bad", false}, {"sub/", false}};
     },
     100, "not a file entry", 64},
    {"allocation extents that loop",
     [](ImageBuilder &b) {
       b.Embed(kRoot, kDirType, b.Fids({{u"self", 2}, {u"pair", 3}}));
       b.Extents(2, kFileType, 8192, {{2048, 100, 0}, {2048, 10, 3}});  // 10 goes on to 10
       b.Extents(3, kFileType, 8192, {{2048, 100, 0}, {2048, 11, 3}});  // 11 to 12, 12 to 11
       for (auto [lb, next] : {std::pair{10u, 10u}, {11u, 12u}, {12u, 11u}}) {
         Bytes ads;
         ImageBuilder::AddAd(&ads, ImageBuilder::kShort, 2048, 100 + lb, 0);
         ImageBuilder::AddAd(&ads, ImageBuilder::kShort, 2048, next, 0, 3);
         ImageBuilder::AllocExtent(b.Fs(lb), lb, ads);
       }
       return std::vector<Lookup>{{"self", false}, {"pair", false}};
     },
     100, "loops back", 64},
    {"many directories over one extent",
     [](ImageBuilder &b) {
       std::vector<ImageBuilder::Name> dirs;
       std::vector<Lookup> lookups;
       Bytes shared = b.Fids(std::vector<ImageBuilder::Name>(6500, {u"y", 2}));  // 256 KiB
       b.PutData(400, 0, std::string(shared.begin(), shared.end()));
       for (uint32_t i = 0; i < 300; ++i) {
         dirs.push_back({U16("d" + std::to_string(i)), 10 + i, kDir});
         lookups.push_back({"d" + std::to_string(i) + "/x", false});
         b.Extents(10 + i, kDirType, shared.size(), {{uint32_t(shared.size()), 400, 0}});
       }
       Bytes root = b.Fids(dirs);
       b.PutData(350, 0, std::string(root.begin(), root.end()));
       b.Extents(kRoot, kDirType, root.size(), {{uint32_t(root.size()), 350, 0}});
       return lookups;  // 75 MiB if each were read
     },
     1, "more reading than its size allows", 10 << 10},
};

class UdfHostileCrafted : public ::testing::TestWithParam<Attack> {};

TEST_P(UdfHostileCrafted, BoundedWithOneReport) {
  const Attack &a = GetParam();
  ImageBuilder b(1024, false);
  b.Finish();
  std::vector<Lookup> lookups = a.build(b);
  gp::FirstDamageReporter damage;
  LogCapture log;
  auto counting = std::make_unique<gp::CountingImageReader>(b.Reader());
  gp::CountingImageReader *counter = counting.get();
  UDFVolume *vol = UDF_OpenReader(std::move(counting), &damage);
  ASSERT_NE(vol, nullptr) << damage.first();
  for (int round = 0; round < a.rounds; ++round) {
    for (const Lookup &l : lookups) {
      EXPECT_EQ(Probe(vol, l.path), l.found) << l.path;
    }
  }
  EXPECT_LE(counter->bytes(), a.maxKiB << 10);
  UDF_Close(vol);
  EXPECT_TRUE(log.lines().empty()) << log.all();
  EXPECT_EQ(damage.count(), a.report != nullptr ? 1u : 0u) << damage.first();
  if (a.report != nullptr) {
    EXPECT_NE(damage.first().find(a.report), std::string::npos) << damage.first();
  }
}

INSTANTIATE_TEST_SUITE_P(Attacks, UdfHostileCrafted, ::testing::ValuesIn(kAttacks), LabelName());

// Opens img and walks it all: at most one log line, whatever the damage.
void OpenAndWalk(const std::string &img, const std::string &what) {
  LogCapture log;
  if (UDFVolume *vol = UDF_OpenReader(MemoryReader(img))) {
    if (UDFDir *root = UDF_OpenDir(vol, nullptr, "")) {
      gp::udf::Walk(vol, root, 1000);
      UDF_CloseDir(root);
    }
    UDF_Close(vol);
  }
  EXPECT_LE(log.lines().size(), 1u) << what << "\n" << log.all();
}

// Damage anywhere in the metadata, with tags made valid again so it gets
// past the checksums: never a crash (under the sanitizers), never a hang.
TEST_F(UdfHostile, SweepRandomDamageAndCuts) {
  const std::string &base = *image_;
  std::string probe = base;
  std::vector<size_t> tags;
  for (uint16_t id : {1, 2, 5, 6, 8, 256, 257, 261}) {
    for (size_t off : Sectors(probe, id)) {
      tags.push_back(off);
    }
  }
  ASSERT_FALSE(tags.empty());
  std::mt19937 rng(1234);
  for (int round = 0; round < 600; ++round) {
    std::string img = base;
    size_t off = tags[rng() % tags.size()];
    for (int k = 0, n = 1 + rng() % 4; k < n; ++k) {
      At(img, off + 16 + rng() % (kBs - 16))[0] = static_cast<uint8_t>(rng());
    }
    Retag(img, off);
    OpenAndWalk(img, "round " + std::to_string(round));
  }
  // Real images cut short anywhere: the tail (backup anchors, file data) or
  // the head (descriptors, directories) goes missing.
  std::vector<std::string> images{base};
  if (HaveTool("mkudffs")) {
    TempDir tmp;
    std::filesystem::path path = tmp / "m.udf";
    WriteFile(path, std::string(4 << 20, '\0'));
    CommandResult r = RunCommand({"mkudffs", "--media-type=hd", "--label=Cut", path.string()});
    ASSERT_EQ(r.exitCode, 0) << r.output;
    images.push_back(ReadFile(path));
  }
  for (const std::string &whole : images) {
    for (size_t cut = 16 * kBs; cut < whole.size(); cut += whole.size() / 97) {
      OpenAndWalk(whole.substr(0, cut), "cut at " + std::to_string(cut));
    }
  }
}

TEST_F(UdfHostile, SweepIoErrorsAtEveryRead) {
  for (int ok = 0;; ++ok) {
    ASSERT_LT(ok, 1000);
    gp::FirstDamageReporter damage;
    LogCapture log;
    UDFVolume *vol =
        UDF_OpenReader(std::make_unique<FailingReader>(MemoryReader(*image_), ok), &damage);
    bool opened = vol != nullptr, read = opened && Probe(vol, "Sub/Deeper/big.bin");
    UDF_Close(vol);
    EXPECT_TRUE(log.lines().empty()) << ok << log.all();
    // Once open, any failure is the one report (before, it may read as not UDF).
    EXPECT_TRUE(!opened || damage.count() == (read ? 0u : 1u)) << ok;
    if (read) {
      break;  // enough reads for everything: no more failure to inject
    }
  }
}

}  // namespace
