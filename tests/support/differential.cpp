#include "tests/support/differential.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "app/options.h"
#include "app/run.h"
#include "data/reader.h"
#include "tests/support/data_builder.h"
#include "tests/support/reference_sink.h"
#include "utils/output.h"

namespace nmb::test {

namespace {

using reference::MetadataEntry;

// Names that every GUID rule tells apart, and a few that are keys the record
// adds itself or that metadata prefixes cut.
const char* const kNames[] = {"Sys_Guid",
                              "Node_Guid",
                              "node_guid",
                              "gguid",
                              "myguid",
                              "GUID2",
                              "port_GUID",
                              "guid",
                              "GUID",
                              "Guid",
                              "guidance",
                              "port_1_guid",
                              "x_guid_y",
                              "NodeGUID",
                              "system_image_guid",
                              "rx_bytes",
                              "port_rcv_data",
                              "port_xmit",
                              "a",
                              "b",
                              "header_timestamp",
                              "@header_timestamp",
                              "indexes",
                              "labels",
                              "guid_guid",
                              "gguidguid",
                              "name\"quote",
                              "tab\tname",
                              "ünï",
                              "1guid1"};

const char* const kDataTypes[] = {"Undefined", "UINT64",  "FP64",   "BIT64", "INT64",
                                  "STRING",    "UINT128", "INT128", "WHAT"};
const char* const kStringFormats[] = {"DEFAULT", "DECIMAL", "HEXADECIMAL",
                                      "UUID",    "BINARY",  "WHAT"};
const char* const kGranularities[] = {"NODE", "CPU", "PACKAGE", "SOCKET"};

// The built-in types with their sizes.
const std::pair<const char*, uint64_t> kBuiltins[] = {{"bool", 1},
                                                      {"char", 1},
                                                      {"short", 2},
                                                      {"int", 4},
                                                      {"long", 8},
                                                      {"long long", 8},
                                                      {"unsigned char", 1},
                                                      {"unsigned short", 2},
                                                      {"unsigned int", 4},
                                                      {"unsigned long", 8},
                                                      {"unsigned long long", 8},
                                                      {"float", 4},
                                                      {"double", 8},
                                                      {"int8_t", 1},
                                                      {"int16_t", 2},
                                                      {"int32_t", 4},
                                                      {"int64_t", 8},
                                                      {"uint8_t", 1},
                                                      {"uint16_t", 2},
                                                      {"uint32_t", 4},
                                                      {"uint64_t", 8},
                                                      {"timestamp", 8}};

const char* const kPatterns[] = {"Sys_",   "Node_", "node_", "port_",     "port_1_",
                                 "^port_", "guid",  "Guid",  "rx_bytes$", "guid$",
                                 "^",      "",      "x_",    "indexes$",  "labels"};
const char* const kIndexNames[] = {"port", "node", "labels", "indexes", "k"};
const char* const kLabelNames[] = {"host", "fabric", "rack"};

class Case {
 public:
  explicit Case(const Choose& choose) : choose_(choose) {}

  uint64_t below(uint64_t bound) { return choose_(bound); }
  bool one_in(uint64_t n) { return below(n) == 0; }
  template <typename T, size_t N>
  const T& pick(const T (&items)[N]) {
    return items[below(N)];
  }

  // Bytes that are often text, small numbers or zeros, so that strings and
  // numbers both come out, and now and then anything.
  void fill(ByteVec& out, size_t count) {
    for (size_t i = 0; i < count; ++i) {
      switch (below(8)) {
        case 0:
        case 1:
        case 2:
          out.push_back(0);
          break;
        case 3:
        case 4:
          out.push_back(static_cast<uint8_t>('a' + below(26)));
          break;
        case 5:
          out.push_back(static_cast<uint8_t>(below(10)));
          break;
        default:
          out.push_back(static_cast<uint8_t>(below(256)));
      }
    }
  }

  CountersSchema counters_schema() {
    CountersSchema schema;
    const uint64_t groups = 1 + below(3);
    for (uint64_t g = 0; g < groups; ++g) {
      CounterGroup group;
      group.granularity = pick(kGranularities);
      if (!one_in(3)) group.name = "group" + std::to_string(g);
      group.num_counter_sets = static_cast<uint32_t>(below(5) == 0 ? 0 : 1 + below(2));
      const uint64_t counters = below(7);
      for (uint64_t c = 0; c < counters; ++c) {
        Counter counter;
        counter.name = pick(kNames);
        counter.data_type = pick(kDataTypes);
        if (!one_in(4)) counter.string_format = pick(kStringFormats);
        if (counter.data_type == "STRING" ? !one_in(20) : one_in(4))
          counter.length = static_cast<uint32_t>(1 + below(20));
        group.add(counter);
      }
      schema.group(group);
    }
    return schema;
  }

