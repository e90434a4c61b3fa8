// The hash-data file of a tools image: loading and checking it, verifying
// its signature, checking image blocks against it, and reading a local
// image through it.
//
// Every header field comes from the file and is hostile until checked; the
// checks run in a fixed order and the first that fails names the field in
// its log line. Arithmetic on the fields is arranged so that no value can
// wrap: each check that subtracts or multiplies first makes sure it may.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "guestprep/toolsiso.h"
#include "lib/toolsiso/toolsIsoHash.h"
#include "platform/file/fileIO.h"
#include "platform/http/http.h"
#include "platform/log/log.h"
#include "platform/util/base64.h"
#include "platform/util/bytes.h"
#include "platform/util/safeAlloc.h"
#include "platform/util/str.h"

struct ToolsIsoLocalFile {
  FileIODescriptor file;
  uint64_t size = 0;                     // of the image, taken when it was opened
  ToolsIsoHashInfo *hashInfo = nullptr;  // null: hash data optional and absent
};

namespace gp {

namespace {

void PutLe32(uint8_t *p, uint32_t v) {
  for (int i = 0; i < 4; ++i) {
    p[i] = static_cast<uint8_t>(v >> (8 * i));
  }
}

void PutLe64(uint8_t *p, uint64_t v) {
  PutLe32(p, static_cast<uint32_t>(v));
  PutLe32(p + 4, static_cast<uint32_t>(v >> 32));
}

}  // namespace

ToolsIsoHashHeader DecodeToolsIsoHashHeader(const uint8_t *p) {
  ToolsIsoHashHeader h;
  memcpy(h.magic, p, sizeof h.magic);
  h.metadataLength = Le32(p + 32);
  memcpy(h.reserved1, p + 36, sizeof h.reserved1);
  h.blockSize = Le32(p + 44);
  h.hashSize = Le32(p + 48);
  h.hashFileBlockSize = Le32(p + 52);
  memcpy(h.reserved2, p + 56, sizeof h.reserved2);
  h.firstHashOffset = Le64(p + 64);
  h.hashCount = Le64(p + 72);
  h.signatureOffset = Le64(p + 80);
  h.signatureSize = Le64(p + 88);
  memcpy(h.hashAlgo, p + 96, sizeof h.hashAlgo);
  return h;
}

void EncodeToolsIsoHashHeader(const ToolsIsoHashHeader &h, uint8_t *p) {
  memcpy(p, h.magic, sizeof h.magic);
  PutLe32(p + 32, h.metadataLength);
  memcpy(p + 36, h.reserved1, sizeof h.reserved1);
  PutLe32(p + 44, h.blockSize);
  PutLe32(p + 48, h.hashSize);
  PutLe32(p + 52, h.hashFileBlockSize);
  memcpy(p + 56, h.reserved2, sizeof h.reserved2);
  PutLe64(p + 64, h.firstHashOffset);
  PutLe64(p + 72, h.hashCount);
  PutLe64(p + 80, h.signatureOffset);
  PutLe64(p + 88, h.signatureSize);
  memcpy(p + 96, h.hashAlgo, sizeof h.hashAlgo);
}

}  // namespace gp

