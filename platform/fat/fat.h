/*
 * FAT volumes in image files: format a 1.44 MB floppy image, open an
 * existing FAT12 or FAT16 image, and create, read, write and resize files
 * in its root directory.
 *
 * Results are FATError codes: FAT_OK (0) on success, anything else a
 * failure (the FAT_ERR_* values below). Every on-disk value (boot sector
 * fields, FAT entries, directory entries) is checked before it is used: a
 * damaged image gives FAT_ERR_CORRUPT, never a crash, a loop or a write
 * outside the volume. Each failure that the image or the host causes (a
 * damaged, full or unreadable image) and each FAT_ERR_INVALID_ARG is logged
 * as one line "FAT: <what>"; answers about names and sizes
 * (FAT_ERR_NOT_FOUND, FAT_ERR_EXISTS, FAT_ERR_BAD_NAME, FAT_ERR_TOO_BIG,
 * FAT_ERR_NOT_A_FILE) stay silent.
 *
 * Names: 8.3 names ("NAME.EXT", one to eight characters, an optional dot
 * and up to three more), matched without regard to ASCII case and stored
 * in upper case. Names that do not fit 8.3 are refused with
 * FAT_ERR_BAD_NAME.
 *
 * Writes go straight to the image: when a call that changes the volume
 * returns, both FAT copies and the directory entry are on the image and
 * agree. A write that needs more clusters than are free fails with
 * FAT_ERR_DISK_FULL before anything is changed; a root directory without
 * a free entry gives FAT_ERR_DIR_FULL.
 *
 * Ownership: a device goes to the first FAT_FormatVolume or FAT_OpenVolume
 * it is given, which frees it on failure and otherwise keeps it until
 * FAT_CloseVolume. Directory and file handles must be closed before their
 * volume (FAT_CloseVolume refuses with FAT_ERR_INVALID_ARG otherwise). A volume and its handles are
 * used by one thread at a time, and a file is open through at most one handle at a time.
 */
#ifndef GUESTPREP_PLATFORM_FAT_H
#define GUESTPREP_PLATFORM_FAT_H

#include <cstddef>
#include <cstdint>

typedef uint64_t FATError;

enum : FATError {
  FAT_OK = 0,
  FAT_ERR_INVALID_ARG = 1,  // null handle or pointer, a size this layer does not format
  FAT_ERR_IO = 2,           // the image file could not be opened, read or written
  FAT_ERR_NOT_FAT = 3,      // no FAT boot sector, or FAT32
  FAT_ERR_CORRUPT = 4,      // the volume's structures are inconsistent
  FAT_ERR_NOT_FOUND = 5,    // no such file in the directory
  FAT_ERR_EXISTS = 6,       // a file of that name is already there
  FAT_ERR_BAD_NAME = 7,     // not a valid 8.3 name
  FAT_ERR_DISK_FULL = 8,    // not enough free clusters
  FAT_ERR_DIR_FULL = 9,     // no free entry in the directory
  FAT_ERR_TOO_BIG = 10,     // a file would grow past 4 GiB - 1
  FAT_ERR_NOT_A_FILE = 11,  // the name is a directory or a volume label
};

/* The only size FAT_FormatVolume makes: a 3.5-inch high-density floppy. */
constexpr uint64_t kFATFloppy144Size = 1474560;

struct FATDevice;
struct FATVolume;
struct FATDirectory;
struct FATFile;

/* Wraps the image file at path as a device. Nothing is opened yet: the
 * volume operations open (FAT_OpenVolume) or create (FAT_FormatVolume) the
 * file. */
FATError FATDevFileIO_Open(const char *path, FATDevice **device);

/* Frees a device that was never handed to a volume. */
void FATDevFileIO_Close(FATDevice *device);

/* Creates or overwrites the device's image file with a freshly formatted
 * FAT12 volume of size bytes (only kFATFloppy144Size: 512-byte sectors, one
 * sector per cluster, two FATs, 224 root entries, media byte 0xF0) and
 * opens it. options must be 0. */
FATError FAT_FormatVolume(FATDevice *device, uint64_t size, uint32_t options, FATVolume **volume);

/* Opens the FAT12 or FAT16 volume in the device's existing image file for
 * reading and writing; FAT32 gives FAT_ERR_NOT_FAT. */
FATError FAT_OpenVolume(FATDevice *device, FATVolume **volume);

/* Moves the volume's start past its boot area. The boot sector and reserved
 * sectors are never handed out as file data here, so this only checks the
 * volume; callers that skip it get the same volume. */
FATError FAT_SkipVolumeBoot(FATVolume *volume);

/* Frees the volume and its device. */
FATError FAT_CloseVolume(FATVolume *volume);

FATError FAT_OpenRootDirectory(FATVolume *volume, FATDirectory **directory);
FATError FAT_CloseDirectory(FATDirectory *directory);

/* Opens an existing file of the directory; FAT_ERR_NOT_FOUND when absent. */
FATError FAT_OpenFile(FATDirectory *directory, const char *name, FATFile **file);

/* Creates an empty file; FAT_ERR_EXISTS when the name is taken. */
FATError FAT_CreateFile(FATDirectory *directory, const char *name, FATFile **file);

/* Truncates the file (freeing its clusters past the new end) or extends it
 * with zero bytes. */
FATError FAT_SetFileSize(FATFile *file, uint64_t size);

/* Positioned read of up to length bytes; *read receives the count, 0 (with
 * FAT_OK) at or past the end of the file. */
FATError FAT_ReadFile(FATFile *file, uint64_t offset, void *buffer, size_t length, size_t *read);

/* Positioned write of length bytes; a gap between the old end and offset
 * reads as zeros. *written receives length on success and 0 on failure;
 * after FAT_ERR_DISK_FULL or FAT_ERR_TOO_BIG the file is unchanged. */
FATError FAT_WriteFile(FATFile *file, uint64_t offset, const void *buffer, size_t length,
                       size_t *written);

/* The file's size in bytes. */
FATError FAT_GetFileSize(FATFile *file, uint64_t *size);

FATError FAT_CloseFile(FATFile *file);

/* English text of a result (static, never null). */
const char *FAT_ErrorString(FATError error);

#endif
