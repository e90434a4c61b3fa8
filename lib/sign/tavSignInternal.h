// The signature module's verification run and settings, for the adapters
// beside it and the tests. Nothing here is exported.
#ifndef GUESTPREP_LIB_TAVSIGNINTERNAL_H
#define GUESTPREP_LIB_TAVSIGNINTERNAL_H

#include <openssl/types.h>

#include <string>

#include "guestprep/tavsign.h"

// The directory the certificate bundles and revocation lists are read from,
// fixed when the library was built ("/usr/share/certs" unless configured).
const char *TavSignCertDir();

// The outcome of one verification run.
struct TavSignResult {
  TavSignStatus status = TAVSIGN_ERROR;
};

// One verification run: the structure against the maker store (the
// caller's store, else the bundle at certPath, else the default bundle) and
// the partner store, signer by signer. detached (may be null) is the signed
// data when the structure does not carry it; it is read from its start for
// every check. error receives the text of a set-up failure (then the status
// is TAVSIGN_ERROR) and is left empty otherwise. Never throws.
TavSignResult TavSignVerify(PKCS7 *pkcs7, BIO *detached, const char *certPath,
                            X509_STORE *callerStore, std::string &error);

#endif
