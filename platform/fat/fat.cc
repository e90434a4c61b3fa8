/*
 * FAT12/FAT16 volumes in image files.
 *
 * The volume keeps the part of the first FAT that covers its clusters in
 * memory; every call that changes it writes that part back to each FAT copy
 * before it returns, so the copies never drift apart. Directory entries and
 * file data are read and written in place. A file handle holds its cluster
 * chain, checked once when the file is opened (every cluster inside the
 * volume, no loop, long enough for the size), so later reads and writes
 * follow a chain already known to be sound.
 */
#include "platform/fat/fat.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
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

constexpr uint8_t kAttrVolumeLabel = 0x08;
constexpr uint8_t kAttrDirectory = 0x10;
constexpr uint8_t kAttrArchive = 0x20;
constexpr uint8_t kAttrLongName = 0x0F;
constexpr uint8_t kEntryFree = 0xE5;
constexpr uint8_t kEntryEnd = 0x00;
// A name whose first byte really is 0xE5 is stored with 0x05 there.
constexpr uint8_t kEntryKanjiE5 = 0x05;

// Field offsets of a directory entry.
constexpr size_t kDirAttr = 11;
constexpr size_t kDirCreateTenths = 13;
constexpr size_t kDirCreateTime = 14;
constexpr size_t kDirCreateDate = 16;
constexpr size_t kDirAccessDate = 18;
constexpr size_t kDirClusterHigh = 20;
constexpr size_t kDirWriteTime = 22;
constexpr size_t kDirWriteDate = 24;
constexpr size_t kDirCluster = 26;
constexpr size_t kDirSize = 28;

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

bool IsShortNameChar(unsigned char c) {
  if ((c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) {
    return true;
  }
  return std::strchr("!#$%&'()-@^_`{}~", c) != nullptr && c != '\0';
}

// "name.ext" as the 11 bytes of a directory entry, or false when it is no
// valid 8.3 name.
bool ToShortName(const char *name, uint8_t out[11]) {
  std::memset(out, ' ', 11);
  size_t len = std::strlen(name);
  const char *dot = static_cast<const char *>(std::memchr(name, '.', len));
  size_t baseLen = dot ? static_cast<size_t>(dot - name) : len;
  size_t extLen = dot ? len - baseLen - 1 : 0;
  if (baseLen == 0 || baseLen > 8 || extLen > 3 || (dot && extLen == 0)) {
    return false;
  }
  for (size_t i = 0; i < len; i++) {
    if (name + i == dot) {
      continue;
    }
    unsigned char c = static_cast<unsigned char>(name[i]);
    if (c >= 'a' && c <= 'z') {
      c = static_cast<unsigned char>(c - 'a' + 'A');
    }
    if (!IsShortNameChar(c)) {
      return false;
    }
    size_t at = (dot && name + i > dot) ? 8 + (i - baseLen - 1) : i;
    out[at] = c;
  }
  if (out[0] == kEntryFree) {
    out[0] = kEntryKanjiE5;
  }
  return true;
}

}  // namespace

struct FATVolume {
  FATDevice *device = nullptr;
  ImageFile image;
  uint32_t bytesPerSector = 0;
  uint32_t sectorsPerCluster = 0;
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
  int openHandles = 0;

  ~FATVolume() { delete device; }

  uint32_t EndOfChain() const { return fatBits == 12 ? 0xFFF : 0xFFFF; }
  bool IsEndOfChain(uint32_t v) const { return v >= (fatBits == 12 ? 0xFF8u : 0xFFF8u); }
  bool IsDataCluster(uint32_t c) const { return c >= 2 && c < clusterCount + 2; }

  uint32_t Get(uint32_t n) const {
    if (fatBits == 16) {
      return gp::Le16(&fat[2 * n]);
    }
    uint32_t v = gp::Le16(&fat[n + n / 2]);
    return (n & 1) ? v >> 4 : v & 0xFFF;
  }

  void Set(uint32_t n, uint32_t v) {
    if (fatBits == 16) {
      PutLe16(&fat[2 * n], v);
      return;
    }
    uint8_t *p = &fat[n + n / 2];
    uint32_t old = gp::Le16(p);
    old = (n & 1) ? (old & 0x000F) | ((v & 0xFFF) << 4) : (old & 0xF000) | (v & 0xFFF);
    PutLe16(p, old);
  }

  FATError WriteFats() {
    for (uint32_t i = 0; i < numFats; i++) {
      FATError err = image.Write(fatOffset + i * fatStride, fat.data(), fatUsed);
      if (err != FAT_OK) {
        return err;
      }
    }
    return FAT_OK;
  }

  uint64_t ClusterOffset(uint32_t c) const {
    return dataOffset + static_cast<uint64_t>(c - 2) * clusterBytes;
  }
};

