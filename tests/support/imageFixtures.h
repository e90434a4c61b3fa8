// Helpers shared by the image reader suites: mastering with the real tools,
// a small ISO 9660 writer for hostile shapes, in-memory and failing readers,
// and snapshots of host trees.
#ifndef GUESTPREP_TESTS_IMAGEFIXTURES_H
#define GUESTPREP_TESTS_IMAGEFIXTURES_H

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/image/imageReader.h"
#include "platform/iso9660/iso9660.h"
#include "support/testSupport.h"

namespace testing_support {

// Runs a mastering command ("xorriso" gets "-as mkisofs", others "-quiet")
// with options, then "-o image src".
inline void Master(const std::string &tool, const std::vector<std::string> &options,
                   const std::filesystem::path &image, const std::filesystem::path &src) {
  std::vector<std::string> argv{tool};
  if (tool == "xorriso") {
    argv.insert(argv.end(), {"-as", "mkisofs"});
  } else {
    argv.push_back("-quiet");
  }
  argv.insert(argv.end(), options.begin(), options.end());
  argv.insert(argv.end(), {"-o", image.string(), src.string()});
  CommandResult r = RunMasteringTool(argv);
  ASSERT_EQ(0, r.exitCode) << r.output;
}

// An ISO 9660 volume closed on scope exit.
struct IsoVolume {
  Iso9660Volume *v = nullptr;
  IsoVolume() = default;
  IsoVolume(const std::string &image, uint32_t formats) {
    EXPECT_EQ(ISO9660_OK, Iso9660_Open(image.c_str(), formats, &v)) << image;
  }
  IsoVolume(const IsoVolume &) = delete;
  IsoVolume &operator=(const IsoVolume &) = delete;
  ~IsoVolume() {
    if (v != nullptr) {
      EXPECT_EQ(ISO9660_OK, Iso9660_Close(v));
    }
  }
  operator Iso9660Volume *() const { return v; }
};

// A reader over a string that must outlive it.
inline std::unique_ptr<gp::ImageReader> MemoryReader(const std::string &img) {
  return gp::MakeMemoryImageReader(
      std::span<const uint8_t>(reinterpret_cast<const uint8_t *>(img.data()), img.size()));
}

// Fails every read after the first okCalls: swept over okCalls, every stage
// of opening, walking and reading meets an I/O error somewhere.
class FailingReader : public gp::ImageReader {
 public:
  FailingReader(std::unique_ptr<gp::ImageReader> inner, int okCalls)
      : inner_(std::move(inner)), left_(okCalls) {}
  bool ReadAt(uint64_t offset, void *buf, size_t len) override {
    return left_-- > 0 && inner_->ReadAt(offset, buf, len);
  }
  uint64_t Size() const override { return inner_->Size(); }

 private:
  std::unique_ptr<gp::ImageReader> inner_;
  int left_;
};

// Everything below root (links not followed), optionally minus one subtree:
// "d" for a directory, "f:" + bytes (or size#hash) for a file, "l:" + target
// for a link.
inline std::map<std::string, std::string> Snapshot(const std::filesystem::path &root,
                                                   const std::filesystem::path &skip = {}) {
  namespace fs = std::filesystem;
  std::map<std::string, std::string> out;
  for (auto it = fs::recursive_directory_iterator(root); it != fs::recursive_directory_iterator();
       ++it) {
    const fs::path &p = it->path();
    if (!skip.empty() && p == skip) {
      it.disable_recursion_pending();
      continue;
    }
    std::string rel = fs::relative(p, root).string();
    if (it->is_symlink()) {
      out[rel] = "l:" + fs::read_symlink(p).string();
    } else if (it->is_directory()) {
      out[rel] = "d";
    } else {
      std::string data = ReadFile(p);  // large files by size and hash, to stay readable
      out[rel] = data.size() <= 64 ? "f:" + data
                                   : "f:" + std::to_string(data.size()) + "#" +
                                         std::to_string(std::hash<std::string>{}(data));
    }
  }
  return out;
}

// A small ISO 9660 image written record by record, for shapes no mastering
// tool makes: huge directories, aliased parts, shared continuation chains,
// damaged records before good ones. Descriptors at blocks 16 and 17; with
// rockRidge the root's "." record announces Rock Ridge.
class IsoRecordWriter {
 public:
  static constexpr size_t kBlock = 2048;
  explicit IsoRecordWriter(bool rockRidge = false) : rr_(rockRidge), img_(18 * kBlock, '\0') {}

  static std::string Both32(uint32_t v) {  // little-endian, then big-endian
    std::string b(8, '\0');
    for (int i = 0; i < 4; ++i) {
      b[i] = b[7 - i] = static_cast<char>(v >> (8 * i));
    }
    return b;
  }
  // A directory record with system use entries after the name (flags 0x02
  // directory, 0x80 more parts follow).
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

  // Zeroed whole blocks at the end of the image; the first one's number.
  uint32_t Alloc(size_t bytes) {
    uint32_t first = static_cast<uint32_t>(img_.size() / kBlock);
    img_.resize(img_.size() + (bytes + kBlock - 1) / kBlock * kBlock, '\0');
    return first;
  }
  void Put(uint64_t offset, const std::string &bytes) { img_.replace(offset, bytes.size(), bytes); }

  // A directory of "." and ".." and these records; a record never
  // straddles a sector, and an empty string starts the next sector.
  std::pair<uint32_t, uint32_t> Dir(std::vector<std::string> records, bool root = false) {
    std::string rr = root && rr_ ? std::string("SP\x07\x01\xbe\xef\0RR\x05\x01\x81", 12) : "";
    records.insert(records.begin(), {Record(0, 0, 2, std::string(1, '\0'), rr),
                                     Record(0, 0, 2, std::string(1, '\1'))});
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
    pvd += Record(root.first, root.second, 2, std::string(1, '\0'));
    Put(16 * kBlock, pvd);
    Put(17 * kBlock, std::string("\xff") + "CD001\x01");
    return img_;
  }

 private:
  bool rr_;
  std::string img_;
};

// Names a parameterised case by its label, and prints it as that label
// (bring PrintTo into the case's namespace with a using-declaration).
template <typename T>
requires requires(const T &t) {
  t.label;
}
void PrintTo(const T &param, std::ostream *os) {
  *os << param.label;
}

struct LabelName {
  template <typename P>
  std::string operator()(const ::testing::TestParamInfo<P> &info) const {
    std::string name;
    for (const char *p = info.param.label; *p; ++p) {
      name += isalnum(static_cast<unsigned char>(*p)) ? *p : '_';
    }
    return name;
  }
};

}  // namespace testing_support

#endif
