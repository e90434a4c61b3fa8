/*
 * guestprep detection: which guest OS does an installation image install?
 *
 * Guess_Guest opens an ISO 9660 or UDF image, runs the detectors in their
 * fixed order until one recognises the medium and fills a caller-owned
 * GuessInfo. GuessInfo is a plain value: it holds no owned pointers; its
 * osKey and osKey64 point into the library's constant strings and are never
 * freed. Strings returned by Guess_GetVersionString and file contents
 * returned by Guess_ReadFile / Guess_ReadFileName are newly allocated and
 * freed by the caller with free(). Detection logs nothing; an unreadable or
 * corrupt image is simply not recognised (or not opened).
 *
 * The media access operations (Guess_OpenDir ... Guess_FileExistsWithPrefix)
 * read a medium whatever its file system and whatever the letter case of
 * its directory names. A medium and its GuessDir handles belong to one
 * thread during one detection run; close every GuessDir before the medium.
 */
#ifndef GUESTPREP_GUESS_H
#define GUESTPREP_GUESS_H

#include "guestprep/common.h"

GUESTPREP_EXTERN_C_BEGIN

/* Kind of an open medium. */
typedef uint32_t GuessMediumType;
enum {
  GUESS_MEDIUM_NONE = 0,
  GUESS_MEDIUM_ISO9660 = 1,
  GUESS_MEDIUM_UDF = 2,
};

struct Iso9660Volume;
struct Iso9660Dir;
struct UDFVolume;
struct UDFDir;

/* An open medium: owned by the detection driver for one run. */
typedef struct GuessMedium {
  GuessMediumType type;
  struct Iso9660Volume *iso; /* ISO 9660 media only */
  struct UDFVolume *udf;     /* UDF media only */
} GuessMedium;

/* One open directory, from Guess_OpenDir until Guess_CloseDir. */
typedef struct GuessDir {
  struct Iso9660Dir *isoDir; /* ISO 9660 media only */
  /* The last ISO 9660 entry listed; begins with its NUL-terminated name.
   * All zero (an empty name) on a fresh handle. */
  char entry[4128];
  struct UDFDir *udfDir; /* UDF media only */
  char *path;            /* the letter-case variant of the path that opened */
} GuessDir;

