// libcrypto's SHA256_* functions are deprecated in OpenSSL 3 in favour of
// EVP, but they are the allocation-free interface to the same block code;
// the header says why that matters here.
#define OPENSSL_SUPPRESS_DEPRECATED 1

#include "platform/crypto/cryptoHash.h"

#include <openssl/crypto.h>
#include <openssl/sha.h>

namespace {

static_assert(sizeof(SHA256_CTX) <= sizeof(CryptoHashContext::state) &&
                  alignof(SHA256_CTX) <= alignof(CryptoHashContext),
              "CryptoHashContext::state must hold libcrypto's SHA-256 state");

SHA256_CTX *State(CryptoHashContext *ctx) {
  return reinterpret_cast<SHA256_CTX *>(ctx->state);
}

}  // namespace

CryptoHashContext::~CryptoHashContext() {
  CryptoHash_Release(this);
}

CryptoError CryptoHash_InitSHA256(CryptoHashContext *ctx) {
  if (ctx == nullptr) {
    return CRYPTO_ERROR_BAD_PARAMETER;
  }
  return SHA256_Init(State(ctx)) == 1 ? CRYPTO_ERROR_SUCCESS : CRYPTO_ERROR_OPERATION_FAILED;
}

CryptoError CryptoHash_UpdateSHA256(CryptoHashContext *ctx, const void *bytes, size_t length) {
  if (ctx == nullptr || (bytes == nullptr && length != 0)) {
    return CRYPTO_ERROR_BAD_PARAMETER;
  }
  return SHA256_Update(State(ctx), bytes, length) == 1 ? CRYPTO_ERROR_SUCCESS
                                                       : CRYPTO_ERROR_OPERATION_FAILED;
}

CryptoError CryptoHash_FinalSHA256(CryptoHashContext *ctx, uint8_t digest[kCryptoHashSHA256Size]) {
  if (ctx == nullptr || digest == nullptr) {
    return CRYPTO_ERROR_BAD_PARAMETER;
  }
  return SHA256_Final(digest, State(ctx)) == 1 ? CRYPTO_ERROR_SUCCESS
                                               : CRYPTO_ERROR_OPERATION_FAILED;
}

void CryptoHash_Release(CryptoHashContext *ctx) {
  if (ctx != nullptr) {
    OPENSSL_cleanse(ctx->state, sizeof ctx->state);
  }
}
