// Verified reads of a 1 GiB tools image: every block checked against its
// SHA-256 hash on the way out, compared in the same run with programs that
// only hash the same file.
//
// Local: the image read through the verified read callback in 1 MiB
// reads, against "sha256sum" and "openssl dgst -sha256" of the same file
// (all from the page cache). Goal: at least 0.9 of openssl's throughput.
// HTTP: the same image from lighttpd on 127.0.0.1 through the verified HTTP
// reader, against "curl -o /dev/null" of the same URL. Goal: at least 0.8
// of curl's throughput; also the bytes fetched per verified byte, and, for
// scale, curl piped into "openssl dgst -sha256" (fetching and hashing in
// two processes at once).
//
// Usage: bench_hashread [--local-only]
// The image (real pseudo-random bytes, no holes) and its hash data are
// written once beside this program under bench-hashread/ and reused; the
// hash data is signed by a key made here, and read as trusted (the
// maker's certificates are not needed to measure reading).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "bench/benchSupport.h"
#include "guestprep/toolsiso.h"
#include "lib/toolsiso/toolsIsoHash.h"
#include "lib/toolsiso/toolsIsoHttpReader.h"
#include "platform/file/fileIO.h"

namespace fs = std::filesystem;

namespace {

constexpr uint64_t kImageSize = 1ull << 30;
constexpr size_t kReadSize = 1 << 20;
constexpr int kRounds = 3;

using Clock = std::chrono::steady_clock;

double Seconds(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

double MiBps(uint64_t bytes, double seconds) {
  return static_cast<double>(bytes) / (1 << 20) / seconds;
}

fs::path BenchDir() {
  return fs::read_symlink("/proc/self/exe").parent_path() / "bench-hashread";
}

// 1 GiB of xorshift output, written once.
bool MakeImage(const fs::path &image) {
  if (fs::exists(image) && fs::file_size(image) == kImageSize) {
    return true;
  }
  struct statvfs st;
  if (statvfs(image.parent_path().c_str(), &st) != 0 ||
      static_cast<uint64_t>(st.f_bavail) * st.f_frsize < kImageSize + (256ull << 20)) {
    fprintf(stderr, "bench_hashread: not enough free space for a 1 GiB image in %s\n",
            image.parent_path().c_str());
    return false;
  }
  fprintf(stderr, "bench_hashread: writing a 1 GiB image...\n");
  const fs::path tmp = image.string() + ".tmp";
  std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
  std::vector<uint64_t> chunk(kReadSize / sizeof(uint64_t));
  uint64_t x = 0x9e3779b97f4a7c15ull;
  for (uint64_t done = 0; done < kImageSize && out; done += kReadSize) {
    for (uint64_t &word : chunk) {
      x ^= x << 13;
      x ^= x >> 7;
      x ^= x << 17;
      word = x;
    }
    out.write(reinterpret_cast<const char *>(chunk.data()), kReadSize);
  }
  out.close();
  if (!out) {
    fprintf(stderr, "bench_hashread: cannot write %s\n", tmp.c_str());
    return false;
  }
  fs::rename(tmp, image);
  return true;
}

bool MakeHashData(const fs::path &image) {
  const fs::path dir = image.parent_path();
  if (fs::exists(image.string() + ".sha") && fs::exists(image.string() + ".sig") &&
      fs::last_write_time(image.string() + ".sha") >= fs::last_write_time(image)) {
    return true;
  }
  if (!fs::exists(dir / "key.pem") &&
      bench::Run({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout",
                  (dir / "key.pem").string(), "-out", (dir / "cert.pem").string(), "-subj",
                  "/CN=bench_hashread", "-days", "3650"}) != 0) {
    fprintf(stderr, "bench_hashread: openssl could not make a key\n");
    return false;
  }
  fprintf(stderr, "bench_hashread: writing the hash data...\n");
  if (bench::Run({GUESTPREP_CLI, "tools", "hashdata", image.string(), "--key",
                  (dir / "key.pem").string(), "--cert", (dir / "cert.pem").string()}) != 0) {
    fprintf(stderr, "bench_hashread: guestprep tools hashdata failed\n");
    return false;
  }
  return true;
}

// The image's hash data, parsed (its signature is not what is measured).
ToolsIsoHashInfo *LoadHashInfo(const fs::path &image) {
  uint8_t *buffer = nullptr;
  size_t size = 0;
  if (!ToolsISO_ReadFile((image.string() + ".sha").c_str(), &buffer, &size)) {
    return nullptr;
  }
  ToolsIsoHashInfo *info = ToolsISO_ParseHashData(buffer, size);
  if (info == nullptr) {
    free(buffer);
  }
  return info;
}

// Seconds for one run of a program over the image.
double TimeProgram(const std::vector<std::string> &argv) {
  const auto start = Clock::now();
  const int rc = bench::Run(argv);
  const double s = Seconds(Clock::now() - start);
  if (rc != 0) {
    fprintf(stderr, "bench_hashread: %s exited with %d\n", argv[0].c_str(), rc);
    return -1;
  }
  return s;
}

// Seconds to read the whole image through a read callback, 1 MiB at a
// time; negative when a read fails.
template <typename ReadFn>
double TimeVerifiedRead(ReadFn read, void *handle, std::vector<uint8_t> *buffer) {
  const auto start = Clock::now();
  for (uint64_t offset = 0; offset < kImageSize; offset += kReadSize) {
    if (!read(handle, buffer->data(), kReadSize, offset)) {
      fprintf(stderr, "bench_hashread: verified read failed at %llu\n",
              static_cast<unsigned long long>(offset));
      return -1;
    }
  }
  return Seconds(Clock::now() - start);
}

double Best(const std::vector<double> &runs) {
  double best = -1;
  for (double s : runs) {
    if (s < 0) {
      return -1;
    }
    best = best < 0 ? s : std::min(best, s);
  }
  return best;
}

void Report(const char *what, double seconds) {
  printf("  %-34s %8.3f s  %8.0f MiB/s\n", what, seconds, MiBps(kImageSize, seconds));
}

bool RunLocal(const fs::path &image) {
  // Warm the page cache so every reader reads from memory.
  bench::Run({"cat", image.string()});
  std::vector<double> verified, sha256sum, openssl;
  std::vector<uint8_t> buffer(kReadSize);
  for (int round = 0; round < kRounds; ++round) {
    gp::ScopedFileIO file;
    if (FileIO_Open(&file.fd, image.c_str(), FILEIO_OPEN_ACCESS_READ, FILEIO_OPEN) !=
        FILEIO_SUCCESS) {
      fprintf(stderr, "bench_hashread: cannot open %s\n", image.c_str());
      return false;
    }
    ToolsIsoHashInfo *info = LoadHashInfo(image);
    if (info == nullptr) {
      fprintf(stderr, "bench_hashread: the hash data does not load\n");
      return false;
    }
    ToolsIsoLocalFile *handle = gp::AdoptToolsIsoLocalFile(&file.fd, kImageSize, info);
    verified.push_back(TimeVerifiedRead(ToolsISO_LocalFileIsoReadCB, handle, &buffer));
    ToolsISO_LocalFileCloseCB(handle);
    sha256sum.push_back(TimeProgram({"sha256sum", image.string()}));
    openssl.push_back(TimeProgram({"openssl", "dgst", "-sha256", image.string()}));
  }
  const double v = Best(verified), s = Best(sha256sum), o = Best(openssl);
  if (v < 0 || s < 0 || o < 0) {
    return false;
  }
  printf("local, 1 GiB from the page cache (best of %d):\n", kRounds);
  Report("verified read (4096-byte blocks)", v);
  Report("sha256sum", s);
  Report("openssl dgst -sha256", o);
  printf("  ratio to openssl dgst: %.2f (goal >= 0.90), to sha256sum: %.2f\n", o / v, s / v);
  return true;
}

// ---- HTTP ----

int FreePort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  int port = 0;
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) == 0) {
    port = ntohs(addr.sin_port);
  }
  if (fd >= 0) {
    close(fd);
  }
  return port;
}

