// Reading counter values out of a counters block's value area and formatting
// them without allocating, shared by the JSON and text forms of counters
// blocks. Offsets and lengths come from untrusted schemas: every read is
// clamped to the area, and bytes past its end read as zeros.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace nmb::counters {

// Room for any text the formatters below write (128 bits in binary: "0b" and
// 128 digits) plus a terminating zero.
inline constexpr size_t kValueTextRoom = 136;

// Copies `count` bytes at `offset` into `out`; bytes past the area are zero.
inline void read_bytes(std::span<const uint8_t> area, uint64_t offset, uint8_t* out, size_t count) {
  size_t available = 0;
  if (offset < area.size()) {
    available = area.size() - static_cast<size_t>(offset);
    if (available > count) available = count;
    std::memcpy(out, area.data() + offset, available);
  }
  if (available < count) std::memset(out + available, 0, count - available);
}

// The 64-bit value at `offset`, in the machine's byte order.
inline uint64_t read_u64(std::span<const uint8_t> area, uint64_t offset) {
  if (offset <= area.size() && area.size() - offset >= 8) {
    uint64_t value;
    std::memcpy(&value, area.data() + offset, 8);
    return value;
  }
  uint8_t bytes[8];
  read_bytes(area, offset, bytes, 8);
  uint64_t value;
  std::memcpy(&value, bytes, 8);
  return value;
}

// The bytes of a `length`-byte value at `offset` that lie inside the area.
inline std::span<const uint8_t> clamp_bytes(std::span<const uint8_t> area, uint64_t offset,
                                            uint64_t length) {
  if (offset >= area.size()) return {};
  size_t available = area.size() - static_cast<size_t>(offset);
  return area.subspan(static_cast<size_t>(offset), length < available ? length : available);
}

// The 64-bit and 128-bit value formatters of the value rules, writing into a
// caller's buffer of kValueTextRoom bytes; each returns the text length.
// The string formats are 0 DEFAULT, 1 DECIMAL, 2 HEXADECIMAL, 3 UUID and
// 4 BINARY; the warnings of the shared formatters are logged the same way.
size_t format_u64(uint64_t value, int32_t string_format, char* out);
size_t format_i64(int64_t value, int32_t string_format, char* out);
size_t format_fp64(int32_t string_format, double value, char* out);
size_t format_u128(const uint8_t* bytes16, int32_t string_format, char* out);

}  // namespace nmb::counters
