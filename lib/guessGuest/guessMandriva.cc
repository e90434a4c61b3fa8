// Mandrake and Mandriva detector: the release file "VERSION" of older
// media, else the volume identifier and the installer's "product.id".
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "guestprep/guess.h"
#include "lib/guessGuest/guessInternal.h"
#include "platform/util/utilVersion.h"

namespace {

using guess::Contains;
using guess::Medium;
using guess::MediumFile;
using guess::StartsWith;

// Key from an architecture word anywhere in the text; 64-bit wins.
const char *KeyForArchText(std::string_view text) {
  if (Contains(text, "x86_64")) {
    return "mandriva-64";
  }
  if (Contains(text, "i586")) {
    return "mandriva";
  }
  return nullptr;
}

// Where each architecture's installer keeps its boot configuration.
constexpr const char *kIsolinuxDirs[] = {"isolinux", "i586/isolinux", "x86_64/isolinux"};

// 2010 and later media name themselves in the volume identifier
// ("Mandriva.2010.0.x86_64"); the dot after the year's four digits is
// what separates a release from other text.
constexpr std::string_view kVolumePrefix = "Mandriva.";
constexpr size_t kVolumeYearDot = 13;

struct Found {
  const char *key = nullptr;
  GuessVersion version = GUESS_VERSION_UNKNOWN;
  bool decided = false;  // the volume identifier alone decided
};

Found FromVolumeId(const Medium &medium) {
  Found found;
  const std::string volumeId = medium.VolumeId();
  std::string_view id(volumeId);
  if (!StartsWith(id, kVolumePrefix)) {
    return found;
  }
  std::string_view rest = id.substr(kVolumePrefix.size());
  found.key = KeyForArchText(rest);
  if (StartsWith(rest, "201") && id.size() > kVolumeYearDot && id[kVolumeYearDot] == '.') {
    found.version = GUESS_VERSION_MANDRIVA_2008_1_OR_HIGHER;
    found.decided = found.key != nullptr;
  }
  return found;
}

// Refines key and version from "product.id", one line of comma-separated
// name=value pairs ("vendor=Mandriva,...,version=2008.1,...,arch=i586").
void FromProductId(const Medium &medium, GuessInfo *info, Found *found) {
  MediumFile product = medium.Read("i586/product.id");
  if (!product) {
    product = medium.Read("x86_64/product.id");
  }
  std::string_view text = product.text();
  if (!StartsWith(text, "vendor=Mandriva")) {
    return;
  }
  if (size_t arch = text.find("arch="); arch != std::string_view::npos) {
    std::string_view value = text.substr(arch + 5);
    if (StartsWith(value, "x86_6")) {
      found->key = "mandriva-64";
    } else if (StartsWith(value, "i586")) {
      found->key = "mandriva";
    }
  }
  size_t at = text.find("version=");
  if (at == std::string_view::npos) {
    return;
  }
  std::string_view rest = text.substr(at + 8);
  std::string token(rest.substr(0, rest.find_first_of(" ,\n")));
  guess::SetField(info->versionText, token);
  if (StartsWith(token, "2007.")) {
    found->version = GUESS_VERSION_MANDRIVA_2007;
  } else if (StartsWith(token, "2008.0")) {
    found->version = GUESS_VERSION_MANDRIVA_2008_0;
  } else if (Util_CompareDotted(token.c_str(), "2008.1") >= 0) {
    found->version = GUESS_VERSION_MANDRIVA_2008_1_OR_HIGHER;
  }
}

bool Recognize(GuessInfo *info, const char *key, GuessVersion version, bool noIsolinuxCfg) {
  info->osKey = key;
  info->version = version;
  info->noIsolinuxCfg = noIsolinuxCfg;
  return true;
}

}  // namespace

extern "C" bool Guess_Mandriva(GuessMedium *raw, GuessInfo *info) {
  if (raw == nullptr || info == nullptr) {
    return false;
  }
  const Medium medium(raw);

  // Media up to 2006 carry a one-line release file in the root.
  if (MediumFile version = medium.Read("VERSION")) {
    std::string_view text = version.text();
    if (StartsWith(text, "Mandrake")) {
      return Recognize(info, "mandrake", GUESS_VERSION_UNKNOWN, false);
    }
    if (!StartsWith(text, "Mandriva")) {
      return info->osKey != nullptr;
    }
    const char *key = KeyForArchText(text);
    GuessVersion release = GUESS_VERSION_UNKNOWN;
    if (Contains(text, " 2006.")) {
      guess::SetField(info->versionText, "2006");
      release = GUESS_VERSION_MANDRIVA_2006;
    }
    if (key == nullptr) {
      return info->osKey != nullptr;
    }
    return Recognize(info, key, release, false);
  }

  bool noIsolinuxCfg = true;
  for (const char *dir : kIsolinuxDirs) {
    if (medium.Exists(dir, "isolinux.cfg")) {
      noIsolinuxCfg = false;
      break;
    }
  }

  Found found = FromVolumeId(medium);
  if (found.decided) {
    return Recognize(info, found.key, found.version, noIsolinuxCfg);
  }
  FromProductId(medium, info, &found);
  if (found.key == nullptr) {
    return info->osKey != nullptr;
  }
  return Recognize(info, found.key, found.version, noIsolinuxCfg);
}
