#include "platform/http/http.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace {

// Enough for a mirror or a load balancer in front of the tools server; a
// longer chain is a loop.
constexpr long kMaxRedirects = 5;
// A caller's retry count is clamped: each attempt may wait a full timeout.
constexpr int kMaxRetries = 10;
// The pause before retry n is n times this, so a restarting server has a
// moment to come back.
constexpr std::chrono::milliseconds kRetryPause{200};
constexpr std::chrono::milliseconds kMaxRetryPause{1000};

struct CurlEasyDeleter {
  void operator()(CURL *easy) const { curl_easy_cleanup(easy); }
};
using CurlEasy = std::unique_ptr<CURL, CurlEasyDeleter>;

struct CurlUrlDeleter {
  void operator()(CURLU *url) const { curl_url_cleanup(url); }
};
using CurlUrl = std::unique_ptr<CURLU, CurlUrlDeleter>;

struct CurlStringDeleter {
  void operator()(char *s) const { curl_free(s); }
};
using CurlString = std::unique_ptr<char, CurlStringDeleter>;

CURLcode GlobalInit() {
  static std::once_flag once;
  static CURLcode result = CURLE_OK;
  std::call_once(once, [] { result = curl_global_init(CURL_GLOBAL_DEFAULT); });
  return result;
}

// The parts of a URL that decide which server it reaches, and the URL as
// libcurl normalised it (what is validated is what gets fetched).
struct ParsedUrl {
  std::string scheme;
  std::string host;  // lower case: host names compare without case
  std::string port;  // the scheme's default when the URL names none
  std::string url;
};

std::optional<std::string> UrlPart(CURLU *url, CURLUPart part, unsigned flags) {
  char *raw = nullptr;
  if (curl_url_get(url, part, &raw, flags) != CURLUE_OK || raw == nullptr) {
    return std::nullopt;
  }
  CurlString owned(raw);
  return std::string(raw);
}

std::optional<ParsedUrl> ParseUrl(const char *text) {
  // libcurl reads "http:///name" as the host "name"; a URL without a host
  // is refused here instead.
  const char *authority = std::strstr(text, "://");
  if (authority == nullptr || authority[3] == '/' || authority[3] == '\0') {
    return std::nullopt;
  }
  CurlUrl url(curl_url());
  if (!url) {
    throw std::bad_alloc();
  }
  if (curl_url_set(url.get(), CURLUPART_URL, text, 0) != CURLUE_OK) {
    return std::nullopt;
  }
  ParsedUrl parsed;
  std::optional<std::string> scheme = UrlPart(url.get(), CURLUPART_SCHEME, 0);
  std::optional<std::string> host = UrlPart(url.get(), CURLUPART_HOST, 0);
  std::optional<std::string> port = UrlPart(url.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT);
  std::optional<std::string> full = UrlPart(url.get(), CURLUPART_URL, 0);
  if (!scheme || !host || !port || !full || host->empty()) {
    return std::nullopt;
  }
  parsed.scheme = *scheme;
  std::transform(parsed.scheme.begin(), parsed.scheme.end(), parsed.scheme.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (parsed.scheme != "http" && parsed.scheme != "https") {
    return std::nullopt;
  }
  parsed.host = *host;
  std::transform(parsed.host.begin(), parsed.host.end(), parsed.host.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  parsed.port = *port;
  parsed.url = *full;
  return parsed;
}

bool StartsWithNoCase(std::string_view text, std::string_view prefix) {
  if (text.size() < prefix.size()) {
    return false;
  }
  for (size_t i = 0; i < prefix.size(); i++) {
    if (std::tolower(static_cast<unsigned char>(text[i])) !=
        std::tolower(static_cast<unsigned char>(prefix[i]))) {
      return false;
    }
  }
  return true;
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
    text.remove_prefix(1);
  }
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r' ||
                           text.back() == '\n')) {
    text.remove_suffix(1);
  }
  return text;
}

