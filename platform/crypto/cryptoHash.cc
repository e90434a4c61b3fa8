#include "platform/crypto/cryptoHash.h"

#include <openssl/evp.h>

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
