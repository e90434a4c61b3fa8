// Extracts the whole of an arbitrary image into a fresh directory and checks
// that the extraction stayed inside it: nothing may appear beside the target
// directory and no symlink may appear below it.
#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <span>
#include <string>

#include "platform/image/imageReader.h"
#include "platform/iso9660/iso9660.h"
#include "platform/log/log.h"

// Internal entry point with caller-chosen bounds (iso9660Extract.cc).

namespace {

namespace fs = std::filesystem;

// Small bounds keep each run fast; the bounds themselves are tested elsewhere.
constexpr Iso9660ExtractLimits kFuzzLimits = {16, 4096, 64U << 20};

void QuietSink(void *, int, const char *, size_t) {}

// A fresh parent per run (libFuzzer may leave through _exit, so nothing is
// kept for an exit handler to clean up).
fs::path MakeBaseDir() {
  std::string tmpl = (fs::temp_directory_path() / "fuzz-iso9660-extract-XXXXXX").string();
  if (mkdtemp(tmpl.data()) == nullptr) {
    perror("mkdtemp");
    abort();
  }
  return tmpl;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static bool quiet = (Log_SetSink(QuietSink, nullptr), true);
  (void)quiet;
  const fs::path base = MakeBaseDir();
  const fs::path out = base / "out";
  fs::create_directory(out);

  Iso9660Volume *volume = nullptr;
  if (Iso9660_OpenReader(gp::MakeMemoryImageReader(std::span<const uint8_t>(data, size)),
                         ISO9660_FORMAT_ISO | ISO9660_FORMAT_JOLIET | ISO9660_FORMAT_ROCKRIDGE,
                         &volume) == ISO9660_OK) {
    Iso9660_ExtractWithLimits(volume, "/", out.c_str(), &kFuzzLimits);
    Iso9660_Close(volume);
  }

  for (const auto &entry : fs::directory_iterator(base)) {
    if (entry.path() != out) {
      fprintf(stderr, "extraction wrote outside its directory: %s\n", entry.path().c_str());
      abort();
    }
  }
  for (const auto &entry : fs::recursive_directory_iterator(out)) {
    if (entry.is_symlink()) {
      fprintf(stderr, "extraction created a symlink: %s\n", entry.path().c_str());
      abort();
    }
  }
  fs::remove_all(base);
  return 0;
}