bool ParseNumber(std::string_view text, uint64_t *value) {
  if (text.empty()) {
    return false;
  }
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), *value);
  return ec == std::errc() && end == text.data() + text.size();
}

// "Content-Range: bytes first-last/total", or "bytes */total" on a 416.
// total is unknown when the server wrote "*".
struct ContentRange {
  bool present = false;
  bool valid = false;
  bool hasRange = false;
  uint64_t first = 0;
  uint64_t last = 0;
  bool hasTotal = false;
  uint64_t total = 0;
};

ContentRange ParseContentRange(std::string_view value) {
  ContentRange range;
  range.present = true;
  value = Trim(value);
  if (!StartsWithNoCase(value, "bytes ")) {
    return range;
  }
  value = Trim(value.substr(6));
  size_t slash = value.find('/');
  if (slash == std::string_view::npos) {
    return range;
  }
  std::string_view span = value.substr(0, slash);
  std::string_view total = value.substr(slash + 1);
  if (span != "*") {
    size_t dash = span.find('-');
    if (dash == std::string_view::npos || !ParseNumber(span.substr(0, dash), &range.first) ||
        !ParseNumber(span.substr(dash + 1), &range.last) || range.last < range.first) {
      return range;
    }
    range.hasRange = true;
  }
  if (total != "*") {
    if (!ParseNumber(total, &range.total)) {
      return range;
    }
    range.hasTotal = true;
  }
  range.valid = range.hasRange || range.hasTotal;
  return range;
}

// What one request collects while libcurl runs it. Reset before every
// attempt.
struct Exchange {
  CURL *easy = nullptr;
  uint64_t *bytesFetched = nullptr;
  // Where the body goes, and how much of it is wanted; a null buffer
  // takes nothing (sizes).
  uint8_t *buffer = nullptr;
  size_t want = 0;
  size_t got = 0;
  uint64_t offset = 0;
  ContentRange contentRange;  // of the last response (redirects reset it)
  bool statusChecked = false;
  bool accepting = false;  // the final answer is a success and its body is ours
  bool refused = false;    // the body did not fit the request: HTTP_ERR_SIZE
  // No progress for timeout ends the request; libcurl's own low-speed check
  // averages over several seconds, so a few bytes would hide a stall.
  std::chrono::milliseconds timeout{0};
  std::chrono::steady_clock::time_point lastProgress;
  curl_off_t lastCount = 0;
  bool stalled = false;
};

size_t HeaderCallback(char *data, size_t size, size_t count, void *userdata) {
  auto *exchange = static_cast<Exchange *>(userdata);
  size_t bytes = size * count;
  std::string_view line(data, bytes);
  if (StartsWithNoCase(line, "HTTP/")) {
    // A new response (after a redirect or a 100 Continue): forget the last.
    exchange->contentRange = ContentRange();
  } else if (StartsWithNoCase(line, "Content-Range:")) {
    exchange->contentRange = ParseContentRange(line.substr(14));
  }
  return bytes;
}

long ResponseCode(CURL *easy) {
  long code = 0;
  if (curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &code) != CURLE_OK) {
    return 0;
  }
  return code;
}

curl_off_t ContentLength(CURL *easy) {
  curl_off_t length = -1;
  if (curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) != CURLE_OK) {
    return -1;
  }
  return length;
}

// Decides at the first byte of the final answer whether its body is the
// range that was asked for; bodies of error answers are read and dropped
// so the connection stays usable.
void CheckBodyStart(Exchange *exchange) {
  exchange->statusChecked = true;
  long code = ResponseCode(exchange->easy);
  if (code < 200 || code > 299) {
    return;
  }
  exchange->accepting = true;
  if (exchange->buffer == nullptr) {
    return;
  }
  const ContentRange &range = exchange->contentRange;
  if (code == 206) {
    if (!range.valid || !range.hasRange || range.first != exchange->offset) {
      exchange->refused = true;
    }
    return;
  }
  // A whole-resource answer to a ranged request: usable only when the
  // resource is exactly what was asked for.
  curl_off_t length = ContentLength(exchange->easy);
  if (exchange->offset != 0 || (length >= 0 && static_cast<uint64_t>(length) != exchange->want)) {
    exchange->refused = true;
  }
}

