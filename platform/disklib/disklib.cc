// The disk library's reader of disk descriptors: the signature line, the
// "[database]" section, and nothing of the disk's data.
#include "platform/disklib/disklib.h"

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "platform/dictionary/dictionary.h"
#include "platform/file/fileIO.h"
#include "platform/util/str.h"

struct DiskHandle {
  gp::UniqueDictionary database;
};

namespace {

constexpr uint32_t kKnownFlags =
    DISKLIB_OPEN_READ_ONLY | DISKLIB_OPEN_NO_LOCK | DISKLIB_OPEN_NO_PARENT;
constexpr std::string_view kDatabaseLine = "[database]";

DiskLibError FromFileIO(FileIOResult result) {
  switch (result) {
    case FILEIO_FILE_NOT_FOUND:
      return DISKLIB_ERR_NOT_FOUND;
    case FILEIO_NOT_A_FILE:
      return DISKLIB_ERR_NOT_DESCRIPTOR;
    case FILEIO_INVALID_ARGUMENT:
      return DISKLIB_ERR_INVALID_ARG;
    default:
      return DISKLIB_ERR_IO;
  }
}

// Reads the whole descriptor. Only a regular file qualifies: a device could
// be endless or block, and its bytes are not a descriptor anyway.
DiskLibError ReadDescriptor(const char *path, std::string *text) {
  gp::ScopedFileIO file;
  FileIOResult result = FileIO_Open(&file.fd, path, FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN);
  if (result != FILEIO_SUCCESS) {
    return FromFileIO(result);
  }
  struct stat st;
  if (fstat(file.fd.posix, &st) != 0) {
    return DISKLIB_ERR_IO;
  }
  if (!S_ISREG(st.st_mode) || st.st_size > static_cast<off_t>(DISKLIB_MAX_DESCRIPTOR)) {
    return DISKLIB_ERR_NOT_DESCRIPTOR;
  }
  // One byte past the limit, so a file that grew since fstat is noticed.
  text->resize(DISKLIB_MAX_DESCRIPTOR + 1);
  size_t got = 0;
  result = FileIO_Read(&file.fd, text->data(), text->size(), &got);
  if (result == FILEIO_SUCCESS) {
    return DISKLIB_ERR_NOT_DESCRIPTOR;
  }
  if (result != FILEIO_EOF) {
    return DISKLIB_ERR_IO;
  }
  text->resize(got);
  return DISKLIB_OK;
}

std::string_view TrimBlanks(std::string_view line) {
  const size_t first = line.find_first_not_of(" \t");
  if (first == std::string_view::npos) {
    return {};
  }
  const size_t last = line.find_last_not_of(" \t");
  return line.substr(first, last - first + 1);
}

// The line starting at pos without its CR LF or LF; *next is where the
// following line starts (text.size() after the last).
std::string_view LineAt(std::string_view text, size_t pos, size_t *next) {
  size_t nl = text.find('\n', pos);
  if (nl == std::string_view::npos) {
    nl = text.size();
    *next = text.size();
  } else {
    *next = nl + 1;
  }
  std::string_view line = text.substr(pos, nl - pos);
  if (!line.empty() && line.back() == '\r') {
    line.remove_suffix(1);
  }
  return line;
}

DiskLibError ParseDescriptor(std::string_view text, Dictionary *database) {
  if (text.find('\0') != std::string_view::npos) {
    return DISKLIB_ERR_NOT_DESCRIPTOR;
  }
  size_t pos = 0;
  if (LineAt(text, 0, &pos) != DISKLIB_DESCRIPTOR_SIGNATURE) {
    return DISKLIB_ERR_NOT_DESCRIPTOR;
  }
  while (pos < text.size()) {
    size_t next;
    const std::string_view line = LineAt(text, pos, &next);
    if (TrimBlanks(line) == kDatabaseLine) {
      const std::string_view body = text.substr(next);
      // Collected and dropped rather than posted to the process-wide
      // pending list, where they would be taken for some other load's: the
      // error code says all a caller can act on.
      MsgList *messages = nullptr;
      const bool loaded =
          Dictionary_LoadFromBufferEx(database, body.data(), body.size(), &messages);
      MsgList_Free(messages);
      return loaded ? DISKLIB_OK : DISKLIB_ERR_BAD_DATABASE;
    }
    pos = next;
  }
  return DISKLIB_OK;  // no database: an empty one
}

}  // namespace

DiskLibError DiskLib_Open(const char *path, uint32_t flags, DiskHandle **handle) {
  if (handle == nullptr) {
    return DISKLIB_ERR_INVALID_ARG;
  }
  *handle = nullptr;
  if (path == nullptr || path[0] == '\0' || (flags & ~kKnownFlags) != 0) {
    return DISKLIB_ERR_INVALID_ARG;
  }
  if ((flags & DISKLIB_OPEN_READ_ONLY) == 0) {
    return DISKLIB_ERR_READ_ONLY;
  }
  std::string text;
  DiskLibError error = ReadDescriptor(path, &text);
  if (error != DISKLIB_OK) {
    return error;
  }
  auto *disk = new (std::nothrow) DiskHandle;
  if (disk == nullptr) {
    return DISKLIB_ERR_IO;
  }
  disk->database.reset(Dictionary_Create());
  error = ParseDescriptor(text, disk->database.get());
  if (error != DISKLIB_OK) {
    delete disk;
    return error;
  }
  *handle = disk;
  return DISKLIB_OK;
}

DiskLibError DiskLib_DBGet(DiskHandle *handle, const char *name, char **value) {
  if (value != nullptr) {
    *value = nullptr;
  }
  if (handle == nullptr || name == nullptr || value == nullptr) {
    return DISKLIB_ERR_INVALID_ARG;
  }
  const char *text =
      static_cast<const char *>(Dictionary_Get(handle->database.get(), nullptr, DICT_STRING, name));
  if (text == nullptr) {
    return DISKLIB_ERR_NO_ENTRY;
  }
  *value = strdup(text);
  return *value != nullptr ? DISKLIB_OK : DISKLIB_ERR_IO;
}

DiskLibError DiskLib_Close(DiskHandle *handle) {
  delete handle;
  return DISKLIB_OK;
}

const char *DiskLib_Err2String(DiskLibError error) {
  static constexpr const char *kText[] = {
      "Success",
      "Invalid argument",
      "The file specified was not found",
      "Cannot read the disk descriptor",
      "The file is not a disk descriptor",
      "The disk database is damaged",
      "No such entry in the disk database",
      "The disk can only be opened read-only",
  };
  return error < sizeof kText / sizeof kText[0] ? kText[error] : "Unknown error";
}
