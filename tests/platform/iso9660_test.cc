// The ISO 9660 reader against images mastered by xorriso and genisoimage:
// listings and contents are checked against the source tree and against
// isoinfo's view of the same image.
#include "platform/iso9660/iso9660.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "support/imageFixtures.h"
#include "support/testSupport.h"

namespace fs = std::filesystem;
using namespace testing_support;

namespace {

using testing_support::PrintTo;  // parameters print as their label

struct Node {
  uint64_t size = 0;
  bool dir = false;
  std::string raw;  // the path as isoinfo names it (not compared)
  bool operator==(const Node &o) const { return size == o.size && dir == o.dir; }
};
using Listing = std::map<std::string, Node>;

std::ostream &operator<<(std::ostream &os, const Node &n) {
  return os << (n.dir ? "dir " : "file ") << n.size;
}

// ";1" and a trailing dot are not part of a primary name.
std::string PrimaryName(std::string name) {
  name.resize(std::min(name.size(), name.rfind(';')));
  if (name.size() > 1 && name.back() == '.') {
    name.pop_back();
  }
  return name;
}

// isoinfo's output, in the given name space ("", "-J", "-R").
std::string Isoinfo(std::vector<std::string> args, const std::string &nameSpace) {
  args.insert(args.begin(), "isoinfo");
  if (!nameSpace.empty()) {
    args.push_back(nameSpace);
  }
  CommandResult r = RunCommand(args);
  EXPECT_EQ(0, r.exitCode) << r.output;
  return r.output;
}

// isoinfo -l in the given name space ("", "-J", "-R"); parts of a
// multi-extent file are listed one line each (the flags of all but the last
// printed without their bracket) and summed here.
Listing IsoinfoListing(const std::string &image, const std::string &nameSpace) {
  std::string output = Isoinfo({"-l", "-i", image}, nameSpace);
  static const std::regex header("^Directory listing of (/.*)$");
  static const std::regex line(
      R"(^([-dlcbps])\S{9}\s+\d+\s+\d+\s+\d+\s+(\d+)\s+\S+\s+\d+\s+\d+\s+\[\s*\d+\s+[0-9A-Fa-f]+(?:\]\s\s|\s)(.*) $)");
  Listing out;
  std::string dir;
  std::istringstream in(output);
  std::string text;
  std::smatch m;
  while (std::getline(in, text)) {
    if (std::regex_match(text, m, header)) {
      dir = m[1].str().substr(1);  // "/A/B/" -> "A/B/"
      // Parent directories appear under their stored names in primary listings.
      if (nameSpace.empty()) {
        std::string clean;
        std::istringstream parts(dir);
        std::string part;
        while (std::getline(parts, part, '/')) {
          clean += PrimaryName(part) + "/";
        }
        dir = clean;
      }
    } else if (std::regex_match(text, m, line)) {
      std::string name = m[3].str();
      if (name == "." || name == "..") {
        continue;
      }
      std::string raw = "/" + dir + name;
      if (nameSpace.empty()) {
        name = PrimaryName(name);
      }
      Node &node = out[dir + name];
      node.raw = raw;
      node.dir = m[1].str() == "d";
      node.size += std::stoull(m[2].str());
    }
  }
  return out;
}

// The committed tree plus a directory spanning several sectors, a deep
// chain (deeper than the 8 levels plain ISO 9660 allows), a file of several
// sectors and case twins.
fs::path MakeSourceTree(const TempDir &tmp) {
  fs::path src = tmp / "src";
  fs::copy(DataDir() / "iso" / "tree", src, fs::copy_options::recursive);
  fs::create_directories(src / "many");
  for (int i = 0; i < 300; ++i) {
    char name[64];
    snprintf(name, sizeof name, "entry-with-a-fairly-long-name-%04d.txt", i);
    WriteFile(src / "many" / name, std::string(static_cast<size_t>(i % 7), 'a' + i % 26));
  }
  fs::path deep = src;
  for (int i = 1; i <= 11; ++i) {
    deep /= "d" + std::to_string(i);
  }
  fs::create_directories(deep);
  WriteFile(deep / "leaf.txt", "at the bottom\n");
  std::string big(100000, '\0');
  std::generate(big.begin(), big.end(), std::mt19937(12345));
  WriteFile(src / "docs" / "blob.bin", big);
  WriteFile(src / "Twin.Txt", "first twin\n");  // names that differ only in case
  WriteFile(src / "TWIN.TXT", "second twin\n");
  return src;
}

struct MasterCase {
  const char *label;
  const char *tool;
  std::vector<std::string> options;
  uint32_t expectFormats;
  uint32_t request;
  const char *nameSpace;  // isoinfo's switch for the names that should be used
};

class MasteredImage : public ::testing::TestWithParam<MasterCase> {};

TEST_P(MasteredImage, ListingAndContentsMatchTheToolsView) {
  const MasterCase &c = GetParam();
  if (!HaveTool(c.tool) || !HaveTool("isoinfo")) {
    GTEST_SKIP() << "needs " << c.tool << " and isoinfo";
  }
  TempDir tmp;
  fs::path src = MakeSourceTree(tmp);
  std::string image = (tmp / "image.iso").string();
  // A volume id padded to its 32 bytes, or filling them.
  std::string id =
      std::string(c.label) + (c.tool == std::string("genisoimage") ? "_VOLUME_ID" : "");
  std::vector<std::string> options = c.options;
  options.insert(options.end(), {"-V", id.substr(0, 32)});
  ASSERT_NO_FATAL_FAILURE(Master(c.tool, options, image, src));

  uint32_t formats = 0;
  ASSERT_EQ(ISO9660_OK, Iso9660_ListFormats(image.c_str(), &formats));
  EXPECT_EQ(c.expectFormats, formats);
  Listing ours;
  std::map<std::string, std::string> tree;  // as Snapshot shows a host tree
  IsoVolume vol(image, c.request);
  ASSERT_NE(nullptr, vol.v);
  auto seen = [&](const std::string &path, const Iso9660DirEntry &e, const std::string &data) {
    bool isDir = e.flags & ISO9660_ENTRY_DIRECTORY;
    EXPECT_TRUE(ours.emplace(path, Node{e.size64, isDir, {}}).second) << "twice: " << path;
    EXPECT_EQ(e.size64 > UINT32_MAX ? 0xFFFFFFFFu : e.size64, e.size) << path;
    tree[path] = isDir ? "d" : SnapshotFile(data);
  };
  EXPECT_EQ(ISO9660_OK, WalkIso(vol, "", seen));

  Listing theirs = IsoinfoListing(image, c.nameSpace);
  std::string ns = c.nameSpace;
  if (ns == "-R") {
    // isoinfo shows relocated deep directories where the image stores them,
    // the reader where they belong: compare what isoinfo sees in place, and
    // the whole tree with the source below.
    std::erase_if(theirs, [](const auto &kv) {
      return kv.first.rfind("rr_moved", 0) == 0 || kv.first.find("/d8") != std::string::npos;
    });
    for (const auto &[path, node] : theirs) {
      ASSERT_EQ(1u, ours.count(path)) << path;
      EXPECT_EQ(node, ours[path]) << path;
    }
  } else {
    EXPECT_EQ(theirs, ours);
  }
  if (ns == "-R" || ns == "-J") {
    // Rock Ridge and Joliet keep the source names: the same tree, the same bytes.
    tree.erase("rr_moved");
    EXPECT_EQ(Snapshot(src), tree);
  }
  // isoinfo's bytes for a few files, by the names it lists.
  int checked = 0;
  for (const auto &[path, node] : theirs) {
    if (!node.dir && path.find("many") == std::string::npos) {
      EXPECT_EQ(SnapshotFile(Isoinfo({"-i", image, "-x", node.raw}, ns)), tree[path]) << path;
      ++checked;
    }
  }
  EXPECT_GE(checked, 5);
  // isoinfo's volume id. Every name it lists is found by Iso9660_Stat and
  // Iso9660_Lookup: exactly, and caselessly as the first entry of its
  // directory with that name in any case; lookups between the reads of a
  // listing never move it.
  char *ourId = nullptr;
  ASSERT_EQ(ISO9660_OK, Iso9660_GetVolumeId(vol, &ourId));
  EXPECT_NE(std::string::npos,
            Isoinfo({"-d", "-i", image}, "").find("Volume id: " + std::string(ourId) + "\n"));
  free(ourId);
  auto e = std::make_unique<Iso9660DirEntry>();
  for (const auto &[path, node] : theirs) {
    size_t slash = path.rfind('/');
    std::string dirPath = slash == std::string::npos ? "" : path.substr(0, slash);
    std::string name = path.substr(slash + 1), upper = name, first;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    Iso9660Dir *dir = nullptr;
    ASSERT_EQ(ISO9660_OK, Iso9660_OpenDir(vol, dirPath.c_str(), &dir)) << path;
    while (first.empty() && Iso9660_ReadDir(vol, dir, e.get()) == ISO9660_OK) {
      first = strcasecmp(e->name, name.c_str()) == 0 ? e->name : "";
      EXPECT_EQ(ISO9660_OK, Iso9660_Lookup(vol, dir, name.c_str(), false, e.get())) << path;
    }
    EXPECT_EQ(node, (Node{e->size64, (e->flags & ISO9660_ENTRY_DIRECTORY) != 0, {}})) << path;
    EXPECT_EQ(ISO9660_OK, Iso9660_Lookup(vol, dir, upper.c_str(), true, e.get())) << path;
    EXPECT_EQ(first, e->name) << path;
    bool twin = theirs.count(dirPath.empty() ? upper : dirPath + "/" + upper) != 0;
    EXPECT_EQ(twin ? ISO9660_OK : ISO9660_ERR_NOT_FOUND,
              Iso9660_Lookup(vol, dir, upper.c_str(), false, e.get()))
        << path;
    EXPECT_EQ(ISO9660_OK, Iso9660_Stat(vol, path.c_str(), e.get())) << path;
    EXPECT_EQ(ISO9660_OK, Iso9660_CloseDir(vol, dir));
  }
}

constexpr uint32_t kAll = ISO9660_FORMAT_ISO | ISO9660_FORMAT_JOLIET | ISO9660_FORMAT_ROCKRIDGE;
constexpr uint32_t kIso = ISO9660_FORMAT_ISO, kJ = kIso | ISO9660_FORMAT_JOLIET,
                   kR = kIso | ISO9660_FORMAT_ROCKRIDGE, kAskR = ISO9660_FORMAT_ROCKRIDGE,
                   kAskJ = ISO9660_FORMAT_JOLIET;

INSTANTIATE_TEST_SUITE_P(
    Iso9660, MasteredImage,
    ::testing::Values(
        MasterCase{"xorrisoPlain", "xorriso", {"--norock"}, kIso, kAll, ""},
        MasterCase{"xorrisoJoliet", "xorriso", {"--norock", "-J"}, kJ, kAll, "-J"},
        MasterCase{"xorrisoRockRidge", "xorriso", {"-R"}, kR, kAll, "-R"},
        MasterCase{"xorrisoBothAskRockRidge", "xorriso", {"-R", "-J"}, kAll, kAskR, "-R"},
        MasterCase{"xorrisoBothAskJoliet", "xorriso", {"-R", "-J"}, kAll, kAskJ, "-J"},
        MasterCase{"xorrisoBothAskPrimary", "xorriso", {"-R", "-J"}, kAll, kIso, ""},
        MasterCase{"xorrisoLevel3Long", "xorriso", {"--norock", "-iso-level", "3"}, kIso, kAll, ""},
        MasterCase{"genisoimageJoliet", "genisoimage", {"-J", "-D"}, kJ, kAll, "-J"},
        MasterCase{"genisoimageRockRidge", "genisoimage", {"-R"}, kR, kAll, "-R"},
        MasterCase{"genisoimageBoth", "genisoimage", {"-R", "-J"}, kAll, kAskR, "-R"},
        MasterCase{"genisoimageBothAskJoliet", "genisoimage", {"-R", "-J"}, kAll, kAskJ, "-J"}),
    LabelName());

const fs::path kTree = DataDir() / "iso" / "tree";

// The committed tree plus entries of every kind, mastered once with every
// name set.
class Iso9660Small : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (HaveTool("xorriso")) {
      tmp_ = new TempDir;
      fs::copy(kTree, *tmp_ / "src", fs::copy_options::recursive);
      fs::path modes = *tmp_ / "src" / "modes";
      WriteFile(modes / "bin" / "tool", "#!/bin/sh\n");
      fs::permissions(modes / "bin" / "tool", fs::perms(0755));
      WriteFile(modes / "plain", "x");
      fs::permissions(modes / "plain", fs::perms(0640));
      fs::create_symlink("bin/tool", modes / "link");
      mkfifo((modes / "fifo").c_str(), 0600);
      Master("xorriso", {"-R", "-J"}, *tmp_ / "small.iso", *tmp_ / "src");
    }
  }
  static void TearDownTestSuite() {
    delete tmp_;
    tmp_ = nullptr;
  }
  void SetUp() override {
    if (tmp_ == nullptr) {
      GTEST_SKIP() << "needs xorriso";
    }
  }
  static std::string Image() { return (*tmp_ / "small.iso").string(); }
  static TempDir *tmp_;
};
TempDir *Iso9660Small::tmp_ = nullptr;

