// -f openmetrics fed to its real consumer: built files of two sources (every
// counter data type and counting type, -M metadata, events with key fields,
// nested types, arrays and GUIDs, metrics blocks of several batches, gzip
// and snappy pages) are exported, backfilled with `promtool tsdb
// create-blocks-from openmetrics` and read back with `promtool tsdb dump`:
// every exported value is stored, and stored with the value and labels that
// ndjson shows for it. Then what holds the run's text together: family
// headers once and # EOF last under -j, the time bounds, the warnings.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/data_builder.h"
#include "tests/support/e2e_test.h"
#include "tests/support/metrics_builder.h"
#include "tests/support/run_binary.h"

namespace {

using namespace nmb::test;
using nlohmann::json;

constexpr uint64_t kT0 = 1700000000000000;  // 2023-11-14 22:13:20 UTC

constexpr const char* kPortsMetadata =
    R"({"metadata_content":{"counters":{"name_match_labels":[
         {"pattern":"port_$MATCH_","index_names":["port"],
          "matches_and_labels":[{"pattern_match":["1"],"labels":{"type":"eth"}},
                                {"pattern_match":["2"],"labels":{"type":"ib"}}]}]}}})";

// One stored sample as `promtool tsdb dump` prints it.
struct Stored {
  std::string name;
  std::map<std::string, std::string> labels;
  double value = 0;
  int64_t millis = 0;
};

// Parses lines like {__name__="x", a="1\""} 5 1700000000000.
std::vector<Stored> parse_dump(const std::string& text) {
  std::vector<Stored> samples;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.empty() || line[0] != '{') continue;
    Stored s;
    size_t i = 1;
    while (i < line.size() && line[i] != '}') {
      const size_t eq = line.find('=', i);
      std::string name = line.substr(i, eq - i);
      std::string value;
      for (i = eq + 2; line[i] != '"'; ++i) {
        if (line[i] == '\\') ++i;
        value.push_back(line[i] == 'n' && line[i - 1] == '\\' ? '\n' : line[i]);
      }
      i += line[i + 1] == ',' ? 3 : 1;  // past the quote (and ", ")
      if (name == "__name__") {
        s.name = value;
      } else {
        s.labels[name] = value;
      }
    }
    std::istringstream rest(line.substr(i + 1));
    std::string value;
    rest >> value >> s.millis;
    s.value = std::strtod(value.c_str(), nullptr);
    samples.push_back(std::move(s));
  }
  return samples;
}

class OpenMetricsE2E : public E2ETest {
 protected:
  void SetUp() override {
    auto counter = [](std::string name, std::string type, std::string counting = "ABSOLUTE",
                      std::string description = "") {
      Counter c = make_counter(std::move(name), std::move(type));
      c.counting_type = std::move(counting);
      c.description = std::move(description);
      return c;
    };
    CounterGroup g("port");
    g.add(counter("rx_bytes", "UINT64", "RUNNING_SUM", "Bytes received"));
    g.add(counter("temp", "FP64", "ABSOLUTE", "Temperature"));
    g.add(counter("drift", "INT64", "DELTA"));
    g.add(make_counter("flags", "BIT64"));
    g.add(make_counter("fw", "STRING", "", 16));
    g.add(make_counter("wide", "UINT128"));
    g.add(make_counter("swide", "INT128"));
    g.add(make_counter("node_guid", "UINT64"));
    g.add(counter("port_1_xmit", "UINT64", "RUNNING_SUM"));
    g.add(counter("port_2_xmit", "UINT64", "RUNNING_SUM"));
    g.add(counter("huge", "UINT64"));
    counters_id_ = write_schema_file(schema_dir_, CountersSchema().group(g));
    std::filesystem::create_directories(dir_.file("metadata"));
    write_text_file(dir_.file("metadata/metadata_" + schema_id_hex(counters_id_) + ".json"),
                    kPortsMetadata);

    EventType stats("stats_t");
    stats.field("errs", "uint32_t", 4).field("ratio", "double", 8);
    EventType port("port_event");
    port.field("name", "char", 1, 8)
        .field("port", "uint16_t", 2)
        .index(1)
        .field("port_guid", "uint64_t", 8)
        .field("time", "timestamp", 8)
        .field("rx", "uint64_t", 8, 1, "RUNNING_SUM")
        .field("lanes", "uint32_t", 4, 2)
        .field("stats", "stats_t", 12);
    events_id_ = write_schema_file(schema_dir_, EventSchema().type(stats).type(port));
  }