size_t WriteCallback(char *data, size_t size, size_t count, void *userdata) {
  auto *exchange = static_cast<Exchange *>(userdata);
  size_t bytes = size * count;
  *exchange->bytesFetched += bytes;
  if (!exchange->statusChecked) {
    CheckBodyStart(exchange);
  }
  if (!exchange->accepting) {
    return bytes;
  }
  if (exchange->refused || bytes > exchange->want - exchange->got) {
    exchange->refused = true;
    return 0;  // stops the transfer: CURLE_WRITE_ERROR
  }
  if (exchange->buffer != nullptr) {
    std::memcpy(exchange->buffer + exchange->got, data, bytes);
  }
  exchange->got += bytes;
  return bytes;
}

int ProgressCallback(void *userdata, curl_off_t downloaded, curl_off_t, curl_off_t,
                     curl_off_t uploaded) {
  auto *exchange = static_cast<Exchange *>(userdata);
  const auto now = std::chrono::steady_clock::now();
  curl_off_t count = downloaded + uploaded;
  if (count != exchange->lastCount) {
    exchange->lastCount = count;
    exchange->lastProgress = now;
    return 0;
  }
  if (now - exchange->lastProgress > exchange->timeout) {
    exchange->stalled = true;
    return 1;  // CURLE_ABORTED_BY_CALLBACK
  }
  return 0;
}

bool IsRetryable(CURLcode code) {
  switch (code) {
    case CURLE_COULDNT_CONNECT:
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
      return true;
    default:
      return false;
  }
}

HttpResult FromCurl(CURLcode code, const Exchange &exchange) {
  switch (code) {
    case CURLE_OK:
      return HTTP_OK;
    case CURLE_OUT_OF_MEMORY:
      return HTTP_ERR_NO_MEMORY;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_CONNECT:
      return HTTP_ERR_CONNECT;
    case CURLE_OPERATION_TIMEDOUT:
      return HTTP_ERR_TIMEOUT;
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    case CURLE_BAD_CONTENT_ENCODING:
      return HTTP_ERR_TRANSFER;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CLIENTCERT:
    case CURLE_USE_SSL_FAILED:
      return HTTP_ERR_TLS;
    // A redirect the connection will not follow: too many, to another
    // scheme, or to a Location that is no URL.
    case CURLE_TOO_MANY_REDIRECTS:
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_URL_MALFORMAT:
      return HTTP_ERR_STATUS;
    case CURLE_RANGE_ERROR:
    case CURLE_FILESIZE_EXCEEDED:
      return HTTP_ERR_SIZE;
    case CURLE_WRITE_ERROR:
      return exchange.refused ? HTTP_ERR_SIZE : HTTP_ERR_OTHER;
    case CURLE_ABORTED_BY_CALLBACK:
      return exchange.stalled ? HTTP_ERR_TIMEOUT : HTTP_ERR_OTHER;
    default:
      return HTTP_ERR_OTHER;
  }
}

HttpResult FromStatus(long code) {
  if (code >= 200 && code <= 299) {
    return HTTP_OK;
  }
  if (code == 404 || code == 410) {
    return HTTP_ERR_NOT_FOUND;
  }
  if (code == 416) {
    return HTTP_ERR_SIZE;  // the range starts past the end of the resource
  }
  return HTTP_ERR_STATUS;
}

// Runs the body, turning anything thrown into a result: nothing thrown
// leaves this file.
template <typename Fn>
HttpResult Guarded(Fn &&fn) {
  try {
    return fn();
  } catch (const std::bad_alloc &) {
    return HTTP_ERR_NO_MEMORY;
  } catch (...) {
    return HTTP_ERR_OTHER;
  }
}

}  // namespace

struct HttpConnection {
  CurlEasy easy;
  std::string scheme;
  std::string host;
  std::string port;
  int retries = 0;
  std::chrono::milliseconds timeout{0};
  uint64_t bytesFetched = 0;

