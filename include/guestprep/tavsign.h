/*
 * guestprep signatures: whether data was signed by the maker (or a
 * registered partner). Signatures are PEM PKCS#7 signed-data structures,
 * verified with OpenSSL against the maker's and the partner's certificate
 * bundles and revocation lists, read afresh at every verification from the
 * certificate directory fixed when the library was built (by default
 * /usr/share/certs): "brimle.cert", "brimle.crl", "brmpartner.cert",
 * "brmpartner.crl". A missing bundle or revocation list is not an error:
 * nothing verifies against an empty store, and revocation checking is on
 * only while a revocation list file exists.
 *
 * Functions that can fail take an error slot: on failure it receives a new
 * English text (release with free()), often OpenSSL's reason string. An
 * empty slot means no set-up step failed, not that a signature is good.
 * PKCS7 and X509_STORE are OpenSSL's types. No state is kept between
 * calls; calls from several threads are independent.
 */
#ifndef GUESTPREP_TAVSIGN_H
#define GUESTPREP_TAVSIGN_H

#include "guestprep/common.h"

typedef struct pkcs7_st PKCS7;
typedef struct x509_store_st X509_STORE;

GUESTPREP_EXTERN_C_BEGIN

/* The outcome of one verification. Verification produces only ERROR,
 * BRM_SIGNED, PARTNER_SIGNED and INVALID_CERT. */
typedef uint32_t TavSignStatus;
enum {
  TAVSIGN_ERROR = 0,
  TAVSIGN_BRM_SIGNED = 1,
  TAVSIGN_PARTNER_SIGNED = 2,
  TAVSIGN_UNSIGNED = 3,
  TAVSIGN_INVALID_DIGEST = 4,
  TAVSIGN_INVALID_CERT = 5,
};

/* One PEM PKCS#7 structure from a buffer or a file; null on failure with
 * the reason in *error (error may be null). Release with PKCS7_free(). */
GUESTPREP_API PKCS7 *TavSign_GetPKCS7FromRawBuffer(const void *buffer, uint32_t length,
                                                   char **error);
GUESTPREP_API PKCS7 *TavSign_GetPKCS7FromFile(const char *path, char **error);

/* The content an enveloping (not detached) structure carries, its
 * signature checked but not its certificate chain: a new buffer of
 * *length + 1 bytes ending in a zero byte. False, with *content null,
 * *length 0 and the reason in *error (error may be null), when the
 * signature does not verify. */
GUESTPREP_API bool TavSign_GetDigestFromPKCS7(PKCS7 *pkcs7, uint8_t **content, uint32_t *length,
                                              char **error);

/* Whether the structure (content inside it) is signed by the maker or a
 * partner. error is required. */
GUESTPREP_API bool TavSign_IsSignatureValid(PKCS7 *pkcs7, char **error);

/* Whether the structure is the maker's signature over data (detached):
 * partner signatures do not count here. certPath (may be null) names a PEM
 * bundle used instead of the maker's; store (may be null) is a
 * caller-owned store used instead of loading one. error is required; a
 * dataLength of 0 fails with "Data buffer too small.". */
GUESTPREP_API bool TavSign_IsBrmSignatureValid(PKCS7 *pkcs7, const void *data, size_t dataLength,
                                               const char *certPath, X509_STORE *store,
                                               char **error);

/* "Error", "Brimle Signed", "Partner Signed", "Unsigned", "Invalid Digest",
 * "Invalid Certificate"; "Error" for any other value. Constant text. */
GUESTPREP_API const char *TavSign_StatusToString(TavSignStatus status);

GUESTPREP_EXTERN_C_END

#endif /* GUESTPREP_TAVSIGN_H */
