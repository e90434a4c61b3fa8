#include "platform/crypto/cryptoHash.h"

#include <openssl/evp.h>

#include <cstring>

namespace {

// Fetched once: an implicit fetch on every Init would look the method up
// again each time.
const EVP_MD *Sha256() {
  static EVP_MD *const md = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  return md;
}

}  // namespace

CryptoHashContext::~CryptoHashContext() {
  CryptoHash_Release(this);
}

CryptoError CryptoHash_InitSHA256(CryptoHashContext *ctx) {
  if (ctx == nullptr) {
    return CRYPTO_ERROR_BAD_PARAMETER;
  }
  if (ctx->evp == nullptr) {
    ctx->evp = EVP_MD_CTX_new();
  }
  const EVP_MD *md = Sha256();
  return ctx->evp != nullptr && md != nullptr && EVP_DigestInit_ex2(ctx->evp, md, nullptr) == 1
             ? CRYPTO_ERROR_SUCCESS
             : CRYPTO_ERROR_OPERATION_FAILED;
}

CryptoError CryptoHash_UpdateSHA256(CryptoHashContext *ctx, const void *bytes, size_t length) {
  if (ctx == nullptr || ctx->evp == nullptr || (bytes == nullptr && length != 0)) {
    return CRYPTO_ERROR_BAD_PARAMETER;
  }
  return EVP_DigestUpdate(ctx->evp, bytes, length) == 1 ? CRYPTO_ERROR_SUCCESS
                                                        : CRYPTO_ERROR_OPERATION_FAILED;
}

CryptoError CryptoHash_FinalSHA256(CryptoHashContext *ctx, uint8_t digest[kCryptoHashSHA256Size]) {
  if (ctx == nullptr || ctx->evp == nullptr || digest == nullptr) {
    return CRYPTO_ERROR_BAD_PARAMETER;
  }
  unsigned int size = 0;
  return EVP_DigestFinal_ex(ctx->evp, digest, &size) == 1 && size == kCryptoHashSHA256Size
             ? CRYPTO_ERROR_SUCCESS
             : CRYPTO_ERROR_OPERATION_FAILED;
}

void CryptoHash_Release(CryptoHashContext *ctx) {
  if (ctx != nullptr) {
    // The digest's own state is cleared as libcrypto frees it.
    EVP_MD_CTX_free(ctx->evp);
    ctx->evp = nullptr;
  }
}

struct CryptoHashImpl {
  const char *name;     // the name callers use
  const char *evpName;  // libcrypto's
  size_t outputSize;
};

namespace {

constexpr CryptoHashImpl kHashImpls[] = {
    {"SHA-256", "SHA2-256", 32},
    {"SHA-1", "SHA1", 20},
    {"SHA-384", "SHA2-384", 48},
    {"SHA-512", "SHA2-512", 64},
};
constexpr size_t kHashImplCount = sizeof kHashImpls / sizeof kHashImpls[0];

// The methods, fetched together on first use and kept for the process.
const EVP_MD *Method(const CryptoHashImpl *impl) {
  struct Methods {
    EVP_MD *md[kHashImplCount];
    Methods() {
      for (size_t i = 0; i < kHashImplCount; ++i) {
        md[i] = EVP_MD_fetch(nullptr, kHashImpls[i].evpName, nullptr);
      }
    }
  };
  static const Methods methods;
  for (size_t i = 0; i < kHashImplCount; ++i) {
    if (impl == &kHashImpls[i]) {
      return methods.md[i];
    }
  }
  return nullptr;
}

// One context per thread for the one-shot calls: a new context per call
// would cost an allocation per hashed block.
struct ThreadContext {
  EVP_MD_CTX *ctx = EVP_MD_CTX_new();
  ~ThreadContext() { EVP_MD_CTX_free(ctx); }
};

}  // namespace

CryptoError CryptoHash_FromString(const char *name, const CryptoHashImpl **impl) {
  if (name == nullptr || impl == nullptr) {
    return CRYPTO_ERROR_BAD_PARAMETER;
  }
  for (const CryptoHashImpl &candidate : kHashImpls) {
    if (strcmp(candidate.name, name) == 0) {
      if (Method(&candidate) == nullptr) {
        return CRYPTO_ERROR_OPERATION_FAILED;
      }
      *impl = &candidate;
      return CRYPTO_ERROR_SUCCESS;
    }
  }
  return CRYPTO_ERROR_UNKNOWN_ALGORITHM;
}

size_t CryptoHash_GetOutputSize(const CryptoHashImpl *impl) {
  return impl != nullptr ? impl->outputSize : 0;
}

CryptoError CryptoHash_Compute(const CryptoHashImpl *impl, const void *input, size_t inputSize,
                               void *output, size_t outputSize) {
  const EVP_MD *md = impl != nullptr ? Method(impl) : nullptr;
  if (md == nullptr || output == nullptr || (input == nullptr && inputSize != 0)) {
    return CRYPTO_ERROR_BAD_PARAMETER;
  }
  if (outputSize < impl->outputSize) {
    return CRYPTO_ERROR_OUTPUT_TOO_SMALL;
  }
  thread_local ThreadContext local;
  unsigned int size = 0;
  return local.ctx != nullptr && EVP_DigestInit_ex2(local.ctx, md, nullptr) == 1 &&
                 EVP_DigestUpdate(local.ctx, input, inputSize) == 1 &&
                 EVP_DigestFinal_ex(local.ctx, static_cast<unsigned char *>(output), &size) == 1 &&
                 size == impl->outputSize
             ? CRYPTO_ERROR_SUCCESS
             : CRYPTO_ERROR_OPERATION_FAILED;
}

const char *CryptoError_ToString(CryptoError error) {
  switch (error) {
    case CRYPTO_ERROR_SUCCESS:
      return "success";
    case CRYPTO_ERROR_OPERATION_FAILED:
      return "operation failed";
    case CRYPTO_ERROR_BAD_PARAMETER:
      return "bad parameter";
    case CRYPTO_ERROR_UNKNOWN_ALGORITHM:
      return "unknown algorithm";
    case CRYPTO_ERROR_OUTPUT_TOO_SMALL:
      return "output buffer too small";
  }
  return "unknown error";
}
