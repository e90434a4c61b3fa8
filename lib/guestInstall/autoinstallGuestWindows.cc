/*
 * Windows guests of the unattended install: edition display names, the
 * support check and the account-name check.
 */
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>

#include "guestprep/autoinstall.h"
#include "platform/msg/msg.h"
#include "platform/util/safeAlloc.h"
#include "platform/util/str.h"

namespace {

/* Edition naming */

// A name part and the localisable message that displays it.
struct WinNameText {
  const char *match;
  const char *message;
};

// Product parts whose display differs from the detected text; exact match.
constexpr WinNameText kWinProducts[] = {
    {"Windows Longhorn", "@&!*@*@(msg.autoinstall.winpfx_2k8)Windows Server 2008"},
    {"Windows Server 2008 R2", "@&!*@*@(msg.autoinstall.winpfx_2k8r2)Windows Server 2008 R2"},
    {"Windows Server 2016 Technical Preview 5",
     "@&!*@*@(msg.autoinstall.winpfx_2016tp)Windows Server 2016 TP5"},
};

// Edition identifiers, walked in order: a later row that also prefixes the
// edition part replaces the edition text but keeps a suffix an earlier row
// found, so "SERVERSTANDARDACORE" is Standard (row "SERVERSTANDARD") Core
// (the remainder of row "SERVERSTANDARDA").
constexpr WinNameText kWinEditions[] = {
    {"STARTER", "@&!*@*@(msg.autoinstall.win_starter) Starter"},
    {"HOMEBASIC", "@&!*@*@(msg.autoinstall.win_homebasic) Home Basic"},
    {"HOMEPREMIUM", "@&!*@*@(msg.autoinstall.win_homepremium) Home Premium"},
    {"PROFESSIONAL", "@&!*@*@(msg.autoinstall.win_pro) Professional"},
    {"BUSINESS", "@&!*@*@(msg.autoinstall.win_business) Business"},
    {"ENTERPRISE", "@&!*@*@(msg.autoinstall.win_enterprise) Enterprise"},
    {"ULTIMATE", "@&!*@*@(msg.autoinstall.win_ultimate) Ultimate"},
    {"Pro", "@&!*@*@(msg.autoinstall.win8_pro) Pro"},
    {"Enterprise", "@&!*@*@(msg.autoinstall.win8_enterprise) Enterprise"},
    {"Home", "@&!*@*@(msg.autoinstall.win_home) Home"},
    {"Education", "@&!*@*@(msg.autoinstall.win_education) Education"},
    {"SERVERSTANDARDA", "@&!*@*@(msg.autoinstall.winsrv_standard) Standard"},
    {"SERVERSTANDARD", "@&!*@*@(msg.autoinstall.winsrv_standard) Standard"},
    {"SERVERWEB", "@&!*@*@(msg.autoinstall.winsrv_web) Web Edition"},
    {"SERVERDATACENTERA", "@&!*@*@(msg.autoinstall.winsrv_datacenter) Datacenter"},
    {"SERVERDATACENTER", "@&!*@*@(msg.autoinstall.winsrv_datacenter) Datacenter"},
    {"SERVERENTERPRISE", "@&!*@*@(msg.autoinstall.winsrv_enterprise) Enterprise"},
    {"SERVERSBSSTANDARD", "@&!*@*@(msg.autoinstall.winsrv_sbs_std) Small Business Standard"},
    {"SERVERSBSPRIME", "@&!*@*@(msg.autoinstall.winsrv_sbs_found) Small Business Foundation"},
    {"SERVERSBSPREMIUM", "@&!*@*@(msg.autoinstall.winsrv_sbs_premium) Small Business Premium"},
    {"SERVERSOLUTION", "@&!*@*@(msg.autoinstall.winsrv_solution) Essentials"},
    {"SERVERSTORAGESTANDARD", "@&!*@*@(msg.autoinstall.winsrv_sto_std) Storage Standard"},
    {"SERVERSTORAGEWORKGROUP", "@&!*@*@(msg.autoinstall.winsrv_sto_wg) Storage Workgroup"},
};

// What may follow an edition identifier; compared whole, first match wins.
constexpr WinNameText kWinSuffixes[] = {
    {"N", "@&!*@*@(msg.autoinstall.winsfx_n) N"},
    {"_N", "@&!*@*@(msg.autoinstall.winsfx_n) N"},
    {"_2015_LTSB", "@&!*@*@(msg.autoinstall.winsfx_2015ltsb) 2015 LTSB"},
    {"_N_2015_LTSB", "@&!*@*@(msg.autoinstall.winsfx_n2015ltsb) N 2015 LTSB"},
    {"_2016_LTSB", "@&!*@*@(msg.autoinstall.winsfx_2016ltsb) 2016 LTSB"},
    {"_N_2016_LTSB", "@&!*@*@(msg.autoinstall.winsfx_n2016ltsb) N 2016 LTSB"},
    {"_LTSC_2019", "@&!*@*@(msg.autoinstall.winsfx_ltsc2019) LTSC 2019"},
    {"_China", "@&!*@*@(msg.autoinstall.winsfx_cn) Chinese"},
    {"_Single_Language", "@&!*@*@(msg.autoinstall.winsfx_homesl) Single Language"},
    {"_Education_N", "@&!*@*@(msg.autoinstall.winsfx_edu_n) Education N"},
    {"_Education", "@&!*@*@(msg.autoinstall.winsfx_edu) Education"},
    {"_for_Workstations", "@&!*@*@(msg.autoinstall.winsfx_workstations) for Workstations"},
    {"_N_for_Workstations", "@&!*@*@(msg.autoinstall.winsfx_n_workstations) N for Workstations"},
    {"_for_Virtual_Desktops",
     "@&!*@*@(msg.autoinstall.winsfx_virtualDesktops) for Virtual Desktops"},
    {"V", "@&!*@*@(msg.autoinstall.winsfx_v) without Hyper-V"},
    {"CORE", "@&!*@*@(msg.autoinstall.winsfx_core) Core"},
    {"VCORE", "@&!*@*@(msg.autoinstall.winsfx_vcore) Core without Hyper-V"},
    {"K", "@&!*@*@(msg.autoinstall.winsfx_k) K"},
    {"KN", "@&!*@*@(msg.autoinstall.winsfx_kn) KN"},
};

constexpr const char kWinPrettyFormat[] = "@&!*@*@(msg.autoinstall.prettyFormat)%s%s%s";

// A string from the message layer, freed when replaced or dropped.
using OwnedText = gp::UniqueText;

const char *FindExact(const WinNameText *rows, size_t count, std::string_view part) {
  for (size_t i = 0; i < count; ++i) {
    if (part == rows[i].match) {
      return rows[i].message;
    }
  }
  return nullptr;
}

/* Windows support */

// Evaluation and ESD media cannot be answered by an answer file.
constexpr GuessVersion kWinUnsupportedVersions[] = {
    GUESS_VERSION_WINDOWS_8_TRIAL,  GUESS_VERSION_WINDOWS_SERVER_2012_TRIAL,
    GUESS_VERSION_WINDOWS_81_TRIAL, GUESS_VERSION_WINDOWS_SERVER_2012_R2_TRIAL,
    GUESS_VERSION_WINDOWS_10_ESD,
};

// Key prefixes of the Windows releases the answer files are written for.
constexpr const char *kWinSupportedKeyPrefixes[] = {
    "longhorn", "windows7", "windows8", "windows9", "windows2019", "windows2022",
};

/* Account names */

// Characters the Windows account database refuses in a user name.
constexpr const char kWinNameRejected[] = "/\\[]\":;|<>+=,?*";

constexpr const char kWinBadNameMessage[] =
    "@&!*@*@(msg.autoinstall.bad_windows_name)The name must not contain the following "
    "characters:\n'/\\[]\":;|<>+=,?*'\nEnter a new value.";

}  // namespace

