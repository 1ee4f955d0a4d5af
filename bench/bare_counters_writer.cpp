// The baseline for counters export: writes exactly the ndjson text nmb_read
// writes for a plain benchmark counters file (make_bench_data), with no
// generality: the layout is known, no schema is read, the keys are built once
// and every value is written straight into one output buffer.
//
//   bare_counters_writer <counters_500.bin|counters_5000.bin> <counters> > out
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/bare_writer.h"
#include "bench/bench_layout.h"

namespace {

using bench::hex;
using bench::Kind;
using bench::number;

struct Member {
  std::string key;  // ,"name": (no comma for the first of a group)
  Kind kind;
  uint32_t offset;
};

struct Group {
  std::string head;  // {"granularity":..,"name":..,"counter_sets":[{  (with its leading comma)
  std::vector<Member> members;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s <counters file> <counters per block>\n", argv[0]);
    return 2;
  }
  const int counters = std::atoi(argv[2]);
  std::vector<Group> groups;
  uint32_t offset = 0;
  for (int i = 0; i < counters; ++i) {
    const int g = i / bench::kGroupSize;
    if (i % bench::kGroupSize == 0) {
      groups.push_back({std::string(g == 0 ? "" : ",") + "{\"granularity\":\"" +
                            (g % 2 == 0 ? "NODE" : "CPU") + "\",\"name\":\"" +
                            bench::group_name(g) + "\",\"counter_sets\":[{",
                        {}});
    }
    const bench::CounterLayout layout = bench::counter_layout(i);
    groups.back().members.push_back(
        {std::string(i % bench::kGroupSize == 0 ? "" : ",") + "\"" + layout.name + "\":",
         layout.kind, offset});
    offset += bench::value_size(layout.kind);
  }
  const size_t block_size = 16 + offset;

  bench::LocalTime local_time;
  const bool read =
      bench::write_chunks(argv[1], block_size, 8, [&](const uint8_t* chunk, size_t, char* at) {
        uint64_t ts;
        std::memcpy(&ts, chunk + 8, 8);
        const uint8_t* values = chunk + 16;
        std::memcpy(at, "{\"timestamp\":", 13);
        at = std::to_chars(at + 13, at + 40, ts).ptr;
        std::memcpy(at, ",\"@timestamp\":", 14);
        at = local_time.write(at + 14, ts);
        std::memcpy(at, ",\"groups\":[", 11);
        at += 11;
        for (const Group& group : groups) {
          std::memcpy(at, group.head.data(), group.head.size());
          at += group.head.size();
          for (const Member& m : group.members) {
            std::memcpy(at, m.key.data(), m.key.size());
            at += m.key.size();
            uint64_t bits;
            std::memcpy(&bits, values + m.offset, 8);
            switch (m.kind) {
              case Kind::kU64:
                at = bits <= (uint64_t{1} << 53) ? std::to_chars(at, at + 24, bits).ptr
                                                 : number(at, static_cast<double>(bits));
                break;
              case Kind::kI64:
                at = std::to_chars(at, at + 24, static_cast<int64_t>(bits)).ptr;
                break;
              case Kind::kF64: {
                double v;
                std::memcpy(&v, &bits, 8);
                at = number(at, v);
                break;
              }
              case Kind::kBit64:
              case Kind::kGuid:
                at = hex(at, bits);
                break;
              case Kind::kString: {
                const char* text = reinterpret_cast<const char*>(values + m.offset);
                const size_t length = strnlen(text, bench::kStringLength);
                *at++ = '"';
                std::memcpy(at, text, length);
                at += length;
                *at++ = '"';
                break;
              }
            }
          }
          std::memcpy(at, "}]}", 3);
          at += 3;
        }
        std::memcpy(at, "]}\n", 3);
        return at + 3;
      });
  return read ? 0 : 1;
}
