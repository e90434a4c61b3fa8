// Detection on the images built to cost far more than any image should:
// per attack, the image size, the bytes detection read, the time of one
// detection (median of several) and the peak memory of a process that does
// only that detection. The goal: under a second, 64 MiB and a few MiB read
// for any image of a few megabytes.
//
// usage: bench_bounded     (bench_bounded --one N runs attack N alone)
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <span>
#include <string>
#include <vector>

#include "lib/guessGuest/guessDetect.h"
#include "platform/image/imageReader.h"
#include "support/isoWriter.h"

namespace {

using namespace testing_support::attacks;

struct Attack {
  const char *name;
  std::string (*build)();
};
const Attack kAttacks[] = {
    {"aliased multi-extent parts", AliasedParts},
    {"200,000-entry root", WideRoot},
    {"damaged records first", DamagedFirst},
};

uint64_t Detect(const std::string &image) {
  gp::CountingImageReader counter(gp::MakeMemoryImageReader(
      std::span(reinterpret_cast<const uint8_t *>(image.data()), image.size())));
  GuessInfo info;
  guess::DetectImage(counter, &info, nullptr);
  return counter.bytes();
}

// Peak resident memory, in KiB, of a fresh process that builds the image
// and runs one detection (a forked child would count the parent's pages).
long PeakKiB(size_t index) {
  pid_t pid = fork();
  if (pid == 0) {
    std::string arg = std::to_string(index);
    execl("/proc/self/exe", "bench_bounded", "--one", arg.c_str(), static_cast<char *>(nullptr));
    _exit(127);
  }
  int status = 0;
  struct rusage usage {};
  wait4(pid, &status, 0, &usage);
  return usage.ru_maxrss;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 3 && std::string(argv[1]) == "--one") {
    size_t index = std::stoul(argv[2]);
    if (index < std::size(kAttacks)) {  // past the end: the process alone, for the baseline
      Detect(kAttacks[index].build());
    }
    return 0;
  }
  printf("%-28s %10s %10s %10s %10s\n", "attack", "image KiB", "read KiB", "ms", "peak MiB");
  for (size_t a = 0; a < std::size(kAttacks); ++a) {
    const Attack &attack = kAttacks[a];
    const std::string image = attack.build();
    std::vector<double> ms;
    uint64_t bytes = 0;
    for (int i = 0; i < 5; ++i) {
      auto start = std::chrono::steady_clock::now();
      bytes = Detect(image);
      ms.push_back(
          std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
              .count());
    }
    std::sort(ms.begin(), ms.end());
    // The image itself is in the child's memory too; it is counted.
    printf("%-28s %10zu %10llu %10.1f %10.1f\n", attack.name, image.size() / 1024,
           static_cast<unsigned long long>(bytes / 1024), ms[ms.size() / 2], PeakKiB(a) / 1024.0);
  }
  printf("%-28s %10s %10s %10s %10.1f\n", "(process baseline)", "-", "-", "-",
         PeakKiB(std::size(kAttacks)) / 1024.0);
  return 0;
}
