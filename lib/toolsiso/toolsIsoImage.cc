/*
 * Tools image naming and location: which image in "isoimages" serves a
 * guest, from the signed image map or, when there is no map, the built-in
 * table; the refresh counter and the process-wide cached name; and the
 * whole-file reader and path canonicalisation the other tools-image code
 * uses.
 *
 * The process-wide state is touched only through atomic operations. The
 * cached name and the counter value it was chosen under form one immutable
 * record; callers borrow it through a split reference count, so a caller
 * copying the name never races with the caller that replaces and frees it,
 * and nothing is locked while files are read or signatures checked.
 */
#include "guestprep/toolsiso.h"

#include <errno.h>
#include <stdlib.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "lib/toolsiso/toolsIsoImageInternal.h"
#include "platform/dictionary/dictionary.h"
#include "platform/file/file.h"
#include "platform/file/fileIO.h"
#include "platform/guestos/guestos.h"
#include "platform/log/log.h"
#include "platform/msg/msg.h"
#include "platform/util/safeAlloc.h"
#include "platform/util/str.h"

namespace {

constexpr char kMapName[] = "isoimages_manifest.txt";
constexpr char kImageSuffix[] = ".iso";
constexpr size_t kMinNameLength = 5;
constexpr size_t kMaxNameLength = 255;
// Nothing the tools code reads (maps, manifests, hash data) comes near this;
// it bounds the allocation a damaged or hostile file can cause.
constexpr uint64_t kMaxReadSize = 0x10000000;
// Existing file, read access, and the host's no-follow flag: the paths read
// here were canonicalised first, so a link swapped in later is not followed.
constexpr uint32_t kReadAccess = FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_ACCESS_NOFOLLOW;
constexpr uint32_t kKindWindows = 2;
constexpr uint32_t kKindOther = 4;

const char *Printable(const char *text) {
  return text != nullptr ? text : "(null)";
}

/* The built-in image table. */

struct IdRange {
  uint32_t first;
  uint32_t last;
};

using IdSet = std::array<uint32_t, GOS_MAX_SET_IDS>;

// The ids of the inclusive ranges, ended by 0 as Gos_InSetArray expects.
template <size_t N>
constexpr IdSet Ids(const IdRange (&ranges)[N]) {
  IdSet set{};
  size_t n = 0;
  for (const IdRange &r : ranges) {
    for (uint32_t id = r.first; id <= r.last; ++id) {
      if (n + 1 >= set.size()) {
        throw "a guest id set holds at most 127 ids";  // fails the constant evaluation
      }
      set[n++] = id;
    }
  }
  return set;
}

struct ToolsImageRow {
  const char *imageName;  // null: the guests of this row get no image
  const char *baseName;
  IdSet guestIds;
};

// First match wins: 0x5006 belongs to the pre-2000 row and the bare-metal
// hypervisor's ids to the row without an image, although later rows list
// them too.
constexpr IdRange kPre2kIds[] = {{0x5003, 0x5006}};
constexpr IdRange kWindowsIds[] = {{0x5006, 0x5021}};
constexpr IdRange kNoImageIds[] = {{0x5075, 0x507E}};
constexpr IdRange kLinuxIds[] = {
    {0x5025, 0x5037}, {0x503B, 0x5046}, {0x5075, 0x5075}, {0x507F, 0x509E}};
constexpr IdRange kSolarisIds[] = {{0x5056, 0x505B}};
constexpr IdRange kFreeBsdIds[] = {{0x5047, 0x5055}};
constexpr IdRange kNetwareIds[] = {{0x5072, 0x5074}};
constexpr IdRange kDarwinIds[] = {{0x505C, 0x506F}};
constexpr IdRange kTerminatorIds[] = {{GUESTOS_ID_BASE, GUESTOS_ID_BASE}};

constexpr ToolsImageRow ToolsImageTable[] = {
    {"winPre2k.iso", "windows.iso", Ids(kPre2kIds)},
    {"windows.iso", "windows.iso", Ids(kWindowsIds)},
    {nullptr, nullptr, Ids(kNoImageIds)},
    {"linux.iso", "linux.iso", Ids(kLinuxIds)},
    {"solaris.iso", "solaris.iso", Ids(kSolarisIds)},
    {"freebsd.iso", "freebsd.iso", Ids(kFreeBsdIds)},
    {"netware.iso", "netware.iso", Ids(kNetwareIds)},
    {"darwin.iso", "darwin.iso", Ids(kDarwinIds)},
    {nullptr, nullptr, Ids(kTerminatorIds)},  // the answer when no row matches
};
constexpr size_t kTableRows = sizeof(ToolsImageTable) / sizeof(ToolsImageTable[0]);

const ToolsImageRow &LookupImageRow(uint32_t guestId) {
  for (size_t i = 0; i + 1 < kTableRows; ++i) {
    if (Gos_InSetArray(guestId, ToolsImageTable[i].guestIds.data())) {
      return ToolsImageTable[i];
    }
  }
  return ToolsImageTable[kTableRows - 1];
}

/* Process-wide state. */

// The cached image name and the refresh counter value it was chosen under.
// Never changed once published; replaced whole.
struct CachedImage {
  CachedImage(std::optional<std::string> n, uint32_t count)
      : name(std::move(n)), lastCount(count) {}
  const std::optional<std::string> name;
  const uint32_t lastCount;
  // Borrows handed back after the record left the slot, against the count
  // the replacer moved here; whoever brings it to 0 frees the record.
  std::atomic<int64_t> refs{0};
};

// One atomic word holding the current record's address (low 48 bits) and
// the number of callers borrowing it (high 16 bits). Borrowing increments
// the word's count in the same compare-and-swap that reads the address, so
// a record cannot be freed between being found and being counted. A
// borrower returns its count to the word while the record is still in it;
// once a replacer has taken the record out, it moves the word's count to
// the record and each remaining borrower settles there. (16 bits of count
// would take 65,536 callers inside the same few instructions at once.)
class CacheSlot {
 public:
  // A borrowed record (or none), returned when this goes out of scope.
  class Borrowed {
   public:
    Borrowed() = default;
    Borrowed(CacheSlot *slot, const CachedImage *record) : slot_(slot), record_(record) {}
    Borrowed(const Borrowed &) = delete;
    Borrowed &operator=(const Borrowed &) = delete;
    ~Borrowed() {
      if (record_ != nullptr) {
        slot_->Return(record_);
      }
    }
    const CachedImage *get() const { return record_; }

