// Red Hat family detector: Red Hat Linux, RHEL 2.1 to 10, CentOS 3 to 9
// Stream, Fedora (installer and live), Oracle Linux, Asianux, AlmaLinux and
// Rocky Linux, from ".DISCINFO" and a few other marker files.
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "guestprep/guess.h"
#include "lib/guessGuest/guessInternal.h"

namespace {

using guess::ArchKeys;
using guess::Contains;
using guess::Medium;
using guess::MediumFile;
using guess::StartsWith;

// ".discinfo" is three or four short lines.
constexpr size_t kDiscInfoBytes = 4096;

// CentOS release from the GPG key files in the root; the first found wins.
struct CentosKey {
  const char *file;
  GuessVersion version;
};
constexpr std::array<CentosKey, 5> kCentosKeys{{
    {"RPM-GPG-KEY-CentOS-3", GUESS_VERSION_CENTOS_3},
    {"RPM-GPG-KEY-centos4", GUESS_VERSION_CENTOS_4},
    {"RPM-GPG-KEY-CentOS-5", GUESS_VERSION_CENTOS_5},
    {"RPM-GPG-KEY-CentOS-6", GUESS_VERSION_CENTOS_6},
    {"RPM-GPG-KEY-CentOS-7", GUESS_VERSION_CENTOS_7},
}};

// Any of these in "Packages" marks the full CentOS 7 DVD, not the minimal one.
constexpr std::array<const char *, 9> kCentos7Perl{
    "perl-5.16.3-285.el7.x86_64.rpm",   "perl-5.16.3-283.el7.x86_64.rpm",
    "perl-5.16.3-286.el7.x86_64.rpm",   "perl-5.16.3-291.el7.x86_64.rpm",
    "perl-5.16.3-292.el7.x86_64.rpm",   "perl-5.16.3-293.el7.x86_64.rpm",
    "perl-5.16.3-294.el7_6.x86_64.rpm", "perl-5.16.3-295.el7.x86_64.rpm",
    "perl-5.16.3-297.el7.x86_64.rpm",
};

GuessVersion CentosRelease(const Medium &medium) {
  for (const CentosKey &key : kCentosKeys) {
    if (!medium.Exists("", key.file)) {
      continue;
    }
    if (key.version != GUESS_VERSION_CENTOS_7) {
      return key.version;
    }
    for (const char *perl : kCentos7Perl) {
      if (medium.Exists("Packages", perl)) {
        return GUESS_VERSION_CENTOS_7;
      }
    }
    return GUESS_VERSION_CENTOS_7_MINIMAL;
  }
  return GUESS_VERSION_UNKNOWN;
}

// The first count lines of a text split at line feeds, empty lines skipped.
std::vector<std::string_view> Lines(std::string_view text, size_t count) {
  std::vector<std::string_view> lines;
  size_t pos = 0;
  while (pos < text.size() && lines.size() < count) {
    size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) {
      end = text.size();
    }
    if (end > pos) {
      lines.push_back(text.substr(pos, end - pos));
    }
    pos = end + 1;
  }
  return lines;
}

struct Detected {
  const char *key;
  GuessVersion version;
};

// Fedora release number: where it sits in the release name depends on the
// era's naming ("Fedora Core 6", "Fedora-Server 21", "Fedora 20").
GuessVersion FedoraVersion(std::string_view name) {
  size_t at = 7;
  if (Contains(name, "Fedora Core ")) {
    at = 12;
  } else if (Contains(name, "Fedora-Server ")) {
    at = 14;
  }
  unsigned release = 0;
  bool digits = false;
  for (size_t i = at; i < name.size() && name[i] >= '0' && name[i] <= '9' && release < 100000;
       ++i) {
    release = release * 10 + static_cast<unsigned>(name[i] - '0');
    digits = true;
  }
  if (!digits || release < 8) {
    return GUESS_VERSION_UNKNOWN;
  }
  struct Band {
    unsigned last;
    GuessVersion version;
  };
  static constexpr Band kBands[] = {
      {8, GUESS_VERSION_FEDORA_8},         {12, GUESS_VERSION_FEDORA_9_TO_12},
      {13, GUESS_VERSION_FEDORA_13},       {16, GUESS_VERSION_FEDORA_14_TO_16},
      {17, GUESS_VERSION_FEDORA_17},       {18, GUESS_VERSION_FEDORA_18},
      {20, GUESS_VERSION_FEDORA_19_TO_20}, {21, GUESS_VERSION_FEDORA_21},
      {28, GUESS_VERSION_FEDORA_22_TO_28},
  };
  for (const Band &band : kBands) {
    if (release <= band.last) {
      return band.version;
    }
  }
  return GUESS_VERSION_FEDORA_29_OR_HIGHER;
}