struct CallbackState {
  int fd = -1;
  int closes = 0;
  bool closeFails = false;
};

bool PRead(void *handle, void *buf, size_t len, uint64_t offset) {
  auto *st = static_cast<CallbackState *>(handle);
  return pread(st->fd, buf, len, static_cast<off_t>(offset)) == static_cast<ssize_t>(len);
}

bool CountingClose(void *handle) {
  auto *st = static_cast<CallbackState *>(handle);
  ++st->closes;
  return close(st->fd) == 0 && !st->closeFails;
}

// The volume reads only through the callbacks and owns their handle once it
// opens (closed exactly once, a failing close reported); a failed open
// leaves the handle to the caller, and an image that is not ISO 9660 at
// all is an answer, not a log line.
TEST_F(Iso9660Small, OpenWithReaderOwnsTheHandleOnceOpen) {
  TempDir tmp;
  WriteFile(tmp / "zeros.img", std::string(64 * 1024, '\0'));
  for (auto [image, size, closeFails] : {std::tuple{Image(), fs::file_size(Image()), false},
                                         {Image(), uintmax_t{0}, true},  // size unknown
                                         {(tmp / "zeros.img").string(), uintmax_t{65536}, false}}) {
    CallbackState st{open(image.c_str(), O_RDONLY), 0, closeFails};
    LogCapture capture;
    Iso9660Volume *vol = reinterpret_cast<Iso9660Volume *>(1);
    Iso9660Result rc =
        Iso9660_OpenWithReader(PRead, CountingClose, &st, size, ISO9660_FORMAT_ROCKRIDGE, &vol);
    if (vol == nullptr) {
      EXPECT_EQ(ISO9660_ERR_NOT_ISO, rc);
      EXPECT_TRUE(st.closes == 0 && CountingClose(&st));  // still ours, still open
      EXPECT_EQ("", capture.all());
      continue;
    }
    Iso9660DirEntry entry;
    ASSERT_EQ(ISO9660_OK, Iso9660_Stat(vol, "isolinux/isolinux.cfg", &entry));
    std::string data;
    EXPECT_EQ(ISO9660_OK, ReadIsoFile(vol, entry, &data));
    EXPECT_EQ(ReadFile(kTree / "isolinux/isolinux.cfg"), data);
    EXPECT_EQ(0, st.closes);
    EXPECT_EQ(closeFails ? ISO9660_ERR_IO : ISO9660_OK, Iso9660_Close(vol));
    EXPECT_EQ(1, st.closes);
    EXPECT_EQ(closeFails ? 1u : 0u, capture.lines().size()) << capture.all();
  }
}

