// Extraction from ISO 9660 images mastered by xorriso and genisoimage,
// checked against osirrox's extraction of the same images, and against
// hostile images and hostile host directories: every refusal must leave
// everything outside the target directory as it was.
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/iso9660/iso9660.h"
#include "support/imageFixtures.h"
#include "support/isoWriter.h"
#include "support/testSupport.h"

namespace {

namespace fs = std::filesystem;
using namespace testing_support;

constexpr uint32_t kAllFormats =
    ISO9660_FORMAT_ISO | ISO9660_FORMAT_JOLIET | ISO9660_FORMAT_ROCKRIDGE;

void MakeTree(const fs::path &root) {
  std::string big(3'000'000, '\0');  // several copy chunks
  std::generate(big.begin(), big.end(), std::mt19937(42));
  WriteFile(root / "readme.txt", "hello\n");
  WriteFile(root / "empty", "");
  WriteFile(root / "Mixed Case Name.TXT", "mixed\n");
  WriteFile(root / "sub" / "big.bin", big);
  WriteFile(root / "sub" / "deep" / "f", "deep\n");
}

void Osirrox(const fs::path &image, const std::string &path, const fs::path &target) {
  CommandResult r =
      RunCommand({"osirrox", "-indev", image.string(), "-extract", path, target.string()});
  ASSERT_EQ(0, r.exitCode) << r.output;
}

bool HasTempResidue(const fs::path &root) {
  return std::any_of(fs::recursive_directory_iterator(root), {}, [](const fs::directory_entry &e) {
    return e.path().filename().string().rfind(".gp-extract", 0) == 0;
  });
}

using testing_support::PrintTo;  // parameters print as their label

class Iso9660ExtractTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!HaveTool("xorriso") || !HaveTool("osirrox")) {
      GTEST_SKIP() << "xorriso not installed";
    }
    fs::create_directories(out());
    fs::create_directories(outside());
  }
  fs::path out() const { return tmp_ / "out"; }
  fs::path outside() const { return tmp_ / "outside"; }
  fs::path image() const { return tmp_ / "image.iso"; }

  // Masters tmp/tree (the standard one unless made already) and opens it.
  void MasterAndOpen(const std::vector<std::string> &options = {"-R"},
                     const std::string &tool = "xorriso", uint32_t formats = kAllFormats) {
    if (!fs::exists(tmp_ / "tree")) {
      MakeTree(tmp_ / "tree");
    }
    ASSERT_NO_FATAL_FAILURE(Master(tool, options, image(), tmp_ / "tree"));
    ASSERT_EQ(Iso9660_Open(image().c_str(), formats, &vol_.v), ISO9660_OK);
  }

  TempDir tmp_;
  IsoVolume vol_;
};

struct MasterCase {
  const char *label;
  const char *tool;
  std::vector<std::string> options;
  uint32_t formats;
};

class Iso9660ExtractMatchTest : public Iso9660ExtractTest,
                                public ::testing::WithParamInterface<MasterCase> {};

