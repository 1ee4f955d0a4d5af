// Reading counter values out of a counters block's value area, shared by the
// JSON and text forms of counters blocks (which format them with the
// allocation-free *_into formatters of export/value_format.h). Offsets and
// lengths come from untrusted schemas: every read is clamped to the area, and
// bytes past its end read as zeros.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "data/format.h"

namespace nmb::counters {

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

// A counters block cut into its header timestamp and its value area (what
// follows the 16-byte header; empty for a block too short to have one).
struct BlockView {
  uint64_t timestamp;
  std::span<const uint8_t> values;
};

inline BlockView split_block(std::span<const uint8_t> block) {
  return {read_u64(block, 8), block.size() > NMB_COUNTERS_BLOCK_HEADER_SIZE
                                  ? block.subspan(NMB_COUNTERS_BLOCK_HEADER_SIZE)
                                  : std::span<const uint8_t>()};
}

}  // namespace nmb::counters
