#include "utils/md5.h"

#include <openssl/evp.h>

bool nmb_md5(const void* data, size_t length, uint8_t (&digest)[16]) {
  unsigned int size = 0;
  return EVP_Digest(data, length, digest, &size, EVP_md5(), nullptr) == 1 && size == 16;
}
