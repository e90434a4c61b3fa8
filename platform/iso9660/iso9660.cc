/*
 * ISO 9660 reader: volume descriptors, directory walking with primary,
 * Joliet or Rock Ridge names, and file reads across multiple extents.
 *
 * Everything is read through the volume's gp::ImageReader. Directory sectors
 * go through a small per-volume cache (lookups revisit the same few sectors);
 * file data is read straight into the caller's buffer.
 *
 * Errors travel inside as Status values and are logged once, at the
 * exported function that returns them ("ISO9660: <what was wrong>").
 */
#include "platform/iso9660/iso9660.h"

#include <sys/stat.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/log/log.h"
#include "platform/util/safeAlloc.h"

namespace {

constexpr uint32_t kBlockSize = 2048;
constexpr uint32_t kFirstDescriptorBlock = 16;
// Real images carry 2 to 5 descriptors; the set must end well before this.
constexpr uint32_t kMaxDescriptors = 64;
constexpr size_t kMaxPathDepth = 64;
constexpr uint64_t kMaxDirBytes = 64ull << 20;
constexpr uint32_t kMaxDirRecords = 1u << 20;
// Continuation areas followed for one record, and all its system use bytes.
constexpr uint32_t kMaxCeChain = 32;
constexpr size_t kMaxSuspBytes = 64u << 10;
// Parts of one multi-extent file (about 4 TiB with 4 GiB parts).
constexpr uint32_t kMaxExtents = 1024;
constexpr size_t kMaxNameBytes = sizeof(Iso9660DirEntry::name) - 1;
constexpr size_t kCacheSlots = 16;

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

struct Status {
  Iso9660Result code = ISO9660_OK;
  std::string message;
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

// Logs a failure once where it leaves the reader. A missing name is an
// ordinary answer for callers probing paths, so it stays quiet.
Iso9660Result Report(const Status &s) {
  if (!s.ok() && s.code != ISO9660_EOF && s.code != ISO9660_ERR_NOT_FOUND) {
    Log("ISO9660: %s\n", s.message.c_str());
  }
  return s.code;
}

uint16_t Le16(const uint8_t *p) {
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
uint32_t Le32(const uint8_t *p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// A printable form of a raw name for log lines (names are hostile input).
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

// Where a directory's records are.
struct DirRef {
  uint32_t block = 0;  // first block of the records
  uint32_t size = 0;   // bytes
};

// One directory record, copied out of its sector (the cache may reuse it).
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

}  // namespace

struct Iso9660Volume {
  std::unique_ptr<gp::ImageReader> reader;
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

  struct Slot {
    uint32_t block = 0;
    uint64_t lastUse = 0;  // 0: empty
    std::array<uint8_t, kBlockSize> data{};
  };
  std::array<Slot, kCacheSlots> cache;
  uint64_t useClock = 0;

  DirRef root() const { return format == ISO9660_FORMAT_JOLIET ? jolietRoot : pvdRoot; }
  uint64_t rootRecordOffset() const {
    return format == ISO9660_FORMAT_JOLIET ? jolietRootRecordOffset : pvdRootRecordOffset;
  }
};

struct Iso9660Dir {
  const Iso9660Volume *owner = nullptr;
  DirRef ref;
  uint64_t pos = 0;  // byte offset inside the directory
  uint32_t records = 0;
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

// One block through the cache; the pointer stays valid until the next call.
Status GetBlock(Iso9660Volume &vol, uint32_t block, const uint8_t **out) {
  ++vol.useClock;
  Iso9660Volume::Slot *victim = &vol.cache[0];
  for (auto &slot : vol.cache) {
    if (slot.lastUse != 0 && slot.block == block) {
      slot.lastUse = vol.useClock;
      *out = slot.data.data();
      return {};
    }
    if (slot.lastUse < victim->lastUse) {
      victim = &slot;
    }
  }
  if (vol.volumeBlocks != 0 && !RangeInImage(vol, block, kBlockSize)) {
    return Fail(ISO9660_ERR_CORRUPT, "block %u beyond end of image", block);
  }
  if (!vol.reader->ReadAt(static_cast<uint64_t>(block) * kBlockSize, victim->data.data(),
                          kBlockSize)) {
    victim->lastUse = 0;
    return Fail(ISO9660_ERR_IO, "cannot read block %u", block);
  }
  victim->block = block;
  victim->lastUse = vol.useClock;
  *out = victim->data.data();
  return {};
}

// Bytes at an arbitrary image offset, through the cache.
Status ReadBytes(Iso9660Volume &vol, uint64_t offset, size_t len, uint8_t *out) {
  while (len > 0) {
    uint64_t block = offset / kBlockSize;
    if (block > UINT32_MAX) {
      return Fail(ISO9660_ERR_CORRUPT, "offset %llu beyond end of image",
                  static_cast<unsigned long long>(offset));
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

// Reads the record at image offset `offset`, which must lie wholly inside its
// sector; a zero length byte gives a record with len 0 (end of sector).
Status ReadRecordAt(Iso9660Volume &vol, uint64_t offset, Record *rec) {
  if (offset / kBlockSize > UINT32_MAX) {
    return Fail(ISO9660_ERR_CORRUPT, "directory record offset %llu beyond end of image",
                static_cast<unsigned long long>(offset));
  }
  const uint8_t *data;
  Status s = GetBlock(vol, static_cast<uint32_t>(offset / kBlockSize), &data);
  if (!s.ok()) {
    return s;
  }
  size_t in = offset % kBlockSize;
  rec->offset = offset;
  rec->len = data[in];
  if (rec->len == 0) {
    return {};
  }
  if (rec->len < kMinRecordLen) {
    return Fail(ISO9660_ERR_CORRUPT, "directory record too short (%u bytes) at offset %llu",
                rec->len, static_cast<unsigned long long>(offset));
  }
  if (in + rec->len > kBlockSize) {
    return Fail(ISO9660_ERR_CORRUPT, "directory record overruns its sector at offset %llu",
                static_cast<unsigned long long>(offset));
  }
  memcpy(rec->bytes.data(), data + in, rec->len);
  if (33u + rec->nameLen() > rec->len || rec->nameLen() == 0) {
    return Fail(ISO9660_ERR_CORRUPT, "directory record name overruns the record at offset %llu",
                static_cast<unsigned long long>(offset));
  }
  return {};
}

bool IsRockRidgeId(std::string_view id) {
  return id == "RRIP_1991A" || id == "IEEE_P1282" || id == "IEEE_1282";
}

// Walks the SUSP entries of a record and its continuation areas. rootDot
// reads the root's "." record, where SP sits at the start of the area.
Status ParseSusp(Iso9660Volume &vol, const Record &rec, bool rootDot, RrInfo *rr) {
  size_t start = rec.suspStart() + (rootDot ? 0 : vol.suspSkip);
  if (start >= rec.len) {
    return {};
  }
  std::vector<uint8_t> area(rec.bytes.begin() + start, rec.bytes.begin() + rec.len);
  size_t total = area.size();
  std::set<std::pair<uint32_t, uint32_t>> visited;
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
                    static_cast<unsigned long long>(rec.offset));
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
                      static_cast<unsigned long long>(rec.offset));
        }
        if (!rr->nameDone) {
          rr->haveName = true;
          rr->name.append(reinterpret_cast<const char *>(e + 5), len - 5);
          if (rr->name.size() > kMaxNameBytes) {
            return Fail(ISO9660_ERR_LIMIT, "Rock Ridge name longer than %zu bytes at offset %llu",
                        kMaxNameBytes, static_cast<unsigned long long>(rec.offset));
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
    if (!visited.insert({ceBlock, ceOffset}).second) {
      return Fail(ISO9660_ERR_CORRUPT, "Rock Ridge continuation loop at block %u for offset %llu",
                  ceBlock, static_cast<unsigned long long>(rec.offset));
    }
    if (++chain > kMaxCeChain) {
      return Fail(ISO9660_ERR_LIMIT, "more than %u Rock Ridge continuation areas at offset %llu",
                  kMaxCeChain, static_cast<unsigned long long>(rec.offset));
    }
    if (ceLen > kMaxSuspBytes - std::min(total, kMaxSuspBytes) || ceOffset >= kBlockSize) {
      return Fail(ISO9660_ERR_LIMIT, "Rock Ridge data over %zu bytes at offset %llu", kMaxSuspBytes,
                  static_cast<unsigned long long>(rec.offset));
    }
    if (!RangeInImage(vol, ceBlock, static_cast<uint64_t>(ceOffset) + ceLen)) {
      return Fail(ISO9660_ERR_CORRUPT,
                  "Rock Ridge continuation area beyond end of image: block %u for offset %llu",
                  ceBlock, static_cast<unsigned long long>(rec.offset));
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
  if (raw.size() % 2 != 0) {
    return Fail(ISO9660_ERR_CORRUPT, "Joliet name of odd length at offset %llu",
                static_cast<unsigned long long>(offset));
  }
  std::u16string units;
  for (size_t i = 0; i < raw.size(); i += 2) {
    units.push_back(static_cast<char16_t>((static_cast<uint8_t>(raw[i]) << 8) |
                                          static_cast<uint8_t>(raw[i + 1])));
  }
  char buf[4 * 128 + 1];
  int32_t len = 0;
  UErrorCode err = U_ZERO_ERROR;
  u_strToUTF8WithSub(buf, sizeof buf, &len, units.data(), static_cast<int32_t>(units.size()),
                     0xFFFD, nullptr, &err);
  if (U_FAILURE(err) || len < 0 || static_cast<size_t>(len) >= sizeof buf) {
    return Fail(ISO9660_ERR_CORRUPT, "Joliet name cannot be converted at offset %llu",
                static_cast<unsigned long long>(offset));
  }
  out->assign(buf, static_cast<size_t>(len));
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
                Printable(name).c_str(), static_cast<unsigned long long>(offset));
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

Status CheckDirRef(const Iso9660Volume &vol, const DirRef &ref, const std::string &what) {
  if (ref.size == 0) {
    return Fail(ISO9660_ERR_CORRUPT, "empty directory extent: \"%s\" block %u",
                Printable(what).c_str(), ref.block);
  }
  if (ref.size > kMaxDirBytes) {
    return Fail(ISO9660_ERR_LIMIT, "directory larger than %llu bytes: \"%s\" (%u bytes)",
                static_cast<unsigned long long>(kMaxDirBytes), Printable(what).c_str(), ref.size);
  }
  if (!RangeInImage(vol, ref.block, ref.size)) {
    return Fail(ISO9660_ERR_CORRUPT, "directory extent beyond end of image: \"%s\" block %u",
                Printable(what).c_str(), ref.block);
  }
  return {};
}

// The next record of a directory, or len 0 at its end. Moves pos past what
// it consumed, even on failure (past a broken record to the next sector), so
// a caller that goes on after an error always makes progress.
Status NextRecord(Iso9660Volume &vol, Iso9660Dir *dir, Record *rec) {
  for (;;) {
    if (dir->pos >= dir->ref.size) {
      rec->len = 0;
      return {};
    }
    if (++dir->records > kMaxDirRecords) {
      dir->pos = dir->ref.size;
      return Fail(ISO9660_ERR_LIMIT, "more than %u records in directory at block %u",
                  kMaxDirRecords, dir->ref.block);
    }
    uint64_t nextSector = (dir->pos / kBlockSize + 1) * kBlockSize;
    uint64_t offset = static_cast<uint64_t>(dir->ref.block) * kBlockSize + dir->pos;
    Status s = ReadRecordAt(vol, offset, rec);
    if (!s.ok()) {
      dir->pos = nextSector;
      return s;
    }
    if (rec->len == 0) {
      dir->pos = nextSector;  // records never straddle a sector
      continue;
    }
    if (dir->pos + rec->len > dir->ref.size) {
      dir->pos = dir->ref.size;
      return Fail(ISO9660_ERR_CORRUPT,
                  "directory record runs past the end of its directory at "
                  "offset %llu",
                  static_cast<unsigned long long>(offset));
    }
    dir->pos += rec->len;
    return {};
  }
}

// Turns a record (and, for a multi-extent file, the records after it) into
// an entry. *skip is set for records that are not shown (".", "..",
// associated files, relocated directories).
Status BuildEntry(Iso9660Volume &vol, Iso9660Dir *dir, const Record &first, Iso9660DirEntry *entry,
                  bool *skip) {
  *skip = false;
  if (first.isDotOrDotDot() || (first.flags() & kRecAssociated)) {
    *skip = true;
    return {};
  }
  std::string name;
  RrInfo rr;
  bool useRr = vol.format == ISO9660_FORMAT_ROCKRIDGE;
  if (useRr) {
    Status s = ParseSusp(vol, first, false, &rr);
    if (!s.ok()) {
      return s;
    }
    if (rr.relocated) {
      *skip = true;
      return {};
    }
  }
  if (useRr && rr.haveName) {
    name = rr.name;
  } else if (vol.format == ISO9660_FORMAT_JOLIET) {
    Status s = JolietToUtf8(first.rawName(), first.offset, &name);
    if (!s.ok()) {
      return s;
    }
    StripVersion(&name);
  } else {
    name.assign(first.rawName());
    StripVersion(&name);
    if (name.size() > 1 && name.back() == '.') {
      name.pop_back();
    }
  }
  Status s = CheckName(name, first.offset);
  if (!s.ok()) {
    return s;
  }

  uint64_t total = first.dataLength();
  uint32_t flags = 0;
  uint32_t dataBlock = first.extent() + first.xarBlocks();
  if (first.extent() > UINT32_MAX - first.xarBlocks()) {
    return Fail(ISO9660_ERR_CORRUPT, "extent overflows: \"%s\"", Printable(name).c_str());
  }
  if (first.flags() & kRecMultiExtent) {
    if (first.flags() & kRecDirectory) {
      return Fail(ISO9660_ERR_CORRUPT, "multi-extent directory \"%s\"", Printable(name).c_str());
    }
    flags |= ISO9660_ENTRY_MULTIEXTENT;
    bool last = false;
    for (uint32_t parts = 1; !last; ++parts) {
      if (parts >= kMaxExtents) {
        return Fail(ISO9660_ERR_LIMIT, "file \"%s\" has more than %u extents",
                    Printable(name).c_str(), kMaxExtents);
      }
      uint64_t before = dir->pos;
      uint32_t recordsBefore = dir->records;
      Record part;
      Status ps = NextRecord(vol, dir, &part);
      if (!ps.ok()) {
        return ps;
      }
      if (part.len == 0 || part.rawName() != first.rawName() || (part.flags() & kRecDirectory)) {
        if (part.len != 0) {
          dir->pos = before;  // let the next call see that record itself
          dir->records = recordsBefore;
        }
        return Fail(ISO9660_ERR_CORRUPT, "multi-extent file \"%s\" lacks its last part",
                    Printable(name).c_str());
      }
      total += part.dataLength();
      last = !(part.flags() & kRecMultiExtent);
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
    Status ds = CheckDirRef(vol, {dataBlock, static_cast<uint32_t>(total)}, name);
    if (!ds.ok()) {
      return ds;
    }
  } else if (!(flags & ISO9660_ENTRY_MULTIEXTENT) && !RangeInImage(vol, dataBlock, total)) {
    return Fail(ISO9660_ERR_CORRUPT, "file extent beyond end of image: \"%s\" block %u",
                Printable(name).c_str(), dataBlock);
  }

  memset(entry, 0, sizeof *entry);
  memcpy(entry->name, name.data(), name.size());
  entry->size64 = total;
  entry->size = total > UINT32_MAX ? 0xFFFFFFFFu : static_cast<uint32_t>(total);
  entry->flags = flags;
  entry->extent = dataBlock;
  entry->mode = useRr ? rr.mode : 0;
  entry->recordOffset = first.offset;
  return {};
}

// The next shown entry, or ISO9660_EOF.
Status NextEntry(Iso9660Volume &vol, Iso9660Dir *dir, Iso9660DirEntry *entry) {
  for (;;) {
    Record rec;
    Status s = NextRecord(vol, dir, &rec);
    if (!s.ok()) {
      return s;
    }
    if (rec.len == 0) {
      return Fail(ISO9660_EOF, "end of directory");
    }
    bool skip = false;
    s = BuildEntry(vol, dir, rec, entry, &skip);
    if (!s.ok() || !skip) {
      return s;
    }
  }
}

Status SplitPath(const char *path, std::vector<std::string> *parts) {
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
      return Fail(ISO9660_ERR_LIMIT, "path deeper than %zu levels: \"%s\"", kMaxPathDepth,
                  Printable(path).c_str());
    }
    parts->emplace_back(part);
  }
  return {};
}

void RootEntry(const Iso9660Volume &vol, Iso9660DirEntry *entry) {
  memset(entry, 0, sizeof *entry);
  DirRef root = vol.root();
  entry->size = root.size;
  entry->size64 = root.size;
  entry->flags = ISO9660_ENTRY_DIRECTORY;
  entry->extent = root.block;
  entry->mode = vol.format == ISO9660_FORMAT_ROCKRIDGE ? vol.rootMode : 0;
  entry->recordOffset = vol.rootRecordOffset();
}

// Walks the directory extents from the root. A directory met again below
// itself is a loop in the image.
Status LookupPath(Iso9660Volume &vol, const char *path, Iso9660DirEntry *entry) {
  std::vector<std::string> parts;
  Status s = SplitPath(path, &parts);
  if (!s.ok()) {
    return s;
  }
  RootEntry(vol, entry);
  std::vector<uint32_t> ancestors{entry->extent};
  for (const std::string &part : parts) {
    if (!(entry->flags & ISO9660_ENTRY_DIRECTORY)) {
      return Fail(ISO9660_ERR_NOT_FOUND, "not a directory in \"%s\"", Printable(path).c_str());
    }
    Iso9660Dir dir;
    dir.ref = {entry->extent, static_cast<uint32_t>(entry->size64)};
    Status firstError;
    bool found = false;
    while (!found) {
      Status es = NextEntry(vol, &dir, entry);
      if (es.code == ISO9660_EOF) {
        break;
      }
      if (!es.ok()) {
        // Another entry may still be the one we want.
        if (firstError.ok()) {
          firstError = es;
        }
        continue;
      }
      found = part == entry->name;
    }
    if (!found) {
      return firstError.ok() ? Fail(ISO9660_ERR_NOT_FOUND, "no \"%s\"", Printable(path).c_str())
                             : firstError;
    }
    if (entry->flags & ISO9660_ENTRY_DIRECTORY) {
      if (std::find(ancestors.begin(), ancestors.end(), entry->extent) != ancestors.end()) {
        return Fail(ISO9660_ERR_CORRUPT, "directory loop at \"%s\" (block %u)",
                    Printable(path).c_str(), entry->extent);
      }
      ancestors.push_back(entry->extent);
    }
  }
  return {};
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
      Log("ISO9660: Joliet names not used: %s\n", js.message.c_str());
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
  Status rs = ParseSusp(vol, dot, true, &rr);
  if (!rs.ok()) {
    Log("ISO9660: Rock Ridge names not used: %s\n", rs.message.c_str());
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

Status OpenVolume(std::unique_ptr<gp::ImageReader> reader, uint32_t format,
                  Iso9660Volume **volume) {
  if (volume == nullptr) {
    return Fail(ISO9660_ERR_INVALID_ARG, "null volume pointer");
  }
  *volume = nullptr;
  if (!reader) {
    return Fail(ISO9660_ERR_INVALID_ARG, "no image reader");
  }
  auto vol = std::make_unique<Iso9660Volume>();
  vol->imageSize = reader->Size();
  vol->reader = std::move(reader);
  Status s = Mount(*vol, format);
  if (!s.ok()) {
    return s;
  }
  *volume = vol.release();
  return {};
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
  for (uint32_t steps = 0;; ++steps) {
    if (steps > 2 * kMaxExtents) {
      return Fail(ISO9660_ERR_LIMIT, "file \"%s\" has more than %u extents",
                  Printable(entry.name).c_str(), kMaxExtents);
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
                    Printable(entry.name).c_str());
      }
    } else if (rec.rawName() != firstName || (rec.flags() & kRecDirectory)) {
      return Fail(ISO9660_ERR_CORRUPT, "multi-extent file \"%s\" lacks its last part",
                  Printable(entry.name).c_str());
    }
    if (rec.interleaved()) {
      return Fail(ISO9660_ERR_CORRUPT, "interleaved file \"%s\" is not supported",
                  Printable(entry.name).c_str());
    }
    if (file->extents.size() >= kMaxExtents) {
      return Fail(ISO9660_ERR_LIMIT, "file \"%s\" has more than %u extents",
                  Printable(entry.name).c_str(), kMaxExtents);
    }
    uint32_t block = rec.extent() + rec.xarBlocks();
    if (rec.extent() > UINT32_MAX - rec.xarBlocks() ||
        !RangeInImage(vol, block, rec.dataLength())) {
      return Fail(ISO9660_ERR_CORRUPT, "file extent beyond end of image: \"%s\" block %u",
                  Printable(entry.name).c_str(), rec.extent());
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
                Printable(entry.name).c_str());
  }
  file->size = total;
  return {};
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
                    static_cast<unsigned long long>(at));
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

}  // namespace

Iso9660Result Iso9660_ListFormats(const char *path, uint32_t *formats) {
  if (formats == nullptr) {
    return Report(Fail(ISO9660_ERR_INVALID_ARG, "null formats pointer"));
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
    return Report(Fail(ISO9660_ERR_INVALID_ARG, "null path or volume pointer"));
  }
  std::string error;
  std::unique_ptr<gp::ImageReader> reader = gp::OpenFileImageReader(path, &error);
  if (!reader) {
    return Report(Fail(ISO9660_ERR_IO, "cannot open image \"%s\": %s", path, error.c_str()));
  }
  Status s = OpenVolume(std::move(reader), format, volume);
  if (!s.ok()) {
    s.message += " in \"" + Printable(path) + "\"";
  }
  return Report(s);
}

Iso9660Result Iso9660_OpenWithReader(gp::ImageReadFn readFn, gp::ImageCloseFn closeFn, void *handle,
                                     uint64_t size, uint32_t format, Iso9660Volume **volume) {
  if (volume != nullptr) {
    *volume = nullptr;
  }
  if (readFn == nullptr || volume == nullptr) {
    return Report(Fail(ISO9660_ERR_INVALID_ARG, "null read callback or volume pointer"));
  }
  auto reader = std::make_unique<HandedOverReader>(
      readFn, closeFn, handle, size == 0 ? gp::ImageReader::kUnknownSize : size);
  HandedOverReader *raw = reader.get();
  Status s = OpenVolume(std::move(reader), format, volume);
  if (s.ok()) {
    raw->TakeOwnership();
  }
  return Report(s);
}

Iso9660Result Iso9660_OpenReader(std::unique_ptr<gp::ImageReader> reader, uint32_t format,
                                 Iso9660Volume **volume) {
  return Report(OpenVolume(std::move(reader), format, volume));
}

Iso9660Result Iso9660_Close(Iso9660Volume *volume) {
  Status s = CheckVolume(volume);
  if (!s.ok()) {
    return Report(s);
  }
  if (volume->openHandles != 0) {
    Log("ISO9660: volume closed with %d directory or file handles still open\n",
        volume->openHandles);
  }
  bool closed = volume->reader->Close();
  delete volume;
  return closed ? ISO9660_OK : Report(Fail(ISO9660_ERR_IO, "closing the image failed"));
}

Iso9660Result Iso9660_GetVolumeId(Iso9660Volume *volume, char **volumeId) {
  if (volumeId == nullptr) {
    return Report(Fail(ISO9660_ERR_INVALID_ARG, "null volume id pointer"));
  }
  *volumeId = nullptr;
  Status s = CheckVolume(volume);
  if (!s.ok()) {
    return Report(s);
  }
  *volumeId = UtilSafeStrdup0(volume->volumeId.c_str());
  return ISO9660_OK;
}

Iso9660Result Iso9660_OpenDir(Iso9660Volume *volume, const char *path, Iso9660Dir **dir) {
  if (dir == nullptr) {
    return Report(Fail(ISO9660_ERR_INVALID_ARG, "null directory pointer"));
  }
  *dir = nullptr;
  Status s = CheckVolume(volume);
  if (!s.ok()) {
    return Report(s);
  }
  Iso9660DirEntry entry;
  s = LookupPath(*volume, path, &entry);
  if (!s.ok()) {
    return Report(s);
  }
  if (!(entry.flags & ISO9660_ENTRY_DIRECTORY)) {
    return Report(
        Fail(ISO9660_ERR_INVALID_ARG, "not a directory: \"%s\"", Printable(path).c_str()));
  }
  DirRef ref{entry.extent, static_cast<uint32_t>(entry.size64)};
  s = CheckDirRef(*volume, ref, path);
  if (!s.ok()) {
    return Report(s);
  }
  auto *d = new Iso9660Dir;
  d->owner = volume;
  d->ref = ref;
  ++volume->openHandles;
  *dir = d;
  return ISO9660_OK;
}

namespace {

Status CheckDir(const Iso9660Volume *volume, const Iso9660Dir *dir) {
  Status s = CheckVolume(volume);
  if (!s.ok()) {
    return s;
  }
  if (dir == nullptr || dir->owner != volume) {
    return Fail(ISO9660_ERR_INVALID_ARG, "directory handle does not belong to this volume");
  }
  return {};
}

Status CheckFile(const Iso9660Volume *volume, const Iso9660File *file) {
  Status s = CheckVolume(volume);
  if (!s.ok()) {
    return s;
  }
  if (file == nullptr || file->owner != volume) {
    return Fail(ISO9660_ERR_INVALID_ARG, "file handle does not belong to this volume");
  }
  return {};
}

}  // namespace

Iso9660Result Iso9660_ReadDir(Iso9660Volume *volume, Iso9660Dir *dir, Iso9660DirEntry *entry) {
  Status s = CheckDir(volume, dir);
  if (s.ok() && entry == nullptr) {
    s = Fail(ISO9660_ERR_INVALID_ARG, "null entry");
  }
  if (!s.ok()) {
    return Report(s);
  }
  return Report(NextEntry(*volume, dir, entry));
}

Iso9660Result Iso9660_RewindDir(Iso9660Volume *volume, Iso9660Dir *dir) {
  Status s = CheckDir(volume, dir);
  if (!s.ok()) {
    return Report(s);
  }
  dir->pos = 0;
  dir->records = 0;
  return ISO9660_OK;
}

Iso9660Result Iso9660_CloseDir(Iso9660Volume *volume, Iso9660Dir *dir) {
  Status s = CheckDir(volume, dir);
  if (!s.ok()) {
    return Report(s);
  }
  --volume->openHandles;
  delete dir;
  return ISO9660_OK;
}

Iso9660Result Iso9660_OpenFile(Iso9660Volume *volume, const Iso9660DirEntry *entry,
                               Iso9660File **file) {
  if (file == nullptr) {
    return Report(Fail(ISO9660_ERR_INVALID_ARG, "null file pointer"));
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
    return Report(s);
  }
  auto f = std::make_unique<Iso9660File>();
  f->owner = volume;
  s = CollectExtents(*volume, *entry, f.get());
  if (!s.ok()) {
    return Report(s);
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
    return Report(s);
  }
  uint32_t capacity = *length;
  *length = 0;
  if (file->pos >= file->size) {
    return ISO9660_EOF;
  }
  if (buffer == nullptr || capacity == 0) {
    return Report(Fail(ISO9660_ERR_INVALID_ARG, "no room to read into"));
  }
  uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(capacity, file->size - file->pos));
  s = ReadFileRange(*volume, *file, file->pos, static_cast<uint8_t *>(buffer), n);
  if (!s.ok()) {
    return Report(s);
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
    return Report(s);
  }
  if (offset > file->size || length > file->size - offset) {
    return ISO9660_EOF;
  }
  return Report(ReadFileRange(*volume, *file, offset, static_cast<uint8_t *>(buffer), length));
}

Iso9660Result Iso9660_CloseFile(Iso9660Volume *volume, Iso9660File *file) {
  Status s = CheckFile(volume, file);
  if (!s.ok()) {
    return Report(s);
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
    return Report(s);
  }
  return Report(LookupPath(*volume, path, entry));
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
