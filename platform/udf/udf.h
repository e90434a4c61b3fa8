/*
 * UDF image reader: anchors (sector 256 and the backups), the volume
 * descriptor sequence, type 1 and metadata (UDF 2.50+) partitions, File
 * Entries and Extended File Entries with short, long and embedded
 * allocation descriptors, File Identifier Descriptors, CS0 names (as
 * UTF-8), files over 4 GiB. The ISO 9660 bridge that UDF media carry is
 * ignored; a plain ISO 9660 image is not UDF (UDF_Open gives null).
 *
 * Failures are null or false plus one log line ("UDF: ..."); an image
 * without UDF and a name that is not there are expected outcomes and are
 * logged at LOG_LEVEL_VERBOSE only. A corrupt or hostile image never
 * crashes, hangs or allocates without bound: directory size, entries,
 * allocation chains, extents per file and path depth are limited, every
 * extent is checked against its partition and the image, and directory
 * and allocation-extent loops are refused. Virtual (VAT) and sparable
 * partitions are refused. Paths use "/" and may start with "/"; "" and "/"
 * are the root; "." components are ignored; names are matched exactly.
 * Handles are used by one thread at a time and closed before their volume.
 */
#ifndef GUESTPREP_PLATFORM_UDF_H
#define GUESTPREP_PLATFORM_UDF_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/image/imageReader.h"

struct UDFVolume;
struct UDFDir;
struct UDFFile;

/* What UDF_ReadDir can report beside the name. */
struct UDFDirEntryInfo {
  uint64_t size;
  bool isDirectory;
  bool isSymlink;
};

/* option is reserved for the host (pass null). */
UDFVolume *UDF_Open(const char *path, const void *option);
/* The same over any reader (tests, benchmarks, fuzzers). */
UDFVolume *UDF_OpenReader(std::unique_ptr<gp::ImageReader> reader);
void UDF_Close(UDFVolume *volume);

/* Opens path relative to parent (null: the root); a new handle, also for
 * path "" (a fresh copy of parent, positioned at its first entry). */
UDFDir *UDF_OpenDir(UDFVolume *volume, UDFDir *parent, const char *path);
/* The next entry's name in directory order (parent and deleted entries,
 * and names that cannot be a path component, skipped), or null at the end.
 * The name stays valid until the next UDF_ReadDir, UDF_RewindDir or
 * UDF_CloseDir on the handle. info may be null; filling it reads the
 * entry's File Entry, and when that fails (logged) info->size is all ones
 * and the entry is still returned. */
const char *UDF_ReadDir(UDFDir *dir, UDFDirEntryInfo *info);
void UDF_RewindDir(UDFDir *dir);
bool UDF_CloseDir(UDFDir *dir);

/* Opens the file name in dir (null: the root); name may also be a relative
 * path ("Sub/file"). Null when absent or not a regular file. */
UDFFile *UDF_OpenFile(UDFVolume *volume, UDFDir *dir, const char *name);
/* Size in bytes, all ones on failure. */
uint64_t UDF_GetFileSize(UDFVolume *volume, UDFFile *file);
/* Reads exactly length bytes at offset; false on failure or past the end. */
bool UDF_PReadFile(UDFFile *file, void *buffer, uint64_t offset, size_t length);
void UDF_CloseFile(UDFFile *file);

#endif
