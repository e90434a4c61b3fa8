// Guess_ELF_Arch on real ELF headers: one copied from a binary of this
// machine, others built field by field and confirmed by readelf, plus
// truncated and garbage input (sized exactly, so ASan sees any overread).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cctype>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "guestprep/guess.h"
#include "support/testSupport.h"

namespace {

using Bytes = std::vector<unsigned char>;
using testing_support::RunCommand;
using testing_support::TempDir;

void Put16(Bytes &b, uint16_t v) {
  b.push_back(static_cast<unsigned char>(v));
  b.push_back(static_cast<unsigned char>(v >> 8));
}
void Put32(Bytes &b, uint32_t v) {
  Put16(b, static_cast<uint16_t>(v));
  Put16(b, static_cast<uint16_t>(v >> 16));
}
void Put64(Bytes &b, uint64_t v) {
  Put32(b, static_cast<uint32_t>(v));
  Put32(b, static_cast<uint32_t>(v >> 32));
}

// e_ident: magic, class, little-endian, version 1, FreeBSD ABI, padding.
Bytes Ident(unsigned char elfClass) {
  Bytes b = {0x7F, 'E', 'L', 'F'};
  b.push_back(elfClass);  // EI_CLASS: 1 ELFCLASS32, 2 ELFCLASS64
  b.push_back(1);         // EI_DATA: ELFDATA2LSB
  b.push_back(1);         // EI_VERSION: EV_CURRENT
  b.push_back(9);         // EI_OSABI: ELFOSABI_FREEBSD
  b.push_back(0);         // EI_ABIVERSION
  b.resize(16, 0);        // EI_PAD
  return b;
}

// A 52-byte ELF32 executable header with no program or section headers.
Bytes Elf32(uint16_t machine) {
  Bytes b = Ident(1);
  Put16(b, 2);           // e_type: ET_EXEC
  Put16(b, machine);     // e_machine (its low byte sits at offset 18)
  Put32(b, 1);           // e_version
  Put32(b, 0xC0400000);  // e_entry: where an i386 kernel is linked
  Put32(b, 0);           // e_phoff
  Put32(b, 0);           // e_shoff
  Put32(b, 0);           // e_flags
  Put16(b, 52);          // e_ehsize
  Put16(b, 32);          // e_phentsize
  Put16(b, 0);           // e_phnum
  Put16(b, 40);          // e_shentsize
  Put16(b, 0);           // e_shnum
  Put16(b, 0);           // e_shstrndx
  return b;
}

// A 64-byte ELF64 executable header with no program or section headers.
Bytes Elf64(uint16_t machine) {
  Bytes b = Ident(2);
  Put16(b, 2);                      // e_type: ET_EXEC
  Put16(b, machine);                // e_machine
  Put32(b, 1);                      // e_version
  Put64(b, 0xFFFF000000000000ull);  // e_entry
  Put64(b, 0);                      // e_phoff
  Put64(b, 0);                      // e_shoff
  Put32(b, 0);                      // e_flags
  Put16(b, 64);                     // e_ehsize
  Put16(b, 56);                     // e_phentsize
  Put16(b, 0);                      // e_phnum
  Put16(b, 64);                     // e_shentsize
  Put16(b, 0);                      // e_shnum
  Put16(b, 0);                      // e_shstrndx
  return b;
}

// The first bytes of a binary of this (x86-64) machine.
Bytes HostBinaryHeader() {
  std::string all = testing_support::ReadFile("/bin/true");
  size_t n = all.size() < 64 ? all.size() : 64;
  return Bytes(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(n));
}

Bytes Truncated(Bytes b, size_t n) {
  b.resize(n);
  b.shrink_to_fit();
  return b;
}

GuessElfArch Probe(const Bytes &b) {
  // A heap copy of exactly the given size: one byte too far is an ASan error.
  std::unique_ptr<unsigned char[]> exact(new unsigned char[b.size() ? b.size() : 1]);
  if (!b.empty()) {
    memcpy(exact.get(), b.data(), b.size());
  }
  return Guess_ELF_Arch(exact.get(), b.size());
}

struct ElfCase {
  const char *name;
  Bytes bytes;
  GuessElfArch arch;
};

std::vector<ElfCase> ElfCases() {
  Bytes garbage(64, 0xFF);
  garbage[18] = 0x3E;
  Bytes highByte = Elf64(0x3E);
  highByte[19] = 0x01;  // e_machine 0x013E: only the low byte counts
  return {
      {"HostBinary", HostBinaryHeader(), GUESS_ARCH_X86_64},
      {"I386", Elf32(3), GUESS_ARCH_X86},
      {"I486", Elf32(6), GUESS_ARCH_X86},
      {"I860", Elf32(7), GUESS_ARCH_X86},
      {"Arm64", Elf64(0xB7), GUESS_ARCH_ARM64},
      {"Ppc64", Elf64(21), GUESS_ARCH_UNKNOWN},
      {"Nineteen", Truncated(HostBinaryHeader(), 19), GUESS_ARCH_X86_64},
      {"Eighteen", Truncated(HostBinaryHeader(), 18), GUESS_ARCH_UNKNOWN},
      {"Empty", Bytes(), GUESS_ARCH_UNKNOWN},
      {"GarbageWithMachineByte", garbage, GUESS_ARCH_X86_64},
      {"HighByteIgnored", highByte, GUESS_ARCH_X86_64},
  };
}

class ElfArch : public testing::TestWithParam<ElfCase> {};
TEST_P(ElfArch, Probe) {
  EXPECT_EQ(GetParam().arch, Probe(GetParam().bytes));
}
INSTANTIATE_TEST_SUITE_P(Headers, ElfArch, testing::ValuesIn(ElfCases()),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(ElfArch, NullBuffer) {
  EXPECT_EQ(GUESS_ARCH_UNKNOWN, Guess_ELF_Arch(nullptr, 64));
}

// readelf's "Machine:" line for a header file.
std::string ReadelfMachine(const std::string &path) {
  auto r = RunCommand({"readelf", "-h", path});
  size_t at = r.output.find("Machine:");
  if (r.exitCode != 0 || at == std::string::npos) {
    return "readelf failed: " + r.output;
  }
  size_t begin = r.output.find_first_not_of(' ', at + 8);
  return r.output.substr(begin, r.output.find('\n', begin) - begin);
}

// The hand-built headers are valid ELF headers in binutils' eyes.
struct Built {
  const char *name;
  Bytes bytes;
  const char *machine;
};
TEST(ElfArch, BuiltHeadersAreRealElf) {
  const Built built[] = {
      {"i386", Elf32(3), "80386"},
      {"arm64", Elf64(0xB7), "AArch64"},
      {"x86_64", Elf64(0x3E), "X86-64"},
  };
  TempDir dir;
  for (const Built &b : built) {
    const std::string path = (dir / b.name).string();
    testing_support::WriteFile(path, std::string(b.bytes.begin(), b.bytes.end()));
    EXPECT_THAT(ReadelfMachine(path), testing::HasSubstr(b.machine)) << b.name;
  }
}

// The kernels of the FreeBSD corpus trees, as readelf sees them and as
// Guess_ELF_Arch sees them, agree.
struct CorpusKernel {
  const char *file;
  const char *machine;
  GuessElfArch arch;
};
class FreeBsdCorpusKernel : public testing::TestWithParam<CorpusKernel> {};
TEST_P(FreeBsdCorpusKernel, MatchesReadelf) {
  const std::string path = (testing_support::DataDir() / "media" / GetParam().file).string();
  EXPECT_THAT(ReadelfMachine(path), testing::HasSubstr(GetParam().machine));
  std::string bytes = testing_support::ReadFile(path);
  EXPECT_EQ(GetParam().arch, Probe(Bytes(bytes.begin(), bytes.end())));
}
INSTANTIATE_TEST_SUITE_P(
    Corpus, FreeBsdCorpusKernel,
    testing::Values(
        CorpusKernel{"other-freebsd4-i386/kernel", "80386", GUESS_ARCH_X86},
        CorpusKernel{"other-freebsd13-kerneldot/boot/kernel/kernel.", "X86-64", GUESS_ARCH_X86_64},
        CorpusKernel{"other-freebsd14/boot/kernel/kernel", "X86-64", GUESS_ARCH_X86_64},
        CorpusKernel{"other-freebsd14-i386/boot/kernel/kernel", "80386", GUESS_ARCH_X86},
        CorpusKernel{"other-freebsd14-arm64/boot/kernel/kernel", "AArch64", GUESS_ARCH_ARM64}),
    [](const auto &info) {
      std::string name = info.param.file;
      for (char &ch : name) {
        if (!isalnum(static_cast<unsigned char>(ch))) {
          ch = '_';
        }
      }
      return name;
    });

}  // namespace
