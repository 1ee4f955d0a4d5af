#include "export/value_format.h"

#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "utils/env.h"
#include "utils/log.h"

namespace {

bool is_letter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
char lower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

bool nmb_is_guid_field_name(const char* name) {
  if (name == nullptr) return false;
  size_t length = std::strlen(name);
  if (length < 4) return false;
  static constexpr char kWord[] = "guid";
  size_t matched = 0;
  for (size_t i = 0; i < length; ++i) {
    if (lower(name[i]) != kWord[matched]) {
      // Restart after the mismatching character; it is not tried as a new start.
      matched = 0;
      continue;
    }
    if (matched == 0 && i > 0 && is_letter(name[i - 1])) continue;  // no word start
    if (++matched == 4) {
      if (i + 1 == length || !is_letter(name[i + 1])) return true;
      matched = 0;
    }
  }
  return false;
}

bool nmb_name_has_guid(const char* name) {
  return name != nullptr && (std::strstr(name, "guid") != nullptr || std::strstr(name, "GUID"));
}

bool nmb_read_guid_conversion_switch() {
  const char* value = nmb_getenv("NMB_CONVERT_GUID_TO_HEX_STRING");
  if (value == nullptr || value[0] == '\0') return true;
  return nmb_env_is_true(value);
}

namespace {

// The two lowercase hex digits of every byte value.
struct ByteHexTable {
  char digits[256][2] = {};
  constexpr ByteHexTable() {
    constexpr char kHex[] = "0123456789abcdef";
    for (int b = 0; b < 256; ++b) {
      digits[b][0] = kHex[b >> 4];
      digits[b][1] = kHex[b & 15];
    }
  }
};
constexpr ByteHexTable kByteHex;

}  // namespace

char* nmb_write_guid_hex(char* at, uint64_t value) {
  at[0] = '0';
  at[1] = 'x';
  for (int i = 0; i < 8; ++i)
    std::memcpy(at + 2 + 2 * i, kByteHex.digits[(value >> (56 - 8 * i)) & 0xff], 2);
  return at + NMB_GUID_HEX_LENGTH;
}

void nmb_format_guid_hex_into(uint64_t value, char (&out)[NMB_GUID_HEX_LENGTH + 1]) {
  *nmb_write_guid_hex(out, value) = '\0';
}

std::string nmb_format_guid_hex(uint64_t value) {
  char text[NMB_GUID_HEX_LENGTH + 1];
  nmb_format_guid_hex_into(value, text);
  return std::string(text, NMB_GUID_HEX_LENGTH);
}

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

size_t binary_into(const uint8_t* bytes, size_t count, char* out) {
  size_t n = 0;
  out[n++] = '0';
  out[n++] = 'b';
  for (size_t b = 0; b < count; ++b)
    for (int bit = 7; bit >= 0; --bit) out[n++] = (bytes[b] >> bit) & 1 ? '1' : '0';
  out[n] = '\0';
  return n;
}

// "0x%016lx" (2) or the 64 bits, most significant first (4).
size_t hex_or_binary64(uint64_t value, int32_t string_format, char* out) {
  if (string_format == 2) {
    char hex[NMB_GUID_HEX_LENGTH + 1];
    nmb_format_guid_hex_into(value, hex);
    std::memcpy(out, hex, sizeof hex);
    return NMB_GUID_HEX_LENGTH;
  }
  uint8_t bytes[8];
  for (int i = 0; i < 8; ++i) bytes[i] = static_cast<uint8_t>(value >> (56 - 8 * i));
  return binary_into(bytes, 8, out);
}

template <typename T>
size_t decimal_into(T value, char* out) {
  auto result = std::to_chars(out, out + NMB_VALUE_TEXT_ROOM - 1, value);
  *result.ptr = '\0';
  return static_cast<size_t>(result.ptr - out);
}

}  // namespace

size_t nmb_format_uint64_into(uint64_t value, int32_t string_format, char* out) {
  if (string_format == 2 || string_format == 4) return hex_or_binary64(value, string_format, out);
  if (string_format == 3) {
    NMB_LOG(NMB_LOG_WARNING,
            "UUID format is only supported for 128-bit types, using DECIMAL for uint64");
  }
  return decimal_into(value, out);
}

size_t nmb_format_int64_into(int64_t value, int32_t string_format, char* out) {
  if (string_format == 2 || string_format == 4) {
    return hex_or_binary64(static_cast<uint64_t>(value), string_format, out);
  }
  if (string_format == 3) {
    NMB_LOG(NMB_LOG_WARNING,
            "UUID format is only supported for 128-bit types, using DECIMAL for int64");
  }
  return decimal_into(value, out);
}

