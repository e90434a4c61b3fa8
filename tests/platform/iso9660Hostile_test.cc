// The ISO 9660 reader against hostile images: xorriso images patched in the
// test, and images written record by record for shapes no tool makes. Each
// gives clean results, every good entry wherever the bad one sits, at most
// one damage report per volume, and bounded reads; never a crash or a hang
// (the suite also runs under ASan).
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/iso9660/iso9660.h"
#include "support/imageFixtures.h"
#include "support/isoWriter.h"
#include "support/testSupport.h"

namespace fs = std::filesystem;
using namespace testing_support;

namespace {

using testing_support::PrintTo;
using W = IsoWriter;

constexpr size_t kBlock = 2048;
const std::string kLongName(220, 'L');

void PutBoth32(std::string *img, size_t at, uint32_t v) {
  img->replace(at, 8, W::Both32(v));
}

// The intact image as the reader sees it, by path.
struct Facts : std::map<std::string, Iso9660DirEntry> {
  uint64_t rec(const std::string &path) const { return at(path).recordOffset; }
};

// Offset of a SUSP entry with the given signature inside a directory record.
size_t FindSusp(const std::string &img, uint64_t recordOffset, const char *sig) {
  size_t len = static_cast<uint8_t>(img[recordOffset]);
  for (size_t i = 33 + static_cast<uint8_t>(img[recordOffset + 32]); i + 4 <= len; ++i) {
    if (img.compare(recordOffset + i, 2, sig) == 0 && img[recordOffset + i + 3] == 1) {
      return recordOffset + i;
    }
  }
  ADD_FAILURE() << "no " << sig << " entry";
  return 0;
}

// Makes the continuation area start with a CE pointing at itself.
void LoopCe(std::string *img, uint64_t rec) {
  size_t ce = FindSusp(*img, rec, "CE");
  uint32_t block, offset;
  memcpy(&block, img->data() + ce + 4, 4);
  memcpy(&offset, img->data() + ce + 12, 4);
  img->replace(size_t{block} * kBlock + offset, 32, img->substr(ce, 28) + "ST\x04\x01");
}

// Lists a directory to its end; the names seen, and the first failure.
Iso9660Result List(Iso9660Volume *vol, Iso9660Dir *dir, std::set<std::string> *seen) {
  auto e = std::make_unique<Iso9660DirEntry>();
  Iso9660Result rc, first = ISO9660_OK;
  for (int calls = 0; calls < 300000 && (rc = Iso9660_ReadDir(vol, dir, e.get())) != ISO9660_EOF;
       ++calls) {
    if (rc == ISO9660_OK) {
      seen->insert(e->name);
    }
    first = first == ISO9660_OK ? rc : first;
  }
  return first;
}

enum class Op { kOpen, kOpenDir, kListDir, kReadFile };

struct HostileCase {
  const char *label;
  std::function<void(std::string *img, const Facts &facts)> patch;
  Op op;
  const char *path;
  Iso9660Result expected;
  const char *needle;
  size_t minListed = 4;  // good entries a listing still shows
};

class Iso9660Hostile : public ::testing::TestWithParam<HostileCase> {
 protected:
  void SetUp() override {
    if (!HaveTool("xorriso")) {
      GTEST_SKIP() << "needs xorriso";
    }
    fs::path src = tmp_ / "src";
    fs::create_directories(src / "sub" / "inner");
    for (const char *name : {"aa.txt", "ab1", "cur", "zz"}) {
      WriteFile(src / name, std::string("file ") + name + "\n");
    }
    WriteFile(src / kLongName, "a name that needs a continuation area\n");
    for (int i = 0; i < 80; ++i) {
      WriteFile(src / "many" / ("many-entries-file-" + std::to_string(1000 + i)), "m");
    }
    WriteFile(src / "sub" / "last.txt", std::string(10000, 'z'));
    image_ = (tmp_ / "good.iso").string();
    ASSERT_NO_FATAL_FAILURE(Master("xorriso", {"-R"}, image_, src));

    IsoVolume vol(image_, ISO9660_FORMAT_ROCKRIDGE);
    ASSERT_EQ(ISO9660_OK, Iso9660_Stat(vol, "", &facts_[""]));
    ASSERT_EQ(ISO9660_OK, WalkIso(vol, "",
                                  [this](const std::string &path, const Iso9660DirEntry &e,
                                         const std::string &) { facts_[path] = e; }));
    facts_["long"] = facts_[kLongName];
  }

