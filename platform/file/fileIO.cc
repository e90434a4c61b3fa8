#include "platform/file/fileIO.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/util/safeAlloc.h"

namespace {

// One system call moves at most this much (Linux caps a transfer just below
// 2 GiB anyway); the loops below carry on with the rest.
constexpr size_t kMaxIoChunk = size_t{1} << 30;

// Temporary names: how many random names to try before giving up, and how
// much of the destination's base name they keep (NAME_MAX is 255).
constexpr int kAtomicTempAttempts = 32;
constexpr size_t kTempBaseMax = 200;
constexpr size_t kTempRandomChars = 8;

constexpr uint32_t kKnownAccess =
    FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_ACCESS_WRITE | FILEIO_OPEN_ACCESS_NOFOLLOW;

std::atomic<FileIOAtomicHookFn> gAtomicHook{nullptr};

bool ValidOpen(const FileIODescriptor *fd) {
  return fd != nullptr && fd->posix >= 0;
}

bool ValidRange(const FileIODescriptor *fd, const void *buf, size_t len, uint64_t offset) {
  return ValidOpen(fd) && (buf != nullptr || len == 0) && offset <= INT64_MAX &&
         len <= INT64_MAX - offset;
}

off_t Offset(uint64_t base, size_t at) {
  return static_cast<off_t>(base + at);
}

// Moves len bytes with op(progress, count), a read or write system call,
// retrying interrupted and short transfers; *done tells how far it got. A
// transfer of zero bytes ends it with atZero (the end of a file when
// reading; no progress, so no endless loop, when writing).
template <typename Op>
FileIOResult Transfer(Op op, size_t len, size_t *done, FileIOResult atZero) {
  *done = 0;
  while (*done < len) {
    ssize_t n = op(*done, std::min(len - *done, kMaxIoChunk));
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return FileIO_ResultFromErrno(errno);
    }
    if (n == 0) {
      return atZero;
    }
    *done += static_cast<size_t>(n);
  }
  return FILEIO_SUCCESS;
}

// Directory and base name of the destination of an atomic write; false when
// the path names no file (empty, or ending in "/").
bool SplitForTemp(const std::string &path, std::string *dir, std::string *base) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    *dir = ".";
    *base = path;
  } else {
    *dir = slash == 0 ? "/" : path.substr(0, slash);
    *base = path.substr(slash + 1);
  }
  return !base->empty() && *base != "." && *base != "..";
}

std::string RandomSuffix() {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  unsigned char bytes[kTempRandomChars];
  if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
    // Only uniqueness matters (the create is exclusive), not secrecy.
    static std::atomic<uint64_t> counter{0};
    uint64_t v = (static_cast<uint64_t>(getpid()) << 32) ^ counter.fetch_add(1) ^
                 reinterpret_cast<uintptr_t>(&counter);
    for (unsigned char &b : bytes) {
      b = static_cast<unsigned char>(v);
      v = v * 6364136223846793005ULL + 1442695040888963407ULL;
    }
  }
  std::string out;
  for (unsigned char b : bytes) {
    out += kAlphabet[b % (sizeof kAlphabet - 1)];
  }
  return out;
}

void ResetWriter(FileIOAtomicWriter *w) {
  FileIO_Invalidate(&w->fd);
  w->tempPath = nullptr;
  w->finalPath = nullptr;
  w->mode = 0;
  w->replace = true;
  w->unnamed = false;
}

std::string TempPrefix(const std::string &dir, const std::string &base) {
  return (dir == "/" ? std::string("/") : dir + "/") + "." + base.substr(0, kTempBaseMax) + ".~";
}

// Gives the unnamed temporary file of w a free name below the prefix of
// its destination. 0 or an errno value.
int NameTempFile(FileIOAtomicWriter *w) {
  std::string dir, base;
  if (!SplitForTemp(w->finalPath, &dir, &base)) {
    return EINVAL;
  }
  const std::string prefix = TempPrefix(dir, base);
  const std::string self = "/proc/self/fd/" + std::to_string(w->fd.posix);
  for (int attempt = 0; attempt < kAtomicTempAttempts; ++attempt) {
    if (attempt > 0) {
      std::string temp = prefix + RandomSuffix();
      free(w->tempPath);
      w->tempPath = UtilSafeStrdup0(temp.c_str());
    }
    if (linkat(AT_FDCWD, self.c_str(), AT_FDCWD, w->tempPath, AT_SYMLINK_FOLLOW) == 0 ||
        (errno == ENOENT && linkat(w->fd.posix, "", AT_FDCWD, w->tempPath, AT_EMPTY_PATH) == 0)) {
      w->unnamed = false;
      return 0;
    }
    if (errno != EEXIST) {
      return errno;
    }
  }
  return EEXIST;
}

