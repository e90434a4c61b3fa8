// Verified reading of a tools image over HTTP: a window of fetched blocks,
// each checked against its hash the first time a read touches it.
#include "lib/toolsiso/toolsIsoHttpReader.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "platform/http/http.h"
#include "platform/log/log.h"
#include "platform/util/safeAlloc.h"

namespace {

constexpr size_t kMinReadAhead = 64 * 1024;
constexpr size_t kMaxReadAhead = 4 * 1024 * 1024;
// One fetch brings at most this much; a larger read takes several.
constexpr size_t kMaxFetch = 8 * 1024 * 1024;
// Block unit of an image read without hash data.
constexpr uint32_t kUncheckedBlock = 4096;

}  // namespace

struct ToolsIsoHttpReader {
  HttpConnection *conn = nullptr;
  char *url = nullptr;
  uint64_t size = 0;
  ToolsIsoHashInfo *hashInfo = nullptr;
  uint32_t blockSize = kUncheckedBlock;

  // The window: bytes [start, start + length) of the image, block aligned,
  // and which of its blocks have been checked.
  std::unique_ptr<uint8_t[]> data;
  size_t capacity = 0;
  size_t length = 0;
  uint64_t start = 0;
  std::vector<bool> checked;

  uint64_t nextOffset = 0;  // where a read in order would start
  size_t readAhead = kMinReadAhead;
  ToolsIsoHttpReaderStats stats = {};

  ~ToolsIsoHttpReader() {
    ToolsISO_FreeHashInfo(hashInfo);
    free(url);
  }

  uint64_t End() const { return start + length; }

  // Fetches the window that begins with the block holding pos and reaches
  // at least to want (the end of the read), plus the read-ahead.
  bool Fetch(uint64_t pos, uint64_t want, bool inOrder) {
    const uint64_t from = pos - pos % blockSize;
    uint64_t len = want - from + (inOrder ? readAhead : 0);
    len = std::min<uint64_t>(len, kMaxFetch);
    len += (blockSize - len % blockSize) % blockSize;
    len = std::min(len, size - from);
    // Read-ahead stops where the hashes do, so that a read inside the
    // signed area is not failed by a fetch of the unsigned rest.
    if (hashInfo != nullptr && want <= HashedEnd() && from < HashedEnd()) {
      len = std::min(len, HashedEnd() - from);
    }
    length = 0;
    if (len > capacity) {
      // Not zeroed: every byte is fetched before it is looked at.
      data = std::make_unique_for_overwrite<uint8_t[]>(static_cast<size_t>(len));
      capacity = static_cast<size_t>(len);
    }
    HttpResult r = Http_Read(conn, url, from, data.get(), static_cast<size_t>(len));
    ++stats.requests;
    if (r != HTTP_OK) {
      Log("ToolsISO: Unable to fetch Tools ISO '%s' at offset %lu (error=%d).\n", url, from, r);
      return false;
    }
    stats.bytesFetched += len;
    start = from;
    length = static_cast<size_t>(len);
    checked.assign(static_cast<size_t>((len + blockSize - 1) / blockSize), false);
    return true;
  }

  uint64_t HashedEnd() const {
    const uint64_t blocks = hashInfo->header.hashCount;
    return blocks > size / blockSize ? size : blocks * blockSize;
  }

  // Checks the window's unchecked blocks that hold bytes [from, to).
  bool Check(uint64_t from, uint64_t to) {
    if (hashInfo == nullptr) {
      return true;
    }
    size_t first = static_cast<size_t>((from - start) / blockSize);
    const size_t last = static_cast<size_t>((to - start + blockSize - 1) / blockSize);
    while (first < last) {
      if (checked[first]) {
        ++first;
        continue;
      }
      size_t run = first;
      while (run < last && !checked[run]) {
        ++run;
      }
      const size_t offset = first * blockSize;
      const size_t bytes = std::min(run * blockSize, length) - offset;
      if (!ToolsISO_VerifyHashes(hashInfo, start + offset, data.get() + offset, bytes, false)) {
        Log("ToolsISO: Invalid data at offset %lx (bytes %zu)\n", start + offset, bytes);
        return false;
      }
      stats.bytesVerified += bytes;
      std::fill(checked.begin() + static_cast<ptrdiff_t>(first),
                checked.begin() + static_cast<ptrdiff_t>(run), true);
      first = run;
    }
    return true;
  }

  bool Read(uint8_t *out, size_t count, uint64_t offset) {
    const bool inOrder = offset == nextOffset;
    readAhead = inOrder ? readAhead : kMinReadAhead;
    const uint64_t end = offset + count;
    for (uint64_t pos = offset; pos < end;) {
      if (pos < start || pos >= End()) {
        if (!Fetch(pos, end, inOrder)) {
          return false;
        }
        if (inOrder) {
          readAhead = std::min(readAhead * 2, kMaxReadAhead);
        }
      }
      const uint64_t upTo = std::min(end, End());
      if (!Check(pos, upTo)) {
        return false;
      }
      memcpy(out + (pos - offset), data.get() + (pos - start), static_cast<size_t>(upTo - pos));
      stats.bytesDelivered += upTo - pos;
      pos = upTo;
    }
    nextOffset = end;
    return true;
  }
};

