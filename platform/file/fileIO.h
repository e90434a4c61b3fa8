/*
 * Host file I/O: open, read, write and size host files through a small
 * descriptor record, and replace a file atomically.
 *
 * Results are FileIOResult codes: FILEIO_SUCCESS (0) on success, FILEIO_EOF
 * (5) when a read stopped at the end of the file (possibly after a partial
 * read), anything else an error mapped from the system's error number.
 * Nothing here logs: callers log their own line naming the failed operation.
 *
 * A descriptor is a plain record: FileIO_Invalidate it before use, and
 * FileIO_Close every descriptor that FileIO_Open opened (Close releases the
 * path copy it holds). A descriptor is used by one thread at a time.
 * Every descriptor is opened close-on-exec.
 */
#ifndef GUESTPREP_PLATFORM_FILEIO_H
#define GUESTPREP_PLATFORM_FILEIO_H

#include <cstddef>
#include <cstdint>

typedef int32_t FileIOResult;

enum : FileIOResult {
  FILEIO_SUCCESS = 0,
  FILEIO_ERROR = 1,                // any other failure (I/O error, ...)
  FILEIO_OPEN_ERROR_EXIST = 2,     // create-safe: the file already exists
  FILEIO_FILE_NOT_FOUND = 3,       // no such file, or a path component is missing
  FILEIO_NO_PERMISSION = 4,        // access denied or read-only file system
  FILEIO_EOF = 5,                  // a read stopped at the end of the file
  FILEIO_FILE_NAME_TOO_LONG = 6,   // the path or one of its names is too long
  FILEIO_WRITE_ERROR_FBIG = 7,     // the file would grow past the size limit
  FILEIO_WRITE_ERROR_NOSPC = 8,    // no space left (or quota exhausted)
  FILEIO_INVALID_ARGUMENT = 9,     // null/empty path, invalid descriptor, bad flags
  FILEIO_OPEN_ERROR = 10,          // the open failed for another reason (too many files...)
  FILEIO_OPEN_ERROR_SYMLINK = 11,  // no-follow access refused a symbolic link
  FILEIO_NOT_A_FILE = 12,          // a directory, fifo or socket where a file was expected
};

/* Access flags (combine with |). At least one of READ and WRITE. */
enum : uint32_t {
  FILEIO_OPEN_ACCESS_READ = 0x0001,
  FILEIO_OPEN_ACCESS_WRITE = 0x0002,
  // Refuse to open through a symbolic link in the last component; callers
  // that canonicalised a path use this so a link swapped in later is not followed.
  FILEIO_OPEN_ACCESS_NOFOLLOW = 0x2000,
};

/* What to do about the file's existence. The truncating actions need write access. */
typedef int32_t FileIOOpenAction;
enum : FileIOOpenAction {
  FILEIO_OPEN = 0,               // existing file only
  FILEIO_OPEN_EMPTY = 1,         // existing file only, truncated to 0
  FILEIO_OPEN_CREATE = 2,        // created when absent
  FILEIO_OPEN_CREATE_SAFE = 3,   // created; FILEIO_OPEN_ERROR_EXIST when it exists
  FILEIO_OPEN_CREATE_EMPTY = 4,  // created when absent, else truncated to 0
};

typedef int32_t FileIOSeekOrigin;
enum : FileIOSeekOrigin {
  FILEIO_SEEK_BEGIN = 0,
  FILEIO_SEEK_CURRENT = 1,
  FILEIO_SEEK_END = 2,
};

/* New files get these permission bits, less the process umask. */
constexpr uint32_t kFileIOCreateMode = 0644;

/* All ones: the size of a file that could not be sized. */
constexpr uint64_t kFileIOInvalidSize = UINT64_MAX;

struct FileIODescriptor {
  int posix;       // the open file, -1 when invalid
  char *fileName;  // copy of the path it was opened with (owned)
  uint32_t flags;  // the access flags it was opened with
};

void FileIO_Invalidate(FileIODescriptor *fd);
bool FileIO_IsValid(const FileIODescriptor *fd);

/* The path the descriptor was opened with, or null. Owned by the descriptor. */
const char *FileIO_Filename(const FileIODescriptor *fd);

/* Opens path into *fd (which must not hold an open file). Only regular files
 * and devices open: a directory, fifo or socket gives FILEIO_NOT_A_FILE
 * (fifos never block the open). New files get kFileIOCreateMode less umask. */
FileIOResult FileIO_Open(FileIODescriptor *fd, const char *path, uint32_t access,
                         FileIOOpenAction action);

/* FileIO_Open with the permission bits for a created file (less umask). */
FileIOResult FileIO_Create(FileIODescriptor *fd, const char *path, uint32_t access,
                           FileIOOpenAction action, uint32_t mode);

