// Windows detectors for text-mode setup media (Windows NT 4.0, 2000, XP,
// Server 2003) and for Windows 95, 98 and Me media; the key = value parser
// shared by every Windows detector.
#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "guestprep/guess.h"
#include "lib/guessGuest/guessInternal.h"
#include "lib/guessGuest/guessWindows.h"

namespace {

using guess::Contains;
using guess::Medium;
using guess::MediumFile;

// A real "TXTSETUP.SIF" is over half a megabyte, and the product names sit
// in its last section.
constexpr size_t kTxtSetupBytes = 2u << 20;

bool IsSkipped(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

bool EndsValue(char c) {
  return c == '\r' || c == '\n' || c == '\t' || c == '"' || c == '\0';
}

// Product names as "TXTSETUP.SIF" states them; compared exactly, in order.
struct NtProduct {
  std::string_view name;
  const char *key;
};
constexpr std::array<NtProduct, 11> guessNtProducts{{
    {"Windows Server 2003, Standard", "winNetStandard"},
    {"Windows Server 2003, Enterprise", "winNetEnterprise"},
    {"Windows Server 2003, Web", "winNetWeb"},
    {"Windows Server 2003 Standard x64 Edition", "winNetStandard-64"},
    {"Windows Server 2003 Enterprise x64 Edition", "winNetEnterprise-64"},
    {"Windows Server 2003 for Small Business Server", "winNetBusiness"},
    {"Microsoft Windows 2000 Professional", "win2000Pro"},
    {"Microsoft Windows 2000 Server", "win2000Serv"},
    {"Microsoft Windows 2000 Advanced Server", "win2000AdvServ"},
    {"Windows NT Workstation Version 4.00", "winNT"},
    {"Windows NT Server Version 4.00", "winNT"},
}};

// XP names vary by edition and service pack, so they are matched by words.
const char *XpKey(const std::string &product) {
  std::string lower = guess::ToLower(product);
  if (!Contains(lower, "windows xp")) {
    return nullptr;
  }
  if (Contains(lower, "pro")) {
    return Contains(lower, "x64") ? "winXPPro-64" : "winXPPro";
  }
  return "winXPHome";
}

MediumFile ReadEither(const Medium &medium, const char *first, const char *second,
                      size_t maxBytes = guess::kMarkerBytes) {
  MediumFile file = medium.Read(first, maxBytes);
  return file ? std::move(file) : medium.Read(second, maxBytes);
}

}  // namespace

bool GuessParseKeyValue(std::string_view text, std::string *key, std::string *value) {
  const size_t eq = text.find('=');
  if (eq == std::string_view::npos) {
    return false;
  }
  // A blank past the "=" belongs to the value or a later line, not the key.
  const size_t keyEnd = std::min(text.find(' '), eq);
  size_t start = eq + 1;
  while (start < text.size() && IsSkipped(text[start])) {
    ++start;
  }
  if (start < text.size() && text[start] == '"') {
    ++start;
    if (start == text.size() || text[start] == '"' || text[start] == '\0') {
      return false;
    }
  }
  size_t end = start;
  while (end < text.size() && !EndsValue(text[end])) {
    ++end;
  }
  if (end == start) {
    return false;
  }
  if (key != nullptr) {
    key->assign(text.substr(0, keyEnd));
  }
  if (value != nullptr) {
    value->assign(text.substr(start, end - start));
  }
  return true;
}

std::optional<std::string> GuessValueOf(std::string_view text, std::string_view marker) {
  size_t at = text.find(marker);
  std::string value;
  if (at == std::string_view::npos || !GuessParseKeyValue(text.substr(at), nullptr, &value)) {
    return std::nullopt;
  }
  return value;
}

extern "C" bool Guess_WindowsNT(GuessMedium *raw, GuessInfo *info) {
  if (raw == nullptr || info == nullptr) {
    return false;
  }
  const Medium medium(raw);
  MediumFile txtsetup =
      ReadEither(medium, "I386/TXTSETUP.SIF", "AMD64/TXTSETUP.SIF", kTxtSetupBytes);
  if (!txtsetup) {
    return false;
  }
  MediumFile prodspec = ReadEither(medium, "I386/PRODSPEC.INI", "AMD64/PRODSPEC.INI");

  // Workstation media name their product on "wks_id", servers on "srv_id".
  std::string_view setup = txtsetup.text();
  std::optional<std::string> product;
  if (setup.find("wks_id ") != std::string_view::npos) {
    product = GuessValueOf(setup, "wks_id ");
  } else {
    product = GuessValueOf(setup, "srv_id ");
  }
  if (!product) {
    return false;
  }

  const char *key = nullptr;
  for (const NtProduct &entry : guessNtProducts) {
    if (entry.name == *product) {
      key = entry.key;
      break;
    }
  }
  if (key == nullptr) {
    key = XpKey(*product);
  }
  if (key == nullptr) {
    return false;
  }

  if (prodspec) {
    if (std::optional<std::string> language = GuessValueOf(prodspec.text(), "Localization=")) {
      guess::SetField(info->language, *language);
    }
  }
  info->osKey = key;
  info->version = GUESS_VERSION_UNKNOWN;
  return true;
}

extern "C" bool Guess_WindowsLegacy(GuessMedium *raw, GuessInfo *info) {
  if (raw == nullptr || info == nullptr) {
    return false;
  }
  const Medium medium(raw);
  // Every setup directory is probed; the last one present names the system
  // (a Me medium also carries the 98 directory).
  struct SetupDir {
    const char *dir;
    const char *key;
  };
  static constexpr SetupDir kSetupDirs[] = {
      {"win98", "win98"},
      {"win95", "win95"},
      {"win9x", "winMe"},
  };
  const char *key = nullptr;
  for (const SetupDir &probe : kSetupDirs) {
    if (medium.DirExists(probe.dir)) {
      key = probe.key;
    }
  }
  if (key == nullptr) {
    return false;
  }
  info->osKey = key;
  info->version = GUESS_VERSION_UNKNOWN;
  return true;
}