namespace {

// Connects and sizes the image; hash data is the caller's next step.
uint32_t Connect(const char *imageUrl, std::unique_ptr<ToolsIsoHttpReader> *out) {
  auto r = std::make_unique<ToolsIsoHttpReader>();
  r->url = UtilSafeStrdup0(imageUrl);
  HttpResult result = Http_Connect(imageUrl, 4, 15000, &r->conn);
  if (result != HTTP_OK) {
    r->conn = nullptr;
    Log("ToolsISO: Unable to connect to the server containing URL '%s' (error=%d).\n", imageUrl,
        result);
    return TOOLSISO_OPEN_FAILED;
  }
  result = Http_GetFileSize(r->conn, imageUrl, &r->size);
  if (result != HTTP_OK) {
    Log("ToolsISO: Unable to get the size of Tools ISO '%s' (error=%d).\n", imageUrl, result);
    Http_Close(r->conn);
    r->conn = nullptr;
    return TOOLSISO_OPEN_FAILED;
  }
  *out = std::move(r);
  return TOOLSISO_OPEN_OK;
}

}  // namespace

uint32_t ToolsISO_HttpReaderOpen(const char *imageUrl, bool required, ToolsIsoHttpReader **reader) {
  if (imageUrl == nullptr || reader == nullptr) {
    return TOOLSISO_OPEN_FAILED;
  }
  *reader = nullptr;
  std::unique_ptr<ToolsIsoHttpReader> r;
  if (uint32_t code = Connect(imageUrl, &r); code != TOOLSISO_OPEN_OK) {
    return code;
  }
  if (!ToolsISO_GetHttpHashInfo(r->conn, imageUrl, r->size, required, &r->hashInfo)) {
    Http_Close(r->conn);
    r->conn = nullptr;
    return TOOLSISO_OPEN_BAD_HASHES;
  }
  if (r->hashInfo != nullptr) {
    r->blockSize = r->hashInfo->header.blockSize;
  }
  *reader = r.release();
  return TOOLSISO_OPEN_OK;
}

uint32_t ToolsISO_HttpReaderOpenTrusted(const char *imageUrl, ToolsIsoHashInfo *hashInfo,
                                        ToolsIsoHttpReader **reader) {
  if (imageUrl == nullptr || reader == nullptr) {
    ToolsISO_FreeHashInfo(hashInfo);
    return TOOLSISO_OPEN_FAILED;
  }
  *reader = nullptr;
  std::unique_ptr<ToolsIsoHttpReader> r;
  if (uint32_t code = Connect(imageUrl, &r); code != TOOLSISO_OPEN_OK) {
    ToolsISO_FreeHashInfo(hashInfo);
    return code;
  }
  r->hashInfo = hashInfo;
  if (hashInfo != nullptr) {
    r->blockSize = hashInfo->header.blockSize;
  }
  *reader = r.release();
  return TOOLSISO_OPEN_OK;
}

uint64_t ToolsISO_HttpReaderSize(const ToolsIsoHttpReader *reader) {
  return reader != nullptr ? reader->size : 0;
}

bool ToolsISO_HttpReaderHasHashes(const ToolsIsoHttpReader *reader) {
  return reader != nullptr && reader->hashInfo != nullptr;
}

const ToolsIsoHashInfo *ToolsISO_HttpReaderHashInfo(const ToolsIsoHttpReader *reader) {
  return reader != nullptr ? reader->hashInfo : nullptr;
}

bool ToolsISO_HttpReaderReadCB(void *handle, void *buffer, size_t length, uint64_t offset,
                               size_t *bytesRead) {
  auto *reader = static_cast<ToolsIsoHttpReader *>(handle);
  if (reader == nullptr || (buffer == nullptr && length != 0)) {
    return false;
  }
  size_t count = 0;
  if (offset < reader->size) {
    count = reader->size - offset < length ? static_cast<size_t>(reader->size - offset) : length;
  }
  if (bytesRead != nullptr) {
    *bytesRead = 0;
  } else if (count != length) {
    return false;
  }
  if (count != 0 && !reader->Read(static_cast<uint8_t *>(buffer), count, offset)) {
    memset(buffer, 0, count);  // a partly copied read is not handed out either
    return false;
  }
  if (bytesRead != nullptr) {
    *bytesRead = count;
  }
  return true;
}

bool ToolsISO_HttpReaderIsoReadCB(void *handle, void *buffer, size_t length, uint64_t offset) {
  return ToolsISO_HttpReaderReadCB(handle, buffer, length, offset, nullptr);
}

bool ToolsISO_HttpReaderCloseCB(void *handle) {
  auto *reader = static_cast<ToolsIsoHttpReader *>(handle);
  if (reader == nullptr) {
    return false;
  }
  HttpResult r = Http_Close(reader->conn);
  if (r != HTTP_OK) {
    Log("ToolsISO: Unable to close HTTP connection for '%s' (error=%d).\n", reader->url, r);
  }
  delete reader;
  return r == HTTP_OK;
}

void ToolsISO_HttpReaderGetStats(const ToolsIsoHttpReader *reader, ToolsIsoHttpReaderStats *stats) {
  if (reader == nullptr || stats == nullptr) {
    return;
  }
  *stats = reader->stats;
  stats->connectionBytes = Http_BytesFetched(reader->conn);
}
