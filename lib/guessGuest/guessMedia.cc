// Media access layer: directories and files of an installation image,
// whatever its file system (ISO 9660 or UDF) and the letter case its
// directories were mastered in. The exported Guess_* operations and the
// detectors' guess::Medium share one implementation.
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

// Guess_ReadFile hands back whole files; anything larger than any marker
// file could be counts as absent rather than being read into memory.
constexpr uint64_t kMaxWholeFile = 16u << 20;

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

GuessDir *OpenDir(GuessMedium *medium, std::string_view path) {
  CheckMedium(medium);
  const std::string given(path);
  GuessDir *dir = OpenDirOnce(medium, given);
  for (const std::string &variant : {guess::ToUpper(given), guess::ToLower(given)}) {
    if (dir == nullptr && variant != given) {
      dir = OpenDirOnce(medium, variant);
    }
  }
  return dir;
}

// What a lookup found: presence and, when asked, the file's first bytes.
struct Found {
  bool present = false;
  std::string data;
};

// How much of a file to read: none, the first maxBytes, or all of it (a
// larger file then counts as absent).
struct Want {
  bool read = false;
  uint64_t maxBytes = 0;
  bool whole = false;
};

// The size to read of a file of size bytes, or false when it is too large.
bool ReadSize(uint64_t size, const Want &want, size_t *n) {
  if (want.whole && size > want.maxBytes) {
    return false;
  }
  *n = static_cast<size_t>(size < want.maxBytes ? size : want.maxBytes);
  return true;
}

Found LookupIso(GuessMedium *medium, GuessDir *dir, const char *name, const Want &want) {
  Found found;
  // The entry last listed on this handle counts as absent (a fresh handle
  // holds the empty name).
  if (Str_Strcasecmp(name, IsoEntry(dir)->name) == 0) {
    return found;
  }
  auto entry = std::make_unique<Iso9660DirEntry>();
  if (Iso9660_Lookup(medium->iso, dir->isoDir, name, true, entry.get()) != ISO9660_OK) {
    return found;
  }
  Iso9660File *file = nullptr;
  if (Iso9660_OpenFile(medium->iso, entry.get(), &file) != ISO9660_OK) {
    return found;
  }
  size_t n = 0;
  if (!want.read) {
    found.present = true;
  } else if (ReadSize(entry->size64, want, &n)) {
    found.data.resize(n);
    found.present = Iso9660_PReadFile(medium->iso, file, found.data.data(), 0, n) == ISO9660_OK;
  }
  Iso9660_CloseFile(medium->iso, file);
  return found;
}

Found LookupUdf(GuessMedium *medium, GuessDir *dir, const char *name, const Want &want) {
  Found found;
  UDFFile *file = UDF_OpenFile(medium->udf, dir->udfDir, name);
  if (file == nullptr) {
    return found;
  }
  size_t n = 0;
  uint64_t size = UDF_GetFileSize(medium->udf, file);
  if (!want.read) {
    found.present = true;
  } else if (size != UINT64_MAX && ReadSize(size, want, &n)) {
    found.data.resize(n);
    found.present = n == 0 || UDF_PReadFile(file, found.data.data(), 0, n);
  }
  UDF_CloseFile(file);
  return found;
}

Found Lookup(GuessMedium *medium, GuessDir *dir, const char *name, const Want &want) {
  CheckMedium(medium);
  return medium->type == GUESS_MEDIUM_ISO9660 ? LookupIso(medium, dir, name, want)
                                              : LookupUdf(medium, dir, name, want);
}

// Reads name from dir, trying it as given, upper-cased and lower-cased. ISO
// 9660 lookups ignore case already, so there the first try is the answer.
Found ReadVariants(GuessMedium *medium, GuessDir *dir, std::string_view name, const Want &want) {
  const std::string given(name);
  Found found = Lookup(medium, dir, given.c_str(), want);
  if (found.present || medium->type == GUESS_MEDIUM_ISO9660) {
    return found;
  }
  for (const std::string &variant : {guess::ToUpper(given), guess::ToLower(given)}) {
    if (variant != given && (found = Lookup(medium, dir, variant.c_str(), want)).present) {
      break;
    }
  }
  return found;
}

