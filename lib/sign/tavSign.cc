/*
 * Signature verification: PEM PKCS#7 structures checked with OpenSSL against
 * the maker's and the partner's certificate stores.
 *
 * Both stores are built afresh for every verification from the certificate
 * directory, so replacing a bundle or revocation list takes effect on the
 * next call and nothing is shared between threads. A present revocation
 * list file, even an empty one, turns on revocation checking for the whole
 * chain; the verification callback then decides which chain errors matter.
 */
#include "guestprep/tavsign.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>

#include "lib/sign/tavSignInternal.h"

#ifndef GUESTPREP_CERT_DIR
#define GUESTPREP_CERT_DIR "/usr/share/certs"
#endif

namespace {

constexpr char kMakerBundle[] = "brimle.cert";
constexpr char kMakerCrl[] = "brimle.crl";
constexpr char kPartnerBundle[] = "brmpartner.cert";
constexpr char kPartnerCrl[] = "brmpartner.crl";

constexpr char kLoadFailed[] = "Unable to load PKCS7 certificate.";
constexpr char kVerifyFailed[] = "Unable to verify PKCS7 signature.";
constexpr char kOutOfMemory[] = "out of memory";
constexpr char kTooSmall[] = "Data buffer too small.";
// OpenSSL takes buffer lengths as int; a longer buffer is no signature.
constexpr char kTooLarge[] = "Data buffer too large.";
constexpr char kBadArgument[] = "Invalid argument.";

template <auto Free>
struct OpenSslDeleter {
  template <typename T>
  void operator()(T *p) const {
    Free(p);
  }
};
using Bio = std::unique_ptr<BIO, OpenSslDeleter<BIO_free>>;
using Store = std::unique_ptr<X509_STORE, OpenSslDeleter<X509_STORE_free>>;
using Crl = std::unique_ptr<X509_CRL, OpenSslDeleter<X509_CRL_free>>;
// The stack borrows its certificates from the structure.
struct CertStackDeleter {
  void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
};
using CertStack = std::unique_ptr<STACK_OF(X509), CertStackDeleter>;

std::string CertFile(const char *name) {
  std::string path = GUESTPREP_CERT_DIR;
  if (!path.empty() && path.back() != '/') {
    path += '/';
  }
  return path + name;
}

// The reason of the oldest queued OpenSSL error, taken off the queue.
// Callers clear the queue first, so the reason is their own call's.
std::string OpenSslReason(const char *fallback) {
  unsigned long code = ERR_get_error();
  if (code == 0) {
    return fallback;
  }
  if (const char *reason = ERR_reason_error_string(code)) {
    return reason;
  }
  // OpenSSL 3 keeps no reason text for a failed system call (a file that
  // cannot be opened); the C library's text for its errno says the same.
  if (ERR_SYSTEM_ERROR(code)) {
    return std::error_code(ERR_GET_REASON(code), std::generic_category()).message();
  }
  char text[256];
  ERR_error_string_n(code, text, sizeof text);
  return text;
}

void ClearError(char **slot) {
  if (slot != nullptr) {
    *slot = nullptr;
  }
}

// Fills an optional error slot: a malloc'd copy of text, or null for none.
void SetError(char **slot, const char *text) {
  if (slot != nullptr) {
    *slot = *text == '\0' ? nullptr : strdup(text);
  }
}

// Signatures carry no encrypted PEM; refusing a password keeps OpenSSL from
// prompting on a terminal when a hostile file claims to be encrypted.
int NoPassword(char *, int, int, void *) {
  return -1;
}

PKCS7 *ReadPkcs7(BIO *bio, char **error) {
  PKCS7 *pkcs7 = PEM_read_bio_PKCS7(bio, nullptr, NoPassword, nullptr);
  if (pkcs7 == nullptr) {
    SetError(error, OpenSslReason(kLoadFailed).c_str());
  }
  return pkcs7;
}

// A store trusting the certificates of the PEM bundle at path. A bundle that
// cannot be loaded leaves the store empty, so nothing verifies against it.
Store TavSignLoadStore(const char *path) {
  Store store(X509_STORE_new());
  if (!store) {
    return nullptr;
  }
  if (X509_LOOKUP *file = X509_STORE_add_lookup(store.get(), X509_LOOKUP_file())) {
    int loaded = path != nullptr ? X509_LOOKUP_load_file(file, path, X509_FILETYPE_PEM)
                                 : X509_LOOKUP_load_file(file, nullptr, X509_FILETYPE_DEFAULT);
    if (!loaded) {
      return store;
    }
  }
  if (X509_LOOKUP *dir = X509_STORE_add_lookup(store.get(), X509_LOOKUP_hash_dir())) {
    X509_LOOKUP_add_dir(dir, nullptr, X509_FILETYPE_DEFAULT);
  }
  return store;
}

// Adds the PEM revocation lists of the file at path to store and, when the
// file exists, turns on revocation checking (whole chain) and policy
// checking. A missing file is not an error.
bool TavSignLoadCrl(X509_STORE *store, const char *path, std::string &error) {
  Bio bio(BIO_new(BIO_s_file()));
  if (!bio) {
    error = "error creating bio in TavSignLoadCrl\n";
    return false;
  }
  if (BIO_read_filename(bio.get(), path) <= 0) {
    error.clear();
    return true;
  }
  while (Crl crl{PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr)}) {
    if (!X509_STORE_add_crl(store, crl.get())) {
      error = "unable to add CRL\n";
      return false;
    }
  }
  // Running out of PEM blocks ends the file; any other failure is damage.
  if (ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE) {
    error = "CRL appears to be corrupted\n";
    return false;
  }
  ERR_clear_error();
  X509_VERIFY_PARAM_set_flags(X509_STORE_get0_param(store), X509_V_FLAG_CRL_CHECK |
                                                                X509_V_FLAG_CRL_CHECK_ALL |
                                                                X509_V_FLAG_POLICY_CHECK);
  error.clear();
  return true;
}

