// Debian and Ubuntu detector: Debian GNU/Linux 4.0 to 13 and Ubuntu (with
// Kubuntu, Xubuntu and Edubuntu), from the one-line ".disk/info" that their
// installer media carry in the root.
#include <array>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "guestprep/guess.h"
#include "lib/guessGuest/guessInternal.h"
#include "platform/util/str.h"
#include "platform/util/utilVersion.h"

namespace {

using guess::ArchKeys;
using guess::Contains;
using guess::Medium;
using guess::MediumFile;
using guess::StartsWith;

// ".disk/info" is one line.
constexpr size_t kDiskInfoBytes = 4096;

// The architecture words, tested in this order over the whole text: a
// multi-arch medium that names "amd64" anywhere is a 64-bit x86 one.
GuessElfArch ArchOf(std::string_view text) {
  if (Contains(text, "amd64")) {
    return GUESS_ARCH_X86_64;
  }
  if (Contains(text, "i386")) {
    return GUESS_ARCH_X86;
  }
  if (Contains(text, "arm64")) {
    return GUESS_ARCH_ARM64;
  }
  return GUESS_ARCH_UNKNOWN;
}

// Debian releases by the start of ".disk/info"; the first matching prefix
// wins. Before Debian 10 there was no Arm key of Debian's own.
struct DebianRelease {
  std::string_view prefix;
  ArchKeys keys;
};
constexpr std::array<DebianRelease, 10> kDebianReleases{{
    {"Debian GNU/Linux 4.0", {"debian4", "debian4-64", "arm-ubuntu-64"}},
    {"Debian GNU/Linux 5.0", {"debian5", "debian5-64", "arm-ubuntu-64"}},
    {"Debian GNU/Linux 6.0", {"debian6", "debian6-64", "arm-ubuntu-64"}},
    {"Debian GNU/Linux 7.", {"debian7", "debian7-64", "arm-ubuntu-64"}},
    {"Debian GNU/Linux 8.", {"debian8", "debian8-64", "arm-ubuntu-64"}},
    {"Debian GNU/Linux 9.", {"debian9", "debian9-64", "arm-ubuntu-64"}},
    {"Debian GNU/Linux 10.", {"debian10", "debian10-64", "arm-debian10-64"}},
    {"Debian GNU/Linux 11.", {"debian11", "debian11-64", "arm-debian11-64"}},
    {"Debian GNU/Linux 12.", {"debian12", "debian12-64", "arm-debian12-64"}},
    // No 32-bit x86 key exists for Debian 13; such media get the generic
    // 32-bit Ubuntu key, the closest installer the host knows.
    {"Debian GNU/Linux 13.", {"ubuntu", "debian13-64", "arm-debian13-64"}},
}};

constexpr std::array<std::string_view, 4> kUbuntuNames{"Ubuntu", "Kubuntu", "Xubuntu", "Edubuntu"};
constexpr ArchKeys kUbuntuKeys{"ubuntu", "ubuntu-64", "arm-ubuntu-64"};

bool Below(const char *release, const char *bound) {
  return Util_CompareDotted(release, bound) < 0;
}
bool AtLeast(const char *release, const char *bound) {
  return Util_CompareDotted(release, bound) >= 0;
}
// 14.04 point releases: the answer files differ from 14.04.2 on.
bool Is1404(const char *release) {
  return AtLeast(release, "14.04") && Below(release, "14.04.99");
}

GuessVersion ServerVersion(const char *release) {
  if (Is1404(release)) {
    return Below(release, "14.04.02") ? GUESS_VERSION_UBUNTU_SERVER_1404
                                      : GUESS_VERSION_UBUNTU_SERVER_140402;
  }
  if (Util_CompareDotted(release, "14.10") == 0) {
    return GUESS_VERSION_UBUNTU_SERVER_1410;
  }
  if (AtLeast(release, "15.04")) {
    return GUESS_VERSION_UBUNTU_SERVER_1504_OR_HIGHER;
  }
  return Below(release, "8.10") ? GUESS_VERSION_UBUNTU_SERVER_804_OR_LOWER
                                : GUESS_VERSION_UBUNTU_SERVER_810_OR_HIGHER;
}

GuessVersion DesktopVersion(const char *release) {
  if (Is1404(release)) {
    return GUESS_VERSION_UBUNTU_1404;
  }
  if (Util_CompareDotted(release, "14.10") == 0) {
    return GUESS_VERSION_UBUNTU_1410;
  }
  if (AtLeast(release, "20.10")) {
    return GUESS_VERSION_UBUNTU_2010_OR_HIGHER;
  }
  if (AtLeast(release, "15.04")) {
    return GUESS_VERSION_UBUNTU_1504_TO_2004;
  }
  return Below(release, "7.10") ? GUESS_VERSION_UBUNTU_704_OR_LOWER
                                : GUESS_VERSION_UBUNTU_710_OR_HIGHER;
}

}  // namespace

extern "C" bool Guess_Debian(GuessMedium *raw, GuessInfo *info) {
  if (raw == nullptr || info == nullptr) {
    return false;
  }
  const Medium medium(raw);
  MediumFile diskInfo = medium.Read(".disk/info", kDiskInfoBytes);
  if (!diskInfo) {
    return info->osKey != nullptr;
  }
  bool noIsolinuxCfg = !medium.Exists("isolinux", "isolinux.cfg");
  // As the C string functions see it: a NUL ends the text.
  const std::string_view text = diskInfo.text();
  const GuessElfArch arch = ArchOf(text);

  for (const DebianRelease &release : kDebianReleases) {
    if (StartsWith(text, release.prefix)) {
      const char *key = release.keys.For(arch);
      if (key == nullptr) {
        return info->osKey != nullptr;
      }
      info->osKey = key;
      info->noIsolinuxCfg = noIsolinuxCfg;
      info->version = GUESS_VERSION_UNKNOWN;
      return true;
    }
  }

  bool ubuntu = false;
  for (std::string_view name : kUbuntuNames) {
    ubuntu = ubuntu || StartsWith(text, name);
  }
  if (!ubuntu) {
    return info->osKey != nullptr;
  }
  const char *key = kUbuntuKeys.For(arch);

  // The release is the second blank-separated word ("Ubuntu 22.04.3 LTS ...").
  GuessVersion version = GUESS_VERSION_UBUNTU_704_OR_LOWER;
  unsigned index = 0;
  std::unique_ptr<char, guess::FreeDeleter> first(StrUtil_GetNextToken(&index, text.data(), " "));
  std::unique_ptr<char, guess::FreeDeleter> release(
      first ? StrUtil_GetNextToken(&index, text.data(), " ") : nullptr);
  if (release) {
    // The text is kept even when no key follows: callers show it.
    if (Contains(text, "Ubuntu-Server")) {
      version = ServerVersion(release.get());
      Str_Snprintf(info->versionText, sizeof info->versionText, "%s%s", "Server ", release.get());
    } else {
      version = DesktopVersion(release.get());
      // From 20.10 the media boot with GRUB: no isolinux config is expected.
      if (version == GUESS_VERSION_UBUNTU_2010_OR_HIGHER) {
        noIsolinuxCfg = false;
      }
      Str_Snprintf(info->versionText, sizeof info->versionText, "%s%s", "", release.get());
    }
  }
  if (key == nullptr) {
    return info->osKey != nullptr;
  }
  info->osKey = key;
  info->noIsolinuxCfg = noIsolinuxCfg;
  info->version = version;
  return true;
}