  TempDir tmp_;
  std::string image_;
  Facts facts_;
};

// Runs the case's operation: its first failure, or ISO9660_OK.
Iso9660Result RunCase(const std::string &img, const HostileCase &c, gp::DamageReporter *reporter,
                      std::set<std::string> *seen) {
  Iso9660Volume *vol = nullptr;
  Iso9660Result rc =
      Iso9660_OpenReader(MemoryReader(img), ISO9660_FORMAT_ROCKRIDGE, &vol, reporter);
  Iso9660Dir *dir = nullptr;
  Iso9660DirEntry e;
  if (vol != nullptr && c.op == Op::kReadFile) {
    rc = Iso9660_Stat(vol, c.path, &e);
    rc = rc == ISO9660_OK ? ReadIsoFile(vol, e) : rc;
  } else if (vol != nullptr && c.op != Op::kOpen &&
             (rc = Iso9660_OpenDir(vol, c.path, &dir)) == ISO9660_OK && c.op == Op::kListDir) {
    rc = List(vol, dir, seen);
    for (const std::string &name : *seen) {  // what is listed is found
      EXPECT_EQ(ISO9660_OK, Iso9660_Lookup(vol, dir, name.c_str(), false, &e)) << name;
    }
  }
  if (dir != nullptr) {
    Iso9660_CloseDir(vol, dir);
  }
  if (vol != nullptr) {
    EXPECT_EQ(ISO9660_OK, Iso9660_Close(vol));
  }
  return rc;
}

// With a reporter the report goes there and nothing is logged; without one
// it is the one log line (none for an image that is not ISO 9660 at all).
TEST_P(Iso9660Hostile, CleanErrorAndOneReport) {
  const HostileCase &c = GetParam();
  std::string img = ReadFile(image_);
  c.patch(&img, facts_);
  for (bool withReporter : {false, true}) {
    SCOPED_TRACE(withReporter ? "reporter" : "log");
    LogCapture capture;
    gp::FirstDamageReporter reporter;
    std::set<std::string> seen;
    EXPECT_EQ(c.expected, RunCase(img, c, withReporter ? &reporter : nullptr, &seen));
    std::string report = withReporter ? reporter.first() : capture.all();
    bool quiet = !withReporter && c.expected == ISO9660_ERR_NOT_ISO;  // logged verbosely only
    EXPECT_EQ(quiet, report.find(c.needle) == std::string::npos) << report;
    EXPECT_EQ(withReporter ? 1u : 0u, reporter.count());
    EXPECT_EQ(withReporter || quiet ? 0u : 1u, capture.lines().size());
    EXPECT_TRUE(withReporter || quiet || report.rfind("ISO9660: ", 0) == 0) << report;
    EXPECT_GE(seen.size(), c.op == Op::kListDir ? c.minListed : 0);  // the good entries remain
  }
}

const HostileCase kCases[] = {
    {"RecordOverrunsSector",
     [](std::string *img, const Facts &f) {
       // The last record of the directory's first sector claims 255 bytes.
       size_t start = size_t{f.at("many").extent} * kBlock, last = start;
       for (size_t at = start; at < start + kBlock && (*img)[at] != 0;
            at += static_cast<uint8_t>((*img)[at])) {
         last = at;
       }
       ASSERT_GT(last - start + 255, kBlock);
       (*img)[last] = static_cast<char>(255);
     },
     Op::kListDir, "many", ISO9660_ERR_CORRUPT, "directory record overruns its sector", 40},
    {"RockRidgeNameCurrentFlag",
     [](std::string *img, const Facts &f) { (*img)[FindSusp(*img, f.rec("cur"), "NM") + 4] = 2; },
     Op::kListDir, "", ISO9660_ERR_CORRUPT, "refers to the directory itself"},
    {"ChildIsItsParent",
     [](std::string *img, const Facts &f) {
       PutBoth32(img, f.rec("sub/inner") + 2, f.at("sub").extent);
     },
     Op::kOpenDir, "sub/inner", ISO9660_ERR_CORRUPT, "directory loop at \"sub/inner\""},
    {"ContinuationPastEnd",
     [](std::string *img, const Facts &f) {
       PutBoth32(img, FindSusp(*img, f.rec("long"), "CE") + 4, 0x00FFFFFF);
     },
     Op::kListDir, "", ISO9660_ERR_CORRUPT, "continuation area beyond end of image"},
    {"RootContinuationLoopCostsRockRidgeOnly",
     [](std::string *img, const Facts &f) { LoopCe(img, uint64_t{f.at("").extent} * kBlock); },
     Op::kOpen, "", ISO9660_OK, "Rock Ridge names not used: Rock Ridge continuation loop"},
    {"ZeroBlockSize",
     [](std::string *img, const Facts &) { img->replace(16 * kBlock + 128, 4, 4, '\0'); },
     Op::kOpen, "", ISO9660_ERR_CORRUPT, "unsupported logical block size 0"},
    {"VolumeSmallerThanItsRoot",
     [](std::string *img, const Facts &) { PutBoth32(img, 16 * kBlock + 80, 18); }, Op::kOpen, "",
     ISO9660_ERR_CORRUPT, "directory extent beyond end of image: \"/\""},
    {"NoDescriptor", [](std::string *img, const Facts &) { (*img)[16 * kBlock + 1] = 'X'; },
     Op::kOpen, "", ISO9660_ERR_NOT_ISO, "no ISO 9660 volume descriptor at block 16"},
    {"NoTerminator",
     [](std::string *img, const Facts &) {
       for (size_t b = 17; b < 16 + 70; ++b) {
         img->replace(b * kBlock, kBlock, "\x02" + std::string("CD001") + std::string(2042, '\0'));
       }
     },
     Op::kOpen, "", ISO9660_ERR_CORRUPT, "no volume descriptor set terminator"},
    {"InterleavedFile", [](std::string *img, const Facts &f) { (*img)[f.rec("aa.txt") + 26] = 1; },
     Op::kReadFile, "aa.txt", ISO9660_ERR_CORRUPT, "interleaved file \"aa.txt\""},
    {"MultiExtentWithoutLastPart",
     [](std::string *img, const Facts &f) {
       (*img)[f.rec("aa.txt") + 25] |= static_cast<char>(0x80);
     },
     Op::kListDir, "", ISO9660_ERR_CORRUPT, "multi-extent file \"aa.txt\" lacks its last part"},
    {"HugeDirectory",
     [](std::string *img, const Facts &f) { PutBoth32(img, f.rec("sub") + 10, 100u << 20); },
     Op::kOpenDir, "sub", ISO9660_ERR_LIMIT, "directory larger than"},
};

INSTANTIATE_TEST_SUITE_P(Images, Iso9660Hostile, ::testing::ValuesIn(kCases), LabelName());

// The image cut anywhere, or its reads failing from any point on: open,
// walk and look everything up. At most one report per volume, the same one
// whether it goes to a reporter or to the log.
TEST_F(Iso9660Hostile, TruncatedOrUnreadableImageGivesOneReportAtMost) {
  std::string img = ReadFile(image_);
  uint64_t dataEnd = 0;  // past it, xorriso's padding: nothing is lost
  for (const auto &[path, e] : facts_) {
    dataEnd = std::max(dataEnd, uint64_t{e.extent} * kBlock + e.size64);
  }
  // Bytes kept and reads that succeed (-1: all).
  std::vector<std::pair<size_t, int>> variants{{16 * kBlock + 100, -1},  {img.size() / 5, -1},
                                               {img.size() / 3, -1},     {img.size() / 2, -1},
                                               {img.size() * 3 / 4, -1}, {img.size() - kBlock, -1}};
  for (int okReads = 0; okReads < 100; okReads += 3) {
    variants.emplace_back(img.size(), okReads);
  }
  int ioErrors = 0;
  for (const auto &[cut, okReads] : variants) {
    SCOPED_TRACE(testing::Message() << "cut " << cut << " reads " << okReads);
    std::string part = img.substr(0, cut);
    size_t lines[2], reports[2];
    Iso9660Result rc;
    for (bool withReporter : {false, true}) {
      LogCapture capture;
      gp::FirstDamageReporter reporter;
      std::unique_ptr<gp::ImageReader> reader = MemoryReader(part);
      if (okReads >= 0) {
        reader = std::make_unique<FailingReader>(std::move(reader), okReads);
      }
      Iso9660Volume *vol = nullptr;
      rc = Iso9660_OpenReader(std::move(reader), ISO9660_FORMAT_ROCKRIDGE, &vol,
                              withReporter ? &reporter : nullptr);
      if (vol != nullptr) {
        rc = WalkIso(vol, "");
        for (const auto &[path, entry] : facts_) {
          Iso9660DirEntry e;
          Iso9660_Stat(vol, path.c_str(), &e);
        }
        EXPECT_EQ(ISO9660_OK, Iso9660_Close(vol));
      }
      lines[withReporter] = capture.lines().size();
      reports[withReporter] = reporter.count();
      EXPECT_TRUE(rc != ISO9660_ERR_IO || reporter.first().find("cannot read") == 0 ||
                  capture.contains("ISO9660: cannot read"))
          << reporter.first() << capture.all();
    }
    ioErrors += rc == ISO9660_ERR_IO;
    EXPECT_EQ(0u, lines[true]);
    EXPECT_LE(reports[true], 1u);
    EXPECT_EQ(cut < dataEnd || rc == ISO9660_ERR_IO ? 1u : reports[true], reports[true]);
    EXPECT_EQ(rc == ISO9660_ERR_NOT_ISO ? 0u : reports[true], lines[false]);
  }
  EXPECT_GT(ioErrors, 10);
}

// Images written record by record: one attack class each. A listing and
// ~100 lookups find every good entry, refuse the bad ones, give one report,
// and read no image block twice.
struct Attack {
  const char *label;
  std::function<std::string()> build;
  std::vector<std::string> good;     // listed, and found exactly and caselessly
  std::vector<std::string> refused;  // never found
  const char *needle;                // in the one report; null for an intact image
};

class Iso9660Attack : public ::testing::TestWithParam<Attack> {};

TEST_P(Iso9660Attack, BoundedWorkAllGoodEntriesOneReport) {
  const Attack &c = GetParam();
  std::string img = c.build();
  LogCapture capture;
  gp::FirstDamageReporter reporter;
  auto counting = std::make_unique<gp::CountingImageReader>(MemoryReader(img));
  gp::CountingImageReader *counter = counting.get();
  Iso9660Volume *vol = nullptr;
  ASSERT_EQ(ISO9660_OK,
            Iso9660_OpenReader(std::move(counting), ISO9660_FORMAT_ROCKRIDGE, &vol, &reporter));
  Iso9660Dir *root = nullptr;
  ASSERT_EQ(ISO9660_OK, Iso9660_OpenDir(vol, "/", &root));
  std::set<std::string> listed;
  EXPECT_EQ(c.needle != nullptr ? ISO9660_ERR_CORRUPT : ISO9660_OK, List(vol, root, &listed));
  auto e = std::make_unique<Iso9660DirEntry>();
  for (int round = 0; round < 20; ++round) {
    for (std::string name : c.good) {
      EXPECT_EQ(1u, listed.count(name)) << name;
      ASSERT_EQ(ISO9660_OK, Iso9660_Lookup(vol, root, name.c_str(), false, e.get())) << name;
      ASSERT_EQ(ISO9660_OK, Iso9660_Stat(vol, ("/" + name).c_str(), e.get())) << name;
      Iso9660File *file = nullptr;
      ASSERT_EQ(ISO9660_OK, Iso9660_OpenFile(vol, e.get(), &file)) << name;
      EXPECT_EQ(ISO9660_OK, Iso9660_CloseFile(vol, file));
      std::transform(name.begin(), name.end(), name.begin(), ::tolower);
      ASSERT_EQ(ISO9660_OK, Iso9660_Lookup(vol, root, name.c_str(), true, e.get())) << name;
      EXPECT_EQ(1u, listed.count(e->name));
    }
    for (const std::string &name : c.refused) {
      EXPECT_EQ(0u, listed.count(name)) << name;
      EXPECT_NE(ISO9660_OK, Iso9660_Lookup(vol, root, name.c_str(), true, e.get())) << name;
      EXPECT_NE(ISO9660_OK, Iso9660_Stat(vol, name.c_str(), e.get())) << name;
    }
  }
  EXPECT_LE(counter->bytes(), img.size());
  EXPECT_EQ(ISO9660_OK, Iso9660_CloseDir(vol, root));
  EXPECT_EQ(ISO9660_OK, Iso9660_Close(vol));
  EXPECT_EQ(c.needle != nullptr ? 1u : 0u, reporter.count());
  EXPECT_NE(std::string::npos, reporter.first().find(c.needle ? c.needle : "")) << reporter.first();
  EXPECT_EQ("", capture.all());
}

// 3,000 records each leading into one chain of 32 continuation areas of
// 2,000 bytes: each record is within its own limits, the directory is not.
std::string SharedChains() {
  W w(true);
  uint32_t data = w.Alloc(1), chain = w.Alloc(32 * kBlock);
  std::string pad = "PD" + std::string(1, static_cast<char>(248)) + "\x01" + std::string(244, 'p');
  for (uint32_t k = 0; k < 32; ++k) {
    std::string area = (k < 31 ? W::Ce(chain + k + 1, 0, 2000) : "") + pad + pad + pad + pad;
    w.Put(uint64_t{chain + k} * kBlock, area + std::string(2000 - area.size(), '\0'));
  }
  std::vector<std::string> recs;
  for (int i = 0; i < 3000; ++i) {
    recs.push_back(W::Record(data, 1, 0, "F" + std::to_string(i) + ";1",
                             W::Nm("file" + std::to_string(1000 + i)) + W::Ce(chain, 0, 2000)));
  }
  recs.push_back(W::Record(data, 1, 0, "ZZ;1", W::Nm("zz-good")));
  return w.Finish(w.Dir(recs, true));
}

const Attack kAttacks[] = {
    {"AliasedMultiExtentParts",
     attacks::AliasedParts,
     {"a", "z"},
     {".discinfo"},
     "\".discinfo\" has overlapping parts"},
    {"RootOf200000Entries",
     attacks::WideRoot,
     {"N000000", "N123456", "N199999", ".DISCINFO"},
     {"N200000"},
     nullptr},
    {"ContinuationChainsSharedByManyRecords",
     SharedChains,
     {"file1000", "file1200", "zz-good"},
     {"file3999"},
     "Rock Ridge continuation data of one directory over"},
    {"DamagedRecordsBeforeGoodOnes",
     attacks::DamagedFirst,
     {"Good-One", "g2", ".discinfo"},
     {"short", "hidden-by-short", "pastend", "loop", "A/B", "overrun", "subdir"},
     "directory record too short"},
};
INSTANTIATE_TEST_SUITE_P(Written, Iso9660Attack, ::testing::ValuesIn(kAttacks), LabelName());

}  // namespace
