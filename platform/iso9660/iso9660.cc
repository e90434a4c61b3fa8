/*
 * ISO 9660 reader: volume descriptors, directory indexes with primary,
 * Joliet or Rock Ridge names, and file reads across multiple extents.
 *
 * Everything is read through the volume's gp::ImageReader. Metadata
 * (descriptors, directory sectors, Rock Ridge continuation areas) goes
 * through a per-volume block cache that holds all of a small image's, so
 * however its records point at one another no block is read twice; file data
 * is read straight into the caller's buffer.
 *
 * Each directory is parsed once into a compact index (names in one arena,
 * orders for exact and caseless lookups) that walks, listings and lookups
 * share. A damaged record is left out of the index and the records after it
 * are still indexed, so what a lookup finds never depends on where a bad
 * record sits. Indexes are evicted least recently used past a memory budget,
 * and the indexing work of a volume is bounded whatever the image says.
 *
 * Damage goes to the volume's DamageOnce: one report per volume, the rest
 * dropped. Caller mistakes (null handles) are logged; "not found" and the end
 * of a listing are answers, not events.
 */
#include "platform/iso9660/iso9660.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/log/log.h"
#include "platform/util/bytes.h"
#include "platform/util/safeAlloc.h"

namespace {

constexpr uint32_t kBlockSize = 2048;
constexpr uint32_t kFirstDescriptorBlock = 16;
// Real images carry 2 to 5 descriptors; the set must end well before this.
constexpr uint32_t kMaxDescriptors = 64;
constexpr size_t kMaxPathDepth = 64;
constexpr uint64_t kMaxDirBytes = 64ull << 20;
// Real directories hold tens of thousands of entries; this leaves room for
// 200,000 while one index stays around 10 MiB.
constexpr uint32_t kMaxDirRecords = 1u << 18;
// Continuation areas followed for one record, and all its system use bytes.
constexpr uint32_t kMaxCeChain = 32;
constexpr size_t kMaxSuspBytes = 64u << 10;
// Continuation bytes parsed while indexing one directory: records that all
// share one long chain cost no more than this. Each hop costs a little even
// when its area is empty.
constexpr uint64_t kMaxDirSuspBytes = 16u << 20;
constexpr uint64_t kCeHopCost = 32;
// Name bytes of one directory's index.
constexpr size_t kMaxDirNameBytes = 8u << 20;
// Parts of one multi-extent file (about 4 TiB with 4 GiB parts).
constexpr uint32_t kMaxExtents = 1024;
constexpr size_t kMaxNameBytes = sizeof(Iso9660DirEntry::name) - 1;
// Metadata blocks kept per volume (4 MiB): all of a small image's.
constexpr size_t kCacheBlocks = 2048;
// Directory sectors are fetched this many at a time.
constexpr uint32_t kReadAheadBlocks = 16;
// Memory of the directory indexes a volume keeps (one larger index is
// kept alone).
constexpr size_t kIndexBudgetBytes = 16u << 20;
// Directory and continuation bytes one volume may index in its life: a few
// times the volume itself, so directories aliasing one another cannot keep
// it busy however they are walked.
constexpr uint64_t kMinIndexWork = 64ull << 20;
constexpr uint64_t kIndexWorkPerVolumeByte = 4;

constexpr size_t kMinRecordLen = 34;  // 33 fixed bytes and a one-byte name
constexpr size_t kRootRecordOffset = 156;

// Directory record flags.
constexpr uint8_t kRecDirectory = 0x02;
constexpr uint8_t kRecAssociated = 0x04;
constexpr uint8_t kRecMultiExtent = 0x80;

// Rock Ridge NM flags.
constexpr uint8_t kNmContinue = 0x01;
constexpr uint8_t kNmCurrent = 0x02;
constexpr uint8_t kNmParent = 0x04;

// Index-only flag: a damaged entry whose name is known, so that naming it
// gives what was wrong (kept in its mode field) rather than "not found".
// Never listed.
constexpr uint16_t kEntryDamaged = 0x8000;

struct Status {
  Iso9660Result code = ISO9660_OK;
  std::string message;
  bool quiet = false;   // already reported, or an answer rather than an event
  bool misuse = false;  // about the caller's arguments, not the image
  bool ok() const { return code == ISO9660_OK; }
};

Status Fail(Iso9660Result code, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

Status Fail(Iso9660Result code, const char *fmt, ...) {
  Status s;
  s.code = code;
  char buf[512];
  va_list args;
  va_start(args, fmt);
  vsnprintf(buf, sizeof buf, fmt, args);
  va_end(args);
  s.message = buf;
  return s;
}

Status Quiet(Iso9660Result code) {
  Status s;
  s.code = code;
  s.quiet = true;
  return s;
}

unsigned long long U64(uint64_t v) {
  return static_cast<unsigned long long>(v);
}

using gp::Le16;
using gp::Le32;

// A printable form of a raw name for reports (names are hostile input).
std::string Printable(std::string_view raw) {
  std::string out;
  for (unsigned char c : raw.substr(0, 64)) {
    if (c >= 0x20 && c < 0x7f && c != '"' && c != '\\') {
      out += static_cast<char>(c);
    } else {
      char hex[5];
      snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
    }
  }
  return out;
}

char AsciiLower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

int CompareNames(std::string_view a, std::string_view b, bool caseless) {
  if (!caseless) {
    return a.compare(b);
  }
  size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    unsigned char x = AsciiLower(a[i]), y = AsciiLower(b[i]);
    if (x != y) {
      return x < y ? -1 : 1;
    }
  }
  return a.size() < b.size() ? -1 : a.size() > b.size() ? 1 : 0;
}

// Where a directory's records are.
struct DirRef {
  uint32_t block = 0;  // first block of the records
  uint32_t size = 0;   // bytes
};

// One directory record, copied out of its sector.
struct Record {
  uint64_t offset = 0;  // image offset
  std::array<uint8_t, 256> bytes{};
  uint8_t len = 0;

  uint8_t xarBlocks() const { return bytes[1]; }
  uint32_t extent() const { return Le32(&bytes[2]); }
  uint32_t dataLength() const { return Le32(&bytes[10]); }
  uint8_t flags() const { return bytes[25]; }
  bool interleaved() const { return bytes[26] != 0 || bytes[27] != 0; }
  uint8_t nameLen() const { return bytes[32]; }
  std::string_view rawName() const {
    return {reinterpret_cast<const char *>(&bytes[33]), nameLen()};
  }
  bool isDotOrDotDot() const { return nameLen() == 1 && (bytes[33] == 0 || bytes[33] == 1); }
  // The system use area follows the name and its padding byte.
  size_t suspStart() const { return 33u + nameLen() + ((nameLen() % 2 == 0) ? 1u : 0u); }
};

// What the Rock Ridge entries of one record say.
struct RrInfo {
  bool sp = false;
  uint8_t spSkip = 0;
  bool rrSeen = false;  // ER with a Rock Ridge id, RR, PX or NM
  bool haveName = false;
  bool nameDone = false;
  std::string name;
  uint32_t mode = 0;
  bool symlink = false;
  bool device = false;
  bool relocated = false;  // RE: shown where its CL points instead
  bool childLink = false;  // CL: a moved directory lives at clBlock
  uint32_t clBlock = 0;
};

// One entry of a directory index: what Iso9660DirEntry carries, without
// the 4 KiB name buffer.
struct IndexEntry {
  uint64_t size64 = 0;
  uint64_t recordOffset = 0;
  uint32_t nameOffset = 0;  // in the index's arena
  uint32_t extent = 0;
  uint32_t mode = 0;
  uint16_t nameLen = 0;
  uint16_t flags = 0;  // ISO9660_ENTRY_* and kEntryDamaged
};

// All shown entries of one directory, in record order, with two orders of
// their positions (exact and ASCII-caseless names; good entries before
// damaged ones, then record order) for binary-search lookups.
struct DirIndex {
  DirRef ref;
  std::string names;
  std::vector<IndexEntry> entries;
  std::vector<uint32_t> exact;
  std::vector<uint32_t> caseless;
  bool damaged = false;  // some record was left out
  uint64_t lastUse = 0;

