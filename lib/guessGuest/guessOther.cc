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

using guess::Contains;
using guess::StartsWith;

using guess::MediumFile;

bool Recognize(GuessInfo *info, const char *key, const char *key64 = nullptr) {
  info->osKey = key;
  info->osKey64 = key64;
  info->version = GUESS_VERSION_UNKNOWN;
  return true;
}

// Closes the directory on every path out of a listing.
class OpenDir {
 public:
  OpenDir(GuessMedium *medium, const char *path)
      : medium_(medium), dir_(Guess_OpenDir(medium, path)) {}
  ~OpenDir() {
    if (dir_ != nullptr) {
      Guess_CloseDir(medium_, dir_);
    }
  }
  OpenDir(const OpenDir &) = delete;
  OpenDir &operator=(const OpenDir &) = delete;
  explicit operator bool() const { return dir_ != nullptr; }
  const char *Next() { return dir_ != nullptr ? Guess_ReadDir(medium_, dir_) : nullptr; }

 private:
  GuessMedium *medium_;
  GuessDir *dir_;
};

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
ImageInfo ReadImageInfo(GuessMedium *medium) {
  if (!Guess_FileExists(medium, "", ".image_info")) {
    return ImageInfo::Absent;
  }
  MediumFile info = MediumFile::Read(medium, ".image_info");
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
// extension may be listed.
constexpr std::array<const char *, 3> guessFreeBsdKernels{
    "/kernel",
    "/boot/kernel/kernel",
    "/boot/kernel/kernel.",
};

// Release refinement from the first line of "RELNOTES.TXT"; null keeps the
// key chosen from the kernel's architecture.
struct FreeBsdRelease {
  std::string_view marker;
  const char *x86_64;
  const char *x86;
  const char *arm64;
};
constexpr std::array<FreeBsdRelease, 4> kFreeBsdReleases{{
    {"FreeBSD 14.", "freeBSD14-64", nullptr, "arm-freeBSD14-64"},
    {"FreeBSD 13.", "freeBSD13-64", "freeBSD13", "arm-freeBSD13-64"},
    {"FreeBSD 12.", "freeBSD12-64", "freeBSD12", nullptr},
    {"FreeBSD 11.", "freeBSD11-64", "freeBSD11", nullptr},
}};

const char *FreeBsdKey(const FreeBsdRelease &release, GuessElfArch arch) {
  switch (arch) {
    case GUESS_ARCH_X86_64:
      return release.x86_64;
    case GUESS_ARCH_X86:
      return release.x86;
    case GUESS_ARCH_ARM64:
      return release.arm64;
    default:
      return nullptr;
  }
}

// An application bundle is a directory on real media, a marker file on
// others: either counts as present.
bool EntryPresent(GuessMedium *medium, const std::string &dir, const std::string &name) {
  if (Guess_FileExists(medium, dir.c_str(), name.c_str())) {
    return true;
  }
  std::string path = dir == "/" ? "/" + name : dir + "/" + name;
  return static_cast<bool>(OpenDir(medium, path.c_str()));
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

bool Guess_TurboLinux(GuessMedium *medium, GuessInfo *info) {
  if (medium == nullptr || info == nullptr) {
    return false;
  }
  if (StartsWith(MediumFile::Read(medium, "README").text(), "Turbolinux")) {
    return Recognize(info, "turbolinux");
  }
  return info->osKey != nullptr;
}

bool Guess_Solaris(GuessMedium *medium, GuessInfo *info) {
  if (medium == nullptr || info == nullptr) {
    return false;
  }
  OpenDir root(medium, "");
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

bool Guess_NetWare(GuessMedium *medium, GuessInfo *info) {
  if (medium == nullptr || info == nullptr) {
    return false;
  }
  OpenDir root(medium, "");
  while (const char *name = root.Next()) {
    for (const NetWareEntry &entry : kNetWareEntries) {
      if (Str_Strcasecmp(name, entry.entry) == 0) {
        return Recognize(info, entry.key);
      }
    }
  }
  return info->osKey != nullptr;
}

bool Guess_FreeBSD(GuessMedium *medium, GuessInfo *info) {
  if (medium == nullptr || info == nullptr) {
    return false;
  }
  MediumFile kernel;
  for (const char *path : guessFreeBsdKernels) {
    kernel = MediumFile::Read(medium, path);
    if (kernel) {
      break;
    }
  }
  if (!kernel) {
    return info->osKey != nullptr;
  }
  const std::string_view bytes = kernel.view();
  const GuessElfArch arch = Guess_ELF_Arch(bytes.data(), bytes.size());
  const char *key = nullptr;
  switch (arch) {
    case GUESS_ARCH_X86_64:
      key = "freeBSD-64";
      break;
    case GUESS_ARCH_X86:
      key = "freeBSD";
      break;
    case GUESS_ARCH_ARM64:
      key = "arm-freeBSD13-64";
      break;
    default:
      return info->osKey != nullptr;
  }

  MediumFile notes = MediumFile::Read(medium, "RELNOTES.TXT");
  std::string_view text = notes.text();
  std::string_view first = text.substr(0, text.find('\n'));
  for (const FreeBsdRelease &release : kFreeBsdReleases) {
    if (Contains(first, release.marker)) {
      if (const char *refined = FreeBsdKey(release, arch)) {
        key = refined;
      }
      break;
    }
  }
  return Recognize(info, key);
}

bool Guess_MacOS(GuessMedium *medium, GuessInfo *info) {
  if (medium == nullptr || info == nullptr) {
    return false;
  }
  for (const MacRelease &release : kMacReleases) {
    if (EntryPresent(medium, release.dir, release.name)) {
      return Recognize(info, release.key, release.key64);
    }
  }
  return false;
}

}  // extern "C"
