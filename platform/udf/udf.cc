// UDF reader. Every structure is read through gp::ImageReader and checked
// before use; internal functions return false with a message in an Error
// and the exported function that started the work reports it once, through
// the volume's DamageOnce (expected outcomes at the verbose log level only).
#include "platform/udf/udf.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <list>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/log/log.h"
#include "platform/udf/udfFormat.h"

using namespace gp::udf;

namespace {

// Limits against hostile images.
constexpr uint32_t kVrsFirstByte = 32768;
constexpr unsigned kMaxVrsDescriptors = 64;
constexpr uint32_t kAnchorSector = 256;
constexpr unsigned kMaxVdsSectors = 512;  // over all continuations
constexpr unsigned kMaxPartitionMaps = 16;
constexpr uint64_t kMaxDirectorySize = 32ull << 20;
constexpr size_t kMaxDirectoryEntries = 1u << 17;
constexpr unsigned kMaxAdChain = 4096;  // allocation extent descriptors per entry
constexpr size_t kMaxFileExtents = 1u << 18;
constexpr unsigned kMaxPathDepth = 128;
constexpr size_t kMaxNameBytes = 1024;  // 255 UCS-2 units as UTF-8, with room
// Parsed directories and file entries kept per volume, least recently used
// dropped first; together well under the 64 MiB a volume may use.
constexpr size_t kDirCacheBytes = 16u << 20;
constexpr size_t kEntryCacheBytes = 4u << 20;
// Metadata (file entries, allocation extents, directories) a volume may read
// in its life: the image's size plus the floor, at most the cap (also when
// the size is unknown). A sound image holds each structure once and the
// caches read it about once; an image that points thousands of entries at
// one structure is cut off here instead of being read thousands of times.
constexpr uint64_t kMetaBudgetFloor = 4ull << 20;
constexpr uint64_t kMetaBudgetCap = 1ull << 30;
// Resynchronising after a damaged file identifier checks CRCs at every
// aligned position; bounded per directory so planted tags cannot make it
// quadratic.
constexpr uint64_t kResyncSlack = 64u << 10;

// Block sizes tried for the anchor, most common first.
constexpr std::array<uint32_t, 4> kBlockSizes = {2048, 512, 1024, 4096};

// ICB file types.
constexpr uint8_t kFileTypeDirectory = 4;
constexpr uint8_t kFileTypeRegular = 5;
constexpr uint8_t kFileTypeSymlink = 12;
constexpr uint8_t kFileTypeMetadata = 250;
constexpr uint8_t kFileTypeMetadataMirror = 251;

// File characteristics in a File Identifier Descriptor.
constexpr uint8_t kFidDirectory = 0x02;
constexpr uint8_t kFidDeleted = 0x04;
constexpr uint8_t kFidParent = 0x08;

struct Error {
  std::string msg;
  bool quiet = false;  // an expected outcome (not UDF, not found): verbose level only
};

std::string Format(const char *fmt, va_list args) {
  char buf[256];
  vsnprintf(buf, sizeof buf, fmt, args);
  return buf;
}

bool Fail(Error *err, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
bool Fail(Error *err, const char *fmt, ...) {
  if (err->msg.empty()) {
    va_list args;
    va_start(args, fmt);
    err->msg = Format(fmt, args);
    va_end(args);
  }
  return false;
}

bool Quiet(Error *err, const char *what, std::string_view name) {
  err->quiet = true;
  return Fail(err, "%s \"%.*s\"", what, static_cast<int>(name.size()), name.data());
}

// A place in a partition: logical block and index into the volume's
// partition table.
struct Addr {
  uint32_t block = 0;
  uint16_t part = 0;
  bool operator==(const Addr &) const = default;
  auto operator<=>(const Addr &) const = default;
};

struct AddrHash {
  size_t operator()(const Addr &a) const {
    return std::hash<uint64_t>{}(static_cast<uint64_t>(a.block) << 16 | a.part);
  }
};

enum ExtentType : uint8_t {
  kRecorded = 0,
  kAllocated = 1,  // allocated, not recorded: reads as zeros
  kSparse = 2,     // neither: reads as zeros
  kNextAds = 3,
};

struct Extent {
  uint64_t fileOffset;  // where in the file this extent starts
  uint32_t length;      // bytes, never 0, never past the file's size
  uint32_t block;
  uint16_t part;
  uint8_t type;
};

// What a File Entry or Extended File Entry says about a file.
struct Entry {
  Addr icb;
  uint8_t fileType = 0;
  uint64_t size = 0;
  bool embedded = false;
  std::vector<uint8_t> inline_;  // embedded data
  std::vector<Extent> extents;   // contiguous from offset 0, covering exactly size
  size_t Cost() const {
    return sizeof *this + inline_.capacity() + extents.capacity() * sizeof(Extent);
  }
};

struct Partition {
  bool metadata = false;
  uint64_t start = 0;   // first block on the image (physical partitions)
  uint64_t blocks = 0;  // usable blocks (clipped to the image when its size is known)
  // Metadata partitions: the metadata file, whose extents lie in the
  // physical partition at index phys.
  uint16_t phys = 0;
  Entry file;
};

struct DirEntry {
  std::string name;
  Addr icb;
  bool isDirectory;
};

// One parsed directory, shared by every handle on it.
struct DirData {
  std::vector<DirEntry> entries;  // directory order
  std::vector<uint32_t> byName;   // indices into entries, by name, then directory order
  size_t Cost() const {
    size_t n = sizeof *this + entries.capacity() * sizeof(DirEntry) + byName.capacity() * 4;
    for (const DirEntry &e : entries) {
      n += e.name.capacity();
    }
    return n;
  }
  // The entries called name, in directory order.
  std::span<const uint32_t> Find(std::string_view name) const {
    auto [lo, hi] =
        std::equal_range(byName.begin(), byName.end(), name,
                         [this](const auto &a, const auto &b) { return Key(a) < Key(b); });
    return {lo, hi};
  }

 private:
  std::string_view Key(uint32_t i) const { return entries[i].name; }
  static std::string_view Key(std::string_view s) { return s; }
};

// Parsed structures by ICB address. A null value records a structure found
// damaged (already reported), so it is neither reread nor reported again.
template <typename T>
class LruCache {
 public:
  explicit LruCache(size_t capacity) : capacity_(capacity) {}
  // Null when not cached; else the cached value, now the most recent.
  const std::shared_ptr<const T> *Find(Addr key) {
    auto it = index_.find(key);
    if (it == index_.end()) {
      return nullptr;
    }
    order_.splice(order_.begin(), order_, it->second);
    return &it->second->value;
  }
  void Put(Addr key, std::shared_ptr<const T> value, size_t cost) {
    order_.push_front(Node{key, std::move(value), cost});
    index_[key] = order_.begin();
    used_ += cost;
    // The newest stays even when alone over the cap: its caller uses it now.
    while (used_ > capacity_ && order_.size() > 1) {
      used_ -= order_.back().cost;
      index_.erase(order_.back().key);
      order_.pop_back();
    }
  }

 private:
  struct Node {
    Addr key;
    std::shared_ptr<const T> value;
    size_t cost;
  };
  size_t capacity_;
  size_t used_ = 0;
  std::list<Node> order_;
  std::unordered_map<Addr, typename std::list<Node>::iterator, AddrHash> index_;
};

constexpr size_t kDamagedCost = 64;  // what a remembered failure costs in a cache

}  // namespace

struct UDFVolume {
  explicit UDFVolume(gp::DamageReporter *reporter) : damage(reporter, "UDF") {}
  std::unique_ptr<gp::ImageReader> reader;
  gp::DamageOnce damage;
  uint32_t blockSize = 2048;
  uint64_t imageBlocks = 0;  // 0 when the image size is unknown
  std::vector<Partition> parts;
  size_t mapCount = 0;  // entries of parts an image may refer to
  Addr root;
  uint64_t metaBudget = kMetaBudgetCap;  // metadata bytes still allowed
  LruCache<DirData> dirs{kDirCacheBytes};
  LruCache<Entry> entries{kEntryCacheBytes};
};

struct UDFDir {
  UDFVolume *volume;
  Addr icb;
  std::vector<Addr> ancestors;  // ICBs from the root down to the parent
  std::shared_ptr<const DirData> data;
  size_t next = 0;
};

struct UDFFile {
  UDFVolume *volume;
  std::shared_ptr<const Entry> entry;
};

namespace {

// Damage the volume met and skipped; the volume's first goes to its
// reporter, the rest are counted.
void Damage(UDFVolume *vol, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void Damage(UDFVolume *vol, const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  vol->damage.Report(Format(fmt, args));
  va_end(args);
}

// Hands the failure an exported function ends with to the volume.
void Report(UDFVolume *vol, const Error &err) {
  const char *msg = err.msg.empty() ? "unknown failure" : err.msg.c_str();
  if (err.quiet) {
    Log_Level(LOG_LEVEL_VERBOSE, "UDF: %s\n", msg);
  } else {
    vol->damage.Report(msg);
  }
}

// ---------------------------------------------------------------------------
// Descriptor tags and strings

bool CheckTag(const uint8_t *buf, size_t avail, uint16_t wantId, uint32_t location, bool checkLoc,
              Error *err, const char *what) {
  if (avail < kTagSize) {
    return Fail(err, "%s is truncated", what);
  }
  uint16_t id = Le16(buf);
  if (id != wantId) {
    return Fail(err, "%s has tag %u, expected %u", what, id, wantId);
  }
  if (TagChecksum(buf) != buf[4]) {
    return Fail(err, "%s tag checksum mismatch", what);
  }
  uint16_t crcLen = Le16(buf + 10);
  if (crcLen > avail - kTagSize) {
    return Fail(err, "%s CRC length %u runs past the descriptor", what, crcLen);
  }
  if (Crc16(buf + kTagSize, crcLen) != Le16(buf + 8)) {
    return Fail(err, "%s CRC mismatch", what);
  }
  if (checkLoc && Le32(buf + 12) != location) {
    return Fail(err, "%s records location %u but lies at %u", what, Le32(buf + 12), location);
  }
  return true;
}

void AppendUtf8(std::string *out, uint32_t cp) {
  if (cp < 0x80) {
    out->push_back(static_cast<char>(cp));
  } else {
    out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

}  // namespace

namespace gp::udf {

bool DecodeCs0(const uint8_t *data, size_t len, std::string *out) {
  out->clear();
  if (len == 0) {
    return true;
  }
  uint8_t comp = data[0];
  const uint8_t *p = data + 1;
  size_t n = len - 1;
  if (comp == 8 || comp == 254) {
    for (size_t i = 0; i < n; ++i) {
      AppendUtf8(out, p[i]);
    }
    return true;
  }
  if (comp != 16 && comp != 255) {
    return false;
  }
  // Stray surrogates become U+FFFD rather than failing the name.
  if (!Ucs2BeToUtf8(p, n, out)) {
    out->clear();
    return false;
  }
  return true;
}

}  // namespace gp::udf

namespace {

// ---------------------------------------------------------------------------
// Reading blocks

bool ReadImage(UDFVolume *vol, uint64_t offset, void *buf, size_t len, Error *err) {
  if (!vol->reader->ReadAt(offset, buf, len)) {
    return Fail(err, "read of %zu bytes at offset %llu failed", len,
                static_cast<unsigned long long>(offset));
  }
  return true;
}

// Takes bytes of metadata reading from the volume's allowance.
bool Charge(UDFVolume *vol, uint64_t bytes, Error *err) {
  if (bytes > vol->metaBudget) {
    vol->metaBudget = 0;
    return Fail(err, "image metadata needs more reading than its size allows");
  }
  vol->metaBudget -= bytes;
  return true;
}

// Reads len bytes at byte offset off of block in partition part. The range
// must lie inside the partition (and the image).
bool ReadPart(UDFVolume *vol, uint16_t part, uint32_t block, uint64_t off, void *buf, size_t len,
              Error *err) {
  if (part >= vol->parts.size()) {
    return Fail(err, "partition reference %u out of range", part);
  }
  const Partition &p = vol->parts[part];
  const uint64_t bs = vol->blockSize;
  const uint64_t pos = static_cast<uint64_t>(block) * bs + off;
  const uint64_t limit = p.metadata ? p.file.size : p.blocks * bs;
  if (pos > limit || len > limit - pos) {
    return Fail(err, "block %u of partition %u lies past its end", block, part);
  }
  if (!p.metadata) {
    return ReadImage(vol, p.start * bs + pos, buf, len, err);
  }
  // Metadata partition: map through the metadata file's extents, which lie
  // in a physical partition and were checked when the volume was opened.
  const std::vector<Extent> &ext = p.file.extents;
  auto it = std::upper_bound(ext.begin(), ext.end(), pos,
                             [](uint64_t v, const Extent &e) { return v < e.fileOffset; });
  uint8_t *out = static_cast<uint8_t *>(buf);
  uint64_t at = pos;
  size_t left = len;
  for (auto i = it == ext.begin() ? it : it - 1; left > 0; ++i) {
    if (i == ext.end() || at < i->fileOffset || at - i->fileOffset >= i->length) {
      return Fail(err, "metadata block %u is not mapped", block);
    }
    uint64_t inExt = at - i->fileOffset;
    size_t piece = static_cast<size_t>(std::min<uint64_t>(left, i->length - inExt));
    if (i->type == kRecorded) {
      if (!ReadPart(vol, p.phys, i->block, inExt, out, piece, err)) {
        return false;
      }
    } else {
      memset(out, 0, piece);
    }
    out += piece;
    at += piece;
    left -= piece;
  }
  return true;
}

// Checks that a data extent lies inside its partition.
bool CheckExtent(const UDFVolume *vol, const Extent &e, Error *err) {
  if (e.type == kSparse) {
    return true;
  }
  if (e.part >= vol->parts.size()) {
    return Fail(err, "extent refers to partition %u of %zu", e.part, vol->parts.size());
  }
  const Partition &p = vol->parts[e.part];
  const uint64_t bs = vol->blockSize;
  const uint64_t limit = p.metadata ? p.file.size : p.blocks * bs;
  const uint64_t pos = static_cast<uint64_t>(e.block) * bs;
  if (pos > limit || e.length > limit - pos) {
    return Fail(err, "extent at block %u (%u bytes) runs past partition %u", e.block, e.length,
                e.part);
  }
  return true;
}

// Refuses a file whose extents share blocks: one recorded block read as
// many parts of a file is how a small image poses as a huge one.
bool CheckNoAliasing(const UDFVolume *vol, const Entry &entry, Error *err) {
  struct Span {
    uint16_t part;
    uint64_t from, to;
    auto operator<=>(const Span &) const = default;
  };
  std::vector<Span> spans;
  for (const Extent &e : entry.extents) {
    if (e.type != kSparse) {
      uint64_t from = static_cast<uint64_t>(e.block) * vol->blockSize;
      spans.push_back(Span{e.part, from, from + e.length});
    }
  }
  std::sort(spans.begin(), spans.end());
  for (size_t i = 1; i < spans.size(); ++i) {
    if (spans[i].part == spans[i - 1].part && spans[i].from < spans[i - 1].to) {
      return Fail(err, "file entry at block %u has extents sharing block %llu", entry.icb.block,
                  static_cast<unsigned long long>(spans[i].from / vol->blockSize));
    }
    if (spans[i].part == spans[i - 1].part) {
      spans[i].to = std::max(spans[i].to, spans[i - 1].to);  // a long extent covers several
    }
  }
  return true;
}

// ---------------------------------------------------------------------------
// File entries and allocation descriptors

// Collects the data extents of the allocation descriptors in ads, following
// continuation extents through Allocation Extent Descriptors, up to the
// file's size: whatever lies past it is never read, so it is not followed.
bool ParseAds(UDFVolume *vol, Entry *entry, unsigned adType, const uint8_t *ads, size_t adLen,
              Error *err) {
  const size_t adSize = adType == 0 ? 8 : adType == 1 ? 16 : 20;
  const uint32_t bs = vol->blockSize;
  std::set<Addr> visited{entry->icb};
  std::vector<uint8_t> aed;
  uint64_t fileOffset = 0;
  unsigned chain = 0;
  while (fileOffset < entry->size) {
    Addr nextAed;
    bool haveNext = false;
    for (size_t pos = 0; pos + adSize <= adLen && fileOffset < entry->size; pos += adSize) {
      const uint8_t *ad = ads + pos;
      uint32_t rawLen = Le32(ad);
      if (rawLen == 0) {
        break;
      }
      Extent e{};
      e.type = static_cast<uint8_t>(rawLen >> 30);
      e.length = rawLen & 0x3FFFFFFF;
      if (adType == 0) {
        e.block = Le32(ad + 4);
        e.part = entry->icb.part;
      } else if (adType == 1) {
        e.block = Le32(ad + 4);
        e.part = Le16(ad + 8);
      } else {
        e.block = Le32(ad + 12);
        e.part = Le16(ad + 16);
      }
      if (adType != 0 && e.part >= vol->mapCount) {
        return Fail(err, "allocation descriptor refers to partition %u of %zu", e.part,
                    vol->mapCount);
      }
      if (e.type == kNextAds) {
        nextAed = Addr{e.block, e.part};
        haveNext = true;
        break;  // the rest of this area is unused
      }
      if (e.length == 0) {
        continue;
      }
      e.length = static_cast<uint32_t>(std::min<uint64_t>(e.length, entry->size - fileOffset));
      if (!CheckExtent(vol, e, err)) {
        return false;
      }
      if (entry->extents.size() >= kMaxFileExtents) {
        return Fail(err, "file has more than %zu extents", kMaxFileExtents);
      }
      e.fileOffset = fileOffset;
      fileOffset += e.length;
      entry->extents.push_back(e);
    }
    if (!haveNext || fileOffset >= entry->size) {
      break;
    }
    if (++chain > kMaxAdChain) {
      return Fail(err, "allocation descriptor chain longer than %u", kMaxAdChain);
    }
    if (!visited.insert(nextAed).second) {
      return Fail(err, "allocation extent at block %u loops back", nextAed.block);
    }
    aed.assign(bs, 0);
    if (!Charge(vol, bs, err) ||
        !ReadPart(vol, nextAed.part, nextAed.block, 0, aed.data(), bs, err) ||
        !CheckTag(aed.data(), bs, kTagAllocExtent, nextAed.block, true, err,
                  "allocation extent descriptor")) {
      return false;
    }
    uint32_t len = Le32(aed.data() + 20);
    if (len > bs - 24) {
      return Fail(err, "allocation extent descriptor length %u too large", len);
    }
    ads = aed.data() + 24;
    adLen = len;
  }
  if (fileOffset < entry->size) {
    return Fail(err, "file entry at block %u records %llu bytes but allocates %llu",
                entry->icb.block, static_cast<unsigned long long>(entry->size),
                static_cast<unsigned long long>(fileOffset));
  }
  return CheckNoAliasing(vol, *entry, err);
}

bool LoadEntry(UDFVolume *vol, Addr icb, Entry *entry, Error *err) {
  const uint32_t bs = vol->blockSize;
  std::vector<uint8_t> buf(bs);
  if (!Charge(vol, bs, err) || !ReadPart(vol, icb.part, icb.block, 0, buf.data(), bs, err)) {
    return false;
  }
  const uint16_t id = Le16(buf.data());
  if (id != kTagFileEntry && id != kTagExtFileEntry) {
    return Fail(err, "block %u of partition %u is not a file entry (tag %u)", icb.block, icb.part,
                id);
  }
  if (!CheckTag(buf.data(), bs, id, icb.block, true, err, "file entry")) {
    return false;
  }
  const uint8_t *p = buf.data();
  uint16_t strategy = Le16(p + 16 + 4);
  if (strategy != 4 && strategy != 4096) {
    return Fail(err, "file entry at block %u uses ICB strategy %u", icb.block, strategy);
  }
  entry->icb = icb;
  entry->fileType = p[16 + 11];
  entry->size = Le64(p + 56);
  const size_t header = id == kTagFileEntry ? kFileEntryHeader : kExtFileEntryHeader;
  const uint32_t lEa = Le32(p + header - 8);
  const uint32_t lAd = Le32(p + header - 4);
  if (static_cast<uint64_t>(lEa) + lAd > bs - header) {
    return Fail(err, "file entry at block %u: attribute and descriptor lengths %u+%u too large",
                icb.block, lEa, lAd);
  }
  const uint8_t *ads = p + header + lEa;
  const unsigned adType = Le16(p + 16 + 18) & 7;
  if (adType == 3) {
    if (entry->size > lAd) {
      return Fail(err, "embedded file at block %u records %llu bytes in %u", icb.block,
                  static_cast<unsigned long long>(entry->size), lAd);
    }
    entry->embedded = true;
    entry->inline_.assign(ads, ads + entry->size);
    return true;
  }
  if (adType > 3) {
    return Fail(err, "file entry at block %u has allocation type %u", icb.block, adType);
  }
  return ParseAds(vol, entry, adType, ads, lAd, err);
}

// The structure at icb through a volume cache: loaded once; a damaged one
// is remembered, so later lookups fail without rereading it.
template <typename T, typename Load>
std::shared_ptr<const T> CachedLoad(LruCache<T> &cache, Addr icb, const char *what, Load load,
                                    Error *err) {
  if (const auto *hit = cache.Find(icb)) {
    if (*hit == nullptr) {
      Fail(err, "%s at block %u of partition %u is damaged", what, icb.block, icb.part);
    }
    return *hit;
  }
  auto value = std::make_shared<T>();
  if (!load(value.get())) {
    cache.Put(icb, nullptr, kDamagedCost);
    return nullptr;
  }
  cache.Put(icb, value, value->Cost());
  return value;
}

// The entry at icb (an address the image gave), through the volume's cache.
std::shared_ptr<const Entry> GetEntry(UDFVolume *vol, Addr icb, Error *err) {
  if (icb.part >= vol->mapCount) {
    Fail(err, "entry refers to partition %u of %zu", icb.part, vol->mapCount);
    return nullptr;
  }
  return CachedLoad(
      vol->entries, icb, "file entry",
      [&](Entry *entry) { return LoadEntry(vol, icb, entry, err); }, err);
}

// Checked by the caller: the range lies inside the file.
bool ReadEntryData(UDFVolume *vol, const Entry &entry, uint64_t offset, void *buf, size_t len,
                   Error *err) {
  uint8_t *out = static_cast<uint8_t *>(buf);
  if (entry.embedded) {
    if (len > 0) {
      memcpy(out, entry.inline_.data() + offset, len);
    }
    return true;
  }
  const std::vector<Extent> &ext = entry.extents;
  auto it = std::upper_bound(ext.begin(), ext.end(), offset,
                             [](uint64_t v, const Extent &e) { return v < e.fileOffset; });
  size_t i = it == ext.begin() ? 0 : static_cast<size_t>(it - ext.begin()) - 1;
  uint64_t at = offset;
  while (len > 0) {
    // Extents cover exactly the size, in order, none empty (checked when loaded).
    if (i < ext.size() && at - ext[i].fileOffset >= ext[i].length) {
      ++i;
    }
    if (i == ext.size()) {
      return Fail(err, "file offset %llu is not mapped", static_cast<unsigned long long>(at));
    }
    const Extent &e = ext[i];
    uint64_t inExt = at - e.fileOffset;
    size_t piece = static_cast<size_t>(std::min<uint64_t>(len, e.length - inExt));
    if (e.type == kRecorded) {
      if (!ReadPart(vol, e.part, e.block, inExt, out, piece, err)) {
        return false;
      }
    } else {
      memset(out, 0, piece);
    }
    out += piece;
    at += piece;
    len -= piece;
  }
  return true;
}

// ---------------------------------------------------------------------------
// Directories

// The length of a sound File Identifier Descriptor at f, or 0. crcWork
// counts the bytes checksummed.
size_t SoundFid(const uint8_t *f, size_t left, uint64_t *crcWork) {
  if (left < kFidHeader || Le16(f) != kTagFileId || TagChecksum(f) != f[4]) {
    return 0;
  }
  const size_t fidLen = (kFidHeader + Le16(f + 36) + f[19] + 3) & ~static_cast<size_t>(3);
  const uint16_t crcLen = Le16(f + 10);
  if (fidLen > left || crcLen > fidLen - kTagSize) {
    return 0;
  }
  *crcWork += crcLen;
  return Crc16(f + kTagSize, crcLen) == Le16(f + 8) ? fidLen : 0;
}

// Lists the identifiers in data. A damaged one is skipped, scanning on to
// the next aligned position that holds a sound identifier, so one bad
// record does not hide the rest; the damage is reported once.
void ParseDirectory(UDFVolume *vol, Addr icb, const std::vector<uint8_t> &data, DirData *out) {
  size_t pos = 0;
  size_t badFids = 0, firstBad = 0, badNames = 0;
  uint64_t crcWork = 0;
  const uint64_t workLimit = 2 * static_cast<uint64_t>(data.size()) + kResyncSlack;
  const char *stopped = nullptr;
  std::string name;
  while (pos < data.size()) {
    const size_t left = data.size() - pos;
    const uint8_t *f = data.data() + pos;
    if (left < kFidHeader && std::all_of(f, f + left, [](uint8_t b) { return b == 0; })) {
      break;  // blank trailing slack shorter than a descriptor
    }
    const size_t fidLen = SoundFid(f, left, &crcWork);
    if (fidLen == 0) {
      if (badFids++ == 0) {
        firstBad = pos;
      }
      pos += 4;
      if (crcWork > workLimit) {
        stopped = "too much damage to resynchronise";
        break;
      }
      continue;
    }
    pos += fidLen;
    const uint8_t chars = f[18];
    if (chars & (kFidDeleted | kFidParent)) {
      continue;
    }
    if (out->entries.size() >= kMaxDirectoryEntries) {
      stopped = "too many entries";
      break;
    }
    const uint8_t lFi = f[19];
    if (!DecodeCs0(f + kFidHeader + Le16(f + 36), lFi, &name) || name.empty() ||
        name.size() > kMaxNameBytes || name.find('/') != std::string::npos ||
        name.find('\0') != std::string::npos || name == "." || name == "..") {
      ++badNames;
      continue;
    }
    out->entries.push_back(
        DirEntry{name, Addr{Le32(f + 20 + 4), Le16(f + 20 + 8)}, (chars & kFidDirectory) != 0});
  }
  if (badFids > 0) {
    Damage(vol, "directory at block %u: skipped damaged file identifiers from byte %zu", icb.block,
           firstBad);
  }
  if (badNames > 0) {
    Damage(vol, "directory at block %u: skipped %zu entries with unusable names", icb.block,
           badNames);
  }
  if (stopped != nullptr) {
    Damage(vol, "directory at block %u: %s, the rest ignored", icb.block, stopped);
  }
  out->byName.resize(out->entries.size());
  for (size_t i = 0; i < out->byName.size(); ++i) {
    out->byName[i] = static_cast<uint32_t>(i);
  }
  std::stable_sort(out->byName.begin(), out->byName.end(), [out](uint32_t a, uint32_t b) {
    return out->entries[a].name < out->entries[b].name;
  });
}

// Loads and parses the directory at icb.
bool LoadDirectory(UDFVolume *vol, Addr icb, DirData *out, Error *err) {
  std::shared_ptr<const Entry> entry = GetEntry(vol, icb, err);
  if (entry == nullptr) {
    return false;
  }
  if (entry->fileType != kFileTypeDirectory) {
    return Fail(err, "entry at block %u is not a directory (type %u)", icb.block, entry->fileType);
  }
  if (entry->size > kMaxDirectorySize) {
    return Fail(err, "directory at block %u is %llu bytes (limit %llu)", icb.block,
                static_cast<unsigned long long>(entry->size),
                static_cast<unsigned long long>(kMaxDirectorySize));
  }
  // A directory is read whole: every byte of it must be on the image.
  for (const Extent &e : entry->extents) {
    if (e.type != kRecorded) {
      return Fail(err, "directory at block %u has unrecorded extents", icb.block);
    }
  }
  if (!entry->embedded && !Charge(vol, entry->size, err)) {
    return false;
  }
  std::vector<uint8_t> data(static_cast<size_t>(entry->size));
  if (!ReadEntryData(vol, *entry, 0, data.data(), data.size(), err)) {
    return false;
  }
  ParseDirectory(vol, icb, data, out);
  return true;
}

// The directory at icb (an address the image gave), through the volume's
// cache.
std::shared_ptr<const DirData> GetDir(UDFVolume *vol, Addr icb, Error *err) {
  return CachedLoad(
      vol->dirs, icb, "directory", [&](DirData *dir) { return LoadDirectory(vol, icb, dir, err); },
      err);
}

std::vector<std::string_view> SplitPath(std::string_view path) {
  std::vector<std::string_view> parts;
  size_t pos = 0;
  while (pos <= path.size()) {
    size_t slash = path.find('/', pos);
    if (slash == std::string_view::npos) {
      slash = path.size();
    }
    std::string_view part = path.substr(pos, slash - pos);
    if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    pos = slash + 1;
  }
  return parts;
}

// Walks count components from start (null: the root) and returns the
// directory they name as a new handle. Of entries sharing a name, the first
// directory that loads wins; the damaged ones are reported and skipped.
bool WalkDirs(UDFVolume *vol, const UDFDir *start, const std::vector<std::string_view> &parts,
              size_t count, UDFDir **out, Error *err) {
  if (count > kMaxPathDepth) {
    return Quiet(err, "path too deep", parts[0]);
  }
  auto cur = std::make_unique<UDFDir>();
  if (start == nullptr) {
    cur->volume = vol;
    cur->icb = vol->root;
    if ((cur->data = GetDir(vol, vol->root, err)) == nullptr) {
      return false;
    }
  } else {
    *cur = *start;
    cur->next = 0;
  }
  for (size_t i = 0; i < count; ++i) {
    std::span<const uint32_t> found = cur->data->Find(parts[i]);
    std::shared_ptr<const DirData> next;
    Addr nextIcb;
    bool sawDirectory = false;
    for (uint32_t index : found) {
      const DirEntry &e = cur->data->entries[index];
      if (!e.isDirectory) {
        continue;
      }
      sawDirectory = true;
      Error damage;
      if (e.icb == cur->icb ||
          std::find(cur->ancestors.begin(), cur->ancestors.end(), e.icb) != cur->ancestors.end()) {
        Fail(&damage, "directory at block %u is its own ancestor", e.icb.block);
      } else if (cur->ancestors.size() + 1 >= kMaxPathDepth) {
        Fail(&damage, "directories nested deeper than %u", kMaxPathDepth);
      } else {
        next = GetDir(vol, e.icb, &damage);
      }
      if (next != nullptr) {
        nextIcb = e.icb;
        break;
      }
      Report(vol, damage);
    }
    if (next == nullptr) {
      return Quiet(err,
                   sawDirectory    ? "no usable directory"
                   : found.empty() ? "no such directory"
                                   : "not a directory",
                   parts[i]);
    }
    cur->ancestors.push_back(cur->icb);
    cur->icb = nextIcb;
    cur->data = std::move(next);
  }
  *out = cur.release();
  return true;
}

// ---------------------------------------------------------------------------
// Opening a volume

// True when the Volume Recognition Sequence names an NSR descriptor.
bool HasUdfRecognition(gp::ImageReader *reader, uint32_t step) {
  bool inExtended = false;
  for (unsigned i = 0; i < kMaxVrsDescriptors; ++i) {
    uint8_t d[7];
    if (!reader->ReadAt(kVrsFirstByte + static_cast<uint64_t>(i) * step, d, sizeof d)) {
      return false;
    }
    std::string_view id(reinterpret_cast<const char *>(d + 1), 5);
    if (id == "BEA01") {
      inExtended = true;
    } else if (id == "TEA01") {
      inExtended = false;
    } else if (id == "NSR02" || id == "NSR03") {
      if (inExtended) {
        return true;
      }
    } else if (id != "CD001" && id != "CDW02" && id != "BOOT2") {
      return false;
    }
  }
  return false;
}

bool FindAnchor(UDFVolume *vol, uint8_t *avdp, Error *err) {
  const uint64_t size = vol->reader->Size();
  for (uint32_t bs : kBlockSizes) {
    std::vector<uint64_t> sectors{kAnchorSector};
    const uint64_t n = size == gp::ImageReader::kUnknownSize ? 0 : size / bs;
    // The backups: 256 blocks before the end, and the last block.
    if (n > 2 * kAnchorSector) {
      sectors.push_back(n - kAnchorSector);
    }
    if (n > kAnchorSector + 1) {
      sectors.push_back(n - 1);
    }
    for (uint64_t s : sectors) {
      Error ignored;
      if (vol->reader->ReadAt(s * bs, avdp, 512) &&
          CheckTag(avdp, 512, kTagAnchor, static_cast<uint32_t>(s), true, &ignored, "anchor")) {
        vol->blockSize = bs;
        vol->imageBlocks = n;
        return true;
      }
    }
  }
  return Fail(err, "no valid anchor volume descriptor pointer");
}

struct VdsResult {
  bool havePvd = false;
  bool haveLvd = false;
  uint32_t lvdSeq = 0;
  std::vector<uint8_t> lvd;
  struct Pd {
    uint32_t seq;
    uint16_t number;
    uint32_t start;
    uint32_t length;
  };
  std::vector<Pd> pds;
};

bool ReadVds(UDFVolume *vol, uint32_t location, uint32_t length, VdsResult *out, Error *err) {
  const uint32_t bs = vol->blockSize;
  std::vector<uint8_t> buf(bs);
  uint64_t sector = location;
  uint64_t end = sector + length / bs;
  for (unsigned count = 0;; ++count) {
    if (sector >= end) {
      break;  // an extent without a terminating descriptor ends the sequence
    }
    if (count >= kMaxVdsSectors) {
      return Fail(err, "volume descriptor sequence longer than %u sectors", kMaxVdsSectors);
    }
    if (sector > UINT32_MAX || (vol->imageBlocks != 0 && sector >= vol->imageBlocks)) {
      return Fail(err, "volume descriptor at sector %llu lies past the end of the image",
                  static_cast<unsigned long long>(sector));
    }
    if (!ReadImage(vol, sector * bs, buf.data(), bs, err)) {
      return false;
    }
    const uint16_t id = Le16(buf.data());
    if (id == 0 && std::all_of(buf.begin(), buf.begin() + kTagSize, [](uint8_t b) { return !b; })) {
      break;  // blank sector: the recorded sequence ended without a terminator
    }
    if (!CheckTag(buf.data(), bs, id, static_cast<uint32_t>(sector), true, err,
                  "volume descriptor")) {
      return false;
    }
    const uint8_t *p = buf.data();
    if (id == kTagTerminating) {
      break;
    }
    switch (id) {
      case kTagPrimaryVolume:
        out->havePvd = true;
        break;
      case kTagPointer: {
        uint32_t len = Le32(p + 20);
        sector = Le32(p + 24);
        end = sector + len / bs;
        continue;
      }
      case kTagPartition: {
        VdsResult::Pd pd{Le32(p + 16), Le16(p + 22), Le32(p + 188), Le32(p + 192)};
        auto same = std::find_if(out->pds.begin(), out->pds.end(),
                                 [&](const VdsResult::Pd &o) { return o.number == pd.number; });
        if (same == out->pds.end()) {
          if (out->pds.size() >= kMaxPartitionMaps) {
            return Fail(err, "more than %u partition descriptors", kMaxPartitionMaps);
          }
          out->pds.push_back(pd);
        } else if (pd.seq >= same->seq) {
          *same = pd;
        }
        break;
      }
      case kTagLogicalVolume:
        if (!out->haveLvd || Le32(p + 16) >= out->lvdSeq) {
          out->haveLvd = true;
          out->lvdSeq = Le32(p + 16);
          out->lvd = buf;
        }
        break;
      default:
        break;  // implementation use, unallocated space, anchors: not needed
    }
    ++sector;
  }
  if (!out->havePvd || !out->haveLvd || out->pds.empty()) {
    return Fail(err, "volume descriptor sequence lacks a %s descriptor",
                !out->havePvd   ? "primary volume"
                : !out->haveLvd ? "logical volume"
                                : "partition");
  }
  return true;
}

bool SetUpPartition(UDFVolume *vol, const VdsResult &vds, uint16_t number, Partition *p,
                    Error *err) {
  auto pd = std::find_if(vds.pds.begin(), vds.pds.end(),
                         [&](const VdsResult::Pd &o) { return o.number == number; });
  if (pd == vds.pds.end()) {
    return Fail(err, "no partition descriptor for partition %u", number);
  }
  p->start = pd->start;
  p->blocks = pd->length;
  if (vol->imageBlocks != 0) {
    if (p->start >= vol->imageBlocks) {
      return Fail(err, "partition %u starts at block %u, past the image's %llu blocks", number,
                  pd->start, static_cast<unsigned long long>(vol->imageBlocks));
    }
    // Reads past the image would fail anyway; clipping makes every extent
    // check cover the image too.
    p->blocks = std::min<uint64_t>(p->blocks, vol->imageBlocks - p->start);
  }
  return true;
}

bool LoadMetadataFile(UDFVolume *vol, size_t index, uint32_t location, uint8_t wantType,
                      Error *err) {
  Partition &meta = vol->parts[index];
  Entry file;
  // The metadata file's own descriptors are relative to the physical partition.
  if (!LoadEntry(vol, Addr{location, meta.phys}, &file, err)) {
    return false;
  }
  if (file.fileType != wantType) {
    return Fail(err, "metadata file at block %u has type %u", location, file.fileType);
  }
  if (file.embedded) {
    return Fail(err, "metadata file at block %u is embedded", location);
  }
  for (const Extent &e : file.extents) {
    if (e.part != meta.phys) {
      return Fail(err, "metadata file extent lies outside its partition");
    }
  }
  meta.file = std::move(file);
  return true;
}

bool ReadPartitionMaps(UDFVolume *vol, const VdsResult &vds, Error *err) {
  const uint8_t *lvd = vds.lvd.data();
  const uint32_t bs = vol->blockSize;
  if (Le32(lvd + 212) != bs) {
    return Fail(err, "logical block size %u differs from the sector size %u", Le32(lvd + 212), bs);
  }
  const uint32_t tableLen = Le32(lvd + 264);
  const uint32_t count = Le32(lvd + 268);
  if (tableLen > bs - kLvdMapsOffset) {
    return Fail(err, "partition map table of %u bytes does not fit", tableLen);
  }
  if (count == 0 || count > kMaxPartitionMaps) {
    return Fail(err, "%u partition maps", count);
  }
  const uint8_t *map = lvd + kLvdMapsOffset;
  size_t pos = 0;
  // Metadata partitions need a physical partition entry of their own when
  // the maps do not provide one; it is appended after the maps.
  std::vector<std::pair<size_t, std::array<uint32_t, 2>>> metadata;
  for (uint32_t i = 0; i < count; ++i) {
    if (tableLen - pos < 2 || map[pos + 1] < 2 || map[pos + 1] > tableLen - pos) {
      return Fail(err, "partition map %u runs past the table", i);
    }
    const uint8_t *m = map + pos;
    const uint8_t type = m[0];
    const uint8_t len = m[1];
    Partition part;
    if (type == 1 && len == 6) {
      if (!SetUpPartition(vol, vds, Le16(m + 4), &part, err)) {
        return false;
      }
    } else if (type == 2 && len == 64) {
      std::string_view ident(reinterpret_cast<const char *>(m + 5), 23);
      ident = ident.substr(0, ident.find('\0'));
      if (ident != "*UDF Metadata Partition") {
        return Fail(err, "unsupported partition map \"%.*s\"", static_cast<int>(ident.size()),
                    ident.data());
      }
      Partition phys;
      if (!SetUpPartition(vol, vds, Le16(m + 38), &phys, err)) {
        return false;
      }
      part.metadata = true;
      part.start = phys.start;
      part.blocks = phys.blocks;
      metadata.push_back({i, {Le32(m + 40), Le32(m + 44)}});
    } else {
      return Fail(err, "unsupported partition map type %u length %u", type, len);
    }
    vol->parts.push_back(std::move(part));
    pos += len;
  }
  vol->mapCount = vol->parts.size();
  for (auto &[index, files] : metadata) {
    Partition phys;
    phys.start = vol->parts[index].start;
    phys.blocks = vol->parts[index].blocks;
    vol->parts[index].phys = static_cast<uint16_t>(vol->parts.size());
    vol->parts.push_back(phys);
    Error mainErr;
    if (!LoadMetadataFile(vol, index, files[0], kFileTypeMetadata, &mainErr) &&
        !LoadMetadataFile(vol, index, files[1], kFileTypeMetadataMirror, err)) {
      err->msg = mainErr.msg;  // the main file's fault is the one to report
      return false;
    }
  }
  return true;
}

bool OpenVolume(UDFVolume *vol, Error *err) {
  if (!HasUdfRecognition(vol->reader.get(), 2048) && !HasUdfRecognition(vol->reader.get(), 4096)) {
    err->quiet = true;
    return Fail(err, "no UDF volume recognition sequence");
  }
  uint8_t avdp[512];
  if (!FindAnchor(vol, avdp, err)) {
    return false;
  }
  if (vol->imageBlocks != 0) {
    vol->metaBudget =
        std::min(kMetaBudgetCap, kMetaBudgetFloor + vol->imageBlocks * vol->blockSize);
  }
  VdsResult vds;
  Error mainErr;
  if (!ReadVds(vol, Le32(avdp + 20), Le32(avdp + 16), &vds, &mainErr)) {
    vds = VdsResult();
    if (!ReadVds(vol, Le32(avdp + 28), Le32(avdp + 24), &vds, err)) {
      err->msg = "main volume descriptor sequence: " + mainErr.msg;
      return false;
    }
  }
  if (!ReadPartitionMaps(vol, vds, err)) {
    return false;
  }
  // The File Set Descriptor: logical volume contents use holds its long_ad.
  const uint8_t *fsdAd = vds.lvd.data() + 248;
  Addr fsd{Le32(fsdAd + 4), Le16(fsdAd + 8)};
  if (fsd.part >= vol->mapCount) {
    return Fail(err, "file set descriptor in partition %u of %zu", fsd.part, vol->mapCount);
  }
  std::vector<uint8_t> buf(vol->blockSize);
  if (!ReadPart(vol, fsd.part, fsd.block, 0, buf.data(), buf.size(), err) ||
      !CheckTag(buf.data(), buf.size(), kTagFileSet, fsd.block, true, err, "file set descriptor")) {
    return false;
  }
  vol->root = Addr{Le32(buf.data() + 400 + 4), Le16(buf.data() + 400 + 8)};
  return GetDir(vol, vol->root, err) != nullptr;
}

bool BadArg(const char *fn) {
  Log("UDF: %s: invalid argument\n", fn);
  return false;
}

}  // namespace

// ---------------------------------------------------------------------------
// Host interface

UDFVolume *UDF_Open(const char *path, const void *option) {
  (void)option;  // reserved
  if (path == nullptr) {
    BadArg(__func__);
    return nullptr;
  }
  std::string why;
  std::unique_ptr<gp::ImageReader> reader = gp::OpenFileImageReader(path, &why);
  if (!reader) {
    // Callers probe UDF first and report an unopenable image themselves.
    Log_Level(LOG_LEVEL_VERBOSE, "UDF: cannot open \"%s\": %s\n", path, why.c_str());
    return nullptr;
  }
  return UDF_OpenReader(std::move(reader));
}

UDFVolume *UDF_OpenReader(std::unique_ptr<gp::ImageReader> reader, gp::DamageReporter *reporter) {
  if (!reader) {
    BadArg(__func__);
    return nullptr;
  }
  auto vol = std::make_unique<UDFVolume>(reporter);
  vol->reader = std::move(reader);
  Error err;
  if (!OpenVolume(vol.get(), &err)) {
    Report(vol.get(), err);
    return nullptr;
  }
  return vol.release();
}

void UDF_Close(UDFVolume *volume) {
  if (volume != nullptr && !volume->reader->Close()) {
    volume->damage.Report("closing the image failed");
  }
  delete volume;
}

UDFDir *UDF_OpenDir(UDFVolume *volume, UDFDir *parent, const char *path) {
  if (volume == nullptr || path == nullptr || (parent != nullptr && parent->volume != volume)) {
    BadArg(__func__);
    return nullptr;
  }
  std::vector<std::string_view> parts = SplitPath(path);
  UDFDir *dir = nullptr;
  Error err;
  if (!WalkDirs(volume, parent, parts, parts.size(), &dir, &err)) {
    Report(volume, err);
    return nullptr;
  }
  return dir;
}

const char *UDF_ReadDir(UDFDir *dir, UDFDirEntryInfo *info) {
  if (dir == nullptr) {
    BadArg(__func__);
    return nullptr;
  }
  if (dir->next >= dir->data->entries.size()) {
    return nullptr;
  }
  const DirEntry &e = dir->data->entries[dir->next++];
  if (info != nullptr) {
    info->size = UINT64_MAX;
    info->isDirectory = e.isDirectory;
    info->isSymlink = false;
    Error err;
    if (std::shared_ptr<const Entry> entry = GetEntry(dir->volume, e.icb, &err)) {
      info->size = entry->size;
      info->isDirectory = entry->fileType == kFileTypeDirectory;
      info->isSymlink = entry->fileType == kFileTypeSymlink;
    } else {
      err.msg = "\"" + e.name + "\": " + err.msg;
      Report(dir->volume, err);
    }
  }
  return e.name.c_str();
}

void UDF_RewindDir(UDFDir *dir) {
  if (dir != nullptr) {
    dir->next = 0;
  }
}

bool UDF_CloseDir(UDFDir *dir) {
  if (dir == nullptr) {
    return BadArg(__func__);
  }
  delete dir;
  return true;
}

UDFFile *UDF_OpenFile(UDFVolume *volume, UDFDir *dir, const char *name) {
  if (volume == nullptr || name == nullptr || (dir != nullptr && dir->volume != volume)) {
    BadArg(__func__);
    return nullptr;
  }
  std::vector<std::string_view> parts = SplitPath(name);
  Error err;
  if (parts.empty()) {
    Quiet(&err, "not a file", name);
    Report(volume, err);
    return nullptr;
  }
  UDFDir *where = nullptr;
  if (!WalkDirs(volume, dir, parts, parts.size() - 1, &where, &err)) {
    Report(volume, err);
    return nullptr;
  }
  std::unique_ptr<UDFDir> holder(where);
  // Of entries sharing the name, the first regular file wins; damaged ones
  // are reported and skipped.
  std::span<const uint32_t> found = where->data->Find(parts.back());
  for (uint32_t index : found) {
    Error damage;
    std::shared_ptr<const Entry> entry = GetEntry(volume, where->data->entries[index].icb, &damage);
    if (entry == nullptr) {
      Report(volume, damage);
    } else if (entry->fileType == kFileTypeRegular) {
      return new UDFFile{volume, std::move(entry)};
    }
  }
  Quiet(&err, found.empty() ? "no such file" : "not a regular file", parts.back());
  Report(volume, err);
  return nullptr;
}

uint64_t UDF_GetFileSize(UDFVolume *volume, UDFFile *file) {
  if (volume == nullptr || file == nullptr || file->volume != volume) {
    BadArg(__func__);
    return UINT64_MAX;
  }
  return file->entry->size;
}

bool UDF_PReadFile(UDFFile *file, void *buffer, uint64_t offset, size_t length) {
  if (file == nullptr || (buffer == nullptr && length > 0)) {
    return BadArg(__func__);
  }
  const uint64_t size = file->entry->size;
  if (offset > size || length > size - offset) {
    Log("UDF: read of %zu bytes at %llu runs past the file's %llu bytes\n", length,
        static_cast<unsigned long long>(offset), static_cast<unsigned long long>(size));
    return false;
  }
  Error err;
  if (!ReadEntryData(file->volume, *file->entry, offset, buffer, length, &err)) {
    Report(file->volume, err);
    return false;
  }
  return true;
}

void UDF_CloseFile(UDFFile *file) {
  delete file;
}
