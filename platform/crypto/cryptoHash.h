/*
 * Host hashing over OpenSSL's libcrypto: streaming SHA-256 (FIPS 180-4).
 *
 * A CryptoHashContext carries one digest computation at a time over
 * libcrypto's EVP interface, whose SHA-256 uses the CPU's SHA instructions
 * where there are any. The digest method is fetched once per process and
 * the EVP context is made on first use and reused, so a caller hashing
 * thousands of short messages (the password hash runs one digest per
 * round) keeps one context for all of them.
 *
 * Declare a context, Init it, and reuse it for as many computations as
 * needed. Its state may hold secret input: the destructor wipes and frees
 * it, and procedural code that keeps a context in longer-lived memory calls
 * CryptoHash_Release when done with it.
 *
 * Errors come back as CryptoError values, never as exceptions or log
 * lines: the callers decide what a failed hash means for them. After a
 * failed call the context must be initialised again before further use.
 * A context is used by one thread at a time; different contexts are
 * independent.
 */
#ifndef GUESTPREP_PLATFORM_CRYPTOHASH_H
#define GUESTPREP_PLATFORM_CRYPTOHASH_H

#include <cstddef>
#include <cstdint>

/* Outcome of a hashing call. New values are only ever appended. */
enum CryptoError {
  CRYPTO_ERROR_SUCCESS = 0,
  CRYPTO_ERROR_OPERATION_FAILED = 1,  /* libcrypto refused the operation */
  CRYPTO_ERROR_BAD_PARAMETER = 2,     /* a null pointer where data was needed */
  CRYPTO_ERROR_UNKNOWN_ALGORITHM = 3, /* no implementation by that name */
  CRYPTO_ERROR_OUTPUT_TOO_SMALL = 4,  /* the output cannot hold the digest */
};

struct evp_md_ctx_st;

/* Size in bytes of a SHA-256 digest. */
constexpr size_t kCryptoHashSHA256Size = 32;

/* One digest computation's state; Init before first use. Not copyable:
 * copies of secret state are easy to forget to wipe. */
struct CryptoHashContext {
  evp_md_ctx_st *evp = nullptr;  // made by the first Init

  CryptoHashContext() = default;
  CryptoHashContext(const CryptoHashContext &) = delete;
  CryptoHashContext &operator=(const CryptoHashContext &) = delete;
  ~CryptoHashContext();
};

/* Starts a new SHA-256 computation in ctx, discarding whatever it held. */
CryptoError CryptoHash_InitSHA256(CryptoHashContext *ctx);

/* Feeds length bytes. bytes may be null when length is 0. */
CryptoError CryptoHash_UpdateSHA256(CryptoHashContext *ctx, const void *bytes, size_t length);

/* Writes the 32-byte digest of everything fed since Init to digest. The
 * context then needs a new Init before it hashes again. */
CryptoError CryptoHash_FinalSHA256(CryptoHashContext *ctx, uint8_t digest[kCryptoHashSHA256Size]);

/* Wipes and frees the context's state; it needs a new Init before further
 * use. Safe on null. */
void CryptoHash_Release(CryptoHashContext *ctx);

/*
 * One-shot hashing by algorithm name, for callers that learn the algorithm
 * from data (a file header names it). A CryptoHashImpl is a process-wide
 * constant: look it up once, use it from any thread, never free it. Each
 * thread keeps one digest context for the one-shot calls, so hashing many
 * small blocks allocates nothing per call.
 */
struct CryptoHashImpl;

/* The implementation of the named algorithm into *impl: "SHA-256" (also
 * "SHA-1", "SHA-384", "SHA-512"). CRYPTO_ERROR_UNKNOWN_ALGORITHM for any
 * other name. */
CryptoError CryptoHash_FromString(const char *name, const CryptoHashImpl **impl);

/* Size in bytes of the algorithm's digest; 0 for null. */
size_t CryptoHash_GetOutputSize(const CryptoHashImpl *impl);

/* Hashes inputSize bytes of input into output, which holds outputSize
 * bytes (at least the digest size; only the digest is written). */
CryptoError CryptoHash_Compute(const CryptoHashImpl *impl, const void *input, size_t inputSize,
                               void *output, size_t outputSize);

/* Short English text of an error ("unknown algorithm"...). Constant. */
const char *CryptoError_ToString(CryptoError error);

#endif
