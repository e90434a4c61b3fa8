#include "support/testSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "guestprep/guess.h"
#include "platform/log/log.h"

extern char **environ;

namespace testing_support {

TempDir::TempDir() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "guestprep-test-XXXXXX").string();
  if (mkdtemp(tmpl.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed");
  }
  path_ = tmpl;
}

TempDir::~TempDir() {
  std::error_code ec;
  // Tests may leave read-only directories behind; make them removable.
  for (auto it = std::filesystem::recursive_directory_iterator(path_, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    if (it->is_directory(ec) && !it->is_symlink(ec)) {
      std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                   std::filesystem::perm_options::add, ec);
    }
  }
  std::filesystem::remove_all(path_, ec);
}

LogCapture::LogCapture() {
  Log_SetSink(&LogCapture::Sink, this, &prevFn_, &prevCtx_);
}

LogCapture::~LogCapture() {
  Log_SetSink(prevFn_, prevCtx_);
}

void LogCapture::Sink(void *ctx, int, const char *text, size_t len) {
  static_cast<LogCapture *>(ctx)->lines_.emplace_back(text, len);
}

std::string LogCapture::all() const {
  std::string out;
  for (const std::string &line : lines_) {
    out += line;
    if (out.empty() || out.back() != '\n') {
      out += '\n';
    }
  }
  return out;
}

bool LogCapture::contains(const std::string &needle) const {
  for (const std::string &line : lines_) {
    if (line.find(needle) != std::string::npos) {
      return true;
    }
  }
  return false;
}

CommandResult RunCommand(const std::vector<std::string> &argv, int timeLimit,
                         const std::string &stopAt) {
  CommandResult result;
  int pipefd[2];
  if (pipe(pipefd) != 0) {
    return result;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipefd[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, pipefd[1], STDERR_FILENO);
  posix_spawn_file_actions_addclose(&actions, pipefd[0]);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  std::vector<char *> args;
  for (const std::string &a : argv) {
    args.push_back(const_cast<char *>(a.c_str()));
  }
  args.push_back(nullptr);
  const auto start = std::chrono::steady_clock::now();
  const auto deadline = start + std::chrono::seconds(timeLimit);
  pid_t pid;
  int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipefd[1]);
  if (rc != 0) {
    close(pipefd[0]);
    result.output = "spawn failed: " + argv[0];
    return result;
  }
  for (;;) {
    if (timeLimit > 0) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd p{pipefd[0], POLLIN, 0};
      if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) == 0) {
        result.timedOut = true;
        break;
      }
    }
    char buf[4096];
    const ssize_t n = read(pipefd[0], buf, sizeof buf);
    if (n <= 0) {
      break;
    }
    result.output.append(buf, static_cast<size_t>(n));
    if (!stopAt.empty() && result.output.find(stopAt) != std::string::npos) {
      result.stopped = true;
      break;
    }
  }
  close(pipefd[0]);
  if (result.timedOut || result.stopped) {
    kill(pid, SIGKILL);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return result;
}

CommandResult RunMasteringTool(const std::vector<std::string> &argv) {
  CommandResult result;
  for (int attempt = 0; attempt < 3; ++attempt) {
    result = RunCommand(argv);
    if (result.exitCode < 128) {
      break;
    }
  }
  return result;
}

bool HaveTool(const std::string &name) {
  const char *path = getenv("PATH");
  std::stringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    if (access((std::filesystem::path(dir) / name).c_str(), X_OK) == 0) {
      return true;
    }
  }
  return false;
}

void WriteFile(const std::filesystem::path &path, const std::string &contents) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  if (!out) {
    throw std::runtime_error("cannot write " + path.string());
  }
}

