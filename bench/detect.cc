// Detection speed: Guess_Guest on a Red Hat family image padded to DVD size,
// per call (cold and warm) with the bytes actually read from the image, and
// whole-process time of `guestprep detect` beside a well-known open detector
// (osinfo-detect) on the same image.
//
// usage: bench_detect [IMAGE]   (default: tests/data/media/centos7 mastered
//                                with xorriso, then extended to 4.7 GB sparse)
//        bench_detect --corpus  (every row of tests/data/media/expected.tsv,
//                                mastered as the tests do, padded to 4.7 GB:
//                                per-image warm time and bytes read)
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
#include <string>
#include <vector>

#include "bench/benchSupport.h"
#include "guestprep/guess.h"
#include "tests/guessGuest/mediaCorpus.h"

using bench::Run;

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

struct Measure {
  GuessResult result;
  std::string key;
  double medianUs;
  uint64_t bytes;
};

Measure MeasureImage(const std::string &image, int calls) {
  GuessInfo info;
  Measure m{Guess_Guest(image.c_str(), nullptr, &info), "", 0, 0};
  m.key = info.osKey != nullptr ? info.osKey : "-";
  std::vector<double> times;
  uint64_t before = BytesRead();
  for (int i = 0; i < calls; ++i) {
    auto t0 = Clock::now();
    Guess_Guest(image.c_str(), nullptr, &info);
    times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
  }
  m.bytes = (BytesRead() - before) / calls;
  m.medianUs = Median(times);
  return m;
}

// Every row of tests/data/media/expected.tsv, mastered as the detection
// tests master it and padded to DVD size; a key other than the row's is
// reported (the tests say which field differs).
int Corpus() {
  namespace fs = std::filesystem;
  std::string error;
  const std::vector<media_corpus::Row> rows =
      media_corpus::ReadExpected(GUESTPREP_TEST_DATA, &error);
  if (!error.empty()) {
    fprintf(stderr, "%s", error.c_str());
    return 1;
  }
  const fs::path dir = fs::temp_directory_path() / "guestprep-bench-corpus";
  fs::create_directories(dir);
  std::vector<double> medians;
  std::vector<uint64_t> bytes;
  double worstUs = 0;
  uint64_t worstBytes = 0;
  int wrong = 0;
  printf("%-44s %-22s %10s %10s\n", "tree.medium", "osKey", "warm us", "bytes");
  for (const media_corpus::Row &row : rows) {
    const std::string name = row.tree + "." + media_corpus::MediumName(row.medium);
    const std::string image = (dir / (name + ".iso")).string();
    const std::string source = std::string(GUESTPREP_TEST_DATA) + "/media/" + row.tree;
    if (Run(media_corpus::MasterArgv(source, image, row.medium, row.volumeId)) != 0 ||
        truncate(image.c_str(), 4700LL * 1000 * 1000) != 0) {
      printf("%-44s (mastering failed)\n", name.c_str());
      continue;
    }
    Measure m = MeasureImage(image, 50);
    bool ok = m.key == (row.osKey.empty() ? "-" : row.osKey);
    wrong += !ok;
    printf("%-44s %-22s %10.0f %10llu%s\n", name.c_str(), m.key.c_str(), m.medianUs,
           static_cast<unsigned long long>(m.bytes), ok ? "" : "  (expected another key)");
    medians.push_back(m.medianUs);
    bytes.push_back(m.bytes);
    worstUs = std::max(worstUs, m.medianUs);
    worstBytes = std::max(worstBytes, m.bytes);
    unlink(image.c_str());
  }
  std::vector<double> byteValues(bytes.begin(), bytes.end());
  printf(
      "\n%zu images: warm time median %.0f us, worst %.0f us; bytes read median %.0f, worst "
      "%llu; %d with another key\n",
      medians.size(), Median(medians), worstUs, Median(byteValues),
      static_cast<unsigned long long>(worstBytes), wrong);
  return wrong == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  std::string image;
  if (argc > 1 && std::string(argv[1]) == "--corpus") {
    return Corpus();
  }
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