// Paths as callers give them; names that are never entries; a caller's
// mistakes are logged, the rest is not; entries of every kind.
TEST_F(Iso9660Small, PathsMisuseAndKinds) {
  IsoVolume vol(Image(), kAll), other(Image(), kIso);
  std::string deep = "x";
  for (int i = 0; i < 70; ++i) {
    deep += "/x";
  }
  auto e = std::make_unique<Iso9660DirEntry>();
  for (const auto &[path, stat, openDir] :
       {std::tuple{std::string("/Sub Dir//deeper/"), ISO9660_OK, ISO9660_OK},
        {"Sub Dir/deeper/Mixed Case Long Name.txt", ISO9660_OK, ISO9660_ERR_INVALID_ARG},
        {"sub dir/deeper", ISO9660_ERR_NOT_FOUND, ISO9660_ERR_NOT_FOUND},
        {"readme.txt/x", ISO9660_ERR_NOT_FOUND, ISO9660_ERR_NOT_FOUND},
        {"isolinux/../readme.txt", ISO9660_ERR_INVALID_ARG, ISO9660_ERR_INVALID_ARG},
        {deep, ISO9660_ERR_LIMIT, ISO9660_ERR_LIMIT}}) {
    EXPECT_EQ(stat, Iso9660_Stat(vol, path.c_str(), e.get())) << path;
    Iso9660Dir *dir = nullptr;
    EXPECT_EQ(openDir, Iso9660_OpenDir(vol, path.c_str(), &dir)) << path;
    EXPECT_TRUE(dir == nullptr || Iso9660_CloseDir(vol, dir) == ISO9660_OK);
  }
  ASSERT_EQ(ISO9660_OK, Iso9660_Stat(vol, "", e.get()));
  LogCapture capture;
  Iso9660Dir *root = nullptr;
  ASSERT_EQ(ISO9660_OK, Iso9660_OpenDir(vol, "/", &root));
  for (const char *absent : {"", "Sub Dir/deeper", "..", "nothing"}) {
    EXPECT_EQ(ISO9660_ERR_NOT_FOUND, Iso9660_Lookup(vol, root, absent, true, e.get())) << absent;
  }
  EXPECT_EQ("", capture.all());
  Iso9660File *file = nullptr;
  EXPECT_EQ(ISO9660_ERR_INVALID_ARG, Iso9660_OpenFile(vol, e.get(), &file));  // the root
  EXPECT_EQ(ISO9660_ERR_INVALID_ARG, Iso9660_ReadDir(other, root, e.get()));
  EXPECT_EQ(ISO9660_ERR_INVALID_ARG, Iso9660_Lookup(vol, root, nullptr, true, e.get()));
  EXPECT_EQ(ISO9660_ERR_INVALID_ARG, Iso9660_CloseDir(other, root));
  EXPECT_EQ(4u, capture.lines().size());
  EXPECT_EQ(ISO9660_OK, Iso9660_CloseDir(vol, root));
  // Rock Ridge modes and the kinds they give; the primary names carry none.
  Iso9660DirEntry entry;
  for (const auto &[path, mode, flags] :
       {std::tuple{"modes/bin", S_IFDIR | 0755u, uint32_t{ISO9660_ENTRY_DIRECTORY}},
        {"modes/bin/tool", S_IFREG | 0755u, 0u},
        {"modes/plain", S_IFREG | 0640u, 0u},
        {"modes/link", S_IFLNK | 0777u, ISO9660_ENTRY_SYMLINK},
        {"modes/fifo", S_IFIFO | 0600u, ISO9660_ENTRY_SPECIAL}}) {
    ASSERT_EQ(ISO9660_OK, Iso9660_Stat(vol, path, &entry)) << path;
    EXPECT_EQ(mode, entry.mode) << path;
    EXPECT_EQ(flags, entry.flags) << path;
  }
  ASSERT_EQ(ISO9660_OK, Iso9660_Stat(other, "MODES/BIN/TOOL", &entry));
  EXPECT_EQ(0u, entry.mode);
}

