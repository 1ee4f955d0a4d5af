// The baseline for counters export: writes exactly the ndjson text nmb_read
// writes for a plain benchmark counters file (make_bench_data), with no
// generality: the layout is known, no schema is read, the keys are built once
// and every value is written straight into one output buffer.
//
//   bare_counters_writer <counters_500.bin|counters_5000.bin> <counters> > out
#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "bench/bench_layout.h"

namespace {

using bench::Kind;

struct Member {
  std::string key;  // ,"name": (no comma for the first of a group)
  Kind kind;
  uint32_t offset;
};

struct Group {
  std::string head;  // {"granularity":..,"name":..,"counter_sets":[{  (with its leading comma)
  std::vector<Member> members;
};

char* number(char* at, double value) {
  if (value == std::trunc(value) && std::fabs(value) < 1e17 && !(value == 0 && std::signbit(value)))
    return std::to_chars(at, at + 32, static_cast<int64_t>(value)).ptr;
  return std::to_chars(at, at + 32, value, std::chars_format::general, 17).ptr;
}

char* hex(char* at, uint64_t value) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::memcpy(at, "\"0x", 3);
  for (int i = 0; i < 16; ++i) at[3 + i] = kDigits[(value >> (60 - 4 * i)) & 15];
  at[19] = '"';
  return at + 20;
}

void write_all(const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(1, data, size);
    if (n <= 0) std::exit(1);
    data += n;
    size -= static_cast<size_t>(n);
  }
}

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

  const int fd = ::open(argv[1], O_RDONLY);
  if (fd < 0) return 1;
  std::vector<uint8_t> header(256);
  if (::read(fd, header.data(), header.size()) != 256) return 1;
  std::vector<uint8_t> chunk(block_size);
  std::vector<char> out(size_t{4} << 20);
  char* at = out.data();
  time_t cached = -1;
  struct tm tm {};
  while (::read(fd, chunk.data(), block_size) == static_cast<ssize_t>(block_size)) {
    if (static_cast<size_t>(at - out.data()) > out.size() - 2 * block_size * 4) {
      write_all(out.data(), static_cast<size_t>(at - out.data()));
      at = out.data();
    }
    uint64_t ts;
    std::memcpy(&ts, chunk.data() + 8, 8);
    const uint8_t* values = chunk.data() + 16;
    std::memcpy(at, "{\"timestamp\":", 13);
    at = std::to_chars(at + 13, at + 40, ts).ptr;
    const time_t seconds = static_cast<time_t>(ts / 1000000);
    if (seconds != cached) {
      localtime_r(&seconds, &tm);
      cached = seconds;
    }
    at +=
        std::snprintf(at, 64, ",\"@timestamp\":\"%04d-%02d-%02d %02d:%02d:%02d.%03d\",\"groups\":[",
                      tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min,
                      tm.tm_sec, static_cast<int>(ts % 1000000 / 1000));
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
    at += 3;
  }
  write_all(out.data(), static_cast<size_t>(at - out.data()));
  return 0;
}
