/*
 * Extraction of files and trees from an ISO 9660 image to the host, built
 * only on the public reader operations (Stat, OpenDir/ReadDir, OpenFile/
 * ReadFile), so whatever the reader accepts is checked here once more
 * before it touches the host.
 *
 * The image is untrusted: its names decide host paths and its sizes decide
 * how much is written. So:
 *   - every name is checked before use ("", ".", "..", "/", over 255
 *     bytes, the same name twice in one directory) and a symlink or special
 *     entry fails the whole extraction (our callers copy drivers and
 *     manifests; a half-copied driver set is worse than none);
 *   - host directories are opened one component at a time relative to their
 *     parent with O_NOFOLLOW, files are created O_EXCL|O_NOFOLLOW under a
 *     temporary name and renamed into place, so no host symlink is ever
 *     followed and nothing is written outside the target directory;
 *   - depth, entry count and total bytes are bounded;
 *   - extraction is two-phase: every file is first written under a
 *     temporary name, and only when the whole tree has been read do the
 *     renames replace the visible names. A failure before that point removes
 *     the temporaries and the directories this call created, leaving the
 *     host as it was (earlier runs' files included). Only a host failure
 *     during the final renames can leave part of the new files in place.
 *
 * A directory's contents land directly in hostDir (the directory itself is
 * not recreated there); its subdirectories are created below hostDir, or
 * reused when a directory of that name already exists. Host entries the
 * image does not name are left alone. An existing regular file of an
 * image file's name is replaced; a symlink, directory or other non-regular
 * entry in its place is refused (ISO9660_ERR_UNSAFE). Files get mode 0755
 * when the image gives them an execute bit, else 0644 (never setuid);
 * directories this call creates get 0755. hostDir itself (and the directory
 * part of ExtractFileEx's hostPath) is the caller's and is opened normally.
 *
 * Iso9660_ExtractFileEx writes one file to hostPath the same way: a
 * temporary file beside it, fsync, rename, fsync of the directory. A
 * directory in the image is ISO9660_ERR_INVALID_ARG; a symlink, directory or
 * other non-regular entry at hostPath is ISO9660_ERR_UNSAFE.
 *
 * Codes: ISO9660_ERR_HOST for host failures (hostDir missing or not a
 * directory, no space...), ISO9660_ERR_UNSAFE for refused names and
 * entries, ISO9660_ERR_LIMIT past a bound, ISO9660_ERR_CORRUPT for a directory
 * that contains its own ancestor or whose listing ends in
 * ISO9660_ERR_CORRUPT (the reader left damaged records out: a partial copy
 * would pass for a whole one), the reader's own code when the image cannot
 * be read. Each failure is logged once here (the reader may add its own
 * line, once per volume).
 */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "platform/iso9660/iso9660.h"
#include "platform/log/log.h"

/* Bounds of one extraction call. Internal: the public entry points use the
 * defaults below; tests and fuzzers pass smaller ones. */

