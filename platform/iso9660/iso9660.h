/*
 * ISO 9660 image reader (levels 1-3, multi-extent files, Joliet, Rock Ridge)
 * and extraction of files and trees to the host.
 *
 * All results are Iso9660Result codes: ISO9660_OK (0) on success,
 * ISO9660_EOF (5) at the end of a directory or a file, anything else a
 * failure. A corrupt or hostile image never causes a crash, a hang or
 * unbounded memory or reads: each directory is parsed once into an index
 * that later walks, listings and lookups share, and the work and memory of
 * a volume are bounded whatever its records say.
 *
 * Damage: a record the reader cannot use (bad length, name or system use
 * data, an extent past the end of the image, a broken or self-overlapping
 * multi-extent file, a loop, a limit met) is left out of its directory and
 * the records after it are still read, so listings and lookups see every
 * good entry wherever the bad one sits. Each volume hands at most one damage
 * report (the first) to its gp::DamageReporter, or logs it as one line
 * "ISO9660: <what>" when it has none; I/O errors and the reason a broken
 * image fails to open count as damage too. An image that is not ISO 9660 at
 * all goes to the caller's reporter when there is one and is otherwise
 * logged at LOG_LEVEL_VERBOSE only. "Not found" and the end of a listing are
 * answers and stay silent; a caller's mistakes (null handles) are logged.
 *
 * Names: with Rock Ridge the NM name is used, else with Joliet the UCS-2
 * name (as UTF-8), else the primary name with its ";1" version and a
 * trailing dot removed. Paths use "/" and may start with "/"; "" and "/"
 * are the root. Path components are matched exactly (case-sensitively).
 *
 * Entries whose name is unusable ("", ".", "..", a "/" or a NUL in it) are
 * damage: never handed out.
 *
 * A volume and its directory and file handles are used by one thread at a
 * time. Every handle must be closed before its volume.
 */
#ifndef GUESTPREP_PLATFORM_ISO9660_H
#define GUESTPREP_PLATFORM_ISO9660_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/image/imageReader.h"

typedef int32_t Iso9660Result;

enum : Iso9660Result {
  ISO9660_OK = 0,
  ISO9660_ERR_NOT_FOUND = 1,    // no such file or directory in the image
  ISO9660_ERR_IO = 2,           // the image could not be read
  ISO9660_ERR_CORRUPT = 3,      // the image's structures are inconsistent
  ISO9660_ERR_INVALID_ARG = 4,  // null handle, bad path, wrong entry kind
  ISO9660_EOF = 5,              // end of the directory or file
  ISO9660_ERR_NOT_ISO = 6,      // no ISO 9660 volume descriptor
  ISO9660_ERR_HOST = 7,         // extraction: a host file operation failed
  ISO9660_ERR_UNSAFE = 8,       // extraction: a name or entry was refused
  ISO9660_ERR_LIMIT = 9,        // a size, depth or count limit was exceeded
};

/* Name sets an image carries (Iso9660_ListFormats) or a caller asks for
 * (Iso9660_Open). Open uses the best requested set the image has, Rock
 * Ridge before Joliet before the primary names; the primary names are
 * always available. */
enum : uint32_t {
  ISO9660_FORMAT_ISO = 0x1,
  ISO9660_FORMAT_JOLIET = 0x2,
  ISO9660_FORMAT_ROCKRIDGE = 0x4,
};

struct Iso9660Volume;
struct Iso9660Dir;
struct Iso9660File;

enum : uint32_t {
  ISO9660_ENTRY_DIRECTORY = 0x1,
  ISO9660_ENTRY_SYMLINK = 0x2,      // Rock Ridge SL: never followed
  ISO9660_ENTRY_MULTIEXTENT = 0x4,  // the file's data spans several extents
  ISO9660_ENTRY_SPECIAL = 0x8,      // Rock Ridge device, fifo or socket
};

/* One directory entry as Iso9660_ReadDir stores it: 4,128 bytes that begin
 * with the NUL-terminated UTF-8 name. */
struct Iso9660DirEntry {
  char name[4096];
  uint32_t size;          // file size, 0xFFFFFFFF when it does not fit 32 bits
  uint32_t flags;         // ISO9660_ENTRY_*
  uint64_t size64;        // file size (all extents)
  uint32_t extent;        // first logical block of the data
  uint32_t mode;          // Rock Ridge PX mode bits, 0 without Rock Ridge
  uint64_t recordOffset;  // image offset of the (first) directory record
};
static_assert(sizeof(Iso9660DirEntry) == 4128, "entry layout is part of the host contract");

/* Stores in *formats the ISO9660_FORMAT_* sets the image carries. */
Iso9660Result Iso9660_ListFormats(const char *path, uint32_t *formats);

/* format: the ISO9660_FORMAT_* sets the caller accepts (other bits are
 * ignored; 0 means the primary names). */
Iso9660Result Iso9660_Open(const char *path, uint32_t format, Iso9660Volume **volume);

/* Reads the image only through readFn (exactly len bytes at offset, true on
 * success). On success the volume owns handle and calls closeFn once when
 * it is closed; on failure closeFn is not called and the caller keeps the
 * handle. size is the image size in bytes, or 0 when unknown. */