   private:
    CacheSlot *slot_ = nullptr;
    const CachedImage *record_ = nullptr;
  };

  Borrowed Borrow() {
    uint64_t word = word_.load(std::memory_order_acquire);
    for (;;) {
      const CachedImage *record = RecordOf(word);
      if (record == nullptr) {
        return Borrowed();
      }
      if (word_.compare_exchange_weak(word, word + kOneBorrow, std::memory_order_acq_rel,
                                      std::memory_order_acquire)) {
        return Borrowed(this, record);
      }
    }
  }

  // Installs fresh (owned from now on) if the slot still holds expected,
  // which the caller borrows (or null for an empty slot) so that its
  // address cannot have been reused. False, fresh untouched, otherwise.
  bool ReplaceIf(const CachedImage *expected, CachedImage *fresh) {
    uint64_t word = word_.load(std::memory_order_acquire);
    for (;;) {
      if (RecordOf(word) != expected) {
        return false;
      }
      if (word_.compare_exchange_weak(word, Pack(fresh), std::memory_order_acq_rel,
                                      std::memory_order_acquire)) {
        break;
      }
    }
    Retire(expected, word);
    return true;
  }

  // Empties the slot whatever it holds.
  void Clear() {
    uint64_t word = word_.exchange(0, std::memory_order_acq_rel);
    Retire(RecordOf(word), word);
  }

 private:
  static constexpr unsigned kCountShift = 48;
  static constexpr uint64_t kAddressMask = (uint64_t(1) << kCountShift) - 1;
  static constexpr uint64_t kOneBorrow = uint64_t(1) << kCountShift;

  static const CachedImage *RecordOf(uint64_t word) {
    return reinterpret_cast<const CachedImage *>(static_cast<uintptr_t>(word & kAddressMask));
  }

  static uint64_t Pack(const CachedImage *record) {
    auto address = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(record));
    if ((address & ~kAddressMask) != 0) {
      NOT_REACHED();  // user-space heap addresses fit 48 bits on this platform
    }
    return address;
  }

  // The record has left the slot: move the borrows counted in the word to
  // the record, freeing it when none is outstanding.
  static void Retire(const CachedImage *record, uint64_t word) {
    if (record == nullptr) {
      return;
    }
    auto borrows = static_cast<int64_t>(word >> kCountShift);
    auto *owned = const_cast<CachedImage *>(record);
    if (owned->refs.fetch_add(borrows, std::memory_order_acq_rel) + borrows == 0) {
      delete owned;
    }
  }

