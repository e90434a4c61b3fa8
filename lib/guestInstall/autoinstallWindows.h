// Inside the Windows answer files: the XML editor and the seams the CLI and
// the tests use.
#ifndef GUESTPREP_LIB_AUTOINSTALL_WINDOWS_H
#define GUESTPREP_LIB_AUTOINSTALL_WINDOWS_H

#include "guestprep/autoinstall.h"

namespace autoinstall {

// Edits the unattend XML at xmlPath in place (see
// AutoInstall_PrepareAnswerFileEx): names, passwords, automatic logon,
// first-logon commands, time zone, locale, architecture, edition and
// partitions. False when the file does not parse; an element the file
// lacks is not edited.
bool EditUnattendXml(const char *xmlPath, const char *fullName, const char *password,
                     const char *timeZoneName, int guestId, GuessVersion version,
                     const char *language, const char *editionName, bool keepAutoLogon,
                     bool keepSizedPartitions);

// The host's time zone as TimeUtil_GetLocalWindowsTimeZoneIndexAndName
// gives it: the Windows index (or -1) and a new Windows name (or null).
using LocalZoneFn = int (*)(char **windowsName);

// AutoInstall_PrepareAnswerFileEx with the host's time zone taken from
// localZone.
bool PrepareWindowsAnswerFiles(const char *winntTemplatePath, const char *xmlTemplatePath,
                               const char *storePwdTemplatePath, const char *fullName,
                               const char *password, const char *guestOSKey, GuessVersion version,
                               const char *guestConfigDir, const char *language,
                               const char *editionName, bool keepAutoLogon,
                               bool keepSizedPartitions, LocalZoneFn localZone);

// Puts a product key into the prepared "winnt.sif" ([UserData] ProductKey,
// quoted) and "autoun~0.xml" (the setup's UserData/ProductKey/Key) of
// guestConfigDir. The caller checks the key's form first. False when a file
// cannot be written or the XML has no key element.
bool SetWindowsProductKey(const char *guestConfigDir, const char *productKey);

}  // namespace autoinstall

#endif
