// SUSE family detector: SUSE Linux, openSUSE (and Leap), SUSE Linux
// Enterprise Server and Desktop, Novell Linux Desktop 9 and Sun Java Desktop
// System. The installer's "content" file decides when present; older and
// newer media without it are read from their first medium's "products" file;
// the oldest only carry a ".S.u.S.E-disk" marker in the root.
#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "guestprep/guess.h"
#include "lib/guessGuest/guessInternal.h"
#include "platform/util/str.h"

namespace {

using guess::CaselessStartsWith;
using guess::Contains;
using guess::Medium;
using guess::MediumFile;
using guess::StartsWith;

// Words of "content" lines are separated by blanks.
constexpr const char kBlanks[] = " \t";
// Words of the products file run across lines.
constexpr const char kProductSeparators[] = " \t\n";
constexpr std::string_view kDiskMarker = ".S.u.S.E-disk";
// "content" carries a checksum line per file after the product lines.
constexpr size_t kContentBytes = 256u << 10;
// "content" keeps major 0 and minor -1 when no VERSION line has numbers.
constexpr int kNoMinor = -1;

struct Detected {
  const char *key;
  GuessVersion version;
};

// SLES keys by major release. SLES 15 has no 32-bit key of its own.
struct SlesRelease {
  int major;
  const char *key64;
  const char *key32;
};
constexpr std::array<SlesRelease, 4> kSlesReleases{{
    {10, "sles10-64", "sles10"},
    {11, "sles11-64", "sles11"},
    {12, "sles12-64", "sles12"},
    {15, "sles15-64", "sles"},
}};

const char *GuessSlesKey(bool is64, int major) {
  for (const SlesRelease &release : kSlesReleases) {
    if (release.major == major) {
      return is64 ? release.key64 : release.key32;
    }
  }
  return is64 ? "sles-64" : "sles";
}

// The word starting at or after pos in line (blanks skipped); *end is
// left just past it.
std::string_view NextWord(std::string_view line, size_t pos, size_t *end) {
  size_t start = line.find_first_not_of(kBlanks, pos);
  if (start == std::string_view::npos) {
    *end = line.size();
    return std::string_view();
  }
  size_t stop = line.find_first_of(kBlanks, start);
  if (stop == std::string_view::npos) {
    stop = line.size();
  }
  *end = stop;
  return line.substr(start, stop - start);
}

// Product families named by "content", in the order they are tried.
enum class Family { SuseLinux, OpenSuse, Enterprise, SlesForBrimle, JavaDesktop, NovellDesktop };
struct NameRule {
  std::string_view prefix;
  bool caseless;
  Family family;
};
constexpr std::array<NameRule, 7> kNameRules{{
    {"SUSE LINUX", true, Family::SuseLinux},
    {"openSUSE", true, Family::OpenSuse},
    {"SUSE SLE", false, Family::Enterprise},
    {"SUSE_SLE", false, Family::Enterprise},
    {"SLES-for-Brimle", false, Family::SlesForBrimle},
    {"Sun Java Desktop", true, Family::JavaDesktop},
    {"Novell Linux Desktop", true, Family::NovellDesktop},
}};

// What the lines of "content" said.
struct Content {
  std::optional<std::string_view> name;
  std::optional<std::string_view> arch;
  int major = 0;
  int minor = kNoMinor;
  const char *repoKey = nullptr;  // from an openSUSE 13.2 REPOID
};

// "VERSION 13.1": major and minor; a number that does not parse leaves its
// value as it was.
void ParseVersion(std::string_view rest, Content *content) {
  const std::string text(rest);
  const char *delimiters = " \t.";
  unsigned index = 0;
  int32_t value = 0;
  if (StrUtil_GetNextIntToken(&value, &index, text.c_str(), delimiters)) {
    content->major = value;
  }
  if (StrUtil_GetNextIntToken(&value, &index, text.c_str(), delimiters)) {
    content->minor = value;
  }
}

GuessVersion OpenSuseVersion(int major, int minor, GuessVersion sofar) {
  if (major < 11 || (major == 11 && minor <= 2)) {
    return GUESS_VERSION_OPENSUSE_11_2_OR_LOWER;
  }
  if (major == 12) {
    return GUESS_VERSION_OPENSUSE_12;
  }
  if (major > 12) {
    return major == 13 && minor == 1 ? GUESS_VERSION_OPENSUSE_13_1
                                     : GUESS_VERSION_OPENSUSE_13_2_OR_HIGHER;
  }
  return sofar;  // 11.3 and 11.4 have no value of their own
}

std::optional<Detected> FromContent(std::string_view text) {
  if (Contains(text, "aarch64")) {
    return std::nullopt;
  }
  Content content;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t eol = text.find('\n', pos);
    if (eol == std::string_view::npos) {
      eol = text.size();
    }
    const std::string_view line = text.substr(pos, eol - pos);
    pos = eol + 1;

    size_t after = 0;
    const std::string_view word = NextWord(line, 0, &after);
    if (StartsWith(word, "REPOID")) {
      const std::string_view id = NextWord(line, after, &after);
      const bool x64 = Contains(id, "x86_64");
      if (Contains(id, "SLE-12")) {
        // SLE 12 names its product only here; nothing later can change it.
        return Detected{x64 ? "sles12-64" : "sles12",
                        Contains(id, "/SLED/") ? GUESS_VERSION_SLED_ALL : GUESS_VERSION_UNKNOWN};
      }
      if (Contains(id, "openSUSE:13.2")) {
        content.arch = x64 ? "x86_64" : "i586";
        content.major = 13;
        content.minor = 2;
        content.repoKey = x64 ? "sles12-64" : "sles12";
      } else if (Contains(id, "openSUSE:Leap:42.")) {
        content.arch = x64 ? "x86_64" : "i586";
        content.major = 42;
      }
    } else if (StartsWith(word, "PRODUCT") || StartsWith(word, "NAME")) {
      if (!content.name) {
        size_t start = line.find_first_not_of(kBlanks, after);
        content.name = start == std::string_view::npos ? std::string_view() : line.substr(start);
      }
    } else if (StartsWith(word, "VERSION")) {
      ParseVersion(line.substr(after), &content);
    } else if (StartsWith(word, "DEFAULTBASE") || StartsWith(word, "BASEARCHS")) {
      const std::string_view arch = NextWord(line, after, &after);
      if (!content.arch && !arch.empty()) {
        content.arch = arch;
      }
    }
  }

