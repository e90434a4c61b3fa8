#include "support/qemuBoot.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <vector>

namespace testing_support {

namespace fs = std::filesystem;

namespace {

bool kvmFailedBefore = false;

bool TryKvm() {
  const int fd = open("/dev/kvm", O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  close(fd);
  return !kvmFailedBefore;
}

// QEMU stops the guest and waits on its own KVM failure: the stop text
// ends the run at once instead of at the time limit.
CommandResult RunQemu(const fs::path &image, bool kvm) {
  std::vector<std::string> argv =
      Split("qemu-system-x86_64 -boot d -display none -serial stdio -no-reboot -m 256", " ");
  argv.insert(argv.end(), {"-cdrom", image.string()});
  if (kvm) {
    argv.push_back("-enable-kvm");
  }
  return RunCommand(argv, kBootTimeoutSeconds, "KVM internal error");
}

}  // namespace

fs::path KernelPath() {
  const char *cache = getenv("XDG_CACHE_HOME");
  const char *home = getenv("HOME");
  const fs::path base =
      cache != nullptr && *cache != '\0' ? fs::path(cache) : fs::path(home ? home : "") / ".cache";
  return base / "guestprep" / "vmlinuz";
}

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

CommandResult BootCdrom(const fs::path &image, std::string *accel) {
  const bool tryKvm = TryKvm();
  CommandResult boot = RunQemu(image, tryKvm);
  if (boot.stopped) {
    std::cout << "[   BOOT   ] KVM cannot run the boot loader here (" << boot.seconds
              << " s lost); booting with TCG\n";
    kvmFailedBefore = true;
    boot = RunQemu(image, false);
  }
  *accel = tryKvm && !kvmFailedBefore ? "kvm" : "tcg";
  return boot;
}

std::optional<std::string> LineAfter(const std::string &serial, const std::string &prefix) {
  const size_t at = serial.find(prefix);
  if (at == std::string::npos) {
    return std::nullopt;
  }
  const size_t start = at + prefix.size();
  const size_t end = serial.find_first_of("\r\n", start);
  return serial.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

}  // namespace testing_support
