// guestprep prepare end to end, the way a script runs it: corpus trees made
// bootable and mastered by xorriso, the results read back by the programs
// that read them for real (isoinfo, fsck.fat and mtools, xmllint, debconf,
// QEMU), and a failure at each step leaving the output directory and its
// surroundings exactly as they were.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/imageFixtures.h"
#include "support/qemuBoot.h"
#include "support/testSupport.h"

namespace {

namespace fs = std::filesystem;
using testing_support::CommandResult;
using testing_support::DataDir;
using testing_support::ReadFile;
using testing_support::RunCommand;
using testing_support::Split;
using testing_support::TempDir;
using testing_support::TsvRow;

// The Red Hat row's boot files, for failure rows that need a usable medium.
constexpr char kRedHatBootFiles[] = "isolinux/initrd.img,isolinux/isolinux.bin";

// A corpus tree with files added (as BuildMedium reads them), mastered.
fs::path MakeImage(const TempDir &tmp, const std::string &corpus, const std::string &files,
                   const std::map<std::string, fs::path> &sources = {}) {
  const fs::path root = tmp / "medium";
  fs::copy(DataDir() / "media" / corpus, root, fs::copy_options::recursive);
  if (files != "-") {
    testing_support::BuildMedium(root, files, sources);
  }
  const fs::path image = tmp / (corpus + ".iso");
  testing_support::Master("xorriso", {"-R", "-J"}, image, root);
  return image;
}

// A tools image mastered from a tree of the test data.
fs::path MakeToolsImage(const TempDir &tmp, const std::string &kind) {
  const fs::path image = tmp / (kind + "-tools.iso");
  fs::path tree = kind == "linux" ? DataDir() / "prepare" / "linux-tools"
                                  : DataDir() / "windows-floppy" / "tools";
  if (kind == "nodrivers") {
    fs::create_directories(tmp / "nodrivers");
    fs::copy(tree / "upgrader", tmp / "nodrivers" / "upgrader", fs::copy_options::recursive);
    tree = tmp / "nodrivers";
  }
  testing_support::Master("xorriso", {"-R", "-J"}, image, tree);
  return image;
}

// guestprep prepare IMAGE for the account ann, "Ann Lee" (Windows: the
// account "Ann Lee") whose password is in tmp/"password", with more
// arguments and --out.
CommandResult Prepare(const TempDir &tmp, const fs::path &image, std::vector<std::string> args,
                      const fs::path &out) {
  std::vector<std::string> argv = {
      GUESTPREP_CLI, "prepare",   image.string(), "--password-file", (tmp / "password").string(),
      "--out",       out.string()};
  const bool windows = image.filename().string().starts_with("win");
  const auto given = [&](const char *option) {
    return std::find(args.begin(), args.end(), option) != args.end();
  };
  if (!windows && !given("--user")) {
    argv.insert(argv.end(), {"--user", "ann"});
  }
  if (!given("--full-name")) {
    argv.insert(argv.end(), {"--full-name", "Ann Lee"});
  }
  argv.insert(argv.end(), args.begin(), args.end());
  return RunCommand(argv);
}

// A file of an ISO 9660 image by its host path, as isoinfo extracts it
// under its primary name (upper case, version ";1").
std::string IsoFile(const fs::path &image, std::string path) {
  for (char &ch : path) {
    ch = static_cast<char>(toupper(static_cast<unsigned char>(ch)));
  }
  if (path.find('.') == std::string::npos) {
    path += ".";
  }
  return RunCommand({"isoinfo", "-i", image.string(), "-x", path + ";1"}).output;
}

// The lines of the command's output that start a report (the catalogue's
// rejection messages go on over more lines).
std::vector<std::string> Reports(const std::string &output) {
  std::vector<std::string> lines;
  for (const std::string &line : Split(output, "\n")) {
    if (line.starts_with("guestprep: ")) {
      lines.push_back(line);
    }
  }
  return lines;
}

class LinuxPrepared : public testing::TestWithParam<TsvRow> {};

TEST_P(LinuxPrepared, BootImageAndFloppyPassTheirCheckers) {
  // label, corpus, files, osKey, answer, checker, medium, floppy
  const auto &c = GetParam().cells;
  TempDir tmp;
  const fs::path image = MakeImage(tmp, c[1], c[2]);
  const fs::path tools = MakeToolsImage(tmp, "linux");
  // An existing output directory: the results join what is there.
  const fs::path out = tmp / "vm";
  testing_support::WriteFile(out / "keep.txt", "kept");
  testing_support::WriteFile(tmp / "password", "secret\n");
  const CommandResult run = Prepare(tmp, image, {"--tools-image", tools.string(), "--json"}, out);
  ASSERT_EQ(0, run.exitCode) << run.output;
  const nlohmann::json j = nlohmann::json::parse(run.output);
  EXPECT_EQ(c[3], j["osKey"]);
  EXPECT_EQ((out / c[4]).string(), j["answerFile"]);
  EXPECT_EQ(tools.string(), j["toolsImage"]);

  // The boot image: El Torito, exactly the expected files, the answer file
  // and the payload byte for byte.
  const fs::path iso = out / "autoinst.iso";
  EXPECT_EQ(j["bootImage"], iso.string());
  EXPECT_EQ(j["bootImageSize"], fs::file_size(iso));
  EXPECT_NE(RunCommand({"isoinfo", "-d", "-i", iso.string()}).output.find("El Torito VD"),
            std::string::npos);
  const std::vector<std::string> listing =
      Split(RunCommand({"isoinfo", "-f", "-i", iso.string()}).output, "\n");
  EXPECT_EQ(Split(c[6], ","), listing);
  const std::string answer = ReadFile(out / c[4]);
  EXPECT_EQ(answer, IsoFile(iso, "/" + c[4]));
  EXPECT_EQ(
      ReadFile(DataDir() / "prepare" / "linux-tools" / "upgrader" / "brimle-tools-upgrader-64"),
      IsoFile(iso, "/upgra64"));
  EXPECT_NE(IsoFile(iso, "/isolinux/isolinux.cfg").find(j["kernelArgs"].get<std::string>()),
            std::string::npos);

  if (c[5] != "-") {
    std::vector<std::string> check = Split(c[5], " ");
    check.push_back((out / c[4]).string());
    const CommandResult checked = RunCommand(check);
    EXPECT_EQ(0, checked.exitCode) << checked.output;
  }
  if (c[7] == "-") {
    EXPECT_TRUE(j["floppy"].is_null());
    EXPECT_FALSE(fs::exists(out / "autoinst.flp"));
  } else {
    const fs::path floppy = out / "autoinst.flp";
    EXPECT_EQ(floppy.string(), j["floppy"]);
    EXPECT_EQ("", testing_support::FsckProblems(floppy));
    std::vector<std::string> names;
    for (const auto &file : j["floppyFiles"]) {
      names.push_back(file["name"]);
    }
    EXPECT_EQ(Split(c[7], ","), names);
    EXPECT_EQ(answer, testing_support::MtoolsRead(floppy, fs::path(c[4]).filename().string()));
  }
  EXPECT_EQ("kept", ReadFile(out / "keep.txt"));
  for (const char *made : {"autoinst.iso", "autoinst.flp", c[4].c_str()}) {
    if (fs::exists(out / made)) {
      EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write,
                fs::status(out / made).permissions())
          << made;
    }
  }
  // Nothing of the build is left beside the output.
  for (const fs::directory_entry &e : fs::directory_iterator(tmp.path())) {
    EXPECT_FALSE(e.path().filename().string().starts_with(".vm.")) << e.path();
  }
}
INSTANTIATE_TEST_SUITE_P(Prepare, LinuxPrepared,
                         testing::ValuesIn(testing_support::ReadTsv("prepare/linux.tsv", 8)),
                         testing_support::TsvRowNamer());