  std::string_view Name(const IndexEntry &e) const {
    return std::string_view(names).substr(e.nameOffset, e.nameLen);
  }
  void Add(std::string_view name, IndexEntry e) {
    e.nameOffset = static_cast<uint32_t>(names.size());
    e.nameLen = static_cast<uint16_t>(name.size());
    names.append(name);
    entries.push_back(e);
  }
  void Finish() {
    names.shrink_to_fit();
    entries.shrink_to_fit();
    const char *base = names.data();
    for (auto [order, fold] : {std::pair{&exact, false}, std::pair{&caseless, true}}) {
      order->resize(entries.size());
      for (uint32_t i = 0; i < order->size(); ++i) {
        (*order)[i] = i;
      }
      auto less = [&, fold = fold](uint32_t a, uint32_t b) {
        const IndexEntry &x = entries[a], &y = entries[b];
        int c =
            CompareNames({base + x.nameOffset, x.nameLen}, {base + y.nameOffset, y.nameLen}, fold);
        if (c != 0) {
          return c < 0;
        }
        bool dx = x.flags & kEntryDamaged, dy = y.flags & kEntryDamaged;
        return dx != dy ? dy : a < b;
      };
      // Records are mostly stored in name order already.
      if (!std::is_sorted(order->begin(), order->end(), less)) {
        std::sort(order->begin(), order->end(), less);
      }
    }
  }
  const IndexEntry *Find(std::string_view name, bool fold) const {
    const std::vector<uint32_t> &order = fold ? caseless : exact;
    auto it =
        std::lower_bound(order.begin(), order.end(), name, [&](uint32_t i, std::string_view key) {
          return CompareNames(Name(entries[i]), key, fold) < 0;
        });
    if (it == order.end() || CompareNames(Name(entries[*it]), name, fold) != 0) {
      return nullptr;
    }
    return &entries[*it];
  }
  size_t Bytes() const {
    return sizeof *this + names.capacity() + entries.capacity() * sizeof(IndexEntry) +
           (exact.capacity() + caseless.capacity()) * sizeof(uint32_t);
  }
};

// Least recently used image blocks. A pointer handed out stays valid until
// its block is evicted, kCacheBlocks insertions later at the soonest.
class BlockCache {
 public:
  const uint8_t *Find(uint32_t block) {
    auto it = map_.find(block);
    if (it == map_.end()) {
      return nullptr;
    }
    lru_.splice(lru_.begin(), lru_, it->second);
    return it->second->data.data();
  }
  bool Contains(uint32_t block) const { return map_.count(block) != 0; }
  // A slot for block, to be filled by the caller (or dropped on failure).
  uint8_t *Insert(uint32_t block) {
    if (lru_.size() >= kCacheBlocks) {
      lru_.splice(lru_.begin(), lru_, std::prev(lru_.end()));
      map_.erase(lru_.front().block);
    } else {
      lru_.emplace_front();
    }
    lru_.front().block = block;
    map_[block] = lru_.begin();
    return lru_.front().data.data();
  }
  void Drop(uint32_t block) {
    auto it = map_.find(block);
    if (it != map_.end()) {
      lru_.erase(it->second);
      map_.erase(it);
    }
  }

 private:
  struct Slot {
    uint32_t block = 0;
    std::array<uint8_t, kBlockSize> data;
  };
  std::list<Slot> lru_;
  std::unordered_map<uint32_t, std::list<Slot>::iterator> map_;
};

}  // namespace

struct Iso9660Volume {
  explicit Iso9660Volume(gp::DamageReporter *reporter) : damage(reporter, "ISO9660") {}

  std::unique_ptr<gp::ImageReader> reader;
  gp::DamageOnce damage;
  uint64_t imageSize = gp::ImageReader::kUnknownSize;
  uint32_t volumeBlocks = 0;
  uint32_t formats = ISO9660_FORMAT_ISO;
  uint32_t format = ISO9660_FORMAT_ISO;
  uint8_t suspSkip = 0;
  DirRef pvdRoot;
  DirRef jolietRoot;
  uint64_t pvdRootRecordOffset = 0;
  uint64_t jolietRootRecordOffset = 0;
  uint32_t rootMode = 0;
  std::string volumeId;
  int openHandles = 0;

  BlockCache cache;
  std::unordered_map<uint32_t, std::shared_ptr<DirIndex>> indexes;  // by first block
  size_t indexBytes = 0;
  uint64_t indexClock = 0;
  uint64_t workLeft = kMinIndexWork;

  DirRef root() const { return format == ISO9660_FORMAT_JOLIET ? jolietRoot : pvdRoot; }
  uint64_t rootRecordOffset() const {
    return format == ISO9660_FORMAT_JOLIET ? jolietRootRecordOffset : pvdRootRecordOffset;
  }
};

struct Iso9660Dir {
  const Iso9660Volume *owner = nullptr;
  std::shared_ptr<const DirIndex> index;
  size_t pos = 0;
  bool damageTold = false;
};

struct Iso9660File {
  struct Extent {
    uint32_t block;
    uint32_t bytes;
  };
  const Iso9660Volume *owner = nullptr;
  std::vector<Extent> extents;
  uint64_t size = 0;
  uint64_t pos = 0;
};