  const bool is64 = content.arch && *content.arch == "x86_64";
  Detected detected{nullptr, GUESS_VERSION_UNKNOWN};
  if (!content.name) {
    detected.key = is64 ? "opensuse-64" : "opensuse";
  } else {
    const std::string_view name = *content.name;
    const NameRule *match = nullptr;
    for (const NameRule &rule : kNameRules) {
      if (rule.caseless ? CaselessStartsWith(name, rule.prefix) : StartsWith(name, rule.prefix)) {
        match = &rule;
        break;
      }
    }
    if (match == nullptr) {
      detected.key = content.repoKey;
    } else {
      switch (match->family) {
        case Family::SuseLinux:
          detected.key = is64 ? "suse-64" : "suse";
          break;
        case Family::OpenSuse:
          detected.key = is64 ? "opensuse-64" : "opensuse";
          break;
        case Family::Enterprise: {
          detected.key = GuessSlesKey(is64, content.major);
          // "SUSE SLED" / "SUSE_SLED": the ninth character tells a desktop.
          const bool desktop = name.size() > 8 && name[8] == 'D';
          const bool sp2OrLower = content.major == 10 && content.minor <= 2;
          if (desktop) {
            detected.version =
                sp2OrLower ? GUESS_VERSION_SLED_10_SP2_OR_LOWER : GUESS_VERSION_SLED_ALL;
          } else if (sp2OrLower) {
            detected.version = GUESS_VERSION_SLES_10_SP2_OR_LOWER;
          }
          break;
        }
        case Family::SlesForBrimle:
          detected.key = GuessSlesKey(is64, content.major);
          break;
        case Family::JavaDesktop:
          detected.key = "sjds";
          break;
        case Family::NovellDesktop:
          detected.key = "nld9";
          break;
      }
    }
  }
  if (detected.key == nullptr) {
    return std::nullopt;
  }
  if (StartsWith(detected.key, "opensuse")) {
    detected.version = OpenSuseVersion(content.major, content.minor, detected.version);
  }
  return detected;
}