// RHEL 7 variant from ".TREEINFO"; none means not recognised.
std::optional<GuessVersion> Rhel7TreeVariant(const Medium &medium) {
  MediumFile treeinfo = medium.Read(".TREEINFO");
  if (!treeinfo) {
    return std::nullopt;
  }
  bool client = treeinfo.contains("variants = Client");
  bool server = treeinfo.contains("variants = Server");
  bool workstation = treeinfo.contains("variants = Workstation");
  if (workstation) {
    return GUESS_VERSION_RHEL_WORKSTATION;
  }
  if (server) {
    return GUESS_VERSION_RHEL_SERVER;
  }
  if (client) {
    return GUESS_VERSION_RHEL_CLIENT;
  }
  return std::nullopt;
}

GuessVersion RhelNameVariant(std::string_view name) {
  std::string lower = guess::ToLower(std::string(name));
  if (Contains(lower, "server")) {
    return GUESS_VERSION_RHEL_SERVER;
  }
  if (Contains(lower, "workstation")) {
    return GUESS_VERSION_RHEL_WORKSTATION;
  }
  return GUESS_VERSION_RHEL_CLIENT;
}

// Release-name rules reached when no CentOS key file is present, in order;
// a null key means that architecture is not recognised.
enum class Special { None, RhelName, Rhel7Tree, AsianuxLive };
struct NameRule {
  std::array<const char *, 2> prefixes;
  ArchKeys keys;
  Special special;
};
constexpr NameRule kNameRules[] = {
    {{"Red Hat Enterprise Linux 3"}, {"rhel3", "rhel3-64", "rhel3"}, Special::None},
    {{"Red Hat Enterprise Linux 4"}, {"rhel4", "rhel4-64", "rhel4"}, Special::None},
    {{"Red Hat Enterprise Linux Client 5", "Red Hat Enterprise Linux Server 5"},
     {"rhel5", "rhel5-64", "rhel5"},
     Special::None},
    {{"final", "Final"}, {"centos", "centos-64", "centos"}, Special::None},
    {{"CentOS"}, {"centos", "centos-64", "centos"}, Special::None},
    {{"Red Hat Enterprise Linux 6"}, {"rhel6", "rhel6-64", "rhel6"}, Special::None},
    {{"RHEL-7."}, {"rhel7", "rhel7-64", "rhel7"}, Special::RhelName},
    {{"Red Hat Enterprise Linux 7."}, {"rhel7", "rhel7-64", "rhel7"}, Special::Rhel7Tree},
    {{"Red Hat Enterprise Linux 8."}, {"rhel8-64", "rhel8-64", "rhel8-64"}, Special::None},
    {{"Red Hat Enterprise Linux 9."}, {"rhel9-64", "rhel9-64", "arm-rhel9-64"}, Special::None},
    {{"Red Hat Enterprise Linux 10."}, {"rhel10-64", "rhel10-64", "arm-rhel10-64"}, Special::None},
    {{"Asianux Server 7"}, {"asianux7-64", "asianux7-64", "asianux7-64"}, Special::AsianuxLive},
    {{"Asianux 3.0", "Asianux Server 3 SP"},
     {"asianux3", "asianux3-64", "asianux3"},
     Special::None},
    {{"Asianux Server"}, {"asianux4", "asianux4-64", "asianux4"}, Special::None},
    {{"Enterprise Linux Enterprise Linux 4", "Oracle Linux Server 5."},
     {"oraclelinux", "oraclelinux-64", "oraclelinux"},
     Special::None},
    {{"Oracle Linux 6."}, {"oraclelinux6", "oraclelinux6-64", "oraclelinux6"}, Special::None},
    {{"OL-7."}, {nullptr, "oraclelinux7-64", nullptr}, Special::None},
    {{"Oracle Linux 8."}, {nullptr, "oraclelinux8-64", nullptr}, Special::None},
    {{"Oracle Linux 9."}, {nullptr, "oraclelinux9-64", nullptr}, Special::None},
    {{"Oracle Linux 10."}, {nullptr, "oraclelinux10-64", nullptr}, Special::None},
};
// Rules after Fedora, which sits between the table above and these two.
constexpr NameRule kLateNameRules[] = {
    {{"AlmaLinux"}, {"almaLinux-64", "almaLinux-64", "arm-almaLinux-64"}, Special::None},
    {{"Rocky Linux"}, {"rockyLinux-64", "rockyLinux-64", "arm-rockyLinux-64"}, Special::None},
};