// Chain errors that make a signature untrusted: a missing or untrusted
// issuer, a broken signature on a certificate or list, a revocation. Time
// errors, missing lists, chain length, path length and purpose are let
// through, so an expired signing certificate still verifies. The numbers are
// OpenSSL 3's.
constexpr int kRejectedChainErrors[] = {
    X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT,           // 2
    X509_V_ERR_UNABLE_TO_DECRYPT_CERT_SIGNATURE,    // 4
    X509_V_ERR_UNABLE_TO_DECRYPT_CRL_SIGNATURE,     // 5
    X509_V_ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY,  // 6
    X509_V_ERR_CERT_SIGNATURE_FAILURE,              // 7
    X509_V_ERR_CRL_SIGNATURE_FAILURE,               // 8
    X509_V_ERR_OUT_OF_MEM,                          // 17
    X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT,         // 18
    X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN,           // 19
    X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY,   // 20
    X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE,     // 21
    X509_V_ERR_CERT_REVOKED,                        // 23
    X509_V_ERR_CERT_UNTRUSTED,                      // 27
    X509_V_ERR_CERT_REJECTED,                       // 28
    X509_V_ERR_INVALID_CA,                          // 79
};
static_assert(X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT == 2 && X509_V_ERR_CERT_REVOKED == 23 &&
                  X509_V_ERR_CERT_CHAIN_TOO_LONG == 22 && X509_V_ERR_INVALID_CA == 79,
              "verification error numbers differ from OpenSSL 3's");

// The deepest chain position whose failure is reported as itself; beyond
// it OpenSSL reports "certificate chain too long" instead.
constexpr int kMaxReportedDepth = 4;

int TavSignVerifyCallback(int ok, X509_STORE_CTX *ctx) {
  const int code = X509_STORE_CTX_get_error(ctx);
  const int depth = X509_STORE_CTX_get_error_depth(ctx);
  if (ok == 0) {
    X509_STORE_CTX_set_error(
        ctx, depth <= kMaxReportedDepth ? X509_V_OK : X509_V_ERR_CERT_CHAIN_TOO_LONG);
  }
  const bool rejected = std::find(std::begin(kRejectedChainErrors), std::end(kRejectedChainErrors),
                                  code) != std::end(kRejectedChainErrors);
  return rejected ? 0 : 1;
}

