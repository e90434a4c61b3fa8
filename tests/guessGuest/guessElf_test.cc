// Guess_ELF_Arch on real ELF headers (a binary of this machine and the
// FreeBSD kernels of the corpus, as readelf sees them), on headers with
// another machine byte, and on truncated or garbage input (sized exactly,
// so ASan sees any overread).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "guestprep/guess.h"
#include "support/testSupport.h"

namespace {

GuessElfArch Probe(const std::string &b) {
  std::unique_ptr<char[]> exact(new char[b.size() + (b.empty() ? 1 : 0)]);
  memcpy(exact.get(), b.data(), b.size());
  return Guess_ELF_Arch(exact.get(), b.size());
}

TEST(ElfArch, AgreesWithReadelf) {
  const std::string media = (testing_support::DataDir() / "media/").string();
  const struct {
    std::string path;
    const char *machine;
    GuessElfArch arch;
  } cases[] = {
      {"/bin/true", "X86-64", GUESS_ARCH_X86_64},
      {media + "other-freebsd4-i386/kernel", "80386", GUESS_ARCH_X86},
      {media + "other-freebsd13-kerneldot/boot/kernel/kernel.", "X86-64", GUESS_ARCH_X86_64},
      {media + "other-freebsd14/boot/kernel/kernel", "X86-64", GUESS_ARCH_X86_64},
      {media + "other-freebsd14-i386/boot/kernel/kernel", "80386", GUESS_ARCH_X86},
      {media + "other-freebsd14-arm64/boot/kernel/kernel", "AArch64", GUESS_ARCH_ARM64},
  };
  for (const auto &c : cases) {
    auto r = testing_support::RunCommand({"readelf", "-h", c.path});
    EXPECT_THAT(r.output, testing::ContainsRegex(std::string("Machine: +.*") + c.machine));
    EXPECT_EQ(c.arch, Probe(testing_support::ReadFile(c.path).substr(0, 64))) << c.path;
  }
}

// Only the low byte of e_machine (offset 18) counts; 19 bytes suffice.
TEST(ElfArch, MachineByteBoundaries) {
  const std::string host = testing_support::ReadFile("/bin/true").substr(0, 64);
  auto machine = [&host](unsigned low, unsigned high) {
    std::string h = host;
    h[18] = static_cast<char>(low);
    h[19] = static_cast<char>(high);
    return h;
  };
  std::string garbage(64, '\xFF');
  garbage[18] = 0x3E;
  const struct {
    const char *name;
    std::string bytes;
    GuessElfArch arch;
  } cases[] = {
      {"i486", machine(6, 0), GUESS_ARCH_X86},
      {"i860", machine(7, 0), GUESS_ARCH_X86},
      {"ppc64", machine(21, 0), GUESS_ARCH_UNKNOWN},
      {"high byte ignored", machine(0x3E, 1), GUESS_ARCH_X86_64},
      {"nineteen bytes", host.substr(0, 19), GUESS_ARCH_X86_64},
      {"eighteen bytes", host.substr(0, 18), GUESS_ARCH_UNKNOWN},
      {"empty", "", GUESS_ARCH_UNKNOWN},
      {"garbage with the machine byte", garbage, GUESS_ARCH_X86_64},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(c.arch, Probe(c.bytes)) << c.name;
  }
  EXPECT_EQ(GUESS_ARCH_UNKNOWN, Guess_ELF_Arch(nullptr, 64));
}

}  // namespace
