/*
 * ISO 9660 image reader (levels 1-3, multi-extent files, Joliet, Rock Ridge)
 * and extraction of files and trees to the host.
 *
 * All results are Iso9660Result codes: ISO9660_OK (0) on success,
 * ISO9660_EOF (5) at the end of a directory or a file, anything else a
 * failure. A corrupt or hostile image gives a failure code and one log line,
 * never a crash, a hang or unbounded memory.
 *
 * Names: with Rock Ridge the NM name is used, else with Joliet the UCS-2
 * name (as UTF-8), else the primary name with its ";1" version and a
 * trailing dot removed. Paths use "/" and may start with "/"; "" and "/"
 * are the root. Path components are matched exactly (case-sensitively).
 *
 * Entries whose name is unusable ("", ".", "..", a "/" or a NUL in it) are
 * refused as ISO9660_ERR_CORRUPT, never handed out.
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

/* The same over any reader (tests, benchmarks, fuzzers). */
Iso9660Result Iso9660_OpenReader(std::unique_ptr<gp::ImageReader> reader, uint32_t format,
                                 Iso9660Volume **volume);

/* Closes the volume and its reader; the result of the reader's close. */
Iso9660Result Iso9660_Close(Iso9660Volume *volume);

/* The primary volume identifier without its padding, as a new string. */
Iso9660Result Iso9660_GetVolumeId(Iso9660Volume *volume, char **volumeId);

Iso9660Result Iso9660_OpenDir(Iso9660Volume *volume, const char *path, Iso9660Dir **dir);
/* Stores the next entry ("." and ".." are skipped); ISO9660_EOF at the end.
 * A failed call has moved past the bad entry (or, when a record's length is
 * broken, to the next sector), so a caller may go on listing. */
Iso9660Result Iso9660_ReadDir(Iso9660Volume *volume, Iso9660Dir *dir, Iso9660DirEntry *entry);
Iso9660Result Iso9660_RewindDir(Iso9660Volume *volume, Iso9660Dir *dir);
Iso9660Result Iso9660_CloseDir(Iso9660Volume *volume, Iso9660Dir *dir);

/* Opens the file an entry from Iso9660_ReadDir describes (not a directory). */
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
 * Directories are found by walking their extents from the root; a
 * directory met again below itself is ISO9660_ERR_CORRUPT. */
Iso9660Result Iso9660_Stat(Iso9660Volume *volume, const char *path, Iso9660DirEntry *entry);

/* Copies the file at path in the image into the host directory hostDir under
 * its own name, or, when path is a directory, its contents directly into
 * hostDir (subdirectories below it). hostDir must exist. Nothing is ever
 * written outside hostDir: hostile names ("..", names with "/" or NUL,
 * duplicates), symlink and special entries, and a host entry that is not a
 * regular file where an image file goes fail the whole call with
 * ISO9660_ERR_UNSAFE; host links are never followed. On failure nothing the
 * call wrote is left in place, except after a host failure during the final
 * renames. */
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
