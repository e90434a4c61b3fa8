// FAT floppy images checked with tools written elsewhere: fsck.fat must
// find every image we write clean, mtools must list and read back our
// files, and files mtools writes must read back through our reader.
#include "platform/fat/fat.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/testSupport.h"

using testing_support::ReadFile;
using testing_support::ReadTsv;
using testing_support::RunCommand;
using testing_support::TempDir;
using testing_support::TsvRow;
using testing_support::WriteFile;

namespace {

std::string RowName(const testing::TestParamInfo<TsvRow> &info) {
  return testing_support::TsvRowName(info.param);
}

// Bytes that differ from one offset to the next, so a misplaced cluster
// shows.
std::string Pattern(size_t size, unsigned seed) {
  std::string s(size, '\0');
  uint32_t x = seed * 2654435761u + 1;
  for (char &c : s) {
    x = x * 1103515245u + 12345u;
    c = static_cast<char>(x >> 16);
  }
  return s;
}

// An open volume and its root directory, closed in order.
struct Floppy {
  FATVolume *volume = nullptr;
  FATDirectory *root = nullptr;
  FATError error = FAT_OK;

  explicit Floppy(const std::string &path, bool format) {
    FATDevice *device = nullptr;
    error = FATDevFileIO_Open(path.c_str(), &device);
    if (error == FAT_OK) {
      error = format ? FAT_FormatVolume(device, kFATFloppy144Size, 0, &volume)
                     : FAT_OpenVolume(device, &volume);
    }
    if (error == FAT_OK) {
      error = FAT_SkipVolumeBoot(volume);
    }
    if (error == FAT_OK) {
      error = FAT_OpenRootDirectory(volume, &root);
    }
  }
  ~Floppy() {
    if (root != nullptr) {
      EXPECT_EQ(FAT_OK, FAT_CloseDirectory(root));
    }
    if (volume != nullptr) {
      EXPECT_EQ(FAT_OK, FAT_CloseVolume(volume));
    }
  }

  // Replaces or creates the file the way files are copied onto floppies:
  // truncate or create, then 512-byte writes.
  FATError Put(const std::string &name, const std::string &data) {
    FATFile *file = nullptr;
    FATError err = FAT_OpenFile(root, name.c_str(), &file);
    err = err == FAT_OK ? FAT_SetFileSize(file, 0) : FAT_CreateFile(root, name.c_str(), &file);
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

  std::string Get(const std::string &name) {
    FATFile *file = nullptr;
    if (FAT_OpenFile(root, name.c_str(), &file) != FAT_OK) {
      return "<absent>";
    }
    std::string out;
    char buf[700];  // not a sector multiple: reads cross cluster edges
    size_t got = 0;
    while (FAT_ReadFile(file, out.size(), buf, sizeof buf, &got) == FAT_OK && got > 0) {
      out.append(buf, got);
    }
    FAT_CloseFile(file);
    return out;
  }
};

class FatImage : public testing::Test {
 protected:
  void SetUp() override { setenv("MTOOLS_SKIP_CHECK", "1", 1); }

  // fsck.fat's verdict without repairing anything: "" when clean.
  std::string FsckProblems() {
    auto r = RunCommand({"fsck.fat", "-n", image_});
    return r.exitCode == 0 ? "" : r.output;
  }
  std::string MtoolsRead(const std::string &name) {
    std::string out = (dir_ / "out").string();
    std::filesystem::remove(out);
    auto r = RunCommand({"mcopy", "-n", "-i", image_, "::" + name, out});
    return r.exitCode == 0 ? ReadFile(out) : "<mcopy failed: " + r.output + ">";
  }
  std::string MtoolsList() { return RunCommand({"mdir", "-b", "-i", image_, "::"}).output; }