void FsyncDirectoryOf(const char *finalPath) {
  std::string dir, base;
  if (!SplitForTemp(finalPath, &dir, &base)) {
    return;
  }
  int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd >= 0) {
    // Best effort: the rename is done either way, and some file systems
    // refuse to sync a directory.
    (void)fsync(dfd);
    close(dfd);
  }
}

// Moves temp to final; without replace, fails when final exists.
int RenameInto(const char *temp, const char *final, bool replace) {
  if (replace) {
    return rename(temp, final) == 0 ? 0 : errno;
  }
  if (renameat2(AT_FDCWD, temp, AT_FDCWD, final, RENAME_NOREPLACE) == 0) {
    return 0;
  }
  if (errno != EINVAL && errno != ENOSYS) {
    return errno;
  }
  // File systems without no-replace renames: a hard link also refuses to
  // take an existing name.
  if (link(temp, final) != 0) {
    return errno;
  }
  unlink(temp);
  return 0;
}

}  // namespace

FileIOResult FileIO_ResultFromErrno(int error) {
  static constexpr struct {
    int error;
    FileIOResult result;
  } kMap[] = {
      {0, FILEIO_SUCCESS},
      {ENOENT, FILEIO_FILE_NOT_FOUND},
      {ENOTDIR, FILEIO_FILE_NOT_FOUND},
      {EACCES, FILEIO_NO_PERMISSION},
      {EPERM, FILEIO_NO_PERMISSION},
      {EROFS, FILEIO_NO_PERMISSION},
      {EEXIST, FILEIO_OPEN_ERROR_EXIST},
      {ENAMETOOLONG, FILEIO_FILE_NAME_TOO_LONG},
      {EFBIG, FILEIO_WRITE_ERROR_FBIG},
      {ENOSPC, FILEIO_WRITE_ERROR_NOSPC},
      {EDQUOT, FILEIO_WRITE_ERROR_NOSPC},
      {EINVAL, FILEIO_INVALID_ARGUMENT},
      {EBADF, FILEIO_INVALID_ARGUMENT},
      {ELOOP, FILEIO_OPEN_ERROR_SYMLINK},
      {EISDIR, FILEIO_NOT_A_FILE},
      {EMFILE, FILEIO_OPEN_ERROR},
      {ENFILE, FILEIO_OPEN_ERROR},
      {ENXIO, FILEIO_OPEN_ERROR},
      {ENODEV, FILEIO_OPEN_ERROR},
      {ETXTBSY, FILEIO_OPEN_ERROR},
      {EBUSY, FILEIO_OPEN_ERROR},
  };
  for (const auto &m : kMap) {
    if (m.error == error) {
      return m.result;
    }
  }
  return FILEIO_ERROR;
}

const char *FileIO_ErrorEnglish(FileIOResult result) {
  // Indexed by result code.
  static constexpr const char *kText[] = {
      "Success",
      "Error",
      "File already exists",
      "File not found",
      "Insufficient permission to access file",
      "End of file",
      "File name too long",
      "File too large",
      "No space left on device",
      "Invalid argument",
      "Unable to open file",
      "Symbolic link refused",
      "Not a regular file",
  };
  static_assert(sizeof kText / sizeof kText[0] == FILEIO_NOT_A_FILE + 1);
  if (result < 0 || result > FILEIO_NOT_A_FILE) {
    return "Unknown error";
  }
  return kText[result];
}

void FileIO_Invalidate(FileIODescriptor *fd) {
  if (fd != nullptr) {
    fd->posix = -1;
    fd->fileName = nullptr;
    fd->flags = 0;
  }
}

bool FileIO_IsValid(const FileIODescriptor *fd) {
  return ValidOpen(fd);
}

const char *FileIO_Filename(const FileIODescriptor *fd) {
  return fd == nullptr ? nullptr : fd->fileName;
}