/* Refinement of a guest OS key; also the index of its name in SUB_NAMES. */
typedef uint32_t GuessVersion;
enum {
  GUESS_VERSION_UNKNOWN = 0,
  GUESS_VERSION_UBUNTU_SERVER_1404 = 1,
  GUESS_VERSION_UBUNTU_SERVER_140402 = 2,
  GUESS_VERSION_UBUNTU_SERVER_1410 = 3,
  GUESS_VERSION_UBUNTU_SERVER_1504_OR_HIGHER = 4,
  GUESS_VERSION_UBUNTU_SERVER_804_OR_LOWER = 5,
  GUESS_VERSION_UBUNTU_SERVER_810_OR_HIGHER = 6,
  GUESS_VERSION_UBUNTU_1404 = 7,
  GUESS_VERSION_UBUNTU_1410 = 8,
  GUESS_VERSION_UBUNTU_1504_TO_2004 = 9,
  GUESS_VERSION_UBUNTU_2010_OR_HIGHER = 10,
  GUESS_VERSION_UBUNTU_704_OR_LOWER = 11,
  GUESS_VERSION_UBUNTU_710_OR_HIGHER = 12,
  GUESS_VERSION_MANDRIVA_2006 = 13,
  GUESS_VERSION_MANDRIVA_2007 = 14,
  GUESS_VERSION_MANDRIVA_2008_0 = 15,
  GUESS_VERSION_MANDRIVA_2008_1_OR_HIGHER = 16,
  GUESS_VERSION_FEDORA_8 = 17,
  GUESS_VERSION_FEDORA_9_TO_12 = 18,
  GUESS_VERSION_FEDORA_13 = 19,
  GUESS_VERSION_FEDORA_14_TO_16 = 20,
  GUESS_VERSION_FEDORA_17 = 21,
  GUESS_VERSION_FEDORA_18 = 22,
  GUESS_VERSION_FEDORA_19_TO_20 = 23,
  GUESS_VERSION_FEDORA_21 = 24,
  GUESS_VERSION_FEDORA_22_TO_28 = 25,
  GUESS_VERSION_FEDORA_29_OR_HIGHER = 26,
  GUESS_VERSION_FEDORA_LIVE = 27,
  GUESS_VERSION_OPENSUSE_11_2_OR_LOWER = 28,
  GUESS_VERSION_OPENSUSE_12 = 29,
  GUESS_VERSION_OPENSUSE_13_1 = 30,
  GUESS_VERSION_OPENSUSE_13_2_OR_HIGHER = 31,
  GUESS_VERSION_SLES_10_SP2_OR_LOWER = 32,
  GUESS_VERSION_SLED_10_SP2_OR_LOWER = 33,
  GUESS_VERSION_SLED_ALL = 34,
  GUESS_VERSION_CENTOS_3 = 35,
  GUESS_VERSION_CENTOS_4 = 36,
  GUESS_VERSION_CENTOS_5 = 37,
  GUESS_VERSION_CENTOS_6 = 38,
  GUESS_VERSION_CENTOS_7 = 39,
  GUESS_VERSION_CENTOS_7_MINIMAL = 40,
  GUESS_VERSION_CENTOS_8 = 41,
  GUESS_VERSION_CENTOS_8_STREAM = 42,
  GUESS_VERSION_CENTOS_9_STREAM = 43,
  GUESS_VERSION_WINDOWS_8_ENTERPRISE = 44,
  GUESS_VERSION_WINDOWS_8_TRIAL = 45,
  GUESS_VERSION_WINDOWS_SERVER_2012_TRIAL = 46,
  GUESS_VERSION_WINDOWS_81_PLAIN = 47,
  GUESS_VERSION_WINDOWS_81_TRIAL = 48,
  GUESS_VERSION_WINDOWS_81_ENTERPRISE = 49,
  GUESS_VERSION_WINDOWS_SERVER_2012_R2_PLAIN = 50,
  GUESS_VERSION_WINDOWS_SERVER_2012_R2_TRIAL = 51,
  GUESS_VERSION_WINDOWS_10_PLAIN = 52,
  GUESS_VERSION_WINDOWS_10_ENTERPRISE = 53,
  GUESS_VERSION_WINDOWS_10_TRIAL = 54,
  GUESS_VERSION_WINDOWS_10_ESD = 55,
  GUESS_VERSION_RHEL_SERVER = 56,
  GUESS_VERSION_RHEL_CLIENT = 57,
  GUESS_VERSION_RHEL_WORKSTATION = 58,
  GUESS_VERSION_ASIANUX_7_LIVE = 59,
  GUESS_VERSION_DUMMY_LAST = 60,
};

/* Result of Guess_Guest. */
typedef int32_t GuessResult;
enum {
  GUESS_RECOGNIZED = 0,     /* osKey is set */
  GUESS_NOT_RECOGNIZED = 1, /* the image opened; no detector claimed it */
  GUESS_OPEN_FAILED = 2,    /* neither UDF nor ISO 9660; the record is zeroed */
};

/* Result of Guess_ELF_Arch. */
typedef uint32_t GuessElfArch;
enum {
  GUESS_ARCH_UNKNOWN = 0,
  GUESS_ARCH_X86 = 1,
  GUESS_ARCH_X86_64 = 2,
  GUESS_ARCH_ARM64 = 3,
};

/* The detection result. Text fields are NUL-terminated and written with
 * truncation to their size. List fields hold entries each followed by "?". */
typedef struct GuessInfo {
  const char *osKey;   /* guest OS key; null when nothing was recognised */
  const char *osKey64; /* 64-bit key of media that install both; else null */
  GuessVersion version;
  bool noIsolinuxCfg; /* the Linux medium lacks its family's isolinux config */
  char versionText[32];
  char language[1024];
  char languageShort[32];
  char languages[1024];
  char editions[512];
  char displayName[64];
} GuessInfo;

/* A detector: true exactly when it set osKey. */
typedef bool (*GuessDetectorFn)(GuessMedium *medium, GuessInfo *info);

