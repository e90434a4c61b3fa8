// A minimal sparse UDF image built descriptor by descriptor, for structures
// no tool here writes in a small image (files over 4 GiB, long, extended and
// embedded descriptors, continuation extents, a metadata partition), and a
// walker that lists what the reader shows of any image. Blocks not written
// read as zero. Layout (2048-byte blocks): recognition sequence at 16-18,
// volume descriptors at 32, the anchor at 256, the partition from
// kPartStart; file set descriptor at file-system block 0, root entry at 1.
// With a metadata partition, file-system block k is physical block
// kMetaStart + k.
#ifndef GUESTPREP_TESTS_UDFIMAGEBUILDER_H
#define GUESTPREP_TESTS_UDFIMAGEBUILDER_H

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/image/imageReader.h"
#include "platform/udf/udf.h"
#include "platform/udf/udfFormat.h"
#include "support/imageFixtures.h"

namespace gp::udf {

class ImageBuilder {
 public:
  static constexpr uint32_t kBs = 2048;
  static constexpr uint32_t kPartStart = 300;
  static constexpr uint32_t kMetaFile = 10;    // physical block of the metadata file's entry
  static constexpr uint32_t kMetaStart = 16;   // physical block of metadata block 0
  static constexpr uint32_t kMetaBlocks = 64;  // size of the metadata area
  enum AdType : uint8_t { kShort = 0, kLong = 1, kExtended = 2, kEmbedded = 3 };

  ImageBuilder(uint64_t partBlocks, bool metadata) : partBlocks_(partBlocks), meta_(metadata) {}

  // Partition reference of the file-system partition (where entries live).
  uint16_t FsPart() const { return meta_ ? 1 : 0; }

  // A physical or a file-system partition block, zero-filled on first use.
  uint8_t *Phys(uint64_t lb) { return Sector(kPartStart + lb); }
  uint8_t *Fs(uint32_t lb) { return meta_ ? Phys(kMetaStart + lb) : Phys(lb); }

  // Writes bytes at a byte offset inside physical partition block lb onwards.
  void PutData(uint64_t lb, uint64_t offset, const std::string &bytes) {
    for (size_t i = 0; i < bytes.size(); ++i) {
      uint64_t at = lb * kBs + offset + i;
      Phys(at / kBs)[at % kBs] = static_cast<uint8_t>(bytes[i]);
    }
  }

  // Fills in a descriptor tag: identifier, version 2, CRC over len - 16
  // bytes, recorded location, checksum last (it covers the CRC).
  static void Tag(uint8_t *d, uint16_t id, uint32_t location, size_t len) {
    Put16(d, id);
    Put16(d + 2, 2);
    Put16(d + 8, Crc16(d + kTagSize, len - kTagSize));
    Put16(d + 10, static_cast<uint16_t>(len - kTagSize));
    Put32(d + 12, location);
    d[4] = TagChecksum(d);
  }

  // Allocation descriptors: extent length (type in the top two bits), then
  // the location in the short, long (lb_addr + 6 bytes implementation use)
  // or extended (recorded and information lengths first) form.
  static void AddAd(std::vector<uint8_t> *ads, AdType kind, uint32_t len, uint32_t lb,
                    uint16_t part, uint8_t type = 0) {
    size_t at = ads->size();
    ads->resize(at + (kind == kShort ? 8 : kind == kLong ? 16 : 20));
    uint8_t *p = ads->data() + at;
    Put32(p, len | static_cast<uint32_t>(type) << 30);
    if (kind == kShort) {
      Put32(p + 4, lb);
    } else if (kind == kLong) {
      Put32(p + 4, lb);
      Put16(p + 8, part);
    } else {
      Put32(p + 4, len);  // recorded length
      Put32(p + 8, len);  // information length
      Put32(p + 12, lb);
      Put16(p + 16, part);
    }
  }

  // A File Entry (or Extended File Entry) at block lb of partition part
  // (block is what the tag records); ads holds the descriptors or, for
  // kEmbedded, the data itself.
  void Entry(uint8_t *d, uint32_t lb, uint8_t fileType, uint64_t size, AdType kind,
             const std::vector<uint8_t> &ads, bool extended = false) {
    const size_t header = extended ? kExtFileEntryHeader : kFileEntryHeader;
    memset(d, 0, kBs);
    Put16(d + 16 + 4, 4);  // ICB tag: strategy 4
    d[16 + 11] = fileType;
    Put16(d + 16 + 18, kind);  // flags: allocation descriptor type
    Put64(d + 56, size);       // information length
    if (extended) {
      Put64(d + 64, size);  // object size
    }
    Put32(d + header - 4, static_cast<uint32_t>(ads.size()));  // L_AD (L_EA stays 0)
    std::copy(ads.begin(), ads.end(), d + header);
    Tag(d, extended ? kTagExtFileEntry : kTagFileEntry, lb, header + ads.size());
  }