char *AutoInstall_GetPrettyWindowsName(const char *name) {
  if (name == nullptr) {
    return nullptr;
  }
  const char *lastBlank = strrchr(name, ' ');
  if (lastBlank == nullptr) {
    return UtilSafeStrdup0(name);
  }
  std::string product(name, static_cast<size_t>(lastBlank - name));
  std::string_view edition(lastBlank + 1);

  OwnedText productText;
  if (const char *msg = FindExact(kWinProducts, std::size(kWinProducts), product)) {
    productText.reset(Msg_GetString(msg));
  }
  if (productText.get() == nullptr) {
    productText.reset(UtilSafeStrdup0(product.c_str()));
  }

  // Every identifier that prefixes the edition part is tried in table order;
  // the last one that fits names the edition, and the last remainder that is
  // a known suffix names the suffix.
  OwnedText editionText;
  OwnedText suffixText;
  for (const WinNameText &row : kWinEditions) {
    std::string_view id(row.match);
    if (edition == id) {
      editionText.reset(Msg_GetString(row.message));
      break;
    }
    if (edition.substr(0, id.size()) == id) {
      editionText.reset(Msg_GetString(row.message));
      std::string_view rest = edition.substr(id.size());
      if (const char *msg = FindExact(kWinSuffixes, std::size(kWinSuffixes), rest)) {
        suffixText.reset(Msg_GetStringSafe(msg));
      }
    }
  }
  if (editionText.get() == nullptr) {
    return UtilSafeStrdup0(name);
  }
  return Msg_Format(kWinPrettyFormat, productText.get(), editionText.get(),
                    suffixText.get() != nullptr ? suffixText.get() : "");
}

bool AutoInstallIsSupportedWindowsGuest(const GuessInfo *info) {
  if (info == nullptr || info->osKey == nullptr) {
    return false;
  }
  for (GuessVersion v : kWinUnsupportedVersions) {
    if (info->version == v) {
      return false;
    }
  }
  const char *key = info->osKey;
  // Only 64-bit Windows is installed unattended; the test matches the keys
  // as detection spells them, the prefix test below any spelling.
  if ((strstr(key, "windows") != nullptr || strstr(key, "longhorn") != nullptr) &&
      strstr(key, "-64") == nullptr) {
    return false;
  }
  for (const char *prefix : kWinSupportedKeyPrefixes) {
    if (StrUtil_CaselessStartsWith(key, prefix)) {
      return true;
    }
  }
  return false;
}

AutoInstallTextStatus AutoInstallValidateWindowsText(const GuessInfo * /* info */, const char *text,
                                                     AutoInstallTextKind kind, char **message) {
  if (kind != AUTOINSTALL_TEXT_KIND_NAME || text == nullptr) {
    return AUTOINSTALL_TEXT_OK;
  }
  if (strpbrk(text, kWinNameRejected) == nullptr) {
    return AUTOINSTALL_TEXT_OK;
  }
  if (message != nullptr) {
    *message = Msg_GetString(kWinBadNameMessage);
  }
  return AUTOINSTALL_TEXT_BAD_WINDOWS_NAME;
}
