// FAT floppy images checked with tools written elsewhere: fsck.fat must
// find every image we write clean, mtools must list and read back our
// files, directories and long names, and the trees mtools writes onto
// images that mformat and mkfs.fat made must read back through our reader.
#include "platform/fat/fat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/imageFixtures.h"
#include "support/testSupport.h"

namespace fs = std::filesystem;
using testing_support::LogCapture;
using testing_support::Pattern;
using testing_support::ReadFile;
using testing_support::ReadTsv;
using testing_support::RunCommand;
using testing_support::TempDir;
using testing_support::TsvRow;
using testing_support::WriteFile;

namespace {

unsigned SeedOf(const std::string &path) {
  return static_cast<unsigned>(std::hash<std::string>()(path));
}

// A table cell with "\xHH" as that byte and "c{N}" as N times c: names too
// odd or too long to write out.
std::string Expand(const std::string &cell) {
  std::string out;
  for (size_t i = 0; i < cell.size(); i++) {
    if (cell.compare(i, 2, "\\x") == 0 && i + 4 <= cell.size()) {
      out.push_back(static_cast<char>(std::stoi(cell.substr(i + 2, 2), nullptr, 16)));
      i += 3;
    } else if (cell[i] == '{' && !out.empty() && i + 1 < cell.size() && isdigit(cell[i + 1])) {
      size_t close = cell.find('}', i);
      out.append(std::stoul(cell.substr(i + 1, close - i - 1)) - 1, out.back());
      i = close;
    } else {
      out.push_back(cell[i]);
    }
  }
  return out;
}

FATError ErrorNamed(const std::string &name) {
  static const std::map<std::string, FATError> codes = {{"OK", FAT_OK},
                                                        {"ok", FAT_OK},
                                                        {"CORRUPT", FAT_ERR_CORRUPT},
                                                        {"NOT_FAT", FAT_ERR_NOT_FAT},
                                                        {"NOT_FOUND", FAT_ERR_NOT_FOUND},
                                                        {"bad-name", FAT_ERR_BAD_NAME},
                                                        {"exists", FAT_ERR_EXISTS}};
  auto it = codes.find(name);
  return it == codes.end() ? ~0ull : it->second;
}

struct CloseDirectory {
  void operator()(FATDirectory *d) const { EXPECT_EQ(FAT_OK, FAT_CloseDirectory(d)); }
};
using Directory = std::unique_ptr<FATDirectory, CloseDirectory>;

// A floppy and the calls the tests make through it.
struct Floppy : testing_support::Floppy {
  using testing_support::Floppy::Floppy;

  // Opens the directories on the way to path's last part, creating the
  // missing ones when create is set; *dir is the last.
  FATError Walk(const std::string &path, bool create, std::vector<Directory> *open,
                FATDirectory **dir, std::string *leaf) {
    *leaf = path.substr(path.rfind('/') + 1);
    *dir = root;
    for (const std::string &part :
         testing_support::Split(path.substr(0, path.size() - leaf->size()), "/")) {
      FATDirectory *next = nullptr;
      FATError err = FAT_OpenDirectory(*dir, part.c_str(), &next);
      if (err == FAT_ERR_NOT_FOUND && create) {
        err = FAT_CreateDirectory(*dir, part.c_str(), &next);
      }
      if (err != FAT_OK) {
        return err;
      }
      open->emplace_back(next);
      *dir = next;
    }
    return FAT_OK;
  }