struct FATDirectory {
  FATVolume *volume;
};

struct FATFile {
  FATVolume *volume;
  uint64_t entryOffset;  // image offset of the file's directory entry
  std::vector<uint32_t> chain;
  uint32_t size;
};

namespace {

// Reads and checks the boot sector and the FAT of an open image.
FATError LoadVolume(FATVolume *vol) {
  const char *path = vol->device->path.c_str();
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
  vol->bytesPerSector = bps;
  vol->sectorsPerCluster = spc;
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
  return vol->image.Read(vol->fatOffset, vol->fat.data(), vol->fatUsed);
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

// The file's directory entry in the root, by 8.3 name: its index, or -1.
FATError FindEntry(FATVolume *vol, const uint8_t shortName[11], std::vector<uint8_t> *root,
                   int64_t *index) {
  root->assign(static_cast<size_t>(vol->rootEntries) * kDirEntrySize, 0);
  FATError err = vol->image.Read(vol->rootOffset, root->data(), root->size());
  if (err != FAT_OK) {
    return err;
  }
  *index = -1;
  for (uint32_t i = 0; i < vol->rootEntries; i++) {
    const uint8_t *e = root->data() + i * kDirEntrySize;
    if (e[0] == kEntryEnd) {
      break;
    }
    if (e[0] == kEntryFree || (e[kDirAttr] & kAttrLongName) == kAttrLongName ||
        (e[kDirAttr] & kAttrVolumeLabel)) {
      continue;
    }
    if (std::memcmp(e, shortName, 11) == 0) {
      *index = i;
      break;
    }
  }
  return FAT_OK;
}

// Checks the chain of a file entry and builds its handle.
FATError OpenEntry(FATVolume *vol, const uint8_t *e, uint64_t entryOffset, FATFile **file) {
  if (e[kDirAttr] & kAttrDirectory) {
    return FAT_ERR_NOT_A_FILE;
  }
  auto f = std::make_unique<FATFile>();
  f->volume = vol;
  f->entryOffset = entryOffset;
  f->size = gp::Le32(e + kDirSize);
  uint32_t first = gp::Le16(e + kDirCluster);
  if (first == 0 && f->size != 0) {
    return Fail(FAT_ERR_CORRUPT, "a file of %u bytes has no clusters", f->size);
  }
  for (uint32_t c = first; c != 0 && !vol->IsEndOfChain(c);) {
    if (!vol->IsDataCluster(c)) {
      return Fail(FAT_ERR_CORRUPT, "a file's cluster chain leaves the volume at %u", c);
    }
    if (f->chain.size() >= vol->clusterCount) {
      return Fail(FAT_ERR_CORRUPT, "a file's cluster chain loops");
    }
    f->chain.push_back(c);
    c = vol->Get(c);
    if (c == 0) {
      return Fail(FAT_ERR_CORRUPT, "a file's cluster chain runs into a free cluster");
    }
  }
  uint64_t needed = (static_cast<uint64_t>(f->size) + vol->clusterBytes - 1) / vol->clusterBytes;
  if (f->chain.size() < needed) {
    return Fail(FAT_ERR_CORRUPT, "a file of %u bytes has only %zu clusters", f->size,
                f->chain.size());
  }
  vol->openHandles++;
  *file = f.release();
  return FAT_OK;
}

// Writes the handle's size and first cluster, and the time of the change,
// into its directory entry.
FATError UpdateEntry(FATFile *f) {
  uint8_t e[kDirEntrySize];
  FATError err = f->volume->image.Read(f->entryOffset, e, sizeof e);
  if (err != FAT_OK) {
    return err;
  }
  uint16_t date, time;
  DosNow(&date, &time);
  PutLe16(e + kDirCluster, f->chain.empty() ? 0 : f->chain[0]);
  PutLe16(e + kDirClusterHigh, 0);
  PutLe32(e + kDirSize, f->size);
  PutLe16(e + kDirWriteTime, time);
  PutLe16(e + kDirWriteDate, date);
  PutLe16(e + kDirAccessDate, date);
  e[kDirAttr] |= kAttrArchive;
  return f->volume->image.Write(f->entryOffset, e, sizeof e);
}

// Grows the chain to count clusters (zeroed on the image), or fails with
// FAT_ERR_DISK_FULL leaving the volume as it was. The FAT is not written.
FATError GrowChain(FATFile *f, size_t count) {
  FATVolume *vol = f->volume;
  if (f->chain.size() >= count) {
    return FAT_OK;
  }
  std::vector<uint32_t> fresh;
  size_t want = count - f->chain.size();
  for (uint32_t c = 2; c < vol->clusterCount + 2 && fresh.size() < want; c++) {
    if (vol->Get(c) == 0) {
      fresh.push_back(c);
    }
  }
  if (fresh.size() < want) {
    return Fail(FAT_ERR_DISK_FULL, "\"%s\" is full: %zu more clusters needed, %zu free",
                vol->device->path.c_str(), want, fresh.size());
  }
  std::vector<uint8_t> zeros(vol->clusterBytes, 0);
  for (uint32_t c : fresh) {
    FATError err = vol->image.Write(vol->ClusterOffset(c), zeros.data(), zeros.size());
    if (err != FAT_OK) {
      return err;
    }
  }
  for (uint32_t c : fresh) {
    if (!f->chain.empty()) {
      vol->Set(f->chain.back(), c);
    }
    vol->Set(c, vol->EndOfChain());
    f->chain.push_back(c);
  }
  return FAT_OK;
}

// Zeroes bytes [from, to) of the file's allocated clusters.
FATError ZeroRange(FATFile *f, uint64_t from, uint64_t to) {
  FATVolume *vol = f->volume;
  std::vector<uint8_t> zeros(vol->clusterBytes, 0);
  while (from < to) {
    uint32_t inCluster = static_cast<uint32_t>(from % vol->clusterBytes);
    uint64_t n = std::min<uint64_t>(to - from, vol->clusterBytes - inCluster);
    uint32_t c = f->chain[from / vol->clusterBytes];
    FATError err = vol->image.Write(vol->ClusterOffset(c) + inCluster, zeros.data(), n);
    if (err != FAT_OK) {
      return err;
    }
    from += n;
  }
  return FAT_OK;
}

// Sets the size, growing (zero-filled) or shrinking the chain, and writes
// the FATs and the entry.
FATError Resize(FATFile *f, uint64_t size) {
  FATVolume *vol = f->volume;
  if (size > kMaxFileSize) {
    return FAT_ERR_TOO_BIG;
  }
  size_t count = static_cast<size_t>((size + vol->clusterBytes - 1) / vol->clusterBytes);
  size_t had = f->chain.size();
  if (count > had) {
    FATError err = GrowChain(f, count);
    if (err != FAT_OK) {
      return err;
    }
  }
  if (size > f->size) {
    // Bytes past the old end in its last cluster may hold old data.
    uint64_t oldAllocated = static_cast<uint64_t>(had) * vol->clusterBytes;
    FATError err = ZeroRange(f, f->size, std::min<uint64_t>(size, oldAllocated));
    if (err != FAT_OK) {
      return err;
    }
  }
  if (count < f->chain.size()) {
    for (size_t i = count; i < f->chain.size(); i++) {
      vol->Set(f->chain[i], 0);
    }
    if (count > 0) {
      vol->Set(f->chain[count - 1], vol->EndOfChain());
    }
    f->chain.resize(count);
  }
  f->size = static_cast<uint32_t>(size);
  if (f->chain.size() != had) {
    FATError err = vol->WriteFats();
    if (err != FAT_OK) {
      return err;
    }
  }
  return UpdateEntry(f);
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
  FileIOResult r = FileIO_Close(volume->image.fd());
  std::string path = volume->device->path;
  delete volume;
  if (r != FILEIO_SUCCESS) {
    return Fail(FAT_ERR_IO, "closing \"%s\" failed: %s", path.c_str(), FileIO_ErrorEnglish(r));
  }
  return FAT_OK;
}

FATError FAT_OpenRootDirectory(FATVolume *volume, FATDirectory **directory) {
  if (volume == nullptr || directory == nullptr) {
    return Fail(FAT_ERR_INVALID_ARG, "null volume or directory pointer");
  }
  *directory = new FATDirectory{volume};
  volume->openHandles++;
  return FAT_OK;
}

FATError FAT_CloseDirectory(FATDirectory *directory) {
  if (directory == nullptr) {
    return Fail(FAT_ERR_INVALID_ARG, "null directory");
  }
  directory->volume->openHandles--;
  delete directory;
  return FAT_OK;
}

// The shared start of opening and creating: checks the arguments and the
// name, and finds the name in the root directory (*index -1 when absent).
// shortName receives the name in its on-disk form.
static FATError LookUpName(FATDirectory *directory, const char *name, FATFile **file,
                           uint8_t shortName[11], std::vector<uint8_t> *root, int64_t *index) {
  if (directory == nullptr || name == nullptr || file == nullptr) {
    return Fail(FAT_ERR_INVALID_ARG, "null directory, name or file pointer");
  }
  *file = nullptr;
  if (!ToShortName(name, shortName)) {
    return FAT_ERR_BAD_NAME;
  }
  return FindEntry(directory->volume, shortName, root, index);
}

FATError FAT_OpenFile(FATDirectory *directory, const char *name, FATFile **file) {
  uint8_t shortName[11];
  std::vector<uint8_t> root;
  int64_t index;
  FATError err = LookUpName(directory, name, file, shortName, &root, &index);
  if (err != FAT_OK) {
    return err;
  }
  FATVolume *vol = directory->volume;
  if (index < 0) {
    return FAT_ERR_NOT_FOUND;
  }
  return OpenEntry(vol, root.data() + index * kDirEntrySize,
                   vol->rootOffset + index * kDirEntrySize, file);
}

FATError FAT_CreateFile(FATDirectory *directory, const char *name, FATFile **file) {
  uint8_t shortName[11];
  std::vector<uint8_t> root;
  int64_t index;
  FATError err = LookUpName(directory, name, file, shortName, &root, &index);
  if (err != FAT_OK) {
    return err;
  }
  FATVolume *vol = directory->volume;
  if (index >= 0) {
    return FAT_ERR_EXISTS;
  }
  uint32_t slot = 0;
  while (slot < vol->rootEntries && root[slot * kDirEntrySize] != kEntryEnd &&
         root[slot * kDirEntrySize] != kEntryFree) {
    slot++;
  }
  if (slot == vol->rootEntries) {
    return Fail(FAT_ERR_DIR_FULL, "the root directory of \"%s\" is full (%u entries)",
                vol->device->path.c_str(), vol->rootEntries);
  }
  uint8_t e[kDirEntrySize] = {};
  std::memcpy(e, shortName, 11);
  e[kDirAttr] = kAttrArchive;
  uint16_t date, time;
  DosNow(&date, &time);
  e[kDirCreateTenths] = 0;
  PutLe16(e + kDirCreateTime, time);
  PutLe16(e + kDirCreateDate, date);
  PutLe16(e + kDirAccessDate, date);
  PutLe16(e + kDirWriteTime, time);
  PutLe16(e + kDirWriteDate, date);
  uint64_t entryOffset = vol->rootOffset + static_cast<uint64_t>(slot) * kDirEntrySize;
  err = vol->image.Write(entryOffset, e, sizeof e);
  if (err != FAT_OK) {
    return err;
  }
  return OpenEntry(vol, e, entryOffset, file);
}

FATError FAT_SetFileSize(FATFile *file, uint64_t size) {
  if (file == nullptr) {
    return Fail(FAT_ERR_INVALID_ARG, "null file");
  }
  return Resize(file, size);
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
  size_t total = static_cast<size_t>(std::min<uint64_t>(length, file->size - offset));
  auto *out = static_cast<uint8_t *>(buffer);
  size_t done = 0;
  while (done < total) {
    uint64_t pos = offset + done;
    uint32_t inCluster = static_cast<uint32_t>(pos % vol->clusterBytes);
    size_t n = std::min<size_t>(total - done, vol->clusterBytes - inCluster);
    uint32_t c = file->chain[pos / vol->clusterBytes];
    FATError err = vol->image.Read(vol->ClusterOffset(c) + inCluster, out + done, n);
    if (err != FAT_OK) {
      return err;
    }
    done += n;
  }
  *read = done;
  return FAT_OK;
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
  uint64_t end = offset + length;
  bool grows = end > file->size;
  if (grows) {
    FATError err = Resize(file, end);
    if (err != FAT_OK) {
      return err;
    }
  }
  auto *in = static_cast<const uint8_t *>(buffer);
  size_t done = 0;
  while (done < length) {
    uint64_t pos = offset + done;
    uint32_t inCluster = static_cast<uint32_t>(pos % vol->clusterBytes);
    size_t n = std::min<size_t>(length - done, vol->clusterBytes - inCluster);
    uint32_t c = file->chain[pos / vol->clusterBytes];
    FATError err = vol->image.Write(vol->ClusterOffset(c) + inCluster, in + done, n);
    if (err != FAT_OK) {
      return err;
    }
    done += n;
  }
  *written = done;
  // Growing already wrote the entry; an overwrite still changes its time.
  return grows ? FAT_OK : UpdateEntry(file);
}

FATError FAT_CloseFile(FATFile *file) {
  if (file == nullptr) {
    return Fail(FAT_ERR_INVALID_ARG, "null file");
  }
  file->volume->openHandles--;
  delete file;
  return FAT_OK;
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
      return "no such file";
    case FAT_ERR_EXISTS:
      return "the file already exists";
    case FAT_ERR_BAD_NAME:
      return "not a valid 8.3 name";
    case FAT_ERR_DISK_FULL:
      return "the volume is full";
    case FAT_ERR_DIR_FULL:
      return "the directory is full";
    case FAT_ERR_TOO_BIG:
      return "the file would be too big";
    case FAT_ERR_NOT_A_FILE:
      return "not a file";
  }
  return "unknown FAT error";
}
