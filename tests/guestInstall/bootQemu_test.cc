// Remastered install images booted for real: a medium with a real Debian
// kernel (scripts/fetch-kernel) and a tiny initrd made here is remastered
// the way the product does it (answer file, ScanISO, MasterISO with
// genisoimage) and booted in QEMU through the host's isolinux; the kernel
// command line read from the serial port must carry the answer-file
// arguments. KVM is used when it can run the boot loader, else TCG.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "guestprep/autoinstall.h"
#include "support/imageFixtures.h"
#include "support/testSupport.h"

namespace {

namespace fs = std::filesystem;
using testing_support::CommandResult;
using testing_support::DataDir;
using testing_support::RunCommand;
using testing_support::Split;
using testing_support::TempDir;
using testing_support::TsvRow;

// A hung boot fails the test instead of hanging the run.
constexpr int kBootTimeoutSeconds = 120;

fs::path KernelPath() {
  const char *cache = getenv("XDG_CACHE_HOME");
  const char *home = getenv("HOME");
  const fs::path base =
      cache != nullptr && *cache != '\0' ? fs::path(cache) : fs::path(home ? home : "") / ".cache";
  return base / "guestprep" / "vmlinuz";
}

// The initrd: a static init and the mount points it uses, as a newc cpio.
void MakeInitrd(const fs::path &dir, const fs::path &out) {
  fs::create_directories(dir / "dev");
  fs::create_directories(dir / "proc");
  CommandResult r = RunCommand({"cc", "-static", "-Os", "-s", "-o", (dir / "init").string(),
                                (DataDir() / "isolinux" / "boot" / "init.c").string()});
  ASSERT_EQ(0, r.exitCode) << r.output;
  r = RunCommand({"sh", "-c", "cd \"$1\" && find . | cpio -o -H newc --quiet > \"$2\"", "sh",
                  dir.string(), out.string()});
  ASSERT_EQ(0, r.exitCode) << r.output;
}

// Runs QEMU on the image until it exits (the init restarts the machine),
// the time runs out, or it stops on its own KVM failure (stopped is then
// set: QEMU stops the guest and waits).
CommandResult RunQemu(const fs::path &image, bool kvm) {
  std::vector<std::string> argv =
      Split("qemu-system-x86_64 -boot d -display none -serial stdio -no-reboot -m 256", " ");
  argv.insert(argv.end(), {"-cdrom", image.string()});
  if (kvm) {
    argv.push_back("-enable-kvm");
  }
  return RunCommand(argv, kBootTimeoutSeconds, "KVM internal error");
}

// Whether to try KVM: /dev/kvm opens and no boot of this run has seen it
// fail (some nested KVMs cannot run the boot loader's real-mode code).
bool kvmFailedBefore = false;
bool TryKvm() {
  const int fd = open("/dev/kvm", O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  close(fd);
  return !kvmFailedBefore;
}

// The text after prefix on the serial line that holds it, without the
// line end; nothing when no line does.
std::optional<std::string> LineAfter(const std::string &serial, const std::string &prefix) {
  const size_t at = serial.find(prefix);
  if (at == std::string::npos) {
    return std::nullopt;
  }
  const size_t start = at + prefix.size();
  const size_t end = serial.find_first_of("\r\n", start);
  return serial.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

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
  const bool tryKvm = TryKvm();
  CommandResult boot = RunQemu(image, tryKvm);
  if (boot.stopped) {
    std::cout << "[   BOOT   ] KVM cannot run the boot loader here (" << boot.seconds
              << " s lost); booting with TCG\n";
    kvmFailedBefore = true;
    boot = RunQemu(image, false);
  }
  const char *accel = tryKvm && !kvmFailedBefore ? "kvm" : "tcg";
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
