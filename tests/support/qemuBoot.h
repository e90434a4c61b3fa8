// Booting remastered install images for real: a Debian kernel that
// scripts/fetch-kernel keeps, a one-program initrd whose init prints the
// kernel command line on the serial port ("guestprep-init cmdline: ") and
// restarts, and QEMU on the image as its CD.
#ifndef GUESTPREP_TESTS_QEMUBOOT_H
#define GUESTPREP_TESTS_QEMUBOOT_H

#include <filesystem>
#include <optional>
#include <string>

#include "support/testSupport.h"

namespace testing_support {

// A hung boot fails the test instead of hanging the run.
constexpr int kBootTimeoutSeconds = 120;

// Where scripts/fetch-kernel leaves the kernel.
std::filesystem::path KernelPath();

// The initrd: a static init and the mount points it uses, as a newc cpio
// at out, built in dir. Fails the test when a tool does.
void MakeInitrd(const std::filesystem::path &dir, const std::filesystem::path &out);

// Boots the image until the init restarts the machine or the time runs
// out: with KVM when it opens and has not failed before in this run (some
// nested KVMs cannot run the boot loader's real-mode code), else with TCG.
// accel receives "kvm" or "tcg".
CommandResult BootCdrom(const std::filesystem::path &image, std::string *accel);

// The text after prefix on the serial line that holds it, without the
// line end; nothing when no line does.
std::optional<std::string> LineAfter(const std::string &serial, const std::string &prefix);

}  // namespace testing_support

#endif
