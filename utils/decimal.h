// Decimal digits of integers written straight into a buffer: the text
// std::to_chars gives, two digits at a time from a table, in 32-bit steps
// once the value fits in 32 bits.
// Stage: base.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace nmb {

namespace decimal {

inline constexpr char kPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

inline constexpr uint64_t kPowers[] = {1ull,
                                       10ull,
                                       100ull,
                                       1000ull,
                                       10000ull,
                                       100000ull,
                                       1000000ull,
                                       10000000ull,
                                       100000000ull,
                                       1000000000ull,
                                       10000000000ull,
                                       100000000000ull,
                                       1000000000000ull,
                                       10000000000000ull,
                                       100000000000000ull,
                                       1000000000000000ull,
                                       10000000000000000ull,
                                       100000000000000000ull,
                                       1000000000000000000ull,
                                       10000000000000000000ull};

// The number of digits of `value` (1 for 0): log10 estimated from the bit
// width (1233 / 4096 is just above log10(2)), then corrected by one compare.
inline int length(uint64_t value) {
  value |= 1;  // the same number of digits; 0 has one
  const int estimate = (std::bit_width(value) * 1233) >> 12;
  return estimate + (value >= kPowers[estimate]);
}

}  // namespace decimal

// Writes the digits of `value` at `at` (20 bytes of room) and returns their end.
inline char* write_decimal(char* at, uint64_t value) {
  if (value < 100) {
    if (value < 10) {
      *at = static_cast<char>('0' + value);
      return at + 1;
    }
    std::memcpy(at, decimal::kPairs + 2 * value, 2);
    return at + 2;
  }
  char* const end = at + decimal::length(value);
  char* p = end;
  while (value > UINT32_MAX) {
    const uint64_t q = value / 100;
    p -= 2;
    std::memcpy(p, decimal::kPairs + 2 * (value - q * 100), 2);
    value = q;
  }
  auto small = static_cast<uint32_t>(value);
  while (small >= 100) {
    const uint32_t q = small / 100;
    p -= 2;
    std::memcpy(p, decimal::kPairs + 2 * (small - q * 100), 2);
    small = q;
  }
  if (small >= 10) {
    std::memcpy(p - 2, decimal::kPairs + 2 * small, 2);
  } else {
    p[-1] = static_cast<char>('0' + small);
  }
  return end;
}

// A signed value: "-" and the digits of its magnitude (21 bytes of room).
inline char* write_decimal(char* at, int64_t value) {
  auto magnitude = static_cast<uint64_t>(value);
  if (value < 0) {
    *at++ = '-';
    magnitude = 0 - magnitude;
  }
  return write_decimal(at, magnitude);
}

}  // namespace nmb
