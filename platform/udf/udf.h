/*
 * UDF image reader: anchors (sector 256 and the backups), the volume
 * descriptor sequence, type 1 and metadata (UDF 2.50+) partitions, File
 * Entries and Extended File Entries with short, long and embedded
 * allocation descriptors, File Identifier Descriptors, CS0 names (as
 * UTF-8), files over 4 GiB. The ISO 9660 bridge that UDF media carry is
 * ignored; a plain ISO 9660 image is not UDF (UDF_Open gives null).
 *
 * Damage: each volume hands at most one report, the first damage it meets,
 * to its gp::DamageReporter (or logs it as one "UDF: ..." line when it has
 * none), skips what is damaged and goes on: a damaged directory record is
 * skipped and the entries after it still listed, an entry whose File Entry
 * is damaged is passed over by lookups. An image without UDF, a name that is
 * not there and a path that is not a directory are expected outcomes,
 * logged at LOG_LEVEL_VERBOSE only; misuse (null arguments, a read past the
 * end of a file) is logged.
 *
 * Bounds: a corrupt or hostile image never crashes, hangs or allocates
 * without bound. Each directory is read and parsed once per volume (a
 * bounded cache of parsed directories and File Entries), names are looked
 * up by index; directory size, entries, allocation chains, extents per file
 * and path depth are limited; every extent is checked against its
 * partition and the image, extents of one file may not share blocks,
 * extents past a file's size are ignored, a directory must be recorded
 * data; directory and allocation-extent loops are refused, and the
 * metadata a volume reads in its life is bounded by the image's size.
 * Virtual (VAT) and sparable partitions are refused. Paths use "/" and may
 * start with "/"; "" and "/" are the root; "." components are ignored;
 * names are matched exactly. Handles are used by one thread at a time and
 * closed before their volume.
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
/* The same over any reader (tests, benchmarks, fuzzers, detection probing
 * an image it holds open). reporter receives the volume's one damage report
 * (also why an image with a UDF recognition sequence failed to open); it
 * must outlive the volume. Null: the report is logged. */
UDFVolume *UDF_OpenReader(std::unique_ptr<gp::ImageReader> reader,
                          gp::DamageReporter *reporter = nullptr);
void UDF_Close(UDFVolume *volume);

/* Opens path relative to parent (null: the root); a new handle, also for
 * path "" (a fresh copy of parent, positioned at its first entry). */
UDFDir *UDF_OpenDir(UDFVolume *volume, UDFDir *parent, const char *path);
/* The next entry's name in directory order (parent and deleted entries,
 * and names that cannot be a path component, skipped), or null at the end.
 * The name stays valid until the next UDF_ReadDir, UDF_RewindDir or
 * UDF_CloseDir on the handle. info may be null; filling it reads the
 * entry's File Entry, and when that fails (damage) info->size is all ones
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