  // An Allocation Extent Descriptor holding more descriptors.
  static void AllocExtent(uint8_t *d, uint32_t lb, const std::vector<uint8_t> &ads) {
    Put32(d + 20, static_cast<uint32_t>(ads.size()));
    std::copy(ads.begin(), ads.end(), d + 24);
    Tag(d, kTagAllocExtent, lb, 24 + ads.size());
  }

  // A directory's File Identifier Descriptors: characteristics (2 a
  // directory, 4 deleted, 8 the parent), the name as CS0 (8-bit when it
  // fits, else UCS-2; empty for the parent), the entry's ICB.
  struct Name {
    std::u16string name;
    uint32_t lb;
    uint8_t chars = 0;
  };
  std::vector<uint8_t> Fids(const std::vector<Name> &names) const {
    std::vector<uint8_t> out;
    for (const Name &n : names) {
      std::vector<uint8_t> id;
      if (!n.name.empty()) {
        bool wide = std::any_of(n.name.begin(), n.name.end(), [](char16_t c) { return c > 0xFF; });
        id.push_back(wide ? 16 : 8);
        for (char16_t c : n.name) {
          if (wide) {
            id.push_back(static_cast<uint8_t>(c >> 8));
          }
          id.push_back(static_cast<uint8_t>(c));
        }
      }
      size_t at = out.size(), len = (kFidHeader + id.size() + 3) & ~size_t{3};
      out.resize(at + len);
      uint8_t *f = out.data() + at;
      f[18] = n.chars;
      f[19] = static_cast<uint8_t>(id.size());
      Put32(f + 20, kBs);  // ICB long_ad: length, block, partition
      Put32(f + 24, n.lb);
      Put16(f + 28, FsPart());
      std::copy(id.begin(), id.end(), f + kFidHeader);
      Tag(f, kTagFileId, 1, len);
    }
    return out;
  }
  // Shorthands: an entry at file-system block lb holding its data, or over
  // short descriptors (length, block, extent type).
  void Embed(uint32_t lb, uint8_t fileType, const std::vector<uint8_t> &data, bool ext = false) {
    Entry(Fs(lb), lb, fileType, data.size(), kEmbedded, data, ext);
  }
  using Ads = std::vector<std::array<uint32_t, 3>>;
  void Extents(uint32_t lb, uint8_t fileType, uint64_t size, const Ads &ads) {
    std::vector<uint8_t> raw;
    for (const auto &[len, block, type] : ads) {
      AddAd(&raw, kShort, len, block, FsPart(), static_cast<uint8_t>(type));
    }
    Entry(Fs(lb), lb, fileType, size, kShort, raw);
  }

  // Writes the recognition sequence, volume descriptors, the anchor (no
  // reserve sequence or backup anchors: no test here breaks the main ones),
  // the metadata file when needed and the file set descriptor (root at
  // file-system block 1).
  void Finish() {
    const char *vrs[] = {"BEA01", "NSR02", "TEA01"};
    for (int i = 0; i < 3; ++i) {
      memcpy(Sector(16 + i) + 1, vrs[i], 5);
      Sector(16 + i)[6] = 1;
    }
    Tag(Sector(32), kTagPrimaryVolume, 32, 512);
    uint8_t *pd = Sector(33);
    Put32(pd + 188, kPartStart);
    Put32(pd + 192, static_cast<uint32_t>(partBlocks_));
    Tag(pd, kTagPartition, 33, 512);
    uint8_t *lvd = Sector(34);
    Put32(lvd + 212, kBs);
    Put32(lvd + 248, kBs);  // file set descriptor long_ad
    Put16(lvd + 248 + 8, FsPart());
    uint8_t *m = lvd + kLvdMapsOffset;
    m[0] = 1, m[1] = 6;  // type 1: partition 0
    if (meta_) {
      m += 6;
      m[0] = 2, m[1] = 64;
      memcpy(m + 5, "*UDF Metadata Partition", 23);
      Put32(m + 40, kMetaFile);
      Put32(m + 44, kMetaFile);  // the mirror is the same file here
    }
    uint32_t table = meta_ ? 70 : 6;
    Put32(lvd + 264, table);
    Put32(lvd + 268, meta_ ? 2 : 1);
    Tag(lvd, kTagLogicalVolume, 34, kLvdMapsOffset + table);
    uint8_t *anchor = Sector(256);
    Put32(anchor + 16, 16 * kBs), Put32(anchor + 20, 32);  // main sequence
    Tag(anchor, kTagAnchor, 256, 512);
    if (meta_) {
      std::vector<uint8_t> ads;
      AddAd(&ads, kShort, kMetaBlocks * kBs, kMetaStart, 0);
      Entry(Phys(kMetaFile), kMetaFile, 250, kMetaBlocks * kBs, kShort, ads, true);
    }
    uint8_t *fsd = Fs(0);
    Put32(fsd + 400, kBs);  // root directory ICB
    Put32(fsd + 404, 1);
    Put16(fsd + 408, FsPart());
    Tag(fsd, kTagFileSet, 0, 512);
  }