  Bytes counter_values(uint64_t i) const {
    return Bytes()
        .u64(1000 + i)
        .f64(36.5 + static_cast<double>(i))
        .i64(-42)
        .u64(0xf0)
        .fixed("fw-" + std::to_string(i), 16)
        .u128(7, 1)
        .i128(-1)
        .u64(0x0002c90300a1b2c3)
        .u64(10 + i)
        .u64(20 + i)
        .u64(uint64_t{1} << 60);
  }

  static ByteVec port_event(const std::string& name, uint16_t port, uint64_t time, uint64_t rx) {
    return Bytes()
        .fixed(name, 8)
        .u16(port)
        .u64(0xe41d2d0300112233)
        .u64(time)
        .u64(rx)
        .u32(4)
        .u32(2)
        .u32(port * 3u)
        .f64(0.25);
  }

  // Source `source`: counters blocks plain and in a gzip page, events and
  // metrics blocks in snappy pages.
  std::string source_file(const std::string& source, uint64_t t0) {
    DataFile file;
    file.block_size(2048).source(source, "ib").times(t0, t0 + 3000000);
    file.counters_schema(counters_id_).event_schema(0, events_id_);
    file.chunk(Chunk().counters(t0, counter_values(0)));
    ByteVec later = counters_block(t0 + 1000000, counter_values(1));
    file.chunk(Chunk().page(PackedPage('G').content(later).source(source, "ib")));
    ByteVec records = port_event("mlx5_0", 1, t0 + 500000, 7);
    ByteVec second = port_event("mlx5_1", 2, t0 + 600000, 9);
    records.insert(records.end(), second.begin(), second.end());
    ByteVec events = Chunk().events(t0 + 2000000, 0, 1, 2, records).content();
    ByteVec metrics =
        MetricsPayload()
            .label_names({"host", "dev"})
            .label_values({source, "mlx5_0", "mlx5_1"})
            .metric_names({"rx", "tx"})
            .common_labels({{"site", "lab"}})
            .batch(Batch(t0 + 2500000, 'C')
                       .sample(0, 5)
                       .sample(1, 7)
                       .labels(LabelsBlock('L', 0).id(0).id(1)))
            .batch(Batch(t0 + 2600000, 'C').sample(0, 9).labels(LabelsBlock('L', 0).id(0).id(2)))
            .bytes();
    file.chunk(Chunk()
                   .page(PackedPage('S').content(events).source(source, "ib"))
                   .page(PackedPage('S').content(metrics).source(source, "ib")));
    return file.write(dir_.file(source + ".bin"));
  }

  // The samples the text holds (its lines that are not comments).
  static size_t sample_lines(const std::string& text) {
    size_t lines = 0;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines += !line.empty() && line[0] != '#';
    return lines;
  }

  // Backfills `text` with promtool (bounded in time) and dumps what it stored.
  std::vector<Stored> backfill(const std::string& text) {
    const std::string promtool = find_program("promtool");
    const std::string timeout = find_program("timeout");
    if (promtool.empty() || timeout.empty()) {
      ADD_FAILURE() << "promtool not found (scripts/setup.sh installs prometheus)";
      return {};
    }
    const std::string input = dir_.file("in.om");
    const std::string tsdb = dir_.file("tsdb");
    write_text_file(input, text);
    RunResult created = run_binary(
        timeout, {"120", promtool, "tsdb", "create-blocks-from", "openmetrics", input, tsdb});
    EXPECT_EQ(created.status, 0) << created.out << created.err;
    std::filesystem::create_directories(tsdb + "/wal");  // dump opens the folder as a database
    RunResult dumped = run_binary(timeout, {"120", promtool, "tsdb", "dump", tsdb});
    EXPECT_EQ(dumped.status, 0) << dumped.err;
    return parse_dump(dumped.out);
  }

  SchemaId counters_id_{};
  SchemaId events_id_{};
};

