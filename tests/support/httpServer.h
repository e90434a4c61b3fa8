// A real web server on 127.0.0.1 for the suites that fetch over HTTP:
// lighttpd serving a directory, or tests/scripts/faulty_http.py serving it
// with the faults its paths pick. Started on a free port, ready when the
// constructor returns, stopped by the destructor.
#ifndef GUESTPREP_TESTS_SUPPORT_HTTPSERVER_H
#define GUESTPREP_TESTS_SUPPORT_HTTPSERVER_H

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/testSupport.h"

namespace testing_support {

enum class HttpServerKind {
  kLighttpd,  // its access log lists each request with the client's port
  kFaulty,    // faulty_http.py: /MODE/NAME, /status/CODE, /loop, /redirect?to=
};

struct HttpServerOptions {
  // faulty_http.py only: serve HTTPS with this certificate and key.
  std::filesystem::path tlsCert;
  std::filesystem::path tlsKey;
};

class HttpServer {
 public:
  HttpServer(HttpServerKind kind, const std::filesystem::path &root,
             const HttpServerOptions &options = {});
  ~HttpServer();
  HttpServer(const HttpServer &) = delete;
  HttpServer &operator=(const HttpServer &) = delete;

  // Whether the server is up; if not, why (a missing program names
  // scripts/setup).
  bool ok() const { return pid_ > 0; }
  const std::string &error() const { return error_; }

  int port() const { return port_; }
  // "http://127.0.0.1:PORT" (https with a certificate) followed by path.
  std::string Url(const std::string &path) const;

  // Stops the server now (idempotent), so its logs are complete.
  void Stop();
  // lighttpd's access log, one line per request: "CLIENTPORT STATUS REQUEST".
  // Complete after Stop().
  std::vector<std::string> AccessLog() const;
  // What the server wrote on its standard output and error.
  std::string Output() const;

 private:
  bool Start(HttpServerKind kind, const std::filesystem::path &root,
             const HttpServerOptions &options);

  TempDir dir_;  // configuration and logs
  std::string scheme_ = "http";
  int port_ = 0;
  pid_t pid_ = -1;
  std::string error_;
};

// A free TCP port on 127.0.0.1 at the time of the call (0 when none).
int FreeLoopbackPort();

}  // namespace testing_support

#endif
