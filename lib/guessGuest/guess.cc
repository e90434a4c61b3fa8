// Detection driver: opens the image, runs the detectors in their fixed
// order, and the small operations that interpret a GuessInfo.
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "guestprep/guess.h"
#include "lib/guessGuest/guessDetect.h"
#include "lib/guessGuest/guessInternal.h"
#include "platform/iso9660/iso9660.h"
#include "platform/msg/msg.h"
#include "platform/udf/udf.h"
#include "platform/util/safeAlloc.h"
#include "platform/util/str.h"

namespace {

// Real media cost detection tens to hundreds of kilobytes of reads.
constexpr uint64_t kDetectionReadLimit = 16u << 20;

// The order is part of the contract: the first detector that claims the
// medium wins. Windows media come first because their markers are the most
// specific; Linux families follow, the small families last.
// clang-format off
const GuessDetectorFn guessDetectors[] = {
    Guess_WindowsNT,
    Guess_WindowsLegacy,
    Guess_WindowsVistaAndNewer,
    Guess_RedHat,
    Guess_Mandriva,
    Guess_Debian,
    Guess_SUSE,
    Guess_TurboLinux,
    Guess_Solaris,
    Guess_NetWare,
    Guess_FreeBSD,
    Guess_Kalo,
    Guess_Kaloi,
    Guess_Tarvex,
    nullptr,
};
// clang-format on

// A null-aware comparison: the same pointer or both null are equal.
bool KeyEqual(const char *a, const char *b) {
  if (a == b) {
    return true;
  }
  if (a == nullptr || b == nullptr) {
    return false;
  }
  return strcmp(a, b) == 0;
}

// Appends the message's localised text to name, when it has any.
char *WithSuffix(const char *name, const char *message) {
  char *suffix = Msg_GetString(message);
  char *result = nullptr;
  if (suffix != nullptr && suffix[0] != '\0') {
    result = Str_SafeAsprintf(nullptr, "%s %s", name, suffix);
  } else {
    result = UtilSafeStrdup0(name);
  }
  free(suffix);
  return result;
}

}  // namespace

GuessResult guess::Detect(const char *path, const void *udfOption, GuessInfo *info,
                          gp::DamageReporter *reporter) {
  (void)udfOption;  // reserved for the host's UDF reader, which takes none
  if (info == nullptr) {
    return GUESS_OPEN_FAILED;
  }
  memset(info, 0, sizeof *info);
  std::string why;
  std::unique_ptr<gp::ImageReader> image =
      path != nullptr ? gp::OpenFileImageReader(path, &why) : nullptr;
  if (!image) {
    if (reporter != nullptr) {
      reporter->Damage(path != nullptr ? why : "no path");
    }
    return GUESS_OPEN_FAILED;
  }
  return DetectImage(*image, info, reporter);
}

GuessResult guess::DetectImage(gp::ImageReader &image, GuessInfo *info,
                               gp::DamageReporter *reporter) {
  memset(info, 0, sizeof *info);
  // Every reader below reads through this one open image, within a budget
  // far above what real media cost and far below what a hostile one could.
  gp::CountingImageReader budget(gp::MakeBorrowedImageReader(image), kDetectionReadLimit);
  gp::FirstDamageReporter damage;

  // UDF first: a bridge image carries both, and its UDF side is the real one.
  GuessMedium medium{};
  medium.udf = UDF_OpenReader(gp::MakeBorrowedImageReader(budget), &damage);
  if (medium.udf != nullptr) {
    medium.type = GUESS_MEDIUM_UDF;
  } else {
    Iso9660Result rc =
        Iso9660_OpenReader(gp::MakeBorrowedImageReader(budget),
                           ISO9660_FORMAT_ISO | ISO9660_FORMAT_JOLIET | ISO9660_FORMAT_ROCKRIDGE,
                           &medium.iso, &damage);
    if (rc != ISO9660_OK) {
      if (reporter != nullptr) {
        reporter->Damage(rc == ISO9660_ERR_NOT_ISO && damage.count() <= 1
                             ? std::string("neither an ISO 9660 nor a UDF image")
                             : "damaged image: " + damage.first());
      }
      return GUESS_OPEN_FAILED;
    }
    medium.type = GUESS_MEDIUM_ISO9660;
  }

  bool recognized = RunDetectors(&medium, info);

  if (medium.type == GUESS_MEDIUM_UDF) {
    UDF_Close(medium.udf);
  } else {
    Iso9660_Close(medium.iso);
  }
  if (reporter != nullptr && damage.count() > 0) {
    reporter->Damage("damaged image: " + damage.first());
  }
  return recognized ? GUESS_RECOGNIZED : GUESS_NOT_RECOGNIZED;
}

