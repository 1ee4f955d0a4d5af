// Writes the benchmark data set:
//   counters_500.bin, counters_5000.bin   blocks of 500 and of 5,000 mixed-type
//                                          counters (groups of 100), plain
//   counters_5000_whole_gzip.bin           the 5,000-counter file gzipped whole
//   counters_5000_gzip.bin, _snappy.bin   the 5,000-counter blocks, 16 to a
//                                          packed page of that encoding
//   events.bin, events_gzip.bin            320,000 event records of three types
//                                          (arrays, char strings, a nested type),
//                                          plain and in gzip pages
//   metrics.bin                            metrics blocks of 16 batches of 64
//                                          samples
// with the schemas in <folder>/schema.
//
//   make_bench_data <folder> [scale]
//
// Each counters file holds two million counter values per unit of scale.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/bench_layout.h"
#include "tests/support/data_builder.h"
#include "tests/support/metrics_builder.h"

namespace {

using namespace nmb::test;
using bench::Kind;
using bench::kSecond;
using bench::kStart;

CountersSchema counters_schema(int counters) {
  CountersSchema schema;
  for (int g = 0; g * bench::kGroupSize < counters; ++g) {
    CounterGroup group(bench::group_name(g));
    group.granularity = g % 2 == 0 ? "NODE" : "CPU";
    for (int i = g * bench::kGroupSize; i < (g + 1) * bench::kGroupSize && i < counters; ++i) {
      const bench::CounterLayout layout = bench::counter_layout(i);
      static const char* const kTypes[] = {"UINT64", "INT64", "FP64", "BIT64", "UINT64", "STRING"};
      group.counter(layout.name, kTypes[static_cast<int>(layout.kind)],
                    layout.kind == Kind::kString ? bench::kStringLength : 0);
    }
    schema.group(group);
  }
  return schema;
}

uint32_t values_size(int counters) {
  uint32_t size = 0;
  for (int i = 0; i < counters; ++i) size += bench::value_size(bench::counter_layout(i).kind);
  return size;
}

ByteVec counters_values(int counters, int b) {
  Bytes values;
  for (int i = 0; i < counters; ++i) {
    const Kind kind = bench::counter_layout(i).kind;
    if (kind == Kind::kString) {
      values.fixed(bench::counter_string(b, i), bench::kStringLength);
    } else {
      values.u64(bench::counter_bits(b, i, kind));
    }
  }
  // Inside a packed page a block ends at the next 4-byte word whose fourth
  // byte is a counters block's type letter: values must not hold one.
  ByteVec bytes = values.vec();
  for (size_t at = 3; at < bytes.size(); at += 4) {
    if (bytes[at] == 'D') bytes[at] ^= 1;
  }
  return bytes;
}

// Plain, or (encoding 'W') gzipped whole, or ('G', 'S') in packed pages.
void write_counters_file(const std::string& folder, const std::string& name, int counters,
                         int blocks, char encoding) {
  SchemaId id = write_schema_file(folder + "/schema", counters_schema(counters));
  const bool paged = encoding == 'G' || encoding == 'S';
  const uint32_t block_size = paged ? 1u << 20 : 16 + values_size(counters);
  DataFile file;
  file.block_size(block_size).counters_schema(id).times(kStart, kStart + blocks * kSecond);
  for (int b = 0; b < blocks; b += paged ? 16 : 1) {
    if (!paged) {
      file.chunk(Chunk().counters(kStart + b * kSecond, counters_values(counters, b)));
      continue;
    }
    ByteVec content;
    for (int k = b; k < b + 16 && k < blocks; ++k) {
      ByteVec block = counters_block(kStart + k * kSecond, counters_values(counters, k));
      content.insert(content.end(), block.begin(), block.end());
    }
    file.chunk(Chunk().page(PackedPage(encoding).content(content).times(
        kStart + b * kSecond, kStart + (b + 15) * kSecond)));
  }
  file.gzipped(encoding == 'W');
  file.write(folder + "/" + name + ".bin");
}

EventSchema event_schema() {
  const std::vector<bench::EventTypeLayout> types = bench::event_types();
  EventSchema schema;
  for (const auto& layout : types) {
    EventType type(layout.name);
    for (const auto& field : layout.fields)
      type.field(field.name, field.type, bench::event_field_size(types, field), field.count);
    schema.type(type);
  }
  return schema;
}

// One record of type `type` (1 is the nested type, never a record).
void event_record(Bytes& r, int type, uint64_t n) {
  switch (type) {
    case 0:
      r.u64(0x248a0703005d0000ull + n % 64)
          .u8(static_cast<uint8_t>(n % 40))
          .u16(static_cast<uint16_t>(n))
          .u64(n * 4096)
          .u64(n * 1024)
          .f64(static_cast<double>(n) / 7.0)
          .fixed("mlx5_" + std::to_string(n % 8), 16)
          .u32(1)
          .u32(2)
          .u32(3)
          .u32(static_cast<uint32_t>(n));
      break;
    case 2:
      r.u64(0x248a0703005d0000ull + n % 64).u8(static_cast<uint8_t>(n % 40));
      r.u32(static_cast<uint32_t>(n % 1000))
          .u16(static_cast<uint16_t>(n % 3))
          .f64(1e-12 * (n % 77));
      for (int k = 0; k < 4; ++k) r.u8(static_cast<uint8_t>(k + n % 2));
      for (int k = 0; k < 8; ++k)
        r.u32(static_cast<uint32_t>(static_cast<int32_t>(n % 50) - 25 + k));
      break;
    default:
      r.u64(1000000 + n / 100).u32(static_cast<uint32_t>(1000 + n % 500));
      r.i64(static_cast<int64_t>(n) - 5000).f32(static_cast<float>(n % 100) / 8.0f);
      r.fixed("user" + std::to_string(n % 300), 24);
      for (int k = 0; k < 16; ++k) r.u16(static_cast<uint16_t>((n + k) % 128));
  }
}

void write_events_file(const std::string& folder, const std::string& name, int chunks,
                       bool gzip_pages) {
  const EventSchema schema = event_schema();
  SchemaId id = write_schema_file(folder + "/schema", schema);
  const uint32_t block_size = 65536;
  const int per_block = 200;
  DataFile file;
  file.block_size(gzip_pages ? 2 * block_size : block_size).event_schema(0, id);
  uint64_t n = 0;
  for (int c = 0; c < chunks; ++c) {
    Chunk chunk;
    size_t used = 0;
    for (int b = 0;; ++b) {
      const int type = b % 3 == 0 ? 0 : b % 3 == 1 ? 2 : 3;
      const size_t block_bytes = 16 + per_block * schema.types[type].size;
      if (used + block_bytes > block_size) break;
      used += block_bytes;
      Bytes records;
      for (int r = 0; r < per_block; ++r, ++n) event_record(records, type, n);
      chunk.events(kStart + n, 0, static_cast<uint16_t>(type), per_block, records);
    }
    if (gzip_pages) {
      file.chunk(Chunk().page(PackedPage('G').content(chunk.content()).times(kStart, kStart + n)));
    } else {
      file.chunk(chunk);
    }
  }
  file.write(folder + "/" + name + ".bin");
}

void write_metrics_file(const std::string& folder, int blocks) {
  std::vector<std::string> metrics;
  for (int m = 0; m < 64; ++m) metrics.push_back("hw_counter_" + std::to_string(m));
  DataFile file;
  file.block_size(16384).times(kStart, kStart + blocks * kSecond);
  for (int b = 0; b < blocks; ++b) {
    const uint64_t ts = kStart + b * kSecond;
    MetricsPayload payload;
    payload.label_names({"device", "port"})
        .label_values({"mlx5_0", "mlx5_1", "mlx5_2", "mlx5_3", "1", "2"})
        .metric_names(metrics)
        .common_labels({{"host", "node01"}, {"cluster", "bench"}});
    for (int k = 0; k < 16; ++k) {
      Batch batch(ts + k * 1000);
      for (uint16_t m = 0; m < 64; ++m) batch.sample(m, uint64_t{1000003} * b + 977 * m + k);
      batch.labels(
          LabelsBlock('L', 0).id(static_cast<uint8_t>(k % 4)).id(static_cast<uint8_t>(4 + k % 2)));
      payload.batch(batch);
    }
    file.chunk(Chunk().raw(payload.bytes()));
  }
  file.write(folder + "/metrics.bin");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <folder> [scale]\n", argv[0]);
    return 2;
  }
  const std::string folder = argv[1];
  const int scale = argc > 2 ? std::atoi(argv[2]) : 1;
  write_counters_file(folder, "counters_500", 500, 4000 * scale, 'P');
  write_counters_file(folder, "counters_5000", 5000, 400 * scale, 'P');
  write_counters_file(folder, "counters_5000_whole_gzip", 5000, 400 * scale, 'W');
  write_counters_file(folder, "counters_5000_gzip", 5000, 400 * scale, 'G');
  write_counters_file(folder, "counters_5000_snappy", 5000, 400 * scale, 'S');
  write_events_file(folder, "events", 400 * scale, false);
  write_events_file(folder, "events_gzip", 400 * scale, true);
  write_metrics_file(folder, 1000 * scale);
  return 0;
}
