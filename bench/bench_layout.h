// The layouts of the benchmark data, shared by the generator and the bare
// writers: the counters (per block, groups of 100 counters of mixed types,
// mostly 64-bit unsigned counters, some signed, floating, bit mask, GUID and
// string values, and the value of each counter in each block) and the event
// record types.
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

// One field of an event type: a built-in type name or the name of another
// type of the schema, the size of one element (0 for another type: its
// record size) and the number of elements.
struct EventFieldLayout {
  std::string name;
  std::string type;
  uint32_t size;
  uint16_t count = 1;
};

struct EventTypeLayout {
  std::string name;
  std::vector<EventFieldLayout> fields;  // packed, in record order
};

// The event schema's types, by type index; link_stats (index 1) only nests
// in link_event, the other three are the record types.
inline std::vector<EventTypeLayout> event_types() {
  return {
      {"port_event",
       {{"node_guid", "uint64_t", 8},
        {"port_num", "uint8_t", 1},
        {"lid", "uint16_t", 2},
        {"xmit_data", "uint64_t", 8},
        {"rcv_data", "uint64_t", 8},
        {"rate", "double", 8},
        {"name", "char", 1, 16},
        {"samples", "uint32_t", 4, 4}}},
      {"link_stats",
       {{"symbol_errors", "uint32_t", 4},
        {"link_downed", "uint16_t", 2},
        {"ber", "double", 8},
        {"lanes", "uint8_t", 1, 4}}},
      {"link_event",
       {{"node_guid", "uint64_t", 8},
        {"port_num", "uint8_t", 1},
        {"stats", "link_stats", 0},
        {"history", "int32_t", 4, 8}}},
      {"job_event",
       {{"job_id", "uint64_t", 8},
        {"uid", "uint32_t", 4},
        {"start", "int64_t", 8},
        {"cpu_load", "float", 4},
        {"user", "char", 1, 24},
        {"cpus", "uint16_t", 2, 16}}},
  };
}

// The index of the type named `name`; -1 for a built-in type.
inline int event_type_index(const std::vector<EventTypeLayout>& types, const std::string& name) {
  for (size_t t = 0; t < types.size(); ++t) {
    if (types[t].name == name) return static_cast<int>(t);
  }
  return -1;
}

// The size of one element of a field: its own, or its type's record size.
inline uint32_t event_field_size(const std::vector<EventTypeLayout>& types,
                                 const EventFieldLayout& field);

inline uint32_t event_record_size(const std::vector<EventTypeLayout>& types, size_t type) {
  uint32_t size = 0;
  for (const auto& field : types[type].fields) size += event_field_size(types, field) * field.count;
  return size;
}

inline uint32_t event_field_size(const std::vector<EventTypeLayout>& types,
                                 const EventFieldLayout& field) {
  const int nested = event_type_index(types, field.type);
  return nested < 0 ? field.size : event_record_size(types, static_cast<size_t>(nested));
}

}  // namespace bench
