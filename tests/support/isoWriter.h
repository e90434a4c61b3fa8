// A small ISO 9660 image written record by record, for shapes no mastering
// tool makes: huge directories, aliased parts, shared continuation chains,
// damaged records before good ones. Descriptors at blocks 16 and 17; with
// rockRidge the root's "." record announces Rock Ridge.
#ifndef GUESTPREP_TESTS_ISOWRITER_H
#define GUESTPREP_TESTS_ISOWRITER_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace testing_support {

class IsoWriter {
 public:
  static constexpr size_t kBlock = 2048;
  static constexpr uint8_t kDirectory = 0x02, kMultiExtent = 0x80;
  explicit IsoWriter(bool rockRidge = false) : rr_(rockRidge), img_(18 * kBlock, '\0') {}

  static std::string Both32(uint32_t v) {  // little-endian, then big-endian
    std::string b(8, '\0');
    for (int i = 0; i < 4; ++i) {
      b[i] = b[7 - i] = static_cast<char>(v >> (8 * i));
    }
    return b;
  }
  // A directory record with system use entries after the name.
  static std::string Record(uint32_t extent, uint32_t size, uint8_t flags, const std::string &name,
                            const std::string &susp = "") {
    std::string r = std::string(2, '\0') + Both32(extent) + Both32(size) + std::string(7, '\0') +
                    static_cast<char>(flags) + std::string(2, '\0') +
                    std::string("\x01\0\0\x01", 4) + static_cast<char>(name.size()) + name;
    r += std::string(name.size() % 2 == 0 ? 1 : 0, '\0') + susp;
    r[0] = static_cast<char>(r.size());
    return r;
  }
  static std::string Nm(const std::string &name) {
    return std::string("NM") + static_cast<char>(5 + name.size()) + "\x01" + '\0' + name;
  }
  static std::string Ce(uint32_t block, uint32_t offset, uint32_t len) {
    return std::string("CE\x1c\x01") + Both32(block) + Both32(offset) + Both32(len);
  }

  // Whole blocks at the end of the image holding data, zero-padded; the
  // first one's number.
  uint32_t Alloc(size_t bytes, const std::string &data = "") {
    uint32_t first = static_cast<uint32_t>(img_.size() / kBlock);
    img_.resize(img_.size() + (bytes + kBlock - 1) / kBlock * kBlock, '\0');
    Put(uint64_t{first} * kBlock, data);
    return first;
  }
  void Put(uint64_t offset, const std::string &bytes) { img_.replace(offset, bytes.size(), bytes); }

  // A directory of "." and ".." and these records; a record never
  // straddles a sector, and an empty string starts the next sector.
  std::pair<uint32_t, uint32_t> Dir(std::vector<std::string> records, bool root = false) {
    std::string rr = root && rr_ ? std::string("SP\x07\x01\xbe\xef\0RR\x05\x01\x81", 12) : "";
    records.insert(records.begin(), {Record(0, 0, kDirectory, std::string(1, '\0'), rr),
                                     Record(0, 0, kDirectory, std::string(1, '\1'))});
    std::string dir;
    for (const std::string &r : records) {
      if (r.empty() || dir.size() % kBlock + r.size() > kBlock) {
        dir.resize((dir.size() / kBlock + 1) * kBlock, '\0');
      }
      dir += r;
    }
    uint32_t size = static_cast<uint32_t>((dir.size() + kBlock - 1) / kBlock * kBlock);
    uint32_t block = Alloc(size);
    for (size_t self : {size_t{0}, records[0].size()}) {  // "." and ".." both name it
      dir.replace(self + 2, 16, Both32(block) + Both32(size));
    }
    Put(uint64_t{block} * kBlock, dir);
    return {block, size};
  }

