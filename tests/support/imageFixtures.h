// Helpers shared by the image reader suites: mastering with the real tools,
// walking an ISO 9660 volume, in-memory and failing readers, and snapshots
// of host trees.
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

// Reads a file to its end in 2048-byte chunks, the way detection does; the
// first failure, or ISO9660_OK.
inline Iso9660Result ReadIsoFile(Iso9660Volume *vol, const Iso9660DirEntry &entry,
                                 std::string *out = nullptr) {
  Iso9660File *file = nullptr;
  Iso9660Result rc = Iso9660_OpenFile(vol, &entry, &file);
  char buf[2048];
  for (uint32_t len = sizeof buf; rc == ISO9660_OK; len = sizeof buf) {
    rc = Iso9660_ReadFile(vol, file, buf, &len);
    if (out != nullptr) {
      out->append(buf, len);  // nothing at the end
    }
  }
  Iso9660Result closed = file != nullptr ? Iso9660_CloseFile(vol, file) : ISO9660_OK;
  return rc == ISO9660_EOF ? closed : rc;
}

// Lists and reads everything below path ("" for the root), handing seen
// each entry with its path and, for a file, its bytes; deeper than depth
// levels is ISO9660_ERR_LIMIT. The first failure, or ISO9660_OK.
using IsoSeen =
    std::function<void(const std::string &, const Iso9660DirEntry &, const std::string &)>;
inline Iso9660Result WalkIso(Iso9660Volume *vol, const std::string &path, const IsoSeen &seen = {},
                             int depth = 40) {
  Iso9660Dir *dir = nullptr;
  Iso9660Result rc = Iso9660_OpenDir(vol, path.c_str(), &dir), first = rc;
  auto e = std::make_unique<Iso9660DirEntry>();
  while (dir != nullptr && (rc = Iso9660_ReadDir(vol, dir, e.get())) != ISO9660_EOF) {
    if (rc == ISO9660_OK) {
      std::string child = path.empty() ? e->name : path + "/" + e->name, data;
      rc = !(e->flags & ISO9660_ENTRY_DIRECTORY) ? ReadIsoFile(vol, *e, &data)
           : depth > 0                           ? WalkIso(vol, child, seen, depth - 1)
                                                 : ISO9660_ERR_LIMIT;
      if (seen) {
        seen(child, *e, data);
      }
    }
    first = first == ISO9660_OK ? rc : first;
  }
  Iso9660Result closed = dir != nullptr ? Iso9660_CloseDir(vol, dir) : ISO9660_OK;
  return first == ISO9660_OK ? closed : first;
}

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

// A file's bytes as Snapshot shows them: large files by size and hash, to
// stay readable.
inline std::string SnapshotFile(const std::string &data) {
  return data.size() <= 64 ? "f:" + data
                           : "f:" + std::to_string(data.size()) + "#" +
                                 std::to_string(std::hash<std::string>{}(data));
}

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
      out[rel] = SnapshotFile(ReadFile(p));
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