const Stored* find(const std::vector<Stored>& samples, const std::string& name,
                   const std::map<std::string, std::string>& labels, int64_t millis) {
  for (const Stored& s : samples) {
    if (s.name != name || s.millis != millis) continue;
    if (std::all_of(labels.begin(), labels.end(), [&](const auto& label) {
          auto it = s.labels.find(label.first);
          return it != s.labels.end() && it->second == label.second;
        }))
      return &s;
  }
  return nullptr;
}

std::vector<json> ndjson_lines(const std::string& text) {
  std::vector<json> records;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) records.push_back(json::parse(line));
  return records;
}

TEST_F(OpenMetricsE2E, PromtoolStoresEveryValueAsNdjsonShowsIt) {
  const std::string a = source_file("node_a", kT0);
  const std::string b = source_file("node_b", kT0);
  RunResult om = run({"-M", "-f", "openmetrics", a, b});
  ASSERT_EQ(om.status, 0) << om.err;
  EXPECT_EQ(om.err, "[info] Loaded metadata with 2 entries from " +
                        dir_.file("metadata/metadata_" + schema_id_hex(counters_id_) + ".json") +
                        "\n[info] Loaded metadata with 2 entries from " +
                        dir_.file("metadata/metadata_" + schema_id_hex(counters_id_) + ".json") +
                        "\n");
  // Per source: 2 counters blocks of 11 counters, 2 records of 6 values,
  // 3 metric samples.
  EXPECT_EQ(sample_lines(om.out), 2u * (2 * 11 + 2 * 6 + 3));
  const std::vector<Stored> stored = backfill(om.out);
  EXPECT_EQ(stored.size(), sample_lines(om.out));

  RunResult nd = run({"-f", "ndjson", a});
  ASSERT_EQ(nd.status, 0) << nd.err;
  const std::vector<json> records = ndjson_lines(nd.out);
  ASSERT_EQ(records.size(), 2u + 2u + 1u);  // counters, counters, events, events, metrics
  const std::map<std::string, std::string> port = {
      {"source_id", "node_a"}, {"source_tag", "ib"}, {"granularity", "NODE"}, {"group", "port"}};
  const json& set = records[1]["groups"][0]["counter_sets"][0];
  const int64_t t1 = (kT0 + 1000000) / 1000;
  auto number = [&](const std::string& name, const std::string& counter) {
    const Stored* s = find(stored, name, port, t1);
    ASSERT_NE(s, nullptr) << name;
    EXPECT_EQ(s->value, set[counter].get<double>()) << name;
  };
  number("nmb_counters_port_rx_bytes_total", "rx_bytes");
  number("nmb_counters_port_temp", "temp");
  number("nmb_counters_port_drift", "drift");
  number("nmb_counters_port_huge", "huge");
  for (const char* text : {"flags", "fw", "wide", "swide", "node_guid"}) {
    std::map<std::string, std::string> labels = port;
    labels["value"] = set[text].get<std::string>();
    const Stored* s = find(stored, "nmb_counters_port_" + std::string(text) + "_info", labels, t1);
    ASSERT_NE(s, nullptr) << text;
    EXPECT_EQ(s->value, 1);
  }
  // -M: the metadata's index and labels, under the rest of the name.
  std::map<std::string, std::string> port2 = port;
  port2.insert({{"port", "2"}, {"type", "ib"}});
  const Stored* xmit = find(stored, "nmb_counters_port_xmit_total", port2, t1);
  ASSERT_NE(xmit, nullptr);
  EXPECT_EQ(xmit->value, set["port_2_xmit"].get<double>());

  // Events at the time of their timestamp field, key fields, char arrays
  // and GUIDs as labels, nested and array values under their paths.
  const json& event = records[3];
  const Stored* errs = find(stored, "nmb_events_port_event_stats_errs",
                            {{"source_id", "node_a"},
                             {"name", event["name"].get<std::string>()},
                             {"port", std::to_string(event["port"].get<int>())},
                             {"port_guid", event["port_guid"].get<std::string>()}},
                            event["time"].get<int64_t>() / 1000);
  ASSERT_NE(errs, nullptr);
  EXPECT_EQ(errs->value, event["stats"]["errs"].get<double>());
  const Stored* lane = find(stored, "nmb_events_port_event_lanes_1", {{"port", "2"}},
                            event["time"].get<int64_t>() / 1000);
  ASSERT_NE(lane, nullptr);
  EXPECT_EQ(lane->value, event["lanes"][1].get<double>());
  const Stored* rx = find(stored, "nmb_events_port_event_rx_total", {{"port", "2"}},
                          event["time"].get<int64_t>() / 1000);
  ASSERT_NE(rx, nullptr);
  EXPECT_EQ(rx->value, event["rx"].get<double>());

  // Metrics: every batch, not only the last one json shows, with the
  // common and the batch's labels.
  const json& metrics = records[4];
  const Stored* last =
      find(stored, "rx_total",
           {{"source_id", "node_a"}, {"site", "lab"}, {"host", "node_a"}, {"dev", "mlx5_1"}},
           metrics["timestamp"].get<int64_t>() / 1000);
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(last->value, metrics["metrics"][0]["rx"].get<double>());
  EXPECT_NE(find(stored, "tx_total", {{"host", "node_a"}, {"dev", "mlx5_0"}},
                 static_cast<int64_t>(kT0 + 2500000) / 1000),
            nullptr);
}

