// The ISO 9660 reader against xorriso images patched in the test: each
// must give a clean error code and one log line saying what was wrong,
// never a crash or a hang (the suite also runs under ASan).
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/iso9660/iso9660.h"
#include "support/imageFixtures.h"
#include "support/testSupport.h"

namespace fs = std::filesystem;
using namespace testing_support;

namespace {

constexpr size_t kBlock = 2048;
const std::string kLongName(220, 'L');

uint32_t Le32(const std::string &img, size_t at) {
  uint32_t v;
  memcpy(&v, img.data() + at, 4);
  return v;
}

// Both-endian 32-bit field: little-endian, then big-endian.
void PutBoth32(std::string *img, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) {
    (*img)[at + i] = static_cast<char>(v >> (8 * i));
    (*img)[at + 7 - i] = static_cast<char>(v >> (8 * i));
  }
}

// The intact image as the reader sees it.
struct Facts {
  std::map<std::string, Iso9660DirEntry> entries;
  const Iso9660DirEntry &operator[](const std::string &path) const { return entries.at(path); }
  uint64_t rec(const std::string &path) const { return entries.at(path).recordOffset; }
};

// Offset of a SUSP entry with the given signature inside a directory record.
size_t FindSusp(const std::string &img, uint64_t recordOffset, const char *sig) {
  size_t len = static_cast<uint8_t>(img[recordOffset]);
  std::string rec = img.substr(recordOffset, len);
  for (size_t i = 33 + static_cast<uint8_t>(rec[32]); i + 4 <= len; ++i) {
    if (rec.compare(i, 2, sig) == 0 && rec[i + 3] == 1) {
      return recordOffset + i;
    }
  }
  ADD_FAILURE() << "no " << sig << " entry";
  return 0;
}

// Overwrites the start of a Rock Ridge name.
void RenameRr(std::string *img, uint64_t rec, const std::string &name) {
  img->replace(FindSusp(*img, rec, "NM") + 5, name.size(), name);
}

// Makes the continuation area start with a CE pointing at itself.
void LoopCe(std::string *img, uint64_t rec) {
  size_t ce = FindSusp(*img, rec, "CE");
  size_t area = static_cast<size_t>(Le32(*img, ce + 4)) * kBlock + Le32(*img, ce + 12);
  img->replace(area, 32, img->substr(ce, 28) + std::string("ST\x04\x01", 4));
}

void SubPastEnd(std::string *img, const Facts &f) {
  PutBoth32(img, f.rec("sub") + 2, 0x7FFFFFF0);
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
    fs::create_directories(src / "many");
    WriteFile(src / "aa.txt", "first file\n");
    WriteFile(src / "ab1", "becomes a/b\n");
    WriteFile(src / "cur", "gets the current-directory flag\n");
    WriteFile(src / "zz", "becomes ..\n");
    WriteFile(src / kLongName, "a name that needs a continuation area\n");
    WriteFile(src / "sub" / "inner" / "file.txt", "inner\n");
    for (int i = 0; i < 80; ++i) {
      WriteFile(src / "many" / ("many-entries-file-" + std::to_string(1000 + i)), "m");
    }
    WriteFile(src / "sub" / "last.txt", std::string(10000, 'z'));
    image_ = (tmp_ / "good.iso").string();
    ASSERT_NO_FATAL_FAILURE(Master("xorriso", {"-R"}, image_, src));

    Iso9660Volume *vol = nullptr;
    ASSERT_EQ(ISO9660_OK, Iso9660_Open(image_.c_str(), ISO9660_FORMAT_ROCKRIDGE, &vol));
    for (const std::string path :
         {"", "aa.txt", "ab1", "cur", "zz", "sub", "sub/inner", "sub/last.txt", "many"}) {
      ASSERT_EQ(ISO9660_OK, Iso9660_Stat(vol, path.c_str(), &facts_.entries[path])) << path;
    }
    ASSERT_EQ(ISO9660_OK, Iso9660_Stat(vol, kLongName.c_str(), &facts_.entries["long"]));
    // The many-entries directory, record by record.
    Iso9660Dir *dir = nullptr;
    ASSERT_EQ(ISO9660_OK, Iso9660_OpenDir(vol, "many", &dir));
    Iso9660DirEntry e;
    while (Iso9660_ReadDir(vol, dir, &e) == ISO9660_OK) {
      facts_.entries[std::string("many/") + e.name] = e;
    }
    ASSERT_EQ(ISO9660_OK, Iso9660_CloseDir(vol, dir));
    ASSERT_EQ(ISO9660_OK, Iso9660_Close(vol));
  }

  TempDir tmp_;
  std::string image_;
  Facts facts_;
};

