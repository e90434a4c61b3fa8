// Boot-medium scanning and remastering: the isolinux reader on
// distributions' configurations; media trees with the host's real
// isolinux.bin and ldlinux.c32 scanned as directories and, mastered with
// xorriso, as images; the staged trees mastered with genisoimage and read
// back through xorriso's El Torito report and the ISO 9660 reader; and the
// mastering command's refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "guestprep/autoinstall.h"
#include "lib/guestInstall/autoinstallLinux.h"
#include "lib/guestInstall/autoinstallRemaster.h"
#include "support/imageFixtures.h"
#include "support/testSupport.h"

namespace {

namespace fs = std::filesystem;
using testing_support::BuildMedium;
using testing_support::DataDir;
using testing_support::kHostIsolinuxBin;
using testing_support::kHostLdlinux;
using testing_support::LogCapture;
using testing_support::ReadFile;
using testing_support::ReadTsv;
using testing_support::Replace;
using testing_support::Split;
using testing_support::TempDir;
using testing_support::TsvRow;
using testing_support::WriteFile;

class Table : public testing::TestWithParam<TsvRow> {};

std::string Shown(const std::optional<std::string> &text, bool bracket) {
  return !text.has_value() ? "-" : bracket ? "[" + *text + "]" : *text;
}

std::vector<std::string> Names(const fs::path &dir) {
  std::vector<std::string> names;
  for (const auto &e : fs::directory_iterator(dir)) {
    names.push_back(e.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The Red Hat kernel argument is process-wide; each row sees the same one.
class RedHatArgument {
 public:
  RedHatArgument() : saved_(LinuxFamilyTable[LINUX_FAMILY_REDHAT].kernelArgs) {
    LinuxFamilyTable[LINUX_FAMILY_REDHAT].kernelArgs = "ks=cdrom:/ks.cfg";
  }
  ~RedHatArgument() { LinuxFamilyTable[LINUX_FAMILY_REDHAT].kernelArgs = saved_; }

 private:
  const char *saved_;
};

using Parse = Table;
TEST_P(Parse, FirstCompleteEntry) {
  const auto &c = GetParam().cells;  // file, result, kernel, initrd, append
  autoinstall::IsolinuxEntry entry;
  const bool ok = autoinstall::parseIsolinuxConfig(testing_support::IsolinuxFile(c[0]), &entry);
  EXPECT_EQ(c[1] == "true", ok);
  EXPECT_EQ(c[2], Shown(entry.kernel, false));
  EXPECT_EQ(c[3], Shown(entry.initrd, false));
  EXPECT_EQ(c[4], Shown(entry.append, true));
}
INSTANTIATE_TEST_SUITE_P(Isolinux, Parse, testing::ValuesIn(ReadTsv("isolinux/parse.tsv", 5)),
                         testing_support::TsvRowNamer());

using AskMethod = Table;
TEST_P(AskMethod, Removed) {
  std::string append = GetParam().cells[0];
  autoinstall::removeAskMethod(&append);
  EXPECT_EQ(GetParam().cells[1], append);
}
INSTANTIATE_TEST_SUITE_P(Isolinux, AskMethod,
                         testing::ValuesIn(ReadTsv("isolinux/remove-askmethod.tsv", 2)),
                         testing_support::TsvRowNamer());

// What xorriso reports of an image's boot record, and the names and staged
// configuration the image carries under ISOLINUX.
void CheckMastered(const fs::path &image, const std::vector<std::string> &staged,
                   const std::string &config) {
  testing_support::CommandResult report = testing_support::RunCommand(
      {"xorriso", "-indev", image.string(), "-report_el_torito", "plain"});
  ASSERT_EQ(0, report.exitCode) << report.output;
  for (const std::string &line : Split(ReadFile(DataDir() / "isolinux" / "el-torito.txt"), "\n")) {
    if (line[0] != '#') {
      EXPECT_NE(std::string::npos, report.output.find(line)) << line << "\n" << report.output;
    }
  }
  testing_support::IsoVolume vol(image.string(), 0);
  std::vector<std::string> names;
  std::string read;
  testing_support::WalkIso(
      vol, "ISOLINUX",
      [&](const std::string &path, const Iso9660DirEntry &e, const std::string &data) {
        names.push_back(testing_support::Lower(e.name));
        if (path == "ISOLINUX/ISOLINUX.CFG") {
          read = data;
        }
      });
  std::vector<std::string> want_names = staged;
  want_names.push_back("boot.cat");
  std::sort(names.begin(), names.end());
  std::sort(want_names.begin(), want_names.end());
  EXPECT_EQ(want_names, names);
  EXPECT_EQ(config, read);
}

using Media = Table;
TEST_P(Media, ScanDiskScanIsoAndMaster) {
  // label, osKey, version, files, override, ok, staged, cfg, log
  const auto &c = GetParam().cells;
  TempDir tmp;
  RedHatArgument redHat;
  const fs::path root = tmp / "medium";
  std::map<std::string, std::string> contents = BuildMedium(root, c[3]);
  const char *binOverride = c[4] == "host" ? kHostIsolinuxBin : nullptr;
  if (binOverride != nullptr) {
    contents["isolinux.bin"] = ReadFile(kHostIsolinuxBin);
    contents["ldlinux.c32"] = ReadFile(kHostLdlinux);
  }
  const bool ok = c[5] == "true";
  const fs::path disk = tmp / "disk", iso = tmp / "iso";

  LogCapture log;
  EXPECT_EQ(ok, AutoInstall_ScanDisk(root.c_str(), disk.c_str(), c[1].c_str(),
                                     testing_support::VersionByName(c[2]), binOverride));
  std::vector<std::string> lines;
  for (const std::string &line : Split(c[8] == "-" ? "" : c[8], " | ")) {
    lines.push_back(Replace(Replace(line, "<root>", root.string()), "<staging>", disk.string()) +
                    "\n");
  }
  EXPECT_EQ(lines, log.lines());

  const std::vector<std::string> staged = Split(c[6], ",");
  EXPECT_EQ(staged, Names(disk / "isolinux"));
  for (const std::string &name : staged) {
    if (name != "isolinux.cfg") {
      EXPECT_EQ(contents[name], ReadFile(disk / "isolinux" / name)) << name;
    }
  }
  const std::string config = ReadFile(disk / "isolinux" / "isolinux.cfg");
  if (c[7] != "-") {
    EXPECT_EQ(ReadFile(DataDir() / "isolinux" / "expected" / c[7]), config);
  }

  ASSERT_NO_FATAL_FAILURE(
      testing_support::Master("xorriso", {"-R", "-J"}, tmp / "medium.iso", root));
  log.clear();
  EXPECT_EQ(ok, AutoInstall_ScanISO((tmp / "medium.iso").c_str(), iso.c_str(), c[1].c_str(),
                                    testing_support::VersionByName(c[2]), binOverride));
  EXPECT_EQ(std::vector<std::string>{}, log.lines());
  EXPECT_EQ(testing_support::Snapshot(disk), testing_support::Snapshot(iso));

  if (ok) {
    ASSERT_TRUE(AutoInstall_MasterISO(iso.c_str(), "genisoimage", tmp.str().c_str()));
    EXPECT_FALSE(fs::exists(iso));
    CheckMastered(tmp / "autoinst.iso", staged, config);
  }
}
INSTANTIATE_TEST_SUITE_P(Remaster, Media, testing::ValuesIn(ReadTsv("isolinux/media.tsv", 9)),
                         testing_support::TsvRowNamer());

// A shell script at path that creates marker when run.
void MarkerScript(const fs::path &path, const fs::path &marker) {
  WriteFile(path, "#!/bin/sh\ntouch '" + marker.string() + "'\n");
  fs::permissions(path, fs::perms::owner_all);
}

using MasterRefused = Table;
TEST_P(MasterRefused, NothingRunsAndStagingGoes) {
  const auto &c = GetParam().cells;  // label, stagingDir, toolPath, outDir
  TempDir tmp;
  const fs::path marker = tmp / "marker", script = tmp / "script";
  MarkerScript(script, marker);
  auto path = [&](const std::string &cell) {
    std::string p = Replace(Replace(cell, "<tmp>", tmp.str()), "<marker>", marker.string());
    return Replace(Replace(p, "<script>", script.string()), "\\n", "\n");
  };
  const std::string staging = path(c[1]), tool = path(c[2]), out = path(c[3]);
  WriteFile(fs::path(staging) / "isolinux" / "isolinux.cfg", "label linux\n");

  LogCapture log;
  EXPECT_FALSE(AutoInstall_MasterISO(staging.c_str(), tool.c_str(), out.c_str()));
  EXPECT_FALSE(fs::exists(marker));
  EXPECT_FALSE(fs::exists(staging));
  ASSERT_EQ(1u, log.lines().size()) << log.all();
  EXPECT_TRUE(log.lines()[0].starts_with("AutoInstall_MasterISO: ")) << log.all();
}
INSTANTIATE_TEST_SUITE_P(Remaster, MasterRefused,
                         testing::ValuesIn(ReadTsv("isolinux/master-refused.tsv", 4)),
                         testing_support::TsvRowNamer());

TEST(Remaster, MasterWithAMissingOrFailingToolFailsAndRemovesStaging) {
  TempDir tmp;
  for (const std::string &tool : {(tmp / "no-such-tool").string(), std::string("false")}) {
    WriteFile(tmp / "staging" / "isolinux" / "isolinux.cfg", "label linux\n");
    EXPECT_FALSE(AutoInstall_MasterISO((tmp / "staging").c_str(), tool.c_str(), tmp.str().c_str()));
    EXPECT_FALSE(fs::exists(tmp / "staging")) << tool;
    EXPECT_FALSE(fs::exists(tmp / "autoinst.iso")) << tool;
  }
}

// A tree whose isolinux.cfg lies 40 directories below top.
void DeepTree(const fs::path &top) {
  fs::path deep = top;
  for (int i = 0; i < 40; ++i) {
    deep /= "d";
  }
  WriteFile(deep / "isolinux.cfg", testing_support::IsolinuxFile("centos5/isolinux.cfg"));
}

// A medium whose configuration lies below the search's depth limit, and
// one whose links lead back into itself and out of it: the search ends,
// finds nothing through links, and copies nothing from outside.
TEST(Remaster, DiskSearchIsBoundedAndStaysOnTheMedium) {
  TempDir tmp;
  RedHatArgument redHat;
  DeepTree(tmp / "deep");
  LogCapture log;
  EXPECT_FALSE(AutoInstall_ScanDisk((tmp / "deep").c_str(), (tmp / "s1").c_str(), "centos5-64",
                                    GUESS_VERSION_CENTOS_5, nullptr));
  EXPECT_TRUE(log.contains("findFileInDisk failed isolinux.cfg")) << log.all();

  const fs::path root = tmp / "medium";
  BuildMedium(root,
              "isolinux/isolinux.cfg<centos5/isolinux.cfg,isolinux/initrd.img,"
              "isolinux/isolinux.bin");
  fs::create_directory_symlink(".", root / "loop");
  fs::create_directory_symlink("/", root / "a-host-root");
  WriteFile(tmp / "secret", "host file");
  fs::create_symlink(tmp / "secret", root / "isolinux" / "vmlinuz");
  log.clear();
  EXPECT_FALSE(AutoInstall_ScanDisk(root.c_str(), (tmp / "s2").c_str(), "centos5-64",
                                    GUESS_VERSION_CENTOS_5, nullptr));
  EXPECT_EQ(std::vector<std::string>{"AutoInstall_ScanDisk: path leads outside the medium \"" +
                                     (root / "isolinux" / "vmlinuz").string() + "\"\n"},
            log.lines());
  EXPECT_FALSE(fs::exists(tmp / "s2" / "isolinux" / "vmlinuz"));

  fs::remove(root / "isolinux" / "vmlinuz");
  WriteFile(root / "isolinux" / "vmlinuz", "kernel");
  EXPECT_TRUE(AutoInstall_ScanDisk(root.c_str(), (tmp / "s3").c_str(), "centos5-64",
                                   GUESS_VERSION_CENTOS_5, nullptr));
}

// Images deeper than the search goes, mastered without directory
// relocation so the depth is real.
TEST(Remaster, IsoSearchIsBounded) {
  TempDir tmp;
  DeepTree(tmp / "tree");
  ASSERT_NO_FATAL_FAILURE(
      testing_support::Master("xorriso", {"-R", "-D"}, tmp / "deep.iso", tmp / "tree"));
  LogCapture log;
  EXPECT_FALSE(AutoInstall_ScanISO((tmp / "deep.iso").c_str(), (tmp / "s").c_str(), "centos5-64",
                                   GUESS_VERSION_CENTOS_5, nullptr));
  EXPECT_EQ(std::vector<std::string>{}, log.lines());
}

}  // namespace
