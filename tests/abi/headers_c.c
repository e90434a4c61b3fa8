/* Compiled as C: every public header must be valid C on its own. */
#include <guestprep/autoinstall.h>
#include <guestprep/common.h>
#include <guestprep/guess.h>
#include <guestprep/iniutil.h>
#include <guestprep/tavsign.h>
#include <guestprep/toolsiso.h>
#include <guestprep/toolsversion.h>
#include <openssl/pkcs7.h>
#include <openssl/x509_vfy.h>

const char *guestprep_abi_label(void) {
  return BRM_EMBED_LABEL;
}
