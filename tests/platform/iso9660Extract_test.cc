// Extraction from ISO 9660 images mastered by xorriso and genisoimage,
// checked against osirrox's own extraction of the same images, and against
// hostile images (patched Rock Ridge names, symlink entries) and hostile
// host directories (planted symlinks). Every refusal must leave everything
// outside the target directory as it was.
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/iso9660/iso9660.h"
#include "support/testSupport.h"

// Internal entry point with caller-chosen bounds (iso9660Extract.cc).

namespace {

namespace fs = std::filesystem;
using testing_support::HaveTool;
using testing_support::LogCapture;
using testing_support::ReadFile;
using testing_support::RunCommand;
using testing_support::TempDir;
using testing_support::WriteFile;

constexpr uint32_t kAllFormats =
    ISO9660_FORMAT_ISO | ISO9660_FORMAT_JOLIET | ISO9660_FORMAT_ROCKRIDGE;

struct Volume {
  Iso9660Volume *v = nullptr;
  ~Volume() {
    if (v != nullptr) {
      Iso9660_Close(v);
    }
  }
};

// Everything below root (links not followed), optionally minus one subtree:
// "d" for a directory, "f:" + bytes (or size#hash) for a file, "l:" + target
// for a link.
std::map<std::string, std::string> Snapshot(const fs::path &root, const fs::path &skip = {}) {
  std::map<std::string, std::string> out;
  for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
       ++it) {
    const fs::path &p = it->path();
    if (!skip.empty() && p == skip) {
      it.disable_recursion_pending();
      continue;
    }
    std::string rel = fs::relative(p, root).string();
    if (it->is_symlink()) {
      out[rel] = "l:" + fs::read_symlink(p).string();
    } else if (it->is_directory()) {
      out[rel] = "d";
    } else {
      // Large files by size and hash, so a failing comparison stays readable.
      std::string data = ReadFile(p);
      out[rel] = data.size() <= 64 ? "f:" + data
                                   : "f:" + std::to_string(data.size()) + "#" +
                                         std::to_string(std::hash<std::string>{}(data));
    }
  }
  return out;
}

void MakeTree(const fs::path &root) {
  std::mt19937 rng(42);
  std::string big(3'000'000, '\0');  // several copy chunks
  for (char &c : big) {
    c = static_cast<char>(rng());
  }
  fs::create_directories(root / "sub" / "deep");
  WriteFile(root / "readme.txt", "hello\n");
  WriteFile(root / "empty", "");
  WriteFile(root / "Mixed Case Name.TXT", "mixed\n");
  WriteFile(root / "sub" / "big.bin", big);
  WriteFile(root / "sub" / "deep" / "f", "deep\n");
}

void Master(const std::vector<std::string> &argv) {
  testing_support::CommandResult r = RunCommand(argv);
  ASSERT_EQ(r.exitCode, 0) << r.output;
}

void Patch(const fs::path &image, const std::string &from, const std::string &to) {
  ASSERT_EQ(from.size(), to.size());
  std::string data = ReadFile(image);
  size_t at = data.find(from);
  ASSERT_NE(at, std::string::npos) << "pattern not in image";
  ASSERT_EQ(data.find(from, at + 1), std::string::npos) << "pattern not unique";
  data.replace(at, to.size(), to);
  WriteFile(image, data);
}

// The Rock Ridge NM field of a plain name: "NM", length, version 1, flags 0.
std::string NmField(const std::string &name) {
  return std::string("NM") + static_cast<char>(5 + name.size()) + '\x01' + '\0' + name;
}

bool HasTempResidue(const fs::path &root) {
  for (const auto &e : fs::recursive_directory_iterator(root)) {
    if (e.path().filename().string().rfind(".gp-extract", 0) == 0) {
      return true;
    }
  }
  return false;
}

