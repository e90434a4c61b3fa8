/*
 * FAT12/FAT16 volumes in image files.
 *
 * The volume keeps the part of the first FAT that covers its clusters in
 * memory, and beside it, for each cluster, how many FAT entries name it as
 * their successor: a cross-link shows there as a count above one, and a
 * chain's first cluster must have none. A call changes the FAT in memory
 * under a FatChange, which on commit writes only the byte range it touched
 * to every FAT copy, and otherwise puts the old entries back, so memory and
 * image never drift apart and a failed call leaves the FAT as it was.
 *
 * A run of writes to one file changes the FAT and that file's entry in
 * memory only (the volume's pending file); any other call writes them out
 * first (Flush). Copying a file in 512-byte pieces so costs one system
 * call per piece instead of four.
 *
 * File and directory handles hold their cluster chains, checked when they
 * are opened, so later reads and writes follow a chain already known to be
 * sound and owned by nobody else. Directory handles also hold their
 * entries, which every directory write here keeps current. New clusters
 * are not zeroed: the bytes past a file's end are zeroed when the file
 * grows over them (a gap written past the end, a larger size), which is
 * the only way they can become part of the file.
 */
#include "platform/fat/fat.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/file/fileIO.h"
#include "platform/log/log.h"
#include "platform/util/bytes.h"

struct FATDevice {
  std::string path;
};