namespace {

// Where a failure leaving the reader goes: damage to the volume's single
// report, a caller's mistake to the log, answers ("not found", the end)
// nowhere.
Iso9660Result Report(Iso9660Volume *vol, const Status &s) {
  if (s.ok() || s.quiet || s.code == ISO9660_EOF || s.code == ISO9660_ERR_NOT_FOUND) {
    return s.code;
  }
  if (s.code == ISO9660_ERR_INVALID_ARG || s.misuse || vol == nullptr) {
    Log("ISO9660: %s\n", s.message.c_str());
  } else {
    vol->damage.Report(s.message);
  }
  return s.code;
}

// True when [block, block + bytes) lies inside the volume and the image.
bool RangeInImage(const Iso9660Volume &vol, uint32_t block, uint64_t bytes) {
  if (bytes == 0) {
    return true;
  }
  uint64_t blocks = (bytes + kBlockSize - 1) / kBlockSize;
  if (static_cast<uint64_t>(block) + blocks > vol.volumeBlocks) {
    return false;
  }
  if (vol.imageSize != gp::ImageReader::kUnknownSize &&
      static_cast<uint64_t>(block) * kBlockSize + bytes > vol.imageSize) {
    return false;
  }
  return true;
}

// One block through the cache.
Status GetBlock(Iso9660Volume &vol, uint32_t block, const uint8_t **out) {
  if ((*out = vol.cache.Find(block)) != nullptr) {
    return {};
  }
  if (vol.volumeBlocks != 0 && !RangeInImage(vol, block, kBlockSize)) {
    return Fail(ISO9660_ERR_CORRUPT, "block %u beyond end of image", block);
  }
  uint8_t *slot = vol.cache.Insert(block);
  if (!vol.reader->ReadAt(static_cast<uint64_t>(block) * kBlockSize, slot, kBlockSize)) {
    vol.cache.Drop(block);
    return Fail(ISO9660_ERR_IO, "cannot read block %u", block);
  }
  *out = slot;
  return {};
}

// Block i of a directory, fetched with the uncached blocks after it in one
// read (a big directory is read in a few large reads, each sector once).
Status GetDirBlock(Iso9660Volume &vol, const DirRef &ref, uint32_t i, const uint8_t **out) {
  uint32_t block = ref.block + i;
  if ((*out = vol.cache.Find(block)) != nullptr) {
    return {};
  }
  uint32_t blocks = (ref.size + kBlockSize - 1) / kBlockSize;
  uint32_t run = 1;
  while (run < kReadAheadBlocks && i + run < blocks && !vol.cache.Contains(block + run)) {
    ++run;
  }
  if (run > 1) {
    std::vector<uint8_t> buf(static_cast<size_t>(run) * kBlockSize);
    if (vol.reader->ReadAt(static_cast<uint64_t>(block) * kBlockSize, buf.data(), buf.size())) {
      for (uint32_t k = run; k-- > 0;) {
        memcpy(vol.cache.Insert(block + k), &buf[static_cast<size_t>(k) * kBlockSize], kBlockSize);
      }
      *out = vol.cache.Find(block);
      return {};
    }
  }
  return GetBlock(vol, block, out);  // one at a time: a bad block fails only itself
}

// Bytes at an arbitrary image offset, through the cache.
Status ReadBytes(Iso9660Volume &vol, uint64_t offset, size_t len, uint8_t *out) {
  while (len > 0) {
    uint64_t block = offset / kBlockSize;
    if (block > UINT32_MAX) {
      return Fail(ISO9660_ERR_CORRUPT, "offset %llu beyond end of image", U64(offset));
    }
    const uint8_t *data;
    Status s = GetBlock(vol, static_cast<uint32_t>(block), &data);
    if (!s.ok()) {
      return s;
    }
    size_t in = offset % kBlockSize;
    size_t n = std::min(len, kBlockSize - in);
    memcpy(out, data + in, n);
    out += n;
    offset += n;
    len -= n;
  }
  return {};
}

// The record at byte `in` of a sector that starts at image offset
// `sectorOffset`; a zero length byte gives a record with len 0.
Status ParseRecord(const uint8_t *sector, size_t in, uint64_t sectorOffset, Record *rec) {
  uint64_t offset = sectorOffset + in;
  rec->offset = offset;
  rec->len = sector[in];
  if (rec->len == 0) {
    return {};
  }
  if (rec->len < kMinRecordLen) {
    return Fail(ISO9660_ERR_CORRUPT, "directory record too short (%u bytes) at offset %llu",
                rec->len, U64(offset));
  }
  if (in + rec->len > kBlockSize) {
    return Fail(ISO9660_ERR_CORRUPT, "directory record overruns its sector at offset %llu",
                U64(offset));
  }
  memcpy(rec->bytes.data(), sector + in, rec->len);
  if (33u + rec->nameLen() > rec->len || rec->nameLen() == 0) {
    return Fail(ISO9660_ERR_CORRUPT, "directory record name overruns the record at offset %llu",
                U64(offset));
  }
  return {};
}

Status ReadRecordAt(Iso9660Volume &vol, uint64_t offset, Record *rec) {
  if (offset / kBlockSize > UINT32_MAX) {
    return Fail(ISO9660_ERR_CORRUPT, "directory record offset %llu beyond end of image",
                U64(offset));
  }
  const uint8_t *data;
  Status s = GetBlock(vol, static_cast<uint32_t>(offset / kBlockSize), &data);
  if (!s.ok()) {
    return s;
  }
  return ParseRecord(data, offset % kBlockSize, offset - offset % kBlockSize, rec);
}

bool IsRockRidgeId(std::string_view id) {
  return id == "RRIP_1991A" || id == "IEEE_P1282" || id == "IEEE_1282";
}

// Walks the SUSP entries of a record and its continuation areas. rootDot
// reads the root's "." record, where SP sits at the start of the area.
// budget, when given, is what the record's directory may still spend on
// continuation areas.
Status ParseSusp(Iso9660Volume &vol, const Record &rec, bool rootDot, RrInfo *rr,
                 uint64_t *budget) {
  size_t start = rec.suspStart() + (rootDot ? 0 : vol.suspSkip);
  if (start >= rec.len) {
    return {};
  }
  std::vector<uint8_t> area(rec.bytes.begin() + start, rec.bytes.begin() + rec.len);
  size_t total = area.size();
  std::array<std::pair<uint32_t, uint32_t>, kMaxCeChain> visited;
  uint32_t chain = 0;
  bool first = true;
  for (;;) {
    bool haveCe = false;
    uint32_t ceBlock = 0, ceOffset = 0, ceLen = 0;
    size_t i = 0;
    bool stop = false;
    while (!stop && area.size() - i >= 4) {
      const uint8_t *e = &area[i];
      size_t len = e[2];
      if (len == 0) {
        break;  // padding
      }
      if (len < 4 || len > area.size() - i) {
        return Fail(ISO9660_ERR_CORRUPT, "malformed system use entry in record at offset %llu",
                    U64(rec.offset));
      }
      std::string_view sig(reinterpret_cast<const char *>(e), 2);
      if (sig == "SP" && len >= 7 && first && i == 0 && e[4] == 0xBE && e[5] == 0xEF) {
        rr->sp = true;
        rr->spSkip = e[6];
      } else if (sig == "ST") {
        stop = true;
      } else if (sig == "CE" && len >= 28) {
        haveCe = true;
        ceBlock = Le32(e + 4);
        ceOffset = Le32(e + 12);
        ceLen = Le32(e + 20);
      } else if (sig == "ER" && len >= 8) {
        size_t idLen = e[4];
        if (8 + idLen <= len &&
            IsRockRidgeId(std::string_view(reinterpret_cast<const char *>(e + 8), idLen))) {
          rr->rrSeen = true;
        }
      } else if (sig == "RR") {
        rr->rrSeen = true;
      } else if (sig == "PX" && len >= 36) {
        rr->rrSeen = true;
        rr->mode = Le32(e + 4);
      } else if (sig == "PN") {
        rr->device = true;
      } else if (sig == "SL") {
        rr->symlink = true;
      } else if (sig == "RE") {
        rr->relocated = true;
      } else if (sig == "CL" && len >= 12) {
        rr->childLink = true;
        rr->clBlock = Le32(e + 4);
      } else if (sig == "NM" && len >= 5) {
        rr->rrSeen = true;
        if (e[4] & (kNmCurrent | kNmParent)) {
          return Fail(ISO9660_ERR_CORRUPT,
                      "Rock Ridge name refers to the directory itself or its parent at offset "
                      "%llu",
                      U64(rec.offset));
        }
        if (!rr->nameDone) {
          rr->haveName = true;
          rr->name.append(reinterpret_cast<const char *>(e + 5), len - 5);
          if (rr->name.size() > kMaxNameBytes) {
            return Fail(ISO9660_ERR_LIMIT, "Rock Ridge name longer than %zu bytes at offset %llu",
                        kMaxNameBytes, U64(rec.offset));
          }
          rr->nameDone = !(e[4] & kNmContinue);
        }
      }
      i += len;
    }
    first = false;
    // ST ends this area only; a CE met before it still leads on.
    if (!haveCe) {
      return {};
    }
    std::pair<uint32_t, uint32_t> at{ceBlock, ceOffset};
    if (std::find(visited.begin(), visited.begin() + chain, at) != visited.begin() + chain) {
      return Fail(ISO9660_ERR_CORRUPT, "Rock Ridge continuation loop at block %u for offset %llu",
                  ceBlock, U64(rec.offset));
    }
    if (chain == kMaxCeChain) {
      return Fail(ISO9660_ERR_LIMIT, "more than %u Rock Ridge continuation areas at offset %llu",
                  kMaxCeChain, U64(rec.offset));
    }
    visited[chain++] = at;
    if (ceLen > kMaxSuspBytes - std::min(total, kMaxSuspBytes) || ceOffset >= kBlockSize) {
      return Fail(ISO9660_ERR_LIMIT, "Rock Ridge data over %zu bytes at offset %llu", kMaxSuspBytes,
                  U64(rec.offset));
    }
    if (budget != nullptr) {
      uint64_t cost = ceLen + kCeHopCost;
      if (cost > *budget) {
        return Fail(ISO9660_ERR_LIMIT,
                    "Rock Ridge continuation data of one directory over %llu bytes at offset %llu",
                    U64(kMaxDirSuspBytes), U64(rec.offset));
      }
      *budget -= cost;
    }
    if (!RangeInImage(vol, ceBlock, static_cast<uint64_t>(ceOffset) + ceLen)) {
      return Fail(ISO9660_ERR_CORRUPT,
                  "Rock Ridge continuation area beyond end of image: block %u for offset %llu",
                  ceBlock, U64(rec.offset));
    }
    total += ceLen;
    area.assign(ceLen, 0);
    Status s =
        ReadBytes(vol, static_cast<uint64_t>(ceBlock) * kBlockSize + ceOffset, ceLen, area.data());
    if (!s.ok()) {
      return s;
    }
  }
}

// Joliet names are UCS-2 (in practice UTF-16) big-endian; unpaired
// surrogates become U+FFFD rather than invalid UTF-8.
Status JolietToUtf8(std::string_view raw, uint64_t offset, std::string *out) {
  if (!gp::Ucs2BeToUtf8(reinterpret_cast<const uint8_t *>(raw.data()), raw.size(), out)) {
    return Fail(ISO9660_ERR_CORRUPT, "Joliet name of odd length at offset %llu", U64(offset));
  }
  return {};
}

// Drops a ";<version>" suffix.
void StripVersion(std::string *name) {
  size_t semi = name->rfind(';');
  if (semi != std::string::npos &&
      std::all_of(name->begin() + static_cast<long>(semi) + 1, name->end(),
                  [](char c) { return c >= '0' && c <= '9'; })) {
    name->resize(semi);
  }
}

Status CheckName(const std::string &name, uint64_t offset) {
  if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
      name.find('\0') != std::string::npos) {
    return Fail(ISO9660_ERR_CORRUPT, "unusable name \"%s\" in directory record at offset %llu",
                Printable(name).c_str(), U64(offset));
  }
  return {};
}