// Media without "content": the products file names the product after a
// two-character lead ("/ SUSE-Linux-Enterprise-Server 11 ...").
std::optional<Detected> FromProducts(const Medium &medium, std::string_view text) {
  MediumFile media = medium.Read("media.1/media");
  if (!media) {
    media = medium.Read("install/media.1/media");
  }
  if (media.contains("aarch64")) {
    return std::nullopt;
  }
  constexpr size_t kLead = 2;
  const std::string_view product = text.size() > kLead ? text.substr(kLead) : std::string_view();

  if (StartsWith(product, "SLES9-SLD")) {
    return Detected{"nld9", GUESS_VERSION_UNKNOWN};
  }
  if (StartsWith(product, "SLES8-SLEC-i386-SUN")) {
    return Detected{"sjds", GUESS_VERSION_UNKNOWN};
  }
  if (StartsWith(product, "SUSE-Linux-Enterprise") || StartsWith(product, "SUSE-Linux-SLES")) {
    const std::string copy(text);
    unsigned index = kLead;
    char *name = StrUtil_GetNextToken(&index, copy.c_str(), kProductSeparators);
    free(name);
    int32_t major = 0;
    if (!StrUtil_GetNextIntToken(&major, &index, copy.c_str(), kProductSeparators)) {
      major = 0;
    }
    return Detected{GuessSlesKey(Contains(text, "x86_64"), major),
                    Contains(text, "Desktop") ? GUESS_VERSION_SLED_ALL : GUESS_VERSION_UNKNOWN};
  }
  if (CaselessStartsWith(product, "SUSE-Linux")) {
    const bool is64 = Contains(text, "x86_64") || Contains(text, "x86-64");
    return Detected{is64 ? "suse-64" : "suse", GUESS_VERSION_UNKNOWN};
  }
  if (StartsWith(product, "openSUSE-Leap 15.") || StartsWith(product, "openSUSE 2018")) {
    return Detected{medium.DirExists("x86_64") ? "opensuse-64" : "opensuse",
                    GUESS_VERSION_OPENSUSE_13_2_OR_HIGHER};
  }
  if (StartsWith(product, "openSUSE 16.")) {
    return Detected{"opensuse-64", GUESS_VERSION_OPENSUSE_13_2_OR_HIGHER};
  }
  if (StartsWith(product, "SLES15") || Contains(text, "SLED15") || Contains(text, "SLES15")) {
    return Detected{"sles15-64", GUESS_VERSION_UNKNOWN};
  }
  if (Contains(text, "SLES") && Contains(text, "16")) {
    return Detected{"sles16-64", GUESS_VERSION_UNKNOWN};
  }
  return std::nullopt;
}

// The oldest media: only a ".S.u.S.E-disk..." entry in the root.
std::optional<Detected> FromDiskMarker(const Medium &medium) {
  Medium::Dir root = medium.Open("");
  while (const char *name = root.Next()) {
    if (StartsWith(name, kDiskMarker)) {
      return Detected{"suse", GUESS_VERSION_UNKNOWN};
    }
  }
  return std::nullopt;
}

constexpr std::array<const char *, 3> kLoaderDirs{"boot/loader", "boot/i386/loader",
                                                  "boot/x86_64/loader"};

}  // namespace

extern "C" bool Guess_SUSE(GuessMedium *raw, GuessInfo *info) {
  if (raw == nullptr || info == nullptr) {
    return false;
  }
  const Medium medium(raw);
  MediumFile content = medium.Read("content", kContentBytes);
  MediumFile products = medium.Read("media.1/products");
  if (!products) {
    products = medium.Read("install/media.1/products");
  }

  // As the C string functions see them: a NUL ends the text.
  std::optional<Detected> detected;
  if (content) {
    detected = FromContent(content.text());
  } else if (products) {
    detected = FromProducts(medium, products.text());
  } else {
    detected = FromDiskMarker(medium);
  }
  if (!detected) {
    return info->osKey != nullptr;
  }

  bool haveIsolinux = false;
  for (const char *dir : kLoaderDirs) {
    haveIsolinux = haveIsolinux || medium.Exists(dir, "isolinux.cfg");
  }
  info->noIsolinuxCfg = !haveIsolinux;
  info->osKey = detected->key;
  info->version = detected->version;
  return true;
}