  void Return(const CachedImage *record) {
    uint64_t word = word_.load(std::memory_order_acquire);
    // Still in the slot: the word holds this borrow (so its count is at
    // least 1), and the record cannot be retired while it is borrowed.
    while (RecordOf(word) == record) {
      if (word_.compare_exchange_weak(word, word - kOneBorrow, std::memory_order_acq_rel,
                                      std::memory_order_acquire)) {
        return;
      }
    }
    auto *owned = const_cast<CachedImage *>(record);
    if (owned->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      delete owned;
    }
  }

  std::atomic<uint64_t> word_{0};
};

std::atomic<uint32_t> gRefreshCount{1};
// Published once by compare-and-swap and kept for the life of the process.
std::atomic<char *> gToolsDir{nullptr};
CacheSlot gCachedImage;

// The process-wide tools directory, fixing it to toolsDir (trailing "/"
// removed) on the first call with a directory. Null, logged, while unset
// and toolsDir is not a directory.
const char *ToolsDirectory(const char *toolsDir) {
  const char *published = gToolsDir.load(std::memory_order_acquire);
  if (published != nullptr) {
    return published;
  }
  if (!File_IsDirectory(toolsDir)) {
    Log("ToolsISO: Tools Dir path '%s' is not a directory.\n", Printable(toolsDir));
    return nullptr;
  }
  char *copy = UtilSafeStrdup0(toolsDir);
  for (size_t n = strlen(copy); n > 1 && copy[n - 1] == '/'; --n) {
    copy[n - 1] = '\0';
  }
  char *expected = nullptr;
  if (gToolsDir.compare_exchange_strong(expected, copy, std::memory_order_acq_rel,
                                        std::memory_order_acquire)) {
    return copy;
  }
  free(copy);  // another caller published first; its value stands
  return expected;
}

/* Reading and parsing the map. */

// A malloc'd buffer from ToolsISO_ReadFile.
struct FileBuffer {
  FileBuffer() = default;
  FileBuffer(const FileBuffer &) = delete;
  FileBuffer &operator=(const FileBuffer &) = delete;
  ~FileBuffer() { free(data); }
  bool Read(const char *path) { return ToolsISO_ReadFile(path, &data, &size); }
  const char *text() const { return reinterpret_cast<const char *>(data); }
  uint8_t *data = nullptr;
  size_t size = 0;
};

using DictionaryPtr = gp::UniqueDictionary;

std::string MapPath(const char *toolsDir) {
  return gp::UniqueText(Str_SafeAsprintf(nullptr, "%s/isoimages/%s", toolsDir, kMapName)).get();
}

struct ValueSearch {
  const char *wanted;
  bool found;
};

bool StopAtValue(const char * /*name*/, const char *value, void *ctx) {
  auto *search = static_cast<ValueSearch *>(ctx);
  search->found = strcmp(value, search->wanted) == 0;
  return !search->found;
}

// Whether the hint names an image the map (read from canonicalMap) or,
// with no readable map, the built-in table offers.
bool HintIsOffered(const char *hint, const std::string &canonicalMap, bool signatureRequired) {
  FileBuffer map;
  if (map.Read(canonicalMap.c_str())) {
    DictionaryPtr dict(
        ToolsIsoLoadImageMap(canonicalMap.c_str(), map.text(), map.size, signatureRequired));
    if (dict == nullptr) {
      return false;
    }
    // Names are compared exactly: the images live on a case-sensitive file
    // system.
    ValueSearch search{hint, false};
    Dictionary_Iterate(dict.get(), StopAtValue, &search);
    return search.found;
  }
  for (const ToolsImageRow &row : ToolsImageTable) {
    if (row.imageName != nullptr && strcmp(row.imageName, hint) == 0) {
      return true;
    }
  }
  return false;
}

// The image for the guest from the map at canonicalMap, or from the table
// when the map cannot be read. None when neither offers a valid one.
std::optional<std::string> ChooseImage(const char *guestOSKey, const std::string &canonicalMap,
                                       bool signatureRequired) {
  FileBuffer map;
  if (!map.Read(canonicalMap.c_str())) {
    const char *name = LookupImageRow(GuestOS_GetOSIDByName(guestOSKey)).imageName;
    return name != nullptr ? std::optional<std::string>(name) : std::nullopt;
  }
  DictionaryPtr dict(
      ToolsIsoLoadImageMap(canonicalMap.c_str(), map.text(), map.size, signatureRequired));
  if (dict == nullptr) {
    return std::nullopt;
  }
  gp::UniqueText value(Dict_GetString(dict.get(), nullptr, "%s", guestOSKey));
  if (value == nullptr) {
    Log("ToolsISO: Guest '%s' not found in Tools image map file '%s'\n", guestOSKey,
        canonicalMap.c_str());
    return std::nullopt;
  }
  if (!ToolsISO_ValidateName(value.get())) {
    Log("ToolsISO: Error Tools image map file '%s' contains invalid Tools image name: '%s'\n",
        canonicalMap.c_str(), value.get());
    return std::nullopt;
  }
  return std::string(value.get());
}

