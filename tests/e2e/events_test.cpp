// Events blocks as nmb_read writes them: json and ndjson records of every
// built-in type, GUID rules with and without the conversion switch, arrays,
// nested types, type selection, schemas blocks inside a chunk, and the
// failures of bad records and hostile schemas.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/data_builder.h"
#include "tests/support/e2e_test.h"
#include "tests/support/run_binary.h"

namespace {

using namespace nmb::test;

constexpr uint64_t kT0 = 1700000000000000;  // 2023-11-14 22:13:20 UTC
constexpr uint64_t kT1 = 1700000000250999;  // 22:13:20.250999

class EventsE2E : public E2ETest {
 protected:
  SchemaId schema(const EventSchema& s) { return write_schema_file(dir_.file("schema"), s); }
  SchemaId schema(const std::string& text) { return write_schema_file(dir_.file("schema"), text); }

  std::string write(const std::vector<SchemaId>& ids, const std::vector<Chunk>& chunks,
                    const std::string& name = "data.bin") {
    DataFile file;
    file.block_size(1024).times(kT0, kT0 + 1000000);
    for (size_t i = 0; i < ids.size(); ++i) file.event_schema(i, ids[i]);
    for (const auto& chunk : chunks) file.chunk(chunk);
    return file.write(dir_.file(name));
  }
};

ByteVec all_builtins_record(int8_t sign) {
  return Bytes()
      .u8(1)
      .i8(static_cast<int8_t>(-2 * sign))
      .i16(static_cast<int16_t>(-3 * sign))
      .i32(-4 * sign)
      .i64(-5 * sign)
      .i64(INT64_MIN)
      .u8(255)
      .u16(65535)
      .u32(UINT32_MAX)
      .u64(UINT64_MAX)
      .u64(9007199254740993ULL)
      .f32(0.1f)
      .f64(-2.5)
      .i8(-128)
      .i16(-32768)
      .i32(INT32_MIN)
      .i64(-1)
      .u8(7)
      .u16(8)
      .u32(9)
      .u64(1ULL << 63)
      .u64(kT0);
}

TEST_F(EventsE2E, EveryBuiltInTypeInNdjsonAndJson) {
  SchemaId id = schema(EventSchema().type(every_builtin_type()));
  ByteVec records = Bytes().raw(all_builtins_record(1)).raw(all_builtins_record(-1));
  std::string path = write({id}, {Chunk().events(kT1, 0, 0, 2, records)});

  const std::string values =
      "\"l\":-5,\"ll\":-9.2233720368547758e+18,\"uc\":255,\"us\":65535,\"ui\":4294967295,"
      "\"ul\":1.8446744073709552e+19,\"ull\":9007199254740992,\"f\":0.10000000149011612,"
      "\"d\":-2.5,\"i8\":-128,\"i16\":-32768,\"i32\":-2147483648,\"i64\":-1,\"u8\":7,\"u16\":8,"
      "\"u32\":9,\"u64\":9.2233720368547758e+18,\"ts\":1700000000000000,"
      "\"header_timestamp\":1700000000250999,\"@header_timestamp\":\"2023-11-14 22:13:20.250\"}\n";
  RunResult r = run({"-f", "ndjson", path});
  EXPECT_EQ(r.status, 0) << r.err;
  std::string second = values;
  second.replace(0, 7, "\"l\":5,");
  EXPECT_EQ(r.out, "{\"b\":1,\"c\":-2,\"s\":-3,\"i\":-4," + values +
                       "{\"b\":1,\"c\":2,\"s\":3,\"i\":4," + second);

  r = run({"-u", path});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.rfind("{\"data\":[{\n    \"b\": 1,\n    \"c\": -2,\n", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("    \"ts\": 1700000000000000,\n"
                       "    \"header_timestamp\": 1700000000250999,\n"
                       "    \"@header_timestamp\": \"2023-11-14 22:13:20.250999\"\n"
                       "},\n{\n    \"b\": 1,\n"),
            std::string::npos)
      << r.out;
  EXPECT_TRUE(r.out.ends_with("20.250999\"\n}]}")) << r.out;
}

TEST_F(EventsE2E, GuidConversionSwitch) {
  EventType t("ids");
  t.field("node_guid", "uint32_t", 4)
      .field("port_guid", "uint64_t", 8)
      .field("sys_guid", "uint32_t", 4)
      .field("guidance", "uint32_t", 4);
  std::string path = write({schema(EventSchema().type(t))},
                           {Chunk().events(kT0, 0, 0, 1, Bytes().u32(1).u64(2).u32(3).u32(4))});
  RunResult on = run({"-f", "ndjson", path});
  EXPECT_EQ(on.out.substr(0, on.out.find(",\"header_timestamp\"")),
            "{\"node_guid\":\"0x0000000200000001\",\"port_guid\":\"0x0000000000000002\","
            "\"sys_guid\":\"0x0000000400000003\",\"guidance\":4");
  for (const char* off : {"0", "false"}) {
    RunOptions options;
    options.env.emplace_back("NMB_CONVERT_GUID_TO_HEX_STRING", off);
    RunResult r = run({"-f", "ndjson", path}, options);
    EXPECT_EQ(r.out.substr(0, r.out.find(",\"header_timestamp\"")),
              "{\"node_guid\":1,\"port_guid\":\"0x0000000000000002\",\"sys_guid\":3,\"guidance\":4")
        << off;
  }

  // The switch is read when the first record is built: a file whose event
  // schemas load but that holds no events block never reads it, so the
  // conflict warning of the two variables is not logged.
  RunOptions conflict;
  conflict.env.emplace_back("NMB_CONVERT_GUID_TO_HEX_STRING", "1");
  conflict.env.emplace_back("CONVERT_GUID_TO_HEX_STRING", "0");
  std::string no_events = write({schema(EventSchema().type(t))}, {}, "no_events.bin");
  RunResult r = run({"-f", "ndjson", no_events}, conflict);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err.find("Environment variables conflict"), std::string::npos) << r.err;
  r = run({"-f", "ndjson", path}, conflict);
  EXPECT_EQ(r.status, 0) << r.err;
  const std::string warning = "Environment variables conflict - NMB_CONVERT_GUID_TO_HEX_STRING=1";
  ASSERT_NE(r.err.find(warning), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find(warning, r.err.find(warning) + 1), std::string::npos) << "read once";
  EXPECT_EQ(r.out.rfind("{\"node_guid\":\"0x", 0), 0u) << r.out;
}