// Test parameters print as their label, not as a byte dump.
template <typename T>
requires requires(const T &t) {
  t.label;
}
void PrintTo(const T &param, std::ostream *os) {
  *os << param.label;
}

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

  void Open(uint32_t formats = kAllFormats) {
    ASSERT_EQ(Iso9660_Open(image().c_str(), formats, &vol_.v), ISO9660_OK);
  }

  TempDir tmp_;
  Volume vol_;
};

struct MasterCase {
  const char *label;
  std::vector<std::string> tool;  // mastering command without -o and the tree
  uint32_t formats;
};

class Iso9660ExtractMatchTest : public Iso9660ExtractTest,
                                public ::testing::WithParamInterface<MasterCase> {};

// The tree, one subtree and one file, each against osirrox on the same image.
TEST_P(Iso9660ExtractMatchTest, MatchesOsirrox) {
  const MasterCase &c = GetParam();
  if (!HaveTool(c.tool[0])) {
    GTEST_SKIP() << c.tool[0] << " not installed";
  }
  MakeTree(tmp_ / "tree");
  std::vector<std::string> argv = c.tool;
  argv.insert(argv.end(), {"-o", image().string(), (tmp_ / "tree").string()});
  Master(argv);
  Open(c.formats);

  struct Extraction {
    const char *path;
    const char *osirroxTarget;  // below ref/, where osirrox puts the same thing
  };
  int n = 0;
  for (const Extraction &x :
       {Extraction{"/", ""}, Extraction{"/sub", ""}, Extraction{"/sub/big.bin", "big.bin"}}) {
    SCOPED_TRACE(x.path);
    // Fresh directories each time: osirrox leaves Joliet trees read-only.
    fs::path mine = tmp_ / ("mine" + std::to_string(n));
    fs::path ref = tmp_ / ("ref" + std::to_string(n++));
    fs::create_directories(mine);
    fs::create_directories(ref);
    ASSERT_EQ(Iso9660_Extract(vol_.v, x.path, mine.c_str()), ISO9660_OK);
    Master({"osirrox", "-indev", image().string(), "-extract", x.path,
            (ref / x.osirroxTarget).string()});
    auto expected = Snapshot(ref);
    EXPECT_GE(expected.size(), 1u);
    EXPECT_EQ(Snapshot(mine), expected);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Masters, Iso9660ExtractMatchTest,
    ::testing::Values(
        MasterCase{
            "XorrisoRockRidgeJoliet", {"xorriso", "-as", "mkisofs", "-R", "-J"}, kAllFormats},
        MasterCase{"XorrisoJolietOnly",
                   {"xorriso", "-as", "mkisofs", "--norock", "-J"},
                   ISO9660_FORMAT_JOLIET},
        MasterCase{"GenisoimageRockRidge", {"genisoimage", "-quiet", "-R"}, kAllFormats}),
    [](const ::testing::TestParamInfo<MasterCase> &info) { return info.param.label; });

TEST_F(Iso9660ExtractTest, ModesAreNormalised) {
  fs::create_directories(tmp_ / "tree" / "d");
  WriteFile(tmp_ / "tree" / "suid", "x");
  WriteFile(tmp_ / "tree" / "private", "y");
  chmod((tmp_ / "tree" / "suid").c_str(), 04755);
  chmod((tmp_ / "tree" / "private").c_str(), 0600);
  chmod((tmp_ / "tree" / "d").c_str(), 0700);
  Master({"xorriso", "-as", "mkisofs", "-R", "-o", image().string(), (tmp_ / "tree").string()});
  Open();
  ASSERT_EQ(Iso9660_Extract(vol_.v, "/", out().c_str()), ISO9660_OK);
  auto mode = [](const fs::path &p) {
    struct stat st;
    EXPECT_EQ(lstat(p.c_str(), &st), 0);
    return st.st_mode & 07777;
  };
  EXPECT_EQ(mode(out() / "suid"), 0755u);
  EXPECT_EQ(mode(out() / "private"), 0644u);
  EXPECT_EQ(mode(out() / "d"), 0755u);
}

// Callers re-extract over an earlier run: stale files are replaced, files
// the image does not name stay, no temporaries are left.
TEST_F(Iso9660ExtractTest, ReExtractionReplacesEarlierRun) {
  MakeTree(tmp_ / "tree");
  Master({"xorriso", "-as", "mkisofs", "-R", "-o", image().string(), (tmp_ / "tree").string()});
  Open();
  ASSERT_EQ(Iso9660_Extract(vol_.v, "/", out().c_str()), ISO9660_OK);
  auto first = Snapshot(out());
  WriteFile(out() / "readme.txt", "stale, and longer than the original\n");
  WriteFile(out() / "sub" / "deep" / "f", "");
  WriteFile(out() / "sub" / "keep.txt", "mine\n");
  ASSERT_EQ(Iso9660_Extract(vol_.v, "/", out().c_str()), ISO9660_OK);
  auto second = Snapshot(out());
  EXPECT_EQ(second["sub/keep.txt"], "f:mine\n");
  second.erase("sub/keep.txt");
  EXPECT_EQ(second, first);
  EXPECT_FALSE(HasTempResidue(out()));
}

struct HostTrap {
  const char *label;
  const char *imagePath;  // what is extracted
  const char *planted;    // name below out/ that is planted
  enum { kLinkToFile, kLinkToDir, kDirectory } kind;
  const char *logNeedle;
};

class Iso9660ExtractHostTrapTest : public Iso9660ExtractTest,
                                   public ::testing::WithParamInterface<HostTrap> {};

// A host entry in the place of an image entry is never followed or replaced.
TEST_P(Iso9660ExtractHostTrapTest, RefusedAndOutsideUntouched) {
  const HostTrap &c = GetParam();
  MakeTree(tmp_ / "tree");
  Master({"xorriso", "-as", "mkisofs", "-R", "-o", image().string(), (tmp_ / "tree").string()});
  Open();
  WriteFile(outside() / "target.txt", "outside\n");
  fs::create_directories(outside() / "dir");
  switch (c.kind) {
    case HostTrap::kLinkToFile:
      fs::create_symlink(outside() / "target.txt", out() / c.planted);
      break;
    case HostTrap::kLinkToDir:
      fs::create_symlink(outside() / "dir", out() / c.planted);
      break;
    case HostTrap::kDirectory:
      fs::create_directories(out() / c.planted);
      break;
  }
  auto before = Snapshot(tmp_.path());
  LogCapture log;
  EXPECT_EQ(Iso9660_Extract(vol_.v, c.imagePath, out().c_str()), ISO9660_ERR_UNSAFE);
  EXPECT_TRUE(log.contains(c.logNeedle)) << log.all();
  EXPECT_EQ(Snapshot(tmp_.path()), before);
}

INSTANTIATE_TEST_SUITE_P(
    Traps, Iso9660ExtractHostTrapTest,
    ::testing::Values(
        HostTrap{"FileOverLinkInTree", "/", "readme.txt", HostTrap::kLinkToFile, "readme.txt"},
        HostTrap{"FileOverLinkAlone", "/readme.txt", "readme.txt", HostTrap::kLinkToFile,
                 "readme.txt"},
        HostTrap{"DirOverLink", "/", "sub", HostTrap::kLinkToDir, "sub"},
        HostTrap{"FileOverLinkToDir", "/sub/big.bin", "big.bin", HostTrap::kLinkToDir, "big.bin"},
        HostTrap{"FileOverDirectory", "/", "readme.txt", HostTrap::kDirectory, "readme.txt"}),
    [](const ::testing::TestParamInfo<HostTrap> &info) { return info.param.label; });

struct HostileImage {
  const char *label;
  std::vector<std::string> files;    // planted below the tree (before "aaa" and "sub/aaa")
  std::string from, to;              // patched image bytes (same length), or none
  std::vector<std::string> symlink;  // name, target: a Rock Ridge symlink entry
  Iso9660Result expected;
  const char *logNeedle;
};

class Iso9660ExtractHostileTest : public Iso9660ExtractTest,
                                  public ::testing::WithParamInterface<HostileImage> {};

// Good files are read before the bad entry: they must be gone again too.
TEST_P(Iso9660ExtractHostileTest, RefusedWithNothingWritten) {
  const HostileImage &c = GetParam();
  fs::path tree = tmp_ / "tree";
  fs::create_directories(tree / "sub");
  WriteFile(tree / "aaa_good.txt", "good\n");
  WriteFile(tree / "sub" / "aaa_good.txt", "good\n");
  for (const std::string &f : c.files) {
    WriteFile(tree / f, "planted " + f + "\n");
  }
  if (!c.symlink.empty()) {
    fs::create_symlink(c.symlink[1], tree / c.symlink[0]);
  }
  Master({"xorriso", "-as", "mkisofs", "-R", "-o", image().string(), tree.string()});
  if (!c.from.empty()) {
    Patch(image(), c.from, c.to);
  }
  Open(ISO9660_FORMAT_ROCKRIDGE);
  auto before = Snapshot(tmp_.path());
  LogCapture log;
  EXPECT_EQ(Iso9660_Extract(vol_.v, "/", out().c_str()), c.expected);
  EXPECT_TRUE(log.contains(c.logNeedle)) << log.all();
  EXPECT_EQ(Snapshot(tmp_.path()), before);
  EXPECT_TRUE(fs::is_empty(out()));
}

INSTANTIATE_TEST_SUITE_P(
    Images, Iso9660ExtractHostileTest,
    ::testing::Values(
        // The reader already refuses these names as corrupt records; the
        // extraction's own name check stands behind it.
        HostileImage{"NameDotDot",
                     {"sub/Qz"},
                     NmField("Qz"),
                     NmField(".."),
                     {},
                     ISO9660_ERR_CORRUPT,
                     "\"..\""},
        HostileImage{
            "NameDot", {"sub/Q"}, NmField("Q"), NmField("."), {}, ISO9660_ERR_CORRUPT, "\".\""},
        HostileImage{"NameWithSlashes",
                     {"sub/qa1234567"},
                     NmField("qa1234567"),
                     NmField("a/../../x"),
                     {},
                     ISO9660_ERR_CORRUPT,
                     "a/../../x"},
        HostileImage{"DuplicateName",
                     {"sub/dupname1", "sub/dupname2"},
                     NmField("dupname2"),
                     NmField("dupname1"),
                     {},
                     ISO9660_ERR_UNSAFE,
                     "duplicate name"},
        HostileImage{"SymlinkAbsolute",
                     {},
                     "",
                     "",
                     {"sub/zlink", "/etc/passwd"},
                     ISO9660_ERR_UNSAFE,
                     "zlink"},
        HostileImage{
            "SymlinkRelative", {}, "", "", {"sub/zlink", "../../x"}, ISO9660_ERR_UNSAFE, "zlink"}),
    [](const ::testing::TestParamInfo<HostileImage> &info) { return info.param.label; });

// A subdirectory record pointing back at the root would make the tree
// infinite (and exponential with two of them).
TEST_F(Iso9660ExtractTest, DirectoryLoopFailsCleanly) {
  fs::create_directories(tmp_ / "tree" / "loopdir");
  WriteFile(tmp_ / "tree" / "loopdir" / "f", "f\n");
  Master({"xorriso", "-as", "mkisofs", "-R", "-o", image().string(), (tmp_ / "tree").string()});
  std::string data = ReadFile(image());
  constexpr size_t kRootRecord = 16 * 2048 + 156;  // in the primary volume descriptor
  size_t name = data.find("\x07LOOPDIR");          // length byte, then the primary name
  ASSERT_NE(name, std::string::npos);
  ASSERT_EQ(data.find("\x07LOOPDIR", name + 1), std::string::npos);
  data.replace(name - 32 + 2, 8, data.substr(kRootRecord + 2, 8));  // both-endian extent
  WriteFile(image(), data);
  Open();
  auto before = Snapshot(tmp_.path());
  LogCapture log;
  EXPECT_EQ(Iso9660_Extract(vol_.v, "/", out().c_str()), ISO9660_ERR_CORRUPT);
  EXPECT_TRUE(log.contains("directory loop at \"/loopdir\"")) << log.all();
  EXPECT_EQ(Snapshot(tmp_.path()), before);
}

TEST_F(Iso9660ExtractTest, SymlinkEntryRefusedWhenNamedDirectly) {
  fs::create_directories(tmp_ / "tree");
  fs::create_symlink("/etc/passwd", tmp_ / "tree" / "passwd");
  Master({"xorriso", "-as", "mkisofs", "-R", "-o", image().string(), (tmp_ / "tree").string()});
  Open();
  LogCapture log;
  EXPECT_EQ(Iso9660_Extract(vol_.v, "/passwd", out().c_str()), ISO9660_ERR_UNSAFE);
  EXPECT_EQ(Iso9660_ExtractFileEx(vol_.v, "/passwd", (out() / "p").c_str()), ISO9660_ERR_UNSAFE);
  EXPECT_TRUE(log.contains("/passwd")) << log.all();
  EXPECT_TRUE(fs::is_empty(out()));
}

struct LimitCase {
  const char *label;
  Iso9660ExtractLimits limits;
  const char *path;
};

class Iso9660ExtractLimitTest : public Iso9660ExtractTest,
                                public ::testing::WithParamInterface<LimitCase> {};

TEST_P(Iso9660ExtractLimitTest, FailsCleanly) {
  const LimitCase &c = GetParam();
  MakeTree(tmp_ / "tree");
  Master({"xorriso", "-as", "mkisofs", "-R", "-o", image().string(), (tmp_ / "tree").string()});
  Open();
  LogCapture log;
  EXPECT_EQ(Iso9660_ExtractWithLimits(vol_.v, c.path, out().c_str(), &c.limits), ISO9660_ERR_LIMIT);
  EXPECT_EQ(log.lines().size(), 1u) << log.all();
  EXPECT_TRUE(fs::is_empty(out()));
}

INSTANTIATE_TEST_SUITE_P(
    Limits, Iso9660ExtractLimitTest,
    ::testing::Values(LimitCase{"Entries", {64, 5, 1ULL << 30}, "/"},
                      LimitCase{"Depth", {1, 1000, 1ULL << 30}, "/"},
                      LimitCase{"BytesOfTree", {64, 1000, 1'000'000}, "/"},
                      LimitCase{"BytesOfFile", {64, 1000, 2'999'999}, "/sub/big.bin"}),
    [](const ::testing::TestParamInfo<LimitCase> &info) { return info.param.label; });

TEST_F(Iso9660ExtractTest, BadArgumentsAndHostDirs) {
  MakeTree(tmp_ / "tree");
  Master({"xorriso", "-as", "mkisofs", "-R", "-o", image().string(), (tmp_ / "tree").string()});
  Open();
  WriteFile(tmp_ / "plain", "x");
  struct Case {
    const char *path;
    fs::path hostDir;
    Iso9660Result expected;
  } cases[] = {
      {"/", tmp_ / "missing", ISO9660_ERR_HOST},
      {"/", tmp_ / "plain", ISO9660_ERR_HOST},
      {"/no/such", out(), ISO9660_ERR_NOT_FOUND},
  };
  for (const Case &c : cases) {
    LogCapture log;
    EXPECT_EQ(Iso9660_Extract(vol_.v, c.path, c.hostDir.c_str()), c.expected) << c.hostDir;
    EXPECT_FALSE(log.lines().empty());
  }
  EXPECT_EQ(Iso9660_Extract(nullptr, "/", out().c_str()), ISO9660_ERR_INVALID_ARG);
  EXPECT_EQ(Iso9660_Extract(vol_.v, nullptr, out().c_str()), ISO9660_ERR_INVALID_ARG);
  EXPECT_EQ(Iso9660_Extract(vol_.v, "/", nullptr), ISO9660_ERR_INVALID_ARG);
  EXPECT_TRUE(fs::is_empty(out()));
}

struct FileExCase {
  const char *label;
  const char *imagePath;
  enum { kNone, kRegular, kDirectory, kLink, kNoParent } target;
  Iso9660Result expected;
};

class Iso9660ExtractFileExTest : public Iso9660ExtractTest,
                                 public ::testing::WithParamInterface<FileExCase> {};

TEST_P(Iso9660ExtractFileExTest, WritesOrRefuses) {
  const FileExCase &c = GetParam();
  MakeTree(tmp_ / "tree");
  Master(
      {"xorriso", "-as", "mkisofs", "-R", "-J", "-o", image().string(), (tmp_ / "tree").string()});
  Open();
  WriteFile(outside() / "target.txt", "outside\n");
  fs::path target = out() / "manifest.txt.iso.shipped";
  switch (c.target) {
    case FileExCase::kNone:
      break;
    case FileExCase::kRegular:
      WriteFile(target, "old manifest, longer than the new one by far\n");
      break;
    case FileExCase::kDirectory:
      fs::create_directories(target);
      break;
    case FileExCase::kLink:
      fs::create_symlink(outside() / "target.txt", target);
      break;
    case FileExCase::kNoParent:
      target = out() / "nodir" / "manifest.txt";
      break;
  }
  auto outsideBefore = Snapshot(tmp_.path(), out());
  auto outBefore = Snapshot(out());
  LogCapture log;
  EXPECT_EQ(Iso9660_ExtractFileEx(vol_.v, c.imagePath, target.c_str()), c.expected);
  EXPECT_EQ(Snapshot(tmp_.path(), out()), outsideBefore);
  EXPECT_FALSE(HasTempResidue(out()));
  if (c.expected == ISO9660_OK) {
    Master(
        {"osirrox", "-indev", image().string(), "-extract", c.imagePath, (tmp_ / "ref").string()});
    EXPECT_EQ(ReadFile(target), ReadFile(tmp_ / "ref"));
    EXPECT_TRUE(log.lines().empty()) << log.all();
  } else {
    EXPECT_EQ(Snapshot(out()), outBefore);
    EXPECT_FALSE(log.lines().empty());
  }
}

INSTANTIATE_TEST_SUITE_P(
    Targets, Iso9660ExtractFileExTest,
    ::testing::Values(
        FileExCase{"New", "/readme.txt", FileExCase::kNone, ISO9660_OK},
        FileExCase{"ReplacesRegular", "/sub/big.bin", FileExCase::kRegular, ISO9660_OK},
        FileExCase{"EmptyFile", "/empty", FileExCase::kRegular, ISO9660_OK},
        FileExCase{"RefusesDirectory", "/readme.txt", FileExCase::kDirectory, ISO9660_ERR_UNSAFE},
        FileExCase{"RefusesLink", "/readme.txt", FileExCase::kLink, ISO9660_ERR_UNSAFE},
        FileExCase{"MissingParent", "/readme.txt", FileExCase::kNoParent, ISO9660_ERR_HOST},
        FileExCase{"ImageDirectory", "/sub", FileExCase::kNone, ISO9660_ERR_INVALID_ARG},
        FileExCase{"ImageMissing", "/nothing", FileExCase::kNone, ISO9660_ERR_NOT_FOUND}),
    [](const ::testing::TestParamInfo<FileExCase> &info) { return info.param.label; });

}  // namespace
