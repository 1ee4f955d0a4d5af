#include "export/record_sink.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "app/formats.h"
#include "app/options.h"
#include "data/schema_json.h"
#include "data/type_system.h"
#include "export/value_format.h"
#include "tests/support/data_builder.h"
#include "tests/support/log_capture.h"
#include "tests/support/run_binary.h"
#include "utils/log.h"
#include "utils/output.h"

namespace {

using nmb::test::Bytes;
using nmb::test::ByteVec;
using nmb::test::EventField;
using nmb::test::EventSchema;
using nmb::test::EventType;

constexpr uint64_t kTime = 1700000000123456;

// A sink of one format over a type system loaded from one schema, and the
// output of each export call.
class Exporter {
 public:
  explicit Exporter(const EventSchema& schema, int format = NMB_FORMAT_NDJSON) : format_(format) {
    nmb_set_log_level(NMB_LOG_INFO);
    include_ = {"*"};
    settings_.include = &include_;
    settings_.exclude = &exclude_;
    ts_ = nmb_type_system_create();
    std::string path = dir_.file("schema.json");
    nmb::test::write_text_file(path, schema.json());
    loaded_ = nmb_type_system_load_schema(*ts_, path.c_str(), nullptr) != nullptr;
    nmb::stdout_buffer().text().clear();
  }
  ~Exporter() { nmb::stdout_buffer().text().clear(); }

  bool loaded() const { return loaded_; }
  nmb::ExportSettings& settings() { return settings_; }
  nmb_string_array_t& exclude() { return exclude_; }
  // The format's sink, as the format table makes it.
  nmb::RecordSink& sink() {
    if (!sink_) {
      sink_ = nmb_output_format(format_)->make_sink(settings_, nmb::stdout_buffer());
      sink_->file_opened("events.bin");
      sink_->schemas_loaded(ts_.get());
    }
    return dynamic_cast<nmb::RecordSink&>(*sink_);
  }
  uint32_t records_written() { return sink().output().records_written(); }

  // Exports one block; returns the bytes consumed, output in out(), stderr in err().
  size_t run(const ByteVec& block) {
    nmb::RecordSink& s = sink();
    nmb::test::capture_stderr();
    size_t consumed = s.events_block(nmb::ByteView(block));
    err_ = nmb::test::captured_stderr();
    out_ = nmb::stdout_buffer().text();
    nmb::stdout_buffer().text().clear();
    return consumed;
  }
  size_t run(uint16_t type_index, uint8_t count, const ByteVec& records) {
    return run(nmb::test::event_block(kTime, 0, type_index, count, records));
  }
  const std::string& out() const { return out_; }
  const std::string& err() const { return err_; }

