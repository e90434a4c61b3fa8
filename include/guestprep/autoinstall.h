/*
 * guestprep unattended install: can a detected guest be installed without
 * a user, with which settings, is the text the user typed acceptable, what
 * is a detected Windows edition called, and the Linux answer files with
 * their password hashes.
 *
 * The detection result these functions read is the caller's GuessInfo from
 * Guess_Guest (see guestprep/guess.h); it is only read, never kept.
 *
 * Ownership: every char * handed back (display names, messages) is newly
 * allocated and released by the caller with free(). Messages and display
 * names come back localised through the host's message catalogue.
 * Nothing here logs: a bad text is reported by its status and message, an
 * unknown guest simply is not supported, an answer file that cannot be
 * written is a false result.
 *
 * Not reentrant: password hashing keeps its result and its random state
 * process-wide, and writing a kickstart file sets the kernel argument that
 * the boot-medium remastering reads later. Run the Linux answer-file calls
 * from one thread at a time.
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

/* The Linux installer families, by the guest OS key's prefix (first match,
 * case-sensitive): "redhat", "rhel", "asianux", "fedora", "centos" are Red
 * Hat; "sles10" is SLES 10; "sles11", "sles12", "opensuse" are SUSE;
 * "ubuntu"; "mandriva". Everything else (Windows, Debian...) is none. */
typedef uint32_t LinuxInstallFamily;
enum {
  LINUX_FAMILY_NONE = 0,
  LINUX_FAMILY_REDHAT = 1,
  LINUX_FAMILY_UBUNTU = 2,
  LINUX_FAMILY_SUSE = 3,
  LINUX_FAMILY_SLES10 = 4,
  LINUX_FAMILY_MANDRIVA = 5,
};

/* An account name the install form must not offer; with isPrefix, every
 * name that starts with it. Lists end with a null name. */
typedef struct ReservedAccountName {
  const char *name;
  bool isPrefix;
} ReservedAccountName;

/* The settings of the unattended-install form for one guest. The values
 * and flags are the caller's to interpret; the lists point into constant
 * tables and are never freed. */
typedef struct InstallConfigInfo {
  const ReservedAccountName *familyReservedNames;  /* may be null */
  const ReservedAccountName *variantReservedNames; /* may be null */
  uint32_t familyValue1;
  uint32_t variantValue1;
  uint32_t variantValue2;
  uint32_t familyValue2;
  uint8_t familyFlags[4];
  uint8_t variantFlags[2];
} InstallConfigInfo;

/* Whether the detected guest can be installed unattended: a Windows medium
 * the Windows check accepts, or a Linux medium of a family and release the
 * answer files are written for. False for a null record or one without a
 * key. */
GUESTPREP_API bool AutoInstall_IsSupportedGuest(const GuessInfo *info);

/* The Linux half of AutoInstall_IsSupportedGuest: Red Hat (but not the
 * exact keys "rhel2" and "redhat", nor Fedora 8 and 13, live media or
 * CentOS minimal and stream media), Ubuntu of a known release that has an
 * installer this can drive, SUSE but not openSUSE 11.2 and older, 13.x,
 * nor SLES/SLED 10 SP2 and older. Never Mandriva. */
GUESTPREP_API bool AutoInstallIsSupportedLinuxGuest(const GuessInfo *info);

/* Fills *config for the family "windows" or "linux" (exact spelling) and
 * the detected guest. False, with *config untouched, for another family
 * key or a null argument or key. */
GUESTPREP_API bool AutoInstall_GetInstallConfigInfo(const char *familyKey, const GuessInfo *info,
                                                    InstallConfigInfo *config);

/* Check one typed text for the family "windows" or "linux" (any other key
 * is a programming error and ends the process). On a status other than
 * AUTOINSTALL_TEXT_OK, *message (when message is not null) receives the
 * localised reason, a new string; otherwise it is left untouched. */
GUESTPREP_API AutoInstallTextStatus AutoInstall_ValidatePassword(const char *familyKey,
                                                                 const GuessInfo *info,
                                                                 const char *text, char **message);