namespace {

using gp::UniqueText;

constexpr uint64_t kMaxHashFileSize = 0x10000000;  // what ToolsISO_ReadFile reads
constexpr size_t kMaxHashSize = 64;                // largest digest of the host's algorithms

// The load-time checks, in order; the first failure is logged.
bool CheckHeader(const ToolsIsoHashHeader &h, uint64_t size) {
  if (memcmp(h.magic, TOOLSISO_HASH_MAGIC, sizeof h.magic) != 0) {
    Log("ToolsISO: Error invalid magic string.\n");
    return false;
  }
  if (h.metadataLength < gp::kToolsIsoMinMetadataLength || h.metadataLength > size) {
    Log("ToolsISO: Error invalid metadata length.\n");
    return false;
  }
  if (h.blockSize < gp::kToolsIsoMinBlockSize || h.blockSize > gp::kToolsIsoMaxBlockSize) {
    Log("ToolsISO: Error invalid blockSize.\n");
    return false;
  }
  if (h.hashSize >= h.blockSize) {
    Log("ToolsISO: Error hashSize bigger than blockSize.\n");
    return false;
  }
  if (h.hashSize == 0 || h.hashSize >= size) {
    Log("ToolsISO: Error invalid hashSize.\n");
    return false;
  }
  if (memcmp(h.hashAlgo, gp::kToolsIsoHashAlgo, sizeof h.hashAlgo) != 0) {
    Log("ToolsISO: Error unsupported algorithm.\n");
    return false;
  }
  const CryptoHashImpl *impl = ToolsISO_GetHashImpl(gp::kToolsIsoHashAlgo);
  if (impl == nullptr) {
    Log("ToolsISO: Error failed to load hashImpl.\n");
    return false;
  }
  if (h.hashSize != CryptoHash_GetOutputSize(impl)) {
    Log("ToolsISO: Error unexpected hashSize %u, expected %zu.\n", h.hashSize,
        CryptoHash_GetOutputSize(impl));
    return false;
  }
  if (h.hashCount == 0 || h.hashCount > size / h.hashSize) {
    Log("ToolsISO: Error hashCount invalid.\n");
    return false;
  }
  if (h.hashFileBlockSize != 0) {
    if (h.hashSize >= h.hashFileBlockSize) {
      Log("ToolsISO: Error hashSize bigger than hashFileBlockSize.\n");
      return false;
    }
    if (h.hashFileBlockSize < gp::kToolsIsoMinBlockSize ||
        h.hashFileBlockSize > gp::kToolsIsoMaxBlockSize) {
      Log("ToolsISO: Error hashFileBlockSize invalid.\n");
      return false;
    }
  } else if (h.hashCount != (size - h.metadataLength) / h.hashSize) {  // metadataLength <= size
    Log("ToolsISO: Error hashCount mismatch.\n");
    return false;
  }
  if (h.firstHashOffset < h.metadataLength) {
    Log("ToolsISO: Error firstHashOffset too small.\n");
    return false;
  }
  if (h.signatureOffset != 0) {
    if (h.signatureSize == 0 || h.signatureSize >= size) {
      Log("ToolsISO: Error signature size invalid.\n");
      return false;
    }
    if (h.signatureOffset != size - h.signatureSize) {
      Log("ToolsISO: Error signature is not at the end.\n");
      return false;
    }
    if (h.firstHashOffset > h.signatureOffset) {
      Log("ToolsISO: Error signature and hashes overlap.\n");
      return false;
    }
    if (h.hashCount > (h.signatureOffset - h.firstHashOffset) / h.hashSize) {
      Log("ToolsISO: Error signature offset value unexpected.\n");
      return false;
    }
  } else if (h.firstHashOffset > size || h.hashCount > (size - h.firstHashOffset) / h.hashSize) {
    // A table that starts past the end holds no hash at all.
    Log("ToolsISO: Error hashDataSize is smaller than expected.\n");
    return false;
  }
  // Without an embedded signature signatureSize is unchecked above; one
  // larger than the file cannot describe it either.
  if (h.signatureSize > size || (size - h.signatureSize) % h.hashSize != 0) {
    Log("ToolsISO: Error unexpected size for hashes.\n");
    return false;
  }
  return true;
}

// A copy of url with ext inserted right after its first ".iso", or null
// (logged) when it has none.
UniqueText SiblingUrl(const char *url, const char *ext) {
  const char *iso = strstr(url, ".iso");
  if (iso == nullptr) {
    Log("ToolsISO: Tools ISO URL '%s' does not have '.iso' extension?\n", url);
    return nullptr;
  }
  int head = static_cast<int>(iso + 4 - url);
  return UniqueText(Str_SafeAsprintf(nullptr, "%.*s%s%s", head, url, ext, iso + 4));
}

// Verifies the hash data's signature: the embedded one, or sigBuffer (the
// separate file's bytes) over everything before signatureSize.
bool VerifyHashDataSignature(const ToolsIsoHashInfo *info, const uint8_t *sig, size_t sigSize) {
  const uint64_t signedSize = info->size - info->header.signatureSize;
  return ToolsISO_VerifySignature(nullptr, sig, sigSize, info->data, signedSize);
}

struct HashInfoDeleter {
  void operator()(ToolsIsoHashInfo *p) const { ToolsISO_FreeHashInfo(p); }
};
using UniqueHashInfo = std::unique_ptr<ToolsIsoHashInfo, HashInfoDeleter>;

struct BufferDeleter {
  void operator()(uint8_t *p) const { free(p); }
};
using UniqueBuffer = std::unique_ptr<uint8_t, BufferDeleter>;

// An HTTP connection this code opened, closed with its log line.
class OwnedConnection {
 public:
  OwnedConnection(HttpConnection *given, const char *url) : conn_(given), url_(url) {}
  OwnedConnection(const OwnedConnection &) = delete;
  OwnedConnection &operator=(const OwnedConnection &) = delete;
  ~OwnedConnection() {
    if (owned_ && conn_ != nullptr) {
      HttpResult r = Http_Close(conn_);
      if (r != HTTP_OK) {
        Log("ToolsISO: Unable to close HTTP connection for '%s' (error=%d).\n", url_, r);
      }
    }
  }
  bool Open() {
    if (conn_ != nullptr) {
      return true;
    }
    HttpResult r = Http_Connect(url_, 4, 15000, &conn_);
    if (r != HTTP_OK) {
      conn_ = nullptr;
      Log("ToolsISO: Unable to connect to the server containing URL '%s' (error=%d).\n", url_, r);
      return false;
    }
    owned_ = true;
    return true;
  }
  HttpConnection *get() const { return conn_; }