// Splits "dir/name" at its last separator; a bare name lives in the root.
std::pair<std::string_view, std::string_view> SplitPath(std::string_view path) {
  size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) {
    return {std::string_view(), path};
  }
  return {path.substr(0, slash), path.substr(slash + 1)};
}

char *ToHeap(const std::string &data) {
  char *block = static_cast<char *>(malloc(data.size() + 1));
  if (block != nullptr) {
    memcpy(block, data.data(), data.size());
    block[data.size()] = '\0';
  }
  return block;
}

}  // namespace

namespace guess {

std::string ToUpper(std::string s) {
  Str_ToUpper(s.data());
  return s;
}

std::string ToLower(std::string s) {
  Str_ToLower(s.data());
  return s;
}

bool CaselessStartsWith(std::string_view text, std::string_view prefix) {
  if (text.size() < prefix.size()) {
    return false;
  }
  for (size_t i = 0; i < prefix.size(); ++i) {
    unsigned char a = static_cast<unsigned char>(text[i]);
    unsigned char b = static_cast<unsigned char>(prefix[i]);
    if ((a >= 'A' && a <= 'Z' ? a + 32 : a) != (b >= 'A' && b <= 'Z' ? b + 32 : b)) {
      return false;
    }
  }
  return true;
}

Medium::Dir Medium::Open(std::string_view path) const {
  return Dir(medium_, OpenDir(medium_, path));
}

bool Medium::Exists(std::string_view dirPath, std::string_view name) const {
  GuessDir *dir = OpenDir(medium_, dirPath);
  if (dir == nullptr) {
    return false;
  }
  Dir closer(medium_, dir);
  return Lookup(medium_, dir, std::string(name).c_str(), Want{}).present;
}

bool Medium::HasEntryWithPrefix(std::string_view dirPath, std::string_view prefix) const {
  Dir dir = Open(dirPath);
  while (const char *name = dir.Next()) {
    if (CaselessStartsWith(name, prefix)) {
      return true;
    }
  }
  return false;
}

MediumFile Medium::Read(std::string_view path, size_t maxBytes) const {
  auto [dirPath, name] = SplitPath(path);
  GuessDir *dir = OpenDir(medium_, dirPath);
  if (dir == nullptr) {
    return MediumFile();
  }
  Dir closer(medium_, dir);
  Found found = ReadVariants(medium_, dir, name, Want{true, maxBytes, false});
  return found.present ? MediumFile(std::move(found.data)) : MediumFile();
}

std::string Medium::VolumeId() const {
  char *id = nullptr;
  if (medium_->type != GUESS_MEDIUM_ISO9660 ||
      Iso9660_GetVolumeId(medium_->iso, &id) != ISO9660_OK || id == nullptr) {
    free(id);
    return std::string();
  }
  std::string copy(id);
  free(id);
  return copy;
}

}  // namespace guess

extern "C" {

GuessDir *Guess_OpenDir(GuessMedium *medium, const char *path) {
  if (medium == nullptr || path == nullptr) {
    return nullptr;
  }
  return OpenDir(medium, path);
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
  Found found = ReadVariants(medium, dir, name, Want{true, kMaxWholeFile, true});
  char *contents = found.present ? ToHeap(found.data) : nullptr;
  if (contents != nullptr && size != nullptr) {
    *size = found.data.size();
  }
  return contents;
}

char *Guess_ReadFileName(GuessMedium *medium, const char *path, uint64_t *size) {
  if (medium == nullptr || path == nullptr) {
    return nullptr;
  }
  auto [dirPath, name] = SplitPath(path);
  GuessDir *dir = OpenDir(medium, dirPath);
  if (dir == nullptr) {
    return nullptr;
  }
  char *contents = Guess_ReadFile(medium, dir, std::string(name).c_str(), size);
  Guess_CloseDir(medium, dir);
  return contents;
}

bool Guess_FileExists(GuessMedium *medium, const char *dirPath, const char *name) {
  if (medium == nullptr || dirPath == nullptr || name == nullptr) {
    return false;
  }
  return guess::Medium(medium).Exists(dirPath, name);
}

bool Guess_FileExistsWithPrefix(GuessMedium *medium, const char *dirPath, const char *prefix) {
  if (medium == nullptr || dirPath == nullptr || prefix == nullptr) {
    return false;
  }
  return guess::Medium(medium).HasEntryWithPrefix(dirPath, prefix);
}

}  // extern "C"