GUESTPREP_API AutoInstallTextStatus AutoInstall_ValidateShortName(const char *familyKey,
                                                                  const GuessInfo *info,
                                                                  const char *text, char **message);
GUESTPREP_API AutoInstallTextStatus AutoInstall_ValidateName(const char *familyKey,
                                                             const GuessInfo *info,
                                                             const char *text, char **message);

/* The Linux validator behind them:
 * - user name (AUTOINSTALL_TEXT_KIND_SHORT_NAME): only a-z, 0-9 and "-"
 *   (BAD_LINUX_USERNAME); on Ubuntu it must also start with a-z
 *   (BAD_UBUNTU_USERNAME, the empty name included);
 * - full name: none of : " \ , (BAD_LINUX_NAME), then no "]]>"
 *   (BAD_GECOS_SUBSTRING);
 * - password: no "]]>" (BAD_PASSWORD_SUBSTRING). */
GUESTPREP_API AutoInstallTextStatus AutoInstallValidateLinuxText(const GuessInfo *info,
                                                                 const char *text,
                                                                 AutoInstallTextKind kind,
                                                                 char **message);

/* Linux answer files */

/* Writes the answer file for the guest osKey/version into outDir (created
 * with its parents): "ks.cfg" (Red Hat family), "custom/preseed.cfg"
 * (Ubuntu), "autoinst.xml" (SUSE), "auto_i~1.cfg" (Mandriva). Passwords go
 * in as SHA-256 crypt hashes, except in the Mandriva file, which takes them
 * as text. powerOff ends the install with a power-off instead of a reboot;
 * nvme (Ubuntu) installs to the first NVMe disk.
 *
 * The file is replaced atomically: a false result leaves whatever was at
 * its path before. False for a null argument, a family without an answer
 * file, a directory or file that cannot be written, or a text that cannot
 * be written into the format without changing its meaning (a control
 * character or invalid UTF-8 in the full name, a user name that is empty,
 * starts with "-", is longer than 32 characters or holds more than a-z,
 * 0-9 and "-", a password of 512 bytes or more, which the guest's crypt()
 * would refuse to check). Every text the validators accept is written so that the
 * installer reads back exactly the text given: "$", "@", backquotes and
 * "]]>" are escaped as each format needs. (A double quote, which the
 * validators refuse in a full name, is written with a backslash before
 * it.)
 *
 * For the Red Hat family this also sets the kernel argument that points
 * the installer at the file ("ks=cdrom:/ks.cfg", or
 * "ks=cdrom:/dev/cdrom:/ks.cfg" for Fedora 17 to 20), which remastering
 * the boot medium reads: write the answer file first. */
GUESTPREP_API bool AutoInstall_PrepareAnswerFileEx_Linux(const char *osKey, GuessVersion version,
                                                         const char *outDir, const char *userName,
                                                         const char *fullName,
                                                         const char *userPassword,
                                                         const char *rootPassword, bool powerOff,
                                                         bool nvme);

/* SHA-256 crypt ("$5$"), as the C library's crypt() computes it. salt may
 * begin with "$5$" and with "rounds=N$" (N clamped to 1000..999999999);
 * at most 16 salt characters are used. Writes the whole hash string into
 * buffer and returns it, or returns null when buflen bytes do not hold it
 * and its terminator. Key-derived intermediate data is wiped. */
GUESTPREP_API char *SHA256_crypt(const char *key, const char *salt, char *buffer, int32_t buflen);

/* Appends up to n characters of crypt's base-64 for the 24 bits
 * b2:b1:b0, low six bits first, while *buflen is above zero; advances *cp
 * and decreases *buflen for each. */
GUESTPREP_API void b64_from_24bit(uint8_t b2, uint8_t b1, uint8_t b0, int32_t n, int32_t *buflen,
                                  char **cp);

/* Floppy images.
 *
 * FATDirectory is an open directory of a FAT floppy image; the host
 * support library opens and closes it. */
typedef struct FATDirectory FATDirectory;

