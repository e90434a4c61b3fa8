#include "support/testSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

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

}  // namespace testing_support