namespace {

constexpr size_t kBootSectorSize = 512;
constexpr size_t kDirEntrySize = 32;
constexpr uint32_t kMinFat16Clusters = 4085;
constexpr uint32_t kMinFat32Clusters = 65525;
constexpr uint64_t kMaxFileSize = 0xFFFFFFFFull;
constexpr uint32_t kMaxDirEntries = 65536;
constexpr size_t kMaxNameUnits = 255;
constexpr size_t kLongNameUnitsPerEntry = 13;

constexpr uint8_t kAttrVolumeLabel = 0x08;
constexpr uint8_t kAttrDirectory = 0x10;
constexpr uint8_t kAttrArchive = 0x20;
constexpr uint8_t kAttrLongName = 0x0F;
constexpr uint8_t kAttrLongNameMask = 0x3F;
constexpr uint8_t kEntryFree = 0xE5;
constexpr uint8_t kEntryEnd = 0x00;
// A name whose first byte really is 0xE5 is stored with 0x05 there.
constexpr uint8_t kEntryKanjiE5 = 0x05;
constexpr uint8_t kLastLongEntry = 0x40;
// Byte 12: the base or the extension of the short name is shown in lower
// case (Windows NT, Linux).
constexpr uint8_t kLowerBase = 0x08;
constexpr uint8_t kLowerExt = 0x10;

// Field offsets of a directory entry.
constexpr size_t kDirAttr = 11;
constexpr size_t kDirCase = 12;
constexpr size_t kDirCreateTenths = 13;
constexpr size_t kDirCreateTime = 14;
constexpr size_t kDirCreateDate = 16;
constexpr size_t kDirAccessDate = 18;
constexpr size_t kDirClusterHigh = 20;
constexpr size_t kDirWriteTime = 22;
constexpr size_t kDirWriteDate = 24;
constexpr size_t kDirCluster = 26;
constexpr size_t kDirSize = 28;
// Fields of a long-name entry.
constexpr size_t kLongChecksum = 13;
constexpr size_t kLongUnitOffsets[kLongNameUnitsPerEntry] = {1,  3,  5,  7,  9,  14, 16,
                                                             18, 20, 22, 24, 28, 30};

const uint8_t kDotName[11] = {'.', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
const uint8_t kDotDotName[11] = {'.', '.', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};

FATError Fail(FATError error, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
FATError Fail(FATError error, const char *fmt, ...) {
  char text[512];
  va_list args;
  va_start(args, fmt);
  vsnprintf(text, sizeof text, fmt, args);
  va_end(args);
  Log("FAT: %s\n", text);
  return error;
}

void PutLe16(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}

void PutLe32(uint8_t *p, uint32_t v) {
  PutLe16(p, v);
  PutLe16(p + 2, v >> 16);
}

// Closes the image file when the volume goes, whatever path it went by.
class ImageFile {
 public:
  ImageFile() { FileIO_Invalidate(&fd_); }
  ~ImageFile() {
    if (FileIO_IsValid(&fd_)) {
      FileIO_Close(&fd_);
    }
  }
  ImageFile(const ImageFile &) = delete;
  ImageFile &operator=(const ImageFile &) = delete;

  FileIODescriptor *fd() { return &fd_; }

  FATError Read(uint64_t offset, void *buf, size_t len) {
    FileIOResult r = FileIO_Pread(&fd_, buf, len, offset);
    if (r != FILEIO_SUCCESS) {
      return Fail(r == FILEIO_EOF ? FAT_ERR_CORRUPT : FAT_ERR_IO,
                  "reading %zu bytes at offset %llu of \"%s\" failed: %s", len,
                  static_cast<unsigned long long>(offset), FileIO_Filename(&fd_),
                  FileIO_ErrorEnglish(r));
    }
    return FAT_OK;
  }

  FATError Write(uint64_t offset, const void *buf, size_t len) {
    FileIOResult r = FileIO_Pwrite(&fd_, buf, len, offset);
    if (r != FILEIO_SUCCESS) {
      return Fail(FAT_ERR_IO, "writing %zu bytes at offset %llu of \"%s\" failed: %s", len,
                  static_cast<unsigned long long>(offset), FileIO_Filename(&fd_),
                  FileIO_ErrorEnglish(r));
    }
    return FAT_OK;
  }

 private:
  FileIODescriptor fd_;
};

// A DOS date and time for now, local time as DOS keeps it; dates before
// 1980 (a clock never set) become 1980-01-01.
void DosNow(uint16_t *date, uint16_t *time) {
  std::time_t now = std::time(nullptr);
  std::tm tm{};
  if (localtime_r(&now, &tm) == nullptr || tm.tm_year < 80 || tm.tm_year > 80 + 127) {
    *date = (1 << 5) | 1;
    *time = 0;
    return;
  }
  *date = static_cast<uint16_t>(((tm.tm_year - 80) << 9) | ((tm.tm_mon + 1) << 5) | tm.tm_mday);
  *time = static_cast<uint16_t>((tm.tm_hour << 11) | (tm.tm_min << 5) | (tm.tm_sec / 2));
}

/* ---- Names ---- */

// Code page 437, the OEM code page short names are read and made in.
const uint16_t kCp437High[128] = {
    0x00C7, 0x00FC, 0x00E9, 0x00E2, 0x00E4, 0x00E0, 0x00E5, 0x00E7, 0x00EA, 0x00EB, 0x00E8, 0x00EF,
    0x00EE, 0x00EC, 0x00C4, 0x00C5, 0x00C9, 0x00E6, 0x00C6, 0x00F4, 0x00F6, 0x00F2, 0x00FB, 0x00F9,
    0x00FF, 0x00D6, 0x00DC, 0x00A2, 0x00A3, 0x00A5, 0x20A7, 0x0192, 0x00E1, 0x00ED, 0x00F3, 0x00FA,
    0x00F1, 0x00D1, 0x00AA, 0x00BA, 0x00BF, 0x2310, 0x00AC, 0x00BD, 0x00BC, 0x00A1, 0x00AB, 0x00BB,
    0x2591, 0x2592, 0x2593, 0x2502, 0x2524, 0x2561, 0x2562, 0x2556, 0x2555, 0x2563, 0x2551, 0x2557,
    0x255D, 0x255C, 0x255B, 0x2510, 0x2514, 0x2534, 0x252C, 0x251C, 0x2500, 0x253C, 0x255E, 0x255F,
    0x255A, 0x2554, 0x2569, 0x2566, 0x2560, 0x2550, 0x256C, 0x2567, 0x2568, 0x2564, 0x2565, 0x2559,
    0x2558, 0x2552, 0x2553, 0x256B, 0x256A, 0x2518, 0x250C, 0x2588, 0x2584, 0x258C, 0x2590, 0x2580,
    0x03B1, 0x00DF, 0x0393, 0x03C0, 0x03A3, 0x03C3, 0x00B5, 0x03C4, 0x03A6, 0x0398, 0x03A9, 0x03B4,
    0x221E, 0x03C6, 0x03B5, 0x2229, 0x2261, 0x00B1, 0x2265, 0x2264, 0x2320, 0x2321, 0x00F7, 0x2248,
    0x00B0, 0x2219, 0x00B7, 0x221A, 0x207F, 0x00B2, 0x25A0, 0x00A0,
};

void AppendUtf8(std::string *out, uint32_t cp) {
  if (cp < 0x80) {
    out->push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

// UTF-8 already checked as valid, as UTF-16.
std::u16string Utf8ToUtf16(std::string_view text) {
  std::u16string out;
  for (size_t i = 0; i < text.size();) {
    size_t len = gp::Utf8SequenceLength(text.substr(i));
    auto b = [&](size_t k) { return static_cast<uint32_t>(static_cast<uint8_t>(text[i + k])); };
    uint32_t cp = len == 1   ? b(0)
                  : len == 2 ? ((b(0) & 0x1F) << 6) | (b(1) & 0x3F)
                  : len == 3 ? ((b(0) & 0x0F) << 12) | ((b(1) & 0x3F) << 6) | (b(2) & 0x3F)
                             : ((b(0) & 0x07) << 18) | ((b(1) & 0x3F) << 12) |
                                   ((b(2) & 0x3F) << 6) | (b(3) & 0x3F);
    if (cp >= 0x10000) {
      out.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
    i += len;
  }
  return out;
}

// UTF-16 whose surrogates are paired, as UTF-8.
std::string Utf16ToUtf8(const std::u16string &units) {
  std::string out;
  for (size_t i = 0; i < units.size(); i++) {
    uint32_t u = units[i];
    if (u >= 0xD800 && u < 0xDC00 && i + 1 < units.size()) {
      u = 0x10000 + ((u - 0xD800) << 10) + (units[++i] - 0xDC00);
    }
    AppendUtf8(&out, u);
  }
  return out;
}

// Characters no name may hold: control characters and those that
// separate paths or stand for other names.
bool IsReserved(uint32_t c) {
  switch (c) {
    case '\\':
    case '/':
    case ':':
    case '*':
    case '?':
    case '"':
    case '<':
    case '>':
    case '|':
    case 0x7F:
      return true;
    default:
      return c < 0x20;
  }
}

// The rules every stored name follows, whoever wrote it: refused names
// given to us, and long names on the image that no program should have
// written (a name with a slash would be a path to whoever copies it out).
bool IsValidName(const std::u16string &u) {
  if (u.empty() || u.size() > kMaxNameUnits || u.back() == u'.' || u.back() == u' ') {
    return false;
  }
  for (size_t i = 0; i < u.size(); i++) {
    char16_t c = u[i];
    if (IsReserved(c) || (c >= 0xDC00 && c < 0xE000)) {
      return false;
    }
    if (c >= 0xD800 && c < 0xDC00) {  // a high surrogate takes a low one along
      if (++i == u.size() || u[i] < 0xDC00 || u[i] >= 0xE000) {
        return false;
      }
    }
  }
  return true;
}

bool IsShortNameSymbol(uint32_t c) {
  switch (c) {
    case '!':
    case '#':
    case '$':
    case '%':
    case '&':
    case '\'':
    case '(':
    case ')':
    case '-':
    case '@':
    case '^':
    case '_':
    case '`':
    case '{':
    case '}':
    case '~':
      return true;
    default:
      return false;
  }
}

bool IsUpper(uint32_t c) {
  return c >= 'A' && c <= 'Z';
}
bool IsLower(uint32_t c) {
  return c >= 'a' && c <= 'z';
}

// A character of a long name in a generated short name: upper-cased, in
// the OEM code page; 0 when it has no place there (it becomes '_').
uint8_t ShortNameByte(char16_t c) {
  if (IsLower(c)) {
    return static_cast<uint8_t>(c - 'a' + 'A');
  }
  if (IsUpper(c) || (c >= '0' && c <= '9') || IsShortNameSymbol(c)) {
    return static_cast<uint8_t>(c);
  }
  // Latin-1 letters, upper-cased, where the code page has them.
  if (c >= 0xE0 && c <= 0xFE && c != 0xF7) {
    c = static_cast<char16_t>(c - 0x20);
  }
  if (c >= 0xC0 && c <= 0xDE && c != 0xD7) {
    for (uint32_t i = 0; i < 128; i++) {
      if (kCp437High[i] == c) {
        return static_cast<uint8_t>(0x80 + i);
      }
    }
  }
  return 0;
}

// The 8.3 name as DOS shows it ("NAME.EXT"), in UTF-8; with lower set, the
// parts that byte 12 marks are shown in lower case. Bytes no name may hold
// show as '_', so a hostile entry never yields a path.
std::string ShortDisplayName(const uint8_t *e, bool lower) {
  auto part = [&](size_t from, size_t len, bool lowerPart) {
    std::string s;
    while (len > 0 && e[from + len - 1] == ' ') {
      len--;
    }
    for (size_t i = from; i < from + len; i++) {
      uint8_t c = (i == 0 && e[0] == kEntryKanjiE5) ? kEntryFree : e[i];
      if (c >= 0x80) {
        AppendUtf8(&s, kCp437High[c - 0x80]);
      } else if (c == '.' || IsReserved(c)) {
        s.push_back('_');
      } else {
        s.push_back(static_cast<char>(lowerPart && IsUpper(c) ? c - 'A' + 'a' : c));
      }
    }
    return s;
  };
  std::string name = part(0, 8, lower && (e[kDirCase] & kLowerBase));
  std::string ext = part(8, 3, lower && (e[kDirCase] & kLowerExt));
  if (name.empty()) {
    name = "_";
  }
  return ext.empty() ? name : name + "." + ext;
}

uint8_t ShortNameChecksum(const uint8_t *shortName) {
  uint8_t sum = 0;
  for (int i = 0; i < 11; i++) {
    sum = static_cast<uint8_t>(((sum & 1) << 7) + (sum >> 1) + shortName[i]);
  }
  return sum;
}

template <typename Text>
bool SameNameIgnoringAsciiCase(const Text &a, const Text &b) {
  if (a.size() != b.size()) {
    return false;
  }
  auto lower = [](uint32_t c) { return IsUpper(c) ? c - 'A' + 'a' : c; };
  for (size_t i = 0; i < a.size(); i++) {
    using Unit = std::make_unsigned_t<typename Text::value_type>;
    if (lower(static_cast<Unit>(a[i])) != lower(static_cast<Unit>(b[i]))) {
      return false;
    }
  }
  return true;
}

// A name to be stored: checked, and as the entries it needs.
struct NewName {
  std::string utf8;
  std::u16string units;
  bool needsLong = false;  // long-name entries before the short one
  uint8_t shortName[11];   // set when !needsLong, else by MakeShortName
  uint8_t caseFlags = 0;
};

// Checks the name and decides whether a short entry alone can hold it: an
// 8.3 name whose base and extension are each in one case.
bool ParseName(const char *name, NewName *out) {
  out->utf8 = name;
  if (!gp::IsValidUtf8(out->utf8)) {
    return false;
  }
  out->units = Utf8ToUtf16(out->utf8);
  if (!IsValidName(out->units)) {
    return false;
  }
  std::memset(out->shortName, ' ', 11);
  const std::string &s = out->utf8;
  size_t dot = s.find('.');
  size_t baseLen = dot == std::string::npos ? s.size() : dot;
  size_t extLen = dot == std::string::npos ? 0 : s.size() - dot - 1;
  bool fits = baseLen >= 1 && baseLen <= 8 && extLen <= 3 &&
              (dot == std::string::npos || s.find('.', dot + 1) == std::string::npos);
  bool upper[2] = {false, false}, lower[2] = {false, false};
  for (size_t i = 0; fits && i < s.size(); i++) {
    if (i == dot) {
      continue;
    }
    unsigned char c = static_cast<unsigned char>(s[i]);
    int part = dot != std::string::npos && i > dot ? 1 : 0;
    upper[part] |= IsUpper(c);
    lower[part] |= IsLower(c);
    fits = IsUpper(c) || IsLower(c) || (c >= '0' && c <= '9') || IsShortNameSymbol(c);
    out->shortName[i < baseLen ? i : 8 + i - baseLen - 1] =
        static_cast<uint8_t>(IsLower(c) ? c - 'a' + 'A' : c);
  }
  out->needsLong = !fits || (upper[0] && lower[0]) || (upper[1] && lower[1]);
  out->caseFlags = static_cast<uint8_t>((lower[0] ? kLowerBase : 0) | (lower[1] ? kLowerExt : 0));
  return true;
}

// The short name for a long one, as Windows makes it: upper-cased, blanks
// and all but the last dot dropped, characters the code page lacks as
// '_', base and extension cut to 8 and 3; then, unless that lost nothing
// and is free, the first free "~N" tail on a base cut to make room.
// taken holds the directory's short names, sorted; false when every tail
// is taken.
bool MakeShortName(NewName *n, const std::vector<std::array<uint8_t, 11>> &taken) {
  const std::u16string &u = n->units;
  size_t lastDot = u.rfind(u'.');
  // A name that is only dots and blanks before its last dot ("...x") has
  // no extension: the part after the dot is the base.
  if (lastDot != std::u16string::npos && u.find_first_not_of(u". ") >= lastDot) {
    lastDot = std::u16string::npos;
  }
  size_t baseEnd = lastDot == std::u16string::npos ? u.size() : lastDot;
  bool lossy = false;
  std::string base, ext;
  auto take = [&](size_t from, size_t to, size_t max, std::string *out) {
    for (size_t i = from; i < to; i++) {
      if (u[i] == u' ' || u[i] == u'.') {
        lossy = true;
        continue;
      }
      if (out->size() == max) {
        lossy = true;
        break;
      }
      uint8_t b = ShortNameByte(u[i]);
      lossy |= b == 0;
      out->push_back(static_cast<char>(b == 0 ? '_' : b));
    }
  };
  take(0, baseEnd, 8, &base);
  if (lastDot != std::u16string::npos) {
    take(lastDot + 1, u.size(), 3, &ext);
  }
  std::array<uint8_t, 11> candidate;
  auto fill = [&](const std::string &b) {
    candidate.fill(' ');
    std::memcpy(candidate.data(), b.data(), b.size());
    std::memcpy(candidate.data() + 8, ext.data(), ext.size());
    if (candidate[0] == kEntryFree) {
      candidate[0] = kEntryKanjiE5;
    }
    return !std::binary_search(taken.begin(), taken.end(), candidate);
  };
  // Case alone loses nothing: "ReadMe.txt" keeps "README.TXT".
  if (!lossy && fill(base)) {
    std::memcpy(n->shortName, candidate.data(), 11);
    return true;
  }
  for (uint32_t tail = 1; tail < 1000000; tail++) {
    std::string t = "~" + std::to_string(tail);
    if (fill(base.substr(0, std::min(base.size(), 8 - t.size())) + t)) {
      std::memcpy(n->shortName, candidate.data(), 11);
      return true;
    }
  }
  return false;
}

}  // namespace

struct FATVolume {
  FATDevice *device = nullptr;
  ImageFile image;
  uint32_t numFats = 0;
  uint32_t rootEntries = 0;
  uint64_t fatOffset = 0;   // first FAT copy
  uint64_t fatStride = 0;   // bytes from one copy to the next
  uint64_t rootOffset = 0;  // fixed root directory
  uint64_t dataOffset = 0;  // cluster 2
  uint32_t clusterBytes = 0;
  uint32_t clusterCount = 0;
  uint32_t fatBits = 0;  // 12 or 16
  // The part of the FAT that covers the clusters, and one spare byte so the
  // last FAT12 entry's two-byte access stays inside the buffer.
  std::vector<uint8_t> fat;
  size_t fatUsed = 0;
  // Per cluster: how many FAT entries name it as their successor.
  std::vector<uint32_t> referrers;
  uint32_t freeClusters = 0;  // free and named by no FAT entry
  uint32_t nextFree = 2;      // where the search for a free cluster starts
  // What the change under way touched: the FAT bytes to write, and the old
  // value of each entry in the order they were set.
  size_t dirtyFrom = SIZE_MAX;
  size_t dirtyTo = 0;
  std::vector<std::pair<uint32_t, uint32_t>> undo;
  // The file whose entry FAT_WriteFile has left for Flush, and a failure
  // of Flush, which every later change gives.
  FATFile *pending = nullptr;
  FATError failed = FAT_OK;
  // The open directory handles: each holds a copy of its entries, which
  // every directory write here keeps current.
  std::vector<FATDirectory *> directories;
  int openHandles = 0;

  ~FATVolume() { delete device; }

  const char *Path() const { return device->path.c_str(); }
  uint32_t EndOfChain() const { return fatBits == 12 ? 0xFFF : 0xFFFF; }
  bool IsEndOfChain(uint32_t v) const { return v >= (fatBits == 12 ? 0xFF8u : 0xFFF8u); }
  bool IsDataCluster(uint32_t c) const { return c >= 2 && c < clusterCount + 2; }
  bool IsFree(uint32_t c) const { return Get(c) == 0 && referrers[c] == 0; }
  uint64_t ClusterOffset(uint32_t c) const {
    return dataOffset + static_cast<uint64_t>(c - 2) * clusterBytes;
  }
  size_t EntryByte(uint32_t n) const { return fatBits == 16 ? 2 * n : n + n / 2; }

  uint32_t Get(uint32_t n) const {
    if (fatBits == 16) {
      return gp::Le16(&fat[2 * n]);
    }
    uint32_t v = gp::Le16(&fat[n + n / 2]);
    return (n & 1) ? v >> 4 : v & 0xFFF;
  }

  // Changes entry n in memory, keeping the successor counts and the free
  // count true, and notes it for Commit or Rollback.
  void Set(uint32_t n, uint32_t v, bool keepUndo = true) {
    uint32_t old = Get(n);
    if (old == v) {
      return;
    }
    if (keepUndo) {
      undo.emplace_back(n, old);
    }
    const uint32_t touched[3] = {n, old, v};
    auto countFree = [&] {
      uint32_t count = 0;
      for (int i = 0; i < 3; i++) {
        bool seen = (i > 0 && touched[i] == touched[0]) || (i > 1 && touched[i] == touched[1]);
        count += !seen && IsDataCluster(touched[i]) && IsFree(touched[i]);
      }
      return count;
    };
    uint32_t before = countFree();
    if (IsDataCluster(old)) {
      referrers[old]--;
    }
    if (IsDataCluster(v)) {
      referrers[v]++;
    }
    size_t at = EntryByte(n);
    if (fatBits == 16) {
      PutLe16(&fat[at], v);
    } else {
      uint32_t word = gp::Le16(&fat[at]);
      word = (n & 1) ? (word & 0x000F) | ((v & 0xFFF) << 4) : (word & 0xF000) | (v & 0xFFF);
      PutLe16(&fat[at], word);
    }
    freeClusters = freeClusters - before + countFree();
    dirtyFrom = std::min(dirtyFrom, at);
    dirtyTo = std::max(dirtyTo, std::min(at + 2, fatUsed));
  }

  // Writes the bytes changed since the last write to every FAT copy.
  FATError WriteFats() {
    for (uint32_t i = 0; i < numFats && dirtyFrom < dirtyTo; i++) {
      FATError err =
          image.Write(fatOffset + i * fatStride + dirtyFrom, &fat[dirtyFrom], dirtyTo - dirtyFrom);
      if (err != FAT_OK) {
        return err;
      }
    }
    dirtyFrom = SIZE_MAX;
    dirtyTo = 0;
    return FAT_OK;
  }

  // Puts back the entries the change set; the dirty range stays, so a copy
  // a failed write half wrote is rewritten by the next one.
  void Rollback() {
    for (auto it = undo.rbegin(); it != undo.rend(); ++it) {
      Set(it->first, it->second, false);
    }
    undo.clear();
  }

  // FAT_ERR_DISK_FULL unless count clusters are free.
  FATError CheckFree(size_t count) const {
    if (count > freeClusters) {
      return Fail(FAT_ERR_DISK_FULL, "\"%s\" is full: %zu more clusters needed, %u free", Path(),
                  count, freeClusters);
    }
    return FAT_OK;
  }

  // Takes count free clusters and links them to the end of the chain, in
  // the FAT and in *chain; CheckFree has said they are there.
  void Allocate(size_t count, std::vector<uint32_t> *chain) {
    uint32_t c = IsDataCluster(nextFree) ? nextFree : 2;
    for (uint32_t seen = 0; count > 0 && seen < clusterCount; seen++) {
      if (IsFree(c)) {
        if (!chain->empty()) {
          Set(chain->back(), c);
        }
        Set(c, EndOfChain());
        chain->push_back(c);
        count--;
      }
      c = c + 1 < clusterCount + 2 ? c + 1 : 2;
    }
    nextFree = c;
  }
};

namespace {

// A change of the FAT made by one call: kept (and written with
// WriteFats, now or later), or undone when it goes out of scope.
class FatChange {
 public:
  explicit FatChange(FATVolume *vol) : vol_(vol) { vol_->undo.clear(); }
  ~FatChange() {
    if (!kept_) {
      vol_->Rollback();
    }
  }
  FatChange(const FatChange &) = delete;
  FatChange &operator=(const FatChange &) = delete;

  void Keep() {
    kept_ = true;
    vol_->undo.clear();
  }
  FATError Commit() {
    FATError err = vol_->WriteFats();
    if (err == FAT_OK) {
      Keep();
    }
    return err;
  }

 private:
  FATVolume *vol_;
  bool kept_ = false;
};

// Calls fn(image offset, byte offset, count) for each stretch of bytes
// [from, from + len) of a chain that lies contiguous on the image.
template <typename Fn>
FATError ForEachRun(const FATVolume *vol, const std::vector<uint32_t> &chain, uint64_t from,
                    uint64_t len, Fn fn) {
  uint64_t done = 0;
  while (done < len) {
    uint64_t pos = from + done;
    size_t index = static_cast<size_t>(pos / vol->clusterBytes);
    uint32_t inCluster = static_cast<uint32_t>(pos % vol->clusterBytes);
    uint64_t n = vol->clusterBytes - inCluster;
    while (n < len - done && index + 1 < chain.size() && chain[index + 1] == chain[index] + 1) {
      index++;
      n += vol->clusterBytes;
    }
    n = std::min(n, len - done);
    FATError err =
        fn(vol->ClusterOffset(chain[static_cast<size_t>(pos / vol->clusterBytes)]) + inCluster,
           done, static_cast<size_t>(n));
    if (err != FAT_OK) {
      return err;
    }
    done += n;
  }
  return FAT_OK;
}

// Zeroes bytes [from, to) of a chain.
FATError ZeroRange(FATVolume *vol, const std::vector<uint32_t> &chain, uint64_t from, uint64_t to) {
  if (from >= to) {
    return FAT_OK;
  }
  static const uint8_t kZeros[65536] = {};
  return ForEachRun(vol, chain, from, to - from, [&](uint64_t at, uint64_t, size_t n) -> FATError {
    for (size_t done = 0; done < n;) {
      size_t k = std::min(n - done, sizeof kZeros);
      FATError err = vol->image.Write(at + done, kZeros, k);
      if (err != FAT_OK) {
        return err;
      }
      done += k;
    }
    return FAT_OK;
  });
}

// The chain that starts at first (none for 0), checked: every cluster in
// the volume, no loop, no free cluster, and no cluster another FAT entry
// points to as well, so the chain belongs to this entry alone.
FATError ReadChain(const FATVolume *vol, uint32_t first, const std::string &name,
                   std::vector<uint32_t> *chain) {
  chain->clear();
  const char *what = name.c_str();
  for (uint32_t c = first; c != 0;) {
    if (!vol->IsDataCluster(c)) {
      return Fail(FAT_ERR_CORRUPT, "the cluster chain of \"%s\" leaves the volume at %u", what, c);
    }
    if (chain->size() == vol->clusterCount) {
      return Fail(FAT_ERR_CORRUPT, "the cluster chain of \"%s\" loops", what);
    }
    chain->push_back(c);
    uint32_t next = vol->Get(c);
    if (next == 0) {
      return Fail(FAT_ERR_CORRUPT, "the cluster chain of \"%s\" runs into free cluster %u", what,
                  c);
    }
    c = vol->IsEndOfChain(next) ? 0 : next;
  }
  for (size_t i = 0; i < chain->size(); i++) {
    uint32_t c = (*chain)[i];
    if (vol->referrers[c] != (i == 0 ? 0u : 1u)) {
      return Fail(FAT_ERR_CORRUPT, "the cluster chain of \"%s\" is cross-linked at cluster %u",
                  what, c);
    }
  }
  return FAT_OK;
}

}  // namespace

/* ---- Directories ---- */

namespace {

// A directory's entries as read from the image, and where they lie there.
struct DirData {
  std::vector<uint8_t> bytes;
  std::vector<uint32_t> chain;  // empty for the fixed root

  uint32_t Slots() const { return static_cast<uint32_t>(bytes.size() / kDirEntrySize); }
  const uint8_t *Slot(uint32_t i) const { return &bytes[static_cast<size_t>(i) * kDirEntrySize]; }
};

// One file or subdirectory entry found in a directory.
struct FoundEntry {
  uint32_t firstSlot = 0;   // its first long-name entry, else slot
  uint32_t slot = 0;        // its short entry
  std::u16string longName;  // empty when it has none that can be trusted
  const uint8_t *entry = nullptr;
};

bool IsDotEntry(const uint8_t *e) {
  return std::memcmp(e, kDotName, 11) == 0 || std::memcmp(e, kDotDotName, 11) == 0;
}

uint32_t FirstCluster(const uint8_t *e) {
  return gp::Le16(e + kDirCluster);
}

// The next file or subdirectory entry at or after slot from; false at the
// end. Long-name entries count only when their sequence is whole, their
// checksum is the short entry's and they spell a valid name.
bool NextEntry(const DirData &d, uint32_t from, FoundEntry *out) {
  std::u16string &units = out->longName;
  int want = -1;  // the next ordinal of the sequence under way; 0 complete
  uint8_t checksum = 0;
  uint32_t start = 0;
  for (uint32_t i = from; i < d.Slots(); i++) {
    const uint8_t *e = d.Slot(i);
    if (e[0] == kEntryEnd) {
      return false;
    }
    if (e[0] == kEntryFree) {
      want = -1;
      continue;
    }
    if ((e[kDirAttr] & kAttrLongNameMask) == kAttrLongName) {
      int ordinal = e[0] & 0x1F;
      if (e[0] & kLastLongEntry) {
        want = ordinal >= 1 && ordinal <= 20 ? ordinal : -1;
        checksum = e[kLongChecksum];
        start = i;
        units.assign(static_cast<size_t>(ordinal) * kLongNameUnitsPerEntry, 0);
      } else if (want <= 0 || ordinal != want || e[kLongChecksum] != checksum ||
                 (e[0] & ~0x1F) != 0) {
        want = -1;
        continue;
      }
      if (want > 0) {
        for (size_t k = 0; k < kLongNameUnitsPerEntry; k++) {
          units[(want - 1) * kLongNameUnitsPerEntry + k] = gp::Le16(e + kLongUnitOffsets[k]);
        }
        want--;
      }
      continue;
    }
    if ((e[kDirAttr] & kAttrVolumeLabel) || IsDotEntry(e)) {
      want = -1;
      continue;
    }
    out->slot = i;
    out->firstSlot = i;
    out->entry = e;
    if (want == 0 && checksum == ShortNameChecksum(e)) {
      units.resize(std::min(units.find(u'\0'), units.size()));
      out->firstSlot = start;
    }
    if (out->firstSlot == i || !IsValidName(units)) {
      units.clear();
      out->firstSlot = i;
    }
    return true;
  }
  return false;
}

}  // namespace

struct FATDirectory {
  FATVolume *volume = nullptr;
  uint32_t cluster = 0;         // first cluster; 0 for the fixed root
  std::vector<uint32_t> above;  // first clusters of the directories above it
  std::string name;             // for messages
  DirData data;                 // its entries, when loaded
  bool loaded = false;

  uint64_t SlotOffset(uint32_t slot) const {
    uint64_t at = static_cast<uint64_t>(slot) * kDirEntrySize;
    if (cluster == 0) {
      return volume->rootOffset + at;
    }
    return volume->ClusterOffset(data.chain[at / volume->clusterBytes]) + at % volume->clusterBytes;
  }
};

struct FATFile {
  FATVolume *volume = nullptr;
  uint32_t dirCluster = 0;   // the directory that holds its entry
  uint32_t slot = 0;         // and the entry's place there
  uint64_t entryOffset = 0;  // image offset of the entry
  uint8_t entry[kDirEntrySize];
  std::vector<uint32_t> chain;
  uint32_t size = 0;
};

namespace {

// Brings the copies open handles hold of a directory's entries in step
// with n bytes written at slot; except keeps its copy as it is.
void UpdateCopies(FATVolume *vol, uint32_t cluster, uint32_t slot, const uint8_t *bytes, size_t n,
                  const FATDirectory *except = nullptr) {
  size_t at = static_cast<size_t>(slot) * kDirEntrySize;
  for (FATDirectory *d : vol->directories) {
    if (d->cluster != cluster || d == except || !d->loaded) {
      continue;
    }
    if (bytes != nullptr && at + n <= d->data.bytes.size()) {
      std::memcpy(&d->data.bytes[at], bytes, n);
    } else {
      d->loaded = false;
    }
  }
}

// Writes the handle's size and first cluster, and the time of the change,
// into its directory entry.
FATError WriteEntry(FATFile *f) {
  uint8_t *e = f->entry;
  uint16_t date, time;
  DosNow(&date, &time);
  PutLe16(e + kDirCluster, f->chain.empty() ? 0 : f->chain[0]);
  PutLe16(e + kDirClusterHigh, 0);
  PutLe32(e + kDirSize, f->size);
  PutLe16(e + kDirWriteTime, time);
  PutLe16(e + kDirWriteDate, date);
  PutLe16(e + kDirAccessDate, date);
  e[kDirAttr] |= kAttrArchive;
  FATError err = f->volume->image.Write(f->entryOffset, e, kDirEntrySize);
  UpdateCopies(f->volume, f->dirCluster, f->slot, e, kDirEntrySize);
  return err;
}

// Writes what FAT_WriteFile left for later: the FAT bytes it changed and
// the entry of the file it wrote. A failure sticks: the image may no
// longer agree with itself, so every later call that would change it
// gives the same error.
FATError Flush(FATVolume *vol) {
  if (vol->failed != FAT_OK) {
    return vol->failed;
  }
  FATError err = vol->WriteFats();
  if (err == FAT_OK && vol->pending != nullptr) {
    err = WriteEntry(vol->pending);
  }
  vol->pending = nullptr;
  vol->failed = err;
  return err;
}

// Reads the directory's entries, unless it holds them already.
FATError LoadDirectory(FATDirectory *dir) {
  FATVolume *vol = dir->volume;
  if (dir->loaded) {
    return FAT_OK;
  }
  DirData &d = dir->data;
  if (dir->cluster == 0) {
    d.chain.clear();
    d.bytes.resize(static_cast<size_t>(vol->rootEntries) * kDirEntrySize);
    FATError err = vol->image.Read(vol->rootOffset, d.bytes.data(), d.bytes.size());
    if (err != FAT_OK) {
      return err;
    }
  } else {
    FATError err = ReadChain(vol, dir->cluster, dir->name, &d.chain);
    if (err != FAT_OK) {
      return err;
    }
    uint64_t bytes = static_cast<uint64_t>(d.chain.size()) * vol->clusterBytes;
    if (bytes > static_cast<uint64_t>(kMaxDirEntries) * kDirEntrySize) {
      return Fail(FAT_ERR_CORRUPT, "directory \"%s\" is longer than %u entries", dir->name.c_str(),
                  kMaxDirEntries);
    }
    d.bytes.resize(static_cast<size_t>(bytes));
    err = ForEachRun(vol, d.chain, 0, bytes, [&](uint64_t at, uint64_t done, size_t n) {
      return vol->image.Read(at, d.bytes.data() + done, n);
    });
    if (err != FAT_OK) {
      return err;
    }
  }
  dir->loaded = true;
  return FAT_OK;
}

// Writes entries to consecutive slots of the directory, one write per
// stretch that is contiguous on the image.
FATError WriteSlots(FATDirectory *dir, uint32_t slot, const std::vector<uint8_t> &entries) {
  uint32_t count = static_cast<uint32_t>(entries.size() / kDirEntrySize);
  for (uint32_t i = 0; i < count;) {
    uint32_t n = 1;
    while (i + n < count &&
           dir->SlotOffset(slot + i + n) == dir->SlotOffset(slot + i) + n * kDirEntrySize) {
      n++;
    }
    FATError err = dir->volume->image.Write(dir->SlotOffset(slot + i),
                                            entries.data() + static_cast<size_t>(i) * kDirEntrySize,
                                            static_cast<size_t>(n) * kDirEntrySize);
    if (err != FAT_OK) {
      return err;
    }
    i += n;
  }
  UpdateCopies(dir->volume, dir->cluster, slot, entries.data(), entries.size());
  return FAT_OK;
}

// Finds name in the directory: *found set, or *exists false.
FATError LookUp(FATDirectory *dir, const NewName &name, FoundEntry *found, bool *exists) {
  FATError err = LoadDirectory(dir);
  if (err != FAT_OK) {
    return err;
  }
  *exists = false;
  FoundEntry e;
  for (uint32_t from = 0; NextEntry(dir->data, from, &e); from = e.slot + 1) {
    if ((!e.longName.empty() && SameNameIgnoringAsciiCase(e.longName, name.units)) ||
        SameNameIgnoringAsciiCase(ShortDisplayName(e.entry, false), name.utf8)) {
      *found = e;
      *exists = true;
      return FAT_OK;
    }
  }
  return FAT_OK;
}

// The name an entry goes by in messages and listings.
std::string EntryName(const FoundEntry &e) {
  return e.longName.empty() ? ShortDisplayName(e.entry, true) : Utf16ToUtf8(e.longName);
}

// Refuses an entry whose first cluster something else already owns: a
// directory it sits in, or another entry of the same directory.
FATError CheckOwnCluster(FATDirectory *dir, const FoundEntry &found) {
  uint32_t first = FirstCluster(found.entry);
  bool isDir = found.entry[kDirAttr] & kAttrDirectory;
  std::string name = EntryName(found);
  if (first == 0) {
    return isDir ? Fail(FAT_ERR_CORRUPT, "directory \"%s\" has no cluster", name.c_str()) : FAT_OK;
  }
  if (first == dir->cluster ||
      std::find(dir->above.begin(), dir->above.end(), first) != dir->above.end()) {
    return Fail(FAT_ERR_CORRUPT, "\"%s\" starts at cluster %u of a directory it is in",
                name.c_str(), first);
  }
  FoundEntry other;
  for (uint32_t from = 0; NextEntry(dir->data, from, &other); from = other.slot + 1) {
    if (other.slot != found.slot && FirstCluster(other.entry) == first) {
      return Fail(FAT_ERR_CORRUPT, "\"%s\" and \"%s\" share cluster %u", name.c_str(),
                  EntryName(other).c_str(), first);
    }
  }
  return FAT_OK;
}

void FillEntry(uint8_t *e, const uint8_t shortName[11], uint8_t attr, uint8_t caseFlags,
               uint32_t cluster) {
  std::memset(e, 0, kDirEntrySize);
  std::memcpy(e, shortName, 11);
  e[kDirAttr] = attr;
  e[kDirCase] = caseFlags;
  uint16_t date, time;
  DosNow(&date, &time);
  e[kDirCreateTenths] = 0;
  PutLe16(e + kDirCreateTime, time);
  PutLe16(e + kDirCreateDate, date);
  PutLe16(e + kDirAccessDate, date);
  PutLe16(e + kDirWriteTime, time);
  PutLe16(e + kDirWriteDate, date);
  PutLe16(e + kDirCluster, cluster);
}

// The long-name entries for a name, in the order they are stored (the
// last part first), then room for the short entry.
std::vector<uint8_t> LongNameEntries(const NewName &name) {
  size_t parts = (name.units.size() + kLongNameUnitsPerEntry - 1) / kLongNameUnitsPerEntry;
  std::vector<uint8_t> out((parts + 1) * kDirEntrySize, 0);
  uint8_t sum = ShortNameChecksum(name.shortName);
  for (size_t p = 0; p < parts; p++) {
    uint8_t *e = &out[(parts - 1 - p) * kDirEntrySize];
    e[0] = static_cast<uint8_t>((p + 1) | (p + 1 == parts ? kLastLongEntry : 0));
    e[kDirAttr] = kAttrLongName;
    e[kLongChecksum] = sum;
    for (size_t k = 0; k < kLongNameUnitsPerEntry; k++) {
      size_t at = p * kLongNameUnitsPerEntry + k;
      // The name ends with one 0x0000 when it leaves room, then 0xFFFF.
      uint32_t unit = at < name.units.size()    ? name.units[at]
                      : at == name.units.size() ? 0
                                                : 0xFFFF;
      PutLe16(e + kLongUnitOffsets[k], unit);
    }
  }
  return out;
}

// What an open or create call is after.
enum class Want { kFile, kDirectory, kNew };

// The shared start of the open and create calls: clears *handle, checks
// the arguments and the name and looks the name up, and gives the answers
// that end the call: FAT_ERR_EXISTS when creating a taken name,
// FAT_ERR_NOT_FOUND or the wrong kind when opening.
template <typename Handle>
FATError Begin(FATDirectory *dir, const char *name, Handle **handle, Want want, NewName *parsed,
               FoundEntry *found) {
  if (handle != nullptr) {
    *handle = nullptr;
  }
  if (dir == nullptr || name == nullptr || handle == nullptr) {
    return Fail(FAT_ERR_INVALID_ARG, "null directory, name or handle pointer");
  }
  FATError err = Flush(dir->volume);
  if (err != FAT_OK) {
    return err;
  }
  if (!ParseName(name, parsed)) {
    return FAT_ERR_BAD_NAME;
  }
  bool exists = false;
  err = LookUp(dir, *parsed, found, &exists);
  if (err != FAT_OK || want == Want::kNew) {
    return err == FAT_OK && exists ? FAT_ERR_EXISTS : err;
  }
  if (!exists) {
    return FAT_ERR_NOT_FOUND;
  }
  const bool isDir = (found->entry[kDirAttr] & kAttrDirectory) != 0;
  if (isDir != (want == Want::kDirectory)) {
    return isDir ? FAT_ERR_NOT_A_FILE : FAT_ERR_NOT_A_DIRECTORY;
  }
  return FAT_OK;
}

// Adds a directory entry for name (already looked up and absent). A new
// subdirectory (isDir) gets its own cluster with "." and "..". The
// entries go into the first run of free slots long enough for them; a
// subdirectory without one grows. entryOut and *entrySlot receive the
// short entry and its slot.
FATError AddEntry(FATDirectory *dir, NewName *name, bool isDir, uint8_t *entryOut,
                  uint32_t *entrySlot) {
  FATVolume *vol = dir->volume;
  DirData &d = dir->data;
  if (name->needsLong) {
    std::vector<std::array<uint8_t, 11>> taken;
    for (uint32_t i = 0; i < d.Slots(); i++) {
      const uint8_t *e = d.Slot(i);
      if (e[0] == kEntryEnd) {
        break;
      }
      if (e[0] != kEntryFree && (e[kDirAttr] & kAttrLongNameMask) != kAttrLongName) {
        taken.emplace_back();
        std::memcpy(taken.back().data(), e, 11);
      }
    }
    std::sort(taken.begin(), taken.end());
    if (!MakeShortName(name, taken)) {
      return Fail(FAT_ERR_DIR_FULL, "no free short name for \"%s\" in \"%s\"", name->utf8.c_str(),
                  dir->name.c_str());
    }
  }
  std::vector<uint8_t> entries =
      name->needsLong ? LongNameEntries(*name) : std::vector<uint8_t>(kDirEntrySize, 0);
  uint32_t need = static_cast<uint32_t>(entries.size() / kDirEntrySize);
  // The first run of need free slots; every slot after an end mark is free.
  uint32_t run = 0, slot = 0, endAt = d.Slots();
  for (uint32_t i = 0; i < d.Slots() && run < need; i++) {
    uint8_t first = d.Slot(i)[0];
    if (first == kEntryEnd && endAt == d.Slots()) {
      endAt = i;
    }
    run = (i >= endAt || first == kEntryFree) ? run + 1 : 0;
    slot = i + 1 - run;
  }
  uint32_t grow = 0;
  if (run < need) {
    uint32_t perCluster = vol->clusterBytes / kDirEntrySize;
    grow = (need - run + perCluster - 1) / perCluster;
    if (dir->cluster == 0 || d.Slots() + grow * perCluster > kMaxDirEntries) {
      return Fail(FAT_ERR_DIR_FULL, "directory \"%s\" of \"%s\" has no room for %u more entries",
                  dir->name.c_str(), vol->Path(), need);
    }
    slot = d.Slots() - run;
  }
  FATError err = vol->CheckFree(grow + (isDir ? 1 : 0));
  if (err != FAT_OK) {
    return err;
  }
  FatChange change(vol);
  uint32_t newDir = 0;
  if (isDir) {
    std::vector<uint32_t> chain;
    vol->Allocate(1, &chain);
    newDir = chain[0];
    std::vector<uint8_t> cluster(vol->clusterBytes, 0);
    FillEntry(&cluster[0], kDotName, kAttrDirectory, 0, newDir);
    FillEntry(&cluster[kDirEntrySize], kDotDotName, kAttrDirectory, 0, dir->cluster);
    err = vol->image.Write(vol->ClusterOffset(newDir), cluster.data(), cluster.size());
  }
  if (err == FAT_OK && grow > 0) {
    size_t had = d.chain.size();
    vol->Allocate(grow, &d.chain);
    err = ZeroRange(vol, d.chain, static_cast<uint64_t>(had) * vol->clusterBytes,
                    static_cast<uint64_t>(d.chain.size()) * vol->clusterBytes);
    // The new clusters are zeroed on the image as in this copy; other
    // handles read the longer directory afresh.
    d.bytes.resize(d.chain.size() * vol->clusterBytes, 0);
    UpdateCopies(vol, dir->cluster, 0, nullptr, 0, dir);
  }
  if (err == FAT_OK) {
    err = change.Commit();
  }
  if (err != FAT_OK) {
    dir->loaded = false;
    return err;
  }
  FillEntry(entryOut, name->shortName, isDir ? kAttrDirectory : kAttrArchive,
            name->needsLong ? 0 : name->caseFlags, newDir);
  std::memcpy(&entries[entries.size() - kDirEntrySize], entryOut, kDirEntrySize);
  // Slots past the end mark may hold leftovers: the one after the new
  // entries becomes the end mark again.
  uint32_t after = slot + need;
  if (after >= endAt && after < d.Slots() && d.Slot(after)[0] != kEntryEnd) {
    entries.resize(entries.size() + kDirEntrySize, 0);
  }
  *entrySlot = slot + need - 1;
  return WriteSlots(dir, slot, entries);
}

FATError NewDirectoryHandle(FATDirectory *parent, uint32_t cluster, const std::string &name,
                            FATDirectory **out) {
  auto dir = std::make_unique<FATDirectory>();
  dir->volume = parent->volume;
  dir->cluster = cluster;
  dir->above = parent->above;
  dir->above.push_back(parent->cluster);
  dir->name = parent->cluster == 0 ? "/" + name : parent->name + "/" + name;
  FATError err = LoadDirectory(dir.get());
  if (err != FAT_OK) {
    return err;
  }
  dir->volume->openHandles++;
  dir->volume->directories.push_back(dir.get());
  *out = dir.release();
  return FAT_OK;
}

// Builds the handle of a file entry, its chain checked.
FATError OpenFileEntry(FATDirectory *dir, const FoundEntry &found, FATFile **file) {
  FATVolume *vol = dir->volume;
  auto f = std::make_unique<FATFile>();
  f->volume = vol;
  f->dirCluster = dir->cluster;
  f->slot = found.slot;
  f->entryOffset = dir->SlotOffset(found.slot);
  std::memcpy(f->entry, found.entry, kDirEntrySize);
  f->size = gp::Le32(f->entry + kDirSize);
  std::string name = EntryName(found);
  FATError err = CheckOwnCluster(dir, found);
  if (err == FAT_OK) {
    err = ReadChain(vol, FirstCluster(f->entry), name, &f->chain);
  }
  if (err != FAT_OK) {
    return err;
  }
  uint64_t needed = (static_cast<uint64_t>(f->size) + vol->clusterBytes - 1) / vol->clusterBytes;
  if (f->chain.size() < needed) {
    return Fail(FAT_ERR_CORRUPT, "\"%s\" of %u bytes has only %zu clusters", name.c_str(), f->size,
                f->chain.size());
  }
  vol->openHandles++;
  *file = f.release();
  return FAT_OK;
}

/* ---- Files ---- */

size_t ClustersFor(const FATVolume *vol, uint64_t size) {
  return static_cast<size_t>((size + vol->clusterBytes - 1) / vol->clusterBytes);
}

// Sets the size: grows the chain (bytes past the old end read as zeros)
// or frees its clusters past the new end, then writes FATs and entry.
FATError Resize(FATFile *f, uint64_t size) {
  FATVolume *vol = f->volume;
  if (size > kMaxFileSize) {
    return FAT_ERR_TOO_BIG;
  }
  size_t count = ClustersFor(vol, size);
  size_t had = f->chain.size();
  FATError err = vol->CheckFree(count > had ? count - had : 0);
  if (err != FAT_OK) {
    return err;
  }
  FatChange change(vol);
  vol->Allocate(count > had ? count - had : 0, &f->chain);
  if (size > f->size) {
    err = ZeroRange(vol, f->chain, f->size, size);
  }
  if (count < had) {
    for (size_t i = count; i < had; i++) {
      vol->Set(f->chain[i], 0);
    }
    if (count > 0) {
      vol->Set(f->chain[count - 1], vol->EndOfChain());
    }
    // Freed clusters are found first again, so a replaced file reuses them.
    vol->nextFree =
        std::min(vol->nextFree, *std::min_element(f->chain.begin() + count, f->chain.end()));
  }
  if (err == FAT_OK) {
    err = change.Commit();
  }
  if (err != FAT_OK) {
    f->chain.resize(had);
    return err;
  }
  f->chain.resize(count);
  f->size = static_cast<uint32_t>(size);
  return WriteEntry(f);
}

}  // namespace

/* ---- Volumes ---- */

namespace {

// Reads and checks the boot sector and the FAT of an open image.
FATError LoadVolume(FATVolume *vol) {
  const char *path = vol->Path();
  uint64_t imageSize = FileIO_GetSize(vol->image.fd());
  if (imageSize == kFileIOInvalidSize) {
    return Fail(FAT_ERR_IO, "cannot size \"%s\"", path);
  }
  if (imageSize < kBootSectorSize) {
    return Fail(FAT_ERR_NOT_FAT, "\"%s\" is too small for a FAT volume (%llu bytes)", path,
                static_cast<unsigned long long>(imageSize));
  }
  uint8_t boot[kBootSectorSize];
  FATError err = vol->image.Read(0, boot, sizeof boot);
  if (err != FAT_OK) {
    return err;
  }
  uint32_t bps = gp::Le16(boot + 11);
  uint32_t spc = boot[13];
  uint32_t reserved = gp::Le16(boot + 14);
  uint32_t numFats = boot[16];
  uint32_t rootEntries = gp::Le16(boot + 17);
  uint64_t totalSectors = gp::Le16(boot + 19);
  uint32_t media = boot[21];
  uint32_t fatSectors = gp::Le16(boot + 22);
  if (totalSectors == 0) {
    totalSectors = gp::Le32(boot + 32);
  }
  bool bpsOk = bps == 512 || bps == 1024 || bps == 2048 || bps == 4096;
  bool spcOk = spc != 0 && (spc & (spc - 1)) == 0;
  if (!bpsOk || !spcOk || reserved == 0 || numFats == 0 || numFats > 4 || media < 0xF0 ||
      (boot[0] != 0xEB && boot[0] != 0xE9)) {
    return Fail(FAT_ERR_NOT_FAT, "\"%s\" has no FAT boot sector", path);
  }
  if (fatSectors == 0 || rootEntries == 0) {
    return Fail(FAT_ERR_NOT_FAT, "\"%s\" holds a FAT32 volume, which is not supported", path);
  }
  uint64_t rootSectors = (static_cast<uint64_t>(rootEntries) * kDirEntrySize + bps - 1) / bps;
  uint64_t metaSectors = reserved + static_cast<uint64_t>(numFats) * fatSectors + rootSectors;
  if (totalSectors <= metaSectors) {
    return Fail(FAT_ERR_CORRUPT, "\"%s\": %llu sectors leave no room for data", path,
                static_cast<unsigned long long>(totalSectors));
  }
  if (totalSectors * bps > imageSize) {
    return Fail(FAT_ERR_CORRUPT, "\"%s\" is cut short: %llu bytes of a %llu-byte volume", path,
                static_cast<unsigned long long>(imageSize),
                static_cast<unsigned long long>(totalSectors * bps));
  }
  uint64_t clusters = (totalSectors - metaSectors) / spc;
  if (clusters == 0) {
    return Fail(FAT_ERR_CORRUPT, "\"%s\" has no data clusters", path);
  }
  if (clusters >= kMinFat32Clusters) {
    return Fail(FAT_ERR_NOT_FAT, "\"%s\" holds a FAT32 volume, which is not supported", path);
  }
  vol->fatBits = clusters < kMinFat16Clusters ? 12 : 16;
  uint64_t fatBytesNeeded = vol->fatBits == 12 ? ((clusters + 2) * 3 + 1) / 2 : (clusters + 2) * 2;
  uint64_t fatBytes = static_cast<uint64_t>(fatSectors) * bps;
  if (fatBytesNeeded > fatBytes) {
    return Fail(FAT_ERR_CORRUPT, "\"%s\": a FAT of %llu bytes cannot map %llu clusters", path,
                static_cast<unsigned long long>(fatBytes),
                static_cast<unsigned long long>(clusters));
  }
  vol->numFats = numFats;
  vol->rootEntries = rootEntries;
  vol->fatOffset = static_cast<uint64_t>(reserved) * bps;
  vol->fatStride = fatBytes;
  vol->rootOffset = vol->fatOffset + numFats * fatBytes;
  vol->dataOffset = vol->rootOffset + rootSectors * bps;
  vol->clusterBytes = bps * spc;
  vol->clusterCount = static_cast<uint32_t>(clusters);
  vol->fatUsed = static_cast<size_t>(fatBytesNeeded);
  vol->fat.assign(vol->fatUsed + 1, 0);
  err = vol->image.Read(vol->fatOffset, vol->fat.data(), vol->fatUsed);
  if (err != FAT_OK) {
    return err;
  }
  vol->referrers.assign(vol->clusterCount + 2, 0);
  for (uint32_t c = 2; c < vol->clusterCount + 2; c++) {
    uint32_t next = vol->Get(c);
    if (vol->IsDataCluster(next)) {
      vol->referrers[next]++;
    }
  }
  vol->freeClusters = 0;
  for (uint32_t c = 2; c < vol->clusterCount + 2; c++) {
    vol->freeClusters += vol->IsFree(c);
  }
  return FAT_OK;
}

// Opens the image the device names and loads its volume; the device goes
// with the volume, or is freed on failure.
FATError OpenDeviceVolume(FATDevice *device, FATVolume **volume, FileIOOpenAction action) {
  if (device == nullptr || volume == nullptr) {
    delete device;
    return Fail(FAT_ERR_INVALID_ARG, "null device or volume pointer");
  }
  *volume = nullptr;
  auto vol = std::make_unique<FATVolume>();
  vol->device = device;
  FileIOResult r = FileIO_Open(vol->image.fd(), device->path.c_str(),
                               FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_ACCESS_WRITE, action);
  if (r != FILEIO_SUCCESS) {
    return Fail(FAT_ERR_IO, "cannot open \"%s\": %s", device->path.c_str(), FileIO_ErrorEnglish(r));
  }
  // A volume about to be formatted is loaded by the caller afterwards.
  FATError err = action == FILEIO_OPEN ? LoadVolume(vol.get()) : FAT_OK;
  if (err == FAT_OK) {
    *volume = vol.release();
  }
  return err;
}

// The fixed layout of a 1.44 MB floppy.
std::vector<uint8_t> Floppy144Image() {
  std::vector<uint8_t> img(kFATFloppy144Size, 0);
  uint8_t *b = img.data();
  static const uint8_t jump[3] = {0xEB, 0x3C, 0x90};
  std::memcpy(b, jump, 3);
  std::memcpy(b + 3, "GUESTPRP", 8);
  PutLe16(b + 11, 512);  // bytes per sector
  b[13] = 1;             // sectors per cluster
  PutLe16(b + 14, 1);    // reserved sectors
  b[16] = 2;             // FATs
  PutLe16(b + 17, 224);  // root entries
  PutLe16(b + 19, 2880);
  b[21] = 0xF0;
  PutLe16(b + 22, 9);   // sectors per FAT
  PutLe16(b + 24, 18);  // sectors per track
  PutLe16(b + 26, 2);   // heads
  b[36] = 0x00;         // drive number
  b[38] = 0x29;         // extended boot signature
  uint16_t date, time;
  DosNow(&date, &time);
  PutLe32(b + 39, (static_cast<uint32_t>(date) << 16) | time);  // serial number
  std::memcpy(b + 43, "NO NAME    ", 11);
  std::memcpy(b + 54, "FAT12   ", 8);
  // Booted by mistake, the floppy halts instead of running garbage.
  b[62] = 0xFA;  // cli
  b[63] = 0xF4;  // hlt
  b[64] = 0xEB;  // jmp $-2
  b[65] = 0xFD;
  b[510] = 0x55;
  b[511] = 0xAA;
  for (uint32_t copy = 0; copy < 2; copy++) {
    uint8_t *f = b + 512 + copy * 9 * 512;
    f[0] = 0xF0;
    f[1] = 0xFF;
    f[2] = 0xFF;
  }
  return img;
}

}  // namespace

FATError FATDevFileIO_Open(const char *path, FATDevice **device) {
  if (device == nullptr) {
    return Fail(FAT_ERR_INVALID_ARG, "null device pointer");
  }
  *device = nullptr;
  if (path == nullptr || *path == '\0') {
    return Fail(FAT_ERR_INVALID_ARG, "no image path");
  }
  *device = new FATDevice{path};
  return FAT_OK;
}

void FATDevFileIO_Close(FATDevice *device) {
  delete device;
}

FATError FAT_FormatVolume(FATDevice *device, uint64_t size, uint32_t options, FATVolume **volume) {
  if (device != nullptr && (size != kFATFloppy144Size || options != 0)) {
    delete device;
    return Fail(FAT_ERR_INVALID_ARG, "cannot format %llu bytes with options %u",
                static_cast<unsigned long long>(size), options);
  }
  FATVolume *vol = nullptr;
  FATError err = OpenDeviceVolume(device, &vol, FILEIO_OPEN_CREATE_EMPTY);
  if (err != FAT_OK) {
    return err;
  }
  std::unique_ptr<FATVolume> owned(vol);
  std::vector<uint8_t> img = Floppy144Image();
  err = owned->image.Write(0, img.data(), img.size());
  if (err == FAT_OK) {
    err = LoadVolume(owned.get());
  }
  if (err == FAT_OK) {
    *volume = owned.release();
  }
  return err;
}

FATError FAT_OpenVolume(FATDevice *device, FATVolume **volume) {
  return OpenDeviceVolume(device, volume, FILEIO_OPEN);
}

FATError FAT_SkipVolumeBoot(FATVolume *volume) {
  if (volume == nullptr) {
    return Fail(FAT_ERR_INVALID_ARG, "null volume");
  }
  return FAT_OK;
}

FATError FAT_CloseVolume(FATVolume *volume) {
  if (volume == nullptr) {
    return Fail(FAT_ERR_INVALID_ARG, "null volume");
  }
  if (volume->openHandles != 0) {
    return Fail(FAT_ERR_INVALID_ARG, "closing a volume with %d handles still open",
                volume->openHandles);
  }
  FATError err = Flush(volume);
  FileIOResult r = FileIO_Close(volume->image.fd());
  std::string path = volume->device->path;
  delete volume;
  if (r != FILEIO_SUCCESS && err == FAT_OK) {
    return Fail(FAT_ERR_IO, "closing \"%s\" failed: %s", path.c_str(), FileIO_ErrorEnglish(r));
  }
  return err;
}

FATError FAT_OpenRootDirectory(FATVolume *volume, FATDirectory **directory) {
  if (volume == nullptr || directory == nullptr) {
    return Fail(FAT_ERR_INVALID_ARG, "null volume or directory pointer");
  }
  FATError err = Flush(volume);
  if (err != FAT_OK) {
    return err;
  }
  auto dir = std::make_unique<FATDirectory>();
  dir->volume = volume;
  dir->name = "/";
  volume->directories.push_back(dir.get());
  *directory = dir.release();
  volume->openHandles++;
  return FAT_OK;
}

FATError FAT_OpenDirectory(FATDirectory *parent, const char *name, FATDirectory **directory) {
  NewName parsed;
  FoundEntry found;
  FATError err = Begin(parent, name, directory, Want::kDirectory, &parsed, &found);
  if (err != FAT_OK) {
    return err;
  }
  err = CheckOwnCluster(parent, found);
  if (err != FAT_OK) {
    return err;
  }
  return NewDirectoryHandle(parent, FirstCluster(found.entry), EntryName(found), directory);
}

FATError FAT_CreateDirectory(FATDirectory *parent, const char *name, FATDirectory **directory) {
  NewName parsed;
  FoundEntry found;
  FATError err = Begin(parent, name, directory, Want::kNew, &parsed, &found);
  if (err != FAT_OK) {
    return err;
  }
  uint8_t entry[kDirEntrySize];
  uint32_t slot = 0;
  err = AddEntry(parent, &parsed, true, entry, &slot);
  if (err != FAT_OK) {
    return err;
  }
  return NewDirectoryHandle(parent, FirstCluster(entry), parsed.utf8, directory);
}

FATError FAT_ReadDirectory(FATDirectory *directory, uint32_t *cursor, FATDirEntryInfo *info) {
  if (directory == nullptr || cursor == nullptr || info == nullptr) {
    return Fail(FAT_ERR_INVALID_ARG, "null directory, cursor or entry pointer");
  }
  FATError err = Flush(directory->volume);
  if (err == FAT_OK) {
    err = LoadDirectory(directory);
  }
  if (err != FAT_OK) {
    return err;
  }
  FoundEntry e;
  if (!NextEntry(directory->data, *cursor, &e)) {
    return FAT_ERR_NOT_FOUND;
  }
  // Both names fit by construction: 255 UTF-16 units, 11 code page bytes.
  std::string name = EntryName(e);
  std::string shortName = ShortDisplayName(e.entry, false);
  std::snprintf(info->name, sizeof info->name, "%s", name.c_str());
  std::snprintf(info->shortName, sizeof info->shortName, "%s", shortName.c_str());
  info->isDirectory = (e.entry[kDirAttr] & kAttrDirectory) != 0;
  info->size = info->isDirectory ? 0 : gp::Le32(e.entry + kDirSize);
  *cursor = e.slot + 1;
  return FAT_OK;
}

FATError FAT_CloseDirectory(FATDirectory *directory) {
  if (directory == nullptr) {
    return Fail(FAT_ERR_INVALID_ARG, "null directory");
  }
  FATVolume *vol = directory->volume;
  FATError err = Flush(vol);
  vol->openHandles--;
  vol->directories.erase(std::find(vol->directories.begin(), vol->directories.end(), directory));
  delete directory;
  return err;
}

FATError FAT_OpenFile(FATDirectory *directory, const char *name, FATFile **file) {
  NewName parsed;
  FoundEntry found;
  FATError err = Begin(directory, name, file, Want::kFile, &parsed, &found);
  return err == FAT_OK ? OpenFileEntry(directory, found, file) : err;
}

FATError FAT_CreateFile(FATDirectory *directory, const char *name, FATFile **file) {
  NewName parsed;
  FoundEntry found;
  FATError err = Begin(directory, name, file, Want::kNew, &parsed, &found);
  if (err != FAT_OK) {
    return err;
  }
  auto f = std::make_unique<FATFile>();
  f->volume = directory->volume;
  f->dirCluster = directory->cluster;
  err = AddEntry(directory, &parsed, false, f->entry, &f->slot);
  if (err != FAT_OK) {
    return err;
  }
  f->entryOffset = directory->SlotOffset(f->slot);
  f->volume->openHandles++;
  *file = f.release();
  return FAT_OK;
}

FATError FAT_SetFileSize(FATFile *file, uint64_t size) {
  if (file == nullptr) {
    return Fail(FAT_ERR_INVALID_ARG, "null file");
  }
  FATError err = Flush(file->volume);
  return err == FAT_OK ? Resize(file, size) : err;
}

FATError FAT_GetFileSize(FATFile *file, uint64_t *size) {
  if (file == nullptr || size == nullptr) {
    return Fail(FAT_ERR_INVALID_ARG, "null file or size pointer");
  }
  *size = file->size;
  return FAT_OK;
}

FATError FAT_ReadFile(FATFile *file, uint64_t offset, void *buffer, size_t length, size_t *read) {
  if (file == nullptr || read == nullptr || (buffer == nullptr && length != 0)) {
    return Fail(FAT_ERR_INVALID_ARG, "null file, buffer or count pointer");
  }
  *read = 0;
  if (offset >= file->size) {
    return FAT_OK;
  }
  FATVolume *vol = file->volume;
  uint64_t total = std::min<uint64_t>(length, file->size - offset);
  auto *out = static_cast<uint8_t *>(buffer);
  FATError err = ForEachRun(
      vol, file->chain, offset, total,
      [&](uint64_t at, uint64_t done, size_t n) { return vol->image.Read(at, out + done, n); });
  if (err == FAT_OK) {
    *read = static_cast<size_t>(total);
  }
  return err;
}

FATError FAT_WriteFile(FATFile *file, uint64_t offset, const void *buffer, size_t length,
                       size_t *written) {
  if (file == nullptr || written == nullptr || (buffer == nullptr && length != 0)) {
    return Fail(FAT_ERR_INVALID_ARG, "null file, buffer or count pointer");
  }
  *written = 0;
  if (length == 0) {
    return FAT_OK;
  }
  if (offset > kMaxFileSize || length > kMaxFileSize - offset) {
    return FAT_ERR_TOO_BIG;
  }
  FATVolume *vol = file->volume;
  // A run of writes to one file leaves its FAT and entry for Flush: they
  // cost more system calls than the data.
  FATError err = vol->pending == file ? FAT_OK : Flush(vol);
  if (err != FAT_OK) {
    return err;
  }
  uint64_t end = offset + length;
  size_t had = file->chain.size();
  size_t count = ClustersFor(vol, end);
  err = vol->CheckFree(count > had ? count - had : 0);
  if (err != FAT_OK) {
    return err;
  }
  FatChange change(vol);
  vol->Allocate(count > had ? count - had : 0, &file->chain);
  // Only a gap between the old end and the write needs zeros; what the
  // write covers is written once, and bytes past the end are zeroed when
  // the file grows over them.
  if (offset > file->size) {
    err = ZeroRange(vol, file->chain, file->size, offset);
  }
  const auto *in = static_cast<const uint8_t *>(buffer);
  if (err == FAT_OK) {
    err = ForEachRun(vol, file->chain, offset, length, [&](uint64_t at, uint64_t done, size_t n) {
      return vol->image.Write(at, in + done, n);
    });
  }
  if (err != FAT_OK) {
    file->chain.resize(had);
    return err;
  }
  change.Keep();
  file->size = static_cast<uint32_t>(std::max<uint64_t>(file->size, end));
  vol->pending = file;
  *written = length;
  return FAT_OK;
}

FATError FAT_CloseFile(FATFile *file) {
  if (file == nullptr) {
    return Fail(FAT_ERR_INVALID_ARG, "null file");
  }
  FATError err = Flush(file->volume);
  file->volume->openHandles--;
  delete file;
  return err;
}

const char *FAT_ErrorString(FATError error) {
  switch (error) {
    case FAT_OK:
      return "success";
    case FAT_ERR_INVALID_ARG:
      return "invalid argument";
    case FAT_ERR_IO:
      return "the image file could not be read or written";
    case FAT_ERR_NOT_FAT:
      return "not a FAT12 or FAT16 volume";
    case FAT_ERR_CORRUPT:
      return "the volume is corrupt";
    case FAT_ERR_NOT_FOUND:
      return "no such file or directory";
    case FAT_ERR_EXISTS:
      return "the name is already taken";
    case FAT_ERR_BAD_NAME:
      return "not a valid file name";
    case FAT_ERR_DISK_FULL:
      return "the volume is full";
    case FAT_ERR_DIR_FULL:
      return "the directory is full";
    case FAT_ERR_TOO_BIG:
      return "the file would be too big";
    case FAT_ERR_NOT_A_FILE:
      return "not a file";
    case FAT_ERR_NOT_A_DIRECTORY:
      return "not a directory";
  }
  return "unknown FAT error";
}
