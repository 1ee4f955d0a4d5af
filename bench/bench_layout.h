// The counters of the benchmark data, shared by the generator and the bare
// writer: per block, groups of 100 counters of mixed types (mostly 64-bit
// unsigned counters, some signed, floating, bit mask, GUID and string values)
// and the value of each counter in each block.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace bench {

inline constexpr uint64_t kStart = 1700000000000000;  // microseconds
inline constexpr uint64_t kSecond = 1000000;
inline constexpr int kGroupSize = 100;
inline constexpr uint32_t kStringLength = 16;

enum class Kind { kU64, kI64, kF64, kBit64, kGuid, kString };

struct CounterLayout {
  std::string name;
  Kind kind;
};

// Counter `i` of a layout: its kind follows its position in a cycle of 20.
inline CounterLayout counter_layout(int i) {
  const int slot = i % 20;
  const std::string n = std::to_string(i);
  if (slot < 14) return {"port_xmit_data_" + n, Kind::kU64};
  if (slot < 16) return {"temperature_delta_" + n, Kind::kI64};
  if (slot == 16) return {"link_utilization_" + n, Kind::kF64};
  if (slot == 17) return {"capability_mask_" + n, Kind::kBit64};
  if (slot == 18) return {"node_guid_" + n, Kind::kGuid};
  return {"device_name_" + n, Kind::kString};
}

inline uint32_t value_size(Kind kind) {
  return kind == Kind::kString ? kStringLength : 8;
}

// The 8 value bytes (or the string) of counter `i` in block `b`.
inline uint64_t counter_bits(int b, int i, Kind kind) {
  const uint64_t ub = static_cast<uint64_t>(b);
  const uint64_t ui = static_cast<uint64_t>(i);
  switch (kind) {
    case Kind::kU64:
      // Byte counters of a busy port; now and then one beyond 2^53.
      if (i % 97 == 0) return 0xfffffffffff00000ull + ub * 4099 + ui;
      return ub * 1000003 * (ui % 7 + 1) + ui * 7919 + (i % 3 == 0 ? 123456789012ull : 0);
    case Kind::kI64:
      return static_cast<uint64_t>((static_cast<int64_t>(b) - 200) * (i + 1));
    case Kind::kF64: {
      const double v = b % 2 == 0 ? b * 0.25 + i : b / 3.0 + i;
      uint64_t bits;
      std::memcpy(&bits, &v, sizeof bits);
      return bits;
    }
    case Kind::kBit64:
      return 0x0000ffff00000000ull ^ (ub * 2654435761u + ui);
    case Kind::kGuid:
      return 0x248a0703005d0000ull + ui;
    case Kind::kString:
      return 0;
  }
  return 0;
}

inline std::string counter_string(int b, int i) {
  return "mlx5_" + std::to_string((b + i) % 12);
}

inline std::string group_name(int g) {
  return "group_" + std::to_string(g);
}

}  // namespace bench