// The data length of the directory whose "." record starts at block.
Status DotRecordSize(Iso9660Volume &vol, uint32_t block, uint32_t *size) {
  if (!RangeInImage(vol, block, kBlockSize)) {
    return Fail(ISO9660_ERR_CORRUPT, "directory extent beyond end of image: block %u", block);
  }
  Record dot;
  Status s = ReadRecordAt(vol, static_cast<uint64_t>(block) * kBlockSize, &dot);
  if (!s.ok()) {
    return s;
  }
  if (dot.len == 0 || !dot.isDotOrDotDot() || dot.extent() + dot.xarBlocks() != block) {
    return Fail(ISO9660_ERR_CORRUPT, "relocated directory at block %u has no \".\" record", block);
  }
  *size = dot.dataLength();
  return {};
}

Status CheckDirRef(const Iso9660Volume &vol, const DirRef &ref, std::string_view what) {
  if (ref.size == 0) {
    return Fail(ISO9660_ERR_CORRUPT, "empty directory extent: \"%s\" block %u",
                Printable(what).c_str(), ref.block);
  }
  if (ref.size > kMaxDirBytes) {
    return Fail(ISO9660_ERR_LIMIT, "directory larger than %llu bytes: \"%s\" (%u bytes)",
                U64(kMaxDirBytes), Printable(what).c_str(), ref.size);
  }
  if (!RangeInImage(vol, ref.block, ref.size)) {
    return Fail(ISO9660_ERR_CORRUPT, "directory extent beyond end of image: \"%s\" block %u",
                Printable(what).c_str(), ref.block);
  }
  return {};
}

// Real files never overlap themselves; parts that do would let a small
// image describe an enormous file. Other files may share a part (deduplicated
// images do that).
Status CheckPartsDisjoint(std::vector<Iso9660File::Extent> parts, std::string_view name) {
  std::erase_if(parts, [](const Iso9660File::Extent &p) { return p.bytes == 0; });
  std::sort(parts.begin(), parts.end(),
            [](const auto &a, const auto &b) { return a.block < b.block; });
  for (size_t i = 1; i < parts.size(); ++i) {
    uint64_t end =
        parts[i - 1].block + (uint64_t{parts[i - 1].bytes} + kBlockSize - 1) / kBlockSize;
    if (end > parts[i].block) {
      return Fail(ISO9660_ERR_CORRUPT, "multi-extent file \"%s\" has overlapping parts at block %u",
                  Printable(name).c_str(), parts[i].block);
    }
  }
  return {};
}

// The records of one directory extent in order. A record whose length is
// broken costs the rest of its sector (records never straddle sectors);
// other damage costs the record alone. The stream always moves forward.
class RecordStream {
 public:
  RecordStream(Iso9660Volume &vol, const DirRef &ref) : vol_(vol), ref_(ref) {}

  // The next record, or len 0 at the end. Damage comes back as a failure
  // with the stream already past it; ISO9660_ERR_IO means the directory
  // could not be read.
  Status Next(Record *rec) {
    for (;;) {
      if (pos_ >= ref_.size) {
        rec->len = 0;
        return {};
      }
      uint32_t sector = static_cast<uint32_t>(pos_ / kBlockSize);
      uint64_t nextSector = uint64_t{sector + 1} * kBlockSize;
      const uint8_t *data;
      Status s = GetDirBlock(vol_, ref_, sector, &data);
      if (!s.ok()) {
        pos_ = nextSector;
        return s;
      }
      size_t in = pos_ % kBlockSize;
      if (data[in] == 0) {
        pos_ = nextSector;
        continue;
      }
      if (++records_ > kMaxDirRecords) {
        pos_ = ref_.size;
        return Fail(ISO9660_ERR_LIMIT, "more than %u records in directory at block %u",
                    kMaxDirRecords, ref_.block);
      }
      uint64_t sectorOffset = (uint64_t{ref_.block} + sector) * kBlockSize;
      s = ParseRecord(data, in, sectorOffset, rec);
      uint8_t len = data[in];
      if (!s.ok()) {
        pos_ = len >= kMinRecordLen && in + len <= kBlockSize ? pos_ + len : nextSector;
        return s;
      }
      if (pos_ + len > ref_.size) {
        pos_ = ref_.size;
        return Fail(ISO9660_ERR_CORRUPT,
                    "directory record runs past the end of its directory at offset %llu",
                    U64(rec->offset));
      }
      last_ = pos_;
      pos_ += len;
      return {};
    }
  }
  // The record just read comes again from the next call.
  void Unread() {
    pos_ = last_;
    --records_;
  }

 private:
  Iso9660Volume &vol_;
  DirRef ref_;
  uint64_t pos_ = 0;
  uint64_t last_ = 0;
  uint32_t records_ = 0;
};

// Turns a record (and, for a multi-extent file, the records after it) into
// an index entry. *skip is set for records that are not shown (".", "..",
// associated files, relocated directories). *name is set as soon as the
// entry's name is known, so that a damaged entry can still be named.
Status BuildEntry(Iso9660Volume &vol, RecordStream &stream, const Record &first,
                  uint64_t *suspBudget, std::string *name, IndexEntry *out, bool *skip) {
  *skip = false;
  name->clear();
  if (first.isDotOrDotDot() || (first.flags() & kRecAssociated)) {
    *skip = true;
    return {};
  }
  RrInfo rr;
  bool useRr = vol.format == ISO9660_FORMAT_ROCKRIDGE;
  if (useRr) {
    Status s = ParseSusp(vol, first, false, &rr, suspBudget);
    if (!s.ok()) {
      return s;
    }
    if (rr.relocated) {
      *skip = true;
      return {};
    }
  }
  std::string candidate;
  if (useRr && rr.haveName) {
    candidate = rr.name;
  } else if (vol.format == ISO9660_FORMAT_JOLIET) {
    Status s = JolietToUtf8(first.rawName(), first.offset, &candidate);
    if (!s.ok()) {
      return s;
    }
    StripVersion(&candidate);
  } else {
    candidate.assign(first.rawName());
    StripVersion(&candidate);
    if (candidate.size() > 1 && candidate.back() == '.') {
      candidate.pop_back();
    }
  }
  Status s = CheckName(candidate, first.offset);
  if (!s.ok()) {
    return s;
  }
  *name = std::move(candidate);
  std::string shown = Printable(*name);
  const char *printable = shown.c_str();

  if (first.extent() > UINT32_MAX - first.xarBlocks()) {
    return Fail(ISO9660_ERR_CORRUPT, "extent overflows: \"%s\"", printable);
  }
  uint32_t dataBlock = first.extent() + first.xarBlocks();
  uint64_t total = first.dataLength();
  uint32_t flags = 0;
  if (first.flags() & kRecMultiExtent) {
    if (first.flags() & kRecDirectory) {
      return Fail(ISO9660_ERR_CORRUPT, "multi-extent directory \"%s\"", printable);
    }
    flags |= ISO9660_ENTRY_MULTIEXTENT;
    std::vector<Iso9660File::Extent> parts{{dataBlock, first.dataLength()}};
    for (bool last = false; !last;) {
      if (parts.size() >= kMaxExtents) {
        return Fail(ISO9660_ERR_LIMIT, "file \"%s\" has more than %u extents", printable,
                    kMaxExtents);
      }
      Record part;
      Status ps = stream.Next(&part);
      if (!ps.ok()) {
        return ps;
      }
      if (part.len == 0 || part.rawName() != first.rawName() || (part.flags() & kRecDirectory)) {
        if (part.len != 0) {
          stream.Unread();  // that record is an entry of its own
        }
        return Fail(ISO9660_ERR_CORRUPT, "multi-extent file \"%s\" lacks its last part", printable);
      }
      if (part.extent() > UINT32_MAX - part.xarBlocks()) {
        return Fail(ISO9660_ERR_CORRUPT, "extent overflows: \"%s\"", printable);
      }
      parts.push_back({part.extent() + part.xarBlocks(), part.dataLength()});
      total += part.dataLength();
      last = !(part.flags() & kRecMultiExtent);
    }
    for (const Iso9660File::Extent &p : parts) {
      if (!RangeInImage(vol, p.block, p.bytes)) {
        return Fail(ISO9660_ERR_CORRUPT, "file extent beyond end of image: \"%s\" block %u",
                    printable, p.block);
      }
    }
    s = CheckPartsDisjoint(std::move(parts), *name);
    if (!s.ok()) {
      return s;
    }
  }

  if (first.flags() & kRecDirectory) {
    flags |= ISO9660_ENTRY_DIRECTORY;
  }
  if (useRr) {
    uint32_t type = rr.mode & S_IFMT;
    if (rr.symlink || type == S_IFLNK) {
      flags |= ISO9660_ENTRY_SYMLINK;
    }
    if (rr.device || type == S_IFCHR || type == S_IFBLK || type == S_IFIFO || type == S_IFSOCK) {
      flags |= ISO9660_ENTRY_SPECIAL;
    }
    if (rr.childLink) {
      // A deep directory moved elsewhere; it is shown here, where it belongs.
      uint32_t size = 0;
      Status cs = DotRecordSize(vol, rr.clBlock, &size);
      if (!cs.ok()) {
        return cs;
      }
      flags = (flags & ~(ISO9660_ENTRY_SYMLINK | ISO9660_ENTRY_SPECIAL)) | ISO9660_ENTRY_DIRECTORY;
      dataBlock = rr.clBlock;
      total = size;
      if (rr.mode != 0) {
        rr.mode = (rr.mode & ~static_cast<uint32_t>(S_IFMT)) | S_IFDIR;
      }
    }
  }
  if (flags & ISO9660_ENTRY_DIRECTORY) {
    s = CheckDirRef(vol, {dataBlock, static_cast<uint32_t>(total)}, *name);
    if (!s.ok()) {
      return s;
    }
  } else if (!(flags & ISO9660_ENTRY_MULTIEXTENT) && !RangeInImage(vol, dataBlock, total)) {
    return Fail(ISO9660_ERR_CORRUPT, "file extent beyond end of image: \"%s\" block %u", printable,
                dataBlock);
  }
  out->size64 = total;
  out->flags = static_cast<uint16_t>(flags);
  out->extent = dataBlock;
  out->mode = useRr ? rr.mode : 0;
  out->recordOffset = first.offset;
  return {};
}

