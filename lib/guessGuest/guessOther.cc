// The small families recognised from one or two marker files: TurboLinux,
// Solaris, NetWare, FreeBSD, and Mac OS X (the last not run by the driver).
#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "guestprep/guess.h"
#include "lib/guessGuest/guessInternal.h"
#include "platform/util/str.h"

namespace {

using guess::ArchKeys;
using guess::Contains;
using guess::Medium;
using guess::MediumFile;
using guess::StartsWith;

bool Recognize(GuessInfo *info, const char *key, const char *key64 = nullptr) {
  info->osKey = key;
  info->osKey64 = key64;
  info->version = GUESS_VERSION_UNKNOWN;
  return true;
}

// Solaris media name their product directory after the release.
struct SolarisRelease {
  const char *entry;
  const char *key;
  const char *key64;
};
constexpr std::array<SolarisRelease, 4> kSolarisReleases{{
    {"Solaris_2.7", "solaris7", nullptr},
    {"Solaris_8", "solaris8", nullptr},
    {"Solaris_9", "solaris9", nullptr},
    {"Solaris_10", "solaris10", "solaris10-64"},
}};

// Decision of ".image_info" (Solaris 11 media), asked once per listing.
enum class ImageInfo { Absent, Solaris11, Other };
ImageInfo ReadImageInfo(const Medium &medium) {
  if (!medium.Exists("", ".image_info")) {
    return ImageInfo::Absent;
  }
  MediumFile info = medium.Read(".image_info");
  return info.contains("Oracle Solaris 11") ? ImageInfo::Solaris11 : ImageInfo::Other;
}

struct NetWareEntry {
  const char *entry;
  const char *key;
};
constexpr std::array<NetWareEntry, 3> kNetWareEntries{{
    {"netware6", "netware6"},
    {"nw65os", "netware6"},
    {"nw51", "netware5"},
}};

// Kernel locations, in order; the last is how an ISO 9660 name without an
// extension may be listed. Only the ELF header's first bytes are read.
constexpr std::array<const char *, 3> guessFreeBsdKernels{
    "/kernel",
    "/boot/kernel/kernel",
    "/boot/kernel/kernel.",
};

// Release refinement from the first line of "RELNOTES.TXT"; null keeps the
// key chosen from the kernel's architecture.
struct FreeBsdRelease {
  std::string_view marker;
  ArchKeys keys;
};
constexpr ArchKeys kFreeBsdKeys{"freeBSD", "freeBSD-64", "arm-freeBSD13-64"};
constexpr std::array<FreeBsdRelease, 4> kFreeBsdReleases{{
    {"FreeBSD 14.", {nullptr, "freeBSD14-64", "arm-freeBSD14-64"}},
    {"FreeBSD 13.", {"freeBSD13", "freeBSD13-64", "arm-freeBSD13-64"}},
    {"FreeBSD 12.", {"freeBSD12", "freeBSD12-64", nullptr}},
    {"FreeBSD 11.", {"freeBSD11", "freeBSD11-64", nullptr}},
}};
// The ELF header up to its machine field, and the first line of the notes.
constexpr size_t kElfHeaderBytes = 19;
constexpr size_t kNotesLineBytes = 4096;

// An application bundle is a directory on real media, a marker file on
// others: either counts as present.
bool EntryPresent(const Medium &medium, std::string_view dir, std::string_view name) {
  if (medium.Exists(dir, name)) {
    return true;
  }
  std::string path = dir == "/" ? "/" : std::string(dir) + "/";
  return medium.DirExists(path.append(name));
}

struct MacRelease {
  const char *dir;
  const char *name;
  const char *key;
  const char *key64;
};
constexpr std::array<MacRelease, 3> kMacReleases{{
    {"/", "Install Mac OS X Lion.app", "darwin11", "darwin11-64"},
    {"/", "Boot Camp Installation & Setup Guide.pdf", "darwin", "darwin-64"},
    {"/Boot Camp/Documentation", "Boot Camp Installation & Setup Guide.pdf", "darwin10",
     "darwin10-64"},
}};

}  // namespace

extern "C" {

bool Guess_TurboLinux(GuessMedium *raw, GuessInfo *info) {
  if (raw == nullptr || info == nullptr) {
    return false;
  }
  if (StartsWith(Medium(raw).Read("README", 16).text(), "Turbolinux")) {
    return Recognize(info, "turbolinux");
  }
  return info->osKey != nullptr;
}

bool Guess_Solaris(GuessMedium *raw, GuessInfo *info) {
  if (raw == nullptr || info == nullptr) {
    return false;
  }
  const Medium medium(raw);
  Medium::Dir root = medium.Open("");
  std::optional<ImageInfo> imageInfo;
  while (const char *name = root.Next()) {
    for (const SolarisRelease &release : kSolarisReleases) {
      if (Str_Strcasecmp(name, release.entry) == 0) {
        return Recognize(info, release.key, release.key64);
      }
    }
    // The answer cannot change during the listing; ask the medium once.
    if (!imageInfo) {
      imageInfo = ReadImageInfo(medium);
    }
    if (*imageInfo == ImageInfo::Solaris11) {
      return Recognize(info, "solaris11-64");
    }
    if (*imageInfo == ImageInfo::Other) {
      break;
    }
  }
  return info->osKey != nullptr;
}

bool Guess_NetWare(GuessMedium *raw, GuessInfo *info) {
  if (raw == nullptr || info == nullptr) {
    return false;
  }
  Medium::Dir root = Medium(raw).Open("");
  while (const char *name = root.Next()) {
    for (const NetWareEntry &entry : kNetWareEntries) {
      if (Str_Strcasecmp(name, entry.entry) == 0) {
        return Recognize(info, entry.key);
      }
    }
  }
  return info->osKey != nullptr;
}

bool Guess_FreeBSD(GuessMedium *raw, GuessInfo *info) {
  if (raw == nullptr || info == nullptr) {
    return false;
  }
  const Medium medium(raw);
  MediumFile kernel;
  for (const char *path : guessFreeBsdKernels) {
    if ((kernel = medium.Read(path, kElfHeaderBytes))) {
      break;
    }
  }
  if (!kernel) {
    return info->osKey != nullptr;
  }
  const std::string_view bytes = kernel.view();
  const GuessElfArch arch = Guess_ELF_Arch(bytes.data(), bytes.size());
  const char *key = kFreeBsdKeys.For(arch);
  if (key == nullptr) {
    return info->osKey != nullptr;
  }

  MediumFile notes = medium.Read("RELNOTES.TXT", kNotesLineBytes);
  std::string_view text = notes.text();
  std::string_view first = text.substr(0, text.find('\n'));
  for (const FreeBsdRelease &release : kFreeBsdReleases) {
    if (Contains(first, release.marker)) {
      if (const char *refined = release.keys.For(arch)) {
        key = refined;
      }
      break;
    }
  }
  return Recognize(info, key);
}

bool Guess_MacOS(GuessMedium *raw, GuessInfo *info) {
  if (raw == nullptr || info == nullptr) {
    return false;
  }
  const Medium medium(raw);
  for (const MacRelease &release : kMacReleases) {
    if (EntryPresent(medium, release.dir, release.name)) {
      return Recognize(info, release.key, release.key64);
    }
  }
  return false;
}

}  // extern "C"