 private:
  HttpConnection *conn_;
  const char *url_;
  bool owned_ = false;
};

// size bytes of url in a new buffer (one spare zero byte after them).
HttpResult Fetch(HttpConnection *conn, const char *url, uint64_t size, UniqueBuffer *out) {
  uint8_t *buffer = static_cast<uint8_t *>(malloc(static_cast<size_t>(size) + 1));
  if (buffer == nullptr) {
    return HTTP_ERR_NO_MEMORY;
  }
  out->reset(buffer);
  buffer[size] = 0;
  return Http_Read(conn, url, 0, buffer, static_cast<size_t>(size));
}

bool GetHttpHashInfo(HttpConnection *connection, const char *imageUrl, uint64_t imageSize,
                     bool required, ToolsIsoHashInfo **hashInfo) {
  OwnedConnection conn(connection, imageUrl);
  if (!conn.Open()) {
    return false;
  }
  UniqueText hashUrl = SiblingUrl(imageUrl, ".sha");
  uint64_t hashSize = 0;
  HttpResult r =
      hashUrl ? Http_GetFileSize(conn.get(), hashUrl.get(), &hashSize) : HTTP_ERR_INVALID_ARG;
  // Without a hash URL the lines name the image's.
  const char *hashName = hashUrl ? hashUrl.get() : imageUrl;
  if (r != HTTP_OK) {
    if (required) {
      Log("ToolsISO: Unable to get the size for hash '%s' (error=%d).\n", hashName, r);
      return false;
    }
    Log("ToolsISO: Unable to get the size for hash '%s' (error=%d), ignoring.\n", hashName, r);
    return true;
  }
  // The cap keeps a server's announced size from sizing our allocation.
  if (hashSize >= imageSize || hashSize > kMaxHashFileSize) {
    Log("ToolsISO: Hash file '%s' too big (%lu bytes).\n", hashName, hashSize);
    return false;
  }
  UniqueBuffer buffer;
  r = Fetch(conn.get(), hashName, hashSize, &buffer);
  if (r != HTTP_OK) {
    Log("ToolsISO: Unable to fetch hash '%s' (error=%d).\n", hashName, r);
    return false;
  }
  UniqueHashInfo info(ToolsISO_ParseHashData(buffer.get(), hashSize));
  if (!info) {
    Log("ToolsISO: Unable to parse the hash '%s'.\n", hashName);
    return false;
  }
  buffer.release();  // the record owns it now

  bool verified;
  if (info->header.signatureOffset != 0) {
    verified = VerifyHashDataSignature(info.get(), info->data + info->header.signatureOffset,
                                       info->header.signatureSize);
  } else {
    UniqueText sigUrl = SiblingUrl(imageUrl, ".sig");  // there is an ".iso": the hash URL has one
    uint64_t sigSize = 0;
    r = Http_GetFileSize(conn.get(), sigUrl.get(), &sigSize);
    if (r != HTTP_OK) {
      Log("ToolsISO: Unable to get the size for signature '%s' (error=%d).\n", sigUrl.get(), r);
      return false;
    }
    if (sigSize >= info->size - info->header.signatureSize) {
      Log("ToolsISO: Signature file '%s' is too big (%lu bytes).\n", sigUrl.get(), sigSize);
      return false;
    }
    UniqueBuffer sig;
    r = Fetch(conn.get(), sigUrl.get(), sigSize, &sig);
    if (r != HTTP_OK) {
      Log("ToolsISO: Unable to fetch signature '%s' (error=%d).\n", sigUrl.get(), r);
      return false;
    }
    verified = VerifyHashDataSignature(info.get(), sig.get(), static_cast<size_t>(sigSize));
  }
  if (!verified) {
    Log("ToolsISO: Signature verification failed for '%s'.\n", imageUrl);
    return false;
  }
  *hashInfo = info.release();
  return true;
}

}  // namespace

