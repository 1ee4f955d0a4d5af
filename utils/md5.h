// MD5 digests (schema ids, the adapter table digest).
// Stage: base.
#pragma once

#include <cstddef>
#include <cstdint>

// MD5 of the bytes; false when the digest cannot be computed.
bool nmb_md5(const void* data, size_t length, uint8_t (&digest)[16]);