// Parses every record of a directory once. Damage is reported and skipped;
// only a failure to read the directory (or the volume's work running out)
// fails the whole index.
Status BuildIndex(Iso9660Volume &vol, const DirRef &ref, std::shared_ptr<DirIndex> *out) {
  Status checked = CheckDirRef(vol, ref, "");
  if (!checked.ok()) {
    return checked;
  }
  if (ref.size > vol.workLeft) {
    return Fail(ISO9660_ERR_LIMIT, "directory indexing of this volume over its limit at block %u",
                ref.block);
  }
  vol.workLeft -= ref.size;
  uint64_t suspBudget = std::min(kMaxDirSuspBytes, vol.workLeft);
  const uint64_t suspStart = suspBudget;
  auto index = std::make_shared<DirIndex>();
  index->ref = ref;
  RecordStream stream(vol, ref);
  std::string name;
  Status result;
  for (;;) {
    name.clear();
    Record rec;
    Status s = stream.Next(&rec);
    IndexEntry entry;
    bool skip = false;
    if (s.ok()) {
      if (rec.len == 0) {
        break;
      }
      s = BuildEntry(vol, stream, rec, &suspBudget, &name, &entry, &skip);
    }
    if (s.code == ISO9660_ERR_IO) {
      result = s;
      break;
    }
    if (s.ok() && !skip && index->names.size() + name.size() > kMaxDirNameBytes) {
      s = Fail(ISO9660_ERR_LIMIT, "names of directory at block %u over %zu bytes", ref.block,
               kMaxDirNameBytes);
      name.clear();
    }
    if (!s.ok()) {
      index->damaged = true;
      vol.damage.Report(s.message);
      if (name.empty()) {
        continue;
      }
      entry = IndexEntry{};
      entry.flags = kEntryDamaged;
      entry.mode = static_cast<uint32_t>(s.code);
    } else if (skip) {
      continue;
    }
    index->Add(name, entry);
  }
  vol.workLeft -= suspStart - suspBudget;
  if (!result.ok()) {
    return result;
  }
  index->Finish();
  *out = std::move(index);
  return {};
}

// The index of a directory, built on first use and kept until evicted.
Status GetIndex(Iso9660Volume &vol, const DirRef &ref, std::shared_ptr<const DirIndex> *out) {
  auto it = vol.indexes.find(ref.block);
  if (it != vol.indexes.end()) {
    if (it->second->ref.size != ref.size) {
      // Two records disagree about one directory; the first one stands.
      Report(&vol, Fail(ISO9660_ERR_CORRUPT, "directory at block %u recorded with sizes %u and %u",
                        ref.block, it->second->ref.size, ref.size));
    }
    it->second->lastUse = ++vol.indexClock;
    *out = it->second;
    return {};
  }
  std::shared_ptr<DirIndex> index;
  Status s = BuildIndex(vol, ref, &index);
  if (!s.ok()) {
    return s;
  }
  index->lastUse = ++vol.indexClock;
  vol.indexBytes += index->Bytes();
  vol.indexes.emplace(ref.block, index);
  while (vol.indexBytes > kIndexBudgetBytes && vol.indexes.size() > 1) {
    auto victim = vol.indexes.end();
    for (auto i = vol.indexes.begin(); i != vol.indexes.end(); ++i) {
      if (i->first != ref.block &&
          (victim == vol.indexes.end() || i->second->lastUse < victim->second->lastUse)) {
        victim = i;
      }
    }
    vol.indexBytes -= victim->second->Bytes();
    vol.indexes.erase(victim);  // open handles keep their own reference
  }
  *out = std::move(index);
  return {};
}

Status SplitPath(const char *path, std::vector<std::string_view> *parts) {
  if (path == nullptr) {
    return Fail(ISO9660_ERR_INVALID_ARG, "null path");
  }
  std::string_view rest(path);
  while (!rest.empty()) {
    size_t slash = rest.find('/');
    std::string_view part = rest.substr(0, slash);
    rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
    if (part.empty()) {
      continue;
    }
    if (part == "." || part == ".." || part.size() > kMaxNameBytes) {
      return Fail(ISO9660_ERR_INVALID_ARG, "bad path \"%s\"", Printable(path).c_str());
    }
    if (parts->size() >= kMaxPathDepth) {
      Status s = Fail(ISO9660_ERR_LIMIT, "path deeper than %zu levels: \"%s\"", kMaxPathDepth,
                      Printable(path).c_str());
      s.misuse = true;
      return s;
    }
    parts->push_back(part);
  }
  return {};
}

// What a path names: an entry of its parent's index, or the root.
struct Located {
  std::shared_ptr<const DirIndex> parent;  // keeps name alive; null for the root
  IndexEntry entry;
  std::string_view name;
};

Located RootLocated(const Iso9660Volume &vol) {
  Located root;
  root.entry.size64 = vol.root().size;
  root.entry.flags = ISO9660_ENTRY_DIRECTORY;
  root.entry.extent = vol.root().block;
  root.entry.mode = vol.format == ISO9660_FORMAT_ROCKRIDGE ? vol.rootMode : 0;
  root.entry.recordOffset = vol.rootRecordOffset();
  return root;
}

DirRef RefOf(const IndexEntry &e) {
  return {e.extent, static_cast<uint32_t>(e.size64)};
}

// A found entry that was damaged: already reported when its directory was
// indexed.
Status DamagedEntry(const IndexEntry &e) {
  return (e.flags & kEntryDamaged) ? Quiet(static_cast<Iso9660Result>(e.mode)) : Status{};
}

