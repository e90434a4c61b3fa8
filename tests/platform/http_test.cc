// The HTTP client against real servers on 127.0.0.1: lighttpd for a good
// server, faulty_http.py for servers that break the rules.
#include "platform/http/http.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "support/httpServer.h"
#include "support/testSupport.h"

namespace {

using testing_support::HttpServer;
using testing_support::HttpServerKind;
using testing_support::TsvRow;

constexpr size_t kImageSize = 10000;
constexpr unsigned kImageSeed = 7;

const std::map<std::string, HttpResult> kResults = {
    {"OK", HTTP_OK},
    {"INVALID_ARG", HTTP_ERR_INVALID_ARG},
    {"CONNECT", HTTP_ERR_CONNECT},
    {"TIMEOUT", HTTP_ERR_TIMEOUT},
    {"NOT_FOUND", HTTP_ERR_NOT_FOUND},
    {"STATUS", HTTP_ERR_STATUS},
    {"SIZE", HTTP_ERR_SIZE},
    {"TRANSFER", HTTP_ERR_TRANSFER},
    {"TLS", HTTP_ERR_TLS},
};

HttpResult ResultByName(const std::string &name) {
  auto it = kResults.find(name);
  if (it == kResults.end()) {
    ADD_FAILURE() << "no result " << name;
    return HTTP_ERR_OTHER;
  }
  return it->second;
}

std::string Describe(HttpResult result) {
  return std::to_string(result) + " (" + Http_ResultString(result) + ")";
}

struct Connection {
  explicit Connection(const std::string &url, int retries = 0, int timeoutMs = 15000) {
    result = Http_Connect(url.c_str(), retries, timeoutMs, &conn);
  }
  ~Connection() { EXPECT_EQ(Http_Close(conn), HTTP_OK); }
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;
  HttpConnection *conn = nullptr;
  HttpResult result;
};

std::string Image() {
  return testing_support::Pattern(kImageSize, kImageSeed);
}

// The files every server here serves.
void WriteDocuments(const testing_support::TempDir &root) {
  testing_support::WriteFile(root / "image.iso", Image());
  testing_support::WriteFile(root / "one.bin", "x");
  testing_support::WriteFile(root / "empty.bin", "");
  testing_support::WriteFile(root / "big.bin", testing_support::Pattern(3 << 20, 11));
}

// Both servers over one document root, shared by a suite's rows.
class HttpServers : public ::testing::TestWithParam<TsvRow> {
 public:
  static void SetUpTestSuite() {
    root_ = new testing_support::TempDir();
    WriteDocuments(*root_);
    lighttpd_ = new HttpServer(HttpServerKind::kLighttpd, root_->path());
    faulty_ = new HttpServer(HttpServerKind::kFaulty, root_->path());
  }
  static void TearDownTestSuite() {
    delete lighttpd_;
    delete faulty_;
    delete root_;
    lighttpd_ = faulty_ = nullptr;
    root_ = nullptr;
  }

 protected:
  static HttpServer *Server(const std::string &name) {
    HttpServer *server = name == "lighttpd" ? lighttpd_ : faulty_;
    EXPECT_TRUE(server->ok()) << server->error();
    return server;
  }

