// The baseline for event export: writes exactly the ndjson text nmb_read
// writes for the benchmark events file (make_bench_data), with no generality:
// the record types are known, no schema is read, the keys are built once and
// every value is written straight into one output buffer.
//
//   bare_events_writer events.bin > out
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bench/bare_writer.h"
#include "bench/bench_layout.h"

namespace {

enum class Kind { kU8, kU16, kU32, kI32, kU64, kI64, kF32, kF64, kGuid, kChars, kNested };

struct Member {
  std::string key;  // ,"name": (no comma for the first of an object)
  Kind kind;
  uint32_t offset;
  uint32_t size;    // of one element
  uint16_t count;   // elements; an array when more than one (but chars)
  int nested = -1;  // the type of a nested object
};

using Type = std::vector<Member>;

Kind kind_of(const bench::EventFieldLayout& field) {
  if (field.name.find("guid") != std::string::npos) return Kind::kGuid;
  const std::string& t = field.type;
  if (t == "uint8_t") return Kind::kU8;
  if (t == "uint16_t") return Kind::kU16;
  if (t == "uint32_t") return Kind::kU32;
  if (t == "int32_t") return Kind::kI32;
  if (t == "uint64_t") return Kind::kU64;
  if (t == "int64_t") return Kind::kI64;
  if (t == "float") return Kind::kF32;
  if (t == "double") return Kind::kF64;
  if (t == "char") return Kind::kChars;
  return Kind::kNested;
}

std::vector<Type> compile_types() {
  const std::vector<bench::EventTypeLayout> layouts = bench::event_types();
  std::vector<Type> types;
  for (const auto& layout : layouts) {
    Type& type = types.emplace_back();
    uint32_t offset = 0;
    for (const auto& field : layout.fields) {
      const uint32_t size = bench::event_field_size(layouts, field);
      type.push_back(
          {std::string(type.empty() ? "" : ",") + "\"" + field.name + "\":", kind_of(field), offset,
           size, field.count, bench::event_type_index(layouts, field.type)});
      offset += size * field.count;
    }
  }
  return types;
}

template <typename T>
T load(const uint8_t* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

char* element(char* at, Kind kind, const uint8_t* r) {
  switch (kind) {
    case Kind::kU8:
      return std::to_chars(at, at + 24, *r).ptr;
    case Kind::kU16:
      return std::to_chars(at, at + 24, load<uint16_t>(r)).ptr;
    case Kind::kU32:
      return std::to_chars(at, at + 24, load<uint32_t>(r)).ptr;
    case Kind::kI32:
      return std::to_chars(at, at + 24, load<int32_t>(r)).ptr;
    case Kind::kU64: {
      const uint64_t v = load<uint64_t>(r);
      return v <= (uint64_t{1} << 53) ? std::to_chars(at, at + 24, v).ptr
                                      : bench::number(at, static_cast<double>(v));
    }
    case Kind::kI64:
      return std::to_chars(at, at + 24, load<int64_t>(r)).ptr;  // small values
    case Kind::kF32:
      return bench::number(at, load<float>(r));
    case Kind::kF64:
      return bench::number(at, load<double>(r));
    case Kind::kGuid:
      return bench::hex(at, load<uint64_t>(r));
    default:
      return at;
  }
}

char* object(char* at, const std::vector<Type>& types, const Type& type, const uint8_t* r) {
  for (const Member& m : type) {
    std::memcpy(at, m.key.data(), m.key.size());
    at += m.key.size();
    const uint8_t* value = r + m.offset;
    if (m.kind == Kind::kChars) {
      // Plain ASCII names: no escapes.
      const size_t length = strnlen(reinterpret_cast<const char*>(value), m.count);
      *at++ = '"';
      std::memcpy(at, value, length);
      at += length;
      *at++ = '"';
    } else if (m.kind == Kind::kNested) {
      *at++ = '{';
      at = object(at, types, types[static_cast<size_t>(m.nested)], value);
      *at++ = '}';
    } else if (m.count == 1) {
      at = element(at, m.kind, value);
    } else {
      *at++ = '[';
      for (uint16_t k = 0; k < m.count; ++k) {
        if (k != 0) *at++ = ',';
        at = element(at, m.kind, value + k * m.size);
      }
      *at++ = ']';
    }
  }
  return at;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <events file>\n", argv[0]);
    return 2;
  }
  const std::vector<Type> types = compile_types();
  std::vector<uint32_t> record_sizes;
  for (size_t t = 0; t < types.size(); ++t)
    record_sizes.push_back(bench::event_record_size(bench::event_types(), t));
  bench::LocalTime local_time;
  // The text of a record is at most some 8 times its bytes (1-byte values).
  const bool read =
      bench::write_chunks(argv[1], 0, 8, [&](const uint8_t* chunk, size_t size, char* at) {
        // Events blocks back to back; zero padding ends the chunk.
        for (size_t offset = 0;
             offset + 16 <= size && std::memcmp(chunk + offset, "NMBE", 4) == 0;) {
          const uint8_t* block = chunk + offset;
          const uint64_t ts = load<uint64_t>(block + 4);
          const size_t type_index = block[13];
          const uint32_t records = block[15];
          const Type& type = types[type_index];
          const uint32_t record_size = record_sizes[type_index];
          // ,"header_timestamp":<ts>,"@header_timestamp":"<local time>"}
          char tail[128];
          char* t = tail;
          std::memcpy(t, ",\"header_timestamp\":", 20);
          t = std::to_chars(t + 20, t + 44, ts).ptr;
          std::memcpy(t, ",\"@header_timestamp\":", 21);
          t = local_time.write(t + 21, ts);
          std::memcpy(t, "}\n", 2);
          const size_t tail_length = static_cast<size_t>(t + 2 - tail);
          const uint8_t* record = block + 16;
          for (uint32_t n = 0; n < records; ++n, record += record_size) {
            *at++ = '{';
            at = object(at, types, type, record);
            std::memcpy(at, tail, tail_length);
            at += tail_length;
          }
          offset += 16 + size_t{records} * record_size;
        }
        return at;
      });
  return read ? 0 : 1;
}