TavSignResult VerifyWithStores(PKCS7 *pkcs7, BIO *detached, const char *certPath,
                               X509_STORE *callerStore, std::string &error) {
  TavSignResult result;
  Bio sink(BIO_new(BIO_s_mem()));
  if (!sink) {
    error = kOutOfMemory;
    return result;
  }

  Store ownMaker;
  X509_STORE *maker = callerStore;
  if (maker == nullptr) {
    ownMaker = TavSignLoadStore(certPath != nullptr ? certPath : CertFile(kMakerBundle).c_str());
    maker = ownMaker.get();
  }
  Store partner = TavSignLoadStore(CertFile(kPartnerBundle).c_str());
  if (maker == nullptr || !partner) {
    error = kOutOfMemory;
    return result;
  }
  if (!TavSignLoadCrl(maker, CertFile(kMakerCrl).c_str(), error) ||
      !TavSignLoadCrl(partner.get(), CertFile(kPartnerCrl).c_str(), error)) {
    return result;
  }
  X509_STORE_set_verify_cb(maker, TavSignVerifyCallback);
  X509_STORE_set_verify_cb(partner.get(), TavSignVerifyCallback);

  result.status = TAVSIGN_INVALID_CERT;
  // Every check reads the detached data from its start, whether or not an
  // earlier one got as far as reading it before failing.
  auto verify = [&](STACK_OF(X509) * certs, X509_STORE * store, int flags) {
    if (detached != nullptr) {
      BIO_reset(detached);
    }
    return PKCS7_verify(pkcs7, certs, store, detached, sink.get(), flags) == 1;
  };
  STACK_OF(PKCS7_SIGNER_INFO) *signers = PKCS7_get_signer_info(pkcs7);
  const int count = signers != nullptr ? sk_PKCS7_SIGNER_INFO_num(signers) : 0;
  for (int i = 0; i < count; i++) {
    // The signer's own certificate, when the structure carries it.
    CertStack certs(sk_X509_new_null());
    X509 *cert = PKCS7_cert_from_signer_info(pkcs7, sk_PKCS7_SIGNER_INFO_value(signers, i));
    if (certs && cert != nullptr) {
      sk_X509_push(certs.get(), cert);
    }
    if (verify(certs.get(), maker, PKCS7_BINARY)) {
      result.status = TAVSIGN_BRM_SIGNED;
      break;
    }
    if (verify(certs.get(), partner.get(), PKCS7_BINARY)) {
      result.status = TAVSIGN_PARTNER_SIGNED;
      break;
    }
    // Sound but untrusted: no later signer changes the answer.
    if (verify(nullptr, nullptr, PKCS7_BINARY | PKCS7_NOVERIFY)) {
      break;
    }
  }
  return result;
}

}  // namespace

const char *TavSignCertDir() {
  return GUESTPREP_CERT_DIR;
}

TavSignResult TavSignVerify(PKCS7 *pkcs7, BIO *detached, const char *certPath,
                            X509_STORE *callerStore, std::string &error) {
  error.clear();
  try {
    return VerifyWithStores(pkcs7, detached, certPath, callerStore, error);
  } catch (...) {
    error = kOutOfMemory;
    return TavSignResult{};
  }
}

PKCS7 *TavSign_GetPKCS7FromRawBuffer(const void *buffer, uint32_t length, char **error) {
  ClearError(error);
  ERR_clear_error();
  try {
    if (length > INT_MAX) {
      SetError(error, kTooLarge);
      return nullptr;
    }
    Bio bio(BIO_new_mem_buf(buffer, static_cast<int>(length)));
    if (!bio) {
      SetError(error, OpenSslReason(kLoadFailed).c_str());
      return nullptr;
    }
    return ReadPkcs7(bio.get(), error);
  } catch (...) {
    SetError(error, kOutOfMemory);
    return nullptr;
  }
}