// Walks the path through the directory indexes from the root. A directory
// met again below itself is a loop in the image.
Status LookupPath(Iso9660Volume &vol, const char *path, Located *out) {
  std::vector<std::string_view> parts;
  Status s = SplitPath(path, &parts);
  if (!s.ok()) {
    return s;
  }
  Located cur = RootLocated(vol);
  std::vector<uint32_t> ancestors{cur.entry.extent};
  for (std::string_view part : parts) {
    if (!(cur.entry.flags & ISO9660_ENTRY_DIRECTORY)) {
      return Quiet(ISO9660_ERR_NOT_FOUND);
    }
    std::shared_ptr<const DirIndex> index;
    s = GetIndex(vol, RefOf(cur.entry), &index);
    if (!s.ok()) {
      return s;
    }
    const IndexEntry *e = index->Find(part, false);
    if (e == nullptr) {
      return Quiet(ISO9660_ERR_NOT_FOUND);
    }
    s = DamagedEntry(*e);
    if (!s.ok()) {
      return s;
    }
    cur.entry = *e;
    cur.name = index->Name(*e);
    cur.parent = std::move(index);
    if (cur.entry.flags & ISO9660_ENTRY_DIRECTORY) {
      if (std::find(ancestors.begin(), ancestors.end(), cur.entry.extent) != ancestors.end()) {
        return Fail(ISO9660_ERR_CORRUPT, "directory loop at \"%s\" (block %u)",
                    Printable(path).c_str(), cur.entry.extent);
      }
      ancestors.push_back(cur.entry.extent);
    }
  }
  *out = std::move(cur);
  return {};
}

void FillEntry(std::string_view name, const IndexEntry &e, Iso9660DirEntry *entry) {
  std::copy(name.begin(), name.end(), entry->name);
  entry->name[name.size()] = '\0';
  entry->size64 = e.size64;
  entry->size = e.size64 > UINT32_MAX ? 0xFFFFFFFFu : static_cast<uint32_t>(e.size64);
  entry->flags = e.flags;
  entry->extent = e.extent;
  entry->mode = e.mode;
  entry->recordOffset = e.recordOffset;
}

// Reads the descriptors from block 16 to the terminator and the root's "."
// record (Rock Ridge is announced there).
Status Mount(Iso9660Volume &vol, uint32_t requested) {
  bool havePvd = false;
  bool haveJoliet = false;
  uint32_t block = kFirstDescriptorBlock;
  for (uint32_t n = 0;; ++n, ++block) {
    if (n == kMaxDescriptors) {
      return Fail(ISO9660_ERR_CORRUPT, "no volume descriptor set terminator in %u descriptors",
                  kMaxDescriptors);
    }
    const uint8_t *d;
    Status s = GetBlock(vol, block, &d);
    if (!s.ok()) {
      if (n == 0) {
        return Fail(ISO9660_ERR_NOT_ISO, "no volume descriptor at block 16 (%s)",
                    s.message.c_str());
      }
      return s;
    }
    if (memcmp(d + 1, "CD001", 5) != 0) {
      if (n == 0) {
        return Fail(ISO9660_ERR_NOT_ISO, "no ISO 9660 volume descriptor at block 16");
      }
      break;  // a set without its terminator: what was found stands
    }
    uint8_t type = d[0];
    if (type == 255) {
      break;
    }
    if (type == 1 && !havePvd) {
      uint16_t blockSize = Le16(d + 128);
      if (blockSize != kBlockSize) {
        return Fail(ISO9660_ERR_CORRUPT, "unsupported logical block size %u", blockSize);
      }
      vol.volumeBlocks = Le32(d + 80);
      if (vol.volumeBlocks <= kFirstDescriptorBlock) {
        return Fail(ISO9660_ERR_CORRUPT, "volume space size of %u blocks", vol.volumeBlocks);
      }
      Record root;
      memcpy(root.bytes.data(), d + kRootRecordOffset, kMinRecordLen);
      vol.pvdRoot = {root.extent() + root.xarBlocks(), root.dataLength()};
      vol.pvdRootRecordOffset = static_cast<uint64_t>(block) * kBlockSize + kRootRecordOffset;
      std::string id(reinterpret_cast<const char *>(d + 40), 32);
      size_t end = id.find_last_not_of(std::string(" \0", 2));
      id.resize(end == std::string::npos ? 0 : end + 1);
      vol.volumeId = id.substr(0, id.find('\0'));
      havePvd = true;
    } else if (type == 2 && !haveJoliet && d[88] == '%' && d[89] == '/' &&
               (d[90] == '@' || d[90] == 'C' || d[90] == 'E')) {
      Record root;
      memcpy(root.bytes.data(), d + kRootRecordOffset, kMinRecordLen);
      vol.jolietRoot = {root.extent() + root.xarBlocks(), root.dataLength()};
      vol.jolietRootRecordOffset = static_cast<uint64_t>(block) * kBlockSize + kRootRecordOffset;
      haveJoliet = true;
    }
  }
  if (!havePvd) {
    return Fail(ISO9660_ERR_NOT_ISO, "no primary volume descriptor");
  }
  vol.workLeft =
      std::max(kMinIndexWork, kIndexWorkPerVolumeByte * uint64_t{vol.volumeBlocks} * kBlockSize);
  Status s = CheckDirRef(vol, vol.pvdRoot, "/");
  if (!s.ok()) {
    return s;
  }
  if (haveJoliet) {
    // A broken Joliet tree only costs the Joliet names.
    Status js = CheckDirRef(vol, vol.jolietRoot, "/");
    if (js.ok()) {
      vol.formats |= ISO9660_FORMAT_JOLIET;
    } else {
      vol.damage.Report("Joliet names not used: " + js.message);
    }
  }

  Record dot;
  s = ReadRecordAt(vol, static_cast<uint64_t>(vol.pvdRoot.block) * kBlockSize, &dot);
  if (!s.ok()) {
    return s;
  }
  if (dot.len == 0 || !dot.isDotOrDotDot()) {
    return Fail(ISO9660_ERR_CORRUPT, "root directory at block %u has no \".\" record",
                vol.pvdRoot.block);
  }
  RrInfo rr;
  Status rs = ParseSusp(vol, dot, true, &rr, nullptr);
  if (rs.code == ISO9660_ERR_IO) {
    return rs;
  }
  if (!rs.ok()) {
    vol.damage.Report("Rock Ridge names not used: " + rs.message);
  } else if (rr.sp && rr.rrSeen) {
    vol.formats |= ISO9660_FORMAT_ROCKRIDGE;
    vol.suspSkip = rr.spSkip;
    vol.rootMode = rr.mode;
  }

  if ((requested & ISO9660_FORMAT_ROCKRIDGE) && (vol.formats & ISO9660_FORMAT_ROCKRIDGE)) {
    vol.format = ISO9660_FORMAT_ROCKRIDGE;
  } else if ((requested & ISO9660_FORMAT_JOLIET) && (vol.formats & ISO9660_FORMAT_JOLIET)) {
    vol.format = ISO9660_FORMAT_JOLIET;
  } else {
    vol.format = ISO9660_FORMAT_ISO;
  }
  return {};
}

// Opens a volume; the reason a failed open gives is reported here: an image
// that is not ISO 9660 at all is an ordinary answer for a prober (the
// caller's reporter keeps it; without one it is logged verbosely only), a
// broken one is damage.
Iso9660Result OpenVolume(std::unique_ptr<gp::ImageReader> reader, uint32_t format,
                         gp::DamageReporter *reporter, std::string_view where,
                         Iso9660Volume **volume) {
  auto vol = std::make_unique<Iso9660Volume>(reporter);
  vol->imageSize = reader->Size();
  vol->reader = std::move(reader);
  Status s = Mount(*vol, format);
  if (!s.ok()) {
    s.message += where;
    if (s.code != ISO9660_ERR_NOT_ISO) {
      vol->damage.Report(s.message);
    } else if (reporter != nullptr) {
      reporter->Damage(s.message);
    } else {
      Log_Level(LOG_LEVEL_VERBOSE, "ISO9660: %s\n", s.message.c_str());
    }
    return s.code;
  }
  *volume = vol.release();
  return ISO9660_OK;
}

// Caller callbacks whose handle passes to the volume only once it opens: a
// failed open must leave the handle (and its close) to the caller.
class HandedOverReader final : public gp::ImageReader {
 public:
  HandedOverReader(gp::ImageReadFn readFn, gp::ImageCloseFn closeFn, void *handle, uint64_t size)
      : inner_(gp::MakeCallbackImageReader(readFn, nullptr, handle, size)),
        closeFn_(closeFn),
        handle_(handle) {}
  ~HandedOverReader() override { Close(); }
  bool ReadAt(uint64_t offset, void *buf, size_t len) override {
    return inner_->ReadAt(offset, buf, len);
  }
  uint64_t Size() const override { return inner_->Size(); }
  bool Close() override {
    if (!owned_ || closed_) {
      return true;
    }
    closed_ = true;
    return closeFn_ == nullptr || closeFn_(handle_);
  }
  void TakeOwnership() { owned_ = true; }