// Runs the case's operation; returns the first failure (or ISO9660_OK).
Iso9660Result RunCase(const std::string &image, const HostileCase &c,
                      std::vector<std::string> *seen) {
  Iso9660Volume *vol = nullptr;
  Iso9660Result rc = Iso9660_Open(image.c_str(), ISO9660_FORMAT_ROCKRIDGE, &vol);
  if (c.op == Op::kOpen || rc != ISO9660_OK) {
    if (vol != nullptr) {
      Iso9660_Close(vol);
    }
    return rc;
  }
  Iso9660Result first = ISO9660_OK;
  if (c.op == Op::kOpenDir) {
    Iso9660Dir *dir = nullptr;
    first = Iso9660_OpenDir(vol, c.path, &dir);
    if (dir != nullptr) {
      Iso9660_CloseDir(vol, dir);
    }
  } else if (c.op == Op::kListDir) {
    Iso9660Dir *dir = nullptr;
    EXPECT_EQ(ISO9660_OK, Iso9660_OpenDir(vol, c.path, &dir));
    Iso9660DirEntry e;
    // A bad entry fails once; the listing goes on behind it and ends.
    for (int calls = 0; dir != nullptr && calls < 10000; ++calls) {
      Iso9660Result r = Iso9660_ReadDir(vol, dir, &e);
      if (r == ISO9660_EOF) {
        break;
      }
      if (r == ISO9660_OK) {
        seen->push_back(e.name);
      } else if (first == ISO9660_OK) {
        first = r;
      }
    }
    if (dir != nullptr) {
      Iso9660_CloseDir(vol, dir);
    }
  } else {
    Iso9660DirEntry e;
    first = Iso9660_Stat(vol, c.path, &e);
    Iso9660File *file = nullptr;
    if (first == ISO9660_OK) {
      first = Iso9660_OpenFile(vol, &e, &file);
    }
    char buf[2048];
    while (file != nullptr) {
      uint32_t len = sizeof buf;
      Iso9660Result r = Iso9660_ReadFile(vol, file, buf, &len);
      if (r != ISO9660_OK) {
        first = r == ISO9660_EOF ? first : r;
        break;
      }
    }
    if (file != nullptr) {
      Iso9660_CloseFile(vol, file);
    }
  }
  EXPECT_EQ(ISO9660_OK, Iso9660_Close(vol));
  return first;
}

TEST_P(Iso9660Hostile, CleanErrorAndOneLogLine) {
  const HostileCase &c = GetParam();
  std::string img = ReadFile(image_);
  c.patch(&img, facts_);
  std::string bad = (tmp_ / "bad.iso").string();
  WriteFile(bad, img);
  LogCapture capture;
  std::vector<std::string> seen;
  EXPECT_EQ(c.expected, RunCase(bad, c, &seen)) << capture.all();
  EXPECT_TRUE(capture.contains(c.needle)) << capture.all();
  EXPECT_EQ(1u, capture.lines().size()) << capture.all();
  EXPECT_EQ(0u, capture.all().rfind("ISO9660: ", 0)) << capture.all();
  if (c.op == Op::kListDir) {
    EXPECT_GE(seen.size(), c.minListed);  // the good entries around the bad one remain
  }
}