std::string ReadFile(const std::filesystem::path &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

unsigned VersionByName(const std::string &name) {
  for (GuessVersion v = 0; v < GUESS_VERSION_DUMMY_LAST; ++v) {
    if ("GUESS_VERSION_" + name == SUB_NAMES[v]) {
      return v;
    }
  }
  ADD_FAILURE() << "no version " << name;
  return GUESS_VERSION_UNKNOWN;
}

std::filesystem::path DataDir() {
  return GUESTPREP_TEST_DATA;
}

std::string Take(char *s) {
  std::string out = s == nullptr ? "<null>" : s;
  free(s);
  return out;
}

void PrintTo(const TsvRow &row, std::ostream *os) {
  *os << "line " << row.line;
}

std::vector<TsvRow> ReadTsv(const std::string &path, size_t columns) {
  std::ifstream in(DataDir() / path);
  std::vector<TsvRow> rows;
  std::string text;
  for (int line = 1; std::getline(in, text); ++line) {
    if (text.empty() || text[0] == '#') {
      continue;
    }
    TsvRow row{line, {}};
    std::stringstream cells(text);
    for (std::string cell; std::getline(cells, cell, '\t');) {
      row.cells.push_back(cell == "\"\"" ? "" : cell);
    }
    row.cells.resize(columns);
    rows.push_back(row);
  }
  return rows;
}

std::string TsvRowName(const TsvRow &row) {
  std::string name = "L" + std::to_string(row.line) + "_" + row.cells[0];
  for (char &c : name) {
    c = isalnum(static_cast<unsigned char>(c)) ? c : '_';
  }
  return name.substr(0, 60);
}

std::vector<std::string> Split(const std::string &text, const std::string &sep) {
  std::vector<std::string> out;
  for (size_t at = 0; at <= text.size();) {
    const size_t end = std::min(text.find(sep, at), text.size());
    if (end > at) {
      out.push_back(text.substr(at, end - at));
    }
    at = end + sep.size();
  }
  return out;
}

std::string Replace(std::string text, const std::string &from, const std::string &to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

std::string Lower(std::string text) {
  for (char &c : text) {
    c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  }
  return text;
}

std::string Hex(const std::string &bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) {
    out += kDigits[c >> 4];
    out += kDigits[c & 15];
  }
  return out;
}

std::string Pattern(size_t size, unsigned seed) {
  std::string s(size, '\0');
  uint32_t x = seed * 2654435761u + 1;
  for (char &c : s) {
    x = x * 1103515245u + 12345u;
    c = static_cast<char>(x >> 16);
  }
  return s;
}

Floppy::Floppy(const std::filesystem::path &path, bool format) {
  FATDevice *device = nullptr;
  error = FATDevFileIO_Open(path.c_str(), &device);
  if (error == FAT_OK) {
    error = format ? FAT_FormatVolume(device, kFATFloppy144Size, 0, &volume)
                   : FAT_OpenVolume(device, &volume);
  }
  if (error == FAT_OK) {
    error = FAT_SkipVolumeBoot(volume);
  }
  if (error == FAT_OK) {
    error = FAT_OpenRootDirectory(volume, &root);
  }
}

Floppy::~Floppy() {
  if (root != nullptr) {
    EXPECT_EQ(FAT_OK, FAT_CloseDirectory(root));
  }
  if (volume != nullptr) {
    EXPECT_EQ(FAT_OK, FAT_CloseVolume(volume));
  }
}

const char *const kHostIsolinuxBin = "/usr/lib/ISOLINUX/isolinux.bin";
const char *const kHostLdlinux = "/usr/lib/syslinux/modules/bios/ldlinux.c32";

std::string IsolinuxFile(const std::string &name) {
  const size_t size = name == "edge/entry-before-4k.cfg"  ? 3971
                      : name == "edge/entry-after-4k.cfg" ? 4480
                                                          : 0;
  if (size == 0) {
    return ReadFile(DataDir() / "isolinux" / name);
  }
  const std::string entry = "label linux\n  kernel vmlinuz\n  append initrd=initrd.img\n";
  std::string text = "default linux\n";
  while (size - text.size() - entry.size() > 61) {
    text += "# " + std::string(57, '.') + "\n";
  }
  return text + "#" + std::string(size - text.size() - entry.size() - 2, '.') + "\n" + entry;
}

std::map<std::string, std::string> BuildMedium(
    const std::filesystem::path &root, const std::string &files,
    const std::map<std::string, std::filesystem::path> &sources) {
  std::map<std::string, std::string> contents;
  std::filesystem::create_directories(root);
  for (const std::string &entry : Split(files, ",")) {
    const size_t from = entry.find_first_of("<=");
    const std::filesystem::path path = root / entry.substr(0, from);
    const std::string base = path.filename().string(), source = entry.substr(from + 1);
    std::string data = from == std::string::npos ? entry
                       : entry[from] == '<'      ? IsolinuxFile(source)
                                                 : ReadFile(sources.at(source));
    if (from == std::string::npos && (base == "isolinux.bin" || base == "ldlinux.c32")) {
      data = ReadFile(base == "isolinux.bin" ? kHostIsolinuxBin : kHostLdlinux);
    }
    WriteFile(path, data);
    contents[base] = data;
  }
  return contents;
}

std::string FsckProblems(const std::filesystem::path &image) {
  CommandResult r = RunCommand({"fsck.fat", "-n", image.string()});
  return r.exitCode == 0 ? "" : r.output;
}

std::string MtoolsRead(const std::filesystem::path &image, const std::string &name) {
  // Images made here carry no geometry mtools would check; names go through
  // the locale's character set.
  setenv("MTOOLS_SKIP_CHECK", "1", 1);
  setenv("LC_ALL", "C.UTF-8", 1);
  CommandResult r = RunCommand({"mtype", "-i", image.string(), "::" + name});
  return r.exitCode == 0 ? r.output : "<mtype failed: " + r.output + ">";
}

}  // namespace testing_support
