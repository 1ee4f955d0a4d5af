// libFuzzer target: correctness of the JSON writer. Every string and number
// it writes must parse back (nlohmann-json) to the value it was given; what
// it refuses (invalid UTF-8, NaN, infinities) must leave nothing behind.
// Then the same bytes as event records exported as ndjson and json: each
// record written parses back to the record's values, and a record that
// cannot be written leaves no byte of itself in the output.
#include <fuzzer/FuzzedDataProvider.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "app/options.h"
#include "app/run.h"
#include "data/format.h"
#include "data/schema_json.h"
#include "data/type_system.h"
#include "fuzz/fuzz_inputs.h"
#include "utils/json_writer.h"
#include "utils/output.h"

namespace {

using nlohmann::json;

constexpr size_t kNameSize = 12;
constexpr size_t kRecordSize = kNameSize + 8 + 8 + 4;  // name, d, i, f

std::unique_ptr<nmb_type_system_t> g_ts;

// The text a string value stands for (up to its first zero byte) and whether
// it is valid UTF-8, as nlohmann-json judges it.
std::string cut_at_zero(const std::string& s) {
  return s.substr(0, s.find('\0'));
}
bool valid_utf8(const std::string& s) {
  try {
    (void)json(s).dump();
    return true;
  } catch (const json::exception&) {
    return false;
  }
}

void check_writer(FuzzedDataProvider& in) {
  const bool pretty = in.ConsumeBool();
  std::string out;
  json expected = json::object();
  {
    nmb::JsonWriter w(out, pretty);
    w.begin_object();
    for (int i = 0; in.remaining_bytes() > 0 && i < 64; ++i) {
      const std::string key = "k" + std::to_string(i);
      std::string scratch = "x";
      switch (in.ConsumeIntegralInRange(0, 2)) {
        case 0: {
          const std::string s = in.ConsumeRandomLengthString(64);
          const bool valid = valid_utf8(cut_at_zero(s));
          if (nmb::json_append_string(scratch, s) != valid) std::abort();
          if (!valid) {
            if (scratch != "x") std::abort();
            continue;
          }
          w.key(key);
          if (!w.string(s)) std::abort();
          expected[key] = cut_at_zero(s);
          break;
        }
        case 1: {
          const double d = in.ConsumeFloatingPoint<double>();
          uint64_t bits = in.ConsumeIntegral<uint64_t>();
          double raw;
          std::memcpy(&raw, &bits, sizeof raw);
          for (double value : {d, raw}) {
            if (nmb::json_append_number(scratch, value) != std::isfinite(value)) std::abort();
            if (!std::isfinite(value)) {
              if (scratch != "x") std::abort();
              continue;
            }
            // The text is that of "%1.17g".
            char printed[40];
            std::snprintf(printed, sizeof printed, "%1.17g", value);
            if (scratch != std::string("x") + printed) std::abort();
            scratch = "x";
            w.key(key + (value == d ? "" : "r"));
            if (!w.number(value)) std::abort();
            expected[key + (value == d ? "" : "r")] = value;
          }
          break;
        }
        default: {
          const int64_t v = in.ConsumeIntegral<int64_t>();
          w.key(key);
          w.begin_array();
          w.integer(v);
          w.end_array();
          expected[key] = json::array({v});
        }
      }
    }
    w.end_object();
  }
  const json parsed = json::parse(out);
  for (auto& [key, value] : expected.items()) {
    const json& got = parsed.at(key);
    if (value.is_number_float()) {
      // Numbers are written so that they read back exactly.
      if (!got.is_number() || got.get<double>() != value.get<double>()) std::abort();
    } else if (got != value) {
      std::abort();
    }
  }
  if (parsed.size() != expected.size()) std::abort();
}

struct Record {
  std::string name;
  double d;
  int64_t i;
  float f;
  bool writable;
};

// Events exported through the json and ndjson sinks.
void check_records(const std::vector<uint8_t>& bytes) {
  const size_t count = std::min<size_t>(bytes.size() / kRecordSize, 255);
  if (count == 0) return;
  std::vector<Record> records;
  for (size_t r = 0; r < count; ++r) {
    const uint8_t* p = bytes.data() + r * kRecordSize;
    Record rec;
    rec.name = cut_at_zero(std::string(reinterpret_cast<const char*>(p), kNameSize));
    std::memcpy(&rec.d, p + kNameSize, 8);
    std::memcpy(&rec.i, p + kNameSize + 8, 8);
    std::memcpy(&rec.f, p + kNameSize + 16, 4);
    rec.writable = valid_utf8(rec.name) && std::isfinite(rec.d) && std::isfinite(rec.f);
    records.push_back(rec);
  }
  std::vector<uint8_t> block = nmb::test::event_block(
      1700000000000000, 0, 0, static_cast<uint8_t>(count),
      std::vector<uint8_t>(bytes.begin(), bytes.begin() + count * kRecordSize));

  for (int format : {NMB_FORMAT_NDJSON, NMB_FORMAT_JSON}) {
    nmb_read_options_t options;
    options.format = format;
    nmb_string_array_append(options.include, "*");
    const nmb::ExportSettings settings = nmb_export_settings_from(options);
    // Never flushed: a block of at most 255 records stays far below the
    // threshold, and its text is read back from the buffer.
    static nmb::OutputBuffer out(-1, size_t{1} << 22);
    out.text().clear();
    {
      auto sink = nmb_make_block_sink(format, settings, out);
      sink->begin_run();
      sink->file_opened("fuzz.bin");
      sink->schemas_loaded(g_ts.get());
      sink->begin_data("fuzz.bin", true);
      sink->events_block(nmb::ByteView(block));
      sink->end_data(true);
      sink->end_run(true);
    }
    json lines = json::array();
    if (format == NMB_FORMAT_JSON) {
      lines = json::parse(out.text()).at("fuzz");
    } else {
      for (size_t at = 0; at < out.text().size();) {
        const size_t end = out.text().find('\n', at);
        if (end == std::string::npos) std::abort();
        lines.push_back(json::parse(out.text().substr(at, end - at)));
        at = end + 1;
      }
    }
    // A record that cannot be written stops the block (and the file): the
    // records written are the writable ones before it, whole.
    size_t writable = 0;
    while (writable < count && records[writable].writable) ++writable;
    if (lines.size() != writable) std::abort();
    for (size_t r = 0; r < writable; ++r) {
      const json& line = lines[r];
      const Record& rec = records[r];
      if (line.at("name") != rec.name) std::abort();
      if (line.at("d").get<double>() != rec.d) std::abort();
      if (line.at("i").get<double>() != static_cast<double>(rec.i)) std::abort();
      if (line.at("f").get<double>() != static_cast<double>(rec.f)) std::abort();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::string dir = nmb::fuzz::quiet_fuzz_setup("nmb_fuzz_json_writer");
  nmb::test::EventSchema schema;
  schema.provider_name = "fuzz_json";
  schema.type(nmb::test::EventType("rec")
                  .field("name", "char", 1, kNameSize)
                  .field("d", "double", 8)
                  .field("i", "int64_t", 8)
                  .field("f", "float", 4));
  nmb::test::write_schema_file(dir, schema);
  g_ts = nmb_type_system_create();
  bool loaded = false;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    if (!nmb_type_system_load_schema(*g_ts, entry.path().c_str(), &loaded)) std::abort();
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  check_records(std::vector<uint8_t>(data, data + size));
  check_writer(in);
  return 0;
}
