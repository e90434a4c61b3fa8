// Building a Windows-sized driver floppy: a fresh 1.44 MB image and a few
// hundred files of assorted sizes (some in subdirectories, some with long
// names), each copied from the host in 512-byte chunks the way the floppy
// transfer copies them. Beside it, the same tree put on a floppy with
// mtools (mformat -f 1440, then one mcopy -s). Prints the median wall time
// of each and their ratio; the built image is checked with fsck.fat and
// read back with mcopy once.
//
// Usage: bench_floppy [RUNS]   (default 20)
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/benchSupport.h"
#include "platform/fat/fat.h"
#include "platform/file/fileIO.h"

namespace fs = std::filesystem;

using bench::Run;

namespace {

using Clock = std::chrono::steady_clock;

double Millis(Clock::duration d) {
  return std::chrono::duration<double, std::milli>(d).count();
}

// The payload: path on the floppy and size. Sizes follow a fixed
// pseudo-random spread so every run copies the same bytes.
std::map<std::string, size_t> Payload() {
  std::map<std::string, size_t> files;
  uint32_t x = 12345;
  auto size = [&](size_t from, size_t spread) {
    x = x * 1103515245u + 12345u;
    return from + (x >> 8) % spread;
  };
  const char *top[] = {"winnt.sif",    "autoun~0.xml", "storePwd.exe", "storePwd.ini",
                       "unattend.cmd", "txtsetup.oem", "TOOLS.MSI",    "SETUP.EXE"};
  for (const char *name : top) {
    files[name] = size(500, 30000);
  }
  char name[96];
  for (int i = 1; i <= 40; i++) {
    snprintf(name, sizeof name, "DRV%02d.SYS", i);
    files[name] = size(200, 6000);
  }
  for (int i = 1; i <= 90; i++) {
    snprintf(name, sizeof name, "Drivers/Storage Controllers/Storage Controller Driver %d.sys", i);
    files[name] = size(300, 7000);
  }
  for (int i = 1; i <= 80; i++) {
    snprintf(name, sizeof name, "Drivers/Network/nic%02d.inf", i);
    files[name] = size(200, 3000);
  }
  for (int i = 1; i <= 60; i++) {
    snprintf(name, sizeof name, "Drivers/Display/Windows 10 x64/Display Driver Part %d.dll", i);
    files[name] = size(1000, 9000);
  }
  for (int i = 1; i <= 20; i++) {
    snprintf(name, sizeof name, "Tools/tool%02d.exe", i);
    files[name] = size(1000, 12000);
  }
  return files;
}

bool WriteHostTree(const fs::path &top, const std::map<std::string, size_t> &files) {
  uint32_t x = 7;
  for (const auto &[path, size] : files) {
    fs::create_directories((top / path).parent_path());
    std::string data(size, '\0');
    for (char &c : data) {
      x = x * 1103515245u + 12345u;
      c = static_cast<char>(x >> 16);
    }
    std::ofstream out(top / path, std::ios::binary);
    if (!out.write(data.data(), static_cast<std::streamsize>(data.size()))) {
      return false;
    }
  }
  return true;
}

// One host file into the directory, as the floppy transfer copies it.
bool CopyIn(FATDirectory *dir, const fs::path &host, const std::string &name) {
  FileIODescriptor fd;
  FileIO_Invalidate(&fd);
  if (FileIO_Open(&fd, host.c_str(), FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN) != FILEIO_SUCCESS) {
    return false;
  }
  FATFile *file = nullptr;
  bool ok = FAT_CreateFile(dir, name.c_str(), &file) == FAT_OK;
  uint64_t offset = 0;
  for (bool eof = false; ok && !eof;) {
    char chunk[512];
    size_t got = 0, written = 0;
    FileIOResult r = FileIO_Read(&fd, chunk, sizeof chunk, &got);
    eof = r == FILEIO_EOF;
    ok =
        (r == FILEIO_SUCCESS || eof) && FAT_WriteFile(file, offset, chunk, got, &written) == FAT_OK;
    offset += written;
  }
  if (file != nullptr) {
    FAT_CloseFile(file);
  }
  FileIO_Close(&fd);
  return ok;
}

// Copies the host directory's tree into dir, subdirectories first made.
bool CopyTree(FATDirectory *dir, const fs::path &host) {
  std::vector<fs::directory_entry> entries(fs::directory_iterator(host), {});
  std::sort(entries.begin(), entries.end());
  for (const auto &entry : entries) {
    std::string name = entry.path().filename().string();
    if (entry.is_directory()) {
      FATDirectory *sub = nullptr;
      if (FAT_CreateDirectory(dir, name.c_str(), &sub) != FAT_OK) {
        return false;
      }
      bool ok = CopyTree(sub, entry.path());
      FAT_CloseDirectory(sub);
      if (!ok) {
        return false;
      }
    } else if (!CopyIn(dir, entry.path(), name)) {
      fprintf(stderr, "bench_floppy: copying %s failed\n", entry.path().c_str());
      return false;
    }
  }
  return true;
}

bool BuildHere(const std::string &image, const fs::path &src) {
  FATDevice *device = nullptr;
  FATVolume *volume = nullptr;
  FATDirectory *root = nullptr;
  if (FATDevFileIO_Open(image.c_str(), &device) != FAT_OK ||
      FAT_FormatVolume(device, kFATFloppy144Size, 0, &volume) != FAT_OK) {
    return false;
  }
  bool ok = FAT_SkipVolumeBoot(volume) == FAT_OK &&
            FAT_OpenRootDirectory(volume, &root) == FAT_OK && CopyTree(root, src);
  if (root != nullptr) {
    FAT_CloseDirectory(root);
  }
  return FAT_CloseVolume(volume) == FAT_OK && ok;
}

bool BuildWithMtools(const std::string &image, const fs::path &src) {
  fs::remove(image);
  if (Run({"mformat", "-f", "1440", "-C", "-i", image, "::"}) != 0) {
    return false;
  }
  std::vector<std::string> copy = {"mcopy", "-s", "-i", image};
  for (const auto &entry : fs::directory_iterator(src)) {
    copy.push_back(entry.path().string());
  }
  copy.push_back("::");
  return Run(copy) == 0;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

int main(int argc, char **argv) {
  int runs = argc > 1 ? std::max(1, atoi(argv[1])) : 20;
  setenv("MTOOLS_SKIP_CHECK", "1", 1);
  char tmpl[] = "/tmp/bench-floppy-XXXXXX";
  if (mkdtemp(tmpl) == nullptr) {
    perror("mkdtemp");
    return 1;
  }
  fs::path tmp = tmpl;
  fs::path src = tmp / "payload";
  auto files = Payload();
  size_t total = 0;
  for (const auto &[path, size] : files) {
    total += size;
  }
  if (!WriteHostTree(src, files)) {
    fprintf(stderr, "bench_floppy: cannot write the payload under %s\n", tmp.c_str());
    fs::remove_all(tmp);
    return 1;
  }
  printf("payload: %zu files, %zu bytes (%.2f MiB)\n", files.size(), total,
         static_cast<double>(total) / (1 << 20));

  std::string ours = (tmp / "here.flp").string(), theirs = (tmp / "mtools.flp").string();
  std::vector<double> here, mtools;
  for (int i = 0; i < runs; i++) {
    Clock::time_point t0 = Clock::now();
    if (!BuildHere(ours, src)) {
      fprintf(stderr, "bench_floppy: building the floppy failed\n");
      fs::remove_all(tmp);
      return 1;
    }
    Clock::time_point t1 = Clock::now();
    if (!BuildWithMtools(theirs, src)) {
      fprintf(stderr, "bench_floppy: mformat or mcopy failed\n");
      fs::remove_all(tmp);
      return 1;
    }
    Clock::time_point t2 = Clock::now();
    here.push_back(Millis(t1 - t0));
    mtools.push_back(Millis(t2 - t1));
  }

  // The floppy must be good, not just fast.
  bool clean = Run({"fsck.fat", "-n", ours}) == 0;
  fs::path out = tmp / "out";
  fs::create_directory(out);
  bool same = Run({"mcopy", "-s", "-n", "-i", ours, "::/", out.string() + "/"}) == 0 &&
              Run({"diff", "-r", src.string(), out.string()}) == 0;

  double a = Median(here), b = Median(mtools);
  printf("this code (format + %zu copies in 512-byte writes): %7.2f ms median of %d\n",
         files.size(), a, runs);
  printf("mtools (mformat -f 1440 + mcopy -s):               %7.2f ms median of %d\n", b, runs);
  printf("ratio mtools / this code: %.2f\n", b / a);
  printf("image: fsck.fat -n %s, mcopy -s read-back %s\n", clean ? "clean" : "FOUND PROBLEMS",
         same ? "identical" : "DIFFERS");
  printf("goal (faster than mtools): %s\n", a < b ? "met" : "MISSED");
  fs::remove_all(tmp);
  return clean && same ? 0 : 1;
}
