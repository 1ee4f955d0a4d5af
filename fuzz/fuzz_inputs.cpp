#include "fuzz/fuzz_inputs.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "utils/log.h"

namespace nmb::fuzz {

namespace {

std::string g_work_dir;

void discard_log(uint32_t, const char* format, va_list args) {
  char line[4096];
  vsnprintf(line, sizeof line, format, args);
}

}  // namespace

std::string quiet_fuzz_setup(const char* prefix) {
  int null_fd = open("/dev/null", O_WRONLY);
  if (null_fd >= 0) {
    dup2(null_fd, STDOUT_FILENO);
    close(null_fd);
  }
  // NMB_FUZZ_VERBOSE=1 keeps the log messages on standard error, to see why
  // a crash input fails.
  if (std::getenv("NMB_FUZZ_VERBOSE") == nullptr)
    nmb_register_log_callback(discard_log, NMB_LOG_DEBUG);

  std::string pattern = std::string("/dev/shm/") + prefix + ".XXXXXX";
  if (!mkdtemp(pattern.data())) {
    std::perror("mkdtemp");
    std::abort();
  }
  g_work_dir = pattern;
  std::atexit([] {
    std::error_code ec;
    std::filesystem::remove_all(g_work_dir, ec);
  });
  return g_work_dir;
}

using namespace nmb::test;

namespace {

constexpr uint64_t kStart = 1700000000000000;
constexpr uint32_t kBlockSize = 256;

CountersSchema counters_schema() {
  CounterGroup node("node");
  node.counter("plain").counter("ratio", "FP64").counter("signed", "INT64");
  node.counter("bits", "BIT64").counter("text", "STRING", 12).counter("short_one", "UINT64", 4);
  Counter u128;
  u128.name = "wide";
  u128.data_type = "UINT128";
  u128.string_format = "UUID";
  Counter i128;
  i128.name = "wide_signed";
  i128.data_type = "INT128";
  Counter guid;
  guid.name = "node_guid";
  guid.string_format = "DECIMAL";
  Counter binary;
  binary.name = "mask";
  binary.string_format = "BINARY";
  Counter hex_fp;
  hex_fp.name = "fp_hex";
  hex_fp.data_type = "FP64";
  hex_fp.string_format = "HEXADECIMAL";
  node.add(u128).add(i128).add(guid).add(binary).add(hex_fp);
  CounterGroup cpu("cpu");
  cpu.granularity = "CPU";
  cpu.counter("cycles").counter("undefined_kind", "Undefined");
  return CountersSchema().group(node).group(cpu);
}

EventSchema event_schema() {
  EventSchema schema;
  schema.provider_name = "fuzz_events";
  EventType record("record");
  record.field("time", "timestamp", 8)
      .field("port_guid", "uint64_t", 8)
      .field("node_guid", "uint32_t", 4)
      .field("name", "char", 1, 8)
      .field("bytes", "uint8_t", 1, 4)
      .field("value", "double", 8)
      .field("load", "float", 4)
      .field("delta", "int16_t", 2, 1, "DELTA")
      .field("flag", "bool", 1)
      .field("big", "int64_t", 8);
  uint64_t record_size = record.size;
  schema.type(std::move(record));
  schema.type(
      EventType("outer").field("id", "uint16_t", 2).field("inner", "record", record_size, 2));
  return schema;
}

EventSchema more_event_schema() {
  EventSchema schema;
  schema.provider_name = "fuzz_more_events";
  schema.type(EventType("small").field("a", "uint32_t", 4).field("b", "short", 2));
  return schema;
}

ByteVec record_bytes(int i) {
  return Bytes()
      .u64(kStart + static_cast<uint64_t>(i))
      .u64(0x0002c90300001234u + static_cast<uint64_t>(i))
      .u32(7)
      .fixed("port" + std::to_string(i), 8)
      .u8(1)
      .u8(2)
      .u8(3)
      .u8(4)
      .f64(1.5 * i)
      .f32(0.25f)
      .i16(-3)
      .u8(1)
      .i64(-5);
}

ByteVec counter_values(int sample) {
  return Bytes()
      .u64(100u + static_cast<uint64_t>(sample))
      .f64(0.5)
      .i64(-7)
      .u64(0x5)
      .fixed("host", 12)
      .u32(9)
      .u128(0x1122334455667788u, 0x99aabbccddeeff00u)
      .u128(1, 0)
      .u64(0x0002c903000a0b0cu)
      .u64(0xf0)
      .f64(2.0)
      .u64(1000u)
      .u64(3);
}

DataFile base_file(const FuzzSchemas& ids) {
  DataFile file;
  file.block_size(kBlockSize)
      .source("fuzz", "seed")
      .times(kStart, kStart + 1000000)
      .counters_schema(ids.counters)
      .event_schema(0, ids.events);
  return file;
}

}  // namespace

FuzzSchemas fuzz_schema_ids() {
  return {schema_id_of(counters_schema().json()), schema_id_of(event_schema().json()),
          schema_id_of(more_event_schema().json())};
}

FuzzSchemas write_fuzz_schemas(const std::string& dir) {
  FuzzSchemas ids;
  ids.counters = write_schema_file(dir, counters_schema());
  ids.events = write_schema_file(dir, event_schema());
  ids.more_events = write_schema_file(dir, more_event_schema());
  return ids;
}

std::vector<std::pair<std::string, ByteVec>> fuzz_seed_files(const FuzzSchemas& ids) {
  std::vector<std::pair<std::string, ByteVec>> seeds;
  auto add = [&](std::string name, const DataFile& file) {
    seeds.emplace_back(std::move(name), file.bytes());
  };

  add("header_only", base_file(ids));
  add("counters", base_file(ids)
                      .chunk(Chunk().counters(kStart, counter_values(0)))
                      .chunk(Chunk().counters(kStart + 1, counter_values(1)).unpadded()));

  ByteVec records = Bytes().raw(record_bytes(0)).raw(record_bytes(1));
  ByteVec outer = Bytes().u16(5).raw(record_bytes(2)).raw(record_bytes(3));
  add("events", base_file(ids)
                    .chunk(Chunk().events(kStart, 0, 0, 2, records).events(kStart, 0, 1, 1, outer))
                    .chunk(Chunk().events(kStart, 0, 0, 0, {}).events(kStart, 0, 0, 3, records)));

  add("schemas_block", base_file(ids).chunk(Chunk()
                                                .events(kStart, 0, 0, 1, record_bytes(0))
                                                .schemas({ids.more_events, ids.events})
                                                .events(kStart, 0, 0, 1, Bytes().u32(1).u16(2))
                                                .events(kStart, 1, 0, 1, record_bytes(1))));

  ByteVec counters_page;
  for (int s = 0; s < 3; ++s) {
    ByteVec block =
        Chunk().counters(kStart + static_cast<uint64_t>(s), counter_values(s)).bytes(128);
    counters_page.insert(counters_page.end(), block.begin(), block.end());
  }
  ByteVec events_page = Chunk().events(kStart, 0, 0, 2, records).bytes(160);
  add("pages", base_file(ids)
                   .chunk(Chunk()
                              .page(PackedPage('G').content(counters_page))
                              .page(PackedPage('S').content(events_page).source("", "")))
                   .chunk(Chunk().page(PackedPage('S').content(counters_page))));

  add("blob", base_file(ids).chunk(Chunk().blob(kStart, Bytes().text("opaque"))));
  add("gzipped", base_file(ids).chunk(Chunk().counters(kStart, counter_values(2))).gzipped());
  add("print_mixed", base_file(ids)
                         .version(1, 3, 9)
                         .chunk(Chunk().counters(kStart, counter_values(3)))
                         .chunk(Chunk().events(kStart, 0, 0, 1, record_bytes(4))));
  return seeds;
}

}  // namespace nmb::fuzz