  // Replaces or creates the file the way files are copied onto floppies:
  // truncate or create, then 512-byte writes. A path ending in '/' makes
  // just the directories.
  FATError Put(const std::string &path, const std::string &data) {
    std::vector<Directory> open;
    FATDirectory *dir = nullptr;
    std::string name;
    FATError err = Walk(path, true, &open, &dir, &name);
    if (err != FAT_OK || name.empty()) {
      return err;
    }
    FATFile *file = nullptr;
    err = FAT_OpenFile(dir, name.c_str(), &file);
    err = err == FAT_OK ? FAT_SetFileSize(file, 0) : FAT_CreateFile(dir, name.c_str(), &file);
    for (size_t at = 0; err == FAT_OK && at < data.size(); at += 512) {
      size_t n = std::min<size_t>(512, data.size() - at), written = 0;
      err = FAT_WriteFile(file, at, data.data() + at, n, &written);
      EXPECT_EQ(err == FAT_OK ? n : 0, written);
    }
    if (file != nullptr) {
      FAT_CloseFile(file);
    }
    return err;
  }

  // The file's bytes, or "<error N>".
  std::string Get(const std::string &path) {
    std::vector<Directory> open;
    FATDirectory *dir = nullptr;
    std::string name;
    FATFile *file = nullptr;
    FATError err = Walk(path, false, &open, &dir, &name);
    if (err == FAT_OK) {
      err = FAT_OpenFile(dir, name.c_str(), &file);
    }
    std::string out;
    char buf[700];  // not a sector multiple: reads cross cluster edges
    size_t got = 0;
    while (err == FAT_OK &&
           (err = FAT_ReadFile(file, out.size(), buf, sizeof buf, &got)) == FAT_OK && got > 0) {
      out.append(buf, got);
    }
    if (file != nullptr) {
      FAT_CloseFile(file);
    }
    return err == FAT_OK ? out : "<error " + std::to_string(err) + ">";
  }

  // Every file and directory under dir as testing_support::Snapshot shows
  // a host tree.
  void List(FATDirectory *dir, const std::string &prefix, std::map<std::string, std::string> *out) {
    FATDirEntryInfo info;
    uint32_t cursor = 0;
    FATError err;
    while ((err = FAT_ReadDirectory(dir, &cursor, &info)) == FAT_OK) {
      std::string path = prefix + info.name;
      (*out)[path] = info.isDirectory ? "d" : testing_support::SnapshotFile(Get(path));
      FATDirectory *sub = nullptr;
      if (info.isDirectory) {
        EXPECT_EQ(FAT_OK, FAT_OpenDirectory(dir, info.name, &sub)) << path;
      }
      if (sub != nullptr) {
        List(sub, path + "/", out);
        FAT_CloseDirectory(sub);
      }
    }
    EXPECT_EQ(FAT_ERR_NOT_FOUND, err) << prefix;
  }
  std::map<std::string, std::string> Tree() {
    std::map<std::string, std::string> out;
    List(root, "", &out);
    return out;
  }
};

// The files of tree.tsv and their bytes; directories end in '/'.
std::map<std::string, std::string> TreeFiles() {
  std::map<std::string, std::string> files;
  for (const TsvRow &row : ReadTsv("fat/tree.tsv", 3)) {
    int count = row.cells[2].empty() ? 1 : std::stoi(row.cells[2]);
    for (int i = 1; i <= count; i++) {
      std::string path = testing_support::Replace(Expand(row.cells[0]), "#", std::to_string(i));
      files[path] = Pattern(row.cells[1].empty() ? 0 : std::stoul(row.cells[1]), SeedOf(path));
    }
  }
  return files;
}

// The snapshot of a tree holding those files.
std::map<std::string, std::string> TreeSnapshot(const std::map<std::string, std::string> &files) {
  std::map<std::string, std::string> out;
  for (const auto &[path, data] : files) {
    for (size_t slash = path.find('/'); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
      out[path.substr(0, slash)] = "d";
    }
    if (path.back() != '/') {
      out[path] = testing_support::SnapshotFile(data);
    }
  }
  return out;
}

class FatImage : public testing::Test {
 protected:
  void SetUp() override {
    setenv("MTOOLS_SKIP_CHECK", "1", 1);
    // mtools converts names through the locale's character set.
    setenv("LC_ALL", "C.UTF-8", 1);
  }