  // The image, with its descriptors describing this root.
  std::string Finish(std::pair<uint32_t, uint32_t> root) {
    std::string pvd = std::string("\x01") + "CD001\x01" + std::string(73, '\0');
    pvd += Both32(static_cast<uint32_t>(img_.size() / kBlock)) + std::string(40, '\0');
    pvd += std::string("\x00\x08\x08\x00", 4) + std::string(24, '\0');  // block size at 128
    pvd += Record(root.first, root.second, kDirectory, std::string(1, '\0'));
    Put(16 * kBlock, pvd);
    Put(17 * kBlock, std::string("\xff") + "CD001\x01");
    return img_;
  }

 private:
  bool rr_;
  std::string img_;
};

// Images that cost far more than any image should unless every directory is
// read once and every read is capped, each hiding a CentOS ".discinfo": the
// reader's, detection's and the bounded benchmark's attacks.
namespace attacks {

constexpr char kDiscInfo[] = "1\nCentOS Linux 8\nx86_64\n";
constexpr char kAttackKey[] = "centos8-64";  // what detection makes of kDiscInfo
constexpr uint32_t kDiscInfoSize = sizeof kDiscInfo - 1;

// ".discinfo" as 1,023 parts over the same 256 KiB: a 256 MiB file in a
// small image. The files beside it share that extent too, which is legal.
inline std::string AliasedParts() {
  IsoWriter w(true);
  uint32_t data = w.Alloc(256 << 10, kDiscInfo);
  std::vector<std::string> recs{IsoWriter::Record(data, 5, 0, "A;1", IsoWriter::Nm("a"))};
  for (int i = 0; i < 1023; ++i) {
    recs.push_back(IsoWriter::Record(data, 256 << 10, i < 1022 ? IsoWriter::kMultiExtent : 0,
                                     "DISCINFO.;1", i == 0 ? IsoWriter::Nm(".discinfo") : ""));
  }
  recs.push_back(IsoWriter::Record(data, 7, 0, "Z;1", IsoWriter::Nm("z")));
  return w.Finish(w.Dir(recs, true));
}

// 200,000 primary names before ".DISCINFO": no lookup may read the root
// again.
inline std::string WideRoot() {
  IsoWriter w;
  uint32_t data = w.Alloc(kDiscInfoSize, kDiscInfo);
  std::vector<std::string> recs;
  char name[16];
  for (int i = 0; i < 200000; ++i) {
    snprintf(name, sizeof name, "N%06d;1", i);
    recs.push_back(IsoWriter::Record(data, 4, 0, name));
  }
  recs.push_back(IsoWriter::Record(data, kDiscInfoSize, 0, ".DISCINFO;1"));
  return w.Finish(w.Dir(recs, true));
}

// Each kind of damage ahead of the good entries, the first one taking the
// rest of its sector with it.
inline std::string DamagedFirst() {
  using W = IsoWriter;
  W w(true);
  uint32_t data = w.Alloc(kDiscInfoSize, kDiscInfo), loop = w.Alloc(1);
  w.Put(uint64_t{loop} * W::kBlock, W::Ce(loop, 0, 28));
  std::string tooShort = W::Record(data, 1, 0, "S;1", W::Nm("short"));
  std::string nameOverrun = W::Record(data, 1, 0, "O;1", W::Nm("overrun"));
  tooShort[0] = 20;
  nameOverrun[32] = static_cast<char>(200);
  return w.Finish(w.Dir(
      {tooShort, W::Record(data, 1, 0, "H;1", W::Nm("hidden-by-short")), "",
       W::Record(0x7FFFFFF0, 100, 0, "P;1", W::Nm("pastend")),
       W::Record(data, 1, 0, "L;1", W::Nm("loop") + W::Ce(loop, 0, 28)),
       W::Record(data, 1, 0, "D;1", W::Nm("..")), W::Record(data, 1, 0, "A/B;1"), nameOverrun,
       W::Record(0x7FFFFFF0, 2048, W::kDirectory, "SUBDIR", W::Nm("subdir")),
       W::Record(data, 3, 0, "G1;1", W::Nm("Good-One")), W::Record(data, 2, 0, "G2;1", W::Nm("g2")),
       W::Record(data, kDiscInfoSize, 0, "DISCINFO.;1", W::Nm(".discinfo"))},
      true));
}

}  // namespace attacks

}  // namespace testing_support

#endif