TEST_F(EventsE2E, IncludeAndExcludeSelectTypes) {
  EventType a("port_counters");
  a.field("v", "uint8_t", 1);
  EventType b("cpu");
  b.field("w", "uint8_t", 1);
  std::string path =
      write({schema(EventSchema().type(a).type(b))}, {Chunk()
                                                          .events(kT0, 0, 0, 2, Bytes().u8(1).u8(2))
                                                          .events(kT0, 0, 1, 1, Bytes().u8(3))
                                                          .events(kT0, 0, 0, 0, {})});
  auto values = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {"-f", "ndjson"});
    args.push_back(path);
    RunResult r = run(args);
    EXPECT_EQ(r.status, 0) << r.err;
    std::string keys;
    for (size_t at = r.out.find('{'); at != std::string::npos; at = r.out.find('{', at + 1)) {
      keys += r.out.substr(at + 2, 1) + r.out.substr(at + 5, 1);
    }
    return keys;
  };
  EXPECT_EQ(values({}), "v1v2w3");
  EXPECT_EQ(values({"-i", "PORT*"}), "v1v2");
  EXPECT_EQ(values({"-e", "port_counters"}), "w3");
  EXPECT_EQ(values({"-i", "cpu", "-i", "port_counters", "-e", "cpu"}), "v1v2");
}

TEST_F(EventsE2E, SchemasBlockSwitchesTheTypeSystemInsideAChunk) {
  EventType first("first");
  first.field("a", "uint16_t", 2);
  EventType second("second");
  second.field("b", "uint32_t", 4);
  SchemaId one = schema(EventSchema().type(first));
  EventSchema other;
  other.provider_name = "other";
  SchemaId two = schema(other.type(second));
  std::string path = write({one}, {Chunk()
                                       .events(kT0, 0, 0, 1, Bytes().u16(7))
                                       .schemas({two})
                                       .events(kT0, 0, 0, 1, Bytes().u32(8))});
  RunResult r = run({"-f", "ndjson", path});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find("{\"a\":7,"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\n{\"b\":8,"), std::string::npos) << r.out;
}

