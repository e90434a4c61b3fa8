/*
 * Linux guests of the unattended install: the installer families, whether a
 * detected release can be installed unattended, the account-text checks,
 * and the answer-file writer that hands each family to its formatter.
 */
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "autoinstallLinux.h"
#include "platform/file/file.h"
#include "platform/file/fileIO.h"
#include "platform/msg/msg.h"
#include "platform/util/bytes.h"
#include "platform/util/safeAlloc.h"
#include "platform/util/str.h"

#include <openssl/crypto.h>

LinuxFamilyRow LinuxFamilyTable[6] = {
    {nullptr, nullptr, nullptr, 0},
    {KickstartToolsImageTemplate, "ks=cdrom:/ks.cfg", "ks.cfg", 0},
    {PreseedClassicTemplate,
     "debian-installer/custom-installation=/custom find_preseed=/preseed.cfg auto "
     "preseed/file=/floppy/preseed.cfg automatic-ubiquity noprompt priority=critical "
     "locale=en_US console-setup/modelcode=evdev",
     "preseed.cfg", 1},
    {AutoYastClassicTemplate,
     "autoyast=floppy:///autoinst.xml install=cd:/?device=sr1 driverupdate=disk:/?device=fd0",
     "autoinst.xml", 1},
    {AutoYastClassicTemplate,
     "autoyast=floppy:///autoinst.xml install=cd:/?device=hdc driverupdate=disk:/?device=fd0",
     "autoinst.xml", 1},
    {MandrivaTemplate, "auto_install=floppy", "auto_i~1.cfg", 1},
};

namespace {

struct FamilyPrefix {
  const char *prefix;
  LinuxInstallFamily family;
};

// Tested in order: "sles10" before the other SUSE releases.
constexpr FamilyPrefix kFamilyPrefixes[] = {
    {"redhat", LINUX_FAMILY_REDHAT},     {"rhel", LINUX_FAMILY_REDHAT},
    {"asianux", LINUX_FAMILY_REDHAT},    {"fedora", LINUX_FAMILY_REDHAT},
    {"centos", LINUX_FAMILY_REDHAT},     {"sles10", LINUX_FAMILY_SLES10},
    {"sles11", LINUX_FAMILY_SUSE},       {"sles12", LINUX_FAMILY_SUSE},
    {"opensuse", LINUX_FAMILY_SUSE},     {"ubuntu", LINUX_FAMILY_UBUNTU},
    {"mandriva", LINUX_FAMILY_MANDRIVA},
};

// Releases with no installer the answer files can drive, as bit masks over
// the GuessVersion values.
constexpr uint64_t kRedHatUnsupported =
    1ull << GUESS_VERSION_FEDORA_8 | 1ull << GUESS_VERSION_FEDORA_13 |
    1ull << GUESS_VERSION_FEDORA_LIVE | 1ull << GUESS_VERSION_CENTOS_7_MINIMAL |
    1ull << GUESS_VERSION_CENTOS_8_STREAM | 1ull << GUESS_VERSION_CENTOS_9_STREAM |
    1ull << GUESS_VERSION_ASIANUX_7_LIVE;
constexpr uint64_t kUbuntuUnsupported =
    1ull << GUESS_VERSION_UNKNOWN | 1ull << GUESS_VERSION_UBUNTU_SERVER_140402 |
    1ull << GUESS_VERSION_UBUNTU_SERVER_1410 | 1ull << GUESS_VERSION_UBUNTU_SERVER_804_OR_LOWER |
    1ull << GUESS_VERSION_UBUNTU_704_OR_LOWER;
static_assert(kRedHatUnsupported == 0x8000D00080A0000ull && kUbuntuUnsupported == 0x82D);

bool InMask(uint64_t mask, GuessVersion v) {
  return v < 64 && (mask >> v & 1) != 0;
}

constexpr const char kBadLinuxName[] =
    "@&!*@*@(msg.autoinstall.bad_linux_name)The full name does not allow the following "
    "characters: ':\"\\,'\nEnter a new value.";
constexpr const char kBadPasswordSubstring[] =
    "@&!*@*@(msg.autoinstall.bad_password_substring)The password must not contain the "
    "characters ']]>' in a row.\nEnter a new value.";
constexpr const char kBadGecosSubstring[] =
    "@&!*@*@(msg.autoinstall.bad_gecos_substring)The full name must not contain the characters "
    "']]>' in a row.\nEnter a new value.";
constexpr const char kBadLinuxUsername[] =
    "@&!*@*@(msg.autoinstall.bad_linux_username)The user name must consist only of lowercase US "
    "English characters, numbers 0 to 9 and dashes.\nEnter a new value.";
constexpr const char kBadUbuntuUsername[] =
    "@&!*@*@(msg.autoinstall.bad_ubuntu_username)The user name must start with a lowercase US "
    "English character.\nEnter a new value.";

// What the answer files need beyond the checks above.
constexpr const char kFullNameControl[] =
    "@&!*@*@(msg.autoinstall.name_control_chars)The full name must not contain line breaks, "
    "tabs or other control characters.\nEnter a new value.";
constexpr const char kFullNameEncoding[] =
    "@&!*@*@(msg.autoinstall.name_encoding)The full name is not valid UTF-8 text.\nEnter a new "
    "value.";
constexpr const char kUserNameForm[] =
    "@&!*@*@(msg.autoinstall.username_form)The user name must have 1 to 32 characters, only "
    "lowercase US English characters, numbers 0 to 9 and dashes, and must not start with a "
    "dash.\nEnter a new value.";

constexpr const char kPasswordLength[] =
    "@&!*@*@(msg.autoinstall.password_length)The password must be shorter than 512 "
    "characters.\nEnter a new value.";

// The longest user name the account tools of every family accept.
constexpr size_t kMaxUserName = 32;
// The guests' crypt() refuses to check longer passwords: the account could
// never log in.
constexpr size_t kMaxPassword = 511;

AutoInstallTextStatus Refuse(AutoInstallTextStatus status, const char *msg, char **message) {
  if (message != nullptr) {
    *message = Msg_GetString(msg);
  }
  return status;
}

bool IsUserNameChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
}