 private:
  nmb::test::TempDir dir_;
  int format_;
  nmb_string_array_t include_, exclude_;
  nmb::ExportSettings settings_;
  std::unique_ptr<nmb_type_system_t> ts_;
  std::unique_ptr<nmb::BlockSink> sink_;
  bool loaded_ = false;
  std::string out_, err_;
};

std::string tail(bool micro = false) {
  return ",\"header_timestamp\":1700000000123456,\"@header_timestamp\":\"" +
         nmb_format_timestamp(kTime, micro) + "\"}\n";
}

TEST(EventExport, GuidRulesWithTheSwitchOn) {
  ASSERT_TRUE(nmb_read_guid_conversion_switch()) << "tests run without the variable set";
  EventType t("g");
  t.field("node_guid", "uint32_t", 4)
      .field("pad", "uint32_t", 4)
      .field("myguid", "uint64_t", 8)
      .field("gguid", "uint32_t", 4)
      .field("GUIDs", "int64_t", 8)
      .field("xGUID", "unsigned long long", 8);
  Exporter e(EventSchema().type(t));
  Bytes r;
  r.u32(0x11223344).u32(0x55667788).u64(0xab).u32(5).i64(-1).u64(16);
  e.run(0, 1, r);
  EXPECT_EQ(e.out(),
            "{\"node_guid\":\"0x5566778811223344\",\"pad\":1432778632,"
            "\"myguid\":\"0x00000000000000ab\",\"gguid\":5,\"GUIDs\":\"0xffffffffffffffff\","
            "\"xGUID\":\"0x0000000000000010\"" +
                tail());
}

TEST(EventExport, ArraysStringsAndNestedTypes) {
  EventType inner("inner");
  inner.field("x", "uint16_t", 2).field("y", "int8_t", 1);
  EventType outer("outer");
  outer.field("name", "char", 1, 8)
      .field("raw", "uint8_t", 1, 4)
      .field("in", "inner", 3)
      .field("ins", "inner", 3, 2)
      .field("full", "unsigned char", 1, 3);
  Exporter e(EventSchema().type(inner).type(outer), NMB_FORMAT_JSON);
  ASSERT_TRUE(e.loaded());
  Bytes r;
  r.fixed("a/\"\n", 8).u8(1).u8(2).u8(3).u8(4).u16(7).i8(-1).u16(8).i8(2).u16(9).i8(3);
  r.text("abc");
  e.sink().output().count_record();  // not the first record of the file
  e.run(1, 1, r);
  EXPECT_EQ(e.out(),
            ",\n{\n"
            "    \"name\": \"a/\\\"\\n\",\n"
            "    \"raw\": [\n        1,\n        2,\n        3,\n        4\n    ],\n"
            "    \"in\": {\n        \"x\": 7,\n        \"y\": -1\n    },\n"
            "    \"ins\": [\n"
            "        {\n            \"x\": 8,\n            \"y\": 2\n        },\n"
            "        {\n            \"x\": 9,\n            \"y\": 3\n        }\n"
            "    ],\n"
            "    \"full\": \"abc\",\n"
            "    \"header_timestamp\": 1700000000123456,\n"
            "    \"@header_timestamp\": \"" +
                nmb_format_timestamp(kTime, false) + "\"\n}");
}

TEST(EventExport, DuplicateNamesAndAddedKeysReplaceInPlace) {
  EventType t("dup");
  t.field("a", "uint8_t", 1).field("b", "uint8_t", 1).field("a", "uint8_t", 1);
  t.field("header_timestamp", "uint8_t", 1);
  Exporter e(EventSchema().type(t));
  e.settings().microsecond_precision = true;
  e.run(0, 1, Bytes().u8(1).u8(2).u8(3).u8(4));
  EXPECT_EQ(e.out(),
            "{\"a\":3,\"b\":2,\"header_timestamp\":1700000000123456,\"@header_timestamp\":\"" +
                nmb_format_timestamp(kTime, true) + "\"}\n");
}

TEST(EventExport, ValuesThatCannotBeBuiltTakeTheRecordBack) {
  EventType t("bad");
  t.field("s", "char", 1, 4).field("d", "double", 8);
  // An overwritten duplicate still has to be buildable.
  EventType dup("dup");
  dup.field("s", "char", 1, 4).field("s", "uint8_t", 1);
  Exporter e(EventSchema().type(t).type(dup));
  ASSERT_TRUE(e.loaded());
  Bytes good;
  good.fixed("ok", 4).f64(1.5);
  EXPECT_EQ(e.run(0, 1, good), 28u);
  EXPECT_EQ(e.out(), "{\"s\":\"ok\",\"d\":1.5" + tail());

  Bytes records;
  records.fixed("ok", 4).f64(1).fixed("\xff", 4).f64(2);
  EXPECT_EQ(e.run(0, 2, records), 0u);
  EXPECT_EQ(e.out(), "{\"s\":\"ok\",\"d\":1" + tail()) << "the first record stays";
  EXPECT_NE(e.err().find("Failed processing file events.bin: Failed to JSONify event values\n"),
            std::string::npos);
  EXPECT_NE(e.err().find("Failed to print"), std::string::npos);

  EXPECT_EQ(e.run(0, 1, Bytes().fixed("x", 4).f64(std::numeric_limits<double>::infinity())), 0u);
  EXPECT_EQ(e.out(), "");
  EXPECT_EQ(e.run(1, 1, Bytes().fixed("\xc0\x80", 4).u8(1)), 0u);
  EXPECT_EQ(e.out(), "");

  // The same through a nested value that is replaced by a later field.
  EventType inner("inner");
  inner.field("s", "char", 1, 4);
  EventType outer("outer");
  outer.field("x", "inner", 4).field("x", "uint8_t", 1);
  Exporter nested(EventSchema().type(inner).type(outer));
  ASSERT_TRUE(nested.loaded());
  EXPECT_EQ(nested.run(1, 1, Bytes().fixed("ok", 4).u8(5)), 21u);
  EXPECT_EQ(nested.out(), "{\"x\":5" + tail());
  EXPECT_EQ(nested.run(1, 1, Bytes().fixed("\xff", 4).u8(5)), 0u);
  EXPECT_EQ(nested.out(), "");
}

TEST(EventExport, BlockWalkBoundsAndSelection) {
  EventType t("port");
  t.field("v", "uint32_t", 4);
  // A field that reaches past the record and the block reads zeros there.
  EventField far;
  far.name = "far";
  far.offset = 2;
  t.add(far);
  Exporter e(EventSchema().type(t));
  ASSERT_TRUE(e.loaded());
  EXPECT_EQ(e.run(0, 0, {}), 16u) << "no events";
  EXPECT_EQ(e.run(0, 3, Bytes().u32(1).u32(2)), 24u) << "stops at the block end";
  EXPECT_EQ(e.out(), "{\"v\":1,\"far\":131072" + tail() + "{\"v\":2,\"far\":0" + tail());
  EXPECT_EQ(e.run(0, 1, Bytes().u16(1)), 16u) << "shorter than one record";

  EXPECT_EQ(e.run(1, 1, Bytes().u32(1)), 0u);
  EXPECT_NE(e.err().find("Type definition 0:1 not found"), std::string::npos);
  EXPECT_EQ(e.run(nmb::test::event_block(kTime, 3, 0, 1, Bytes().u32(1))), 0u);
  EXPECT_NE(e.err().find("Type definition 3:0 not found"), std::string::npos);
  // Only the low byte of the 16-bit type index names the type.
  EXPECT_EQ(e.run(0x0100, 1, Bytes().u32(5)), 20u);
  EXPECT_EQ(e.out(), "{\"v\":5,\"far\":0" + tail());
  EXPECT_EQ(e.run(0x0201, 1, Bytes().u32(5)), 0u);
  EXPECT_NE(e.err().find("Type definition 0:1 not found"), std::string::npos);

  Exporter excluded{EventSchema().type(t)};
  excluded.exclude() = {"PORT"};
  EXPECT_EQ(excluded.run(0, 2, Bytes().u32(1).u32(2)), 24u) << "stepped over";
  EXPECT_EQ(excluded.out(), "");
  EXPECT_EQ(excluded.records_written(), 0u);
}

// Records are bounded only by the text they can expand to: a million small
// values export; a type whose record could expand beyond the bound is
// refused when a block uses it, by the formats that write record text.
TEST(EventExport, LargeRecordsExportAndUnboundedOnesAreRefused) {
  EventType lane("lane");
  lane.field("v", "uint8_t", 1, 65535);
  EventType port("port");
  port.field("lanes", "lane", 65535, 16);
  EventType wide("wide");
  wide.field("lanes", "lane", 65535, 65535).record_size(8);
  Exporter e(EventSchema().type(lane).type(port).type(wide));
  ASSERT_TRUE(e.loaded());
  ByteVec record(16 * 65535, 7);
  testing::internal::CaptureStdout();  // the buffer writes out once it holds 1 MiB
  EXPECT_EQ(e.run(1, 1, record), 16 + record.size()) << e.err();
  const std::string flushed = testing::internal::GetCapturedStdout();
  // {"lanes":[{"v":[7,7,...]},...], and the added members.
  EXPECT_EQ(flushed.size() + e.out().size(),
            std::string(R"({"lanes":[)").size() +
                16 * (std::string(R"({"v":[]},)").size() + 2 * 65535 - 1) - 1 + 1 + tail().size());

  EXPECT_EQ(e.run(2, 1, Bytes().u64(1)), 0u);
  EXPECT_EQ(e.out(), "");
  EXPECT_EQ(nmb::test::strip_log_timestamps(e.err()),
            "[error] Type wide of schema test_provider cannot be exported: one record can expand "
            "to more than 268435456 bytes of text\n"
            "Failed processing file events.bin: Failed to JSONify event values\n"
            "[error] Failed to print\n");
  Exporter txt(EventSchema().type(lane).type(port).type(wide), NMB_FORMAT_TXT);
  EXPECT_EQ(txt.run(2, 1, Bytes().u64(1)), 24u) << "no record text, no refusal";
}

TEST(EventExport, OtherFormats) {
  EventType t("cpu load");
  t.field("cpu", "uint16_t", 2).field("load", "double", 8).field("name", "char", 1, 4);
  t.field("big", "uint64_t", 8).field("pair", "int8_t", 1, 2);
  Bytes r;
  r.u16(3).f64(0.5).fixed("a b", 4).u64(UINT64_MAX).i8(-1).i8(2);
  Exporter influx(EventSchema().type(t), NMB_FORMAT_INFLUX);
  influx.run(0, 1, r);
  EXPECT_EQ(influx.out(),
            "cpu_counters,event_type=cpu\\ load,name=a\\ b,seq=0 cpu=3i,load=0.5,big=-1i,"
            "pair_0=-1i,pair_1=2i 1700000000123456000\n");

  Exporter csv(EventSchema().type(t), NMB_FORMAT_CSV);
  EXPECT_EQ(csv.run(0, 1, r), 16 + r.size());
  EXPECT_EQ(csv.err(), "Failed processing file events.bin: CSV output is not supported yet\n");
  EXPECT_EQ(csv.records_written(), 1u);
  Exporter txt(EventSchema().type(t), NMB_FORMAT_TXT);
  EXPECT_EQ(txt.run(0, 1, r), 16 + r.size());
  EXPECT_EQ(
      txt.err(),
      "Failed processing file events.bin: Text output is not yet supported for counters data\n");

  Exporter printed(EventSchema().type(t));
  printed.settings().print_headers = true;
  printed.run(0, 1, r);
  EXPECT_EQ(printed.out().rfind("Event header\n", 0), 0u);
  EXPECT_NE(printed.out().find("{\"cpu\":3"), std::string::npos) << "exported as well";
}

}  // namespace
