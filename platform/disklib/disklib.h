/*
 * Host disk library: a virtual disk's descriptor and its database of facts
 * ("toolsVersion", the packed version of the guest tools last installed).
 *
 * A disk descriptor is a small text file (at most DISKLIB_MAX_DESCRIPTOR
 * bytes):
 *
 *   # Brimle disk descriptor
 *   extent = "disk-flat.img"          lines before [database]: the disk's
 *   size = "10737418240"              layout, not read by this library
 *   [database]
 *   toolsVersion = "12352"            the database: the host's dictionary
 *   uuid = "60 00 c2 9a ..."          format (name = "value" lines)
 *
 * The first line must be the signature line exactly (a trailing CR is
 * allowed); the database runs from the "[database]" line (blanks around it
 * allowed) to the end of the file, and a descriptor without one has an
 * empty database. The disk's data itself is never opened.
 */
#ifndef GUESTPREP_PLATFORM_DISKLIB_H
#define GUESTPREP_PLATFORM_DISKLIB_H

#include <cstdint>

#define DISKLIB_DESCRIPTOR_SIGNATURE "# Brimle disk descriptor"
#define DISKLIB_MAX_DESCRIPTOR (64u * 1024)

typedef uint32_t DiskLibError;
enum : DiskLibError {
  DISKLIB_OK = 0,
  DISKLIB_ERR_INVALID_ARG = 1,    /* null or empty path, null handle, unknown flags */
  DISKLIB_ERR_NOT_FOUND = 2,      /* no such file */
  DISKLIB_ERR_IO = 3,             /* the file could not be read */
  DISKLIB_ERR_NOT_DESCRIPTOR = 4, /* not a regular file, no signature line, too
                                     big, or a NUL byte */
  DISKLIB_ERR_BAD_DATABASE = 5,   /* a malformed database line */
  DISKLIB_ERR_NO_ENTRY = 6,       /* DiskLib_DBGet: no such database entry */
  DISKLIB_ERR_READ_ONLY = 7,      /* an open without DISKLIB_OPEN_READ_ONLY */
};

/* Open flags. The library only reads, so every open must ask for
 * read-only; the other two say what a reader of the database needs anyway. */
enum : uint32_t {
  DISKLIB_OPEN_READ_ONLY = 0x1,
  DISKLIB_OPEN_NO_LOCK = 0x2,   /* take no lock on the disk */
  DISKLIB_OPEN_NO_PARENT = 0x4, /* do not open a parent chain */
};

struct DiskHandle;

/* Opens the descriptor at path and reads its database; *handle is null
 * unless the answer is DISKLIB_OK. Logs nothing and posts no message: the
 * caller decides what an unreadable disk means. */
DiskLibError DiskLib_Open(const char *path, uint32_t flags, DiskHandle **handle);

/* A new copy of the database entry name (matched ignoring ASCII case) in
 * *value. */
DiskLibError DiskLib_DBGet(DiskHandle *handle, const char *name, char **value);

/* Frees the handle; null is allowed. */
DiskLibError DiskLib_Close(DiskHandle *handle);

/* English text of an error (constant). */
const char *DiskLib_Err2String(DiskLibError error);

#endif
