// Opens the input as a FAT image and walks its whole tree, reading every
// file, then writes to it the way the floppy builders do: a file replaced,
// a long-named file and a subdirectory created. Bounded in depth and
// entries.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/fat/fat.h"
#include "platform/log/log.h"

namespace {

constexpr int kMaxDepth = 16;
constexpr int kMaxEntries = 4096;
constexpr size_t kMaxReadBytes = 1 << 16;

void Walk(FATDirectory *dir, int depth, int *budget) {
  FATDirEntryInfo info;
  std::vector<uint8_t> buf(kMaxReadBytes);
  for (uint32_t cursor = 0; FAT_ReadDirectory(dir, &cursor, &info) == FAT_OK;) {
    if (--*budget < 0) {
      return;
    }
    if (info.isDirectory) {
      FATDirectory *child = nullptr;
      if (depth < kMaxDepth && FAT_OpenDirectory(dir, info.name, &child) == FAT_OK) {
        Walk(child, depth + 1, budget);
        FAT_CloseDirectory(child);
      }
      continue;
    }
    FATFile *file = nullptr;
    if (FAT_OpenFile(dir, info.name, &file) == FAT_OK) {
      size_t got = 0;
      FAT_ReadFile(file, 0, buf.data(), buf.size(), &got);
      FAT_CloseFile(file);
    }
  }
}

void Write(FATDirectory *root) {
  static const std::vector<uint8_t> data(3000, 0x5a);
  size_t written = 0;
  FATFile *file = nullptr;
  if (FAT_OpenFile(root, "PRESEED.CFG", &file) == FAT_OK ||
      FAT_CreateFile(root, "PRESEED.CFG", &file) == FAT_OK) {
    FAT_SetFileSize(file, 0);
    for (size_t at = 0; at < data.size(); at += 512) {
      FAT_WriteFile(file, at, data.data() + at, std::min<size_t>(512, data.size() - at), &written);
    }
    FAT_CloseFile(file);
  }
  if (FAT_CreateFile(root, "A Long Driver Name.inf", &file) == FAT_OK) {
    FAT_WriteFile(file, 0, data.data(), 100, &written);
    FAT_CloseFile(file);
  }
  FATDirectory *dir = nullptr;
  if (FAT_CreateDirectory(root, "drivers", &dir) == FAT_OK) {
    FAT_CloseDirectory(dir);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static bool quiet = (Log_SetMaxLevel(-1), true);
  (void)quiet;
  // The FAT layer opens images by path: the input becomes a memory file.
  int fd = memfd_create("fuzz-fat", 0);
  if (fd < 0) {
    return 0;
  }
  if (write(fd, data, size) == static_cast<ssize_t>(size)) {
    std::string path = "/proc/self/fd/" + std::to_string(fd);
    FATDevice *device = nullptr;
    FATVolume *volume = nullptr;
    if (FATDevFileIO_Open(path.c_str(), &device) == FAT_OK &&
        FAT_OpenVolume(device, &volume) == FAT_OK) {
      FATDirectory *root = nullptr;
      if (FAT_OpenRootDirectory(volume, &root) == FAT_OK) {
        int budget = kMaxEntries;
        Walk(root, 0, &budget);
        Write(root);
        FAT_CloseDirectory(root);
      }
      FAT_CloseVolume(volume);
    }
  }
  close(fd);
  return 0;
}
