// Detection speed: Guess_Guest on a Red Hat family image padded to DVD size,
// per call (cold and warm) with the bytes actually read from the image, and
// whole-process time of `guestprep detect` beside a well-known open detector
// (osinfo-detect) on the same image.
//
// usage: bench_detect [IMAGE]   (default: tests/data/media/centos7 mastered
//                                with xorriso, then extended to 4.7 GB sparse)
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "guestprep/guess.h"

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;

// Bytes this process has read through read()/pread() so far.
uint64_t BytesRead() {
  std::ifstream io("/proc/self/io");
  std::string key;
  uint64_t value = 0;
  while (io >> key >> value) {
    if (key == "rchar:") {
      return value;
    }
  }
  return 0;
}

int Run(const std::vector<std::string> &argv, bool quiet = true) {
  std::vector<char *> args;
  for (const std::string &a : argv) {
    args.push_back(const_cast<char *>(a.c_str()));
  }
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (quiet) {
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  }
  pid_t pid;
  int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    return -1;
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// Median wall time of a whole command, in milliseconds.
double CommandMs(const std::vector<std::string> &argv, int runs) {
  std::vector<double> times;
  for (int i = 0; i < runs; ++i) {
    auto start = Clock::now();
    if (Run(argv) < 0) {
      return -1;
    }
    times.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  }
  return Median(times);
}

}  // namespace

int main(int argc, char **argv) {
  std::string image;
  if (argc > 1) {
    image = argv[1];
  } else {
    image = "/tmp/guestprep-bench-detect.iso";
    std::string tree = std::string(GUESTPREP_TEST_DATA) + "/media/centos7";
    if (Run({"xorriso", "-as", "mkisofs", "-quiet", "-R", "-J", "-o", image, tree}) != 0 ||
        truncate(image.c_str(), 4700LL * 1000 * 1000) != 0) {
      fprintf(stderr, "cannot master the example image (is xorriso installed?)\n");
      return 1;
    }
  }

  GuessInfo info;
  uint64_t before = BytesRead();
  auto start = Clock::now();
  GuessResult result = Guess_Guest(image.c_str(), nullptr, &info);
  double coldUs = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
  uint64_t coldBytes = BytesRead() - before;
  if (result != GUESS_RECOGNIZED) {
    fprintf(stderr, "%s: not recognised (result %d)\n", image.c_str(), result);
    return 1;
  }

  const int kCalls = 500;
  std::vector<double> times;
  before = BytesRead();
  for (int i = 0; i < kCalls; ++i) {
    auto t0 = Clock::now();
    Guess_Guest(image.c_str(), nullptr, &info);
    times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
  }
  uint64_t warmBytes = (BytesRead() - before) / kCalls;
  std::sort(times.begin(), times.end());

  printf("image          %s (%s)\n", image.c_str(), info.osKey);
  printf("first call     %.0f us, %llu bytes read\n", coldUs,
         static_cast<unsigned long long>(coldBytes));
  printf("warm call      median %.0f us, p99 %.0f us, %llu bytes read per call (%d calls)\n",
         times[times.size() / 2], times[times.size() * 99 / 100],
         static_cast<unsigned long long>(warmBytes), kCalls);

  const int kRuns = 15;
  double ours = CommandMs({GUESTPREP_CLI, "detect", image}, kRuns);
  double peer = CommandMs({"osinfo-detect", image}, kRuns);
  printf("process        guestprep detect: %.1f ms (median of %d)\n", ours, kRuns);
  if (peer < 0) {
    printf("process        osinfo-detect: not installed, no comparison\n");
  } else {
    printf("process        osinfo-detect: %.1f ms (median of %d), ratio %.1fx\n", peer, kRuns,
           peer / ours);
  }
  return 0;
}