// The Red Hat result boots: the installer's kernel starts with the
// kickstart argument on its command line.
TEST(PrepareBoot, RedHatKernelCommandLineCarriesTheKickstart) {
  const fs::path kernel = testing_support::KernelPath();
  ASSERT_TRUE(fs::is_regular_file(kernel))
      << "no Linux kernel at " << kernel << ": run scripts/setup (it runs scripts/fetch-kernel)";
  ASSERT_TRUE(testing_support::HaveTool("qemu-system-x86_64"))
      << "no qemu-system-x86_64: run scripts/setup";
  TempDir tmp;
  ASSERT_NO_FATAL_FAILURE(testing_support::MakeInitrd(tmp / "rd", tmp / "initrd"));
  const fs::path image =
      MakeImage(tmp, "centos7",
                "isolinux/vmlinuz=kernel,isolinux/initrd.img=initrd,isolinux/isolinux.bin,"
                "isolinux/ldlinux.c32",
                {{"kernel", kernel}, {"initrd", tmp / "initrd"}});
  testing_support::WriteFile(tmp / "password", "secret\n");
  const CommandResult run = Prepare(tmp, image, {}, tmp / "vm");
  ASSERT_EQ(0, run.exitCode) << run.output;

  std::string accel;
  const CommandResult boot = testing_support::BootCdrom(tmp / "vm" / "autoinst.iso", &accel);
  RecordProperty("accelerator", accel);
  ASSERT_FALSE(boot.timedOut) << boot.output;
  const auto line = testing_support::LineAfter(boot.output, "guestprep-init cmdline: ");
  ASSERT_TRUE(line.has_value()) << boot.output;
  const std::vector<std::string> args = Split(*line, " ");
  EXPECT_NE(args.end(), std::find(args.begin(), args.end(), "ks=cdrom:/ks.cfg")) << *line;
}

