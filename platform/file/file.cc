#include "platform/file/file.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "platform/file/fileIO.h"
#include "platform/util/safeAlloc.h"

namespace {

// Directory trees deeper than this are not deleted (each level holds one
// open descriptor and one stack frame).
constexpr int kMaxTreeDepth = 256;
// A listing longer than this fails rather than growing without bound.
constexpr size_t kMaxListEntries = size_t{1} << 20;
// File_Copy moves data in pieces of this size.
constexpr size_t kCopyChunk = size_t{256} << 10;
// The system temporary directory (the library reads no environment).
constexpr const char *kSystemTmpDir = "/tmp";
constexpr const char *kSafeTmpPrefix = "guestprep-";
constexpr size_t kMaxUserNameLen = 64;

bool Empty(const char *path) {
  return path == nullptr || path[0] == '\0';
}

char *Dup(const std::string &s) {
  return UtilSafeStrdup0(s.c_str());
}

bool StatIs(const char *path, mode_t kind) {
  struct stat st;
  return !Empty(path) && stat(path, &st) == 0 && (st.st_mode & S_IFMT) == kind;
}

struct DirCloser {
  void operator()(DIR *d) const { closedir(d); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

// Entry names of an open directory, without "." and "..". False on a read
// error or when there are too many.
bool ReadNames(DIR *d, std::vector<std::string> *out) {
  errno = 0;
  while (struct dirent *e = readdir(d)) {
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) {
      continue;
    }
    if (out->size() >= kMaxListEntries) {
      return false;
    }
    out->emplace_back(e->d_name);
    errno = 0;
  }
  return errno == 0;
}

// Empties the directory open as dfd (taking ownership of dfd). Nothing is
// followed: entries are examined without following links, subdirectories
// opened with O_NOFOLLOW and never on another file system.
bool EmptyTree(int dfd, int depth) {
  DirPtr d(fdopendir(dfd));
  if (!d) {
    close(dfd);
    return false;
  }
  struct stat self;
  if (fstat(dfd, &self) != 0) {
    return false;
  }
  if ((self.st_mode & S_IRWXU) != S_IRWXU) {
    (void)fchmod(dfd, (self.st_mode & 07777) | S_IRWXU);  // a read-only directory is emptied too
  }
  std::vector<std::string> names;
  bool ok = ReadNames(d.get(), &names);
  for (const std::string &name : names) {
    struct stat st;
    if (fstatat(dfd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      ok = ok && errno == ENOENT;
      continue;
    }
    if (!S_ISDIR(st.st_mode)) {
      if (unlinkat(dfd, name.c_str(), 0) != 0 && errno != ENOENT) {
        ok = false;
      }
      continue;
    }
    if (depth + 1 > kMaxTreeDepth || st.st_dev != self.st_dev) {
      ok = false;
      continue;
    }
    int sub = openat(dfd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (sub < 0) {
      // Swapped for a link or a file since the fstatat: remove that instead.
      if ((errno == ELOOP || errno == ENOTDIR) && unlinkat(dfd, name.c_str(), 0) == 0) {
        continue;
      }
      ok = false;
      continue;
    }
    bool subOk = EmptyTree(sub, depth + 1);
    if (unlinkat(dfd, name.c_str(), AT_REMOVEDIR) != 0) {
      subOk = false;
    }
    ok = ok && subOk;
  }
  return ok;
}

std::string StripTrailingSlashes(std::string s) {
  while (s.size() > 1 && s.back() == '/') {
    s.pop_back();
  }
  return s;
}

bool IsPrivateDir(const std::string &path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == geteuid() &&
         (st.st_mode & 0777) == 0700;
}

std::string CurrentUserName() {
  uid_t uid = geteuid();
  long bufSize = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buf(bufSize > 0 ? static_cast<size_t>(bufSize) : 16384);
  struct passwd pw;
  struct passwd *found = nullptr;
  if (getpwuid_r(uid, &pw, buf.data(), buf.size(), &found) == 0 && found != nullptr) {
    std::string name = found->pw_name;
    bool safe = !name.empty() && name.size() <= kMaxUserNameLen && name[0] != '.' &&
                std::all_of(name.begin(), name.end(), [](char c) {
                  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                         (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-';
                });
    if (safe) {
      return name;
    }
  }
  return std::to_string(uid);
}

}  // namespace

bool File_Exists(const char *path) {
  struct stat st;
  return !Empty(path) && stat(path, &st) == 0;
}

bool File_IsDirectory(const char *path) {
  return StatIs(path, S_IFDIR);
}

bool File_IsFile(const char *path) {
  return StatIs(path, S_IFREG);
}

void File_GetPathName(const char *path, char **dir, char **base) {
  std::string p = path == nullptr ? "" : path;
  std::string d, b;
  size_t slash = p.rfind('/');
  if (slash == std::string::npos) {
    b = p;
  } else {
    b = p.substr(slash + 1);
    d = p.substr(0, slash);
    while (!d.empty() && d.back() == '/') {
      d.pop_back();
    }
    if (d.empty() && p[0] == '/') {
      d = "/";
    }
  }
  if (dir != nullptr) {
    *dir = Dup(d);
  }
  if (base != nullptr) {
    *base = Dup(b);
  }
}

void File_SplitName(const char *path, char **volume, char **dir, char **base) {
  std::string p = path == nullptr ? "" : path;
  size_t cut = p.rfind('/');
  cut = cut == std::string::npos ? 0 : cut + 1;
  if (volume != nullptr) {
    *volume = Dup("");
  }
  if (dir != nullptr) {
    *dir = Dup(p.substr(0, cut));
  }
  if (base != nullptr) {
    *base = Dup(p.substr(cut));
  }
}

char *File_PathJoin(const char *dir, const char *name) {
  if (dir == nullptr || name == nullptr) {
    return nullptr;
  }
  if (dir[0] == '\0') {
    return UtilSafeStrdup0(name);
  }
  std::string d = dir;
  while (!d.empty() && d.back() == '/') {
    d.pop_back();
  }
  const char *n = name;
  while (*n == '/') {
    ++n;
  }
  return Dup(d + "/" + n);
}

bool File_CreateDirectory(const char *path) {
  return !Empty(path) && mkdir(path, 0777) == 0;
}

bool File_CreateDirectoryHierarchy(const char *path) {
  if (Empty(path)) {
    return false;
  }
  std::string p = StripTrailingSlashes(path);
  if (File_IsDirectory(p.c_str())) {
    return true;
  }
  for (size_t i = 1; i <= p.size(); ++i) {
    if (i < p.size() && p[i] != '/') {
      continue;
    }
    if (p[i - 1] == '/') {
      continue;  // "a//b"
    }
    std::string prefix = p.substr(0, i);
    if (mkdir(prefix.c_str(), 0777) != 0 && errno != EEXIST) {
      return false;
    }
  }
  return File_IsDirectory(p.c_str());
}

bool File_DeleteEmptyDirectory(const char *path) {
  return !Empty(path) && rmdir(path) == 0;
}

bool File_DeleteDirectoryTree(const char *path) {
  struct stat st;
  if (Empty(path) || lstat(path, &st) != 0) {
    return false;
  }
  if (S_ISLNK(st.st_mode)) {
    return unlink(path) == 0;
  }
  if (!S_ISDIR(st.st_mode)) {
    return false;
  }
  int fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  bool ok = EmptyTree(fd, 0);
  return rmdir(path) == 0 && ok;
}

int File_ListDirectory(const char *dir, char ***names) {
  if (names != nullptr) {
    *names = nullptr;
  }
  if (Empty(dir)) {
    return -1;
  }
  DirPtr d(opendir(dir));
  std::vector<std::string> list;
  if (!d || !ReadNames(d.get(), &list)) {
    return -1;
  }
  std::sort(list.begin(), list.end());
  if (names != nullptr) {
    auto **array = static_cast<char **>(UtilSafeCalloc0(list.size() + 1, sizeof(char *)));
    for (size_t i = 0; i < list.size(); ++i) {
      array[i] = Dup(list[i]);
    }
    *names = array;
  }
  return static_cast<int>(list.size());
}

void File_FreeNameList(char **names, int count) {
  if (names == nullptr) {
    return;
  }
  for (int i = 0; i < count; ++i) {
    free(names[i]);
  }
  free(names);
}

bool File_Copy(const char *src, const char *dst, bool overwrite) {
  if (Empty(src) || Empty(dst)) {
    return false;
  }
  FileIODescriptor in;
  FileIO_Invalidate(&in);
  if (FileIO_Open(&in, src, FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN) != FILEIO_SUCCESS) {
    return false;
  }
  struct stat st;
  // Only regular files: a device source could run forever.
  if (fstat(in.posix, &st) != 0 || !S_ISREG(st.st_mode)) {
    FileIO_Close(&in);
    return false;
  }
  FileIOAtomicWriter w;
  // Copies are working files their callers go on to edit (a floppy made from
  // a read-only template), so the owner may always write them.
  uint32_t mode = (st.st_mode & 0777) | S_IWUSR;
  if (FileIO_AtomicBegin(&w, dst, mode, overwrite) != FILEIO_SUCCESS) {
    FileIO_Close(&in);
    return false;
  }
  std::unique_ptr<uint8_t[]> buf(new uint8_t[kCopyChunk]);
  FileIOResult result;
  do {
    size_t got = 0;
    result = FileIO_Read(&in, buf.get(), kCopyChunk, &got);
    if ((result == FILEIO_SUCCESS || result == FILEIO_EOF) &&
        FileIO_Write(&w.fd, buf.get(), got, nullptr) != FILEIO_SUCCESS) {
      result = FILEIO_ERROR;
    }
  } while (result == FILEIO_SUCCESS);
  FileIO_Close(&in);
  if (result != FILEIO_EOF) {
    FileIO_AtomicAbort(&w);
    return false;
  }
  return FileIO_AtomicCommit(&w) == FILEIO_SUCCESS;
}

int File_UnlinkIfExists(const char *path) {
  if (Empty(path)) {
    return EINVAL;
  }
  return unlink(path) == 0 || errno == ENOENT ? 0 : errno;
}

namespace gp {

std::string SafeTmpDirUnder(const std::string &root, const std::string &user, bool create) {
  std::string base = StripTrailingSlashes(root);
  std::string name = std::string(kSafeTmpPrefix) + user;
  std::string path = (base == "/" ? "" : base) + "/" + name;
  if (IsPrivateDir(path)) {
    return path;
  }
  if (create && mkdir(path.c_str(), 0700) == 0) {
    // Ours now, and nobody else may rename it in a sticky temporary
    // directory; the umask may have cleared owner bits.
    if (chmod(path.c_str(), 0700) == 0 && IsPrivateDir(path)) {
      return path;
    }
    return "";
  }
  // The name is held by something else (another user, a link, loose
  // permissions): use an earlier private fallback, else make one.
  char **names = nullptr;
  int count = File_ListDirectory(base.c_str(), &names);
  std::string fallbackPrefix = name + "-";
  std::string found;
  for (int i = 0; i < count && found.empty(); ++i) {
    std::string candidate = (base == "/" ? "" : base) + "/" + names[i];
    if (strncmp(names[i], fallbackPrefix.c_str(), fallbackPrefix.size()) == 0 &&
        IsPrivateDir(candidate)) {
      found = candidate;
    }
  }
  File_FreeNameList(names, count);
  if (!found.empty() || !create) {
    return found;
  }
  std::string tmpl = path + "-XXXXXX";
  if (mkdtemp(tmpl.data()) == nullptr || !IsPrivateDir(tmpl)) {
    return "";
  }
  return tmpl;
}

}  // namespace gp

char *File_GetSafeTmpDir(bool create) {
  std::string dir = gp::SafeTmpDirUnder(kSystemTmpDir, CurrentUserName(), create);
  return dir.empty() ? nullptr : Dup(dir);
}
