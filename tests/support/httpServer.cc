#include "support/httpServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

extern char **environ;

namespace testing_support {
namespace {

// How long a server may take to accept its first connection; python's
// start-up on a loaded machine is the slow case.
constexpr auto kStartLimit = std::chrono::seconds(20);
// A port found free can be taken by someone else before the server binds it.
constexpr int kStartAttempts = 3;

// lighttpd lives in sbin, which a plain user's PATH may not hold.
std::string FindLighttpd() {
  if (HaveTool("lighttpd")) {
    return "lighttpd";
  }
  for (const char *path : {"/usr/sbin/lighttpd", "/usr/local/sbin/lighttpd"}) {
    if (access(path, X_OK) == 0) {
      return path;
    }
  }
  return "";
}

bool Accepts(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return false;
  }
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
  close(fd);
  return ok;
}

pid_t Spawn(const std::vector<std::string> &argv, const std::filesystem::path &output) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(),
                                   O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  std::vector<char *> args;
  for (const std::string &a : argv) {
    args.push_back(const_cast<char *>(a.c_str()));
  }
  args.push_back(nullptr);
  pid_t pid = -1;
  int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return rc == 0 ? pid : -1;
}

// Ends the server: politely first, so lighttpd writes out its access log.
void Terminate(pid_t pid) {
  kill(pid, SIGTERM);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

std::string LighttpdConfig(const std::filesystem::path &root, const std::filesystem::path &dir,
                           int port) {
  return "server.document-root = \"" + root.string() +
         "\"\n"
         "server.bind = \"127.0.0.1\"\n"
         "server.port = " +
         std::to_string(port) +
         "\n"
         "server.errorlog = \"" +
         (dir / "error.log").string() +
         "\"\n"
         "server.modules = ( \"mod_accesslog\" )\n"
         "accesslog.filename = \"" +
         (dir / "access.log").string() +
         "\"\n"
         "accesslog.format = \"%{remote}p %>s %r\"\n"
         "mimetype.assign = ( \"\" => \"application/octet-stream\" )\n";
}

}  // namespace

int FreeLoopbackPort() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return 0;
  }
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = 0;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) == 0) {
    port = ntohs(addr.sin_port);
  }
  close(fd);
  return port;
}

HttpServer::HttpServer(HttpServerKind kind, const std::filesystem::path &root,
                       const HttpServerOptions &options) {
  if (!options.tlsCert.empty()) {
    scheme_ = "https";
  }
  for (int attempt = 0; attempt < kStartAttempts; attempt++) {
    if (Start(kind, root, options)) {
      return;
    }
  }
}

HttpServer::~HttpServer() {
  Stop();
}

bool HttpServer::Start(HttpServerKind kind, const std::filesystem::path &root,
                       const HttpServerOptions &options) {
  port_ = FreeLoopbackPort();
  if (port_ == 0) {
    error_ = "no free port on 127.0.0.1";
    return false;
  }
  std::vector<std::string> argv;
  if (kind == HttpServerKind::kLighttpd) {
    std::string lighttpd = FindLighttpd();
    if (lighttpd.empty()) {
      error_ = "lighttpd is not installed (scripts/setup installs it)";
      return false;
    }
    std::filesystem::path conf = dir_ / "lighttpd.conf";
    WriteFile(conf, LighttpdConfig(root, dir_.path(), port_));
    // -i: an orphaned server (its test crashed) stops once left idle.
    argv = {lighttpd, "-D", "-i", "300", "-f", conf.string()};
  } else {
    std::filesystem::path script = DataDir().parent_path() / "scripts" / "faulty_http.py";
    argv = {"python3", script.string(), "--port", std::to_string(port_), "--root", root.string()};
    if (!options.tlsCert.empty()) {
      argv.insert(argv.end(), {"--tls", options.tlsCert.string(), options.tlsKey.string()});
    }
  }
  pid_t pid = Spawn(argv, dir_ / "output.log");
  if (pid < 0) {
    error_ = "cannot start " + argv[0];
    return false;
  }
  const auto deadline = std::chrono::steady_clock::now() + kStartLimit;
  while (std::chrono::steady_clock::now() < deadline) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      error_ = argv[0] + " exited at start: " + Output();
      return false;
    }
    if (Accepts(port_)) {
      pid_ = pid;
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  Terminate(pid);
  error_ = argv[0] + " did not accept connections: " + Output();
  return false;
}

void HttpServer::Stop() {
  if (pid_ > 0) {
    Terminate(pid_);
    pid_ = -1;
  }
}

std::string HttpServer::Url(const std::string &path) const {
  return scheme_ + "://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<std::string> HttpServer::AccessLog() const {
  return Split(ReadFile(dir_ / "access.log"), "\n");
}

std::string HttpServer::Output() const {
  return ReadFile(dir_ / "output.log");
}

}  // namespace testing_support
