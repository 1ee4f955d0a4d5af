// libFuzzer target: arbitrary bytes loaded as an event schema file and as a
// counters schema file. Whatever loads is then used to export fixed events
// blocks (every format that writes records) and a fixed counters block built
// at start-up, so hostile layouts (types that contain themselves, absurd
// offsets, sizes and array lengths, deep nesting) reach the exporters too.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "app/options.h"
#include "app/run.h"
#include "counters/counters_schema.h"
#include "data/format.h"
#include "data/schema_json.h"
#include "data/type_system.h"
#include "fuzz/fuzz_inputs.h"
#include "utils/log.h"
#include "utils/output.h"

namespace {

std::string g_work_dir;
std::string g_schema_path;
std::vector<nmb_read_options_t> g_options;
// Record bytes of the events blocks, after their 16-byte header: one area of
// small printable bytes (strings and floats that can be written) and one of
// every byte value (invalid UTF-8, NaN patterns).
std::vector<uint8_t> g_plain_records;
std::vector<uint8_t> g_wild_records;
std::vector<uint8_t> g_counters_block;

std::vector<uint8_t> events_block(const std::vector<uint8_t>& records, uint16_t type_index,
                                  uint8_t num_events) {
  std::vector<uint8_t> block(NMB_EVENT_BLOCK_HEADER_SIZE, 0);
  std::memcpy(block.data(), "NMBE", 4);
  const uint64_t timestamp = 1700000000123456;
  std::memcpy(block.data() + NMB_EVENT_BLOCK_TIMESTAMP, &timestamp, sizeof timestamp);
  block[NMB_EVENT_BLOCK_SCHEMA_INDEX] = 0;
  std::memcpy(block.data() + NMB_EVENT_BLOCK_TYPE_INDEX, &type_index, sizeof type_index);
  block[NMB_EVENT_BLOCK_NUM_EVENTS] = num_events;
  block.insert(block.end(), records.begin(), records.end());
  return block;
}

// The events blocks (the first types, the last one and one past the end) and
// the counters block through the sink of each format.
void export_blocks(const nmb_read_options_t& options, const nmb_type_system_t& ts) {
  const nmb::ExportSettings settings = nmb_export_settings_from(options);
  auto sink = nmb_make_block_sink(options.format, settings, nmb::stdout_buffer());
  sink->file_opened("fuzz.bin");
  sink->schemas_loaded(&ts);
  if (ts.num_schemas > 0) {
    const nmb_schema_t& schema = *ts.schemas[0];
    std::vector<uint16_t> indexes;
    for (uint16_t t = 0; t < std::min<uint16_t>(schema.num_types, 3); ++t) indexes.push_back(t);
    indexes.push_back(schema.num_types > 0 ? schema.num_types - 1 : 0);
    indexes.push_back(schema.num_types);
    for (uint16_t t : indexes) {
      for (const auto* records : {&g_plain_records, &g_wild_records}) {
        std::vector<uint8_t> block = events_block(*records, t, 4);
        sink->events_block(nmb::ByteView(block));
      }
    }
  }
  if (ts.counters_schema && nmb_counters_schema_number_of_counters(*ts.counters_schema) > 0)
    sink->counters_block(nmb::ByteView(g_counters_block));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_work_dir = nmb::fuzz::quiet_fuzz_setup("nmb_fuzz_schema");
  g_schema_path = g_work_dir + "/schema.json";
  // NMB_FUZZ_SCHEMA_SEEDS=<folder>: also write the reader fuzzer's schemas
  // there, as a seed corpus.
  if (const char* seeds = std::getenv("NMB_FUZZ_SCHEMA_SEEDS"))
    nmb::fuzz::write_fuzz_schemas(seeds);

  for (int format : {NMB_FORMAT_JSON, NMB_FORMAT_NDJSON, NMB_FORMAT_INFLUX, NMB_FORMAT_TXT}) {
    nmb_read_options_t options;
    options.format = format;
    nmb_string_array_append(options.include, "*");
    g_options.push_back(std::move(options));
  }

  for (int i = 0; i < 2048; ++i) g_plain_records.push_back(static_cast<uint8_t>(' ' + i % 90));
  for (int i = 0; i < 2048; ++i) {
    g_wild_records.push_back(static_cast<uint8_t>((i * 131 + (i >> 8)) & 0xFF));
  }

  g_counters_block.assign(NMB_COUNTERS_BLOCK_HEADER_SIZE, 0);
  std::memcpy(g_counters_block.data(), "NMBD", 4);
  const uint64_t timestamp = 1700000000654321;
  std::memcpy(g_counters_block.data() + NMB_COUNTERS_BLOCK_TIMESTAMP, &timestamp, sizeof timestamp);
  for (int i = 0; i < 1024; ++i) {
    g_counters_block.push_back(static_cast<uint8_t>(i % 7 == 0 ? 0 : 'A' + i % 26));
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FILE* file = std::fopen(g_schema_path.c_str(), "wb");
  if (!file) std::abort();
  if (size && std::fwrite(data, 1, size, file) != size) std::abort();
  std::fclose(file);

  std::unique_ptr<nmb_type_system_t> ts = nmb_type_system_create();
  if (!ts) std::abort();
  bool loaded = false;
  if (nmb_type_system_load_schema(*ts, g_schema_path.c_str(), &loaded) != nullptr)
    nmb_schema_fill_md5(*ts->schemas[0]);
  ts->counters_schema = nmb_counters_schema_load_file(g_schema_path.c_str());
  if (ts->counters_schema) {
    uint8_t digest[16];
    nmb_type_system_get_counters_schema_md5(*ts, digest);
  } else {
    ts->counters_schema = std::make_unique<nmb_counters_schema_t>();
  }
  for (const auto& options : g_options) export_blocks(options, *ts);
  nmb::stdout_buffer().flush();
  return 0;
}