const CryptoHashImpl *ToolsISO_GetHashImpl(const char *name) {
  if (name == nullptr || strcmp(name, gp::kToolsIsoHashAlgo) != 0) {
    Log("ToolsISO: Unsupported hash algo '%s'\n", name != nullptr ? name : "(null)");
    return nullptr;
  }
  const CryptoHashImpl *impl = nullptr;
  CryptoError e = CryptoHash_FromString(name, &impl);
  if (e != CRYPTO_ERROR_SUCCESS) {
    Log("ToolsISO: %s (crypto error '%d')\n", CryptoError_ToString(e), static_cast<int>(e));
    return nullptr;
  }
  return impl;
}

ToolsIsoHashInfo *ToolsISO_ParseHashData(uint8_t *buffer, uint64_t size) {
  if (buffer == nullptr) {
    Log("ToolsISO: Error hashData is NULL.\n");
    return nullptr;
  }
  if (size == 0) {
    Log("ToolsISO: Error hashDataSize is 0.\n");
    return nullptr;
  }
  if (size <= gp::kToolsIsoMinMetadataLength) {
    Log("ToolsISO: Error hashDataSize is too small.\n");
    return nullptr;
  }
  ToolsIsoHashHeader header = gp::DecodeToolsIsoHashHeader(buffer);
  if (!CheckHeader(header, size)) {
    return nullptr;
  }
  auto *info = static_cast<ToolsIsoHashInfo *>(UtilSafeCalloc0(1, sizeof(ToolsIsoHashInfo)));
  info->header = header;
  info->data = buffer;
  info->size = size;
  return info;
}

void ToolsISO_FreeHashInfo(ToolsIsoHashInfo *hashInfo) {
  if (hashInfo != nullptr) {
    free(hashInfo->data);
    free(hashInfo);
  }
}

