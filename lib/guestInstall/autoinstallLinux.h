// Inside the Linux unattended install: the family table, the answer-file
// formatters the writer dispatches to, the password hashing they use, and
// the escapes each answer-file format needs for user text.
#ifndef GUESTPREP_LIB_AUTOINSTALL_LINUX_H
#define GUESTPREP_LIB_AUTOINSTALL_LINUX_H

#include <ctime>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "guestprep/autoinstall.h"

// One row per LinuxInstallFamily: the family's default answer-file
// template, the kernel arguments added to the remastered boot line, the
// answer-file name, and whether the installer reads it from a floppy.
struct LinuxFamilyRow {
  const char *answerTemplate;
  const char *kernelArgs;
  const char *answerFileName;
  uint8_t needsFloppy;
};

// Indexed by LinuxInstallFamily. The Red Hat row's kernelArgs is set by
// every kickstart write and read by the remastering later; the other cells
// never change.
extern LinuxFamilyRow LinuxFamilyTable[6];

LinuxInstallFamily AutoInstallGetLinuxFamily(const char *osKey);

// A copy of text with a backslash before every double quote (new string,
// freed by the caller).
char *AutoInstallEscapeQuotes(const char *text);

// The SHA-256 crypt hash of password with a fresh 16-character salt, in a
// process-wide 120-byte buffer that the next call overwrites; null for a
// null password. The salt generator is seeded with the time in seconds on
// every call, so calls within one second share a salt.
const char *AutoInstallCryptPassword(const char *password);

// The templates, each a printf-style text with only "%s" and "%%".
extern const char KickstartToolsImageTemplate[];    // 17 placeholders
extern const char KickstartNetworkToolsTemplate[];  // 17
extern const char KickstartDistroToolsTemplate[];   // 17
extern const char PreseedClassicTemplate[];         // 6, disk /dev/sda
extern const char PreseedOpenToolsTemplate[];       // 6, disk /dev/sda
extern const char AutoYastClassicTemplate[];        // 10
extern const char AutoYastReportingTemplate[];      // 9
extern const char MandrivaTemplate[];               // 5

namespace autoinstall {

// What every answer-file format is made from. Texts are never null here;
// the hashes are final crypt strings.
struct AnswerInputs {
  std::string_view osKey;
  GuessVersion version = 0;
  LinuxInstallFamily family = LINUX_FAMILY_NONE;
  std::string_view userName;
  std::string_view fullName;
  std::string_view userPassword;
  std::string_view rootPassword;
  std::string_view userHash;
  std::string_view rootHash;
  bool powerOff = false;
  bool nvme = false;
};

// The whole answer file of each format; nullopt when the template and the
// placeholder count disagree (a programming error, reported as a false
// result). FormatKickstart also stores the kickstart kernel argument in
// the Red Hat row of LinuxFamilyTable.
std::optional<std::string> FormatKickstart(const AnswerInputs &in);

// Sets the kickstart kernel argument of the Red Hat row for release v, as
// writing a kickstart does; for remastering a medium whose kickstart was
// written by an earlier process.
void SetKickstartKernelArgs(GuessVersion v);
std::optional<std::string> FormatPreseed(const AnswerInputs &in);
std::optional<std::string> FormatAutoYast(const AnswerInputs &in);
std::optional<std::string> FormatMandriva(const AnswerInputs &in);

// tmpl with each "%s" replaced by the next argument and "%%" by "%";
// nullopt when the counts differ or tmpl holds another conversion.
// Arguments are data: a "%" in them is copied as it is.
std::optional<std::string> FillTemplate(std::string_view tmpl,
                                        std::initializer_list<std::string_view> args);

// Escapes for user text in each format, so that its reader gets back
// exactly the text given:
// - inside "..." in a shell script: \ " $ ` get a backslash;
std::string ShellDoubleQuoted(std::string_view text);
// - inside "..." in Perl: \ " $ @ get a backslash;
std::string PerlDoubleQuoted(std::string_view text);
// - inside <![CDATA[...]]>: each "]]>" is split across two sections.
std::string CdataText(std::string_view text);

// Why a text cannot be written into the family's answer file without
// changing its meaning, as a message string for Msg_GetString, or null
// when it can. Checks what the validators leave open: control characters
// and invalid UTF-8 in the full name, a user name that is empty, starts
// with "-", is over 32 characters or holds more than a-z, 0-9, "-", and a
// password of 512 bytes or more (the guests' crypt() refuses to check it).
const char *AnswerTextProblem(AutoInstallTextKind kind, std::string_view text);

// Where the salt's seed comes from: time() unless a test fixes the clock.
void SetCryptClockForTesting(time_t (*clock)(time_t *));

}  // namespace autoinstall

#endif