bool guess::RunDetectors(GuessMedium *medium, GuessInfo *info) {
  for (const GuessDetectorFn *detector = guessDetectors; *detector != nullptr; ++detector) {
    if ((*detector)(medium, info)) {
      return true;
    }
  }
  return false;
}

extern "C" {

// Each name is its enumerator's own spelling.
#define GUESS_NAME(v) #v
const char *const SUB_NAMES[61] = {
    GUESS_NAME(GUESS_VERSION_UNKNOWN),
    GUESS_NAME(GUESS_VERSION_UBUNTU_SERVER_1404),
    GUESS_NAME(GUESS_VERSION_UBUNTU_SERVER_140402),
    GUESS_NAME(GUESS_VERSION_UBUNTU_SERVER_1410),
    GUESS_NAME(GUESS_VERSION_UBUNTU_SERVER_1504_OR_HIGHER),
    GUESS_NAME(GUESS_VERSION_UBUNTU_SERVER_804_OR_LOWER),
    GUESS_NAME(GUESS_VERSION_UBUNTU_SERVER_810_OR_HIGHER),
    GUESS_NAME(GUESS_VERSION_UBUNTU_1404),
    GUESS_NAME(GUESS_VERSION_UBUNTU_1410),
    GUESS_NAME(GUESS_VERSION_UBUNTU_1504_TO_2004),
    GUESS_NAME(GUESS_VERSION_UBUNTU_2010_OR_HIGHER),
    GUESS_NAME(GUESS_VERSION_UBUNTU_704_OR_LOWER),
    GUESS_NAME(GUESS_VERSION_UBUNTU_710_OR_HIGHER),
    GUESS_NAME(GUESS_VERSION_MANDRIVA_2006),
    GUESS_NAME(GUESS_VERSION_MANDRIVA_2007),
    GUESS_NAME(GUESS_VERSION_MANDRIVA_2008_0),
    GUESS_NAME(GUESS_VERSION_MANDRIVA_2008_1_OR_HIGHER),
    GUESS_NAME(GUESS_VERSION_FEDORA_8),
    GUESS_NAME(GUESS_VERSION_FEDORA_9_TO_12),
    GUESS_NAME(GUESS_VERSION_FEDORA_13),
    GUESS_NAME(GUESS_VERSION_FEDORA_14_TO_16),
    GUESS_NAME(GUESS_VERSION_FEDORA_17),
    GUESS_NAME(GUESS_VERSION_FEDORA_18),
    GUESS_NAME(GUESS_VERSION_FEDORA_19_TO_20),
    GUESS_NAME(GUESS_VERSION_FEDORA_21),
    GUESS_NAME(GUESS_VERSION_FEDORA_22_TO_28),
    GUESS_NAME(GUESS_VERSION_FEDORA_29_OR_HIGHER),
    GUESS_NAME(GUESS_VERSION_FEDORA_LIVE),
    GUESS_NAME(GUESS_VERSION_OPENSUSE_11_2_OR_LOWER),
    GUESS_NAME(GUESS_VERSION_OPENSUSE_12),
    GUESS_NAME(GUESS_VERSION_OPENSUSE_13_1),
    GUESS_NAME(GUESS_VERSION_OPENSUSE_13_2_OR_HIGHER),
    GUESS_NAME(GUESS_VERSION_SLES_10_SP2_OR_LOWER),
    GUESS_NAME(GUESS_VERSION_SLED_10_SP2_OR_LOWER),
    GUESS_NAME(GUESS_VERSION_SLED_ALL),
    GUESS_NAME(GUESS_VERSION_CENTOS_3),
    GUESS_NAME(GUESS_VERSION_CENTOS_4),
    GUESS_NAME(GUESS_VERSION_CENTOS_5),
    GUESS_NAME(GUESS_VERSION_CENTOS_6),
    GUESS_NAME(GUESS_VERSION_CENTOS_7),
    GUESS_NAME(GUESS_VERSION_CENTOS_7_MINIMAL),
    GUESS_NAME(GUESS_VERSION_CENTOS_8),
    GUESS_NAME(GUESS_VERSION_CENTOS_8_STREAM),
    GUESS_NAME(GUESS_VERSION_CENTOS_9_STREAM),
    GUESS_NAME(GUESS_VERSION_WINDOWS_8_ENTERPRISE),
    GUESS_NAME(GUESS_VERSION_WINDOWS_8_TRIAL),
    GUESS_NAME(GUESS_VERSION_WINDOWS_SERVER_2012_TRIAL),
    GUESS_NAME(GUESS_VERSION_WINDOWS_81_PLAIN),
    GUESS_NAME(GUESS_VERSION_WINDOWS_81_TRIAL),
    GUESS_NAME(GUESS_VERSION_WINDOWS_81_ENTERPRISE),
    GUESS_NAME(GUESS_VERSION_WINDOWS_SERVER_2012_R2_PLAIN),
    GUESS_NAME(GUESS_VERSION_WINDOWS_SERVER_2012_R2_TRIAL),
    GUESS_NAME(GUESS_VERSION_WINDOWS_10_PLAIN),
    GUESS_NAME(GUESS_VERSION_WINDOWS_10_ENTERPRISE),
    GUESS_NAME(GUESS_VERSION_WINDOWS_10_TRIAL),
    GUESS_NAME(GUESS_VERSION_WINDOWS_10_ESD),
    GUESS_NAME(GUESS_VERSION_RHEL_SERVER),
    GUESS_NAME(GUESS_VERSION_RHEL_CLIENT),
    GUESS_NAME(GUESS_VERSION_RHEL_WORKSTATION),
    GUESS_NAME(GUESS_VERSION_ASIANUX_7_LIVE),
    GUESS_NAME(GUESS_VERSION_DUMMY_LAST),
};

#undef GUESS_NAME

GuessResult Guess_Guest(const char *path, const void *udfOption, GuessInfo *info) {
  return guess::Detect(path, udfOption, info, nullptr);
}

bool Guess_IsEqual(const GuessInfo *a, const GuessInfo *b) {
  if (a == nullptr || b == nullptr) {
    return a == b;
  }
  return KeyEqual(a->osKey, b->osKey) && KeyEqual(a->osKey64, b->osKey64) &&
         a->version == b->version && a->noIsolinuxCfg == b->noIsolinuxCfg &&
         strncmp(a->versionText, b->versionText, sizeof a->versionText) == 0 &&
         strncmp(a->language, b->language, sizeof a->language) == 0 &&
         strncmp(a->languages, b->languages, sizeof a->languages) == 0 &&
         strncmp(a->editions, b->editions, sizeof a->editions) == 0;
}

const char *Guess_GetOsKey(const GuessInfo *info) {
  if (info == nullptr) {
    return nullptr;
  }
  return info->osKey64 != nullptr ? info->osKey64 : info->osKey;
}

char *Guess_GetVersionString(const char *name, const GuessInfo *info) {
  if (name == nullptr) {
    name = "";
  }
  if (info == nullptr) {
    return UtilSafeStrdup0(name);
  }
  if (info->displayName[0] != '\0') {
    return UtilSafeStrndup0(info->displayName, sizeof info->displayName);
  }
  if (info->versionText[0] != '\0') {
    return Str_SafeAsprintf(nullptr, "%s %.*s", name, static_cast<int>(sizeof info->versionText),
                            info->versionText);
  }
  if (info->version >= GUESS_VERSION_UBUNTU_SERVER_1410 &&
      info->version <= GUESS_VERSION_UBUNTU_SERVER_810_OR_HIGHER) {
    return WithSuffix(name, "@&!*@*@(msg.guessGuest.ubuntuServer)Server");
  }
  if (info->version == GUESS_VERSION_SLED_10_SP2_OR_LOWER ||
      info->version == GUESS_VERSION_SLED_ALL) {
    return WithSuffix(name, "@&!*@*@(msg.guessGuest.sledDesktop)Desktop");
  }
  return UtilSafeStrdup0(name);
}

const char *Guess_GetSubString(GuessVersion value) {
  return value <= GUESS_VERSION_DUMMY_LAST ? SUB_NAMES[value] : nullptr;
}

GuessElfArch Guess_ELF_Arch(const void *bytes, size_t count) {
  // Only the low byte of e_machine (offset 18) decides; the caller has
  // already chosen the file as a kernel or an executable.
  if (bytes == nullptr || count < 19) {
    return GUESS_ARCH_UNKNOWN;
  }
  switch (static_cast<const unsigned char *>(bytes)[18]) {
    case 0x3E:  // EM_X86_64
      return GUESS_ARCH_X86_64;
    case 3:  // EM_386
    case 6:  // EM_486
    case 7:  // EM_860
      return GUESS_ARCH_X86;
    case 0xB7:  // EM_AARCH64
      return GUESS_ARCH_ARM64;
    default:
      return GUESS_ARCH_UNKNOWN;
  }
}

}  // extern "C"
