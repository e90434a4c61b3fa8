// Opens the input as a UDF image and walks its whole tree, reading every
// file, within fixed bounds on depth, entries and bytes.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/image/imageReader.h"
#include "platform/log/log.h"
#include "platform/udf/udf.h"

namespace {

constexpr int kMaxDepth = 16;
constexpr int kMaxEntries = 4096;
constexpr uint64_t kMaxReadBytes = 1 << 20;

void Walk(UDFVolume *vol, UDFDir *dir, int depth, int *budget) {
  UDFDirEntryInfo info;
  while (const char *name = UDF_ReadDir(dir, &info)) {
    if (--*budget < 0) {
      return;
    }
    std::string n = name;
    if (info.isDirectory && depth < kMaxDepth) {
      if (UDFDir *child = UDF_OpenDir(vol, dir, n.c_str())) {
        Walk(vol, child, depth + 1, budget);
        UDF_CloseDir(child);
      }
      continue;
    }
    UDFFile *file = UDF_OpenFile(vol, dir, n.c_str());
    if (file == nullptr) {
      continue;
    }
    uint64_t size = UDF_GetFileSize(vol, file);
    std::vector<uint8_t> buf(size < kMaxReadBytes ? size : kMaxReadBytes);
    UDF_PReadFile(file, buf.data(), 0, buf.size());
    if (size > buf.size()) {
      UDF_PReadFile(file, buf.data(), size - buf.size(), buf.size());  // the tail
    }
    UDF_CloseFile(file);
  }
  UDF_RewindDir(dir);
  UDF_ReadDir(dir, nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static bool quiet = (Log_SetMaxLevel(-1), true);
  (void)quiet;
  UDFVolume *vol = UDF_OpenReader(gp::MakeMemoryImageReader(std::span<const uint8_t>(data, size)));
  if (vol == nullptr) {
    return 0;
  }
  if (UDFDir *root = UDF_OpenDir(vol, nullptr, "/")) {
    int budget = kMaxEntries;
    Walk(vol, root, 0, &budget);
    UDF_CloseDir(root);
  }
  UDF_Close(vol);
  return 0;
}