// The image name for a call without a hint: the cached one while the
// refresh counter allows, else chosen afresh and cached.
std::optional<std::string> CachedOrChosenImage(const char *guestOSKey, const std::string &mapPath,
                                               bool signatureRequired) {
  const uint32_t refreshCount = gRefreshCount.load(std::memory_order_acquire);
  CacheSlot::Borrowed cached = gCachedImage.Borrow();
  const CachedImage *seen = cached.get();
  if (seen != nullptr && seen->name.has_value()) {
    // While the counter is 1 nobody has asked for caching yet; a last count
    // of 0 was never a counter value.
    if (refreshCount != 1 && seen->lastCount != 0 && seen->lastCount >= refreshCount) {
      Log("ToolsISO: Using cached imageName '%s' for '%s' (refreshCount=%u, lastCount=%u).\n",
          seen->name->c_str(), guestOSKey, refreshCount, seen->lastCount);
      return seen->name;
    }
    Log("ToolsISO: Refreshing imageName for '%s' (refreshCount=%u, lastCount=%u).\n", guestOSKey,
        refreshCount, seen->lastCount);
  }

  gp::UniqueText canonicalMap(ToolsISO_GetRealPath(mapPath.c_str()));
  std::optional<std::string> chosen =
      ChooseImage(guestOSKey, canonicalMap.get(), signatureRequired);

  // Cache the answer, none included, unless another caller replaced the
  // record meanwhile: its answer may be newer than this one.
  auto *fresh = new CachedImage(chosen, refreshCount);
  if (gCachedImage.ReplaceIf(seen, fresh)) {
    Log("ToolsISO: Updated cached value for imageName to '%s'.\n",
        chosen.has_value() ? chosen->c_str() : "(null)");
  } else {
    delete fresh;
  }
  return chosen;
}

bool IsNameByte(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_';
}

}  // namespace

Dictionary *ToolsIsoLoadImageMap(const char *mapPath, const char *buffer, size_t length,
                                 bool signatureRequired) {
  gp::UniqueText sigPath(Str_SafeAsprintf(nullptr, "%s.sig", mapPath));
  FileBuffer signature;
  if (!signature.Read(sigPath.get())) {
    if (signatureRequired) {
      Log("ToolsISO: Unable to read signature file '%s'.\n", sigPath.get());
      return nullptr;
    }
    Log("ToolsISO: Unable to read signature file '%s', ignoring.\n", sigPath.get());
  } else if (!ToolsISO_VerifySignature(nullptr, signature.data, signature.size, buffer, length)) {
    // A signature that is there is always checked, required or not.
    Log("ToolsISO: Error signature check failed for Tools image map '%s'.\n", mapPath);
    return nullptr;
  }

  DictionaryPtr dict(Dictionary_Create());
  MsgList *messages = nullptr;
  if (!Dictionary_LoadFromBufferEx(dict.get(), buffer, length, &messages)) {
    gp::UniqueText why(MsgList_ToEnglishString(messages));
    MsgList_Free(messages);
    Log("ToolsISO: Error loading dictionary from Tools image map '%s': %s.\n", mapPath, why.get());
    return nullptr;
  }
  MsgList_Free(messages);
  return dict.release();
}

namespace gp {

void ResetToolsIsoStateForTest() {
  gRefreshCount.store(1);
  free(gToolsDir.exchange(nullptr));
  gCachedImage.Clear();
}

}  // namespace gp

