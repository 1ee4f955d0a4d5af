// Value formatters shared by the event and counters exporters: GUID name
// tests and hex text, 64-bit, 128-bit and FP64 values in a string format, and
// timestamps in local time.
// Stage: model.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// A name is GUID-like when it holds "guid" in any case as a whole word (a
// boundary is the start, the end or any non-letter). The scan restarts after
// a mismatching character without re-testing it, so "gguid" is not GUID-like.
bool nmb_is_guid_field_name(const char* name);
// The has-guid test of built-in values: "guid" or "GUID" as a substring.
bool nmb_name_has_guid(const char* name);

// The GUID conversion switch as the environment sets it (NMB_CONVERT_GUID_TO_HEX_STRING
// or CONVERT_GUID_TO_HEX_STRING): on when unset, empty or true. Reads the
// environment on every call; each exporter caches its own copy.
bool nmb_read_guid_conversion_switch();

// "0x%016lx": 18 characters.
inline constexpr size_t NMB_GUID_HEX_LENGTH = 18;
std::string nmb_format_guid_hex(uint64_t value);
// Writes the 18 characters and a terminating zero into `out`.
void nmb_format_guid_hex_into(uint64_t value, char (&out)[NMB_GUID_HEX_LENGTH + 1]);
// Writes the 18 characters (no terminating zero) at `at` and returns their end.
char* nmb_write_guid_hex(char* at, uint64_t value);

// Values in a string format (0 DEFAULT, 1 DECIMAL, 2 HEXADECIMAL, 3 UUID,
// 4 BINARY). The *_into forms write into a caller's buffer of
// NMB_VALUE_TEXT_ROOM bytes and return the text length, so that exporters
// format values without allocating; the string forms wrap them (empty on
// failure). Both log the same warnings.
// Room for the longest text (128 bits in binary: "0b" and 128 digits) and a
// terminating zero.
inline constexpr size_t NMB_VALUE_TEXT_ROOM = 136;
size_t nmb_format_uint64_into(uint64_t value, int32_t string_format, char* out);
size_t nmb_format_int64_into(int64_t value, int32_t string_format, char* out);
size_t nmb_format_fp64_into(int32_t string_format, double value, char* out);
// 16 bytes in memory order; the signed 128-bit text is the same.
size_t nmb_format_uint128_into(const uint8_t* bytes16, int32_t string_format, char* out);
std::string nmb_format_uint64_string(uint64_t value, int32_t string_format);
std::string nmb_format_int64_string(int64_t value, int32_t string_format);
std::string nmb_format_fp64_string(int32_t string_format, double value);
// 16 bytes in memory order; an empty pointer gives an empty result.
std::string nmb_format_uint128_string(const uint8_t* bytes16, int32_t string_format);
std::string nmb_format_int128_string(const uint8_t* bytes16, int32_t string_format);

// Microseconds since the epoch as local time with three (or, with
// microsecond_precision, six) truncated fraction digits; empty on failure.
std::string nmb_format_timestamp(uint64_t timestamp_us, bool microsecond_precision);
// The same into a caller's buffer; returns the length, 0 on failure.
size_t nmb_format_timestamp_into(uint64_t timestamp_us, bool microsecond_precision, char* out,
                                 size_t room);
