// libFuzzer target: build -> read. The input describes counters samples and
// event records; they are written with the test-data builder as plain
// chunks, gzip pages, snappy pages, or snappy pages re-exported with -f bin,
// read back with the ndjson export and must come out as the same records,
// in order, nothing added or lost.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "app/options.h"
#include "app/run.h"
#include "data/reader.h"
#include "fuzz/fuzz_inputs.h"
#include "utils/output.h"

namespace {

using namespace nmb::test;
using nlohmann::json;
namespace fs = std::filesystem;

constexpr int kCounters = 4;
constexpr uint64_t kStart = 1700000000000000;

std::string g_dir;
SchemaId g_counters_id;
SchemaId g_events_id;

struct Item {
  bool counters;
  uint64_t timestamp;
  std::vector<uint64_t> values;    // counters, or a and b of each event
  std::vector<std::string> names;  // s of each event
};

// Values below 2^53 read back exactly as JSON numbers. Inside a packed page
// a 4-byte word whose fourth byte is 'D' starts the next counters block;
// such words are kept out of the values.
uint64_t value(FuzzedDataProvider& in) {
  uint64_t v = in.ConsumeIntegral<uint64_t>() & ((uint64_t{1} << 53) - 1);
  for (int byte : {3, 7})
    if (((v >> (8 * byte)) & 0xff) == 'D') v ^= uint64_t{1} << (8 * byte);
  return v;
}

ByteVec block_of(const Item& item) {
  Bytes bytes;
  if (item.counters) {
    for (uint64_t v : item.values) bytes.u64(v);
    return counters_block(item.timestamp, bytes);
  }
  for (size_t e = 0; e < item.names.size(); ++e) {
    bytes.u64(item.values[2 * e]).u64(item.values[2 * e + 1]).fixed(item.names[e], 8);
  }
  return event_block(item.timestamp, 0, 0, static_cast<uint8_t>(item.names.size()), bytes);
}

std::string read_ndjson(const std::string& path) {
  nmb_read_options_t options;
  options.schema_path = g_dir + "/schema";
  options.format = NMB_FORMAT_NDJSON;
  nmb_string_array_append(options.include, "*");
  const nmb_reader_settings_t settings = nmb_reader_settings_from(options);
  const nmb::ExportSettings export_with = nmb_export_settings_from(options);
  static nmb::OutputBuffer out(-1, size_t{1} << 22);
  out.text().clear();
  auto sink = nmb_make_block_sink(NMB_FORMAT_NDJSON, export_with, out);
  if (!nmb_process_file(path.c_str(), settings, *sink, true)) std::abort();
  return out.text();
}

void bin_export(const std::string& path, const std::string& out_dir) {
  nmb_read_options_t options;
  options.schema_path = g_dir + "/schema";
  options.format = NMB_FORMAT_BIN;
  options.output_dir = out_dir;
  nmb_string_array_append(options.include, "*");
  const nmb_reader_settings_t settings = nmb_reader_settings_from(options);
  const nmb::ExportSettings export_with = nmb_export_settings_from(options);
  nmb::OutputBuffer out(-1, 4096);
  auto sink = nmb_make_block_sink(NMB_FORMAT_BIN, export_with, out);
  if (!nmb_process_file(path.c_str(), settings, *sink, true)) std::abort();
}

void compare(const std::string& ndjson, const std::vector<Item>& items) {
  size_t item = 0, event = 0;
  for (size_t at = 0; at < ndjson.size();) {
    const size_t end = ndjson.find('\n', at);
    if (end == std::string::npos) std::abort();
    const json line = json::parse(ndjson.substr(at, end - at));
    at = end + 1;
    if (item == items.size()) std::abort();
    const Item& it = items[item];
    if (it.counters) {
      if (line.at("timestamp").get<uint64_t>() != it.timestamp) std::abort();
      const json& set = line.at("groups").at(0).at("counter_sets").at(0);
      for (int c = 0; c < kCounters; ++c) {
        if (set.at("c" + std::to_string(c)).get<double>() != static_cast<double>(it.values[c]))
          std::abort();
      }
      ++item;
    } else {
      if (line.at("header_timestamp").get<uint64_t>() != it.timestamp) std::abort();
      if (line.at("a").get<double>() != static_cast<double>(it.values[2 * event])) std::abort();
      if (line.at("b").get<double>() !=
          static_cast<double>(static_cast<int64_t>(it.values[2 * event + 1])))
        std::abort();
      if (line.at("s") != it.names[event]) std::abort();
      if (++event == it.names.size()) {
        event = 0;
        ++item;
      }
    }
  }
  if (item != items.size()) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  g_dir = nmb::fuzz::quiet_fuzz_setup("nmb_fuzz_roundtrip");
  CounterGroup group("g");
  for (int c = 0; c < kCounters; ++c) group.counter("c" + std::to_string(c));
  g_counters_id = write_schema_file(g_dir + "/schema", CountersSchema().group(group));
  EventSchema events;
  events.provider_name = "roundtrip";
  events.type(
      EventType("ev").field("a", "uint64_t", 8).field("b", "int64_t", 8).field("s", "char", 1, 8));
  g_events_id = write_schema_file(g_dir + "/schema", events);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  const int mode = in.ConsumeIntegralInRange(0, 3);  // plain, gzip, snappy, -f bin
  std::vector<Item> items;
  uint64_t timestamp = kStart;
  while (in.remaining_bytes() > 0 && items.size() < 24) {
    Item item;
    item.counters = in.ConsumeBool();
    // Re-exported pages of one first timestamp keep to one output file, and
    // a page that closes it (a new counters schema id) is then dropped with
    // a warning: the writer's rule, so -f bin items get rising timestamps.
    timestamp += in.ConsumeIntegralInRange<uint64_t>(mode == 3 ? 1 : 0, 1000000);
    item.timestamp = timestamp;
    if (item.counters) {
      for (int c = 0; c < kCounters; ++c) item.values.push_back(value(in));
    } else {
      const int count = in.ConsumeIntegralInRange(1, 4);
      for (int e = 0; e < count; ++e) {
        item.values.push_back(value(in));
        item.values.push_back(value(in));
        std::string name = in.ConsumeBytesAsString(in.ConsumeIntegralInRange(0, 8));
        for (char& ch : name) ch = static_cast<char>(' ' + static_cast<uint8_t>(ch) % 95);
        item.names.push_back(name);
      }
    }
    items.push_back(std::move(item));
  }

  DataFile file;
  file.source("rt", "fuzz")
      .times(kStart, timestamp)
      .counters_schema(g_counters_id)
      .event_schema(0, g_events_id);
  if (mode == 0) {
    file.block_size(256);
    for (const Item& item : items) file.chunk(Chunk().raw(block_of(item)));
  } else {
    // One page per run of counters samples, one per events block.
    Chunk chunk;
    for (size_t i = 0; i < items.size();) {
      ByteVec content;
      const uint64_t first = items[i].timestamp;
      size_t j = i;
      do {
        ByteVec block = block_of(items[j]);
        content.insert(content.end(), block.begin(), block.end());
        ++j;
      } while (j < items.size() && items[i].counters && items[j].counters);
      if (!items[i].counters) content.resize(content.size() + 16);  // ends the events area
      chunk.page(PackedPage(mode == 1 ? 'G' : 'S')
                     .content(content)
                     .source("rt", "fuzz")
                     .times(first, items[j - 1].timestamp));
      i = j;
    }
    file.block_size(static_cast<uint32_t>(std::max<size_t>(256, chunk.content().size())));
    if (!items.empty()) file.chunk(chunk);
  }
  const std::string path = file.write(g_dir + "/in.bin");
  if (mode != 3) {
    compare(read_ndjson(path), items);
    return 0;
  }
  const std::string out_dir = g_dir + "/out";
  fs::remove_all(out_dir);
  fs::create_directories(out_dir);
  bin_export(path, out_dir);
  std::vector<std::string> written;
  for (const auto& entry : fs::recursive_directory_iterator(out_dir))
    if (entry.is_regular_file() && entry.path().extension() == ".bin")
      written.push_back(entry.path());
  std::sort(written.begin(), written.end());
  std::string all;
  for (const std::string& p : written) all += read_ndjson(p);
  compare(all, items);
  return 0;
}
