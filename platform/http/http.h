/*
 * Host HTTP client over libcurl: one kept-alive connection to a web server,
 * whole-resource and ranged GETs on it, sizes from the response headers.
 *
 * A connection is made for a URL (http:// or https://) and then serves
 * URLs of that same scheme, host and port; HTTPS uses the system's CA
 * store. Redirects are followed up to a small limit, within the same
 * scheme. Every call returns an HttpResult; HTTP_OK (0) is success, and
 * the numbers are stable, because callers print them in log lines. A
 * connection is used by one thread at a time; different connections are
 * independent. Nothing here logs.
 */
#ifndef GUESTPREP_PLATFORM_HTTP_H
#define GUESTPREP_PLATFORM_HTTP_H

#include <cstddef>
#include <cstdint>

typedef int32_t HttpResult;

enum : HttpResult {
  HTTP_OK = 0,
  HTTP_ERR_INVALID_ARG = 1,  // null argument, malformed or unsupported URL
  HTTP_ERR_CONNECT = 2,      // the server cannot be reached
  HTTP_ERR_TIMEOUT = 3,      // no progress within the connection's timeout
  HTTP_ERR_NOT_FOUND = 4,    // 404 or 410
  HTTP_ERR_STATUS = 5,       // any other status that is not a success
  HTTP_ERR_SIZE = 6,         // no usable size, or a body longer or shorter than announced
  HTTP_ERR_TRANSFER = 7,     // the connection broke during the transfer
  HTTP_ERR_TLS = 8,          // certificate or TLS failure
  HTTP_ERR_NO_MEMORY = 9,
  HTTP_ERR_OTHER = 10,
};

struct HttpConnection;

/* Opens a connection for url's server. retries: attempts after a failed
 * connect or a broken transfer of an idempotent request (0 for none);
 * timeoutMs: the longest a request may go without progress. The server is
 * contacted only by the first request. */
HttpResult Http_Connect(const char *url, int retries, int timeoutMs, HttpConnection **connection);

/* The size of the resource at url (HEAD; Content-Length, or the total of a
 * Content-Range when the server answers only ranges). */
HttpResult Http_GetFileSize(HttpConnection *connection, const char *url, uint64_t *size);

/* Reads exactly length bytes of the resource at url starting at offset
 * into buffer (a ranged GET unless offset is 0 and length the whole
 * resource). A server that sends more or fewer bytes than asked, or
 * ignores the range, fails the read (HTTP_ERR_SIZE). */
HttpResult Http_Read(HttpConnection *connection, const char *url, uint64_t offset, void *buffer,
                     size_t length);

/* Bytes received from the server on this connection (bodies only), for
 * callers that report how much a verified read fetched. */
uint64_t Http_BytesFetched(const HttpConnection *connection);

/* Closes the connection and frees it (null is fine). */
HttpResult Http_Close(HttpConnection *connection);

/* Short English name of a result ("not found", "timeout"...). Constant. */
const char *Http_ResultString(HttpResult result);

#endif