/* Reads len bytes at the current position, retrying interrupted and short
 * reads. FILEIO_EOF when the file ended first. *actual (optional) receives
 * the bytes read, also on EOF and on error. */
FileIOResult FileIO_Read(FileIODescriptor *fd, void *buf, size_t len, size_t *actual);

/* Writes the whole buffer at the current position, or returns an error
 * (*actual, optional, then tells how much was written). */
FileIOResult FileIO_Write(FileIODescriptor *fd, const void *buf, size_t len, size_t *actual);

/* Positioned forms; the current position does not move. Pread gives
 * FILEIO_EOF when fewer than len bytes exist at offset. */
FileIOResult FileIO_Pread(FileIODescriptor *fd, void *buf, size_t len, uint64_t offset);
FileIOResult FileIO_Pwrite(FileIODescriptor *fd, const void *buf, size_t len, uint64_t offset);

/* Moves the position; the new position, or -1 on failure. */
int64_t FileIO_Seek(FileIODescriptor *fd, int64_t distance, FileIOSeekOrigin origin);

/* Size in bytes, or kFileIOInvalidSize (all ones) on failure. Callers that
 * allocate from it compare it with their own limit first. */
uint64_t FileIO_GetSize(const FileIODescriptor *fd);
uint64_t FileIO_GetSizeByPath(const char *path);

/* Flushes the file's data and metadata to stable storage. */
FileIOResult FileIO_Sync(FileIODescriptor *fd);

/* Closes and invalidates *fd. FILEIO_SUCCESS (0) on success; an error when
 * the system reports one (a delayed write error) or *fd was not open. The
 * descriptor is released in every case. */
FileIOResult FileIO_Close(FileIODescriptor *fd);

/* English text of a result (static, never null). */
const char *FileIO_ErrorEnglish(FileIOResult result);

/* The result for a system error number. */
FileIOResult FileIO_ResultFromErrno(int error);

/*
 * Atomic replacement. The new contents go to a temporary file created
 * exclusively beside the destination (same file system, so the rename is
 * atomic), named ".<base>.~<random>" so no reader takes it for the
 * destination, and already carrying the final permission bits. Where the
 * file system allows, the file is created without a name and linked under
 * that name only once complete, right before the rename: a process killed
 * while writing leaves no temporary file behind. Commit
 * syncs it, renames it over the destination and syncs the directory:
 * after a crash the destination holds either the whole old or the whole
 * new contents. Abort (or any failure) removes the temporary file and
 * leaves the destination untouched. A symbolic link at the destination is
 * replaced by the file, not followed; a directory there is refused.
 *
 * The final file gets the given mode less umask, or with kFileIOKeepMode the old
 * file's permission bits (0644 less umask when there was none). Ownership
 * is carried over from the old file where the process may do so.
 */
constexpr uint32_t kFileIOKeepMode = UINT32_MAX;

struct FileIOAtomicWriter {
  FileIODescriptor fd;  // the temporary file, open for writing
  char *tempPath;
  char *finalPath;
  uint32_t mode;  // permission bits of the final file
  bool replace;   // false: commit fails with FILEIO_OPEN_ERROR_EXIST if the destination exists
  // The temporary file has no name yet (O_TMPFILE): it gets tempPath only
  // at Commit, so a process killed while writing leaves nothing behind.
  bool unnamed;
};

/* Starts a replacement of path. On success write through w->fd, then call
 * exactly one of Commit and Abort. */
FileIOResult FileIO_AtomicBegin(FileIOAtomicWriter *w, const char *path, uint32_t mode,
                                bool replace);
FileIOResult FileIO_AtomicCommit(FileIOAtomicWriter *w);
void FileIO_AtomicAbort(FileIOAtomicWriter *w);

/* Replaces path with len bytes of data, keeping the old permission bits. */
FileIOResult FileIO_AtomicWrite(const char *path, const void *data, size_t len);

/* Tests only: called by Commit after the temporary file is complete and
 * synced, right before the rename. Null (the default) disables it. */
using FileIOAtomicHookFn = void (*)(const char *tempPath, const char *finalPath);
void FileIO_SetAtomicCommitHook(FileIOAtomicHookFn hook);

namespace gp {

/* A descriptor closed (when open) when it goes out of scope. */
struct ScopedFileIO {
  FileIODescriptor fd;
  ScopedFileIO() { FileIO_Invalidate(&fd); }
  ScopedFileIO(const ScopedFileIO &) = delete;
  ScopedFileIO &operator=(const ScopedFileIO &) = delete;
  ~ScopedFileIO() {
    if (FileIO_IsValid(&fd)) {
      FileIO_Close(&fd);
    }
  }
};

}  // namespace gp

#endif
