/*
 * guestprep unattended install: can a detected guest be installed without
 * a user, is the text the user typed acceptable, and what is a detected
 * Windows edition called.
 *
 * The detection result these functions read is the caller's GuessInfo from
 * Guess_Guest (see guestprep/guess.h); it is only read, never kept.
 *
 * Ownership: every char * handed back (display names, messages) is newly
 * allocated and released by the caller with free(). Messages and display
 * names come back localised through the host's message catalogue.
 * Nothing here logs: a bad text is reported by its status and message, an
 * unknown guest simply is not supported.
 */
#ifndef GUESTPREP_AUTOINSTALL_H
#define GUESTPREP_AUTOINSTALL_H

#include "guestprep/common.h"
#include "guestprep/guess.h"

GUESTPREP_EXTERN_C_BEGIN

/* Which text the user typed. */
typedef uint32_t AutoInstallTextKind;
enum {
  AUTOINSTALL_TEXT_KIND_PASSWORD = 0,
  AUTOINSTALL_TEXT_KIND_SHORT_NAME = 1, /* the account's user name */
  AUTOINSTALL_TEXT_KIND_NAME = 2,       /* the full name; on Windows the account name */
};

/* Verdict on a typed text; every value but AUTOINSTALL_TEXT_OK comes with a
 * message saying what to change. */
typedef uint32_t AutoInstallTextStatus;
enum {
  AUTOINSTALL_TEXT_OK = 0,
  AUTOINSTALL_TEXT_BAD_LINUX_NAME = 1,
  AUTOINSTALL_TEXT_BAD_WINDOWS_NAME = 2,
  AUTOINSTALL_TEXT_BAD_PASSWORD_SUBSTRING = 3,
  AUTOINSTALL_TEXT_BAD_GECOS_SUBSTRING = 4,
  AUTOINSTALL_TEXT_BAD_LINUX_USERNAME = 5,
  AUTOINSTALL_TEXT_BAD_UBUNTU_USERNAME = 6,
};

/* Windows */

/* The display name of one entry of a Windows medium's edition list (an entry
 * of GuessInfo.editions without its "?", such as "Windows 7 HOMEPREMIUMN"),
 * as a new string ("Windows 7 Home Premium N"). A name whose last word is no
 * known edition comes back as an unchanged copy. Null for a null name. */
GUESTPREP_API char *AutoInstall_GetPrettyWindowsName(const char *name);

/* Whether the detected Windows medium can be installed unattended: a 64-bit
 * key of a release the answer files are written for (keys beginning
 * "longhorn", "windows7", "windows8", "windows9", "windows2019" or
 * "windows2022", in any letter case), and not an evaluation or ESD medium.
 * False for a null record or one without a key. */
GUESTPREP_API bool AutoInstallIsSupportedWindowsGuest(const GuessInfo *info);

/* Checks a text typed for a Windows account. Only names (kind
 * AUTOINSTALL_TEXT_KIND_NAME) are checked: one holding any of
 * / \ [ ] " : ; | < > + = , ? * gives AUTOINSTALL_TEXT_BAD_WINDOWS_NAME and,
 * when message is not null, *message receives the localised explanation
 * (a new string). Every other case is AUTOINSTALL_TEXT_OK with *message
 * untouched; a null text has nothing to refuse. info is not read (the
 * argument keeps the signature of the other validators). */
GUESTPREP_API AutoInstallTextStatus AutoInstallValidateWindowsText(const GuessInfo *info,
                                                                   const char *text,
                                                                   AutoInstallTextKind kind,
                                                                   char **message);

GUESTPREP_EXTERN_C_END

#endif /* GUESTPREP_AUTOINSTALL_H */
