/*
 * The entry layer of the unattended install: whether a guest can be
 * installed unattended, the settings of the install form, and the
 * dispatch of typed texts to the Windows or Linux validator.
 */
#include <cstring>

#include "guestprep/autoinstall.h"
#include "platform/guestos/guestos.h"
#include "platform/log/log.h"
#include "platform/util/str.h"

namespace {

struct InstallConfigVariant {
  const char *keyPattern;  // null ends a list
  const char *versionPattern;
  uint8_t flags[2];
  uint32_t value1;
  uint32_t value2;
  const ReservedAccountName *reservedNames;
};

struct InstallConfigFamily {
  const char *key;  // null ends the table
  uint32_t value1;
  uint32_t value2;
  uint8_t flags[4];
  const ReservedAccountName *reservedNames;
  const InstallConfigVariant *variants;
};

constexpr ReservedAccountName kLinuxReserved[] = {{"root", false}, {nullptr, false}};

constexpr ReservedAccountName kWindowsReserved[] = {
    {"administra", true}, {"amministratore", false}, {"guest", false}, {"guests", false},
    {"gast", false},      {"invitado", false},       {nullptr, false},
};

constexpr ReservedAccountName kVistaReserved[] = {
    {"administra", true}, {"amministratore", false}, {"guest", false},
    {"guests", false},    {nullptr, false},
};

// The first row of each list holds the defaults; its key "*" is literal
// text and never prefixes a real key. "+vista" stands for every Windows
// from Vista on.
constexpr InstallConfigVariant kWindowsVariants[] = {
    {"*", "*", {0, 0}, 50, 0, kWindowsReserved},
    {"winnet", "*", {1, 0}, 50, 0, kWindowsReserved},
    {"win2000", "*", {1, 1}, 50, 0, kWindowsReserved},
    {"winxp", "*", {1, 1}, 50, 0, kWindowsReserved},
    {"+vista", "*", {1, 1}, 20, 0, kVistaReserved},
    {nullptr, nullptr, {0, 0}, 0, 0, nullptr},
};

constexpr InstallConfigVariant kLinuxVariants[] = {
    {"*", "*", {0, 0}, 52, 0, nullptr},
    {nullptr, nullptr, {0, 0}, 0, 0, nullptr},
};

constexpr InstallConfigFamily kInstallConfig[] = {
    {"windows", 0, 127, {1, 0, 0, 0}, nullptr, kWindowsVariants},
    {"linux", 32, 127, {0, 1, 1, 1}, kLinuxReserved, kLinuxVariants},
    {nullptr, 0, 0, {0, 0, 0, 0}, nullptr, nullptr},
};

bool VariantMatches(const InstallConfigVariant &v, const GuessInfo &info) {
  if (strcmp(v.keyPattern, "+vista") == 0) {
    return GuestOS_IsWinVistaOrHigher(GuestOS_GetOSIDByName(info.osKey));
  }
  return StrUtil_CaselessStartsWith(info.osKey, v.keyPattern) &&
         (strcmp(v.versionPattern, "*") == 0 ||
          StrUtil_CaselessStartsWith(info.versionText, v.versionPattern));
}

void TakeVariant(const InstallConfigVariant &v, InstallConfigInfo *config) {
  memcpy(config->variantFlags, v.flags, sizeof v.flags);
  config->variantValue1 = v.value1;
  config->variantValue2 = v.value2;
  config->variantReservedNames = v.reservedNames;
}

AutoInstallTextStatus ValidateText(const char *familyKey, const GuessInfo *info, const char *text,
                                   AutoInstallTextKind kind, char **message) {
  if (familyKey != nullptr && strcmp(familyKey, "windows") == 0) {
    return AutoInstallValidateWindowsText(info, text, kind, message);
  }
  if (familyKey != nullptr && strcmp(familyKey, "linux") == 0) {
    return AutoInstallValidateLinuxText(info, text, kind, message);
  }
  NOT_REACHED();  // the caller only ever has these two families
}

}  // namespace

bool AutoInstall_IsSupportedGuest(const GuessInfo *info) {
  if (info == nullptr || info->osKey == nullptr) {
    return false;
  }
  return AutoInstallIsSupportedWindowsGuest(info) || AutoInstallIsSupportedLinuxGuest(info);
}

bool AutoInstall_GetInstallConfigInfo(const char *familyKey, const GuessInfo *info,
                                      InstallConfigInfo *config) {
  if (familyKey == nullptr || info == nullptr || config == nullptr || info->osKey == nullptr) {
    return false;
  }
  const InstallConfigFamily *family = kInstallConfig;
  while (family->key != nullptr && strcmp(family->key, familyKey) != 0) {
    ++family;
  }
  if (family->key == nullptr) {
    return false;
  }
  config->familyReservedNames = family->reservedNames;
  config->familyValue1 = family->value1;
  config->familyValue2 = family->value2;
  memcpy(config->familyFlags, family->flags, sizeof family->flags);
  TakeVariant(family->variants[0], config);
  for (const InstallConfigVariant *v = family->variants; v->keyPattern != nullptr; ++v) {
    if (VariantMatches(*v, *info)) {
      TakeVariant(*v, config);
      break;
    }
  }
  return true;
}

AutoInstallTextStatus AutoInstall_ValidatePassword(const char *familyKey, const GuessInfo *info,
                                                   const char *text, char **message) {
  return ValidateText(familyKey, info, text, AUTOINSTALL_TEXT_KIND_PASSWORD, message);
}

AutoInstallTextStatus AutoInstall_ValidateShortName(const char *familyKey, const GuessInfo *info,
                                                    const char *text, char **message) {
  return ValidateText(familyKey, info, text, AUTOINSTALL_TEXT_KIND_SHORT_NAME, message);
}

AutoInstallTextStatus AutoInstall_ValidateName(const char *familyKey, const GuessInfo *info,
                                               const char *text, char **message) {
  return ValidateText(familyKey, info, text, AUTOINSTALL_TEXT_KIND_NAME, message);
}