bool ToolsISO_VerifyHashes(const ToolsIsoHashInfo *hashInfo, uint64_t offset, const void *data,
                           size_t length, bool keepGoing) {
  if (hashInfo == nullptr || (data == nullptr && length != 0)) {
    return false;
  }
  const ToolsIsoHashHeader &h = hashInfo->header;
  char algo[sizeof h.hashAlgo + 1] = {};
  memcpy(algo, h.hashAlgo, sizeof h.hashAlgo);
  const CryptoHashImpl *impl = ToolsISO_GetHashImpl(algo);
  if (impl == nullptr) {
    Log("ToolsISO: Error failed to load hashImpl.\n");
    return false;
  }
  if (h.blockSize == 0 || offset % h.blockSize != 0) {
    Log("ToolsISO: Error offset %lu is not aligned to blockSize %u.\n", offset, h.blockSize);
    return false;
  }
  const uint64_t first = offset / h.blockSize;
  const uint64_t blocks = length / h.blockSize + (length % h.blockSize != 0);
  if (blocks > h.hashCount || first > h.hashCount - blocks) {
    size_t excess = static_cast<size_t>(first >= h.hashCount ? first - h.hashCount + blocks
                                                             : blocks - (h.hashCount - first));
    Log("ToolsISO: Error %zu blocks of unsigned data.\n", excess);
    return false;
  }
  if (length == 0) {
    return true;
  }
  // A record the parser did not build could place its table anywhere.
  const size_t hashSize = CryptoHash_GetOutputSize(impl);
  if (h.hashSize != hashSize || hashSize > kMaxHashSize || hashInfo->data == nullptr ||
      h.firstHashOffset > hashInfo->size ||
      h.hashCount > (hashInfo->size - h.firstHashOffset) / hashSize) {
    Log("ToolsISO: Error hashCount invalid.\n");
    return false;
  }

  const uint8_t *expected = hashInfo->data + h.firstHashOffset + first * hashSize;
  const uint8_t *bytes = static_cast<const uint8_t *>(data);
  bool good = true;
  for (size_t done = 0; done < length; done += h.blockSize, expected += hashSize) {
    const size_t piece = length - done < h.blockSize ? length - done : h.blockSize;
    uint8_t found[kMaxHashSize];
    CryptoError e = CryptoHash_Compute(impl, bytes + done, piece, found, sizeof found);
    if (e != CRYPTO_ERROR_SUCCESS) {
      Log("ToolsISO: Error %s (crypto error '%d').\n", CryptoError_ToString(e),
          static_cast<int>(e));
      return false;
    }
    if (memcmp(found, expected, hashSize) == 0) {
      continue;
    }
    const uint64_t at = offset + done;
    char expectedText[Base64_EncodedSize(kMaxHashSize)];
    char foundText[Base64_EncodedSize(kMaxHashSize)];
    const size_t textSize = (hashSize + 2) / 3 * 4 + 1;
    if (Base64_Encode(expected, hashSize, expectedText, textSize, nullptr) &&
        Base64_Encode(found, hashSize, foundText, textSize, nullptr)) {
      Log("ToolsISO: Error hash mismatch at offset 0x%lx, expected hash [%s], but found [%s]\n", at,
          expectedText, foundText);
    } else {
      Log("ToolsISO: Error hash mismatch at offset 0x%lx!\n", at);
    }
    if (!keepGoing) {
      return false;
    }
    good = false;
  }
  return good;
}