TEST_F(OpenMetricsE2E, FamiliesAreAnnouncedOnceAndEofEndsTheRunUnderJobs) {
  const std::string a = source_file("node_a", kT0);
  const std::string b = source_file("node_b", kT0);
  RunResult one = run({"-f", "openmetrics", a, b});
  RunResult two = run({"-f", "openmetrics", "-j", "2", a, b});
  ASSERT_EQ(one.status, 0) << one.err;
  EXPECT_EQ(two.out, one.out);
  std::istringstream in(one.out);
  std::map<std::string, int> types;
  std::string line;
  std::string previous;
  while (std::getline(in, line)) {
    if (line.rfind("# TYPE ", 0) == 0) ++types[line.substr(7, line.find(' ', 7) - 7)];
    previous = line;
  }
  for (const auto& [family, count] : types) EXPECT_EQ(count, 1) << family;
  EXPECT_EQ(previous, "# EOF");
  EXPECT_EQ(one.out.find("# EOF"), one.out.size() - 6);
}

TEST_F(OpenMetricsE2E, TimeBoundsHoldForEverySample) {
  const std::string a = source_file("node_a", kT0);
  // The second counters block, the second event record (by its own time)
  // and the first metrics batch.
  RunResult r = run({"-f", "openmetrics", "-g", std::to_string(kT0 + 550000), "-l",
                     std::to_string(kT0 + 2550000), a});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(sample_lines(r.out), 11u + 6u + 2u);
  EXPECT_EQ(r.out.find("mlx5_0\",port=\"1\""), std::string::npos);
  EXPECT_NE(r.out.find("rx_total{source_id=\"node_a\",source_tag=\"ib\",dev=\"mlx5_0\""),
            std::string::npos);
  EXPECT_EQ(r.out.find("dev=\"mlx5_1\""), std::string::npos);
}

TEST_F(OpenMetricsE2E, WhatCannotBeWrittenOrStoredIsWarnedAbout) {
  // A char array that is not UTF-8, and a file whose blocks go back in time.
  DataFile file;
  file.block_size(512).source("n", "t").times(kT0, kT0).counters_schema(counters_id_);
  file.event_schema(0, events_id_);
  file.chunk(Chunk().counters(kT0 + 1000000, counter_values(0)));
  file.chunk(Chunk().counters(kT0, counter_values(1)));
  file.chunk(Chunk().events(kT0, 0, 1, 1, port_event("\xff\xfe", 1, kT0, 1)));
  const std::string path = file.write(dir_.file("bad.bin"));
  RunResult r = run({"-f", "openmetrics", path});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "[warning] 6 OpenMetrics samples of " + path +
                       " were not written: a label value is not valid UTF-8 (the first of family "
                       "nmb_events_port_event_time)\n"
                       "[warning] 1 counters blocks of " +
                       path +
                       " are not later than an earlier block of their source: Prometheus drops the "
                       "samples of such blocks; export a source's files in time order "
                       "(-Sfirst_timestamp)\n");
  EXPECT_EQ(sample_lines(r.out), 22u);
}

}  // namespace