/* Copies the host file srcPath into the floppy directory as name,
 * replacing the contents of a file of that name. False (and one log line
 * naming the failed step and its error) when the host file cannot be read
 * or the image cannot take the file; a failed copy may leave a partial
 * file in the image. */
GUESTPREP_API bool AddFileToFloppyImg(FATDirectory *directory, const char *srcPath,
                                      const char *name);

/* Copies the file name of the floppy directory to the host path dstPath
 * (created or truncated). False with one log line on failure; a failed copy
 * may leave a partial host file, a missing source creates none. */
GUESTPREP_API bool GetFileFromFloppyImg(FATDirectory *directory, const char *name,
                                        const char *dstPath);

/* Whether the guest's installer reads its answer file from a floppy:
 * Ubuntu, SUSE, SLES 10 and Mandriva keys. */
GUESTPREP_API bool AutoInstall_NeedsFloppy_Linux(const char *osKey);

/* Builds floppyDir/"autoinst.flp" holding the answer file that
 * AutoInstall_PrepareAnswerFileEx_Linux wrote into answerDir: a fresh
 * 1.44 MB floppy for Ubuntu ("preseed.cfg"), a copy of templateDir/"suse.flp"
 * (SUSE, SLES 10: "autoinst.xml") or templateDir/"mandriva.flp" (Mandriva:
 * "auto_i~1.cfg") with the answer file added. True without doing anything
 * for keys that need no floppy. False when the answer file is missing or a
 * step fails (logged); a partial "autoinst.flp" may be left behind. */
GUESTPREP_API bool AutoInstall_MakeFloppyImg_Linux(const char *answerDir, const char *floppyDir,
                                                   const char *templateDir, const char *osKey);

/* Copies the guest-tools upgrader payload from toolsDir into destDir under
 * the short names the answer files' first-boot scripts rename back:
 * "brimle-tools-upgrader-32" as "upgra32", "brimle-tools-upgrader-64" as
 * "upgra64", "run_upgrader.sh" as "upgrade.sh". Stops at the first failed
 * copy; true only when all three were copied. */
GUESTPREP_API bool AutoInstall_AddTools_Linux(const char *destDir, const char *toolsDir);

/* Boot-medium remastering */

/* Stages the boot files of the install image isoPath for an unattended
 * boot: the kernel and initial ramdisk of the first complete entry of its
 * isolinux configuration, its isolinux.bin (or the file isolinuxBinPath
 * when not null) with the boot loader's "ldlinux.c32" when there is one
 * beside it, and a one-entry "isolinux.cfg" whose append line adds the
 * family's answer-file arguments, all in stagingDir/"isolinux". An Ubuntu
 * 20.10-or-later image (version GUESS_VERSION_UBUNTU_2010_OR_HIGHER) has
 * no isolinux configuration; its casper kernel is staged and
 * isolinuxBinPath is then required. Reports only by its result. For the
 * Red Hat family write the kickstart file first: it sets the kernel
 * argument. */
GUESTPREP_API bool AutoInstall_ScanISO(const char *isoPath, const char *stagingDir,
                                       const char *osKey, GuessVersion version,
                                       const char *isolinuxBinPath);

/* AutoInstall_ScanISO for a medium mounted or copied at the host directory
 * mediumRoot; each failure is logged. */
GUESTPREP_API bool AutoInstall_ScanDisk(const char *mediumRoot, const char *stagingDir,
                                        const char *osKey, GuessVersion version,
                                        const char *isolinuxBinPath);

/* Masters stagingDir into the El Torito image outDir/"autoinst.iso" with
 * the mkisofs-compatible tool at toolPath (genisoimage, xorrisofs), run
 * through the shell, then deletes stagingDir whatever the outcome. A path
 * holding a character the shell would read inside double quotes (a double
 * quote, "$", a backquote, a backslash, a newline) is refused with a log
 * line before anything runs. True exactly when the tool succeeded. */
GUESTPREP_API bool AutoInstall_MasterISO(const char *stagingDir, const char *toolPath,
                                         const char *outDir);

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

