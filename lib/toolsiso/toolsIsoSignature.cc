/*
 * The one signature check the tools-image code makes: a detached PEM
 * signature over a buffer, answered yes or no with the reason for a no in
 * the log. The OpenSSL error queue is cleared after every refusal, so a
 * later, unrelated OpenSSL call on this thread sees no stale errors.
 */
#include <openssl/err.h>
#include <openssl/pkcs7.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "guestprep/tavsign.h"
#include "guestprep/toolsiso.h"
#include "platform/log/log.h"
#include "platform/util/str.h"

namespace {

struct Pkcs7Deleter {
  void operator()(PKCS7 *pkcs7) const { PKCS7_free(pkcs7); }
};

}  // namespace

bool ToolsISO_VerifySignature(const char *certPath, const void *signature, size_t signatureLength,
                              const void *data, size_t dataLength) {
  char *rawError = nullptr;
  // No signature is that long; the loader refuses the clamped length.
  const uint32_t length =
      signatureLength > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(signatureLength);
  std::unique_ptr<PKCS7, Pkcs7Deleter> pkcs7(
      TavSign_GetPKCS7FromRawBuffer(signature, length, &rawError));
  gp::UniqueText error(rawError);
  if (!pkcs7) {
    Log("ToolsISO: Error failed to load signature buffer: %s\n", error ? error.get() : "");
    ERR_clear_error();
    return false;
  }

  rawError = nullptr;
  const bool valid =
      TavSign_IsBrmSignatureValid(pkcs7.get(), data, dataLength, certPath, nullptr, &rawError);
  error.reset(rawError);
  if (!valid) {
    Log("ToolsISO: Error failed to verify signature using %s cert: %s\n",
        certPath != nullptr ? certPath : "default", error ? error.get() : "");
    ERR_clear_error();
  }
  return valid;
}
