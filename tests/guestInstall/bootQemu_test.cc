// Remastered install images booted for real: a medium with a real Debian
// kernel (scripts/fetch-kernel) and a tiny initrd made here is remastered
// the way the product does it (answer file, ScanISO, MasterISO with
// genisoimage) and booted in QEMU through the host's isolinux; the kernel
// command line read from the serial port must carry the answer-file
// arguments. KVM is used when it can run the boot loader, else TCG.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "guestprep/autoinstall.h"
#include "support/imageFixtures.h"
#include "support/qemuBoot.h"
#include "support/testSupport.h"

namespace {

namespace fs = std::filesystem;
using testing_support::CommandResult;
using testing_support::DataDir;
using testing_support::kBootTimeoutSeconds;
using testing_support::KernelPath;
using testing_support::LineAfter;
using testing_support::MakeInitrd;
using testing_support::RunCommand;
using testing_support::Split;
using testing_support::TempDir;
using testing_support::TsvRow;

class Booted : public testing::TestWithParam<TsvRow> {};

TEST_P(Booted, CommandLineCarriesTheAnswerFile) {
  // label, osKey, version, files, override, serial, present, absent
  const auto &c = GetParam().cells;
  const fs::path kernel = KernelPath();
  ASSERT_TRUE(fs::is_regular_file(kernel))
      << "no Linux kernel at " << kernel << ": run scripts/setup (it runs scripts/fetch-kernel)";
  ASSERT_TRUE(testing_support::HaveTool("qemu-system-x86_64"))
      << "no qemu-system-x86_64: run scripts/setup";
  TempDir tmp;
  ASSERT_NO_FATAL_FAILURE(MakeInitrd(tmp / "rd", tmp / "initrd"));
  const fs::path root = tmp / "medium";
  testing_support::BuildMedium(root, c[3], {{"kernel", kernel}, {"initrd", tmp / "initrd"}});
  ASSERT_NO_FATAL_FAILURE(
      testing_support::Master("xorriso", {"-R", "-J"}, tmp / "medium.iso", root));

  const fs::path staging = tmp / "staging";
  const GuessVersion version = testing_support::VersionByName(c[2]);
  ASSERT_TRUE(AutoInstall_PrepareAnswerFileEx_Linux(c[1].c_str(), version, staging.c_str(), "guest",
                                                    "Guest User", "guest-password", "root-password",
                                                    false, false));
  ASSERT_TRUE(AutoInstall_ScanISO((tmp / "medium.iso").c_str(), staging.c_str(), c[1].c_str(),
                                  version,
                                  c[4] == "host" ? testing_support::kHostIsolinuxBin : nullptr));
  ASSERT_TRUE(AutoInstall_MasterISO(staging.c_str(), "genisoimage", tmp.str().c_str()));

  const fs::path image = tmp / "autoinst.iso";
  std::string accel;
  const CommandResult boot = testing_support::BootCdrom(image, &accel);
  std::cout << "[   BOOT   ] " << c[0] << ": " << accel << ", " << boot.seconds
            << " s from start to exit\n";
  RecordProperty("boot_seconds", std::to_string(boot.seconds));
  RecordProperty("accelerator", accel);
  ASSERT_FALSE(boot.timedOut) << "no exit within " << kBootTimeoutSeconds << " s:\n" << boot.output;

  for (const std::string &prefix : Split(c[5], "|")) {
    std::optional<std::string> line = LineAfter(boot.output, prefix);
    ASSERT_TRUE(line.has_value()) << "no \"" << prefix << "\" line:\n" << boot.output;
    const std::vector<std::string> args = Split(*line, " ");
    for (const std::string &arg : Split(c[6], " ")) {
      EXPECT_NE(args.end(), std::find(args.begin(), args.end(), arg)) << arg << " in " << *line;
    }
    for (const std::string &arg : Split(c[7], " ")) {
      EXPECT_EQ(args.end(), std::find(args.begin(), args.end(), arg)) << arg << " in " << *line;
    }
  }
}
INSTANTIATE_TEST_SUITE_P(Remaster, Booted,
                         testing::ValuesIn(testing_support::ReadTsv("isolinux/boot/boot.tsv", 8)),
                         testing_support::TsvRowNamer());

}  // namespace
