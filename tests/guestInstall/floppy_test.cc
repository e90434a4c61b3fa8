// Copying files into and out of floppy images, the Linux answer-file floppy
// of each family and the tools payload, checked with mtools and fsck.fat.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "guestprep/autoinstall.h"
#include "platform/fat/fat.h"
#include "support/testSupport.h"

namespace {

namespace fs = std::filesystem;
using testing_support::Floppy;
using testing_support::LogCapture;
using testing_support::MtoolsRead;
using testing_support::Pattern;
using testing_support::ReadFile;
using testing_support::ReadTsv;
using testing_support::RunCommand;
using testing_support::TempDir;
using testing_support::TsvRow;
using testing_support::WriteFile;

// The root directory's names as mtools lists them, sorted, lower case.
std::string MtoolsNames(const fs::path &image) {
  auto r = RunCommand({"mdir", "-b", "-i", image.string(), "::"});
  if (r.exitCode != 0) {
    return "<mdir failed: " + r.output + ">";
  }
  std::vector<std::string> names;
  for (const std::string &line : testing_support::Split(r.output, "\n")) {
    if (line.starts_with("::/")) {
      names.push_back(testing_support::Lower(line.substr(3)));
    }
  }
  std::sort(names.begin(), names.end());
  std::string joined;
  for (const auto &n : names) {
    joined += (joined.empty() ? "" : " ") + n;
  }
  return joined;
}

void ExpectFsckClean(const fs::path &image) {
  EXPECT_EQ("", testing_support::FsckProblems(image));
}

// Sizes around a sector; each replaces the last in one image, so a shorter
// file also proves the old tail is gone.
TEST(FloppyTransfer, RoundTripsAndReplacesThroughMtools) {
  TempDir dir;
  const fs::path image = dir / "floppy.img";
  Floppy floppy(image, true);
  ASSERT_EQ(FAT_OK, floppy.error);
  for (size_t size : {1000, 0, 1, 511, 512, 513, 5000, 20}) {
    SCOPED_TRACE(size);
    const std::string data = Pattern(size, static_cast<unsigned>(size));
    WriteFile(dir / "in", data);
    ASSERT_TRUE(AddFileToFloppyImg(floppy.root, (dir / "in").c_str(), "data.bin"));
    EXPECT_EQ(MtoolsRead(image, "data.bin"), data);
    ASSERT_TRUE(GetFileFromFloppyImg(floppy.root, "data.bin", (dir / "out").c_str()));
    EXPECT_EQ(ReadFile(dir / "out"), data);
  }
  ExpectFsckClean(image);
}

// Each failure: false, the one line naming the failed step, and nothing made
// on the other side.
TEST(FloppyTransfer, FailuresLogTheStepAndLeaveNoTrace) {
  TempDir dir;
  const fs::path image = dir / "floppy.img";
  Floppy floppy(image, true);
  ASSERT_EQ(FAT_OK, floppy.error);
  {
    LogCapture log;
    EXPECT_FALSE(AddFileToFloppyImg(floppy.root, (dir / "missing").c_str(), "a.txt"));
    EXPECT_EQ(log.all(), "AddFileToFloppyImg: FileIO_Open failed, error: 3\n");
  }
  {
    LogCapture log;
    EXPECT_FALSE(GetFileFromFloppyImg(floppy.root, "absent.txt", (dir / "out").c_str()));
    EXPECT_EQ(log.all(), "GetFileFromFloppyImg: FAT_OpenFile failed, error: 5\n");
    EXPECT_FALSE(fs::exists(dir / "out"));
  }
  {
    LogCapture log;
    WriteFile(dir / "ok", "x");
    EXPECT_FALSE(AddFileToFloppyImg(floppy.root, (dir / "ok").c_str(), "bad:name"));
    EXPECT_TRUE(log.contains("AddFileToFloppyImg: FAT_CreateFile failed, error: 7\n"));
    EXPECT_FALSE(AddFileToFloppyImg(nullptr, (dir / "ok").c_str(), "a.txt"));
    EXPECT_FALSE(GetFileFromFloppyImg(nullptr, "a.txt", (dir / "out").c_str()));
  }
  {
    // More than the floppy holds: the copy stops at a full disk and the
    // image stays sound.
    WriteFile(dir / "huge", Pattern(kFATFloppy144Size, 1));
    LogCapture log;
    EXPECT_FALSE(AddFileToFloppyImg(floppy.root, (dir / "huge").c_str(), "huge.bin"));
    EXPECT_TRUE(log.contains("AddFileToFloppyImg: FAT_WriteFile failed, error: 8\n")) << log.all();
  }
  EXPECT_EQ(MtoolsNames(image), "huge.bin");
  ExpectFsckClean(image);
}

class LinuxFloppy : public testing::TestWithParam<TsvRow> {};

TEST_P(LinuxFloppy, BuildsTheFamilysFloppy) {
  // OS key, answer written, template, result, floppy names, log line.
  const auto &c = GetParam().cells;
  TempDir dir;
  const fs::path answers = dir / "answers", templates = dir / "templates", out = dir / "floppy";
  fs::create_directories(templates);
  fs::create_directories(out);
  if (c[1] == "yes") {
    ASSERT_TRUE(AutoInstall_PrepareAnswerFileEx_Linux(c[0].c_str(), 0, answers.c_str(), "demo",
                                                      "Demo User", "pw", "root", false, false));
  }
  for (const char *name : {"suse.flp", "mandriva.flp"}) {
    const fs::path t = templates / name;
    if (c[2] == "yes") {
      // Template floppies as mtools makes them, with a file of their own.
      WriteFile(dir / "readme.txt", "template\n");
      ASSERT_EQ(RunCommand({"mformat", "-C", "-f", "1440", "-i", t.string(), "::"}).exitCode, 0);
      ASSERT_EQ(
          RunCommand({"mcopy", "-i", t.string(), (dir / "readme.txt").string(), "::"}).exitCode, 0);
    } else if (c[2] == "broken") {
      WriteFile(t, std::string(4096, 'z'));
    }
  }
  LogCapture log;
  EXPECT_EQ(AutoInstall_MakeFloppyImg_Linux(answers.c_str(), out.c_str(), templates.c_str(),
                                            c[0].c_str()),
            c[3] == "true");
  const fs::path image = out / "autoinst.flp";
  if (c[4] == "-") {
    EXPECT_FALSE(fs::exists(image));
  } else if (c[4] != "<image>") {
    EXPECT_EQ(MtoolsNames(image), c[4]);
    ExpectFsckClean(image);
    // The answer file goes on byte for byte.
    const std::string name = c[4].substr(0, c[4].find(' '));
    const fs::path written =
        c[0].starts_with("ubuntu") ? answers / "custom" / name : answers / name;
    EXPECT_EQ(MtoolsRead(image, name), ReadFile(written));
  }
  std::vector<std::string> ours;
  for (const auto &line : log.lines()) {
    if (line.starts_with("AutoInstall_MakeFloppyImg_Linux:")) {
      ours.push_back(line);
    }
  }
  if (c[5].empty()) {
    EXPECT_TRUE(ours.empty()) << log.all();
  } else {
    const std::string line = testing_support::Replace(c[5], "<templates>", templates.string());
    EXPECT_EQ(
        ours,
        std::vector<std::string>{testing_support::Replace(line, "<floppy>", out.string()) + "\n"})
        << log.all();
  }
  EXPECT_EQ(AutoInstall_NeedsFloppy_Linux(c[0].c_str()),
            !c[0].starts_with("rhel") && !c[0].starts_with("centos"));
}

INSTANTIATE_TEST_SUITE_P(Families, LinuxFloppy,
                         testing::ValuesIn(ReadTsv("install/linux-floppy.tsv", 6)),
                         testing_support::TsvRowNamer());

TEST(LinuxTools, StagesThePayloadUnderShortNamesAndStopsAtTheFirstMissing) {
  TempDir dir;
  const fs::path tools = dir / "tools", dest = dir / "dest";
  fs::create_directories(tools);
  fs::create_directories(dest);
  WriteFile(tools / "brimle-tools-upgrader-32", "u32");
  WriteFile(tools / "run_upgrader.sh", "#!/bin/sh\n");
  {
    LogCapture log;
    EXPECT_FALSE(AutoInstall_AddTools_Linux(dest.c_str(), tools.c_str()));
    EXPECT_EQ(log.lines().size(), 1u) << log.all();
  }
  EXPECT_EQ(ReadFile(dest / "upgra32"), "u32");
  EXPECT_FALSE(fs::exists(dest / "upgra64"));
  EXPECT_FALSE(fs::exists(dest / "upgrade.sh"));

  WriteFile(tools / "brimle-tools-upgrader-64", "u64");
  EXPECT_TRUE(AutoInstall_AddTools_Linux(dest.c_str(), tools.c_str()));
  EXPECT_EQ(ReadFile(dest / "upgra64"), "u64");
  EXPECT_EQ(ReadFile(dest / "upgrade.sh"), "#!/bin/sh\n");
}

}  // namespace