 private:
  static testing_support::TempDir *root_;
  static HttpServer *lighttpd_;
  static HttpServer *faulty_;
};
testing_support::TempDir *HttpServers::root_ = nullptr;
HttpServer *HttpServers::lighttpd_ = nullptr;
HttpServer *HttpServers::faulty_ = nullptr;

std::string WithPort(const std::string &text, const HttpServer &server) {
  return testing_support::Replace(text, "{port}", std::to_string(server.port()));
}

class HttpRequestTable : public HttpServers {};

TEST_P(HttpRequestTable, AnswersAsTheServerBehaves) {
  const std::vector<std::string> &c = GetParam().cells;
  HttpServer *server = Server(c[1]);
  ASSERT_TRUE(server->ok());
  const std::string url = server->Url(WithPort(c[3], *server));
  const HttpResult expect = ResultByName(c[8]);
  Connection connection(url, c[6].empty() ? 0 : std::stoi(c[6]), std::stoi(c[7]));
  ASSERT_EQ(connection.result, HTTP_OK);

  if (c[2] == "size") {
    uint64_t size = 12345;
    EXPECT_EQ(Describe(Http_GetFileSize(connection.conn, url.c_str(), &size)), Describe(expect));
    if (expect == HTTP_OK) {
      EXPECT_EQ(size, std::stoull(c[9]));
    }
    return;
  }
  const uint64_t offset = std::stoull(c[4]);
  const size_t length = std::stoul(c[5]);
  std::string buffer(length, '\0');
  EXPECT_EQ(Describe(Http_Read(connection.conn, url.c_str(), offset, buffer.data(), length)),
            Describe(expect));
  if (expect == HTTP_OK) {
    const std::string file = c[3].find("one.bin") != std::string::npos ? "x" : Image();
    EXPECT_TRUE(buffer == file.substr(offset < file.size() ? offset : file.size(), length))
        << "the bytes read differ from the file's";
  }
}

INSTANTIATE_TEST_SUITE_P(Rows, HttpRequestTable,
                         ::testing::ValuesIn(testing_support::ReadTsv("http/requests.tsv", 10)),
                         testing_support::TsvRowNamer());

class HttpUrlTable : public HttpServers {};

TEST_P(HttpUrlTable, ServesOnlyTheConnectionsServer) {
  const std::vector<std::string> &c = GetParam().cells;
  HttpServer *server = Server("lighttpd");
  ASSERT_TRUE(server->ok());
  Connection connection(WithPort(c[1], *server));
  HttpResult result = connection.result;
  if (result == HTTP_OK && c[2] != "-") {
    const std::string url = WithPort(c[2], *server);
    uint64_t size = 0;
    result = Http_GetFileSize(connection.conn, url.c_str(), &size);
  }
  EXPECT_EQ(Describe(result), Describe(ResultByName(c[3])));
}

INSTANTIATE_TEST_SUITE_P(Rows, HttpUrlTable,
                         ::testing::ValuesIn(testing_support::ReadTsv("http/urls.tsv", 4)),
                         testing_support::TsvRowNamer());

TEST(HttpConnectionTest, ManyRequestsShareOneKeptAliveConnection) {
  testing_support::TempDir root;
  WriteDocuments(root);
  HttpServer server(HttpServerKind::kLighttpd, root.path());
  ASSERT_TRUE(server.ok()) << server.error();
  const std::string image = server.Url("/image.iso");
  const std::string big = server.Url("/big.bin");
  const std::string bigData = testing_support::ReadFile(root / "big.bin");
  Connection connection(image);
  ASSERT_EQ(connection.result, HTTP_OK);

  uint64_t size = 0;
  ASSERT_EQ(Http_GetFileSize(connection.conn, big.c_str(), &size), HTTP_OK);
  EXPECT_EQ(size, bigData.size());
  EXPECT_EQ(Http_BytesFetched(connection.conn), 0u) << "a HEAD has no body";

  uint64_t expectBytes = 0;
  std::string block(4096, '\0');
  for (uint64_t offset = 0; offset < kImageSize; offset += 4096) {
    size_t length = std::min<uint64_t>(4096, kImageSize - offset);
    ASSERT_EQ(Http_Read(connection.conn, image.c_str(), offset, block.data(), length), HTTP_OK);
    EXPECT_EQ(block.substr(0, length), Image().substr(offset, length));
    expectBytes += length;
  }
  std::string whole(bigData.size(), '\0');
  ASSERT_EQ(Http_Read(connection.conn, big.c_str(), 0, whole.data(), whole.size()), HTTP_OK);
  EXPECT_TRUE(whole == bigData);
  expectBytes += whole.size();
  EXPECT_EQ(Http_BytesFetched(connection.conn), expectBytes);

  // Error answers leave the connection usable.
  const std::string missing = server.Url("/missing.iso");
  EXPECT_EQ(Http_Read(connection.conn, missing.c_str(), 0, block.data(), 10), HTTP_ERR_NOT_FOUND);
  EXPECT_EQ(Http_Read(connection.conn, image.c_str(), kImageSize, block.data(), 10), HTTP_ERR_SIZE);
  for (int i = 0; i < 5; i++) {
    ASSERT_EQ(Http_Read(connection.conn, image.c_str(), 100, block.data(), 100), HTTP_OK);
  }

  server.Stop();
  std::vector<std::string> log = server.AccessLog();
  EXPECT_EQ(log.size(), 1u + 3u + 1u + 2u + 5u);
  std::set<std::string> clientPorts;
  std::string text;
  for (const std::string &line : log) {
    clientPorts.insert(line.substr(0, line.find(' ')));
    text += line + "\n";
  }
  EXPECT_EQ(clientPorts.size(), 1u) << "the server's access log:\n" << text;
}

TEST(HttpConnectionTest, ServerIsFirstContactedByARequest) {
  const int port = testing_support::FreeLoopbackPort();
  ASSERT_NE(port, 0);
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/image.iso";
  Connection connection(url, 2);
  ASSERT_EQ(connection.result, HTTP_OK) << "nothing listens there, and nothing was asked yet";
  uint64_t size = 0;
  EXPECT_EQ(Http_GetFileSize(connection.conn, url.c_str(), &size), HTTP_ERR_CONNECT);
  char byte;
  EXPECT_EQ(Http_Read(connection.conn, url.c_str(), 0, &byte, 1), HTTP_ERR_CONNECT);
}

TEST(HttpConnectionTest, UntrustedCertificateIsRefused) {
  ASSERT_TRUE(testing_support::HaveTool("openssl"));
  testing_support::TempDir dir;
  testing_support::CommandResult made = testing_support::RunCommand(
      {"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1", "-subj",
       "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1", "-keyout",
       (dir / "key.pem").string(), "-out", (dir / "cert.pem").string()});
  ASSERT_EQ(made.exitCode, 0) << made.output;
  WriteDocuments(dir);
  HttpServer server(HttpServerKind::kFaulty, dir.path(), {dir / "cert.pem", dir / "key.pem"});
  ASSERT_TRUE(server.ok()) << server.error();
  const std::string url = server.Url("/ok/image.iso");
  ASSERT_EQ(url.rfind("https://", 0), 0u);
  Connection connection(url);
  ASSERT_EQ(connection.result, HTTP_OK);
  uint64_t size = 0;
  EXPECT_EQ(Describe(Http_GetFileSize(connection.conn, url.c_str(), &size)),
            Describe(HTTP_ERR_TLS));
  char byte;
  EXPECT_EQ(Describe(Http_Read(connection.conn, url.c_str(), 0, &byte, 1)), Describe(HTTP_ERR_TLS));
  EXPECT_EQ(Http_BytesFetched(connection.conn), 0u);
}

TEST(HttpConnectionTest, BadArgumentsAreRefused) {
  HttpConnection *conn = reinterpret_cast<HttpConnection *>(1);
  EXPECT_EQ(Http_Connect(nullptr, 0, 1000, &conn), HTTP_ERR_INVALID_ARG);
  EXPECT_EQ(conn, nullptr);
  EXPECT_EQ(Http_Connect("http://127.0.0.1/", 0, 1000, nullptr), HTTP_ERR_INVALID_ARG);
  EXPECT_EQ(Http_Connect("http://127.0.0.1/", -1, 1000, &conn), HTTP_ERR_INVALID_ARG);
  EXPECT_EQ(Http_Connect("http://127.0.0.1/", 0, 0, &conn), HTTP_ERR_INVALID_ARG);

  Connection connection("http://127.0.0.1:1/a.iso");
  ASSERT_EQ(connection.result, HTTP_OK);
  const char *url = "http://127.0.0.1:1/a.iso";
  uint64_t size = 0;
  char byte = 0;
  EXPECT_EQ(Http_GetFileSize(nullptr, url, &size), HTTP_ERR_INVALID_ARG);
  EXPECT_EQ(Http_GetFileSize(connection.conn, nullptr, &size), HTTP_ERR_INVALID_ARG);
  EXPECT_EQ(Http_GetFileSize(connection.conn, url, nullptr), HTTP_ERR_INVALID_ARG);
  EXPECT_EQ(Http_Read(nullptr, url, 0, &byte, 1), HTTP_ERR_INVALID_ARG);
  EXPECT_EQ(Http_Read(connection.conn, nullptr, 0, &byte, 1), HTTP_ERR_INVALID_ARG);
  EXPECT_EQ(Http_Read(connection.conn, url, 0, nullptr, 1), HTTP_ERR_INVALID_ARG);
  EXPECT_EQ(Http_Read(connection.conn, url, UINT64_MAX, &byte, 2), HTTP_ERR_INVALID_ARG)
      << "a range past 2^64";
  EXPECT_EQ(Http_BytesFetched(nullptr), 0u);
  EXPECT_EQ(Http_Close(nullptr), HTTP_OK);
}

TEST(HttpConnectionTest, EveryResultHasItsOwnName) {
  std::set<std::string> names;
  for (HttpResult r = HTTP_OK; r <= HTTP_ERR_OTHER; r++) {
    names.insert(Http_ResultString(r));
  }
  EXPECT_EQ(names.size(), static_cast<size_t>(HTTP_ERR_OTHER + 1));
  EXPECT_STREQ(Http_ResultString(HTTP_ERR_NOT_FOUND), "not found");
  EXPECT_STREQ(Http_ResultString(HTTP_ERR_TIMEOUT), "timeout");
  EXPECT_STREQ(Http_ResultString(-1), "unknown result");
}

}  // namespace