bool Accepts(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
  if (fd >= 0) {
    close(fd);
  }
  return ok;
}

// lighttpd serving dir on 127.0.0.1, stopped when this goes.
class Lighttpd {
 public:
  explicit Lighttpd(const fs::path &dir) {
    port_ = FreePort();
    const fs::path conf = dir / "lighttpd.conf";
    std::ofstream(conf) << "server.document-root = \"" << dir.string() << "\"\n"
                        << "server.bind = \"127.0.0.1\"\nserver.port = " << port_ << "\n"
                        << "server.errorlog = \"" << (dir / "lighttpd.log").string() << "\"\n"
                        << "server.network-backend = \"sendfile\"\n";
    std::vector<std::string> argv = {"lighttpd", "-D", "-i", "120", "-f", conf.string()};
    for (const char *candidate : {"/usr/sbin/lighttpd", "/usr/bin/lighttpd"}) {
      if (access(candidate, X_OK) == 0) {
        argv[0] = candidate;
      }
    }
    std::vector<char *> args;
    for (std::string &a : argv) {
      args.push_back(a.data());
    }
    args.push_back(nullptr);
    if (port_ == 0 || posix_spawnp(&pid_, args[0], nullptr, nullptr, args.data(), environ) != 0) {
      pid_ = -1;
      return;
    }
    for (int i = 0; i < 250 && !Accepts(port_); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  ~Lighttpd() {
    if (pid_ > 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
  }
  bool ok() const { return pid_ > 0 && Accepts(port_); }
  std::string Url(const std::string &name) const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/" + name;
  }

 private:
  int port_ = 0;
  pid_t pid_ = -1;
};

bool RunHttp(const fs::path &image) {
  Lighttpd server(image.parent_path());
  if (!server.ok()) {
    fprintf(stderr, "bench_hashread: lighttpd did not start (scripts/setup installs it)\n");
    return false;
  }
  const std::string url = server.Url(image.filename().string());
  std::vector<double> verified, curl, pipeline;
  std::vector<uint8_t> buffer(kReadSize);
  ToolsIsoHttpReaderStats stats{};
  for (int round = 0; round < kRounds; ++round) {
    ToolsIsoHttpReader *reader = nullptr;
    if (ToolsISO_HttpReaderOpenTrusted(url.c_str(), LoadHashInfo(image), &reader) !=
        TOOLSISO_OPEN_OK) {
      fprintf(stderr, "bench_hashread: cannot open %s\n", url.c_str());
      return false;
    }
    verified.push_back(TimeVerifiedRead(ToolsISO_HttpReaderIsoReadCB, reader, &buffer));
    ToolsISO_HttpReaderGetStats(reader, &stats);
    ToolsISO_HttpReaderCloseCB(reader);
    curl.push_back(TimeProgram({"curl", "-s", "-f", "-o", "/dev/null", url}));
    pipeline.push_back(TimeProgram(
        {"sh", "-c", "curl -s -f \"$1\" | openssl dgst -sha256 >/dev/null", "sh", url}));
  }
  const double v = Best(verified), c = Best(curl), p = Best(pipeline);
  if (v < 0 || c < 0 || p < 0) {
    return false;
  }
  printf("HTTP, 1 GiB from lighttpd on 127.0.0.1 (best of %d):\n", kRounds);
  Report("verified HTTP reader", v);
  Report("curl -o /dev/null", c);
  Report("curl | openssl dgst -sha256", p);
  printf("  ratio to curl: %.2f (goal >= 0.80), to curl | openssl dgst: %.2f\n", c / v, p / v);
  printf("  image bytes fetched per verified byte: %.4f (%llu requests)\n",
         static_cast<double>(stats.bytesFetched) / static_cast<double>(stats.bytesVerified),
         static_cast<unsigned long long>(stats.requests));
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  const bool localOnly = argc > 1 && strcmp(argv[1], "--local-only") == 0;
  const fs::path dir = BenchDir();
  fs::create_directories(dir);
  const fs::path image = dir / "image.iso";
  if (!MakeImage(image) || !MakeHashData(image) || !RunLocal(image)) {
    return 1;
  }
  if (!localOnly && !RunHttp(image)) {
    return 1;
  }
  return 0;
}
