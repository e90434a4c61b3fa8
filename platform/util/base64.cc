#include "platform/util/base64.h"

#include <openssl/evp.h>

#include <climits>

bool Base64_Encode(const uint8_t *src, size_t srcLength, char *target, size_t targetSize,
                   size_t *dataLength) {
  // EVP_EncodeBlock counts in int; longer inputs are not ours to encode.
  if ((src == nullptr && srcLength != 0) || target == nullptr || srcLength > INT_MAX / 4 * 3 ||
      targetSize < Base64_EncodedSize(srcLength)) {
    return false;
  }
  int written =
      EVP_EncodeBlock(reinterpret_cast<unsigned char *>(target), src, static_cast<int>(srcLength));
  if (written < 0) {
    return false;
  }
  target[written] = '\0';  // EVP_EncodeBlock terminates too; say so here
  if (dataLength != nullptr) {
    *dataLength = static_cast<size_t>(written);
  }
  return true;
}