  // Types refer only to earlier types, so none contains itself. Offsets and
  // strides are often the natural ones and sometimes anything: fields overlap
  // and reach past the record and the block.
  EventSchema event_schema(std::vector<uint64_t>& sizes) {
    EventSchema schema;
    schema.provider_name = "differential";
    const uint64_t types = 1 + below(3);
    for (uint64_t t = 0; t < types; ++t) {
      EventType type("t" + std::to_string(t));
      const uint64_t fields = 1 + below(5);
      uint64_t end = 0;
      for (uint64_t f = 0; f < fields; ++f) {
        EventField field;
        field.name = pick(kNames);
        uint64_t size;
        if (t > 0 && one_in(4)) {
          const uint64_t nested = below(t);
          field.type_name = "t" + std::to_string(nested);
          size = sizes[nested];
        } else {
          const auto& [name, builtin_size] = pick(kBuiltins);
          field.type_name = name;
          size = builtin_size;
        }
        field.type_size = one_in(6) ? below(12) : size;
        if (!one_in(3)) field.array_length = static_cast<uint16_t>(below(5));
        const uint64_t count = field.array_length.value_or(1) == 0 ? 1 : *field.array_length;
        field.offset = one_in(3) ? below(end + 12) : end;
        end = std::max(end, field.offset + count * field.type_size);
        type.add(field);
      }
      type.record_size(one_in(4) ? 1 + below(end + 8) : std::max<uint64_t>(end, 1));
      sizes.push_back(type.size);
      schema.type(type);
    }
    return schema;
  }

  std::vector<MetadataEntry> metadata(std::string& text) {
    nlohmann::ordered_json items = nlohmann::ordered_json::array();
    std::vector<MetadataEntry> entries;
    const uint64_t count = 1 + below(4);
    for (uint64_t i = 0; i < count; ++i) {
      std::string pattern = pick(kPatterns);
      MetadataEntry entry;
      entry.pattern = pattern;
      if (!entry.pattern.empty() && entry.pattern[0] == '^') entry.pattern.erase(0, 1);
      if (!entry.pattern.empty() && entry.pattern.back() == '$') {
        entry.pattern.pop_back();
        entry.exact = true;
      }
      nlohmann::ordered_json names = nlohmann::ordered_json::array();
      nlohmann::ordered_json values = nlohmann::ordered_json::array();
      for (uint64_t k = below(3); k > 0; --k) {
        entry.indexes.emplace_back(pick(kIndexNames), std::to_string(below(4)));
        names.push_back(entry.indexes.back().first);
        values.push_back(entry.indexes.back().second);
      }
      nlohmann::ordered_json labels = nlohmann::ordered_json::object();
      for (const char* label : kLabelNames) {
        if (!one_in(2)) continue;
        entry.labels.emplace_back(label, "v" + std::to_string(below(9)));
        labels[label] = entry.labels.back().second;
      }
      nlohmann::ordered_json match = {{"pattern_match", values}, {"labels", labels}};
      items.push_back({{"pattern", pattern},
                       {"index_names", names},
                       {"matches_and_labels", nlohmann::ordered_json::array({match})}});
      entries.push_back(std::move(entry));
    }
    nlohmann::ordered_json doc;
    doc["metadata_content"]["counters"]["name_match_labels"] = items;
    text = doc.dump();
    return entries;
  }

 private:
  const Choose& choose_;
};

struct Run {
  std::string path;
  std::string schema_path;
  bool metadata = false;
  bool microseconds = false;
};

std::string tool_output(const Run& run, int format) {
  nmb_read_options_t options;
  options.schema_path = run.schema_path;
  options.format = format;
  options.metadata = run.metadata;
  options.microsecond_precision = run.microseconds;
  nmb_string_array_append(options.include, "*");
  const nmb_reader_settings_t settings = nmb_reader_settings_from(options);
  const nmb::ExportSettings export_with = nmb_export_settings_from(options);
  // Never flushed (a case writes far less): the text is the output.
  static nmb::OutputBuffer out(-1, size_t{1} << 24);
  out.text().clear();
  auto sink = nmb_make_block_sink(format, export_with, out);
  sink->begin_run();
  nmb_process_file(run.path.c_str(), settings, *sink, true);
  sink->end_run(true);
  return out.text();
}

std::string reference_output(const Run& run, int format, std::vector<MetadataEntry> metadata) {
  nmb_read_options_t options;
  options.schema_path = run.schema_path;
  options.metadata = run.metadata;
  const nmb_reader_settings_t settings = nmb_reader_settings_from(options);
  reference::Settings with;
  with.guid_switch = reference::guid_switch_from_environment();
  with.microseconds = run.microseconds;
  reference::ReferenceSink sink(format == NMB_FORMAT_JSON, with, std::move(metadata));
  sink.begin_run();
  nmb_process_file(run.path.c_str(), settings, sink, true);
  sink.end_run(true);
  return sink.text();
}

// Standard error goes nowhere while the tool reports the records it refuses.
class QuietStderr {
 public:
  QuietStderr() : saved_(dup(2)) {
    const int null_fd = open("/dev/null", O_WRONLY);
    dup2(null_fd, 2);
    close(null_fd);
  }
  ~QuietStderr() {
    dup2(saved_, 2);
    close(saved_);
  }
  QuietStderr(const QuietStderr&) = delete;
  QuietStderr& operator=(const QuietStderr&) = delete;