const NameRule *FindRule(const NameRule *begin, const NameRule *end, std::string_view name) {
  for (const NameRule *rule = begin; rule != end; ++rule) {
    for (const char *prefix : rule->prefixes) {
      if (prefix != nullptr && StartsWith(name, prefix)) {
        return rule;
      }
    }
  }
  return nullptr;
}

std::optional<Detected> ApplyRule(const Medium &medium, const NameRule &rule, GuessElfArch arch,
                                  std::string_view name) {
  const char *key = rule.keys.For(arch);
  if (key == nullptr) {
    return std::nullopt;
  }
  switch (rule.special) {
    case Special::None:
      return Detected{key, GUESS_VERSION_UNKNOWN};
    case Special::RhelName:
      return Detected{key, RhelNameVariant(name)};
    case Special::Rhel7Tree: {
      std::optional<GuessVersion> variant = Rhel7TreeVariant(medium);
      if (!variant) {
        return std::nullopt;
      }
      return Detected{key, *variant};
    }
    case Special::AsianuxLive:
      return Detected{key, medium.Exists("LiveOS", "squashfs.img") ? GUESS_VERSION_ASIANUX_7_LIVE
                                                                   : GUESS_VERSION_UNKNOWN};
  }
  return std::nullopt;
}

// Media with ".DISCINFO": line 2 is the release name, line 3 the architecture.
std::optional<Detected> FromDiscInfo(const Medium &medium, const MediumFile &discinfo,
                                     bool fedoraLegal, GuessVersion centos) {
  std::vector<std::string_view> lines = Lines(discinfo.text(), 3);
  if (lines.size() < 3) {
    return std::nullopt;
  }
  std::string_view name = lines[1];
  std::string_view archLine = lines[2];
  GuessElfArch arch;
  if (archLine == "x86_64") {
    arch = GUESS_ARCH_X86_64;
  } else if (archLine == "i386") {
    arch = GUESS_ARCH_X86;
  } else if (archLine == "aarch64" &&
             (Contains(name, "Fedora") || Contains(name, "Red Hat") ||
              Contains(name, "AlmaLinux") || Contains(name, "Rocky Linux"))) {
    arch = GUESS_ARCH_ARM64;
  } else {
    return std::nullopt;
  }
  const bool x64 = arch == GUESS_ARCH_X86_64;

  if (name == "CentOS Linux 8" || name == "CentOS Stream 8") {
    if (!x64) {
      return std::nullopt;
    }
    return Detected{"centos8-64", name == "CentOS Linux 8" ? GUESS_VERSION_CENTOS_8
                                                           : GUESS_VERSION_CENTOS_8_STREAM};
  }
  if (name == "CentOS Stream 9") {
    return x64 ? std::optional<Detected>(Detected{"centos9-64", GUESS_VERSION_CENTOS_9_STREAM})
               : std::nullopt;
  }
  switch (centos) {
    case GUESS_VERSION_CENTOS_3:
    case GUESS_VERSION_CENTOS_4:
    case GUESS_VERSION_CENTOS_5:
      return Detected{x64 ? "centos-64" : "centos", centos};
    case GUESS_VERSION_CENTOS_6:
      return Detected{x64 ? "centos6-64" : "centos6", centos};
    case GUESS_VERSION_CENTOS_7:
    case GUESS_VERSION_CENTOS_7_MINIMAL:
      return x64 ? std::optional<Detected>(Detected{"centos7-64", centos}) : std::nullopt;
    default:
      break;
  }

  if (const NameRule *rule = FindRule(std::begin(kNameRules), std::end(kNameRules), name)) {
    return ApplyRule(medium, *rule, arch, name);
  }
  if (Contains(name, "Fedora") || fedoraLegal) {
    const char *key = ArchKeys{"Fedora", "Fedora-64", "arm-Fedora-64"}.For(arch);
    return Detected{key, FedoraVersion(name)};
  }
  if (const NameRule *rule = FindRule(std::begin(kLateNameRules), std::end(kLateNameRules), name)) {
    return ApplyRule(medium, *rule, arch, name);
  }
  return std::nullopt;
}

