// Boot-medium scanning and remastering: the isolinux reader on
// distributions' configurations; media trees with the host's real
// isolinux.bin and ldlinux.c32 scanned as directories and, mastered with
// xorriso, as images; the staged trees mastered with genisoimage and read
// back through xorriso's El Torito report and the ISO 9660 reader; and the
// mastering command's refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "guestprep/autoinstall.h"
#include "lib/guestInstall/autoinstallLinux.h"
#include "lib/guestInstall/autoinstallRemaster.h"
#include "support/imageFixtures.h"
#include "support/testSupport.h"

namespace {

namespace fs = std::filesystem;
using testing_support::DataDir;
using testing_support::LogCapture;
using testing_support::ReadFile;
using testing_support::ReadTsv;
using testing_support::TempDir;
using testing_support::TsvRow;
using testing_support::WriteFile;

const fs::path kHostIsolinuxBin = "/usr/lib/ISOLINUX/isolinux.bin";
const fs::path kHostLdlinux = "/usr/lib/syslinux/modules/bios/ldlinux.c32";

class Table : public testing::TestWithParam<TsvRow> {};
std::string RowName(const testing::TestParamInfo<TsvRow> &info) {
  return testing_support::TsvRowName(info.param);
}

std::vector<std::string> Split(const std::string &text, const std::string &sep) {
  std::vector<std::string> out;
  for (size_t at = 0; !text.empty();) {
    const size_t end = text.find(sep, at);
    out.push_back(text.substr(at, end - at));
    if (end == std::string::npos) {
      break;
    }
    at = end + sep.size();
  }
  return out;
}

std::string Replace(std::string text, const std::string &from, const std::string &to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

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
  const bool ok = autoinstall::parseIsolinuxConfig(ReadFile(DataDir() / "isolinux" / c[0]), &entry);
  EXPECT_EQ(c[1] == "true", ok);
  EXPECT_EQ(c[2], Shown(entry.kernel, false));
  EXPECT_EQ(c[3], Shown(entry.initrd, false));
  EXPECT_EQ(c[4], Shown(entry.append, true));
}
INSTANTIATE_TEST_SUITE_P(Isolinux, Parse, testing::ValuesIn(ReadTsv("isolinux/parse.tsv", 5)),
                         RowName);

using AskMethod = Table;
TEST_P(AskMethod, Removed) {
  std::string append = GetParam().cells[0];
  autoinstall::removeAskMethod(&append);
  EXPECT_EQ(GetParam().cells[1], append);
}
INSTANTIATE_TEST_SUITE_P(Isolinux, AskMethod,
                         testing::ValuesIn(ReadTsv("isolinux/remove-askmethod.tsv", 2)), RowName);

// Builds the medium a row describes; the contents by base name.
std::map<std::string, std::string> BuildMedium(const fs::path &root, const std::string &files) {
  std::map<std::string, std::string> contents;
  fs::create_directories(root);
  for (const std::string &entry : Split(files, ",")) {
    const std::vector<std::string> parts = Split(entry, "<");
    const fs::path path = root / parts[0];
    const std::string base = path.filename().string();
    std::string data = parts.size() > 1         ? ReadFile(DataDir() / "isolinux" / parts[1])
                       : base == "isolinux.bin" ? ReadFile(kHostIsolinuxBin)
                       : base == "ldlinux.c32"  ? ReadFile(kHostLdlinux)
                                                : parts[0];
    WriteFile(path, data);
    contents[base] = data;
  }
  return contents;
}

// What xorriso reports of an image's boot record, and the names and staged
// configuration the image carries under ISOLINUX.
void CheckMastered(const fs::path &image, const std::vector<std::string> &staged,
                   const std::string &config) {
  testing_support::CommandResult report = testing_support::RunCommand(
      {"xorriso", "-indev", image.string(), "-report_el_torito", "plain"});
  ASSERT_EQ(0, report.exitCode) << report.output;
  std::istringstream want(ReadFile(DataDir() / "isolinux" / "el-torito.txt"));
  for (std::string line; std::getline(want, line);) {
    if (!line.empty() && line[0] != '#') {
      EXPECT_NE(std::string::npos, report.output.find(line)) << line << "\n" << report.output;
    }
  }
  testing_support::IsoVolume vol(image.string(), 0);
  std::vector<std::string> names;
  std::string read;
  testing_support::WalkIso(
      vol, "ISOLINUX",
      [&](const std::string &path, const Iso9660DirEntry &e, const std::string &data) {
        names.push_back(e.name);
        if (path == "ISOLINUX/ISOLINUX.CFG") {
          read = data;
        }
      });
  std::vector<std::string> want_names{"BOOT.CAT"};
  for (std::string name : staged) {
    for (char &ch : name) {
      ch = static_cast<char>(toupper(static_cast<unsigned char>(ch)));
    }
    want_names.push_back(name);
  }
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
  const char *binOverride = c[4] == "host" ? kHostIsolinuxBin.c_str() : nullptr;
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
                         RowName);

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
                         testing::ValuesIn(ReadTsv("isolinux/master-refused.tsv", 4)), RowName);

TEST(Remaster, MasterWithMissingToolFailsAndRemovesStaging) {
  TempDir tmp;
  WriteFile(tmp / "staging" / "isolinux" / "isolinux.cfg", "label linux\n");
  EXPECT_FALSE(AutoInstall_MasterISO((tmp / "staging").c_str(), (tmp / "no-such-tool").c_str(),
                                     tmp.str().c_str()));
  EXPECT_FALSE(fs::exists(tmp / "staging"));
  EXPECT_FALSE(fs::exists(tmp / "autoinst.iso"));
}

TEST(Remaster, MasterWithAFailingToolFailsAndRemovesStaging) {
  TempDir tmp;
  WriteFile(tmp / "staging" / "isolinux" / "isolinux.cfg", "label linux\n");
  EXPECT_FALSE(AutoInstall_MasterISO((tmp / "staging").c_str(), "false", tmp.str().c_str()));
  EXPECT_FALSE(fs::exists(tmp / "staging"));
}

// A medium whose configuration lies below the search's depth limit, and
// one whose links lead back into itself and out of it: the search ends,
// finds nothing through links, and copies nothing from outside.
TEST(Remaster, DiskSearchIsBoundedAndStaysOnTheMedium) {
  TempDir tmp;
  RedHatArgument redHat;
  fs::path deep = tmp / "deep";
  for (int i = 0; i < 40; ++i) {
    deep /= "d";
  }
  WriteFile(deep / "isolinux.cfg", ReadFile(DataDir() / "isolinux" / "centos5" / "isolinux.cfg"));
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
  fs::path deep = tmp / "tree";
  for (int i = 0; i < 40; ++i) {
    deep /= "d";
  }
  WriteFile(deep / "isolinux.cfg", ReadFile(DataDir() / "isolinux" / "centos5" / "isolinux.cfg"));
  ASSERT_NO_FATAL_FAILURE(
      testing_support::Master("xorriso", {"-R", "-D"}, tmp / "deep.iso", tmp / "tree"));
  LogCapture log;
  EXPECT_FALSE(AutoInstall_ScanISO((tmp / "deep.iso").c_str(), (tmp / "s").c_str(), "centos5-64",
                                   GUESS_VERSION_CENTOS_5, nullptr));
  EXPECT_EQ(std::vector<std::string>{}, log.lines());
}

}  // namespace