 private:
  std::unique_ptr<gp::ImageReader> inner_;
  gp::ImageCloseFn closeFn_;
  void *handle_;
  bool owned_ = false;
  bool closed_ = false;
};

Status CheckVolume(const Iso9660Volume *volume) {
  return volume == nullptr ? Fail(ISO9660_ERR_INVALID_ARG, "null volume") : Status{};
}

// Reads the records behind an entry again: the entry may have been kept
// since, and the data extents of a multi-extent file are only there.
Status CollectExtents(Iso9660Volume &vol, const Iso9660DirEntry &entry, Iso9660File *file) {
  uint64_t offset = entry.recordOffset;
  std::string_view firstName;
  Record first;
  uint64_t total = 0;
  std::string_view rawName(entry.name, strnlen(entry.name, sizeof entry.name));
  std::string shown = Printable(rawName);
  const char *name = shown.c_str();
  for (uint32_t steps = 0;; ++steps) {
    if (steps > 2 * kMaxExtents) {
      return Fail(ISO9660_ERR_LIMIT, "file \"%s\" has more than %u extents", name, kMaxExtents);
    }
    Record rec;
    Status s = ReadRecordAt(vol, offset, &rec);
    if (!s.ok()) {
      return s;
    }
    if (rec.len == 0) {
      offset = (offset / kBlockSize + 1) * kBlockSize;
      continue;
    }
    if (file->extents.empty()) {
      first = rec;
      firstName = first.rawName();
      if ((rec.flags() & kRecDirectory) || rec.extent() + rec.xarBlocks() != entry.extent) {
        return Fail(ISO9660_ERR_INVALID_ARG, "entry \"%s\" does not describe a file of this volume",
                    name);
      }
    } else if (rec.rawName() != firstName || (rec.flags() & kRecDirectory)) {
      return Fail(ISO9660_ERR_CORRUPT, "multi-extent file \"%s\" lacks its last part", name);
    }
    if (rec.interleaved()) {
      return Fail(ISO9660_ERR_CORRUPT, "interleaved file \"%s\" is not supported", name);
    }
    if (file->extents.size() >= kMaxExtents) {
      return Fail(ISO9660_ERR_LIMIT, "file \"%s\" has more than %u extents", name, kMaxExtents);
    }
    uint32_t block = rec.extent() + rec.xarBlocks();
    if (rec.extent() > UINT32_MAX - rec.xarBlocks() ||
        !RangeInImage(vol, block, rec.dataLength())) {
      return Fail(ISO9660_ERR_CORRUPT, "file extent beyond end of image: \"%s\" block %u", name,
                  rec.extent());
    }
    file->extents.push_back({block, rec.dataLength()});
    total += rec.dataLength();
    if (!(entry.flags & ISO9660_ENTRY_MULTIEXTENT) || !(rec.flags() & kRecMultiExtent)) {
      break;
    }
    offset += rec.len;
  }
  if (total != entry.size64) {
    return Fail(ISO9660_ERR_INVALID_ARG, "entry \"%s\" does not describe a file of this volume",
                name);
  }
  file->size = total;
  return CheckPartsDisjoint(file->extents, rawName);
}

// Copies [offset, offset + len) of the file's data into buf.
Status ReadFileRange(Iso9660Volume &vol, const Iso9660File &file, uint64_t offset, uint8_t *buf,
                     size_t len) {
  uint64_t extentStart = 0;
  for (const Iso9660File::Extent &ext : file.extents) {
    if (len == 0) {
      break;
    }
    uint64_t extentEnd = extentStart + ext.bytes;
    if (offset < extentEnd) {
      uint64_t in = offset - extentStart;
      size_t n = static_cast<size_t>(std::min<uint64_t>(len, ext.bytes - in));
      uint64_t at = static_cast<uint64_t>(ext.block) * kBlockSize + in;
      if (!vol.reader->ReadAt(at, buf, n)) {
        return Fail(ISO9660_ERR_IO, "cannot read %zu bytes of file data at offset %llu", n,
                    U64(at));
      }
      buf += n;
      offset += n;
      len -= n;
    }
    extentStart = extentEnd;
  }
  if (len != 0) {
    return Fail(ISO9660_ERR_CORRUPT, "file data shorter than its size");
  }
  return {};
}

// A directory or file handle, and the volume it must come from.
template <typename Handle>
Status CheckHandle(const Iso9660Volume *volume, const Handle *handle, const char *what) {
  Status s = CheckVolume(volume);
  if (!s.ok()) {
    return s;
  }
  if (handle == nullptr || handle->owner != volume) {
    return Fail(ISO9660_ERR_INVALID_ARG, "%s handle does not belong to this volume", what);
  }
  return {};
}

Status CheckDir(const Iso9660Volume *volume, const Iso9660Dir *dir) {
  return CheckHandle(volume, dir, "directory");
}

Status CheckFile(const Iso9660Volume *volume, const Iso9660File *file) {
  return CheckHandle(volume, file, "file");
}

}  // namespace

Iso9660Result Iso9660_ListFormats(const char *path, uint32_t *formats) {
  if (formats == nullptr) {
    return Report(nullptr, Fail(ISO9660_ERR_INVALID_ARG, "null formats pointer"));
  }
  *formats = 0;
  Iso9660Volume *vol = nullptr;
  Iso9660Result rc = Iso9660_Open(path, ISO9660_FORMAT_ISO, &vol);
  if (rc != ISO9660_OK) {
    return rc;
  }
  *formats = vol->formats;
  return Iso9660_Close(vol);
}

Iso9660Result Iso9660_Open(const char *path, uint32_t format, Iso9660Volume **volume) {
  if (volume != nullptr) {
    *volume = nullptr;
  }
  if (path == nullptr || volume == nullptr) {
    return Report(nullptr, Fail(ISO9660_ERR_INVALID_ARG, "null path or volume pointer"));
  }
  std::string error;
  std::unique_ptr<gp::ImageReader> reader = gp::OpenFileImageReader(path, &error);
  if (!reader) {
    return Report(nullptr,
                  Fail(ISO9660_ERR_IO, "cannot open image \"%s\": %s", path, error.c_str()));
  }
  return OpenVolume(std::move(reader), format, nullptr, " in \"" + Printable(path) + "\"", volume);
}

Iso9660Result Iso9660_OpenWithReader(gp::ImageReadFn readFn, gp::ImageCloseFn closeFn, void *handle,
                                     uint64_t size, uint32_t format, Iso9660Volume **volume) {
  if (volume != nullptr) {
    *volume = nullptr;
  }
  if (readFn == nullptr || volume == nullptr) {
    return Report(nullptr, Fail(ISO9660_ERR_INVALID_ARG, "null read callback or volume pointer"));
  }
  auto reader = std::make_unique<HandedOverReader>(
      readFn, closeFn, handle, size == 0 ? gp::ImageReader::kUnknownSize : size);
  HandedOverReader *raw = reader.get();
  Iso9660Result rc = OpenVolume(std::move(reader), format, nullptr, "", volume);
  if (rc == ISO9660_OK) {
    raw->TakeOwnership();
  }
  return rc;
}

Iso9660Result Iso9660_OpenReader(std::unique_ptr<gp::ImageReader> reader, uint32_t format,
                                 Iso9660Volume **volume, gp::DamageReporter *reporter) {
  if (volume != nullptr) {
    *volume = nullptr;
  }
  if (volume == nullptr || !reader) {
    return Report(nullptr, Fail(ISO9660_ERR_INVALID_ARG, "null volume pointer or image reader"));
  }
  return OpenVolume(std::move(reader), format, reporter, "", volume);
}

Iso9660Result Iso9660_Close(Iso9660Volume *volume) {
  Status s = CheckVolume(volume);
  if (!s.ok()) {
    return Report(nullptr, s);
  }
  if (volume->openHandles != 0) {
    Log("ISO9660: volume closed with %d directory or file handles still open\n",
        volume->openHandles);
  }
  Iso9660Result rc = volume->reader->Close()
                         ? ISO9660_OK
                         : Report(volume, Fail(ISO9660_ERR_IO, "closing the image failed"));
  delete volume;
  return rc;
}