// Windows: the answer files read by xmllint and an INI reader, the floppy
// by fsck.fat and mtools, the tools image found through the library
// directory's naming; an existing output directory keeps its other files.
TEST(PrepareWindows, AnswerFilesAndFloppyWithDriversAndUpgrader) {
  TempDir tmp;
  const fs::path image = MakeImage(tmp, "win-10-rs5", "-");
  fs::create_directories(tmp / "lib" / "isoimages");
  fs::rename(MakeToolsImage(tmp, "windows"), tmp / "lib" / "isoimages" / "windows.iso");
  const fs::path out = tmp / "vm";
  testing_support::WriteFile(out / "keep.txt", "kept");
  testing_support::WriteFile(out / "winnt.sif", "old");
  testing_support::WriteFile(tmp / "password", "secret\n");
  const CommandResult run =
      Prepare(tmp, image,
              {"--edition", "Windows 10 Pro", "--libdir", (tmp / "lib").string(), "--product-key",
               "aaaaa-bbbbb-ccccc-ddddd-eeeee", "--json"},
              out);
  ASSERT_EQ(0, run.exitCode) << run.output;
  const nlohmann::json j = nlohmann::json::parse(run.output);
  EXPECT_EQ("windows9-64", j["osKey"]);
  EXPECT_EQ((tmp / "lib" / "isoimages" / "windows.iso").string(), j["toolsImage"]);
  EXPECT_EQ("kept", ReadFile(out / "keep.txt"));

  const fs::path xml = out / "autoun~0.xml";
  EXPECT_EQ(0, RunCommand({"xmllint", "--noout", xml.string()}).exitCode);
  const std::string ini = (DataDir() / ".." / "scripts" / "ini_read.py").string();
  EXPECT_EQ(
      "\"AAAAA-BBBBB-CCCCC-DDDDD-EEEEE\"",
      RunCommand({"python3", ini, (out / "winnt.sif").string(), "UserData", "ProductKey"}).output);
  const fs::path floppy = out / "autoinst.flp";
  EXPECT_EQ("", testing_support::FsckProblems(floppy));
  std::vector<std::string> names;
  for (const auto &file : j["floppyFiles"]) {
    names.push_back(file["name"]);
  }
  EXPECT_EQ(Split("brmscsi.inf,brmscsi.sys,txtsetup.oem,winnt.sif,autoun~0.xml,upgrader.exe,"
                  "unattend.cmd",
                  ","),
            names);
  EXPECT_EQ(ReadFile(out / "winnt.sif"), testing_support::MtoolsRead(floppy, "winnt.sif"));
  EXPECT_EQ(
      ReadFile(DataDir() / "windows-floppy" / "tools" / "upgrader" / "BrimleToolsUpgrader.exe"),
      testing_support::MtoolsRead(floppy, "upgrader.exe"));
}

class PrepareFails : public testing::TestWithParam<TsvRow> {};

TEST_P(PrepareFails, LeavesTheOutputAsItWasAndNamesTheStep) {
  // label, corpus, files, tools, password, out, args, exit, line
  const auto &c = GetParam().cells;
  TempDir tmp;
  const fs::path image = MakeImage(tmp, c[1], c[2] == "boot" ? kRedHatBootFiles : c[2]);
  std::vector<std::string> args;
  if (c[3] == "linux" || c[3] == "windows" || c[3] == "nodrivers") {
    args = {"--tools-image", MakeToolsImage(tmp, c[3]).string()};
  } else if (c[3] == "libdir") {
    fs::create_directories(tmp / "lib" / "isoimages");
    args = {"--libdir", (tmp / "lib").string()};
  } else if (c[3] != "-") {
    args = {"--tools-image", c[3]};
  }
  if (c[6] != "-") {
    // "_" stands for a blank inside one argument.
    for (const std::string &arg : Split(c[6], " ")) {
      args.push_back(testing_support::Replace(arg, "_", " "));
    }
  }
  fs::path out = tmp / "vm";
  if (c[5] == "existing") {
    testing_support::WriteFile(out / "keep.txt", "kept");
    testing_support::WriteFile(out / "ks.cfg", "old kickstart");
  } else if (c[5] == "under-file") {
    testing_support::WriteFile(tmp / "file", "a file");
    out = tmp / "file" / "vm";
  }
  testing_support::WriteFile(tmp / "password", c[4] + "\n");
  const auto before = testing_support::Snapshot(tmp.path());
  const CommandResult run = Prepare(tmp, image, args, out);
  EXPECT_EQ(std::stoi(c[7]), run.exitCode) << run.output;
  EXPECT_EQ(before, testing_support::Snapshot(tmp.path()));
  const std::vector<std::string> lines = Reports(run.output);
  ASSERT_EQ(1u, lines.size()) << run.output;
  EXPECT_NE(lines[0].find(c[8]), std::string::npos) << lines[0];
}
INSTANTIATE_TEST_SUITE_P(Prepare, PrepareFails,
                         testing::ValuesIn(testing_support::ReadTsv("prepare/failures.tsv", 9)),
                         testing_support::TsvRowNamer());

}  // namespace
