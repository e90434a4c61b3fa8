// ISO 9660 reader on a DVD-sized image: open it, find a file three
// directories deep, read it. Prints wall time (first call on a fresh volume,
// then the median of many calls on the warm volume) and the bytes the reader
// really took from the image.
//
// Usage: bench_iso9660 [IMAGE PATH-IN-IMAGE]
// Without arguments it masters an image with xorriso from the committed test
// tree, a few hundred small files and a sparse 4.5 GiB file; the image is
// written sparse (cp --sparse=always), so it needs little real disk.
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/image/imageReader.h"
#include "platform/iso9660/iso9660.h"

namespace fs = std::filesystem;

namespace {

constexpr uint64_t kBigFile = 4608ull << 20;  // 4.5 GiB, sparse
constexpr size_t kTargetBytes = 64 * 1024;
constexpr int kWarmRuns = 2000;
constexpr uint64_t kByteTarget = 256 * 1024;

using Clock = std::chrono::steady_clock;

double Micros(Clock::duration d) {
  return std::chrono::duration<double, std::micro>(d).count();
}

bool MakeImage(const fs::path &dir, std::string *image) {
  struct statvfs st;
  // Only a few MiB land on disk when holes are kept; insist on room for
  // the worst case anyway rather than fill the disk.
  if (statvfs(dir.c_str(), &st) != 0 ||
      static_cast<uint64_t>(st.f_bavail) * st.f_frsize < kBigFile + (1ull << 30)) {
    fprintf(stderr, "bench_iso9660: not enough free space in %s\n", dir.c_str());
    return false;
  }
  fs::path src = dir / "src";
  fs::create_directories(src);
  fs::copy(fs::path(GUESTPREP_SOURCE_DIR) / "tests/data/iso/tree", src / "tree",
           fs::copy_options::recursive);
  for (int d = 0; d < 20; ++d) {
    fs::path sub = src / ("pool" + std::to_string(d));
    fs::create_directories(sub);
    for (int f = 0; f < 30; ++f) {
      std::ofstream(sub / ("package-" + std::to_string(f) + ".rpm")) << std::string(f * 100, 'p');
    }
  }
  fs::create_directories(src / "a" / "b" / "c");
  std::ofstream(src / "a" / "b" / "c" / "target.bin") << std::string(kTargetBytes, 't');
  { std::ofstream big(src / "filler.bin", std::ios::binary); }
  fs::resize_file(src / "filler.bin", kBigFile);
  *image = (dir / "dvd.iso").string();
  std::string cmd = "xorriso -as mkisofs -iso-level 3 -R -J -quiet -o - '" + src.string() +
                    "' 2>/dev/null | cp --sparse=always /dev/stdin '" + *image + "'";
  fprintf(stderr, "bench_iso9660: mastering a %.1f GiB image...\n",
          static_cast<double>(kBigFile) / (1 << 30));
  if (std::system(cmd.c_str()) != 0) {
    fprintf(stderr, "bench_iso9660: xorriso failed\n");
    return false;
  }
  return true;
}

// Find the file by path and read all of it in 2048-byte chunks.
bool FindAndRead(Iso9660Volume *vol, const char *path, uint64_t *got) {
  Iso9660DirEntry entry;
  Iso9660File *file = nullptr;
  if (Iso9660_Stat(vol, path, &entry) != ISO9660_OK ||
      Iso9660_OpenFile(vol, &entry, &file) != ISO9660_OK) {
    return false;
  }
  char buf[2048];
  *got = 0;
  Iso9660Result rc;
  for (;;) {
    uint32_t len = sizeof buf;
    rc = Iso9660_ReadFile(vol, file, buf, &len);
    if (rc != ISO9660_OK) {
      break;
    }
    *got += len;
  }
  Iso9660_CloseFile(vol, file);
  return rc == ISO9660_EOF && *got == entry.size64;
}

}  // namespace

int main(int argc, char **argv) {
  std::string image;
  std::string target = "a/b/c/target.bin";
  fs::path tmp;
  if (argc >= 3) {
    image = argv[1];
    target = argv[2];
  } else {
    char tmpl[] = "/tmp/bench-iso9660-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) {
      perror("mkdtemp");
      return 1;
    }
    tmp = tmpl;
    if (!MakeImage(tmp, &image)) {
      fs::remove_all(tmp);
      return 1;
    }
  }

  std::string error;
  auto file = gp::OpenFileImageReader(image.c_str(), &error);
  if (!file) {
    fprintf(stderr, "bench_iso9660: %s: %s\n", image.c_str(), error.c_str());
    return 1;
  }
  printf("image: %s, %.2f GiB\n", image.c_str(), static_cast<double>(file->Size()) / (1ull << 30));
  auto counting = std::make_unique<gp::CountingImageReader>(std::move(file));
  gp::CountingImageReader *counter = counting.get();

  Clock::time_point t0 = Clock::now();
  Iso9660Volume *vol = nullptr;
  if (Iso9660_OpenReader(std::move(counting), ISO9660_FORMAT_ROCKRIDGE | ISO9660_FORMAT_JOLIET,
                         &vol) != ISO9660_OK) {
    fprintf(stderr, "bench_iso9660: cannot open the image\n");
    return 1;
  }
  Clock::time_point t1 = Clock::now();
  uint64_t openBytes = counter->bytes();
  uint64_t got = 0;
  if (!FindAndRead(vol, target.c_str(), &got)) {
    fprintf(stderr, "bench_iso9660: cannot read %s\n", target.c_str());
    return 1;
  }
  Clock::time_point t2 = Clock::now();
  uint64_t coldBytes = counter->bytes();
  uint64_t coldReads = counter->reads();

  std::vector<double> warm;
  counter->Reset();
  for (int i = 0; i < kWarmRuns; ++i) {
    Clock::time_point a = Clock::now();
    FindAndRead(vol, target.c_str(), &got);
    warm.push_back(Micros(Clock::now() - a));
  }
  std::sort(warm.begin(), warm.end());
  double median = warm[warm.size() / 2];
  uint64_t warmBytes = counter->bytes() / kWarmRuns;
  Iso9660_Close(vol);

  printf("open:                     %8.1f us, %8llu bytes read\n", Micros(t1 - t0),
         static_cast<unsigned long long>(openBytes));
  printf("first find+read (%llu B): %8.1f us, %8llu bytes read in %llu reads (with open)\n",
         static_cast<unsigned long long>(got), Micros(t2 - t1),
         static_cast<unsigned long long>(coldBytes), static_cast<unsigned long long>(coldReads));
  printf("warm find+read median:    %8.1f us (p90 %.1f us), %llu bytes read per call\n", median,
         warm[warm.size() * 9 / 10], static_cast<unsigned long long>(warmBytes));
  printf("target: open+find+read under %llu bytes: %s; warm under 1000 us: %s\n",
         static_cast<unsigned long long>(kByteTarget), coldBytes < kByteTarget ? "met" : "MISSED",
         median < 1000.0 ? "met" : "MISSED");
  if (!tmp.empty()) {
    fs::remove_all(tmp);
  }
  return 0;
}