std::string EscapeWith(std::string_view text, std::string_view special) {
  std::string out;
  out.reserve(text.size() + 8);
  for (char c : text) {
    if (special.find(c) != std::string_view::npos) {
      out += '\\';
    }
    out += c;
  }
  return out;
}

// The crypt result buffer is shared: copy each hash out at once.
std::string Hash(const char *password) {
  const char *hash = AutoInstallCryptPassword(password);
  return hash != nullptr ? hash : "";
}

// The file holds password hashes (the Mandriva one the passwords): only its
// owner may read it.
bool WriteAnswerFile(const std::string &path, const std::string &text) {
  FileIOAtomicWriter w;
  if (FileIO_AtomicBegin(&w, path.c_str(), 0600, true) != FILEIO_SUCCESS) {
    return false;
  }
  if (FileIO_Write(&w.fd, text.data(), text.size(), nullptr) != FILEIO_SUCCESS) {
    FileIO_AtomicAbort(&w);
    return false;
  }
  return FileIO_AtomicCommit(&w) == FILEIO_SUCCESS;
}

}  // namespace

LinuxInstallFamily AutoInstallGetLinuxFamily(const char *osKey) {
  for (const FamilyPrefix &row : kFamilyPrefixes) {
    if (StrUtil_StartsWith(osKey, row.prefix)) {
      return row.family;
    }
  }
  return LINUX_FAMILY_NONE;
}

bool AutoInstallIsSupportedLinuxGuest(const GuessInfo *info) {
  if (info == nullptr || info->osKey == nullptr) {
    return false;
  }
  const GuessVersion v = info->version;
  switch (AutoInstallGetLinuxFamily(info->osKey)) {
    case LINUX_FAMILY_REDHAT:
      return strcmp(info->osKey, "rhel2") != 0 && strcmp(info->osKey, "redhat") != 0 &&
             !InMask(kRedHatUnsupported, v);
    case LINUX_FAMILY_UBUNTU:
      return !InMask(kUbuntuUnsupported, v);
    case LINUX_FAMILY_SUSE:
    case LINUX_FAMILY_SLES10:
      return v != GUESS_VERSION_OPENSUSE_11_2_OR_LOWER &&
             !(v >= GUESS_VERSION_OPENSUSE_13_1 && v <= GUESS_VERSION_SLED_10_SP2_OR_LOWER);
    default:
      return false;
  }
}

AutoInstallTextStatus AutoInstallValidateLinuxText(const GuessInfo *info, const char *text,
                                                   AutoInstallTextKind kind, char **message) {
  const std::string_view t = text != nullptr ? text : "";
  switch (kind) {
    case AUTOINSTALL_TEXT_KIND_SHORT_NAME: {
      const char *key = info != nullptr ? info->osKey : nullptr;
      if (AutoInstallGetLinuxFamily(key) == LINUX_FAMILY_UBUNTU &&
          (t.empty() || t[0] < 'a' || t[0] > 'z')) {
        return Refuse(AUTOINSTALL_TEXT_BAD_UBUNTU_USERNAME, kBadUbuntuUsername, message);
      }
      for (char c : t) {
        if (!IsUserNameChar(c)) {
          return Refuse(AUTOINSTALL_TEXT_BAD_LINUX_USERNAME, kBadLinuxUsername, message);
        }
      }
      return AUTOINSTALL_TEXT_OK;
    }
    case AUTOINSTALL_TEXT_KIND_NAME:
      if (t.find_first_of(":\"\\,") != std::string_view::npos) {
        return Refuse(AUTOINSTALL_TEXT_BAD_LINUX_NAME, kBadLinuxName, message);
      }
      if (t.find("]]>") != std::string_view::npos) {
        return Refuse(AUTOINSTALL_TEXT_BAD_GECOS_SUBSTRING, kBadGecosSubstring, message);
      }
      return AUTOINSTALL_TEXT_OK;
    case AUTOINSTALL_TEXT_KIND_PASSWORD:
      if (t.find("]]>") != std::string_view::npos) {
        return Refuse(AUTOINSTALL_TEXT_BAD_PASSWORD_SUBSTRING, kBadPasswordSubstring, message);
      }
      return AUTOINSTALL_TEXT_OK;
    default:
      return AUTOINSTALL_TEXT_OK;
  }
}