PKCS7 *TavSign_GetPKCS7FromFile(const char *path, char **error) {
  ClearError(error);
  ERR_clear_error();
  try {
    if (path == nullptr) {
      SetError(error, kLoadFailed);
      return nullptr;
    }
    Bio bio(BIO_new_file(path, "r"));
    if (!bio) {
      SetError(error, OpenSslReason(kLoadFailed).c_str());
      return nullptr;
    }
    return ReadPkcs7(bio.get(), error);
  } catch (...) {
    SetError(error, kOutOfMemory);
    return nullptr;
  }
}

bool TavSign_GetDigestFromPKCS7(PKCS7 *pkcs7, uint8_t **content, uint32_t *length, char **error) {
  ClearError(error);
  ERR_clear_error();
  if (content != nullptr) {
    *content = nullptr;
  }
  if (length != nullptr) {
    *length = 0;
  }
  try {
    if (content == nullptr || length == nullptr) {
      SetError(error, kBadArgument);
      return false;
    }
    Bio sink(BIO_new(BIO_s_mem()));
    if (!sink || PKCS7_verify(pkcs7, nullptr, nullptr, nullptr, sink.get(),
                              PKCS7_BINARY | PKCS7_NOVERIFY) != 1) {
      SetError(error, OpenSslReason(kVerifyFailed).c_str());
      return false;
    }
    char *data = nullptr;
    long size = BIO_get_mem_data(sink.get(), &data);
    if (size < 0 || static_cast<unsigned long>(size) >= UINT32_MAX) {
      SetError(error, kTooLarge);
      return false;
    }
    auto *copy = static_cast<uint8_t *>(malloc(static_cast<size_t>(size) + 1));
    if (copy == nullptr) {
      // Verified, but there is nowhere to put the content.
      return true;
    }
    if (size > 0) {
      memcpy(copy, data, static_cast<size_t>(size));
    }
    copy[size] = 0;
    *content = copy;
    *length = static_cast<uint32_t>(size);
    return true;
  } catch (...) {
    SetError(error, kOutOfMemory);
    return false;
  }
}

bool TavSign_IsSignatureValid(PKCS7 *pkcs7, char **error) {
  std::string text;
  TavSignResult result = TavSignVerify(pkcs7, nullptr, nullptr, nullptr, text);
  SetError(error, text.c_str());
  if (!text.empty()) {
    return false;
  }
  return result.status == TAVSIGN_BRM_SIGNED || result.status == TAVSIGN_PARTNER_SIGNED;
}

bool TavSign_IsBrmSignatureValid(PKCS7 *pkcs7, const void *data, size_t dataLength,
                                 const char *certPath, X509_STORE *store, char **error) {
  ClearError(error);
  ERR_clear_error();
  if (dataLength == 0) {
    SetError(error, kTooSmall);
    return false;
  }
  try {
    if (dataLength > INT_MAX) {
      SetError(error, kTooLarge);
      return false;
    }
    Bio source(BIO_new_mem_buf(data, static_cast<int>(dataLength)));
    if (!source) {
      SetError(error, OpenSslReason(kOutOfMemory).c_str());
      return false;
    }
    std::string text;
    TavSignResult result = TavSignVerify(pkcs7, source.get(), certPath, store, text);
    SetError(error, text.c_str());
    return text.empty() && result.status == TAVSIGN_BRM_SIGNED;
  } catch (...) {
    SetError(error, kOutOfMemory);
    return false;
  }
}

const char *TavSign_StatusToString(TavSignStatus status) {
  static constexpr const char *kTexts[] = {
      "Error",    "Brimle Signed",  "Partner Signed",
      "Unsigned", "Invalid Digest", "Invalid Certificate",
  };
  return status < std::size(kTexts) ? kTexts[status] : kTexts[TAVSIGN_ERROR];
}