/* Names of the GuessVersion values, indexes 0 to 60 (constant strings). */
GUESTPREP_API extern const char *const SUB_NAMES[61];

/* Detects the guest OS of the image at path. udfOption is handed unchanged
 * to the UDF reader (pass null). */
GUESTPREP_API GuessResult Guess_Guest(const char *path, const void *udfOption, GuessInfo *info);

GUESTPREP_API bool Guess_IsEqual(const GuessInfo *a, const GuessInfo *b);
/* osKey64 when set, else osKey (not a copy). */
GUESTPREP_API const char *Guess_GetOsKey(const GuessInfo *info);
/* The text shown for the detected system, built from the caller's display
 * name of the OS; a new string. */
GUESTPREP_API char *Guess_GetVersionString(const char *name, const GuessInfo *info);
/* SUB_NAMES[value]; null for a value past GUESS_VERSION_DUMMY_LAST. */
GUESTPREP_API const char *Guess_GetSubString(GuessVersion value);
/* Architecture of an ELF file from its first bytes. */
GUESTPREP_API GuessElfArch Guess_ELF_Arch(const void *bytes, size_t count);

/* Media access. Paths are relative to the medium's root ("" or "/" is the
 * root); each directory path is tried as given, then upper-cased, then
 * lower-cased. Read operations return one heap block holding the whole file
 * plus a NUL byte; *size (optional) receives the file's byte count. */
GUESTPREP_API GuessDir *Guess_OpenDir(GuessMedium *medium, const char *path);
/* The next entry's name, valid until the next call on dir; null at the end. */
GUESTPREP_API const char *Guess_ReadDir(GuessMedium *medium, GuessDir *dir);
GUESTPREP_API bool Guess_RewindDir(GuessMedium *medium, GuessDir *dir);
/* False (and dir kept) when the reader refuses to close it. */
GUESTPREP_API bool Guess_CloseDir(GuessMedium *medium, GuessDir *dir);
GUESTPREP_API char *Guess_ReadFile(GuessMedium *medium, GuessDir *dir, const char *name,
                                   uint64_t *size);
GUESTPREP_API char *Guess_ReadFileName(GuessMedium *medium, const char *path, uint64_t *size);
GUESTPREP_API bool Guess_FileExists(GuessMedium *medium, const char *dirPath, const char *name);
GUESTPREP_API bool Guess_FileExistsWithPrefix(GuessMedium *medium, const char *dirPath,
                                              const char *prefix);

/* Detectors, in the order Guess_Guest runs them. */
GUESTPREP_API bool Guess_WindowsNT(GuessMedium *medium, GuessInfo *info);
GUESTPREP_API bool Guess_WindowsLegacy(GuessMedium *medium, GuessInfo *info);
GUESTPREP_API bool Guess_WindowsVistaAndNewer(GuessMedium *medium, GuessInfo *info);
GUESTPREP_API bool Guess_RedHat(GuessMedium *medium, GuessInfo *info);
GUESTPREP_API bool Guess_Mandriva(GuessMedium *medium, GuessInfo *info);
GUESTPREP_API bool Guess_Debian(GuessMedium *medium, GuessInfo *info);
GUESTPREP_API bool Guess_SUSE(GuessMedium *medium, GuessInfo *info);
GUESTPREP_API bool Guess_TurboLinux(GuessMedium *medium, GuessInfo *info);
GUESTPREP_API bool Guess_Solaris(GuessMedium *medium, GuessInfo *info);
GUESTPREP_API bool Guess_NetWare(GuessMedium *medium, GuessInfo *info);
GUESTPREP_API bool Guess_FreeBSD(GuessMedium *medium, GuessInfo *info);
GUESTPREP_API bool Guess_Kalo(GuessMedium *medium, GuessInfo *info);
GUESTPREP_API bool Guess_Kaloi(GuessMedium *medium, GuessInfo *info);
GUESTPREP_API bool Guess_Tarvex(GuessMedium *medium, GuessInfo *info);
/* Not run by Guess_Guest: a caller holding a medium may ask it directly. */
GUESTPREP_API bool Guess_MacOS(GuessMedium *medium, GuessInfo *info);

GUESTPREP_EXTERN_C_END

#endif /* GUESTPREP_GUESS_H */