  // A reader over the blocks as they are now.
  std::unique_ptr<gp::ImageReader> Reader() const {
    return std::make_unique<SparseReader>(blocks_, (kPartStart + partBlocks_) * kBs);
  }

  static void Put16(uint8_t *p, uint16_t v) { p[0] = v & 0xFF, p[1] = v >> 8; }
  static void Put32(uint8_t *p, uint32_t v) {
    Put16(p, static_cast<uint16_t>(v));
    Put16(p + 2, static_cast<uint16_t>(v >> 16));
  }
  static void Put64(uint8_t *p, uint64_t v) {
    Put32(p, static_cast<uint32_t>(v));
    Put32(p + 4, static_cast<uint32_t>(v >> 32));
  }

 private:
  using Blocks = std::map<uint64_t, std::vector<uint8_t>>;

  uint8_t *Sector(uint64_t s) {
    std::vector<uint8_t> &b = blocks_[s];
    b.resize(kBs);
    return b.data();
  }

  class SparseReader : public gp::ImageReader {
   public:
    SparseReader(Blocks blocks, uint64_t size) : blocks_(std::move(blocks)), size_(size) {}
    bool ReadAt(uint64_t offset, void *buf, size_t len) override {
      if (offset > size_ || len > size_ - offset) {
        return false;
      }
      uint8_t *out = static_cast<uint8_t *>(buf);
      memset(out, 0, len);
      for (auto it = blocks_.lower_bound(offset / kBs);
           it != blocks_.end() && it->first * kBs < offset + len; ++it) {
        uint64_t from = std::max(offset, it->first * kBs);
        uint64_t to = std::min(offset + len, (it->first + 1) * kBs);
        memcpy(out + (from - offset), it->second.data() + (from - it->first * kBs), to - from);
      }
      return true;
    }
    uint64_t Size() const override { return size_; }

   private:
    Blocks blocks_;
    uint64_t size_;
  };

  Blocks blocks_;
  uint64_t partBlocks_;
  bool meta_;
};

// Everything the reader shows below root, in the form Snapshot gives a
// host tree; "?" for an entry that does not open, or a file that does not
// read whole (the first MiB) or whose listed size is not its size. At most
// budget entries, so a damaged image cannot keep it going.
inline std::map<std::string, std::string> Walk(UDFVolume *vol, UDFDir *root, int budget = 10000) {
  std::map<std::string, std::string> out;
  std::function<void(UDFDir *, const std::string &)> walk = [&](UDFDir *dir,
                                                                const std::string &prefix) {
    UDFDirEntryInfo info;
    while (const char *name = --budget >= 0 ? UDF_ReadDir(dir, &info) : nullptr) {
      std::string n = name, path = prefix + n;
      if (info.isDirectory) {
        UDFDir *child = UDF_OpenDir(vol, dir, n.c_str());
        out[path] = child != nullptr ? "d" : "?";
        if (child != nullptr) {
          walk(child, path + "/");
          UDF_CloseDir(child);
        }
        continue;
      }
      UDFFile *f = UDF_OpenFile(vol, dir, n.c_str());
      uint64_t size = f != nullptr ? UDF_GetFileSize(vol, f) : 0;
      std::string data(std::min<uint64_t>(size, 1 << 20), '\0');
      bool read = f != nullptr && UDF_PReadFile(f, data.data(), 0, data.size());
      UDF_CloseFile(f);
      out[path] = read && size == data.size() && size == info.size
                      ? testing_support::SnapshotFile(data)
                      : "?";
    }
  };
  walk(root, "");
  return out;
}

}  // namespace gp::udf

#endif