const HostileCase kCases[] = {
    {"DirectoryPastEnd", SubPastEnd, Op::kOpenDir, "sub", ISO9660_ERR_CORRUPT,
     "ISO9660: directory extent beyond end of image: \"sub\""},
    {"DirectoryPastEndInListing", SubPastEnd, Op::kListDir, "", ISO9660_ERR_CORRUPT,
     "directory extent beyond end of image"},
    {"RecordOverrunsSector",
     [](std::string *img, const Facts &f) {
       // The last record of the directory's first sector claims 255 bytes.
       uint64_t sectorStart = static_cast<uint64_t>(f["many"].extent) * kBlock;
       uint64_t last = 0;
       for (const auto &[path, e] : f.entries) {
         if (path.rfind("many/", 0) == 0 && e.recordOffset < sectorStart + kBlock) {
           last = std::max(last, e.recordOffset);
         }
       }
       ASSERT_GT(last - sectorStart + 255, kBlock);
       (*img)[last] = static_cast<char>(255);
     },
     Op::kListDir, "many", ISO9660_ERR_CORRUPT, "directory record overruns its sector", 40},
    // Without a usable length the rest of the sector is lost.
    {"RecordTooShort", [](std::string *img, const Facts &f) { (*img)[f.rec("aa.txt")] = 20; },
     Op::kListDir, "", ISO9660_ERR_CORRUPT, "directory record too short", 0},
    {"RockRidgeNameDotDot",
     [](std::string *img, const Facts &f) { RenameRr(img, f.rec("zz"), ".."); }, Op::kListDir, "",
     ISO9660_ERR_CORRUPT, "unusable name \"..\""},
    {"RockRidgeNameWithSlash",
     [](std::string *img, const Facts &f) { RenameRr(img, f.rec("ab1"), "a/b"); }, Op::kListDir, "",
     ISO9660_ERR_CORRUPT, "unusable name \"a/b\""},
    {"RockRidgeNameCurrentFlag",
     [](std::string *img, const Facts &f) { (*img)[FindSusp(*img, f.rec("cur"), "NM") + 4] = 2; },
     Op::kListDir, "", ISO9660_ERR_CORRUPT, "refers to the directory itself"},
    {"RockRidgeNameDotDotByLookup",
     [](std::string *img, const Facts &f) { RenameRr(img, f.rec("zz"), ".."); }, Op::kReadFile,
     "zz", ISO9660_ERR_CORRUPT, "unusable name \"..\""},
    {"SelfReferencingDirectory",
     [](std::string *img, const Facts &f) {
       PutBoth32(img, f.rec("sub") + 2, f[""].extent);
       PutBoth32(img, f.rec("sub") + 10, f[""].size);
     },
     Op::kOpenDir, "sub/sub/sub", ISO9660_ERR_CORRUPT, "directory loop at \"sub"},
    {"ChildIsItsParent",
     [](std::string *img, const Facts &f) {
       PutBoth32(img, f.rec("sub/inner") + 2, f["sub"].extent);
     },
     Op::kOpenDir, "sub/inner", ISO9660_ERR_CORRUPT, "directory loop at \"sub/inner\""},
    {"ContinuationLoop", [](std::string *img, const Facts &f) { LoopCe(img, f.rec("long")); },
     Op::kListDir, "", ISO9660_ERR_CORRUPT, "Rock Ridge continuation loop"},
    {"ContinuationPastEnd",
     [](std::string *img, const Facts &f) {
       PutBoth32(img, FindSusp(*img, f.rec("long"), "CE") + 4, 0x00FFFFFF);
     },
     Op::kListDir, "", ISO9660_ERR_CORRUPT, "continuation area beyond end of image"},
    {"RootContinuationLoopCostsRockRidgeOnly",
     [](std::string *img, const Facts &f) { LoopCe(img, uint64_t{f[""].extent} * kBlock); },
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
       std::string svd(kBlock, '\0');
       svd.replace(0, 6,
                   "\x02"
                   "CD001");
       for (size_t b = 17; b < 16 + 70; ++b) {
         img->replace(b * kBlock, kBlock, svd);
       }
     },
     Op::kOpen, "", ISO9660_ERR_CORRUPT, "no volume descriptor set terminator"},
    {"TruncatedInDescriptor",
     [](std::string *img, const Facts &) { img->resize(16 * kBlock + 100); }, Op::kOpen, "",
     ISO9660_ERR_NOT_ISO, "no volume descriptor at block 16"},
    {"TruncatedFileData",
     [](std::string *img, const Facts &f) {
       img->resize(static_cast<size_t>(f["sub/last.txt"].extent) * kBlock + 4096);
     },
     Op::kReadFile, "sub/last.txt", ISO9660_ERR_CORRUPT,
     "file extent beyond end of image: \"last.txt\""},
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

Iso9660Result WalkAll(Iso9660Volume *vol, const std::string &path, int depth) {
  Iso9660Dir *dir = nullptr;
  Iso9660Result rc = Iso9660_OpenDir(vol, path.c_str(), &dir);
  if (rc != ISO9660_OK) {
    return rc;
  }
  Iso9660DirEntry e;
  Iso9660Result worst = ISO9660_OK;
  while ((rc = Iso9660_ReadDir(vol, dir, &e)) != ISO9660_EOF) {
    if (rc != ISO9660_OK) {
      worst = rc;
      continue;
    }
    std::string child = path + "/" + e.name;
    if ((e.flags & ISO9660_ENTRY_DIRECTORY) && depth < 8) {
      Iso9660Result sub = WalkAll(vol, child, depth + 1);
      worst = sub != ISO9660_OK ? sub : worst;
    } else if (!(e.flags & ISO9660_ENTRY_DIRECTORY)) {
      Iso9660File *file = nullptr;
      if ((rc = Iso9660_OpenFile(vol, &e, &file)) != ISO9660_OK) {
        worst = rc;
        continue;
      }
      char buf[4096];
      uint32_t len = sizeof buf;
      while ((rc = Iso9660_ReadFile(vol, file, buf, &len)) == ISO9660_OK) {
        len = sizeof buf;
      }
      worst = rc != ISO9660_EOF ? rc : worst;
      Iso9660_CloseFile(vol, file);
    }
  }
  Iso9660_CloseDir(vol, dir);
  return worst;
}

TEST_F(Iso9660Hostile, ReadErrorsAnywhereAreCleanFailures) {
  std::string img = ReadFile(image_);
  int ioErrors = 0;
  for (int budget = 0; budget < 200; budget += 3) {
    LogCapture capture;
    Iso9660Volume *vol = nullptr;
    Iso9660Result rc = Iso9660_OpenReader(
        std::make_unique<FailingReader>(MemoryReader(img), budget), ISO9660_FORMAT_ROCKRIDGE, &vol);
    if (rc == ISO9660_OK) {
      rc = WalkAll(vol, "", 0);
      EXPECT_EQ(ISO9660_OK, Iso9660_Close(vol));
    }
    EXPECT_TRUE(rc == ISO9660_OK || rc == ISO9660_ERR_IO || rc == ISO9660_ERR_NOT_ISO) << rc;
    if (rc == ISO9660_ERR_IO) {
      ++ioErrors;
      EXPECT_TRUE(capture.contains("ISO9660: cannot read")) << capture.all();
    }
  }
  EXPECT_GT(ioErrors, 10);
}

}  // namespace