bool ToolsISO_GetLocalFileHashInfo(const char *imagePath, uint64_t imageSize, bool required,
                                   ToolsIsoHashInfo **hashInfo) {
  if (imagePath == nullptr || hashInfo == nullptr) {
    return false;
  }
  *hashInfo = nullptr;
  UniqueText realPath(ToolsISO_GetRealPath(imagePath));
  UniqueText hashPath(Str_SafeAsprintf(nullptr, "%s.sha", realPath.get()));
  uint8_t *raw = nullptr;
  size_t size = 0;
  if (!ToolsISO_ReadFile(hashPath.get(), &raw, &size)) {
    if (required) {
      Log("ToolsISO: Unable to read hash file %s.\n", hashPath.get());
      return false;
    }
    Log("ToolsISO: Unable to read hash file %s, ignoring.\n", hashPath.get());
    return true;
  }
  UniqueBuffer buffer(raw);
  if (size >= imageSize) {
    Log("ToolsISO: Hash file '%s' too big (%zu bytes).\n", hashPath.get(), size);
    return false;
  }
  UniqueHashInfo info(ToolsISO_ParseHashData(buffer.get(), size));
  if (!info) {
    Log("ToolsISO: Unable to parse the hash '%s'.\n", hashPath.get());
    return false;
  }
  buffer.release();  // the record owns it now

  bool verified;
  if (info->header.signatureOffset != 0) {
    verified = VerifyHashDataSignature(info.get(), info->data + info->header.signatureOffset,
                                       info->header.signatureSize);
  } else {
    UniqueText sigPath(Str_SafeAsprintf(nullptr, "%s.sig", realPath.get()));
    uint8_t *sigRaw = nullptr;
    size_t sigSize = 0;
    if (!ToolsISO_ReadFile(sigPath.get(), &sigRaw, &sigSize)) {
      Log("ToolsISO: Unable to read signature file '%s'.\n", sigPath.get());
      return false;
    }
    UniqueBuffer sig(sigRaw);
    if (sigSize >= info->size - info->header.signatureSize) {
      Log("ToolsISO: Signature file '%s' too big (%zu bytes).\n", sigPath.get(), sigSize);
      return false;
    }
    verified = VerifyHashDataSignature(info.get(), sig.get(), sigSize);
  }
  if (!verified) {
    Log("ToolsISO: Signature verification failed for '%s'.\n", realPath.get());
    return false;
  }
  *hashInfo = info.release();
  return true;
}

bool ToolsISO_GetHttpHashInfo(HttpConnection *connection, const char *imageUrl, uint64_t imageSize,
                              bool required, ToolsIsoHashInfo **hashInfo) {
  if (imageUrl == nullptr || hashInfo == nullptr) {
    return false;
  }
  *hashInfo = nullptr;
  return GetHttpHashInfo(connection, imageUrl, imageSize, required, hashInfo);
}

uint32_t ToolsISO_LocalFileOpen(const char *imagePath, bool required, ToolsIsoLocalFile **handle) {
  if (handle == nullptr) {
    return TOOLSISO_OPEN_FAILED;
  }
  *handle = nullptr;
  if (imagePath == nullptr) {
    Log("ToolsISO: Failed to open Tools ISO %s (FileIOResult=%d).\n", "(null)",
        FILEIO_INVALID_ARGUMENT);
    return TOOLSISO_OPEN_FAILED;
  }
  UniqueText realPath(ToolsISO_GetRealPath(imagePath));
  gp::ScopedFileIO file;
  // The path is canonical: a link swapped in after that is not followed.
  FileIOResult r = FileIO_Open(&file.fd, realPath.get(),
                               FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_ACCESS_NOFOLLOW, FILEIO_OPEN);
  if (r != FILEIO_SUCCESS) {
    Log("ToolsISO: Failed to open Tools ISO %s (FileIOResult=%d).\n", realPath.get(), r);
    return TOOLSISO_OPEN_FAILED;
  }
  const uint64_t size = FileIO_GetSize(&file.fd);
  if (size == kFileIOInvalidSize) {
    Log("ToolsISO: Failed to get the size of Tools ISO %s.\n", realPath.get());
    return TOOLSISO_OPEN_FAILED;
  }
  ToolsIsoHashInfo *hashInfo = nullptr;
  if (!ToolsISO_GetLocalFileHashInfo(realPath.get(), size, required, &hashInfo)) {
    return TOOLSISO_OPEN_BAD_HASHES;
  }
  *handle = gp::AdoptToolsIsoLocalFile(&file.fd, size, hashInfo);
  return TOOLSISO_OPEN_OK;
}

ToolsIsoLocalFile *gp::AdoptToolsIsoLocalFile(FileIODescriptor *file, uint64_t size,
                                              ToolsIsoHashInfo *hashInfo) {
  auto *local = new ToolsIsoLocalFile;
  local->file = *file;
  FileIO_Invalidate(file);  // the handle owns the descriptor now
  local->size = size;
  local->hashInfo = hashInfo;
  return local;
}

