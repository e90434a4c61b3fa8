// Media access layer: directories and files of an installation image,
// whatever its file system (ISO 9660 or UDF) and the letter case its
// directories were mastered in.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "guestprep/guess.h"
#include "lib/guessGuest/guessInternal.h"
#include "platform/iso9660/iso9660.h"
#include "platform/log/log.h"
#include "platform/udf/udf.h"
#include "platform/util/safeAlloc.h"
#include "platform/util/str.h"

namespace {

// Detectors read small marker files; a hostile image must not make them
// allocate without bound, so anything larger counts as absent.
constexpr uint64_t kMaxFileSize = 0x10000000;  // 256 MiB
// Initial buffer for an ISO 9660 file whose recorded size is untrusted.
constexpr size_t kMaxPresize = 1 << 20;
constexpr uint32_t kIsoChunk = 2048;
constexpr uint32_t kIsoUnknownSize = 0xFFFFFFFF;

static_assert(sizeof(GuessDir::entry) == sizeof(Iso9660DirEntry),
              "GuessDir holds exactly one ISO 9660 directory entry");

Iso9660DirEntry *IsoEntry(GuessDir *dir) {
  return reinterpret_cast<Iso9660DirEntry *>(dir->entry);
}

void CheckMedium(const GuessMedium *medium) {
  if (medium->type != GUESS_MEDIUM_ISO9660 && medium->type != GUESS_MEDIUM_UDF) {
    GUESS_NOT_REACHED();
  }
}

GuessDir *OpenDirOnce(GuessMedium *medium, const std::string &path) {
  auto *dir = static_cast<GuessDir *>(UtilSafeCalloc0(1, sizeof(GuessDir)));
  bool opened = false;
  if (medium->type == GUESS_MEDIUM_ISO9660) {
    opened = Iso9660_OpenDir(medium->iso, path.c_str(), &dir->isoDir) == ISO9660_OK;
  } else {
    dir->udfDir = UDF_OpenDir(medium->udf, nullptr, path.c_str());
    opened = dir->udfDir != nullptr;
  }
  if (!opened) {
    free(dir);
    return nullptr;
  }
  dir->path = UtilSafeStrdup0(path.c_str());
  return dir;
}

// Contents of a file as one malloc'd block plus a NUL; null when absent.
struct Found {
  bool present = false;
  char *contents = nullptr;
  uint64_t size = 0;
};

Found ReadIsoFile(GuessMedium *medium, const Iso9660DirEntry &entry) {
  Found found;
  Iso9660File *file = nullptr;
  if (Iso9660_OpenFile(medium->iso, &entry, &file) != ISO9660_OK) {
    return found;
  }
  std::string data;
  if (entry.size != kIsoUnknownSize) {
    data.reserve(std::min<size_t>(static_cast<size_t>(entry.size) + 1, kMaxPresize));
  }
  char chunk[kIsoChunk];
  Iso9660Result rc;
  for (;;) {
    uint32_t length = kIsoChunk;
    rc = Iso9660_ReadFile(medium->iso, file, chunk, &length);
    if (rc != ISO9660_OK) {
      break;
    }
    if (length > kIsoChunk || data.size() + length > kMaxFileSize) {
      rc = ISO9660_ERR_LIMIT;
      break;
    }
    data.append(chunk, length);
  }
  Iso9660_CloseFile(medium->iso, file);
  if (rc != ISO9660_EOF) {
    return found;
  }
  found.contents = static_cast<char *>(malloc(data.size() + 1));
  if (found.contents == nullptr) {
    return found;
  }
  memcpy(found.contents, data.data(), data.size());
  found.contents[data.size()] = '\0';
  found.size = data.size();
  found.present = true;
  return found;
}

Found LookupIso(GuessMedium *medium, GuessDir *dir, const char *name, bool read) {
  Found found;
  // The entry last listed on this handle counts as absent (a fresh handle
  // holds the empty name).
  if (Str_Strcasecmp(name, IsoEntry(dir)->name) == 0) {
    return found;
  }
  // A private handle, so the caller's listing position never moves.
  Iso9660Dir *scan = nullptr;
  if (Iso9660_OpenDir(medium->iso, dir->path, &scan) != ISO9660_OK) {
    return found;
  }
  auto entry = std::make_unique<Iso9660DirEntry>();
  for (;;) {
    if (Iso9660_ReadDir(medium->iso, scan, entry.get()) != ISO9660_OK) {
      Iso9660_CloseDir(medium->iso, scan);
      return found;
    }
    if (Str_Strcasecmp(entry->name, name) == 0) {
      break;
    }
  }
  if (!read) {
    Iso9660File *file = nullptr;
    if (Iso9660_OpenFile(medium->iso, entry.get(), &file) == ISO9660_OK) {
      Iso9660_CloseFile(medium->iso, file);
      found.present = true;
    }
  } else {
    found = ReadIsoFile(medium, *entry);
  }
  Iso9660_CloseDir(medium->iso, scan);
  return found;
}

Found LookupUdf(GuessMedium *medium, GuessDir *dir, const char *name, bool read) {
  Found found;
  UDFFile *file = UDF_OpenFile(medium->udf, dir->udfDir, name);
  if (file == nullptr) {
    return found;
  }
  if (!read) {
    UDF_CloseFile(file);
    found.present = true;
    return found;
  }
  uint64_t size = UDF_GetFileSize(medium->udf, file);
  if (size == UINT64_MAX || size > kMaxFileSize) {
    UDF_CloseFile(file);
    return found;
  }
  char *block = static_cast<char *>(malloc(static_cast<size_t>(size) + 1));
  if (block == nullptr) {
    UDF_CloseFile(file);
    return found;
  }
  if (size > 0 && !UDF_PReadFile(file, block, 0, static_cast<size_t>(size))) {
    free(block);
    UDF_CloseFile(file);
    return found;
  }
  block[size] = '\0';
  UDF_CloseFile(file);
  found.present = true;
  found.contents = block;
  found.size = size;
  return found;
}

Found Lookup(GuessMedium *medium, GuessDir *dir, const char *name, bool read) {
  CheckMedium(medium);
  return medium->type == GUESS_MEDIUM_ISO9660 ? LookupIso(medium, dir, name, read)
                                              : LookupUdf(medium, dir, name, read);
}

}  // namespace