  std::string FsckProblems() { return testing_support::FsckProblems(image_); }
  std::string MtoolsRead(const std::string &name) {
    return testing_support::MtoolsRead(image_, name);
  }
  std::string MtoolsList() { return RunCommand({"mdir", "-b", "-i", image_, "::"}).output; }
  bool FatCopiesAgree() {
    std::string img = ReadFile(image_);
    return img.compare(512, 9 * 512, img, 10 * 512, 9 * 512) == 0;
  }

  TempDir dir_;
  std::string image_ = (dir_ / "autoinst.flp").string();
};

TEST_F(FatImage, FreshFloppyIsACleanFat12Volume) {
  {
    Floppy f(image_, true);
    ASSERT_EQ(FAT_OK, f.error);
  }
  EXPECT_EQ(kFATFloppy144Size, fs::file_size(image_));
  EXPECT_EQ("", FsckProblems());
  auto info = RunCommand({"minfo", "-i", image_, "::"});
  EXPECT_NE(std::string::npos, info.output.find("sectors per track: 18")) << info.output;
  EXPECT_NE(std::string::npos, info.output.find("max available root directory slots: 224"));
  EXPECT_NE(std::string::npos, info.output.find("disk type=\"FAT12   \""));
  EXPECT_EQ("", MtoolsList());
}

class FloppyFile : public FatImage, public testing::WithParamInterface<TsvRow> {};

TEST_P(FloppyFile, WrittenInChunksReadsBackEverywhere) {
  const auto &f = GetParam().cells;  // path, size
  std::string data = Pattern(std::stoul(f[1]), 7);
  {
    Floppy floppy(image_, true);
    ASSERT_EQ(FAT_OK, floppy.error);
    ASSERT_EQ(FAT_OK, floppy.Put(f[0], data));
  }
  EXPECT_EQ("", FsckProblems());
  EXPECT_TRUE(MtoolsRead(f[0]) == data);
  Floppy again(image_, false);
  ASSERT_EQ(FAT_OK, again.error);
  EXPECT_TRUE(again.Get(f[0]) == data);
}
INSTANTIATE_TEST_SUITE_P(Fat, FloppyFile, testing::ValuesIn(ReadTsv("fat/floppy-files.tsv", 2)),
                         testing_support::TsvRowNamer());

// Directory entries in use in the root of a floppy image.
size_t RootSlotsUsed(const std::string &image) {
  std::string img = ReadFile(image);
  size_t used = 0;
  for (size_t at = 19 * 512; at < 19 * 512 + 224 * 32; at += 32) {
    used += img[at] != '\0' && img[at] != '\xE5';
  }
  return used;
}

class FloppyName : public FatImage, public testing::WithParamInterface<TsvRow> {};

TEST_P(FloppyName, IsStoredAsWindowsStoresIt) {
  const auto &f = GetParam().cells;  // name, result, entries, short name
  std::string name = Expand(f[0]);
  {
    Floppy floppy(image_, true);
    ASSERT_EQ(FAT_OK, floppy.error);
    for (const TsvRow &earlier : ReadTsv("fat/names.tsv", 4)) {
      if (earlier.line < GetParam().line && earlier.cells[1] == "ok") {
        ASSERT_EQ(FAT_OK, floppy.Put(Expand(earlier.cells[0]), "x")) << earlier.cells[0];
      }
    }
    size_t before = RootSlotsUsed(image_);
    FATFile *file = nullptr;
    FATError err = FAT_CreateFile(floppy.root, name.c_str(), &file);
    EXPECT_EQ(ErrorNamed(f[1]), err) << FAT_ErrorString(err);
    if (file == nullptr) {
      return;
    }
    size_t written = 0;
    EXPECT_EQ(FAT_OK, FAT_WriteFile(file, 0, "x", 1, &written));
    FAT_CloseFile(file);
    EXPECT_EQ(std::stoul(f[2]), RootSlotsUsed(image_) - before);
    FATDirEntryInfo info;
    uint32_t cursor = 0;
    std::string shortName = "<not listed>";
    while (FAT_ReadDirectory(floppy.root, &cursor, &info) == FAT_OK) {
      shortName = info.name == name ? info.shortName : shortName;
    }
    EXPECT_EQ(f[3], shortName);
  }
  EXPECT_EQ("", FsckProblems());
  EXPECT_NE(std::string::npos, MtoolsList().find("::/" + name + "\n"));
  EXPECT_EQ("x", MtoolsRead(f[3]));
}
INSTANTIATE_TEST_SUITE_P(Fat, FloppyName, testing::ValuesIn(ReadTsv("fat/names.tsv", 4)),
                         testing_support::TsvRowNamer());

TEST_F(FatImage, TreeWrittenHereReadsBackWithMtools) {
  auto files = TreeFiles();
  {
    Floppy f(image_, true);
    ASSERT_EQ(FAT_OK, f.error);
    for (const auto &[path, data] : files) {
      ASSERT_EQ(FAT_OK, f.Put(path, data)) << path;
    }
    EXPECT_EQ(TreeSnapshot(files), f.Tree());
  }
  EXPECT_EQ("", FsckProblems());
  EXPECT_TRUE(FatCopiesAgree());
  fs::path out = dir_ / "copied";
  fs::create_directory(out);
  auto r = RunCommand({"mcopy", "-s", "-n", "-i", image_, "::/", out.string() + "/"});
  ASSERT_EQ(0, r.exitCode) << r.output;
  EXPECT_EQ(TreeSnapshot(files), testing_support::Snapshot(out));
}

// Images made and filled by other programs; each is read here, changed
// here, and then checked by fsck.fat and mtools.
struct Maker {
  const char *name;
  std::vector<std::string> format;  // "IMAGE" stands for the image path
};

class ForeignImage : public FatImage, public testing::WithParamInterface<Maker> {};

TEST_P(ForeignImage, TreeWrittenByMtoolsReadsBackHere) {
  auto files = TreeFiles();
  fs::path src = dir_ / "src";
  for (const auto &[path, data] : files) {
    fs::create_directories((src / path).parent_path());
    if (path.back() != '/') {
      WriteFile(src / path, data);
    }
  }
  WriteFile(src / "deleted later.txt", "gone");
  std::vector<std::string> format = GetParam().format;
  std::replace(format.begin(), format.end(), std::string("IMAGE"), image_);
  auto made = RunCommand(format);
  ASSERT_EQ(0, made.exitCode) << made.output;
  std::vector<std::string> copy = {"mcopy", "-s", "-i", image_};
  for (const auto &entry : fs::directory_iterator(src)) {
    copy.push_back(entry.path().string());
  }
  copy.push_back("::");
  auto r = RunCommand(copy);
  ASSERT_EQ(0, r.exitCode) << r.output;
  ASSERT_EQ(0, RunCommand({"mdel", "-i", image_, "::deleted later.txt"}).exitCode);
  {
    Floppy f(image_, false);
    ASSERT_EQ(FAT_OK, f.error);
    EXPECT_EQ(TreeSnapshot(files), f.Tree());
    EXPECT_EQ(FAT_OK, f.Put("Drivers/Net/driver.cat", "shorter"));
    EXPECT_EQ(FAT_OK, f.Put("Added Later/Neu hinzugefügt.txt", Pattern(5000, 1)));
  }
  EXPECT_EQ("", FsckProblems());
  EXPECT_EQ("shorter", MtoolsRead("Drivers/Net/DRIVER.CAT"));
  EXPECT_TRUE(MtoolsRead("Added Later/Neu hinzugefügt.txt") == Pattern(5000, 1));
}
INSTANTIATE_TEST_SUITE_P(
    Fat, ForeignImage,
    testing::Values(Maker{"MformatFat12Floppy",
                          {"mformat", "-f", "1440", "-v", "GUESTS", "-C", "-i", "IMAGE", "::"}},
                    Maker{"MkfsFat16With2KClusters",
                          {"mkfs.fat", "-C", "-F", "16", "-s", "4", "-n", "GUESTS", "IMAGE",
                           "16384"}}),
    [](const testing::TestParamInfo<Maker> &info) { return std::string(info.param.name); });

TEST_F(FatImage, ReplacingAndResizingKeepsBothFatsInStep) {
  std::string expected = Pattern(300, 2) + std::string(4700, '\0');
  {
    Floppy f(image_, true);
    ASSERT_EQ(FAT_OK, f.error);
    ASSERT_EQ(FAT_OK, f.Put("A.BIN", Pattern(20000, 1)));
    ASSERT_EQ(FAT_OK, f.Put("B.BIN", Pattern(3000, 3)));
    ASSERT_EQ(FAT_OK, f.Put("a.bin", Pattern(300, 2)));  // the same file: replaced
    FATFile *file = nullptr;
    ASSERT_EQ(FAT_OK, FAT_OpenFile(f.root, "A.BIN", &file));
    EXPECT_EQ(FAT_OK, FAT_SetFileSize(file, 5000));  // the old tail must not come back
    uint64_t size = 0;
    EXPECT_EQ(FAT_OK, FAT_GetFileSize(file, &size));
    EXPECT_EQ(5000u, size);
    char c;
    size_t got = 1;
    EXPECT_EQ(FAT_OK, FAT_ReadFile(file, 5000, &c, 1, &got));
    EXPECT_EQ(0u, got);
    FAT_CloseFile(file);
    ASSERT_EQ(FAT_OK, FAT_CreateFile(f.root, "GAP.BIN", &file));
    size_t written = 0;
    EXPECT_EQ(FAT_OK, FAT_WriteFile(file, 1500, "end", 3, &written));
    FAT_CloseFile(file);
    EXPECT_EQ(FAT_ERR_EXISTS, FAT_CreateFile(f.root, "gap.bin", &file));
  }
  EXPECT_EQ("", FsckProblems());
  EXPECT_TRUE(MtoolsRead("A.BIN") == expected);
  EXPECT_TRUE(MtoolsRead("B.BIN") == Pattern(3000, 3));
  EXPECT_TRUE(MtoolsRead("GAP.BIN") == std::string(1500, '\0') + "end");
  EXPECT_TRUE(FatCopiesAgree());
}

TEST_F(FatImage, FullDiskIsAnErrorNotDamage) {
  const size_t fill = 2846 * 512 - 100;  // all but the directory's cluster
  {
    Floppy f(image_, true);
    ASSERT_EQ(FAT_OK, f.error);
    for (int i = 1; i <= 14; i++) {  // "." and ".." and these fill one cluster
      ASSERT_EQ(FAT_OK, f.Put("Sub/F" + std::to_string(i), ""));
    }
    ASSERT_EQ(FAT_OK, f.Put("FULL.DAT", Pattern(fill, 4)));
    LogCapture log;
    FATFile *file = nullptr;
    ASSERT_EQ(FAT_OK, FAT_OpenFile(f.root, "FULL.DAT", &file));
    size_t written = 1;
    std::string more(200, 'm');
    EXPECT_EQ(FAT_ERR_DISK_FULL, FAT_WriteFile(file, fill - 1, more.data(), more.size(), &written));
    EXPECT_EQ(0u, written);
    EXPECT_EQ(FAT_ERR_DISK_FULL, FAT_SetFileSize(file, fill + 512));
    EXPECT_EQ(FAT_ERR_TOO_BIG, FAT_WriteFile(file, 0xFFFFFFFFull, "a", 1, &written));
    FAT_CloseFile(file);
    EXPECT_EQ(FAT_ERR_DISK_FULL, f.Put("MORE.DAT", "x"));
    EXPECT_EQ(FAT_ERR_DISK_FULL, f.Put("New Folder/", ""));
    EXPECT_EQ(FAT_ERR_DISK_FULL, f.Put("Sub/One More", ""));
    EXPECT_EQ(5u, log.lines().size()) << log.all();
    FATDirectory *dir = nullptr;
    EXPECT_EQ(FAT_ERR_NOT_FOUND, FAT_OpenDirectory(f.root, "New Folder", &dir));
  }
  EXPECT_EQ("", FsckProblems());
  EXPECT_TRUE(MtoolsRead("FULL.DAT") == Pattern(fill, 4));
  EXPECT_EQ("", MtoolsRead("MORE.DAT"));
  EXPECT_TRUE(FatCopiesAgree());
}

TEST_F(FatImage, ImageStaysValidWhileAFileIsBeingWritten) {
  std::string data = Pattern(100 * 512, 6);
  Floppy f(image_, true);
  ASSERT_EQ(FAT_OK, f.error);
  ASSERT_EQ(FAT_OK, f.Put("Sub/", ""));
  FATDirectory *sub = nullptr;
  FATFile *file = nullptr;
  ASSERT_EQ(FAT_OK, FAT_OpenDirectory(f.root, "Sub", &sub));
  ASSERT_EQ(FAT_OK, FAT_CreateFile(sub, "Big File.bin", &file));
  size_t written = 0;
  for (size_t at = 0; at < data.size(); at += 512) {
    ASSERT_EQ(FAT_OK, FAT_WriteFile(file, at, data.data() + at, 512, &written));
  }
  EXPECT_EQ("", FsckProblems()) << "in the middle of the copy";
  EXPECT_EQ("", MtoolsRead("Sub/Big File.bin"));
  std::string back(data.size(), '\0');
  size_t got = 0;
  EXPECT_EQ(FAT_OK, FAT_ReadFile(file, 0, back.data(), back.size(), &got));
  EXPECT_TRUE(back == data);
  FATDirEntryInfo info;
  uint32_t cursor = 0;
  ASSERT_EQ(FAT_OK, FAT_ReadDirectory(sub, &cursor, &info));  // any other call writes it out
  EXPECT_EQ(data.size(), info.size);
  EXPECT_TRUE(MtoolsRead("Sub/Big File.bin") == data);
  EXPECT_EQ(FAT_OK, FAT_WriteFile(file, data.size(), "tail", 4, &written));
  EXPECT_EQ(FAT_OK, FAT_CloseFile(file));
  EXPECT_EQ(FAT_OK, FAT_CloseDirectory(sub));
  EXPECT_EQ("", FsckProblems());
  EXPECT_TRUE(MtoolsRead("Sub/Big File.bin") == data + "tail");
}

class FullRoot : public FatImage, public testing::WithParamInterface<TsvRow> {};

TEST_P(FullRoot, RefusesTheNameThatDoesNotFit) {
  const auto &f = GetParam().cells;  // name, entries each, how many fit
  size_t fit = 0, topUp = 0;
  {
    Floppy floppy(image_, true);
    ASSERT_EQ(FAT_OK, floppy.error);
    LogCapture log;
    // Names until the directory is full: how many went in.
    auto fill = [&](const std::string &name) {
      size_t n = 0;
      FATError err;
      while ((err = floppy.Put(testing_support::Replace(name, "#", std::to_string(n + 1)), "")) ==
                 FAT_OK &&
             n < 224) {
        n++;
      }
      EXPECT_EQ(FAT_ERR_DIR_FULL, err);
      return n;
    };
    fit = fill(f[0]);
    topUp = fill("Z#");
    EXPECT_EQ(2u, log.lines().size()) << log.all();
  }
  EXPECT_EQ(std::stoul(f[2]), fit);
  EXPECT_EQ(224 - fit * std::stoul(f[1]), topUp);
  EXPECT_EQ("", FsckProblems());
  std::string listed = MtoolsList();
  EXPECT_EQ(fit + topUp, static_cast<size_t>(std::count(listed.begin(), listed.end(), '\n')));
}
INSTANTIATE_TEST_SUITE_P(Fat, FullRoot, testing::ValuesIn(ReadTsv("fat/root-full.tsv", 3)),
                         testing_support::TsvRowNamer());

// Sets FAT12 entry n to v in both copies.
void SetFat12(std::string *img, uint32_t n, uint32_t v) {
  for (size_t fat : {512u, 10 * 512u}) {
    auto *p = reinterpret_cast<unsigned char *>(&(*img)[fat + n + n / 2]);
    uint32_t old = p[0] | (p[1] << 8);
    old = (n & 1) ? (old & 0x000F) | (v << 4) : (old & 0xF000) | v;
    p[0] = static_cast<unsigned char>(old);
    p[1] = static_cast<unsigned char>(old >> 8);
  }
}

// Does one damage of hostile.tsv to the image.
void Damage(std::string *img, const std::string &damage) {
  std::istringstream in(damage);
  std::string kind, where, assignment;
  in >> kind >> where >> assignment;
  if (kind == "none") {
    return;
  }
  if (kind == "cut") {
    img->resize(std::stoul(where));
    return;
  }
  if (kind == "fat") {
    SetFat12(img, std::stoul(where), std::stoul(where.substr(where.find('=') + 1)));
    return;
  }
  if (kind == "boot") {
    assignment = where;
  }
  std::string field = assignment.substr(0, assignment.find('='));
  uint32_t value = std::stoul(assignment.substr(assignment.find('=') + 1));
  static const std::map<std::string, std::pair<size_t, size_t>> fields = {
      {"cluster", {26, 2}},      {"size", {28, 4}},         {"ordinal", {0, 1}},
      {"checksum", {13, 1}},     {"jump", {0, 1}},          {"bytesPerSector", {11, 2}},
      {"totalSectors", {19, 2}}, {"sectorsPerFat", {22, 2}}};
  size_t at = 0;
  if (kind == "entry") {
    size_t slash = where.find('/');
    size_t slot = std::stoul(where.substr(slash + 1));
    std::string base = where.substr(0, slash);
    at = (base == "root" ? 19 * 512 : (33 + std::stoul(base) - 2) * 512) + 32 * slot;
  }
  auto [offset, width] = fields.at(field);
  for (size_t i = 0; i < width; i++) {
    (*img)[at + offset + i] = static_cast<char>(value >> (8 * i));
  }
}

class HostileFloppy : public FatImage, public testing::WithParamInterface<TsvRow> {};

TEST_P(HostileFloppy, GivesItsErrorWithOneLogLine) {
  const auto &f = GetParam().cells;  // name, damage, call, result
  {
    Floppy floppy(image_, true);
    ASSERT_EQ(FAT_OK, floppy.error);
    ASSERT_EQ(FAT_OK, floppy.Put("A.BIN", Pattern(2000, 1)));
    ASSERT_EQ(FAT_OK, floppy.Put("B.BIN", Pattern(1000, 2)));
    ASSERT_EQ(FAT_OK, floppy.Put("Long Name.txt", Pattern(100, 3)));
    ASSERT_EQ(FAT_OK, floppy.Put("SUB/INNER.TXT", Pattern(100, 4)));
    ASSERT_EQ(FAT_OK, floppy.Put("SUB/DEEP/", ""));
  }
  ASSERT_EQ("", FsckProblems());
  std::string img = ReadFile(image_);
  Damage(&img, f[1]);
  WriteFile(image_, img);

  LogCapture log;
  std::istringstream call(f[2]);
  std::string what, path;
  call >> what;
  std::getline(call >> std::ws, path);
  FATError got;
  {
    Floppy floppy(image_, false);
    got = floppy.error;
    std::vector<Directory> open;
    FATDirectory *dir = nullptr;
    std::string name;
    if (got == FAT_OK && what != "open-volume") {
      got = floppy.Walk(what == "open-dir" ? path + "/" : path, false, &open, &dir, &name);
    }
    if (got == FAT_OK && what == "open") {
      FATFile *file = nullptr;
      got = FAT_OpenFile(dir, name.c_str(), &file);
      EXPECT_EQ(got == FAT_OK, file != nullptr);
      if (file != nullptr) {
        FAT_CloseFile(file);
      }
    }
  }
  EXPECT_EQ(ErrorNamed(f[3]), got) << FAT_ErrorString(got);
  bool silent = got == FAT_OK || got == FAT_ERR_NOT_FOUND;
  EXPECT_EQ(silent ? 0u : 1u, log.lines().size()) << log.all();
}
INSTANTIATE_TEST_SUITE_P(Fat, HostileFloppy, testing::ValuesIn(ReadTsv("fat/hostile.tsv", 4)),
                         testing_support::TsvRowNamer());

TEST_F(FatImage, FilesAndDirectoriesAreNotMistakenForEachOther) {
  Floppy f(image_, true);
  ASSERT_EQ(FAT_OK, f.error);
  ASSERT_EQ(FAT_OK, f.Put("Drivers/a.inf", "x"));
  FATDirectory *dir = nullptr;
  FATFile *file = nullptr;
  EXPECT_EQ(FAT_ERR_NOT_A_FILE, FAT_OpenFile(f.root, "drivers", &file));
  EXPECT_EQ(FAT_ERR_EXISTS, FAT_CreateFile(f.root, "DRIVERS", &file));
  EXPECT_EQ(FAT_ERR_EXISTS, FAT_CreateDirectory(f.root, "Drivers", &dir));
  ASSERT_EQ(FAT_OK, FAT_OpenDirectory(f.root, "Drivers", &dir));
  FATDirectory *sub = nullptr;
  EXPECT_EQ(FAT_ERR_NOT_A_DIRECTORY, FAT_OpenDirectory(dir, "A.INF", &sub));
  EXPECT_EQ(FAT_ERR_NOT_FOUND, FAT_OpenDirectory(f.root, "Treiber", &sub));
  EXPECT_EQ(FAT_ERR_BAD_NAME, FAT_OpenDirectory(f.root, "Drivers/", &sub));
  EXPECT_EQ(nullptr, sub);
  EXPECT_EQ(nullptr, file);
  FAT_CloseDirectory(dir);
}

TEST_F(FatImage, MissingImageAndBadArgumentsAreRefused) {
  LogCapture log;
  Floppy missing((dir_ / "none.flp").string(), false);
  EXPECT_EQ(FAT_ERR_IO, missing.error);
  EXPECT_FALSE(fs::exists(dir_ / "none.flp"));
  FATDevice *device = nullptr;
  EXPECT_EQ(FAT_ERR_INVALID_ARG, FATDevFileIO_Open("", &device));
  ASSERT_EQ(FAT_OK, FATDevFileIO_Open(image_.c_str(), &device));
  FATVolume *volume = nullptr;
  EXPECT_EQ(FAT_ERR_INVALID_ARG, FAT_FormatVolume(device, 720 * 1024, 0, &volume));
  EXPECT_FALSE(fs::exists(image_));
  EXPECT_EQ(FAT_ERR_INVALID_ARG, FAT_OpenFile(nullptr, "A", nullptr));
  EXPECT_EQ(FAT_ERR_INVALID_ARG, FAT_OpenDirectory(nullptr, "A", nullptr));
  EXPECT_EQ(FAT_ERR_INVALID_ARG, FAT_CreateDirectory(nullptr, "A", nullptr));
  uint32_t cursor = 0;
  EXPECT_EQ(FAT_ERR_INVALID_ARG, FAT_ReadDirectory(nullptr, &cursor, nullptr));
  EXPECT_EQ(7u, log.lines().size()) << log.all();
}

}  // namespace