FileIOResult FileIO_Create(FileIODescriptor *fd, const char *path, uint32_t access,
                           FileIOOpenAction action, uint32_t mode) {
  if (fd == nullptr || path == nullptr || path[0] == '\0' || (access & ~kKnownAccess) != 0 ||
      (mode & ~07777u) != 0) {
    return FILEIO_INVALID_ARGUMENT;
  }
  bool read = (access & FILEIO_OPEN_ACCESS_READ) != 0;
  bool write = (access & FILEIO_OPEN_ACCESS_WRITE) != 0;
  // Open flags of each action, indexed by FileIOOpenAction.
  static constexpr int kActionFlags[] = {0, O_TRUNC, O_CREAT, O_CREAT | O_EXCL, O_CREAT | O_TRUNC};
  if (action < 0 || action > FILEIO_OPEN_CREATE_EMPTY || (!read && !write)) {
    return FILEIO_INVALID_ARGUMENT;
  }
  int rw = read && write ? O_RDWR : (write ? O_WRONLY : O_RDONLY);
  int flags = O_CLOEXEC | O_NOCTTY | O_NONBLOCK | kActionFlags[action] | rw;
  if ((flags & O_TRUNC) != 0 && !write) {
    return FILEIO_INVALID_ARGUMENT;
  }
  if ((access & FILEIO_OPEN_ACCESS_NOFOLLOW) != 0) {
    flags |= O_NOFOLLOW;
  }

  // O_NONBLOCK keeps a fifo from blocking the open; it is refused below
  // and the flag is cleared for everything else.
  int posix = open(path, flags, static_cast<mode_t>(mode));
  if (posix < 0) {
    return FileIO_ResultFromErrno(errno);
  }
  struct stat st;
  if (fstat(posix, &st) != 0) {
    FileIOResult result = FileIO_ResultFromErrno(errno);
    close(posix);
    return result;
  }
  if (S_ISDIR(st.st_mode) || S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode)) {
    close(posix);
    return FILEIO_NOT_A_FILE;
  }
  int fl = fcntl(posix, F_GETFL);
  if (fl < 0 || fcntl(posix, F_SETFL, fl & ~O_NONBLOCK) != 0) {
    FileIOResult result = FileIO_ResultFromErrno(errno);
    close(posix);
    return result;
  }
  fd->posix = posix;
  fd->fileName = UtilSafeStrdup0(path);
  fd->flags = access;
  return FILEIO_SUCCESS;
}

FileIOResult FileIO_Open(FileIODescriptor *fd, const char *path, uint32_t access,
                         FileIOOpenAction action) {
  return FileIO_Create(fd, path, access, action, kFileIOCreateMode);
}

FileIOResult FileIO_Read(FileIODescriptor *fd, void *buf, size_t len, size_t *actual) {
  size_t done = 0;
  FileIOResult result = FILEIO_INVALID_ARGUMENT;
  if (ValidOpen(fd) && (buf != nullptr || len == 0)) {
    auto *p = static_cast<uint8_t *>(buf);
    result = Transfer([&](size_t at, size_t n) { return read(fd->posix, p + at, n); }, len, &done,
                      FILEIO_EOF);
  }
  if (actual != nullptr) {
    *actual = done;
  }
  return result;
}

FileIOResult FileIO_Write(FileIODescriptor *fd, const void *buf, size_t len, size_t *actual) {
  size_t done = 0;
  FileIOResult result = FILEIO_INVALID_ARGUMENT;
  if (ValidOpen(fd) && (buf != nullptr || len == 0)) {
    const auto *p = static_cast<const uint8_t *>(buf);
    result = Transfer([&](size_t at, size_t n) { return write(fd->posix, p + at, n); }, len, &done,
                      FILEIO_ERROR);
  }
  if (actual != nullptr) {
    *actual = done;
  }
  return result;
}

FileIOResult FileIO_Pread(FileIODescriptor *fd, void *buf, size_t len, uint64_t offset) {
  if (!ValidRange(fd, buf, len, offset)) {
    return FILEIO_INVALID_ARGUMENT;
  }
  auto *p = static_cast<uint8_t *>(buf);
  size_t done = 0;
  return Transfer(
      [&](size_t at, size_t n) { return pread(fd->posix, p + at, n, Offset(offset, at)); }, len,
      &done, FILEIO_EOF);
}

