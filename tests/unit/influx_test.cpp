// Influx lines: the text rules, the measurement rule, and what a record
// becomes (tags, fields, seq, the time).
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>

#include "data/schema_json.h"
#include "data/type_system.h"
#include "export/event_plan.h"
#include "export/influx_line.h"
#include "export/influx_serializer.h"
#include "tests/support/data_builder.h"

namespace {

using nmb::test::Bytes;
using nmb::test::ByteVec;
using nmb::test::EventSchema;
using nmb::test::EventType;

std::string key(std::string_view text) {
  std::string out;
  nmb_influx_append_key(out, text);
  return out;
}

std::string string_value(std::string_view text) {
  std::string out;
  nmb_influx_append_string(out, text);
  return out;
}

TEST(InfluxText, KeysAndTagValuesEscapeSeparatorsAndDropTrailingBackslashes) {
  EXPECT_EQ(key("a,b=c d"), R"(a\,b\=c\ d)");
  EXPECT_EQ(key(R"(C:\dir\x)"), R"(C:\dir\x)") << "the server keeps inner backslashes";
  EXPECT_EQ(key(R"(a\,b)"), R"(a\\,b)") << "read back as a backslash and a comma";
  EXPECT_EQ(key("end\\\\"), "end") << "a trailing backslash would escape the separator";
  EXPECT_EQ(key("two\nlines\r"), R"(two\nlines\r)");
}

TEST(InfluxText, StringFieldsEscapeQuotesAndBackslashesOnly) {
  EXPECT_EQ(string_value("say \"hi\"\\\n"), "\"say \\\"hi\\\"\\\\\n\"");
  EXPECT_EQ(string_value(""), "\"\"");
}

std::string measurement(const EventType& t) {
  nmb_type_definition_t type;
  type.name = t.name;
  for (const auto& f : t.fields) {
    type.fields.emplace_back();
    type.fields.back().field_name = f.name;
  }
  return nmb_influx_measurement(type);
}

TEST(InfluxMeasurement, TypeNameFirstThenFieldNames) {
  EXPECT_EQ(measurement(EventType("hca_port_counters")), "hca_port_counters");
  EXPECT_EQ(measurement(EventType("portCounters")), "hca_port_counters");
  EXPECT_EQ(measurement(EventType("mlx5_stats")), "hca_counters");
  EXPECT_EQ(measurement(EventType("HcaInfo")), "hca_counters");
  EXPECT_EQ(measurement(EventType("cpu-load")), "cpu_counters");
  EXPECT_EQ(measurement(EventType("node_info").field("cpu", "uint16_t", 2)), "node_counters")
      << "a name that names the node wins over its fields";
  EXPECT_EQ(measurement(EventType("sample").field("port_num", "uint8_t", 1)), "hca_port_counters");
  EXPECT_EQ(measurement(EventType("sample").field("node_guid", "uint64_t", 8)), "hca_counters");
  EXPECT_EQ(measurement(EventType("sample").field("core", "uint16_t", 2)), "cpu_counters");
  EXPECT_EQ(measurement(EventType("sample")
                            .field("cpu", "uint16_t", 2)
                            .field("port", "uint8_t", 1)
                            .field("node", "uint8_t", 1)),
            "hca_port_counters");
  EXPECT_EQ(measurement(EventType("memory").field("transport", "uint8_t", 1)), "node_counters")
      << "words, not substrings";
}

// The serializer over one schema's compiled plans.
class Lines {
 public:
  explicit Lines(const EventSchema& schema) {
    std::string path = dir_.file("schema.json");
    nmb::test::write_text_file(path, schema.json());
    ts_ = nmb_type_system_create();
    EXPECT_NE(nmb_type_system_load_schema(*ts_, path.c_str(), nullptr), nullptr);
    nmb_event_plans_compile(*ts_, patterns_, patterns_, plans_);
    serializer_.set_source("node 01", "events");
  }
  // The line of one record, "" when none is written.
  std::string line(uint16_t type, const ByteVec& record, uint64_t time = 1700000000000001) {
    std::string out;
    bool written = serializer_.serialize(*plans_.find(0, type), nmb::ByteView(record), time, out);
    EXPECT_EQ(written, !out.empty());
    return out;
  }
  nmb::data::InfluxSerializer& serializer() { return serializer_; }

