// Sums and products of text sizes computed from untrusted schemas: they stop
// at kSaturated (2^62), far above any bound they are compared with, instead
// of wrapping around.
// Stage: base.
#pragma once

#include <cstdint>

namespace nmb {

inline constexpr uint64_t kSaturated = uint64_t{1} << 62;

constexpr uint64_t saturating_add(uint64_t a, uint64_t b) {
  return a + b > kSaturated ? kSaturated : a + b;
}

constexpr uint64_t saturating_mul(uint64_t a, uint64_t b) {
  return a != 0 && b > kSaturated / a ? kSaturated : a * b;
}

}  // namespace nmb