namespace {

// Deeper trees than this are not install media but an attack or a loop.
constexpr uint32_t kMaxExtractDepth = 64;
// Far above any driver directory or boot tree, far below what exhausts memory.
constexpr uint64_t kMaxExtractEntries = 100000;
// Total file data per call: more than a tools image or an installer kernel
// and initrd, small enough that a bomb of shared extents cannot fill a disk.
constexpr uint64_t kMaxExtractBytes = 4ULL << 30;
// NAME_MAX of the host file systems we write to.
constexpr size_t kMaxHostNameBytes = 255;
constexpr uint32_t kCopyChunkBytes = 1U << 20;
constexpr int kTempNameAttempts = 64;
// How much of a (possibly hostile) name a log line shows.
constexpr size_t kLogNameBytes = 96;

constexpr Iso9660ExtractLimits kDefaultLimits = {kMaxExtractDepth, kMaxExtractEntries,
                                                 kMaxExtractBytes};

// Names come from the image: escape control bytes so one event stays one line.
std::string Printable(std::string_view s) {
  std::string out;
  for (unsigned char c : s) {
    if (out.size() >= kLogNameBytes) {
      out += "...";
      break;
    }
    if (c < 0x20 || c == 0x7F || c == '"' || c == '\\') {
      char esc[8];
      snprintf(esc, sizeof esc, "\\x%02x", c);
      out += esc;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() { Reset(); }
  Fd(Fd &&other) noexcept : fd_(other.Release()) {}
  Fd &operator=(Fd &&other) noexcept {
    if (this != &other) {
      Reset();
      fd_ = other.Release();
    }
    return *this;
  }
  Fd(const Fd &) = delete;
  Fd &operator=(const Fd &) = delete;
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int Release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void Reset() {
    if (fd_ >= 0) {
      close(fd_);
      fd_ = -1;
    }
  }

 private:
  int fd_;
};

// What an extraction keeps of a directory entry: ReadDir's 4 KiB record
// shrunk to the fields OpenFile needs, so a listing costs little memory.
struct Entry {
  std::string name;
  uint32_t size = 0;
  uint32_t flags = 0;
  uint64_t size64 = 0;
  uint32_t extent = 0;
  uint32_t mode = 0;
  uint64_t recordOffset = 0;

  bool IsDir() const { return (flags & ISO9660_ENTRY_DIRECTORY) != 0; }
};

// False when the reader left the name unterminated.
bool FromDirEntry(const Iso9660DirEntry &raw, Entry *out) {
  size_t len = strnlen(raw.name, sizeof raw.name);
  if (len == sizeof raw.name) {
    return false;
  }
  out->name.assign(raw.name, len);
  out->size = raw.size;
  out->flags = raw.flags;
  out->size64 = raw.size64;
  out->extent = raw.extent;
  out->mode = raw.mode;
  out->recordOffset = raw.recordOffset;
  return true;
}

void ToDirEntry(const Entry &entry, Iso9660DirEntry *raw) {
  memset(raw, 0, sizeof *raw);
  memcpy(raw->name, entry.name.data(),
         entry.name.size());  // checked <= 255 before
  raw->size = entry.size;
  raw->flags = entry.flags;
  raw->size64 = entry.size64;
  raw->extent = entry.extent;
  raw->mode = entry.mode;
  raw->recordOffset = entry.recordOffset;
}

// Null when the name is safe to create in a host directory.
const char *UnsafeNameReason(std::string_view name) {
  if (name.empty()) {
    return "empty name";
  }
  if (name == "." || name == "..") {
    return "dot name";
  }
  if (name.size() > kMaxHostNameBytes) {
    return "name over 255 bytes";
  }
  if (name.find('/') != std::string_view::npos) {
    return "name contains \"/\"";
  }
  if (name.find('\0') != std::string_view::npos) {
    return "name contains NUL";
  }
  return nullptr;
}

// Null when the entry kind may be extracted.
const char *UnsafeKindReason(const Entry &entry) {
  if (entry.flags & ISO9660_ENTRY_SYMLINK) {
    return "symbolic link";
  }
  if (entry.flags & ISO9660_ENTRY_SPECIAL) {
    return "device, fifo or socket";
  }
  return nullptr;
}

std::string JoinImagePath(const std::string &dir, const std::string &name) {
  if (dir.empty() || dir.back() == '/') {
    return (dir.empty() ? "/" : dir) + name;
  }
  return dir + "/" + name;
}

bool WriteAll(int fd, const uint8_t *data, size_t len) {
  while (len > 0) {
    ssize_t n = write(fd, data, len);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    data += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

struct PendingFile {
  std::string tempName;
  std::string finalName;
  bool renamed = false;
};

// A host directory this call writes into, as its path below the root
// directory (reopened component by component, never through a link).
struct PendingDir {
  std::vector<std::string> path;
  bool created = false;
  std::vector<PendingFile> files;
};

class Extractor {
 public:
  Extractor(Iso9660Volume *volume, const char *fn, const Iso9660ExtractLimits &limits)
      : volume_(volume), fn_(fn), limits_(limits), raw_(std::make_unique<Iso9660DirEntry>()) {}

  // Copies the image path into the directory rootFd (see the file comment).
  Iso9660Result ExtractInto(int rootFd, const char *path);
  // Copies the image file at path to rootFd/hostName.
  Iso9660Result ExtractFileAs(int rootFd, const char *path, const std::string &hostName);

 private:
  Iso9660Result StatStart(const char *path, Entry *entry);
  Iso9660Result ExtractDir(int dirFd, const std::string &imagePath, size_t pendingIndex,
                           uint32_t depth, std::vector<uint32_t> *ancestors);
  Iso9660Result ListDir(const std::string &imagePath, std::vector<Entry> *entries);
  Iso9660Result OpenSubdir(int parentFd, const std::string &imagePath, const std::string &name,
                           Fd *out, bool *created);
  Iso9660Result StageFile(int dirFd, const Entry &entry, const std::string &imagePath,
                          const std::string &finalName, size_t pendingIndex,
                          const std::unordered_set<std::string> &avoid);
  Iso9660Result CopyData(const Entry &entry, const std::string &imagePath, int fd);
  Iso9660Result Commit(int rootFd);
  void Rollback(int rootFd);
  Fd OpenPendingDir(int rootFd, const std::vector<std::string> &path, size_t components);

  Iso9660Volume *volume_;
  const char *fn_;
  Iso9660ExtractLimits limits_;
  std::unique_ptr<Iso9660DirEntry> raw_;  // 4 KiB: kept off the stack of the recursion
  std::vector<uint8_t> buffer_;
  std::vector<PendingDir> pending_;
  uint64_t entries_ = 0;
  uint64_t bytes_ = 0;
};

Iso9660Result Extractor::StatStart(const char *path, Entry *entry) {
  Iso9660Result res = Iso9660_Stat(volume_, path, raw_.get());
  if (res != ISO9660_OK) {
    Log("%s: Iso9660_Stat failed res=%d path=\"%s\"\n", fn_, res, Printable(path).c_str());
    return res;
  }
  if (!FromDirEntry(*raw_, entry)) {
    Log("%s: unterminated entry name path=\"%s\"\n", fn_, Printable(path).c_str());
    return ISO9660_ERR_CORRUPT;
  }
  if (const char *why = UnsafeKindReason(*entry)) {
    Log("%s: refusing entry \"%s\": %s\n", fn_, Printable(path).c_str(), why);
    return ISO9660_ERR_UNSAFE;
  }
  return ISO9660_OK;
}

Iso9660Result Extractor::ExtractInto(int rootFd, const char *path) {
  Entry start;
  Iso9660Result res = StatStart(path, &start);
  if (res != ISO9660_OK) {
    return res;
  }
  pending_.push_back(PendingDir{});
  if (start.IsDir()) {
    std::vector<uint32_t> ancestors{start.extent};
    res = ExtractDir(rootFd, path, 0, 0, &ancestors);
  } else if (const char *why = UnsafeNameReason(start.name)) {
    Log("%s: refusing entry \"%s\" of \"%s\": %s\n", fn_, Printable(start.name).c_str(),
        Printable(path).c_str(), why);
    res = ISO9660_ERR_UNSAFE;
  } else {
    res = StageFile(rootFd, start, path, start.name, 0, {start.name});
  }
  if (res == ISO9660_OK) {
    res = Commit(rootFd);
  }
  if (res != ISO9660_OK) {
    Rollback(rootFd);
  }
  return res;
}

Iso9660Result Extractor::ExtractFileAs(int rootFd, const char *path, const std::string &hostName) {
  Entry entry;
  Iso9660Result res = StatStart(path, &entry);
  if (res != ISO9660_OK) {
    return res;
  }
  if (entry.IsDir()) {
    Log("%s: not a file path=\"%s\"\n", fn_, Printable(path).c_str());
    return ISO9660_ERR_INVALID_ARG;
  }
  pending_.push_back(PendingDir{});
  res = StageFile(rootFd, entry, path, hostName, 0, {hostName});
  if (res == ISO9660_OK) {
    res = Commit(rootFd);
  }
  if (res != ISO9660_OK) {
    Rollback(rootFd);
  }
  return res;
}

// Reads a whole directory before anything of it is written, so duplicates
// and refused entries stop the call before the first byte lands.
Iso9660Result Extractor::ListDir(const std::string &imagePath, std::vector<Entry> *entries) {
  Iso9660Dir *dir = nullptr;
  Iso9660Result res = Iso9660_OpenDir(volume_, imagePath.c_str(), &dir);
  if (res != ISO9660_OK) {
    Log("%s: Iso9660_OpenDir failed res=%d path=\"%s\"\n", fn_, res, Printable(imagePath).c_str());
    return res;
  }
  std::unordered_set<std::string> names;
  for (;;) {
    res = Iso9660_ReadDir(volume_, dir, raw_.get());
    if (res == ISO9660_EOF) {
      res = ISO9660_OK;
      break;
    }
    if (res != ISO9660_OK) {
      Log("%s: Iso9660_ReadDir failed res=%d path=\"%s\"\n", fn_, res,
          Printable(imagePath).c_str());
      break;
    }
    if (++entries_ > limits_.maxEntries) {
      Log("%s: more than %" PRIu64 " entries, stopping at \"%s\"\n", fn_, limits_.maxEntries,
          Printable(imagePath).c_str());
      res = ISO9660_ERR_LIMIT;
      break;
    }
    Entry entry;
    if (!FromDirEntry(*raw_, &entry)) {
      Log("%s: unterminated entry name in \"%s\"\n", fn_, Printable(imagePath).c_str());
      res = ISO9660_ERR_CORRUPT;
      break;
    }
    const char *why = UnsafeNameReason(entry.name);
    if (why == nullptr) {
      why = UnsafeKindReason(entry);
    }
    if (why == nullptr && !names.insert(entry.name).second) {
      why = "duplicate name";
    }
    if (why != nullptr) {
      Log("%s: refusing entry \"%s\" in \"%s\": %s\n", fn_, Printable(entry.name).c_str(),
          Printable(imagePath).c_str(), why);
      res = ISO9660_ERR_UNSAFE;
      break;
    }
    entries->push_back(std::move(entry));
  }
  Iso9660_CloseDir(volume_, dir);
  return res;
}

Iso9660Result Extractor::ExtractDir(int dirFd, const std::string &imagePath, size_t pendingIndex,
                                    uint32_t depth, std::vector<uint32_t> *ancestors) {
  std::vector<Entry> entries;
  Iso9660Result res = ListDir(imagePath, &entries);
  if (res != ISO9660_OK) {
    return res;
  }
  std::unordered_set<std::string> names;
  for (const Entry &entry : entries) {
    names.insert(entry.name);
  }
  for (const Entry &entry : entries) {
    std::string childPath = JoinImagePath(imagePath, entry.name);
    if (!entry.IsDir()) {
      res = StageFile(dirFd, entry, childPath, entry.name, pendingIndex, names);
      if (res != ISO9660_OK) {
        return res;
      }
      continue;
    }
    if (depth + 1 > limits_.maxDepth) {
      Log("%s: deeper than %u levels at \"%s\"\n", fn_, limits_.maxDepth,
          Printable(childPath).c_str());
      return ISO9660_ERR_LIMIT;
    }
    for (uint32_t extent : *ancestors) {
      if (extent == entry.extent) {
        Log("%s: directory loop at \"%s\"\n", fn_, Printable(childPath).c_str());
        return ISO9660_ERR_CORRUPT;
      }
    }
    Fd child;
    bool created = false;
    res = OpenSubdir(dirFd, childPath, entry.name, &child, &created);
    if (res != ISO9660_OK) {
      return res;
    }
    PendingDir pd;
    pd.path = pending_[pendingIndex].path;
    pd.path.push_back(entry.name);
    pd.created = created;
    pending_.push_back(std::move(pd));
    ancestors->push_back(entry.extent);
    res = ExtractDir(child.get(), childPath, pending_.size() - 1, depth + 1, ancestors);
    ancestors->pop_back();
    if (res != ISO9660_OK) {
      return res;
    }
  }
  return ISO9660_OK;
}

Iso9660Result Extractor::OpenSubdir(int parentFd, const std::string &imagePath,
                                    const std::string &name, Fd *out, bool *created) {
  *created = false;
  if (mkdirat(parentFd, name.c_str(), 0700) == 0) {
    *created = true;
  } else if (errno != EEXIST) {
    Log("%s: mkdir failed for \"%s\": %s\n", fn_, Printable(imagePath).c_str(), strerror(errno));
    return ISO9660_ERR_HOST;
  }
  Fd fd(openat(parentFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd.valid()) {
    int err = errno;
    if (*created) {
      unlinkat(parentFd, name.c_str(), AT_REMOVEDIR);
      *created = false;
    }
    if (err == ELOOP || err == ENOTDIR) {
      Log("%s: refusing entry \"%s\": a host entry that is not a directory is "
          "in its place\n",
          fn_, Printable(imagePath).c_str());
      return ISO9660_ERR_UNSAFE;
    }
    Log("%s: cannot open host directory for \"%s\": %s\n", fn_, Printable(imagePath).c_str(),
        strerror(err));
    return ISO9660_ERR_HOST;
  }
  if (*created && fchmod(fd.get(), 0755) != 0) {
    Log("%s: chmod failed for \"%s\": %s\n", fn_, Printable(imagePath).c_str(), strerror(errno));
    unlinkat(parentFd, name.c_str(),
             AT_REMOVEDIR);  // not yet pending: Rollback would miss it
    *created = false;
    return ISO9660_ERR_HOST;
  }
  *out = std::move(fd);
  return ISO9660_OK;
}

Iso9660Result Extractor::StageFile(int dirFd, const Entry &entry, const std::string &imagePath,
                                   const std::string &finalName, size_t pendingIndex,
                                   const std::unordered_set<std::string> &avoid) {
  struct stat st;
  if (fstatat(dirFd, finalName.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
    if (!S_ISREG(st.st_mode)) {
      Log("%s: refusing entry \"%s\": a host entry that is not a regular file "
          "is in its place\n",
          fn_, Printable(imagePath).c_str());
      return ISO9660_ERR_UNSAFE;
    }
  } else if (errno != ENOENT) {
    Log("%s: cannot stat host file for \"%s\": %s\n", fn_, Printable(imagePath).c_str(),
        strerror(errno));
    return ISO9660_ERR_HOST;
  }
  if (entry.size64 > limits_.maxBytes - bytes_) {
    Log("%s: more than %" PRIu64 " bytes, stopping at \"%s\" size=%" PRIu64 "\n", fn_,
        limits_.maxBytes, Printable(imagePath).c_str(), entry.size64);
    return ISO9660_ERR_LIMIT;
  }

  // A temporary name that no entry of this directory uses, created
  // exclusively so that nothing already there is opened or followed.
  static std::atomic<uint64_t> counter{0};
  Fd fd;
  std::string tempName;
  for (int attempt = 0; attempt < kTempNameAttempts && !fd.valid(); attempt++) {
    char name[64];
    snprintf(name, sizeof name, ".gp-extract.%ld.%" PRIu64, static_cast<long>(getpid()),
             counter.fetch_add(1, std::memory_order_relaxed));
    if (avoid.count(name) != 0) {
      continue;
    }
    fd = Fd(openat(dirFd, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (fd.valid()) {
      tempName = name;
    } else if (errno != EEXIST) {
      Log("%s: cannot create a host file for \"%s\": %s\n", fn_, Printable(imagePath).c_str(),
          strerror(errno));
      return ISO9660_ERR_HOST;
    }
  }
  if (!fd.valid()) {
    Log("%s: no free temporary name for \"%s\"\n", fn_, Printable(imagePath).c_str());
    return ISO9660_ERR_HOST;
  }
  pending_[pendingIndex].files.push_back(PendingFile{tempName, finalName});

  Iso9660Result res = CopyData(entry, imagePath, fd.get());
  if (res != ISO9660_OK) {
    return res;
  }
  // Only the execute bits survive from the image: no setuid, setgid, sticky.
  mode_t mode = (entry.mode & 0111) != 0 ? 0755 : 0644;
  if (fchmod(fd.get(), mode) != 0 || fsync(fd.get()) != 0 || close(fd.Release()) != 0) {
    Log("%s: writing the host file for \"%s\" failed: %s\n", fn_, Printable(imagePath).c_str(),
        strerror(errno));
    return ISO9660_ERR_HOST;
  }
  return ISO9660_OK;
}

Iso9660Result Extractor::CopyData(const Entry &entry, const std::string &imagePath, int fd) {
  ToDirEntry(entry, raw_.get());
  Iso9660File *file = nullptr;
  Iso9660Result res = Iso9660_OpenFile(volume_, raw_.get(), &file);
  if (res != ISO9660_OK) {
    Log("%s: Iso9660_OpenFile failed res=%d path=\"%s\"\n", fn_, res, Printable(imagePath).c_str());
    return res;
  }
  if (buffer_.empty()) {
    buffer_.resize(kCopyChunkBytes);
  }
  uint64_t copied = 0;
  for (;;) {
    uint32_t len = kCopyChunkBytes;
    res = Iso9660_ReadFile(volume_, file, buffer_.data(), &len);
    if (res == ISO9660_EOF) {
      res = ISO9660_OK;
      break;
    }
    if (res != ISO9660_OK) {
      Log("%s: Iso9660_ReadFile failed res=%d path=\"%s\"\n", fn_, res,
          Printable(imagePath).c_str());
      break;
    }
    // A reader that delivers nothing or more than asked would loop or overrun.
    if (len == 0 || len > kCopyChunkBytes || len > entry.size64 - copied) {
      Log("%s: file data does not match its size path=\"%s\" size=%" PRIu64 "\n", fn_,
          Printable(imagePath).c_str(), entry.size64);
      res = ISO9660_ERR_CORRUPT;
      break;
    }
    if (len > limits_.maxBytes - bytes_) {
      Log("%s: more than %" PRIu64 " bytes, stopping at \"%s\"\n", fn_, limits_.maxBytes,
          Printable(imagePath).c_str());
      res = ISO9660_ERR_LIMIT;
      break;
    }
    if (!WriteAll(fd, buffer_.data(), len)) {
      Log("%s: writing the host file for \"%s\" failed: %s\n", fn_, Printable(imagePath).c_str(),
          strerror(errno));
      res = ISO9660_ERR_HOST;
      break;
    }
    copied += len;
    bytes_ += len;
  }
  Iso9660_CloseFile(volume_, file);
  if (res == ISO9660_OK && copied != entry.size64) {
    Log("%s: file data ends early path=\"%s\" size=%" PRIu64 " read=%" PRIu64 "\n", fn_,
        Printable(imagePath).c_str(), entry.size64, copied);
    res = ISO9660_ERR_CORRUPT;
  }
  return res;
}

Fd Extractor::OpenPendingDir(int rootFd, const std::vector<std::string> &path, size_t components) {
  Fd cur(openat(rootFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (size_t i = 0; i < components && cur.valid(); i++) {
    cur = Fd(openat(cur.get(), path[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  }
  return cur;
}

Iso9660Result Extractor::Commit(int rootFd) {
  for (PendingDir &pd : pending_) {
    if (pd.files.empty()) {
      continue;
    }
    Fd dir = OpenPendingDir(rootFd, pd.path, pd.path.size());
    if (!dir.valid()) {
      Log("%s: cannot reopen a host directory: %s\n", fn_, strerror(errno));
      return ISO9660_ERR_HOST;
    }
    for (PendingFile &file : pd.files) {
      // Checked again: the host may have changed since the file was staged.
      // rename() itself never follows a link at the target name.
      struct stat st;
      if (fstatat(dir.get(), file.finalName.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
          !S_ISREG(st.st_mode)) {
        Log("%s: refusing entry \"%s\": a host entry that is not a regular "
            "file is in its "
            "place\n",
            fn_, Printable(file.finalName).c_str());
        return ISO9660_ERR_UNSAFE;
      }
      if (renameat(dir.get(), file.tempName.c_str(), dir.get(), file.finalName.c_str()) != 0) {
        Log("%s: rename to \"%s\" failed: %s\n", fn_, Printable(file.finalName).c_str(),
            strerror(errno));
        return ISO9660_ERR_HOST;
      }
      file.renamed = true;
    }
    if (fsync(dir.get()) != 0) {
      Log("%s: fsync of a host directory failed: %s\n", fn_, strerror(errno));
      return ISO9660_ERR_HOST;
    }
  }
  return ISO9660_OK;
}

// Removes the temporaries and, deepest first, the directories this call
// created (those that are empty again: not the ones a partial commit filled).
void Extractor::Rollback(int rootFd) {
  for (auto pd = pending_.rbegin(); pd != pending_.rend(); ++pd) {
    Fd dir = OpenPendingDir(rootFd, pd->path, pd->path.size());
    if (dir.valid()) {
      for (const PendingFile &file : pd->files) {
        if (!file.renamed) {
          unlinkat(dir.get(), file.tempName.c_str(), 0);
        }
      }
    }
    if (pd->created && !pd->path.empty()) {
      Fd parent = OpenPendingDir(rootFd, pd->path, pd->path.size() - 1);
      if (parent.valid()) {
        unlinkat(parent.get(), pd->path.back().c_str(), AT_REMOVEDIR);
      }
    }
  }
  pending_.clear();
}

}  // namespace

Iso9660Result Iso9660_ExtractWithLimits(Iso9660Volume *volume, const char *path,
                                        const char *hostDir, const Iso9660ExtractLimits *limits) {
  if (volume == nullptr || path == nullptr || hostDir == nullptr || limits == nullptr) {
    Log("Iso9660_Extract: null argument\n");
    return ISO9660_ERR_INVALID_ARG;
  }
  // The caller's own path may pass through links; below it nothing does.
  Fd root(open(hostDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root.valid()) {
    Log("Iso9660_Extract: cannot open host directory hostDir=\"%s\": %s\n",
        Printable(hostDir).c_str(), strerror(errno));
    return ISO9660_ERR_HOST;
  }
  Extractor extractor(volume, "Iso9660_Extract", *limits);
  return extractor.ExtractInto(root.get(), path);
}

Iso9660Result Iso9660_Extract(Iso9660Volume *volume, const char *path, const char *hostDir) {
  return Iso9660_ExtractWithLimits(volume, path, hostDir, &kDefaultLimits);
}

Iso9660Result Iso9660_ExtractFileEx(Iso9660Volume *volume, const char *path, const char *hostPath) {
  if (volume == nullptr || path == nullptr || hostPath == nullptr) {
    Log("Iso9660_ExtractFileEx: null argument\n");
    return ISO9660_ERR_INVALID_ARG;
  }
  std::string_view host(hostPath);
  size_t slash = host.rfind('/');
  std::string dirPart = slash == std::string_view::npos ? "."
                        : slash == 0                    ? "/"
                                                        : std::string(host.substr(0, slash));
  std::string base(slash == std::string_view::npos ? host : host.substr(slash + 1));
  if (base.empty() || base == "." || base == "..") {
    Log("Iso9660_ExtractFileEx: not a file path hostPath=\"%s\"\n", Printable(hostPath).c_str());
    return ISO9660_ERR_INVALID_ARG;
  }
  Fd dir(open(dirPart.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dir.valid()) {
    Log("Iso9660_ExtractFileEx: cannot open host directory of hostPath=\"%s\": "
        "%s\n",
        Printable(hostPath).c_str(), strerror(errno));
    return ISO9660_ERR_HOST;
  }
  Extractor extractor(volume, "Iso9660_ExtractFileEx", kDefaultLimits);
  return extractor.ExtractFileAs(dir.get(), path, base);
}