extern "C" {

uint32_t ToolsISO_GetRefreshCount(void) {
  return gRefreshCount.load(std::memory_order_acquire);
}

void ToolsISO_UpdateRefreshCount(void) {
  gRefreshCount.fetch_add(1, std::memory_order_acq_rel);
}

const char *ToolsISO_GetImageBaseName(uint32_t guestId) {
  return LookupImageRow(guestId).baseName;
}

bool ToolsISO_ValidateName(const char *name) {
  if (name == nullptr) {
    return false;
  }
  std::string_view text(name);
  if (text.size() < kMinNameLength || text.size() > kMaxNameLength ||
      !text.ends_with(kImageSuffix)) {
    return false;
  }
  text.remove_suffix(strlen(kImageSuffix));
  for (char c : text) {
    if (!IsNameByte(c)) {
      return false;
    }
  }
  return true;
}

char *ToolsISO_GetRealPath(const char *path) {
  char *resolved = path != nullptr ? realpath(path, nullptr) : nullptr;
  if (resolved == nullptr) {
    int error = path != nullptr ? errno : EINVAL;
    Log("ToolsISO: Failed to get realpath for '%s' (error=%d)\n", Printable(path), error);
    return UtilSafeStrdup0(path);
  }
  return resolved;
}

bool ToolsISO_ReadFile(const char *path, uint8_t **buffer, size_t *size) {
  if (buffer != nullptr) {
    *buffer = nullptr;
  }
  if (size != nullptr) {
    *size = 0;
  }
  gp::ScopedFileIO file;
  FileIOResult result = FILEIO_INVALID_ARGUMENT;
  if (buffer != nullptr && size != nullptr) {
    result = FileIO_Open(&file.fd, path, kReadAccess, FILEIO_OPEN);
  }
  if (result != FILEIO_SUCCESS) {
    Log("ToolsISO: open of %s failed: %s\n", Printable(path), FileIO_ErrorEnglish(result));
    return false;
  }

  // Each failure still closes the file, and a failed close is a failure of
  // its own with its own line.
  auto closeFile = [&]() {
    if (FileIO_Close(&file.fd) != FILEIO_SUCCESS) {
      Log("ToolsISO: close of %s failed\n", path);
      return false;
    }
    return true;
  };

  const uint64_t fileSize = FileIO_GetSize(&file.fd);  // all ones on failure
  if (fileSize > kMaxReadSize) {
    Log("ToolsISO: getSize of %s failed.\n", path);
    closeFile();
    return false;
  }
  gp::UniqueText data(static_cast<char *>(UtilSafeMalloc0(fileSize + 1)));
  result = FileIO_Read(&file.fd, data.get(), fileSize, nullptr);
  if (result != FILEIO_SUCCESS) {
    Log("ToolsISO: read of %s failed: %s\n", path, FileIO_ErrorEnglish(result));
    closeFile();
    return false;
  }
  data.get()[fileSize] = '\0';
  if (!closeFile()) {
    return false;
  }
  *buffer = reinterpret_cast<uint8_t *>(data.release());
  *size = fileSize;
  return true;
}

bool ToolsISO_GetImagePath(const char *toolsDir, const char *guestOSKey, const char *hint,
                           bool signatureRequired, char **path, char **baseName, uint32_t *kind) {
  if (path != nullptr) {
    *path = nullptr;
  }
  if (baseName != nullptr) {
    *baseName = nullptr;
  }
  if (kind != nullptr) {
    *kind = 0;
  }
  if (path == nullptr) {
    return false;
  }
  // An unnamed guest is one no map or table row names.
  const char *guest = guestOSKey != nullptr ? guestOSKey : "";

  const char *dir = ToolsDirectory(toolsDir);
  if (dir == nullptr) {
    return false;
  }
  const std::string mapPath = MapPath(dir);

  std::optional<std::string> name;
  if (hint != nullptr) {
    bool offered = false;
    if (!ToolsISO_ValidateName(hint)) {
      Log("ToolsISO: Error invalid Tools image name: '%s'\n", hint);
    } else {
      gp::UniqueText canonicalMap(ToolsISO_GetRealPath(mapPath.c_str()));
      offered = HintIsOffered(hint, canonicalMap.get(), signatureRequired);
      if (!offered) {
        Log("ToolsISO: Error unexpected Tools image name: '%s'\n", hint);
      }
    }
    if (!offered) {
      Log("ToolsISO: Error invalid hint '%s' for Tools image.\n", hint);
      return false;
    }
    name = hint;  // a hint neither reads nor changes the cache
  } else {
    name = CachedOrChosenImage(guest, mapPath, signatureRequired);
  }
  if (!name.has_value()) {
    return false;
  }

  Log("ToolsISO: Selected Tools ISO '%s' for '%s' guest.\n", name->c_str(), guest);
  *path = Str_SafeAsprintf(nullptr, "%s/isoimages/%s", dir, name->c_str());
  if (baseName != nullptr) {
    *baseName = UtilSafeStrdup0(name->substr(0, name->rfind('.')).c_str());
  }
  if (kind != nullptr) {
    *kind = GuestOS_IsWin(GuestOS_GetOSIDByName(guest)) ? kKindWindows : kKindOther;
  }
  return true;
}

}  // extern "C"
