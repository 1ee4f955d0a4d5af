#include "counters/counter_values.h"

#include <charconv>
#include <cstdio>

#include "utils/log.h"

namespace nmb::counters {

namespace {

constexpr char kHex[] = "0123456789abcdef";

size_t hex64(uint64_t value, char* out) {
  out[0] = '0';
  out[1] = 'x';
  for (int i = 0; i < 16; ++i) out[2 + i] = kHex[(value >> (60 - 4 * i)) & 15];
  out[18] = '\0';
  return 18;
}

size_t binary(const uint8_t* bytes, size_t count, char* out) {
  size_t n = 0;
  out[n++] = '0';
  out[n++] = 'b';
  for (size_t b = 0; b < count; ++b)
    for (int bit = 7; bit >= 0; --bit) out[n++] = (bytes[b] >> bit) & 1 ? '1' : '0';
  out[n] = '\0';
  return n;
}

size_t binary64(uint64_t value, char* out) {
  uint8_t bytes[8];
  for (int i = 0; i < 8; ++i) bytes[i] = static_cast<uint8_t>(value >> (56 - 8 * i));
  return binary(bytes, 8, out);
}

template <typename T>
size_t decimal(T value, char* out) {
  auto result = std::to_chars(out, out + kValueTextRoom - 1, value);
  *result.ptr = '\0';
  return static_cast<size_t>(result.ptr - out);
}

}  // namespace

size_t format_u64(uint64_t value, int32_t string_format, char* out) {
  if (string_format == 2) return hex64(value, out);
  if (string_format == 4) return binary64(value, out);
  if (string_format == 3)
    NMB_LOG(NMB_LOG_WARNING,
            "UUID format is only supported for 128-bit types, using DECIMAL for uint64");
  return decimal(value, out);
}

size_t format_i64(int64_t value, int32_t string_format, char* out) {
  if (string_format == 2) return hex64(static_cast<uint64_t>(value), out);
  if (string_format == 4) return binary64(static_cast<uint64_t>(value), out);
  if (string_format == 3)
    NMB_LOG(NMB_LOG_WARNING,
            "UUID format is only supported for 128-bit types, using DECIMAL for int64");
  return decimal(value, out);
}

size_t format_fp64(int32_t string_format, double value, char* out) {
  if (string_format == 2 || string_format == 4) {
    uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return format_u64(bits, string_format, out);
  }
  if (string_format == 3)
    NMB_LOG(NMB_LOG_WARNING, "UUID format is not supported for FP64 types, using DECIMAL");
  // The text is cut at 31 characters, as in a 32-byte buffer.
  int n = std::snprintf(out, 32, "%.6f", value);
  if (n < 0) n = 0;
  return n > 31 ? 31 : static_cast<size_t>(n);
}

size_t format_u128(const uint8_t* b, int32_t string_format, char* out) {
  switch (string_format) {
    case 3:
      return static_cast<size_t>(std::snprintf(
          out, kValueTextRoom,
          "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[0], b[1], b[2],
          b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]));
    case 4:
      return binary(b, 16, out);
    case 2:
      break;
    default:
      NMB_LOG(NMB_LOG_WARNING,
              "Decimal format not fully supported for 128-bit types, using hex representation");
      break;
  }
  size_t n = 0;
  if (string_format == 2) {
    out[n++] = '0';
    out[n++] = 'x';
  }
  for (int i = 0; i < 16; ++i) {
    out[n++] = kHex[b[i] >> 4];
    out[n++] = kHex[b[i] & 15];
  }
  out[n] = '\0';
  return n;
}

}  // namespace nmb::counters
