// Opens the input as an ISO 9660 image in every name set and walks the
// whole tree (bounded), reading every file.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "platform/image/imageReader.h"
#include "platform/iso9660/iso9660.h"
#include "platform/log/log.h"

namespace {

constexpr int kMaxDepth = 12;
constexpr int kMaxEntries = 4096;  // per input, across the walk
constexpr uint64_t kMaxFileBytes = 1u << 20;

void Quiet(void *, int, const char *, size_t) {}

void ReadAll(Iso9660Volume *vol, const Iso9660DirEntry &entry) {
  Iso9660File *file = nullptr;
  if (Iso9660_OpenFile(vol, &entry, &file) != ISO9660_OK) {
    return;
  }
  char buf[4096];
  uint64_t total = 0;
  for (;;) {
    uint32_t len = sizeof buf;
    if (Iso9660_ReadFile(vol, file, buf, &len) != ISO9660_OK || (total += len) > kMaxFileBytes) {
      break;
    }
  }
  if (entry.size64 > 16) {
    Iso9660_PReadFile(vol, file, buf, entry.size64 - 16, 16);
  }
  Iso9660_CloseFile(vol, file);
}

void Walk(Iso9660Volume *vol, const std::string &path, int depth, int *budget) {
  Iso9660Dir *dir = nullptr;
  if (depth > kMaxDepth || Iso9660_OpenDir(vol, path.c_str(), &dir) != ISO9660_OK) {
    return;
  }
  Iso9660DirEntry entry;
  Iso9660Result rc;
  while (--*budget > 0 && (rc = Iso9660_ReadDir(vol, dir, &entry)) != ISO9660_EOF) {
    if (rc != ISO9660_OK) {
      continue;  // a bad entry; the listing goes on behind it
    }
    std::string child = path + "/" + entry.name;
    if (entry.flags & ISO9660_ENTRY_DIRECTORY) {
      Walk(vol, child, depth + 1, budget);
    } else {
      Iso9660DirEntry again;
      Iso9660_Stat(vol, child.c_str(), &again);
      ReadAll(vol, entry);
    }
  }
  Iso9660_RewindDir(vol, dir);
  Iso9660_CloseDir(vol, dir);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static bool quiet = (Log_SetSink(Quiet, nullptr), true);
  (void)quiet;
  for (uint32_t format : {ISO9660_FORMAT_ISO, ISO9660_FORMAT_JOLIET, ISO9660_FORMAT_ROCKRIDGE}) {
    Iso9660Volume *vol = nullptr;
    if (Iso9660_OpenReader(gp::MakeMemoryImageReader(std::span<const uint8_t>(data, size)), format,
                           &vol) != ISO9660_OK) {
      return 0;
    }
    char *id = nullptr;
    if (Iso9660_GetVolumeId(vol, &id) == ISO9660_OK) {
      free(id);
    }
    int budget = kMaxEntries;
    Walk(vol, "", 0, &budget);
    Iso9660_Close(vol);
  }
  return 0;
}
