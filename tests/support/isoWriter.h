// A bare ISO 9660 image written record by record (primary names only), for
// images no mastering tool would make: aliased extents, enormous
// directories, broken records between good ones.
#ifndef GUESTPREP_TESTS_ISOWRITER_H
#define GUESTPREP_TESTS_ISOWRITER_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace testing_support {

class IsoWriter {
 public:
  static constexpr uint32_t kBlock = 2048;
  static constexpr uint8_t kMultiExtent = 0x80;

  // Appends data at the next free data block; returns its index among the
  // data blocks (records name extents by that index).
  uint32_t AddData(std::string_view data) {
    uint32_t first = static_cast<uint32_t>(data_.size() / kBlock);
    data_.append(data);
    data_.resize((data_.size() + kBlock - 1) / kBlock * kBlock, '\0');
    return first;
  }

  // A root directory record; dataBlock indexes the data added above.
  void AddRecord(std::string name, uint32_t dataBlock, uint32_t size, uint8_t flags = 0) {
    records_.push_back({std::move(name), dataBlock, size, flags});
  }

  // Raw bytes as a record of their own (a broken record).
  void AddRaw(std::string bytes) { records_.push_back({std::move(bytes), 0, 0, 0, true}); }

  std::string Build() const {
    const uint32_t rootBlock = 18;
    // Laid out twice: the first pass tells how many blocks the root takes,
    // and so where the data that follows it starts.
    const uint32_t dataBase =
        rootBlock + static_cast<uint32_t>(LayoutRoot(rootBlock, 0).size() / kBlock);
    std::string root = LayoutRoot(rootBlock, dataBase);
    const uint32_t rootSize = static_cast<uint32_t>(root.size());
    std::string img(16 * kBlock, '\0');
    std::string pvd(kBlock, '\0');
    pvd[0] = 1;
    pvd.replace(1, 6, "CD001\1");
    pvd.replace(40, 32, std::string(32, ' '));
    pvd.replace(40, 6, "BOUNDS");
    const uint32_t total = dataBase + static_cast<uint32_t>(data_.size() / kBlock);
    Both32(&pvd, 80, total);
    pvd[128] = 0;  // block size 2048, both-endian
    pvd[129] = 8;
    pvd[130] = 8;
    pvd[131] = 0;
    pvd.replace(156, 34, Record(std::string(1, '\0'), rootBlock, rootSize, 2));
    std::string term(kBlock, '\0');
    term[0] = static_cast<char>(255);
    term.replace(1, 6, "CD001\1");
    return img + pvd + term + root + data_;
  }

 private:
  struct Rec {
    std::string name;
    uint32_t block;
    uint32_t size;
    uint8_t flags;
    bool raw = false;
  };

  std::string LayoutRoot(uint32_t rootBlock, uint32_t dataBase) const {
    std::vector<std::string> recs{Record(std::string(1, '\0'), rootBlock, 0, 2),
                                  Record(std::string(1, '\1'), rootBlock, 0, 2)};
    for (const Rec &r : records_) {
      recs.push_back(r.raw ? r.name : Record(r.name, dataBase + r.block, r.size, r.flags));
    }
    std::string root;
    for (const std::string &rec : recs) {
      if (root.size() % kBlock + rec.size() > kBlock) {  // records never straddle a block
        root.resize((root.size() / kBlock + 1) * kBlock, '\0');
      }
      root += rec;
    }
    root.resize((root.size() + kBlock - 1) / kBlock * kBlock, '\0');
    for (size_t dot = 0; dot < 2; ++dot) {  // "." and ".." carry the root's size
      Both32(&root, dot * 34 + 10, static_cast<uint32_t>(root.size()));
    }
    return root;
  }

  static void Both32(std::string *s, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) {
      (*s)[at + i] = static_cast<char>(v >> (8 * i));
      (*s)[at + 7 - i] = static_cast<char>(v >> (8 * i));
    }
  }

  static std::string Record(const std::string &name, uint32_t extent, uint32_t size,
                            uint8_t flags) {
    size_t len = 33 + name.size() + (name.size() % 2 == 0 ? 1 : 0);
    std::string r(len, '\0');
    r[0] = static_cast<char>(len);
    Both32(&r, 2, extent);
    Both32(&r, 10, size);
    r[25] = static_cast<char>(flags);
    r[28] = 1;  // volume sequence number, both-endian
    r[31] = 1;
    r[32] = static_cast<char>(name.size());
    r.replace(33, name.size(), name);
    return r;
  }

  std::vector<Rec> records_;
  std::string data_;
};

// Images that cost far more than any image should, unless every directory
// is read once and every read is capped (tests and the bounded benchmark).
namespace attacks {

// The marker every attack hides, and the key detection gives for it.
constexpr char kDiscInfo[] = "1\nCentOS Linux 8\nx86_64\n";
constexpr char kAttackKey[] = "centos8-64";

// ".DISCINFO" as 1,023 parts that all point at the same 256 KiB: a file of
// a quarter gigabyte in an image of half a megabyte.
inline std::string AliasedParts() {
  IsoWriter w;
  std::string data(256u << 10, '\n');
  data.replace(0, sizeof kDiscInfo - 1, kDiscInfo);
  uint32_t block = w.AddData(data);
  for (int i = 0; i < 1023; ++i) {
    w.AddRecord(".DISCINFO;1", block, 256u << 10, i < 1022 ? IsoWriter::kMultiExtent : 0);
  }
  return w.Build();
}

// 200,000 entries before the marker: every lookup in the root must not read
// the root again.
inline std::string WideRoot() {
  IsoWriter w;
  uint32_t block = w.AddData(kDiscInfo);
  char name[16];
  for (int i = 0; i < 200000; ++i) {
    snprintf(name, sizeof name, "F%06d.;1", i);
    w.AddRecord(name, block, 0);
  }
  w.AddRecord(".DISCINFO;1", block, sizeof kDiscInfo - 1);
  return w.Build();
}

// A broken record (a "/" in its name) and one past the end of the image sit
// before the marker: the marker is still found.
inline std::string DamagedFirst() {
  IsoWriter w;
  uint32_t block = w.AddData(kDiscInfo);
  w.AddRecord("A/B;1", block, 10);
  w.AddRecord("FAR.;1", 1u << 30, 10);
  w.AddRecord(".DISCINFO;1", block, sizeof kDiscInfo - 1);
  return w.Build();
}

}  // namespace attacks

}  // namespace testing_support

#endif