 private:
  int saved_;
};

std::string first_difference(const std::string& tool, const std::string& ref) {
  const size_t at =
      std::mismatch(tool.begin(), tool.end(), ref.begin(), ref.end()).first - tool.begin();
  const size_t from = at > 300 ? at - 300 : 0;
  return "at byte " + std::to_string(at) + "\n--- tool:\n" + tool.substr(from, 500) +
         "\n--- reference:\n" + ref.substr(from, 500) + "\n";
}

}  // namespace

DifferentialResult run_differential_case(const Choose& choose, const std::string& dir) {
  Case c(choose);
  const std::string schema_dir = dir + "/schema";
  std::filesystem::remove_all(schema_dir);
  const CountersSchema counters = c.counters_schema();
  std::vector<uint64_t> sizes;
  const EventSchema events = c.event_schema(sizes);
  const SchemaId counters_id = write_schema_file(schema_dir, counters);
  const SchemaId events_id = write_schema_file(schema_dir, events);

  Run run;
  run.schema_path = schema_dir;
  run.microseconds = c.one_in(2);
  run.metadata = c.one_in(3);
  std::vector<MetadataEntry> metadata;
  if (run.metadata) {
    std::string text;
    metadata = c.metadata(text);
    write_text_file(schema_dir + "/metadata_" + schema_id_hex(counters_id) + ".json", text);
  }

  // One chunk of blocks: counters blocks whose values area is about the
  // schema's size (sometimes shorter, so values reach past the block), and
  // events blocks of random records.
  uint64_t area = 0;
  for (const auto& group : counters.groups)
    for (const auto& counter : group.counters)
      area += counter.data_type == "STRING" ? counter.length.value_or(0)
              : counter.data_type == "UINT128" || counter.data_type == "INT128"
                  ? 16
                  : counter.length.value_or(8);
  Chunk chunk;
  uint64_t timestamp = 1700000000000000 + c.below(1000000000);
  const uint64_t blocks = 1 + c.below(4);
  for (uint64_t b = 0; b < blocks; ++b) {
    timestamp += c.below(10000000);
    ByteVec bytes;
    if (c.one_in(2)) {
      c.fill(bytes, c.one_in(4) ? c.below(area + 1) : area + c.below(8));
      chunk.counters(timestamp, bytes);
    } else {
      const auto type = static_cast<uint16_t>(c.below(sizes.size() + (c.one_in(10) ? 1 : 0)));
      const auto count = static_cast<uint8_t>(c.below(5));
      const uint64_t size = type < sizes.size() ? sizes[type] : 8;
      c.fill(bytes, std::min<uint64_t>(count * size + c.below(size + 1), 4096));
      chunk.events(timestamp, 0, type, count, bytes);
    }
  }
  const size_t block_size = std::max<size_t>(256, chunk.content().size() + c.below(64));
  DataFile file;
  file.block_size(static_cast<uint32_t>(block_size))
      .counters_schema(counters_id)
      .event_schema(0, events_id)
      .chunk(chunk);
  if (c.one_in(4)) file.chunk(Chunk().raw(chunk.content()).unpadded());  // a short last chunk
  run.path = file.write(dir + "/differential.bin");

  DifferentialResult result;
  for (int format : {NMB_FORMAT_JSON, NMB_FORMAT_NDJSON}) {
    std::string tool, ref;
    {
      QuietStderr quiet;
      tool = tool_output(run, format);
      ref = reference_output(run, format, metadata);
    }
    if (tool == ref) continue;
    result.agreed = false;
    result.report = std::string("format ") + nmb_output_format_name(format) +
                    (run.metadata ? ", -M" : "") + (run.microseconds ? ", -u" : "") +
                    "\ncounters schema:\n" + counters.json() + "\nevent schema:\n" + events.json() +
                    "\n" + first_difference(tool, ref);
    break;
  }
  return result;
}

}  // namespace nmb::test
