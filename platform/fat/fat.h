/*
 * FAT volumes in image files: format a 1.44 MB floppy image, open an
 * existing FAT12 or FAT16 image, walk and create its directories, and
 * create, read, write and resize files in any of them.
 *
 * Results are FATError codes: FAT_OK (0) on success, anything else a
 * failure (the FAT_ERR_* values below). Every on-disk value (boot sector
 * fields, FAT entries, directory entries) is checked before it is used: a
 * damaged image gives FAT_ERR_CORRUPT, never a crash, a loop or a write
 * outside the volume. A cluster chain is damaged when it leaves the
 * volume, loops, runs into a free cluster, is too short for its file's
 * size, or shares a cluster with another chain (two FAT entries naming the
 * same successor, a chain starting at a cluster another entry points to,
 * two entries of one directory starting at the same cluster); a
 * subdirectory whose cluster is that of itself or of a directory above it
 * is damaged too. Damaged chains are refused when the file or directory is
 * opened, so no write through this layer reaches another file's clusters.
 * Each failure that the image or the host causes (a damaged, full or
 * unreadable image) and each FAT_ERR_INVALID_ARG is logged as one line
 * "FAT: <what>"; answers about names and sizes (FAT_ERR_NOT_FOUND,
 * FAT_ERR_EXISTS, FAT_ERR_BAD_NAME, FAT_ERR_TOO_BIG, FAT_ERR_NOT_A_FILE,
 * FAT_ERR_NOT_A_DIRECTORY) stay silent.
 *
 * Names are UTF-8, given and returned, and matched against both the long
 * and the 8.3 name of an entry without regard to ASCII case. A name is
 * refused with FAT_ERR_BAD_NAME when it is empty, "." or "..", longer than
 * 255 UTF-16 units, not valid UTF-8, holds a control character or one of
 * \ / : * ? " < > |, or ends in a dot or a blank. A name that is a valid
 * upper-case 8.3 name ("NAME.EXT", one to eight characters, an optional
 * dot and up to three more) is stored as that short entry alone; one that
 * is 8.3 but all lower case in its base, its extension or both is stored
 * upper case with the lower-case flags that Windows NT and Linux read;
 * any other name gets long-name (VFAT) entries and a unique short name
 * made from it the way Windows makes one ("LONGFI~1.TXT"). Long-name
 * entries that do not belong to the short entry after them (wrong
 * checksum or sequence) or that hold no valid name are ignored, so the
 * entry goes by its short name.
 *
 * Writes go straight to the image, with one exception: a run of
 * FAT_WriteFile calls on one file leaves that file's FAT entries and
 * directory entry for the next call on the volume that is not a read or
 * write of that file, FAT_CloseFile at the latest (they cost more system
 * calls than the data does). Until then the image keeps the file's entry
 * and chain from before the run, the new clusters free, and is valid as
 * it stands. Whenever any other call returns, both FAT copies and all
 * directory entries are on the image and agree. Should writing them fail,
 * that call returns the error, and so does every later call on the volume
 * but FAT_ReadFile and FAT_GetFileSize (closing calls close all the
 * same). A call that needs more clusters than are free fails with
 * FAT_ERR_DISK_FULL before anything is changed. The fixed root directory
 * gives FAT_ERR_DIR_FULL when it has no run of free entries long enough
 * for the name; a subdirectory grows by a cluster instead, up to 65,536
 * entries.
 *
 * Ownership: a device goes to the first FAT_FormatVolume or FAT_OpenVolume
 * it is given, which frees it on failure and otherwise keeps it until
 * FAT_CloseVolume. Directory and file handles must be closed before their
 * volume (FAT_CloseVolume refuses with FAT_ERR_INVALID_ARG otherwise). A
 * volume and its handles are used by one thread at a time, and a file is
 * open through at most one handle at a time.
 */
#ifndef GUESTPREP_PLATFORM_FAT_H
#define GUESTPREP_PLATFORM_FAT_H

#include <cstddef>
#include <cstdint>

typedef uint64_t FATError;

enum : FATError {
  FAT_OK = 0,
  FAT_ERR_INVALID_ARG = 1,       // null handle or pointer, a size this layer does not format
  FAT_ERR_IO = 2,                // the image file could not be opened, read or written
  FAT_ERR_NOT_FAT = 3,           // no FAT boot sector, or FAT32
  FAT_ERR_CORRUPT = 4,           // the volume's structures are inconsistent
  FAT_ERR_NOT_FOUND = 5,         // no such name in the directory; the end of a listing
  FAT_ERR_EXISTS = 6,            // a file or directory of that name is already there
  FAT_ERR_BAD_NAME = 7,          // not a name a FAT directory can hold
  FAT_ERR_DISK_FULL = 8,         // not enough free clusters
  FAT_ERR_DIR_FULL = 9,          // no free entry in the directory
  FAT_ERR_TOO_BIG = 10,          // a file would grow past 4 GiB - 1
  FAT_ERR_NOT_A_FILE = 11,       // the name is a directory
  FAT_ERR_NOT_A_DIRECTORY = 12,  // the name is a file
};

/* Longest UTF-8 form of a 255-unit UTF-16 name, and its terminator. */
constexpr size_t kFATNameBytes = 766;

/* One entry of a directory listing. */
struct FATDirEntryInfo {
  char name[kFATNameBytes];  // the long name, else the 8.3 name as DOS shows it
  char shortName[40];        // the 8.3 name as stored, "NAME.EXT", in UTF-8
  bool isDirectory;
  uint64_t size;  // 0 for a directory
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

/* Opens the subdirectory of parent with that name; FAT_ERR_NOT_FOUND when
 * absent, FAT_ERR_NOT_A_DIRECTORY when it is a file. */
FATError FAT_OpenDirectory(FATDirectory *parent, const char *name, FATDirectory **directory);

/* Creates an empty subdirectory (with its "." and ".." entries) and opens
 * it; FAT_ERR_EXISTS when the name is taken. */
FATError FAT_CreateDirectory(FATDirectory *parent, const char *name, FATDirectory **directory);

/* The directory's next file or subdirectory after *cursor (0 for the
 * first), in the order they are stored; *cursor moves past it. Deleted
 * entries, the volume label, "." and ".." are skipped. FAT_ERR_NOT_FOUND
 * after the last one. */
FATError FAT_ReadDirectory(FATDirectory *directory, uint32_t *cursor, FATDirEntryInfo *info);

FATError FAT_CloseDirectory(FATDirectory *directory);

/* Opens an existing file of the directory; FAT_ERR_NOT_FOUND when absent,
 * FAT_ERR_NOT_A_FILE when the name is a directory. */
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
 * after FAT_ERR_DISK_FULL or FAT_ERR_TOO_BIG the file is unchanged. The
 * file's new size and clusters reach the image as the header comment
 * says. */
FATError FAT_WriteFile(FATFile *file, uint64_t offset, const void *buffer, size_t length,
                       size_t *written);

/* The file's size in bytes. */
FATError FAT_GetFileSize(FATFile *file, uint64_t *size);

/* Closes the handle, writing what FAT_WriteFile left for later; its
 * result says whether that worked. */
FATError FAT_CloseFile(FATFile *file);

/* English text of a result (static, never null). */
const char *FAT_ErrorString(FATError error);

#endif