/* Prepares the answer files of an unattended Windows install in
 * guestConfigDir: copies winntTemplatePath to "winnt.sif", xmlTemplatePath
 * to "autoun~0.xml" and, when storePwdTemplatePath is not null, that file
 * to "storePwd.ini" (older files are overwritten), then fills in the full
 * name, the administrator password and automatic logon, the host's time
 * zone, the language and the first-logon commands. language null or empty
 * means "en-US" (Vista and later) or "English"; it also picks the code page
 * of the texts in "winnt.sif" (Japanese Shift_JIS, Russian windows-1251,
 * Simplified Chinese GBK, Traditional Chinese Big5, Korean CP949, else
 * windows-1252; a text the code page cannot hold goes in as UTF-8). The XML
 * file always holds UTF-8, escaped as XML text. editionName must not be
 * null: it selects the image to install. keepAutoLogon leaves automatic
 * logon on after the first logon; keepSizedPartitions keeps the template's
 * partition layout.
 *
 * A text with a line break (CR or LF) is refused, because "winnt.sif" could
 * not hold it on one line. False, with one log line naming the failed step,
 * for an unknown or non-Windows osKey, a template that cannot be copied, a
 * failed INI write or an XML template that does not parse; files copied
 * before the failure stay. */
GUESTPREP_API bool AutoInstall_PrepareAnswerFileEx(
    const char *winntTemplatePath, const char *xmlTemplatePath, const char *storePwdTemplatePath,
    const char *fullName, const char *password, const char *guestOSKey, GuessVersion version,
    const char *guestConfigDir, const char *language, const char *editionName, bool keepAutoLogon,
    bool keepSizedPartitions);

/* Builds the Windows install floppy guestConfigDir/"autoinst.flp" from the
 * files AutoInstall_PrepareAnswerFileEx left there: the storage driver
 * files (scsiDriverDir, a directory inside the tools image toolsIsoPath
 * when that is given, else on the host; registered in "winnt.sif"),
 * "winnt.sif", "autoun~0.xml", "storePwd.ini" with hostFilesDir/
 * "storePwd.exe" (when the INI file was prepared), "upgrader.exe" from
 * upgraderIsoLocation/"BrimleToolsUpgrader.exe" in the tools image, and
 * hostFilesDir/"unattend.cmd". floppyTemplatePath null formats a new
 * 1.44 MB floppy; else the image starts as a copy of that file. Opens the
 * tools image with its Joliet names.
 *
 * The answer files are deleted from guestConfigDir afterwards, whatever the
 * outcome (prepare them again for another floppy); "autoinst.flp" stays,
 * also after a failure. False, with one log line naming the failed step,
 * when the floppy cannot be made, a driver directory is empty or cannot be
 * extracted, or one of the required files cannot be added. A driver file
 * that does not fit is left as an empty entry and the others still go on.
 * A tools image that does not exist leaves the upgrader out; one that
 * exists but lacks it fails. */
GUESTPREP_API bool AutoInstall_MakeFloppyImg(const char *floppyTemplatePath,
                                             const char *guestConfigDir, const char *toolsIsoPath,
                                             const char *scsiDriverDir,
                                             const char *upgraderIsoLocation,
                                             const char *hostFilesDir);

/* Registers the storage driver described by the "txtsetup.oem" file
 * oemPath in the "MassStorageDrivers" section of "winnt.sif" (winntPath):
 * the first line naming a known driver identifier before its "=" and a
 * quoted description after it gives the line <"description">=OEM. Warns
 * (one line) when no line does; an unreadable file, or one over 1 MiB, is
 * skipped silently. The text ends at its first NUL byte. */
GUESTPREP_API void WriteOEMDriverInfo(const char *oemPath, const char *winntPath);

/* Adds the host file srcPath to the root of guestConfigDir/"autoinst.flp"
 * as name. False when there is no floppy image there or the file cannot be
 * added. */
GUESTPREP_API bool AutoInstall_AddFileToFloppyImg(const char *srcPath, const char *name,
                                                  const char *guestConfigDir);

GUESTPREP_EXTERN_C_END

#endif /* GUESTPREP_AUTOINSTALL_H */
