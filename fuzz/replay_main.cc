// Runs a libFuzzer target without libFuzzer: every regular file of the
// directories (or the files) named on the command line, in name order, once.
// The normal test builds link each fuzz_*.cc with this, so past crashers and
// seeds are replayed deterministically under the ordinary compilers and
// sanitizers; a crash names the input it was running.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace fs = std::filesystem;

int main(int argc, char **argv) {
  if (LLVMFuzzerInitialize != nullptr) {
    LLVMFuzzerInitialize(&argc, &argv);
  }
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    std::error_code ec;
    if (fs::is_directory(argv[i], ec)) {
      for (const fs::directory_entry &entry : fs::directory_iterator(argv[i])) {
        if (entry.is_regular_file()) {
          inputs.push_back(entry.path());
        }
      }
    } else if (fs::is_regular_file(argv[i], ec)) {
      inputs.emplace_back(argv[i]);
    } else {
      fprintf(stderr, "replay: no such file or directory: %s\n", argv[i]);
      return 1;
    }
  }
  if (inputs.empty()) {
    // A seeds script that produced nothing must not pass as a clean replay.
    fprintf(stderr, "replay: no inputs\n");
    return 1;
  }
  std::sort(inputs.begin(), inputs.end());
  for (const fs::path &path : inputs) {
    printf("replay: %s\n", path.c_str());
    fflush(stdout);
    std::ifstream in(path, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) {
      fprintf(stderr, "replay: cannot read %s\n", path.c_str());
      return 1;
    }
    // A copy of exactly the input's size, so a sanitizer sees any read past it.
    std::unique_ptr<uint8_t[]> data(new uint8_t[bytes.size()]);
    std::copy(bytes.begin(), bytes.end(), data.get());
    LLVMFuzzerTestOneInput(data.get(), bytes.size());
  }
  printf("replay: %zu inputs\n", inputs.size());
  return 0;
}