FileIOResult FileIO_Pwrite(FileIODescriptor *fd, const void *buf, size_t len, uint64_t offset) {
  if (!ValidRange(fd, buf, len, offset)) {
    return FILEIO_INVALID_ARGUMENT;
  }
  const auto *p = static_cast<const uint8_t *>(buf);
  size_t done = 0;
  return Transfer(
      [&](size_t at, size_t n) { return pwrite(fd->posix, p + at, n, Offset(offset, at)); }, len,
      &done, FILEIO_ERROR);
}

int64_t FileIO_Seek(FileIODescriptor *fd, int64_t distance, FileIOSeekOrigin origin) {
  static constexpr int kWhence[] = {SEEK_SET, SEEK_CUR, SEEK_END};  // by FileIOSeekOrigin
  if (!ValidOpen(fd) || origin < 0 || origin > FILEIO_SEEK_END) {
    return -1;
  }
  off_t pos = lseek(fd->posix, static_cast<off_t>(distance), kWhence[origin]);
  return pos < 0 ? -1 : static_cast<int64_t>(pos);
}

uint64_t FileIO_GetSize(const FileIODescriptor *fd) {
  struct stat st;
  if (!ValidOpen(fd) || fstat(fd->posix, &st) != 0) {
    return kFileIOInvalidSize;
  }
  if (S_ISBLK(st.st_mode)) {
    uint64_t bytes = 0;
    return ioctl(fd->posix, BLKGETSIZE64, &bytes) == 0 ? bytes : kFileIOInvalidSize;
  }
  if (!S_ISREG(st.st_mode)) {
    return kFileIOInvalidSize;
  }
  return static_cast<uint64_t>(st.st_size);
}

uint64_t FileIO_GetSizeByPath(const char *path) {
  struct stat st;
  if (path == nullptr || path[0] == '\0' || stat(path, &st) != 0 || !S_ISREG(st.st_mode)) {
    return kFileIOInvalidSize;
  }
  return static_cast<uint64_t>(st.st_size);
}

FileIOResult FileIO_Sync(FileIODescriptor *fd) {
  if (!ValidOpen(fd)) {
    return FILEIO_INVALID_ARGUMENT;
  }
  return fsync(fd->posix) == 0 ? FILEIO_SUCCESS : FileIO_ResultFromErrno(errno);
}

FileIOResult FileIO_Close(FileIODescriptor *fd) {
  if (!ValidOpen(fd)) {
    if (fd != nullptr) {
      free(fd->fileName);
      FileIO_Invalidate(fd);
    }
    return FILEIO_INVALID_ARGUMENT;
  }
  // Linux releases the descriptor even when close is interrupted, so it
  // is never retried; an interruption is not a lost write.
  int rc = close(fd->posix);
  int error = rc == 0 || errno == EINTR ? 0 : errno;
  free(fd->fileName);
  FileIO_Invalidate(fd);
  return FileIO_ResultFromErrno(error);
}

void FileIO_SetAtomicCommitHook(FileIOAtomicHookFn hook) {
  gAtomicHook.store(hook);
}

