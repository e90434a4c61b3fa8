// Helpers shared by the image reader suites: mastering with the real tools,
// in-memory and failing readers, and snapshots of host trees.
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