Iso9660Result Iso9660_GetVolumeId(Iso9660Volume *volume, char **volumeId) {
  if (volumeId == nullptr) {
    return Report(nullptr, Fail(ISO9660_ERR_INVALID_ARG, "null volume id pointer"));
  }
  *volumeId = nullptr;
  Status s = CheckVolume(volume);
  if (!s.ok()) {
    return Report(nullptr, s);
  }
  *volumeId = UtilSafeStrdup0(volume->volumeId.c_str());
  return ISO9660_OK;
}

Iso9660Result Iso9660_OpenDir(Iso9660Volume *volume, const char *path, Iso9660Dir **dir) {
  if (dir == nullptr) {
    return Report(nullptr, Fail(ISO9660_ERR_INVALID_ARG, "null directory pointer"));
  }
  *dir = nullptr;
  Status s = CheckVolume(volume);
  if (!s.ok()) {
    return Report(nullptr, s);
  }
  Located found;
  s = LookupPath(*volume, path, &found);
  if (s.ok() && !(found.entry.flags & ISO9660_ENTRY_DIRECTORY)) {
    s = Quiet(ISO9660_ERR_INVALID_ARG);  // a probe for a directory that is a file
  }
  std::shared_ptr<const DirIndex> index;
  if (s.ok()) {
    s = GetIndex(*volume, RefOf(found.entry), &index);
  }
  if (!s.ok()) {
    return Report(volume, s);
  }
  auto *d = new Iso9660Dir;
  d->owner = volume;
  d->index = std::move(index);
  ++volume->openHandles;
  *dir = d;
  return ISO9660_OK;
}

Iso9660Result Iso9660_ReadDir(Iso9660Volume *volume, Iso9660Dir *dir, Iso9660DirEntry *entry) {
  Status s = CheckDir(volume, dir);
  if (s.ok() && entry == nullptr) {
    s = Fail(ISO9660_ERR_INVALID_ARG, "null entry");
  }
  if (!s.ok()) {
    return Report(nullptr, s);
  }
  const DirIndex &index = *dir->index;
  while (dir->pos < index.entries.size()) {
    const IndexEntry &e = index.entries[dir->pos++];
    if (!(e.flags & kEntryDamaged)) {
      FillEntry(index.Name(e), e, entry);
      return ISO9660_OK;
    }
  }
  if (index.damaged && !dir->damageTold) {
    dir->damageTold = true;  // reported when the directory was indexed
    return ISO9660_ERR_CORRUPT;
  }
  return ISO9660_EOF;
}

Iso9660Result Iso9660_RewindDir(Iso9660Volume *volume, Iso9660Dir *dir) {
  Status s = CheckDir(volume, dir);
  if (!s.ok()) {
    return Report(nullptr, s);
  }
  dir->pos = 0;
  dir->damageTold = false;
  return ISO9660_OK;
}

Iso9660Result Iso9660_CloseDir(Iso9660Volume *volume, Iso9660Dir *dir) {
  Status s = CheckDir(volume, dir);
  if (!s.ok()) {
    return Report(nullptr, s);
  }
  --volume->openHandles;
  delete dir;
  return ISO9660_OK;
}

Iso9660Result Iso9660_Lookup(Iso9660Volume *volume, Iso9660Dir *dir, const char *name,
                             bool ignoreCase, Iso9660DirEntry *entry) {
  Status s = CheckDir(volume, dir);
  if (s.ok() && (name == nullptr || entry == nullptr)) {
    s = Fail(ISO9660_ERR_INVALID_ARG, "null name or entry");
  }
  if (!s.ok()) {
    return Report(nullptr, s);
  }
  const IndexEntry *e = dir->index->Find(name, ignoreCase);
  if (e == nullptr) {
    return ISO9660_ERR_NOT_FOUND;
  }
  s = DamagedEntry(*e);
  if (!s.ok()) {
    return s.code;
  }
  FillEntry(dir->index->Name(*e), *e, entry);
  return ISO9660_OK;
}

Iso9660Result Iso9660_OpenFile(Iso9660Volume *volume, const Iso9660DirEntry *entry,
                               Iso9660File **file) {
  if (file == nullptr) {
    return Report(nullptr, Fail(ISO9660_ERR_INVALID_ARG, "null file pointer"));
  }
  *file = nullptr;
  Status s = CheckVolume(volume);
  if (s.ok() && entry == nullptr) {
    s = Fail(ISO9660_ERR_INVALID_ARG, "null entry");
  }
  if (s.ok() && (entry->flags & ISO9660_ENTRY_DIRECTORY)) {
    s = Fail(
        ISO9660_ERR_INVALID_ARG, "\"%s\" is a directory",
        Printable(std::string_view(entry->name, strnlen(entry->name, sizeof entry->name))).c_str());
  }
  if (!s.ok()) {
    return Report(nullptr, s);
  }
  auto f = std::make_unique<Iso9660File>();
  f->owner = volume;
  s = CollectExtents(*volume, *entry, f.get());
  if (!s.ok()) {
    return Report(volume, s);
  }
  ++volume->openHandles;
  *file = f.release();
  return ISO9660_OK;
}

Iso9660Result Iso9660_ReadFile(Iso9660Volume *volume, Iso9660File *file, void *buffer,
                               uint32_t *length) {
  Status s = CheckFile(volume, file);
  if (s.ok() && length == nullptr) {
    s = Fail(ISO9660_ERR_INVALID_ARG, "null length");
  }
  if (!s.ok()) {
    return Report(nullptr, s);
  }
  uint32_t capacity = *length;
  *length = 0;
  if (file->pos >= file->size) {
    return ISO9660_EOF;
  }
  if (buffer == nullptr || capacity == 0) {
    return Report(nullptr, Fail(ISO9660_ERR_INVALID_ARG, "no room to read into"));
  }
  uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(capacity, file->size - file->pos));
  s = ReadFileRange(*volume, *file, file->pos, static_cast<uint8_t *>(buffer), n);
  if (!s.ok()) {
    return Report(volume, s);
  }
  file->pos += n;
  *length = n;
  return ISO9660_OK;
}

Iso9660Result Iso9660_PReadFile(Iso9660Volume *volume, Iso9660File *file, void *buffer,
                                uint64_t offset, size_t length) {
  Status s = CheckFile(volume, file);
  if (s.ok() && buffer == nullptr && length != 0) {
    s = Fail(ISO9660_ERR_INVALID_ARG, "null buffer");
  }
  if (!s.ok()) {
    return Report(nullptr, s);
  }
  if (offset > file->size || length > file->size - offset) {
    return ISO9660_EOF;
  }
  return Report(volume,
                ReadFileRange(*volume, *file, offset, static_cast<uint8_t *>(buffer), length));
}

Iso9660Result Iso9660_CloseFile(Iso9660Volume *volume, Iso9660File *file) {
  Status s = CheckFile(volume, file);
  if (!s.ok()) {
    return Report(nullptr, s);
  }
  --volume->openHandles;
  delete file;
  return ISO9660_OK;
}

Iso9660Result Iso9660_Stat(Iso9660Volume *volume, const char *path, Iso9660DirEntry *entry) {
  Status s = CheckVolume(volume);
  if (s.ok() && entry == nullptr) {
    s = Fail(ISO9660_ERR_INVALID_ARG, "null entry");
  }
  if (!s.ok()) {
    return Report(nullptr, s);
  }
  Located found;
  s = LookupPath(*volume, path, &found);
  if (!s.ok()) {
    return Report(volume, s);
  }
  FillEntry(found.name, found.entry, entry);
  return ISO9660_OK;
}

const char *Iso9660_ResultString(Iso9660Result result) {
  switch (result) {
    case ISO9660_OK:
      return "success";
    case ISO9660_ERR_NOT_FOUND:
      return "not found";
    case ISO9660_ERR_IO:
      return "I/O error";
    case ISO9660_ERR_CORRUPT:
      return "corrupt image";
    case ISO9660_ERR_INVALID_ARG:
      return "invalid argument";
    case ISO9660_EOF:
      return "end of directory or file";
    case ISO9660_ERR_NOT_ISO:
      return "not an ISO 9660 image";
    case ISO9660_ERR_HOST:
      return "host file operation failed";
    case ISO9660_ERR_UNSAFE:
      return "unsafe name or entry refused";
    case ISO9660_ERR_LIMIT:
      return "limit exceeded";
    default:
      return "unknown result";
  }
}