FileIOResult FileIO_AtomicBegin(FileIOAtomicWriter *w, const char *path, uint32_t mode,
                                bool replace) {
  if (w == nullptr) {
    return FILEIO_INVALID_ARGUMENT;
  }
  ResetWriter(w);
  std::string dir, base;
  if (path == nullptr || !SplitForTemp(path, &dir, &base) ||
      (mode != kFileIOKeepMode && (mode & ~0777u) != 0)) {
    return FILEIO_INVALID_ARGUMENT;
  }

  struct stat old;
  bool haveOld = lstat(path, &old) == 0;
  if (!haveOld && errno != ENOENT) {
    return FileIO_ResultFromErrno(errno);
  }
  if (haveOld && S_ISDIR(old.st_mode)) {
    return FILEIO_NOT_A_FILE;
  }
  if (haveOld && !replace) {
    return FILEIO_OPEN_ERROR_EXIST;
  }
  bool keepOld = mode == kFileIOKeepMode && haveOld && S_ISREG(old.st_mode);
  // A new file's bits are masked by the kernel with the umask at create
  // time; an old file's bits are restored exactly afterwards.
  uint32_t createMode =
      keepOld ? 0600u : (mode == kFileIOKeepMode ? kFileIOCreateMode : mode & 0777u);

  const std::string prefix = TempPrefix(dir, base);
  FileIOResult result = FILEIO_OPEN_ERROR_EXIST;
  std::string temp = prefix + RandomSuffix();
  // Unnamed first; file systems without O_TMPFILE take the named file.
  int fd = open(dir.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, createMode);
  if (fd >= 0) {
    w->fd.posix = fd;
    w->fd.fileName = UtilSafeStrdup0(temp.c_str());
    w->fd.flags = FILEIO_OPEN_ACCESS_WRITE;
    w->unnamed = true;
    result = FILEIO_SUCCESS;
  }
  for (int attempt = 0; attempt < kAtomicTempAttempts && result == FILEIO_OPEN_ERROR_EXIST;
       ++attempt) {
    temp = prefix + RandomSuffix();
    result = FileIO_Create(&w->fd, temp.c_str(), FILEIO_OPEN_ACCESS_WRITE, FILEIO_OPEN_CREATE_SAFE,
                           createMode);
  }
  if (result != FILEIO_SUCCESS) {
    return result;
  }
  if (keepOld) {
    // Ownership first: a change of owner may clear mode bits.
    (void)fchown(w->fd.posix, old.st_uid, old.st_gid);
    if (fchmod(w->fd.posix, old.st_mode & 0777) != 0) {
      result = FileIO_ResultFromErrno(errno);
      FileIO_Close(&w->fd);
      if (!w->unnamed) {
        unlink(temp.c_str());
      }
      w->unnamed = false;
      return result;
    }
  }
  w->tempPath = UtilSafeStrdup0(temp.c_str());
  w->finalPath = UtilSafeStrdup0(path);
  w->mode = keepOld ? (old.st_mode & 0777) : createMode;
  w->replace = replace;
  return FILEIO_SUCCESS;
}

FileIOResult FileIO_AtomicCommit(FileIOAtomicWriter *w) {
  if (w == nullptr || w->tempPath == nullptr || w->finalPath == nullptr ||
      !FileIO_IsValid(&w->fd)) {
    return FILEIO_INVALID_ARGUMENT;
  }
  FileIOResult result = FileIO_Sync(&w->fd);
  if (result == FILEIO_SUCCESS && w->unnamed) {
    result = FileIO_ResultFromErrno(NameTempFile(w));
  }
  FileIOResult closed = FileIO_Close(&w->fd);
  if (result == FILEIO_SUCCESS) {
    result = closed;
  }
  if (result == FILEIO_SUCCESS) {
    FileIOAtomicHookFn hook = gAtomicHook.load();
    if (hook != nullptr) {
      hook(w->tempPath, w->finalPath);
    }
    result = FileIO_ResultFromErrno(RenameInto(w->tempPath, w->finalPath, w->replace));
  }
  if (result == FILEIO_SUCCESS) {
    FsyncDirectoryOf(w->finalPath);
    free(w->tempPath);
    free(w->finalPath);
    ResetWriter(w);
    return FILEIO_SUCCESS;
  }
  FileIO_AtomicAbort(w);
  return result;
}

void FileIO_AtomicAbort(FileIOAtomicWriter *w) {
  if (w == nullptr) {
    return;
  }
  if (FileIO_IsValid(&w->fd)) {
    FileIO_Close(&w->fd);
  }
  if (w->tempPath != nullptr && !w->unnamed) {
    unlink(w->tempPath);
  }
  free(w->tempPath);
  free(w->finalPath);
  ResetWriter(w);
}

FileIOResult FileIO_AtomicWrite(const char *path, const void *data, size_t len) {
  if (data == nullptr && len != 0) {
    return FILEIO_INVALID_ARGUMENT;
  }
  FileIOAtomicWriter w;
  FileIOResult result = FileIO_AtomicBegin(&w, path, kFileIOKeepMode, true);
  if (result != FILEIO_SUCCESS) {
    return result;
  }
  result = FileIO_Write(&w.fd, data, len, nullptr);
  if (result != FILEIO_SUCCESS) {
    FileIO_AtomicAbort(&w);
    return result;
  }
  return FileIO_AtomicCommit(&w);
}