size_t nmb_format_fp64_into(int32_t string_format, double value, char* out) {
  if (string_format == 2 || string_format == 4) {
    uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return nmb_format_uint64_into(bits, string_format, out);
  }
  if (string_format == 3) {
    NMB_LOG(NMB_LOG_WARNING, "UUID format is not supported for FP64 types, using DECIMAL");
  }
  // A 32-byte buffer: very large values are cut at 31 characters.
  int n = std::snprintf(out, 32, "%.6f", value);
  if (n < 0) {
    out[0] = '\0';
    return 0;
  }
  return n > 31 ? 31 : static_cast<size_t>(n);
}

size_t nmb_format_uint128_into(const uint8_t* b, int32_t string_format, char* out) {
  switch (string_format) {
    case 3:
      return static_cast<size_t>(std::snprintf(
          out, NMB_VALUE_TEXT_ROOM,
          "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[0], b[1], b[2],
          b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]));
    case 4:
      return binary_into(b, 16, out);
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
    out[n++] = kHexDigits[b[i] >> 4];
    out[n++] = kHexDigits[b[i] & 15];
  }
  out[n] = '\0';
  return n;
}

std::string nmb_format_uint64_string(uint64_t value, int32_t string_format) {
  char text[NMB_VALUE_TEXT_ROOM];
  return std::string(text, nmb_format_uint64_into(value, string_format, text));
}

std::string nmb_format_int64_string(int64_t value, int32_t string_format) {
  char text[NMB_VALUE_TEXT_ROOM];
  return std::string(text, nmb_format_int64_into(value, string_format, text));
}

std::string nmb_format_fp64_string(int32_t string_format, double value) {
  char text[NMB_VALUE_TEXT_ROOM];
  return std::string(text, nmb_format_fp64_into(string_format, value, text));
}

std::string nmb_format_uint128_string(const uint8_t* bytes16, int32_t string_format) {
  if (bytes16 == nullptr) return {};
  char text[NMB_VALUE_TEXT_ROOM];
  return std::string(text, nmb_format_uint128_into(bytes16, string_format, text));
}

std::string nmb_format_int128_string(const uint8_t* bytes16, int32_t string_format) {
  return nmb_format_uint128_string(bytes16, string_format);
}

size_t nmb_format_timestamp_into(uint64_t timestamp_us, bool microsecond_precision, char* out,
                                 size_t room) {
  // Records of one block share their timestamp: keep the last conversion.
  static thread_local time_t cached_seconds = -1;
  static thread_local struct tm cached_tm;
  uint64_t seconds_u = timestamp_us / 1000000;
  if (seconds_u > static_cast<uint64_t>(INT64_MAX)) return 0;
  time_t seconds = static_cast<time_t>(seconds_u);
  if (seconds != cached_seconds) {
    if (localtime_r(&seconds, &cached_tm) == nullptr) {
      cached_seconds = -1;
      return 0;
    }
    cached_seconds = seconds;
  }
  const struct tm& tm = cached_tm;
  const unsigned fraction = static_cast<unsigned>(timestamp_us % 1000000);
  const int year = tm.tm_year + 1900;
  const size_t length = microsecond_precision ? 26 : 23;
  if (year >= 0 && year <= 9999 && room > length) {
    // "%04d-%02d-%02d %02d:%02d:%02d." and 6 or 3 fraction digits, written
    // directly: every field is within its width here.
    auto digits = [](char* at, unsigned value, int width) {
      for (int i = width - 1; i >= 0; --i) {
        at[i] = static_cast<char>('0' + value % 10);
        value /= 10;
      }
    };
    digits(out, static_cast<unsigned>(year), 4);
    out[4] = '-';
    digits(out + 5, static_cast<unsigned>(tm.tm_mon + 1), 2);
    out[7] = '-';
    digits(out + 8, static_cast<unsigned>(tm.tm_mday), 2);
    out[10] = ' ';
    digits(out + 11, static_cast<unsigned>(tm.tm_hour), 2);
    out[13] = ':';
    digits(out + 14, static_cast<unsigned>(tm.tm_min), 2);
    out[16] = ':';
    digits(out + 17, static_cast<unsigned>(tm.tm_sec), 2);
    out[19] = '.';
    if (microsecond_precision) {
      digits(out + 20, fraction, 6);
    } else {
      digits(out + 20, fraction / 1000, 3);
    }
    out[length] = '\0';
    return length;
  }
  int printed;
  if (microsecond_precision) {
    printed =
        std::snprintf(out, room, "%04d-%02d-%02d %02d:%02d:%02d.%06d", year, tm.tm_mon + 1,
                      tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(fraction));
  } else {
    printed = std::snprintf(out, room, "%04d-%02d-%02d %02d:%02d:%02d.%03d", year, tm.tm_mon + 1,
                            tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                            static_cast<int>(fraction / 1000));
  }
  if (printed < 0 || static_cast<size_t>(printed) >= room) return 0;
  return static_cast<size_t>(printed);
}

std::string nmb_format_timestamp(uint64_t timestamp_us, bool microsecond_precision) {
  char text[64];
  size_t length = nmb_format_timestamp_into(timestamp_us, microsecond_precision, text, sizeof text);
  return std::string(text, length);
}