  // The request's URL, normalised, if it reaches this connection's server.
  HttpResult Target(const char *url, std::string *normalised) const {
    if (url == nullptr) {
      return HTTP_ERR_INVALID_ARG;
    }
    std::optional<ParsedUrl> parsed = ParseUrl(url);
    if (!parsed || parsed->scheme != scheme || parsed->host != host || parsed->port != port) {
      return HTTP_ERR_INVALID_ARG;
    }
    *normalised = std::move(parsed->url);
    return HTTP_OK;
  }

  // One request with its retries. range is "" for none; head asks for
  // the headers only.
  HttpResult Perform(const std::string &url, bool head, const std::string &range,
                     Exchange *exchange) {
    CURL *handle = easy.get();
    exchange->easy = handle;
    exchange->bytesFetched = &bytesFetched;
    exchange->timeout = timeout;
    if (curl_easy_setopt(handle, CURLOPT_URL, url.c_str()) != CURLE_OK) {
      return HTTP_ERR_NO_MEMORY;
    }
    if (head) {
      curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
    } else {
      curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
    }
    if (curl_easy_setopt(handle, CURLOPT_RANGE, range.empty() ? nullptr : range.c_str()) !=
        CURLE_OK) {
      return HTTP_ERR_NO_MEMORY;
    }
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &HeaderCallback);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, exchange);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &WriteCallback);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, exchange);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, exchange);

    const Exchange fresh = *exchange;
    CURLcode code = CURLE_OK;
    for (int attempt = 0;; attempt++) {
      *exchange = fresh;
      exchange->lastProgress = std::chrono::steady_clock::now();
      code = curl_easy_perform(handle);
      if (code == CURLE_OK || !IsRetryable(code) || attempt >= retries) {
        break;
      }
      std::this_thread::sleep_for(std::min(kRetryPause * (attempt + 1), kMaxRetryPause));
    }
    // The handle keeps pointers to the exchange; none may outlive it.
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, nullptr);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, nullptr);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, nullptr);
    if (code != CURLE_OK) {
      return FromCurl(code, *exchange);
    }
    return FromStatus(ResponseCode(handle));
  }
};

HttpResult Http_Connect(const char *url, int retries, int timeoutMs, HttpConnection **connection) {
  if (connection != nullptr) {
    *connection = nullptr;
  }
  if (url == nullptr || connection == nullptr || retries < 0 || timeoutMs <= 0) {
    return HTTP_ERR_INVALID_ARG;
  }
  return Guarded([&]() -> HttpResult {
    if (GlobalInit() != CURLE_OK) {
      return HTTP_ERR_OTHER;
    }
    std::optional<ParsedUrl> parsed = ParseUrl(url);
    if (!parsed) {
      return HTTP_ERR_INVALID_ARG;
    }
    auto conn = std::make_unique<HttpConnection>();
    conn->easy.reset(curl_easy_init());
    if (!conn->easy) {
      return HTTP_ERR_NO_MEMORY;
    }
    conn->scheme = parsed->scheme;
    conn->host = parsed->host;
    conn->port = parsed->port;
    conn->retries = std::min(retries, kMaxRetries);
    conn->timeout = std::chrono::milliseconds(timeoutMs);

    CURL *easy = conn->easy.get();
    // Only the connection's own scheme: an https connection never follows a
    // redirect down to http, nor the other way round.
    const char *redirectProtocols = conn->scheme == "https" ? "https" : "http";
    bool ok = curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L) == CURLE_OK &&
              curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https") == CURLE_OK &&
              curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, redirectProtocols) == CURLE_OK &&
              curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L) == CURLE_OK &&
              curl_easy_setopt(easy, CURLOPT_MAXREDIRS, kMaxRedirects) == CURLE_OK &&
              curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(timeoutMs)) ==
                  CURLE_OK &&
              curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &ProgressCallback) == CURLE_OK &&
              curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L) == CURLE_OK &&
              curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L) == CURLE_OK &&
              curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L) == CURLE_OK &&
              curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L) == CURLE_OK;
    if (!ok) {
      return HTTP_ERR_OTHER;
    }
    *connection = conn.release();
    return HTTP_OK;
  });
}