// The tree, one subtree and one file, each against osirrox on the same image.
TEST_P(Iso9660ExtractMatchTest, MatchesOsirrox) {
  const MasterCase &c = GetParam();
  if (!HaveTool(c.tool)) {
    GTEST_SKIP() << c.tool << " not installed";
  }
  ASSERT_NO_FATAL_FAILURE(MasterAndOpen(c.options, c.tool, c.formats));
  int n = 0;
  for (const auto &[path, osirroxTarget] :  // where osirrox puts the same thing, below ref
       {std::pair{"/", ""}, std::pair{"/sub", ""}, std::pair{"/sub/big.bin", "big.bin"}}) {
    SCOPED_TRACE(path);
    // Fresh directories each time: osirrox leaves Joliet trees read-only.
    fs::path mine = tmp_ / ("mine" + std::to_string(n)), ref = tmp_ / ("ref" + std::to_string(n++));
    fs::create_directories(mine);
    fs::create_directories(ref);
    ASSERT_EQ(Iso9660_Extract(vol_, path, mine.c_str()), ISO9660_OK);
    Osirrox(image(), path, ref / osirroxTarget);
    auto expected = Snapshot(ref);
    EXPECT_GE(expected.size(), 1u);
    EXPECT_EQ(Snapshot(mine), expected);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Masters, Iso9660ExtractMatchTest,
    ::testing::Values(
        MasterCase{"XorrisoRockRidgeJoliet", "xorriso", {"-R", "-J"}, kAllFormats},
        MasterCase{"XorrisoJolietOnly", "xorriso", {"--norock", "-J"}, ISO9660_FORMAT_JOLIET},
        MasterCase{"GenisoimageRockRidge", "genisoimage", {"-R"}, kAllFormats}),
    LabelName());

// Modes are normalised (no setuid, no private files); callers re-extract
// over an earlier run: stale files are replaced, files the image does not
// name stay, no temporaries are left.
TEST_F(Iso9660ExtractTest, ModesAndReExtraction) {
  MakeTree(tmp_ / "tree");
  for (const auto &[name, mode] : {std::pair{"suid", 04755}, {"private", 0600}, {"d/f", 0644}}) {
    WriteFile(tmp_ / "tree" / name, name);
    chmod((tmp_ / "tree" / name).c_str(), mode);
  }
  chmod((tmp_ / "tree" / "d").c_str(), 0700);
  ASSERT_NO_FATAL_FAILURE(MasterAndOpen());
  ASSERT_EQ(Iso9660_Extract(vol_, "/", out().c_str()), ISO9660_OK);
  for (const auto &[name, mode] : {std::pair{"suid", 0755u}, {"private", 0644u}, {"d", 0755u}}) {
    struct stat st;
    ASSERT_EQ(lstat((out() / name).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, mode) << name;
  }
  auto first = Snapshot(out());
  WriteFile(out() / "readme.txt", "stale, and longer than the original\n");
  WriteFile(out() / "sub" / "deep" / "f", "");
  WriteFile(out() / "sub" / "keep.txt", "mine\n");
  ASSERT_EQ(Iso9660_Extract(vol_, "/", out().c_str()), ISO9660_OK);
  auto second = Snapshot(out());
  EXPECT_EQ(second["sub/keep.txt"], "f:mine\n");
  second.erase("sub/keep.txt");
  EXPECT_EQ(second, first);
  EXPECT_FALSE(HasTempResidue(out()));
}

// Swaps the one Rock Ridge name entry of the image for another of its size.
std::function<void(std::string &)> Rename(const std::string &from, const std::string &to) {
  return [from = IsoWriter::Nm(from), to = IsoWriter::Nm(to)](std::string &data) {
    size_t at = data.find(from);
    ASSERT_TRUE(at != std::string::npos && data.find(from, at + 1) == std::string::npos);
    ASSERT_EQ(from.size(), to.size());
    data.replace(at, to.size(), to);
  };
}

struct HostileImage {
  const char *label;
  std::vector<std::string> plant;  // below the tree, after "aaa_good.txt"; "name>target": a link
  std::function<void(std::string &)> patch;
  Iso9660Result expected;
  const char *logNeedle;
  const char *path = "/";  // what is extracted (a file also by Iso9660_ExtractFileEx)
  std::optional<Iso9660ExtractLimits> limits = {};
};

class Iso9660ExtractHostileTest : public Iso9660ExtractTest,
                                  public ::testing::WithParamInterface<HostileImage> {};

// Good files are read before the bad entry or the limit: they must be gone
// again too.
TEST_P(Iso9660ExtractHostileTest, RefusedWithNothingWritten) {
  const HostileImage &c = GetParam();
  fs::path tree = tmp_ / "tree";
  WriteFile(tree / "aaa_good.txt", "good\n");
  WriteFile(tree / "sub" / "aaa_good.txt", "good\n");
  for (const std::string &p : c.plant) {
    size_t arrow = p.find('>');
    if (arrow == std::string::npos) {
      WriteFile(tree / p, "planted " + p + "\n");
    } else {
      fs::create_symlink(p.substr(arrow + 1), tree / p.substr(0, arrow));
    }
  }
  ASSERT_NO_FATAL_FAILURE(Master("xorriso", {"-R"}, image(), tree));
  if (c.patch) {
    std::string data = ReadFile(image());
    ASSERT_NO_FATAL_FAILURE(c.patch(data));
    WriteFile(image(), data);
  }
  ASSERT_EQ(Iso9660_Open(image().c_str(), ISO9660_FORMAT_ROCKRIDGE, &vol_.v), ISO9660_OK);
  auto before = Snapshot(tmp_.path());
  for (bool fileEx : {false, true}) {
    if (fileEx && (c.path == std::string("/") || c.limits)) {
      continue;
    }
    LogCapture log;
    EXPECT_EQ(c.expected, fileEx ? Iso9660_ExtractFileEx(vol_, c.path, (out() / "f").c_str())
                          : c.limits
                              ? Iso9660_ExtractWithLimits(vol_, c.path, out().c_str(), &*c.limits)
                              : Iso9660_Extract(vol_, c.path, out().c_str()));
    // One line of the extraction's; the reader adds its own for damage, once per volume.
    size_t reader = std::count_if(log.lines().begin(), log.lines().end(),
                                  [](const auto &line) { return line.rfind("ISO9660: ", 0) == 0; });
    EXPECT_EQ(1u, log.lines().size() - reader) << log.all();
    EXPECT_LE(reader, 1u) << log.all();
    EXPECT_TRUE(log.contains(c.logNeedle)) << log.all();
  }
  EXPECT_EQ(Snapshot(tmp_.path()), before);
  EXPECT_TRUE(fs::is_empty(out()));
}

// A subdirectory record pointing back at the root would make the tree
// infinite (and exponential with two of them).
void LoopToRoot(std::string &data) {
  constexpr size_t kRootRecord = 16 * 2048 + 156;  // in the primary volume descriptor
  size_t name = data.find("\x07LOOPDIR");          // length byte, then the primary name
  ASSERT_NE(name, std::string::npos);
  ASSERT_EQ(data.find("\x07LOOPDIR", name + 1), std::string::npos);
  data.replace(name - 32 + 2, 8, data.substr(kRootRecord + 2, 8));  // both-endian extent
}

// The intact tree (two files of 5 bytes, one of them in "sub") extracted
// within limits it exceeds.
HostileImage Limit(const char *label, Iso9660ExtractLimits limits, const char *needle,
                   const char *path = "/") {
  return {label, {}, nullptr, ISO9660_ERR_LIMIT, needle, path, limits};
}

// The reader leaves records with bad names out and fails the copy of their
// directory as corrupt; the extraction's own name check stands behind it.
const HostileImage kHostileImages[] = {
    {"NameDotDot", {"sub/Qz"}, Rename("Qz", ".."), ISO9660_ERR_CORRUPT, "\"..\""},
    {"NameWithSlashes",
     {"sub/qa1234567"},
     Rename("qa1234567", "a/../../x"),
     ISO9660_ERR_CORRUPT,
     "a/../../x"},
    {"DuplicateName",
     {"sub/dupname1", "sub/dupname2"},
     Rename("dupname2", "dupname1"),
     ISO9660_ERR_UNSAFE,
     "duplicate name"},
    {"SymlinkAbsolute", {"sub/zlink>/etc/passwd"}, nullptr, ISO9660_ERR_UNSAFE, "zlink"},
    {"SymlinkRelative", {"sub/zlink>../../x"}, nullptr, ISO9660_ERR_UNSAFE, "zlink"},
    {"SymlinkNamedDirectly",
     {"passwd>/etc/passwd"},
     nullptr,
     ISO9660_ERR_UNSAFE,
     "/passwd",
     "/passwd"},
    {"DirectoryLoop",
     {"loopdir/f"},
     LoopToRoot,
     ISO9660_ERR_CORRUPT,
     "directory loop at \"/loopdir\""},
    Limit("EntryLimit", {64, 2, 1ULL << 30}, "more than 2 entries"),
    Limit("DepthLimit", {0, 1000, 1ULL << 30}, "deeper than 0 levels"),
    Limit("ByteLimitOfTree", {64, 1000, 9}, "more than 9 bytes"),
    Limit("ByteLimitOfFile", {64, 1000, 4}, "more than 4 bytes", "/sub/aaa_good.txt"),
};
INSTANTIATE_TEST_SUITE_P(Images, Iso9660ExtractHostileTest, ::testing::ValuesIn(kHostileImages),
                         LabelName());

// What stands where an extraction writes: a host entry in the place of an
// image entry is never followed or replaced, and nothing outside out/
// changes. For Iso9660_ExtractFileEx, planted names the target file; for
// Iso9660_Extract, the thing planted in out/ (a missing or regular planted
// entry is itself the target directory).
struct HostCase {
  const char *label;
  bool fileEx;
  const char *imagePath;
  const char *planted;
  enum { kNone, kRegular, kLinkToFile, kLinkToDir, kDirectory, kMissingDir } kind;
  Iso9660Result expected;
};

class Iso9660ExtractHostTest : public Iso9660ExtractTest,
                               public ::testing::WithParamInterface<HostCase> {};

TEST_P(Iso9660ExtractHostTest, WritesOrRefusesAndOutsideUntouched) {
  const HostCase &c = GetParam();
  ASSERT_NO_FATAL_FAILURE(MasterAndOpen({"-R", "-J"}));
  WriteFile(outside() / "target.txt", "outside\n");
  fs::create_directories(outside() / "dir");
  fs::path target = out() / c.planted;
  if (c.kind == HostCase::kRegular) {
    WriteFile(target, "old contents, longer than the new ones by far\n");
  } else if (c.kind == HostCase::kDirectory) {
    fs::create_directories(target);
  } else if (c.kind == HostCase::kLinkToFile || c.kind == HostCase::kLinkToDir) {
    fs::create_symlink(outside() / (c.kind == HostCase::kLinkToDir ? "dir" : "target.txt"), target);
  } else if (c.kind == HostCase::kMissingDir) {
    target = out() / "nodir" / c.planted;
  }
  fs::path hostDir =
      c.kind == HostCase::kMissingDir || c.kind == HostCase::kRegular ? target : out();
  auto outsideBefore = Snapshot(tmp_.path(), out());
  auto outBefore = Snapshot(out());
  LogCapture log;
  EXPECT_EQ(c.expected, c.fileEx ? Iso9660_ExtractFileEx(vol_, c.imagePath, target.c_str())
                                 : Iso9660_Extract(vol_, c.imagePath, hostDir.c_str()));
  EXPECT_EQ(Snapshot(tmp_.path(), out()), outsideBefore);
  EXPECT_FALSE(HasTempResidue(out()));
  if (c.expected == ISO9660_OK) {
    Osirrox(image(), c.imagePath, tmp_ / "ref");
    EXPECT_EQ(ReadFile(target), ReadFile(tmp_ / "ref"));
    EXPECT_TRUE(log.lines().empty()) << log.all();
  } else {
    EXPECT_EQ(Snapshot(out()), outBefore);
    EXPECT_EQ(1u, log.lines().size()) << log.all();
    EXPECT_TRUE(c.expected != ISO9660_ERR_UNSAFE ||
                log.contains(c.fileEx ? c.imagePath : c.planted))
        << log.all();
  }
}

constexpr const char *kShipped = "manifest.txt.iso.shipped";
constexpr Iso9660Result kUnsafe = ISO9660_ERR_UNSAFE;
using K = HostCase;

const HostCase kHostCases[] = {
    {"FileOverLinkInTree", false, "/", "readme.txt", K::kLinkToFile, kUnsafe},
    {"DirOverLink", false, "/", "sub", K::kLinkToDir, kUnsafe},
    {"FileOverLinkToDir", false, "/sub/big.bin", "big.bin", K::kLinkToDir, kUnsafe},
    {"FileOverDirectory", false, "/", "readme.txt", K::kDirectory, kUnsafe},
    {"IntoMissingDir", false, "/", "missing", K::kMissingDir, ISO9660_ERR_HOST},
    {"IntoPlainFile", false, "/", "plain", K::kRegular, ISO9660_ERR_HOST},
    {"ImagePathMissing", false, "/no/such", "x", K::kNone, ISO9660_ERR_NOT_FOUND},
    {"FileExNew", true, "/readme.txt", kShipped, K::kNone, ISO9660_OK},
    {"FileExReplacesRegular", true, "/sub/big.bin", kShipped, K::kRegular, ISO9660_OK},
    {"FileExEmptyFile", true, "/empty", kShipped, K::kRegular, ISO9660_OK},
    {"FileExRefusesDirectory", true, "/readme.txt", kShipped, K::kDirectory, kUnsafe},
    {"FileExRefusesLink", true, "/readme.txt", kShipped, K::kLinkToFile, kUnsafe},
    {"FileExMissingParent", true, "/readme.txt", kShipped, K::kMissingDir, ISO9660_ERR_HOST},
    {"FileExImageDirectory", true, "/sub", kShipped, K::kNone, ISO9660_ERR_INVALID_ARG},
    {"FileExImageMissing", true, "/nothing", kShipped, K::kNone, ISO9660_ERR_NOT_FOUND},
};
INSTANTIATE_TEST_SUITE_P(Targets, Iso9660ExtractHostTest, ::testing::ValuesIn(kHostCases),
                         LabelName());

}  // namespace