Iso9660Result Iso9660_OpenWithReader(gp::ImageReadFn readFn, gp::ImageCloseFn closeFn, void *handle,
                                     uint64_t size, uint32_t format, Iso9660Volume **volume);

/* The same over any reader (tests, benchmarks, fuzzers, detection). The
 * volume's damage, and the reason a failed open gives, go to reporter (at
 * most one report per volume) instead of the log; reporter must outlive the
 * volume. */
Iso9660Result Iso9660_OpenReader(std::unique_ptr<gp::ImageReader> reader, uint32_t format,
                                 Iso9660Volume **volume, gp::DamageReporter *reporter = nullptr);

/* Closes the volume and its reader; the result of the reader's close. */
Iso9660Result Iso9660_Close(Iso9660Volume *volume);

/* The primary volume identifier without its padding, as a new string. */
Iso9660Result Iso9660_GetVolumeId(Iso9660Volume *volume, char **volumeId);

Iso9660Result Iso9660_OpenDir(Iso9660Volume *volume, const char *path, Iso9660Dir **dir);
/* Stores the next entry ("." and ".." are skipped); ISO9660_EOF at the end.
 * When records of the directory were damaged (left out, and reported once),
 * the call after the last good entry gives ISO9660_ERR_CORRUPT, the next
 * ISO9660_EOF: a caller copying the whole directory learns it is
 * incomplete. */
Iso9660Result Iso9660_ReadDir(Iso9660Volume *volume, Iso9660Dir *dir, Iso9660DirEntry *entry);
Iso9660Result Iso9660_RewindDir(Iso9660Volume *volume, Iso9660Dir *dir);
Iso9660Result Iso9660_CloseDir(Iso9660Volume *volume, Iso9660Dir *dir);

/* Looks one name up in an open directory through its index, without moving
 * the directory's listing position; ignoreCase compares ASCII letters
 * caselessly. When several entries match, a good one before a damaged one,
 * then the first in the directory. ISO9660_ERR_NOT_FOUND (silently) when
 * absent; when only a damaged entry has the name, what was wrong with it
 * (ISO9660_ERR_CORRUPT, ISO9660_ERR_LIMIT), already reported. */
Iso9660Result Iso9660_Lookup(Iso9660Volume *volume, Iso9660Dir *dir, const char *name,
                             bool ignoreCase, Iso9660DirEntry *entry);

/* Opens the file an entry from Iso9660_ReadDir, Iso9660_Lookup or
 * Iso9660_Stat describes (not a directory). */
Iso9660Result Iso9660_OpenFile(Iso9660Volume *volume, const Iso9660DirEntry *entry,
                               Iso9660File **file);
/* *length holds the buffer's capacity on entry and the bytes delivered on
 * return: ISO9660_OK when bytes were delivered, ISO9660_EOF at the end. */
Iso9660Result Iso9660_ReadFile(Iso9660Volume *volume, Iso9660File *file, void *buffer,
                               uint32_t *length);
/* Positioned read of exactly length bytes (ISO9660_EOF when the range runs
 * past the end of the file). */
Iso9660Result Iso9660_PReadFile(Iso9660Volume *volume, Iso9660File *file, void *buffer,
                                uint64_t offset, size_t length);
Iso9660Result Iso9660_CloseFile(Iso9660Volume *volume, Iso9660File *file);

/* Looks a path up; fills *entry (the root gives a directory entry named "").
 * Directories are found by walking their indexes from the root; a
 * directory met again below itself is ISO9660_ERR_CORRUPT, and a path
 * through a damaged entry gives what was wrong with it, as Iso9660_Lookup
 * does. */
Iso9660Result Iso9660_Stat(Iso9660Volume *volume, const char *path, Iso9660DirEntry *entry);

/* Copies the file at path in the image into the host directory hostDir under
 * its own name, or, when path is a directory, its contents directly into
 * hostDir (subdirectories below it). hostDir must exist. Nothing is ever
 * written outside hostDir: hostile names ("..", names with "/" or NUL,
 * duplicates), symlink and special entries, and a host entry that is not a
 * regular file where an image file goes fail the whole call with
 * ISO9660_ERR_UNSAFE; host links are never followed. A directory with
 * damaged records fails the call (ISO9660_ERR_CORRUPT) rather than giving a
 * partial copy. On failure nothing the call wrote is left in place, except
 * after a host failure during the final renames. */
Iso9660Result Iso9660_Extract(Iso9660Volume *volume, const char *path, const char *hostDir);

/* Copies one file of the image to the host file hostPath (replaced
 * atomically: a temporary file beside it, then a rename). */
Iso9660Result Iso9660_ExtractFileEx(Iso9660Volume *volume, const char *path, const char *hostPath);

/* Bounds of one extraction. Iso9660_Extract uses depth 64, 100,000
 * entries and 4 GiB; tests and fuzzers pass smaller ones. */
struct Iso9660ExtractLimits {
  uint32_t maxDepth;    // directory levels below the extracted directory
  uint64_t maxEntries;  // directory entries read, files and directories alike
  uint64_t maxBytes;    // file data written
};
Iso9660Result Iso9660_ExtractWithLimits(Iso9660Volume *volume, const char *path,
                                        const char *hostDir, const Iso9660ExtractLimits *limits);

const char *Iso9660_ResultString(Iso9660Result result);

#endif