TEST_F(EventsE2E, UnknownTypeAndUnbuildableValuesFailTheFile) {
  EventType t("t");
  t.field("name", "char", 1, 4).field("x", "double", 8);
  SchemaId id = schema(EventSchema().type(t));
  ByteVec good = Bytes().fixed("ok", 4).f64(1);

  RunResult r = run({"-f", "ndjson", write({id}, {Chunk().events(kT0, 0, 5, 1, good)})});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Type definition 0:5 not found"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("Failed to read 1 of 1 files"), std::string::npos) << r.err;

  ByteVec records = Bytes().raw(good).fixed("\xe2\x82", 4).f64(2);
  r = run({"-f", "ndjson", write({id}, {Chunk().events(kT0, 0, 0, 2, records)})});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out.find("\n"), r.out.size() - 1) << "only the first record: " << r.out;
  EXPECT_NE(r.err.find("Failed processing file " + dir_.file("data.bin") +
                       ": Failed to JSONify event values\n"),
            std::string::npos)
      << r.err;

  records = Bytes().raw(good).fixed("ok", 4).f64(std::numeric_limits<double>::quiet_NaN());
  r = run({write({id}, {Chunk().events(kT0, 0, 0, 2, records)})});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("Failed to JSONify event values"), std::string::npos) << r.err;
  EXPECT_EQ(r.out.find("},\n{"), std::string::npos) << "no separator for a record taken back";
}

// Hostile schemas load; a type that cannot be exported fails the file only
// when a block uses it.
TEST_F(EventsE2E, UnsafeTypesAreRefusedWhenABlockUsesThem) {
  auto field = [](const std::string& name, const std::string& type, const std::string& offset) {
    return R"({"field_name": ")" + name + R"(", "description": "", "type_size": 8, "offset": )" +
           offset + R"(, "type_name": ")" + type + R"(", "counting_mode": "ABSOLUTE"})";
  };
  auto doc = [](const std::string& types) {
    return R"({"nmb_version": "1.5.0", "provider_name": "evil", "provider_version": "1", "types": [)" +
           types + "]}";
  };
  SchemaId cyclic = schema(
      doc(R"({"name": "a", "size": 8, "fields": [)" + field("x", "b", "0") +
          R"(]}, {"name": "b", "size": 8, "fields": [)" + field("y", "a", "0") +
          R"(]}, {"name": "ok", "size": 8, "fields": [)" + field("v", "uint64_t", "-4") + "]}"));
  RunResult used =
      run({"-f", "ndjson", write({cyclic}, {Chunk().events(kT0, 0, 0, 1, Bytes().u64(1))})});
  EXPECT_EQ(used.status, 1);
  EXPECT_EQ(used.out, "");
  EXPECT_NE(used.err.find("[error] Type a of schema evil cannot be exported: type a contains "
                          "itself\nFailed processing file "),
            std::string::npos)
      << used.err;
  EXPECT_NE(used.err.find(": Failed to JSONify event values\n"), std::string::npos);

  // A wrapped negative offset reads past the buffer: zeros.
  RunResult unused =
      run({"-f", "ndjson", write({cyclic}, {Chunk().events(kT0, 0, 2, 1, Bytes().u64(1))})});
  EXPECT_EQ(unused.status, 0) << unused.err;
  EXPECT_EQ(unused.out.substr(0, unused.out.find(",\"header_timestamp\"")), "{\"v\":0");

  // A field far past its record reads zeros beyond the block, never beyond a buffer.
  std::string far =
      doc(R"({"name": "a", "size": 8, "fields": [)" + field("x", "uint64_t", "4000000000") + "," +
          field("y", "uint64_t", "4") + "]}");
  RunResult r =
      run({"-f", "ndjson", write({schema(far)}, {Chunk().events(kT0, 0, 0, 1, Bytes().u64(1))})});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.substr(0, r.out.find(",\"header_timestamp\"")), "{\"x\":0,\"y\":0");

  // A GUID-named field of its own type is hex text while the GUID switch is
  // on; with it off, the type contains itself.
  std::string guid = write({schema(doc(R"({"name": "g", "size": 8, "fields": [)" +
                                       field("node_guid", "g", "0") + "]}"))},
                           {Chunk().events(kT0, 0, 0, 1, Bytes().u64(1))}, "guid.bin");
  r = run({"-f", "ndjson", guid});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.substr(0, r.out.find(",\"header_timestamp\"")),
            "{\"node_guid\":\"0x0000000000000001\"");
  RunOptions off;
  off.env.emplace_back("NMB_CONVERT_GUID_TO_HEX_STRING", "0");
  r = run({"-f", "ndjson", guid}, off);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(
      r.err.find("[error] Type g of schema evil cannot be exported: type g contains itself\n"),
      std::string::npos)
      << r.err;
}

}  // namespace