  TempDir dir_;
  std::string image_ = (dir_ / "autoinst.flp").string();
};

TEST_F(FatImage, FreshFloppyIsACleanFat12Volume) {
  {
    Floppy f(image_, true);
    ASSERT_EQ(FAT_OK, f.error);
  }
  EXPECT_EQ(kFATFloppy144Size, std::filesystem::file_size(image_));
  EXPECT_EQ("", FsckProblems());
  auto info = RunCommand({"minfo", "-i", image_, "::"});
  EXPECT_NE(std::string::npos, info.output.find("sectors per track: 18")) << info.output;
  EXPECT_NE(std::string::npos, info.output.find("max available root directory slots: 224"));
  EXPECT_NE(std::string::npos, info.output.find("disk type=\"FAT12   \""));
  EXPECT_EQ("", MtoolsList());
}

class FloppyFile : public FatImage, public testing::WithParamInterface<TsvRow> {};

TEST_P(FloppyFile, WrittenInChunksReadsBackEverywhere) {
  const auto &f = GetParam().cells;  // name, size
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
                         RowName);

class FloppyName : public FatImage, public testing::WithParamInterface<TsvRow> {};

TEST_P(FloppyName, IsStoredAsEightDotThreeOrRefused) {
  const auto &f = GetParam().cells;  // name, result, listed name
  {
    Floppy floppy(image_, true);
    ASSERT_EQ(FAT_OK, floppy.error);
    FATError err = floppy.Put(f[0], "x");
    EXPECT_EQ(f[1] == "ok" ? FAT_OK : FAT_ERR_BAD_NAME, err) << FAT_ErrorString(err);
  }
  EXPECT_EQ(f[2].empty() ? "" : "::/" + f[2] + "\n", MtoolsList());
  EXPECT_EQ("", FsckProblems());
}
INSTANTIATE_TEST_SUITE_P(Fat, FloppyName, testing::ValuesIn(ReadTsv("fat/names.tsv", 3)), RowName);

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
  std::string img = ReadFile(image_);
  EXPECT_TRUE(img.compare(512, 9 * 512, img, 10 * 512, 9 * 512) == 0) << "the FAT copies differ";
}

TEST_F(FatImage, FullDiskAndFullRootAreErrorsNotDamage) {
  {
    Floppy f(image_, true);
    ASSERT_EQ(FAT_OK, f.error);
    ASSERT_EQ(FAT_OK, f.Put("FULL.DAT", Pattern(2847 * 512 - 100, 4)));
    FATFile *file = nullptr;
    ASSERT_EQ(FAT_OK, FAT_OpenFile(f.root, "FULL.DAT", &file));
    size_t written = 1;
    EXPECT_EQ(FAT_ERR_DISK_FULL, FAT_WriteFile(file, 2847 * 512 - 1, "ab", 2, &written));
    EXPECT_EQ(0u, written);
    EXPECT_EQ(FAT_ERR_DISK_FULL, FAT_SetFileSize(file, 2848 * 512));
    EXPECT_EQ(FAT_ERR_TOO_BIG, FAT_WriteFile(file, 0xFFFFFFFFull, "a", 1, &written));
    FAT_CloseFile(file);
    EXPECT_EQ(FAT_ERR_DISK_FULL, f.Put("MORE.DAT", "x"));
    for (int i = 3; i <= 224; i++) {
      ASSERT_EQ(FAT_OK, f.Put("F" + std::to_string(i), "")) << i;
    }
    EXPECT_EQ(FAT_ERR_DIR_FULL, f.Put("F225", ""));
  }
  EXPECT_EQ("", FsckProblems());
  EXPECT_TRUE(MtoolsRead("FULL.DAT") == Pattern(2847 * 512 - 100, 4));
  EXPECT_EQ("", MtoolsRead("F224"));
}

TEST_F(FatImage, FilesMtoolsWroteReadBack) {
  ASSERT_EQ(0, RunCommand({"mformat", "-f", "1440", "-C", "-i", image_, "::"}).exitCode);
  const std::vector<std::pair<std::string, size_t>> files = {
      {"AUTOINST.XML", 4000}, {"UPGRA64", 300000}, {"EMPTY", 0}};
  for (const auto &[name, size] : files) {
    WriteFile(dir_ / name, Pattern(size, static_cast<unsigned>(size)));
    ASSERT_EQ(0, RunCommand({"mcopy", "-i", image_, (dir_ / name).string(), "::" + name}).exitCode);
  }
  {
    Floppy f(image_, false);
    ASSERT_EQ(FAT_OK, f.error);
    for (const auto &[name, size] : files) {
      EXPECT_TRUE(f.Get(name) == Pattern(size, static_cast<unsigned>(size))) << name;
    }
    EXPECT_EQ("<absent>", f.Get("NOPE.TXT"));
    ASSERT_EQ(FAT_OK, f.Put("upgra64", "short"));
  }
  EXPECT_EQ("", FsckProblems());
  EXPECT_EQ("short", MtoolsRead("UPGRA64"));
}

TEST_F(FatImage, Fat16ImagesReadAndWrite) {
  ASSERT_EQ(0, RunCommand({"mkfs.fat", "-C", "-F", "16", "-s", "1", image_, "8192"}).exitCode);
  WriteFile(dir_ / "src", Pattern(100000, 9));
  ASSERT_EQ(0, RunCommand({"mcopy", "-i", image_, (dir_ / "src").string(), "::SUSE.XML"}).exitCode);
  {
    Floppy f(image_, false);
    ASSERT_EQ(FAT_OK, f.error);
    EXPECT_TRUE(f.Get("SUSE.XML") == Pattern(100000, 9));
    ASSERT_EQ(FAT_OK, f.Put("AUTOINST.XML", Pattern(30000, 10)));
    ASSERT_EQ(FAT_OK, f.Put("SUSE.XML", "tail gone"));
  }
  EXPECT_EQ("", FsckProblems());
  EXPECT_TRUE(MtoolsRead("AUTOINST.XML") == Pattern(30000, 10));
  EXPECT_EQ("tail gone", MtoolsRead("SUSE.XML"));
}

// Each case damages a floppy holding "A.BIN" (2000 bytes in clusters 2 to
// 5): a FAT12 entry in both copies, or bytes at an offset, or the image's
// length; and says what opening the volume, then the file, must give.
struct Damage {
  const char *name;
  uint32_t cluster;  // 0: no FAT entry changed
  uint32_t next;
  size_t offset;
  std::string bytes;
  uint64_t cutTo;  // 0: keep the length
  FATError openVolume;
  FATError openFile;
};

void SetFat12(std::string *img, uint32_t n, uint32_t v) {
  for (size_t fat : {512u, 10 * 512u}) {
    auto *p = reinterpret_cast<unsigned char *>(&(*img)[fat + n + n / 2]);
    uint32_t old = p[0] | (p[1] << 8);
    old = (n & 1) ? (old & 0x000F) | (v << 4) : (old & 0xF000) | v;
    p[0] = static_cast<unsigned char>(old);
    p[1] = static_cast<unsigned char>(old >> 8);
  }
}

TEST_F(FatImage, DamagedImagesGiveErrorsNotHangs) {
  const size_t root = 19 * 512;
  const Damage cases[] = {
      {"chain loops back", 3, 2, 0, "", 0, FAT_OK, FAT_ERR_CORRUPT},
      {"chain leaves volume", 3, 0xC00, 0, "", 0, FAT_OK, FAT_ERR_CORRUPT},
      {"chain hits free cluster", 3, 0, 0, "", 0, FAT_OK, FAT_ERR_CORRUPT},
      {"size beyond chain", 0, 0, root + 28, std::string("\x00\x10\x00\x00", 4), 0, FAT_OK,
       FAT_ERR_CORRUPT},
      {"first cluster out of range", 0, 0, root + 26, std::string("\x00\x0C", 2), 0, FAT_OK,
       FAT_ERR_CORRUPT},
      {"zero bytes per sector", 0, 0, 11, std::string("\x00\x00", 2), 0, FAT_ERR_NOT_FAT, FAT_OK},
      {"no jump instruction", 0, 0, 0, std::string("\x00", 1), 0, FAT_ERR_NOT_FAT, FAT_OK},
      {"more sectors than image", 0, 0, 19, std::string("\x00\x30", 2), 0, FAT_ERR_CORRUPT, FAT_OK},
      {"FAT too small", 0, 0, 22, std::string("\x01\x00", 2), 0, FAT_ERR_CORRUPT, FAT_OK},
      {"image cut short", 0, 0, 0, "", 1000, FAT_ERR_CORRUPT, FAT_OK},
      {"image cut to nothing", 0, 0, 0, "", 100, FAT_ERR_NOT_FAT, FAT_OK},
  };
  for (const auto &d : cases) {
    SCOPED_TRACE(d.name);
    {
      Floppy f(image_, true);
      ASSERT_EQ(FAT_OK, f.Put("A.BIN", Pattern(2000, 5)));
    }
    std::string img = ReadFile(image_);
    if (d.cluster != 0) {
      SetFat12(&img, d.cluster, d.next);
    }
    img.replace(d.offset, d.bytes.size(), d.bytes);
    WriteFile(image_, d.cutTo != 0 ? img.substr(0, d.cutTo) : img);
    testing_support::LogCapture log;
    Floppy f(image_, false);
    EXPECT_EQ(d.openVolume, f.error) << FAT_ErrorString(f.error);
    if (f.error == FAT_OK) {
      FATFile *file = nullptr;
      EXPECT_EQ(d.openFile, FAT_OpenFile(f.root, "A.BIN", &file));
      EXPECT_EQ(nullptr, file);
    }
    EXPECT_EQ(1u, log.lines().size()) << log.all();
  }
}

TEST_F(FatImage, MissingImageAndBadArgumentsAreRefused) {
  testing_support::LogCapture log;
  Floppy missing((dir_ / "none.flp").string(), false);
  EXPECT_EQ(FAT_ERR_IO, missing.error);
  EXPECT_FALSE(std::filesystem::exists(dir_ / "none.flp"));
  FATDevice *device = nullptr;
  EXPECT_EQ(FAT_ERR_INVALID_ARG, FATDevFileIO_Open("", &device));
  ASSERT_EQ(FAT_OK, FATDevFileIO_Open(image_.c_str(), &device));
  FATVolume *volume = nullptr;
  EXPECT_EQ(FAT_ERR_INVALID_ARG, FAT_FormatVolume(device, 720 * 1024, 0, &volume));
  EXPECT_FALSE(std::filesystem::exists(image_));
  EXPECT_EQ(FAT_ERR_INVALID_ARG, FAT_OpenFile(nullptr, "A", nullptr));
}

}  // namespace
