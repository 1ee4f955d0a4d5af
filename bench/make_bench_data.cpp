// Writes the benchmark data set: counters files whose blocks hold 10 and 5,000
// counters (the same number of counter values in all), the 5,000-counter
// blocks again in gzip and snappy pages, and an events file.
//
//   make_bench_data <folder> [scale]
//
// The files are large enough that nmb_read's run time is dominated by export.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/support/data_builder.h"

namespace {

using namespace nmb::test;

constexpr uint64_t kStart = 1700000000000000;

// `blocks` counters blocks of one group of `counters` UINT64 counters.
void write_counters_file(const std::string& folder, const std::string& name, int counters,
                         int blocks) {
  CounterGroup group("bench_group");
  for (int i = 0; i < counters; ++i) group.counter("port_xmit_data_" + std::to_string(i));
  CountersSchema schema;
  schema.group(group);
  SchemaId id = write_schema_file(folder + "/schema", schema);

  const uint32_t block_size = 16 + 8 * static_cast<uint32_t>(counters);
  DataFile file;
  file.block_size(block_size).counters_schema(id).times(kStart, kStart + blocks * 1000000ull);
  for (int b = 0; b < blocks; ++b) {
    Bytes values;
    for (int i = 0; i < counters; ++i) values.u64(static_cast<uint64_t>(b) * 1000003u + i);
    file.chunk(Chunk().counters(kStart + b * 1000000ull, values));
  }
  file.write(folder + "/" + name + ".bin");
}

// The 5,000-counter blocks again, 16 to a packed page of the given encoding,
// one page a chunk.
void write_counters_pages_file(const std::string& folder, const std::string& name, char encoding,
                               int blocks) {
  CounterGroup group("bench_group");
  for (int i = 0; i < 5000; ++i) group.counter("port_xmit_data_" + std::to_string(i));
  CountersSchema schema;
  schema.group(group);
  SchemaId id = write_schema_file(folder + "/schema", schema);
  DataFile file;
  file.block_size(1u << 20).counters_schema(id).times(kStart, kStart + blocks * 1000000ull);
  for (int b = 0; b < blocks; b += 16) {
    ByteVec content;
    for (int k = b; k < b + 16 && k < blocks; ++k) {
      Bytes values;
      for (int i = 0; i < 5000; ++i) values.u64(static_cast<uint64_t>(k) * 1000003u + i);
      ByteVec block = counters_block(kStart + k * 1000000ull, values.vec());
      content.insert(content.end(), block.begin(), block.end());
    }
    file.chunk(Chunk().page(PackedPage(encoding).content(content).times(
        kStart + b * 1000000ull, kStart + (b + 15) * 1000000ull)));
  }
  file.write(folder + "/" + name + ".bin");
}

void write_events_file(const std::string& folder, int chunks) {
  EventSchema schema;
  schema.type(EventType("port_event")
                  .field("node_guid", "uint64_t", 8)
                  .field("port_num", "uint8_t", 1)
                  .field("lid", "uint16_t", 2)
                  .field("xmit_data", "uint64_t", 8)
                  .field("rcv_data", "uint64_t", 8)
                  .field("rate", "double", 8)
                  .field("name", "char", 1, 16)
                  .field("samples", "uint32_t", 4, 4));
  const uint64_t record_size = schema.types[0].size;
  SchemaId id = write_schema_file(folder + "/schema", schema);

  const uint32_t block_size = 65536;
  const int per_block = 255;
  const size_t block_bytes = 16 + per_block * record_size;
  const int blocks_per_chunk = static_cast<int>(block_size / block_bytes);
  DataFile file;
  file.block_size(block_size).event_schema(0, id);
  uint64_t n = 0;
  for (int c = 0; c < chunks; ++c) {
    Chunk chunk;
    for (int b = 0; b < blocks_per_chunk; ++b) {
      Bytes records;
      for (int r = 0; r < per_block; ++r, ++n) {
        records.u64(0x248a0703005d0000ull + n % 64)
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
      }
      chunk.events(kStart + n, 0, 0, per_block, records);
    }
    file.chunk(chunk);
  }
  file.write(folder + "/events.bin");
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <folder> [scale]\n", argv[0]);
    return 2;
  }
  const std::string folder = argv[1];
  const int scale = argc > 2 ? std::atoi(argv[2]) : 1;
  // Two million counter values in each counters file per unit of scale.
  write_counters_file(folder, "counters_10", 10, 200000 * scale);
  write_counters_file(folder, "counters_5000", 5000, 400 * scale);
  write_counters_pages_file(folder, "counters_5000_gzip", 'G', 400 * scale);
  write_counters_pages_file(folder, "counters_5000_snappy", 'S', 400 * scale);
  write_events_file(folder, 400 * scale);
  return 0;
}