extern "C" {

GuessDir *Guess_OpenDir(GuessMedium *medium, const char *path) {
  if (medium == nullptr || path == nullptr) {
    return nullptr;
  }
  CheckMedium(medium);
  const std::string given(path);
  GuessDir *dir = OpenDirOnce(medium, given);
  if (dir == nullptr) {
    dir = OpenDirOnce(medium, guess::ToUpper(given));
  }
  if (dir == nullptr) {
    dir = OpenDirOnce(medium, guess::ToLower(given));
  }
  return dir;
}

const char *Guess_ReadDir(GuessMedium *medium, GuessDir *dir) {
  if (medium == nullptr || dir == nullptr) {
    return nullptr;
  }
  CheckMedium(medium);
  if (medium->type == GUESS_MEDIUM_ISO9660) {
    if (Iso9660_ReadDir(medium->iso, dir->isoDir, IsoEntry(dir)) != ISO9660_OK) {
      return nullptr;
    }
    return IsoEntry(dir)->name;
  }
  return UDF_ReadDir(dir->udfDir, nullptr);
}

bool Guess_RewindDir(GuessMedium *medium, GuessDir *dir) {
  if (medium == nullptr || dir == nullptr) {
    return false;
  }
  CheckMedium(medium);
  if (medium->type == GUESS_MEDIUM_ISO9660) {
    return Iso9660_RewindDir(medium->iso, dir->isoDir) == ISO9660_OK;
  }
  UDF_RewindDir(dir->udfDir);
  return true;
}

bool Guess_CloseDir(GuessMedium *medium, GuessDir *dir) {
  if (medium == nullptr || dir == nullptr) {
    return false;
  }
  CheckMedium(medium);
  bool closed = medium->type == GUESS_MEDIUM_ISO9660
                    ? Iso9660_CloseDir(medium->iso, dir->isoDir) == ISO9660_OK
                    : UDF_CloseDir(dir->udfDir);
  if (!closed) {
    return false;  // the reader still holds it; the caller does not retry
  }
  free(dir->path);
  free(dir);
  return true;
}

char *Guess_ReadFile(GuessMedium *medium, GuessDir *dir, const char *name, uint64_t *size) {
  if (medium == nullptr || dir == nullptr || name == nullptr) {
    return nullptr;
  }
  const std::string given(name);
  for (const std::string &variant : {given, guess::ToUpper(given), guess::ToLower(given)}) {
    Found found = Lookup(medium, dir, variant.c_str(), true);
    if (found.contents != nullptr) {
      if (size != nullptr) {
        *size = found.size;
      }
      return found.contents;
    }
  }
  return nullptr;
}

char *Guess_ReadFileName(GuessMedium *medium, const char *path, uint64_t *size) {
  if (medium == nullptr || path == nullptr) {
    return nullptr;
  }
  const char *slash = strrchr(path, '/');
  std::string dirPath = slash != nullptr ? std::string(path, slash) : std::string();
  const char *base = slash != nullptr ? slash + 1 : path;
  GuessDir *dir = Guess_OpenDir(medium, dirPath.c_str());
  if (dir == nullptr) {
    return nullptr;
  }
  char *contents = Guess_ReadFile(medium, dir, base, size);
  Guess_CloseDir(medium, dir);
  return contents;
}

bool Guess_FileExists(GuessMedium *medium, const char *dirPath, const char *name) {
  if (medium == nullptr || name == nullptr) {
    return false;
  }
  GuessDir *dir = Guess_OpenDir(medium, dirPath);
  if (dir == nullptr) {
    return false;
  }
  bool present = Lookup(medium, dir, name, false).present;
  Guess_CloseDir(medium, dir);
  return present;
}

bool Guess_FileExistsWithPrefix(GuessMedium *medium, const char *dirPath, const char *prefix) {
  if (medium == nullptr || prefix == nullptr) {
    return false;
  }
  GuessDir *dir = Guess_OpenDir(medium, dirPath);
  if (dir == nullptr) {
    return false;
  }
  bool found = false;
  for (const char *name; !found && (name = Guess_ReadDir(medium, dir)) != nullptr;) {
    found = StrUtil_CaselessStartsWith(name, prefix);
  }
  Guess_CloseDir(medium, dir);
  return found;
}

}  // extern "C"

namespace guess {

MediumFile MediumFile::Read(GuessMedium *medium, const char *path) {
  uint64_t size = 0;
  char *data = Guess_ReadFileName(medium, path, &size);
  return data != nullptr ? MediumFile(data, size) : MediumFile();
}

std::string ToUpper(std::string s) {
  Str_ToUpper(s.data());
  return s;
}

std::string ToLower(std::string s) {
  Str_ToLower(s.data());
  return s;
}

}  // namespace guess