namespace {

enum class ReadOutcome { kOk, kIoError, kMismatch };

// Reads count bytes at offset into buffer, checked. Whole blocks are read
// into buffer and checked there; a block the read starts or ends inside
// (the ISO reader reads records and file tails at any offset) is read
// whole into a block of scratch, checked, and its part copied out, so every
// byte handed out was hashed with the rest of its block.
ReadOutcome ReadChecked(ToolsIsoLocalFile *local, uint8_t *buffer, size_t count, uint64_t offset) {
  const ToolsIsoHashInfo *hashInfo = local->hashInfo;
  if (hashInfo == nullptr) {
    return FileIO_Pread(&local->file, buffer, count, offset) == FILEIO_SUCCESS
               ? ReadOutcome::kOk
               : ReadOutcome::kIoError;
  }
  const uint32_t blockSize = hashInfo->header.blockSize;  // 512 to 4096: checked on load
  uint8_t scratch[gp::kToolsIsoMaxBlockSize];
  for (uint64_t pos = offset; count > 0;) {
    const size_t in = static_cast<size_t>(pos % blockSize);
    const bool toEnd = local->size - pos == count;
    size_t n;
    if (in != 0 || (count < blockSize && !toEnd)) {
      const uint64_t from = pos - in;
      const size_t whole = static_cast<size_t>(std::min<uint64_t>(blockSize, local->size - from));
      if (FileIO_Pread(&local->file, scratch, whole, from) != FILEIO_SUCCESS) {
        return ReadOutcome::kIoError;
      }
      if (!ToolsISO_VerifyHashes(hashInfo, from, scratch, whole, false)) {
        return ReadOutcome::kMismatch;
      }
      n = std::min(count, whole - in);
      memcpy(buffer, scratch + in, n);
    } else {
      n = toEnd ? count : count - count % blockSize;
      if (FileIO_Pread(&local->file, buffer, n, pos) != FILEIO_SUCCESS) {
        return ReadOutcome::kIoError;
      }
      if (!ToolsISO_VerifyHashes(hashInfo, pos, buffer, n, false)) {
        return ReadOutcome::kMismatch;
      }
    }
    buffer += n;
    pos += n;
    count -= n;
  }
  return ReadOutcome::kOk;
}

}  // namespace

bool ToolsISO_LocalFileReadCB(void *handle, void *buffer, size_t length, uint64_t offset,
                              size_t *bytesRead) {
  auto *local = static_cast<ToolsIsoLocalFile *>(handle);
  if (local == nullptr || (buffer == nullptr && length != 0)) {
    return false;
  }
  size_t count = 0;
  if (offset < local->size) {
    count = local->size - offset < length ? static_cast<size_t>(local->size - offset) : length;
  }
  if (bytesRead == nullptr && count != length) {
    return false;  // a short read is a failure: nothing is read
  }
  if (bytesRead != nullptr) {
    *bytesRead = 0;
  }
  if (count == 0) {
    return true;
  }
  const ReadOutcome outcome = ReadChecked(local, static_cast<uint8_t *>(buffer), count, offset);
  if (outcome != ReadOutcome::kOk) {
    if (outcome == ReadOutcome::kMismatch) {
      Log("ToolsISO: Invalid data at offset %lx (bytes %zu)\n", offset, count);
    }
    // What failed its hashes does not stay where a careless caller would use it.
    memset(buffer, 0, count);
    return false;
  }
  if (bytesRead != nullptr) {
    *bytesRead = count;
  }
  return true;
}

bool ToolsISO_LocalFileIsoReadCB(void *handle, void *buffer, size_t length, uint64_t offset) {
  return ToolsISO_LocalFileReadCB(handle, buffer, length, offset, nullptr);
}

bool ToolsISO_LocalFileCloseCB(void *handle) {
  auto *local = static_cast<ToolsIsoLocalFile *>(handle);
  if (local == nullptr) {
    return false;
  }
  bool closed = FileIO_Close(&local->file) == FILEIO_SUCCESS;
  ToolsISO_FreeHashInfo(local->hashInfo);
  delete local;
  return closed;
}
