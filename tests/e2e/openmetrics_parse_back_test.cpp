// Every OpenMetrics sample line, parsed back (name, labels, value, time),
// against the record ndjson shows for the same input: seeded random counters
// blocks and event records, with values across the whole 64-bit range,
// negative numbers, floats, and texts that need escaping.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/data_builder.h"
#include "tests/support/e2e_test.h"

namespace {

using namespace nmb::test;
using nlohmann::json;

constexpr uint64_t kT0 = 1700000000000000;
constexpr int kBlocks = 40;
constexpr int kRecords = 40;

struct Line {
  std::string name;
  std::map<std::string, std::string> labels;
  std::string value;
  std::string time;
};

// name{a="x",b="y\"z"} value time
Line parse_line(const std::string& text) {
  Line line;
  size_t i = text.find_first_of("{ ");
  line.name = text.substr(0, i);
  if (text[i] == '{') {
    ++i;
    while (text[i] != '}') {
      const size_t eq = text.find('=', i);
      const std::string name = text.substr(i, eq - i);
      std::string value;
      for (i = eq + 2; text[i] != '"'; ++i) {
        if (text[i] == '\\') {
          ++i;
          value.push_back(text[i] == 'n' ? '\n' : text[i]);
        } else {
          value.push_back(text[i]);
        }
      }
      line.labels[name] = value;
      i += text[i + 1] == ',' ? 2 : 1;
    }
    ++i;
  }
  std::istringstream rest(text.substr(i));
  rest >> line.value >> line.time;
  return line;
}

// Printable text with the characters a label value escapes.
std::string random_text(std::mt19937_64& rng, size_t max) {
  static constexpr char kChars[] = "ab Z9_-\"\\\n{},=";
  std::string text(rng() % (max + 1), ' ');
  for (char& c : text) c = kChars[rng() % (sizeof kChars - 1)];
  return text;
}

uint64_t random_u64(std::mt19937_64& rng) {
  switch (rng() % 4) {
    case 0:
      return rng();  // often above 2^53
    case 1:
      return rng() % 1000;
    case 2:
      return (uint64_t{1} << 53) - 1 + rng() % 3;
    default:
      return rng() >> (rng() % 64);
  }
}

double ms_time(const std::string& text) {
  return std::stod(text) * 1000;
}

class OpenMetricsParseBack : public E2ETest {};

TEST_F(OpenMetricsParseBack, EverySampleIsTheValueNdjsonShows) {
  std::mt19937_64 rng(20261125);
  CounterGroup g("g");
  g.counter("u").counter("i", "INT64").counter("d", "FP64").counter("s", "STRING", 12);
  g.counter("bits", "BIT64");
  EventType ev("ev");
  ev.field("time", "timestamp", 8)
      .field("k", "uint32_t", 4)
      .index(1)
      .field("v", "int64_t", 8)
      .field("f", "float", 4)
      .field("name", "char", 1, 6)
      .field("w", "uint64_t", 8, 1, "RUNNING_SUM");
  const SchemaId counters = write_schema_file(schema_dir_, CountersSchema().group(g));
  const SchemaId events = write_schema_file(schema_dir_, EventSchema().type(ev));

  DataFile file;
  file.block_size(512).times(kT0, kT0).counters_schema(counters).event_schema(0, events);
  for (int b = 0; b < kBlocks; ++b) {
    Bytes values;
    values.u64(random_u64(rng)).i64(static_cast<int64_t>(random_u64(rng)));
    values.f64(
        std::ldexp(static_cast<double>(rng() % 2000) - 1000, static_cast<int>(rng() % 200) - 100));
    values.fixed(random_text(rng, 12), 12).u64(rng());
    file.chunk(Chunk().counters(kT0 + b * 1000, values));
  }
  for (int r = 0; r < kRecords; ++r) {
    Bytes record;
    record.u64(kT0 + 500 + r * 1000).u32(static_cast<uint32_t>(rng() % 3));
    record.i64(static_cast<int64_t>(random_u64(rng)));
    record.f32(static_cast<float>(rng() % 100000) / 7.0f).fixed(random_text(rng, 5), 6);
    record.u64(random_u64(rng));
    file.chunk(Chunk().events(kT0, 0, 0, 1, record));
  }
  const std::string path = file.write(dir_.file("random.bin"));

  RunResult nd = run({"-f", "ndjson", path});
  RunResult om = run({"-f", "openmetrics", path});
  ASSERT_EQ(nd.status, 0) << nd.err;
  ASSERT_EQ(om.status, 0) << om.err;
  std::vector<json> records;
  std::istringstream nd_lines(nd.out);
  for (std::string line; std::getline(nd_lines, line);) records.push_back(json::parse(line));
  ASSERT_EQ(records.size(), static_cast<size_t>(kBlocks + kRecords));

  std::istringstream om_lines(om.out);
  size_t samples = 0;
  for (std::string text; std::getline(om_lines, text);) {
    if (text.empty() || text[0] == '#') continue;
    ++samples;
    const Line line = parse_line(text);
    const double ms = ms_time(line.time);
    const std::string prefix = line.name.substr(0, line.name.find('_', 4) + 1);
    SCOPED_TRACE(text);
    if (prefix == "nmb_counters_") {
      const int block = static_cast<int>(ms - kT0 / 1000);
      ASSERT_TRUE(block >= 0 && block < kBlocks);
      const json& set = records[block]["groups"][0]["counter_sets"][0];
      std::string counter = line.name.substr(std::string("nmb_counters_g_").size());
      EXPECT_EQ(line.labels.at("group"), "g");
      if (counter.ends_with("_info")) {
        counter.resize(counter.size() - 5);
        const std::string shown = set[counter].get<std::string>();
        EXPECT_EQ(line.labels.count("value") ? line.labels.at("value") : "", shown);
        EXPECT_EQ(line.value, "1");
      } else {
        EXPECT_EQ(std::stod(line.value), set[counter].get<double>());
      }
    } else {
      ASSERT_EQ(prefix, "nmb_events_");
      const int index = static_cast<int>(ms - kT0 / 1000);
      ASSERT_TRUE(index >= 0 && index < kRecords);
      const json& record = records[kBlocks + index];
      EXPECT_EQ(line.labels.at("k"), std::to_string(record["k"].get<uint32_t>()));
      EXPECT_EQ(line.labels.count("name") ? line.labels.at("name") : "",
                record["name"].get<std::string>());
      std::string field = line.name.substr(std::string("nmb_events_ev_").size());
      if (field == "w_total") field = "w";
      EXPECT_EQ(std::stod(line.value), record[field].get<double>());
    }
  }
  // Per block every counter, per record time, v, f and w.
  EXPECT_EQ(samples, static_cast<size_t>(kBlocks * 5 + kRecords * 4));
}

}  // namespace