// Media without ".DISCINFO": RHEL 7 boot media, old Red Hat media, live media.
std::optional<Detected> WithoutDiscInfo(const Medium &medium, bool fedoraLegal,
                                        GuessVersion centos) {
  MediumFile isolinuxCfg = medium.Read("isolinux/isolinux.cfg");
  if (isolinuxCfg.contains("Red Hat Enterprise Linux 7.")) {
    if (isolinuxCfg.contains("x86_64")) {
      return Detected{"rhel7-64", centos};
    }
    if (isolinuxCfg.contains("i386")) {
      return Detected{"rhel7", centos};
    }
    return std::nullopt;
  }

  if (!medium.Exists("LiveOS", "squashfs.img")) {
    MediumFile notes = medium.Read("RELEASE-NOTES");
    if (!notes) {
      return std::nullopt;
    }
    std::string_view text = notes.text();
    std::string_view first = text.substr(0, text.find('\n'));
    if (StartsWith(first, "Red Hat Enterprise Linux")) {
      return Contains(first, " 2.1 ") ? std::optional<Detected>(Detected{"rhel2", centos})
                                      : std::nullopt;
    }
    if (StartsWith(first, "Red Hat Linux")) {
      return Detected{"redhat", centos};
    }
    return std::nullopt;
  }

  // A live medium.
  if (medium.Read("Documents/README").contains("Asianux Server 7")) {
    return Detected{"asianux7-64", GUESS_VERSION_ASIANUX_7_LIVE};
  }
  if (fedoraLegal) {
    const char *key = "Fedora";
    if (medium.Exists("EFI/BOOT", "grubx64.efi")) {
      key = "Fedora-64";
    } else if (medium.Exists("EFI/BOOT", "BOOTAA64.EFI")) {
      key = "arm-Fedora-64";
    }
    return Detected{key, GUESS_VERSION_FEDORA_LIVE};
  }
  return std::nullopt;
}

}  // namespace

extern "C" bool Guess_RedHat(GuessMedium *raw, GuessInfo *info) {
  if (raw == nullptr || info == nullptr) {
    return false;
  }
  const Medium medium(raw);
  MediumFile discinfo = medium.Read(".DISCINFO", kDiscInfoBytes);
  // Read, not just looked up: the file counts only when it can be read.
  const bool fedoraLegal = static_cast<bool>(medium.Read("Fedora-Legal-README.txt", 1));
  const bool hasIsolinux = medium.Exists("isolinux", "isolinux.cfg");
  const GuessVersion centos = CentosRelease(medium);

  std::optional<Detected> detected = discinfo ? FromDiscInfo(medium, discinfo, fedoraLegal, centos)
                                              : WithoutDiscInfo(medium, fedoraLegal, centos);
  if (!detected) {
    return info->osKey != nullptr;
  }
  info->noIsolinuxCfg = !hasIsolinux;
  info->osKey = detected->key;
  info->version = detected->version;
  return true;
}