HttpResult Http_GetFileSize(HttpConnection *connection, const char *url, uint64_t *size) {
  if (connection == nullptr || url == nullptr || size == nullptr) {
    return HTTP_ERR_INVALID_ARG;
  }
  return Guarded([&]() -> HttpResult {
    std::string target;
    HttpResult result = connection->Target(url, &target);
    if (result != HTTP_OK) {
      return result;
    }
    Exchange head;
    result = connection->Perform(target, true, "", &head);
    if (result != HTTP_OK) {
      return result;
    }
    curl_off_t length = ContentLength(connection->easy.get());
    if (length >= 0) {
      *size = static_cast<uint64_t>(length);
      return HTTP_OK;
    }
    // No Content-Length on the HEAD: the first byte's Content-Range tells
    // the total.
    Exchange probe;
    probe.want = 1;
    result = connection->Perform(target, false, "0-0", &probe);
    if (result != HTTP_OK && result != HTTP_ERR_SIZE) {
      return result;
    }
    long code = ResponseCode(connection->easy.get());
    const ContentRange &range = probe.contentRange;
    if ((code == 206 || code == 416) && range.valid && range.hasTotal) {
      *size = range.total;  // a 416 with "bytes */0" is an empty resource
      return HTTP_OK;
    }
    // The range was ignored; the whole answer's length is the size (its
    // body was refused at the first byte past the one asked for).
    length = ContentLength(connection->easy.get());
    if (code == 200 && length >= 0) {
      *size = static_cast<uint64_t>(length);
      return HTTP_OK;
    }
    return HTTP_ERR_SIZE;
  });
}

HttpResult Http_Read(HttpConnection *connection, const char *url, uint64_t offset, void *buffer,
                     size_t length) {
  if (connection == nullptr || url == nullptr || (buffer == nullptr && length != 0)) {
    return HTTP_ERR_INVALID_ARG;
  }
  if (length != 0 && offset > UINT64_MAX - (length - 1)) {
    return HTTP_ERR_INVALID_ARG;
  }
  return Guarded([&]() -> HttpResult {
    std::string target;
    HttpResult result = connection->Target(url, &target);
    if (result != HTTP_OK || length == 0) {
      return result;
    }
    Exchange read;
    read.buffer = static_cast<uint8_t *>(buffer);
    read.want = length;
    read.offset = offset;
    std::string range = std::to_string(offset) + "-" + std::to_string(offset + (length - 1));
    result = connection->Perform(target, false, range, &read);
    if (result != HTTP_OK) {
      return result;
    }
    return read.refused || read.got != length ? HTTP_ERR_SIZE : HTTP_OK;
  });
}

uint64_t Http_BytesFetched(const HttpConnection *connection) {
  return connection == nullptr ? 0 : connection->bytesFetched;
}

HttpResult Http_Close(HttpConnection *connection) {
  delete connection;
  return HTTP_OK;
}

const char *Http_ResultString(HttpResult result) {
  switch (result) {
    case HTTP_OK:
      return "success";
    case HTTP_ERR_INVALID_ARG:
      return "invalid argument";
    case HTTP_ERR_CONNECT:
      return "cannot connect";
    case HTTP_ERR_TIMEOUT:
      return "timeout";
    case HTTP_ERR_NOT_FOUND:
      return "not found";
    case HTTP_ERR_STATUS:
      return "bad status";
    case HTTP_ERR_SIZE:
      return "size mismatch";
    case HTTP_ERR_TRANSFER:
      return "transfer broken";
    case HTTP_ERR_TLS:
      return "TLS failure";
    case HTTP_ERR_NO_MEMORY:
      return "out of memory";
    case HTTP_ERR_OTHER:
      return "error";
    default:
      return "unknown result";
  }
}