// A file over 4 GiB is stored as several extents (-iso-level 3). The source
// and the image are sparse, but xorriso still streams it all.
TEST(Iso9660MultiExtent, PartsMakeOneFileInEveryNameSet) {
  constexpr uint64_t kSize = (4ull << 30) + 3 * 1024 * 1024 + 123;
  // The second mark straddles the end of the first part (4 GiB - 2 KiB).
  constexpr uint64_t kMarks[] = {0, (4ull << 30) - 2048 - 10, (4ull << 30) + 4096, kSize - 64};
  auto mark = [&](uint64_t at) {
    return ("<mark at " + std::to_string(at) + ">").substr(0, std::min<uint64_t>(kSize - at, 64));
  };
  TempDir tmp;
  fs::path src = tmp / "src";
  fs::create_directories(src / "dir");
  {
    std::ofstream out(src / "dir" / "huge.bin", std::ios::binary);
    for (uint64_t at : kMarks) {
      out.seekp(static_cast<std::streamoff>(at));
      out << mark(at);
    }
  }
  fs::resize_file(src / "dir" / "huge.bin", kSize);
  WriteFile(src / "dir" / "after.txt", "after the big one\n");
  std::string image = (tmp / "multi.iso").string();
  std::string cmd = "xorriso -as mkisofs -iso-level 3 -R -J -o - '" + src.string() +
                    "' 2>/dev/null | cp --sparse=always /dev/stdin '" + image + "'";
  if (!HaveTool("xorriso") || RunCommand({"sh", "-c", cmd}).exitCode != 0) {
    GTEST_SKIP() << "needs xorriso and a sparse-capable temp directory";
  }
  ASSERT_EQ(kSize, IsoinfoListing(image, "-R")["dir/huge.bin"].size);
  for (uint32_t format : {kAskR, kAskJ, kIso}) {
    IsoVolume vol(image, format);
    Iso9660Dir *dir = nullptr;
    ASSERT_EQ(ISO9660_OK, Iso9660_OpenDir(vol, format == kIso ? "DIR" : "dir", &dir));
    Iso9660DirEntry entry;
    std::vector<uint64_t> sizes;
    while (Iso9660_ReadDir(vol, dir, &entry) == ISO9660_OK) {
      sizes.push_back(entry.size64);
    }
    EXPECT_EQ((std::vector<uint64_t>{18, kSize}), sizes) << format;
    ASSERT_EQ(ISO9660_OK, Iso9660_Lookup(vol, dir, "huge.bin", true, &entry));
    EXPECT_EQ(0xFFFFFFFFu, entry.size);
    EXPECT_EQ(ISO9660_ENTRY_MULTIEXTENT, entry.flags);
    Iso9660File *file = nullptr;
    ASSERT_EQ(ISO9660_OK, Iso9660_OpenFile(vol, &entry, &file));
    for (uint64_t at : kMarks) {
      std::string got(mark(at).size(), '\0');
      ASSERT_EQ(ISO9660_OK, Iso9660_PReadFile(vol, file, got.data(), at, got.size()));
      EXPECT_EQ(mark(at), got) << at;
    }
    char tail[256];
    EXPECT_EQ(ISO9660_EOF, Iso9660_PReadFile(vol, file, tail, kSize - 10, 11));
    EXPECT_EQ(ISO9660_OK, Iso9660_CloseFile(vol, file));
    EXPECT_EQ(ISO9660_OK, Iso9660_CloseDir(vol, dir));
  }
}

}  // namespace