char *AutoInstallEscapeQuotes(const char *text) {
  return UtilSafeStrdup0(EscapeWith(text != nullptr ? text : "", "\"").c_str());
}

namespace autoinstall {

std::optional<std::string> FillTemplate(std::string_view tmpl,
                                        std::initializer_list<std::string_view> args) {
  std::string out;
  out.reserve(tmpl.size() + 256);
  auto next = args.begin();
  for (size_t i = 0; i < tmpl.size(); ++i) {
    if (tmpl[i] != '%') {
      out += tmpl[i];
      continue;
    }
    const char conversion = i + 1 < tmpl.size() ? tmpl[++i] : '\0';
    if (conversion == '%') {
      out += '%';
    } else if (conversion == 's' && next != args.end()) {
      out += *next++;
    } else {
      return std::nullopt;
    }
  }
  if (next != args.end()) {
    return std::nullopt;
  }
  return out;
}

std::string ShellDoubleQuoted(std::string_view text) {
  return EscapeWith(text, "\\\"$`");
}

std::string PerlDoubleQuoted(std::string_view text) {
  return EscapeWith(text, "\\\"$@");
}

std::string CdataText(std::string_view text) {
  std::string out;
  for (size_t at; (at = text.find("]]>")) != std::string_view::npos;) {
    // "]]" ends one section, ">" starts the next.
    out.append(text.substr(0, at + 2)).append("]]><![CDATA[");
    text.remove_prefix(at + 2);
  }
  out.append(text);
  return out;
}

const char *AnswerTextProblem(AutoInstallTextKind kind, std::string_view text) {
  if (kind == AUTOINSTALL_TEXT_KIND_SHORT_NAME) {
    bool ok = !text.empty() && text.size() <= kMaxUserName && text[0] != '-';
    for (char c : text) {
      ok = ok && IsUserNameChar(c);
    }
    return ok ? nullptr : kUserNameForm;
  }
  if (kind == AUTOINSTALL_TEXT_KIND_NAME) {
    for (char c : text) {
      const unsigned char u = static_cast<unsigned char>(c);
      if (u < 0x20 || u == 0x7F) {
        return kFullNameControl;
      }
    }
    return gp::IsValidUtf8(text) ? nullptr : kFullNameEncoding;
  }
  if (kind == AUTOINSTALL_TEXT_KIND_PASSWORD && text.size() > kMaxPassword) {
    return kPasswordLength;
  }
  return nullptr;
}

}  // namespace autoinstall

bool AutoInstall_PrepareAnswerFileEx_Linux(const char *osKey, GuessVersion version,
                                           const char *outDir, const char *userName,
                                           const char *fullName, const char *userPassword,
                                           const char *rootPassword, bool powerOff, bool nvme) {
  using namespace autoinstall;
  const LinuxInstallFamily family = AutoInstallGetLinuxFamily(osKey);
  if (outDir == nullptr || !File_CreateDirectoryHierarchy(outDir)) {
    return false;
  }
  if (userName == nullptr || fullName == nullptr || userPassword == nullptr ||
      rootPassword == nullptr || family == LINUX_FAMILY_NONE) {
    return false;
  }
  if (AnswerTextProblem(AUTOINSTALL_TEXT_KIND_SHORT_NAME, userName) != nullptr ||
      AnswerTextProblem(AUTOINSTALL_TEXT_KIND_NAME, fullName) != nullptr ||
      AnswerTextProblem(AUTOINSTALL_TEXT_KIND_PASSWORD, userPassword) != nullptr ||
      AnswerTextProblem(AUTOINSTALL_TEXT_KIND_PASSWORD, rootPassword) != nullptr) {
    return false;
  }
  std::string dir = outDir;
  if (family == LINUX_FAMILY_UBUNTU) {
    dir += "/custom";
    if (!File_CreateDirectory(dir.c_str()) && !File_IsDirectory(dir.c_str())) {
      return false;
    }
  }
  const std::string userHash = Hash(userPassword);
  const std::string rootHash = Hash(rootPassword);
  const AnswerInputs in{osKey,        version,  family,   userName, fullName, userPassword,
                        rootPassword, userHash, rootHash, powerOff, nvme};
  std::optional<std::string> text;
  switch (family) {
    case LINUX_FAMILY_REDHAT:
      text = FormatKickstart(in);
      break;
    case LINUX_FAMILY_UBUNTU:
      text = FormatPreseed(in);
      break;
    case LINUX_FAMILY_SUSE:
    case LINUX_FAMILY_SLES10:
      text = FormatAutoYast(in);
      break;
    default:
      text = FormatMandriva(in);
      break;
  }
  if (!text.has_value()) {
    return false;
  }
  const bool written = WriteAnswerFile(dir + "/" + LinuxFamilyTable[family].answerFileName, *text);
  // The Mandriva text holds the passwords themselves.
  OPENSSL_cleanse(text->data(), text->size());
  return written;
}