 private:
  nmb::test::TempDir dir_;
  std::unique_ptr<nmb_type_system_t> ts_;
  nmb_string_array_t patterns_;
  nmb_event_plans_t plans_;
  nmb::data::InfluxSerializer serializer_;
};

TEST(InfluxLine, KeyFieldsAndCharArraysAreTagsEverythingElseFields) {
  EventType lane("lane");
  lane.field("snr", "float", 4).field("ok", "bool", 1);
  EventType port("port_sample");
  port.field("port", "uint8_t", 1)
      .index(1)
      .field("node_guid", "uint64_t", 8)
      .index(2)
      .field("name", "char", 1, 8)
      .field("time", "timestamp", 8)
      .field("big", "uint64_t", 8)
      .field("neg", "int32_t", 4)
      .field("load", "double", 8)
      .field("gone", "double", 8)
      .field("lanes", "lane", 5, 2)
      .field("label", "char", 1, 4)
      .field("pair", "uint16_t", 2, 2);
  Lines lines(EventSchema().type(lane).type(port));
  Bytes r;
  r.u8(3).u64(0x248a0703005d0001).fixed("a b,c", 8).u64(1700000000000000);
  r.u64(std::numeric_limits<uint64_t>::max()).u32(static_cast<uint32_t>(-7)).f64(0.1);
  r.f64(std::nan("")).f32(0.1f).u8(1).f32(-2.5e20f).u8(0).fixed("", 4).u16(1).u16(2);
  EXPECT_EQ(lines.line(1, r.vec()),
            "hca_port_counters,event_type=port_sample,name=a\\ b\\,c,"
            "node_guid=0x248a0703005d0001,port=3,source_id=node\\ 01,source_tag=events,seq=0 "
            "time_=1700000000000000i,big=-1i,neg=-7i,load=0.1,lanes_0.snr=0.1,lanes_0.ok=1i,"
            "lanes_1.snr=-2.5e+20,lanes_1.ok=0i,pair_0=1i,pair_1=2i 1700000000000001000\n");
}

TEST(InfluxLine, SeqCountsRecordsWithTheSameTagsAtOneTime) {
  EventType t("cpu_sample");
  t.field("cpu", "uint16_t", 2).index(1).field("load", "float", 4);
  Lines lines(EventSchema().type(t));
  auto seq_of = [&](uint16_t cpu, uint64_t time) {
    std::string line = lines.line(0, Bytes().u16(cpu).f32(1).vec(), time);
    size_t at = line.find(",seq=");
    return line.substr(at + 5, line.find(' ', at) - at - 5);
  };
  EXPECT_EQ(seq_of(0, 10), "0");
  EXPECT_EQ(seq_of(1, 10), "0");
  EXPECT_EQ(seq_of(0, 10), "1") << "a second record of cpu 0 at the same time";
  EXPECT_EQ(seq_of(0, 10), "2") << "also from the next block";
  EXPECT_EQ(seq_of(0, 11), "0") << "a new time starts again";
  for (uint16_t cpu = 0; cpu < 1000; ++cpu) ASSERT_EQ(seq_of(cpu, 12), "0");
  EXPECT_EQ(seq_of(999, 12), "1");
}

TEST(InfluxLine, ReservedNamesGetAnUnderscore) {
  EventType t("node_info");
  t.field("source_id", "uint8_t", 1)
      .index(1)
      .field("seq", "uint8_t", 1)
      .field("seq_", "uint8_t", 1)
      .field("time", "char", 1, 4);
  Lines lines(EventSchema().type(t));
  EXPECT_EQ(lines.line(0, Bytes().u8(1).u8(2).u8(3).fixed("t", 4).vec()),
            "node_counters,event_type=node_info,source_id=node\\ 01,source_id_=1,"
            "source_tag=events,time_=t,seq=0 seq__=2i,seq_=3i 1700000000000001000\n");
}

TEST(InfluxLine, RecordWithoutFieldValueWritesNothing) {
  EventType t("names");
  t.field("name", "char", 1, 4).field("ratio", "double", 8);
  Lines lines(EventSchema().type(t));
  EXPECT_EQ(lines.line(0, Bytes().fixed("x", 4).f64(INFINITY).vec()), "");
  lines.serializer().set_source("", "");
  EXPECT_EQ(lines.line(0, Bytes().fixed("", 4).f64(2).vec()),
            "node_counters,event_type=names,seq=0 ratio=2 1700000000000001000\n")
      << "empty tag values are left out";
}

}  // namespace
