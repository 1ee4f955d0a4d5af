#include "counters/counters_export.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "counters/counters_schema.h"
#include "counters/counters_text.h"
#include "tests/support/data_builder.h"
#include "tests/support/log_capture.h"
#include "tests/support/run_binary.h"
#include "utils/log.h"

namespace {

using nmb::test::Bytes;
using nmb::test::ByteVec;
using nmb::test::Counter;
using nmb::test::CounterGroup;
using nmb::test::CountersSchema;

class CountersExport : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
  }

  static std::unique_ptr<nmb_counters_schema_t> load(const CountersSchema& schema) {
    std::string text = schema.json();
    auto loaded = nmb_counters_schema_from_text(text.data(), text.size());
    EXPECT_TRUE(loaded);
    return loaded;
  }

  static std::string compact(const nmb_counters_schema_t& schema, const ByteVec& values,
                             uint64_t timestamp = 1700000000123456) {
    std::string out = "prefix";
    ByteVec block = nmb::test::counters_block(timestamp, values);
    if (!nmb_counters_block_to_json(out, nmb::ByteView(block), *nmb_counters_plan_create(schema),
                                    false, false)) {
      EXPECT_EQ(out, "prefix") << "a failed block leaves nothing behind";
      return "FAILED";
    }
    return out.substr(6);
  }
};

TEST_F(CountersExport, EveryTypeAndFormat) {
  CounterGroup g("g");
  g.add(nmb::test::make_counter("u", "UINT64"))
      .add(nmb::test::make_counter("b", "BIT64"))
      .add(nmb::test::make_counter("my_guid", "UINT64", "DECIMAL"))
      .add(nmb::test::make_counter("someguids", "UINT64"))
      .add(nmb::test::make_counter("ux", "UINT64", "HEXADECIMAL"))
      .add(nmb::test::make_counter("ub", "BIT64", "BINARY"))
      .add(nmb::test::make_counter("uu", "UINT64", "UUID"))
      .add(nmb::test::make_counter("f", "FP64"))
      .add(nmb::test::make_counter("fh", "FP64", "HEXADECIMAL"))
      .add(nmb::test::make_counter("fu", "FP64", "UUID"))
      .add(nmb::test::make_counter("i", "INT64", "DECIMAL"))
      .add(nmb::test::make_counter("ih", "INT64", "HEXADECIMAL"))
      .add(nmb::test::make_counter("s", "STRING", "", 6))
      .add(nmb::test::make_counter("w", "UINT128"))
      .add(nmb::test::make_counter("wu", "UINT128", "UUID"))
      .add(nmb::test::make_counter("wi", "INT128", "HEXADECIMAL"))
      .add(nmb::test::make_counter("x", "Undefined"))
      .add(nmb::test::make_counter("y", "WHAT"));
  auto schema = load(CountersSchema().group(g));
  ByteVec values = Bytes()
                       .u64(7)
                       .u64(0xab)
                       .u64(0x1122334455667788)
                       .u64(255)
                       .u64(0xff)
                       .u64(5)
                       .u64(5)
                       .f64(1.5)
                       .f64(1.5)
                       .f64(-2.25)
                       .i64(-3)
                       .i64(-3)
                       .fixed("abc", 6)
                       .u128(0x0706050403020100, 0x0f0e0d0c0b0a0908)
                       .u128(0x0706050403020100, 0x0f0e0d0c0b0a0908)
                       .u128(1, 0)
                       .i64(-5)
                       .i64(123456);
  EXPECT_EQ(compact(*schema, values),
            R"({"timestamp":1700000000123456,"@timestamp":"2023-11-14 22:13:20.123","groups":[)"
            R"({"granularity":"NODE","name":"g","counter_sets":[{"u":7,"b":"0x00000000000000ab",)"
            R"("my_guid":"0x1122334455667788","someguids":"0x00000000000000ff",)"
            R"("ux":"0x00000000000000ff",)"
            R"("ub":"0b0000000000000000000000000000000000000000000000000000000000000101",)"
            R"("uu":"5","f":1.5,"fh":"0x3ff8000000000000","fu":"-2.250000","i":-3,)"
            R"("ih":"0xfffffffffffffffd","s":"abc","w":"000102030405060708090a0b0c0d0e0f",)"
            R"("wu":"00010203-0405-0607-0809-0a0b0c0d0e0f",)"
            R"("wi":"0x01000000000000000000000000000000","x":-5,"y":123456}]}]})");
}

// A whole-word GUID name in DECIMAL format is hex text whatever the data type
// (the switch is on here), also for the plain unsigned counters that are
// otherwise written inline, and for a string whose 8 bytes reach past the
// values area.
TEST_F(CountersExport, WholeWordGuidNamesInDecimalAreHex) {
  CounterGroup g("g");
  g.add(nmb::test::make_counter("Sys_Guid", "UINT64", "DECIMAL"))
      .add(nmb::test::make_counter("gGuid", "UINT64", "DECIMAL"))
      .add(nmb::test::make_counter("Port_GUID", "STRING", "DECIMAL", 2));
  auto schema = load(CountersSchema().group(g));
  const std::string out = compact(*schema, Bytes().u64(0xab).u64(0xab).fixed("ab", 2).vec());
  EXPECT_EQ(out.substr(out.find("\"counter_sets\"")),
            R"("counter_sets":[{"Sys_Guid":"0x00000000000000ab","gGuid":171,)"
            R"("Port_GUID":"0x0000000000006261"}]}]})");
}

// Digits are written straight only where the double route gives the same
// text; beyond 2^53 values still go through the double.
TEST_F(CountersExport, IntegersAtTheEdgeOfDoublePrecision) {
  CounterGroup g("g");
  for (const char* name : {"a", "b", "c", "d"}) g.counter(name, "UINT64");
  for (const char* name : {"e", "f", "h"}) g.counter(name, "INT64");
  auto schema = load(CountersSchema().group(g));
  const uint64_t p53 = uint64_t{1} << 53;
  ByteVec values = Bytes()
                       .u64(p53)
                       .u64(p53 + 1)
                       .u64(99999999999999999ull)
                       .u64(~uint64_t{0})
                       .i64(-static_cast<int64_t>(p53))
                       .i64(-static_cast<int64_t>(p53) - 1)
                       .i64(INT64_MIN)
                       .vec();
  const std::string out = compact(*schema, values);
  EXPECT_EQ(out.substr(out.find("\"counter_sets\"")),
            R"("counter_sets":[{"a":9007199254740992,"b":9007199254740992,"c":1e+17,)"
            R"("d":1.8446744073709552e+19,"e":-9007199254740992,"f":-9007199254740992,)"
            R"("h":-9.2233720368547758e+18}]}]})");
}

TEST_F(CountersExport, GroupShapesAndPrettyForm) {
  CounterGroup twice;  // no name
  twice.granularity = "CPU";
  twice.num_counter_sets = 2;
  twice.counter("a");
  CounterGroup none("n");
  none.granularity = "SOCKET";
  none.num_counter_sets = 0;
  none.counter("bad", "FP64");  // would fail as NaN, but is never built
  auto schema = load(CountersSchema().group(twice).group(none));
  std::string out;
  ByteVec block = nmb::test::counters_block(1500000, Bytes().u64(9).u64(0x7ff8000000000000));
  ASSERT_TRUE(nmb_counters_block_to_json(out, nmb::ByteView(block),
                                         *nmb_counters_plan_create(*schema), true, true));
  EXPECT_EQ(out, R"({
    "timestamp": 1500000,
    "@timestamp": "1970-01-01 00:00:01.500000",
    "groups": [
        {
            "granularity": "CPU",
            "name": "unset",
            "counter_sets": [
                {
                    "a": 9
                },
                {
                    "a": 9
                }
            ]
        },
        {
            "granularity": "unknown",
            "name": "n",
            "counter_sets": []
        }
    ]
})");
}

TEST_F(CountersExport, RepeatedNamesKeepFirstPositionAndLastValue) {
  CounterGroup g("g");
  g.counter("a").counter("b").counter("a").counter("c").counter("a");
  auto schema = load(CountersSchema().group(g));
  EXPECT_EQ(compact(*schema, Bytes().u64(1).u64(2).u64(3).u64(4).u64(5), 0),
            R"({"timestamp":0,"@timestamp":"1970-01-01 00:00:00.000","groups":[)"
            R"({"granularity":"NODE","name":"g","counter_sets":[{"a":5,"b":2,"c":4}]}]})");

  // An earlier value that cannot be built still fails the block.
  CounterGroup nan("g");
  nan.counter("a", "FP64").counter("a", "UINT64");
  auto failing = load(CountersSchema().group(nan));
  EXPECT_EQ(compact(*failing, Bytes().u64(0x7ff0000000000000).u64(1)), "FAILED");
}

// Every counter set object is built on its own, and values in counter order:
// the warnings of the formatters come once per set, in counter order, also
// when a repeated name moves a value to an earlier member.
TEST_F(CountersExport, WarningsComeOncePerCounterSetInCounterOrder) {
  CounterGroup g("g");
  g.num_counter_sets = 2;
  g.add(nmb::test::make_counter("w", "UINT128"))
      .add(nmb::test::make_counter("u", "UINT64", "UUID"))
      .add(nmb::test::make_counter("w", "INT128"));
  auto schema = load(CountersSchema().group(g));
  nmb_init_stderr_logger(NMB_LOG_WARNING);
  nmb::test::capture_stderr();
  std::string out = compact(*schema, Bytes().u128(1, 0).u64(7).u128(2, 0), 0);
  std::string err = nmb::test::captured_log();
  nmb_logger_reset_for_tests();
  const std::string wide =
      "[warning] Decimal format not fully supported for 128-bit types, using hex "
      "representation\n";
  const std::string uuid =
      "[warning] UUID format is only supported for 128-bit types, using DECIMAL for uint64\n";
  EXPECT_EQ(err, wide + uuid + wide + wide + uuid + wide);
  const std::string set = R"({"w":"02000000000000000000000000000000","u":"7"})";
  EXPECT_NE(out.find("\"counter_sets\":[" + set + "," + set + "]"), std::string::npos) << out;
}

TEST_F(CountersExport, ValuesThatCannotBeBuiltFailTheBlock) {
  CounterGroup g("g");
  g.counter("s", "STRING", 4);
  auto schema = load(CountersSchema().group(g));
  EXPECT_EQ(compact(*schema, Bytes().raw({'a', 0xff, 'b', 0})), "FAILED") << "invalid UTF-8";

  CounterGroup f("g");
  f.counter("f", "FP64");
  auto fp = load(CountersSchema().group(f));
  EXPECT_EQ(compact(*fp, Bytes().u64(0x7ff0000000000000)), "FAILED") << "infinity";
}

TEST_F(CountersExport, ValuesPastTheBlockReadAsZeros) {
  CounterGroup g("g");
  g.counter("a").counter("s", "STRING", 100).counter("w", "UINT128").counter("z", "STRING", 1);
  auto schema = load(CountersSchema().group(g));
  // 8 bytes for "a", then only 3 of the string's 100 bytes.
  EXPECT_EQ(compact(*schema, Bytes().u64(1).text("xyz"), 0),
            R"({"timestamp":0,"@timestamp":"1970-01-01 00:00:00.000","groups":[)"
            R"({"granularity":"NODE","name":"g","counter_sets":[{"a":1,"s":"xyz",)"
            R"("w":"00000000000000000000000000000000","z":""}]}]})");
  // Offsets and lengths from a hostile document: a zero-length STRING leaves
  // the later counters at their document offsets, here at the very end of the
  // 32-bit range.
  std::string hostile = R"({"version":"1.5.0","counter_groups":[{"granularity":"NODE",)"
                        R"("num_counters":0,"num_counter_sets":1,"counters":[)"
                        R"({"name":"z","description":"","units":"","data_type":"STRING",)"
                        R"("counting_type":"ABSOLUTE"},)"
                        R"({"name":"w","description":"","units":"","data_type":"INT128",)"
                        R"("counting_type":"ABSOLUTE","offset":4294967295},)"
                        R"({"name":"s","description":"","units":"","data_type":"STRING",)"
                        R"("counting_type":"ABSOLUTE","offset":4,"length":4294967295}]}]})";
  auto far = nmb_counters_schema_from_text(hostile.data(), hostile.size());
  ASSERT_TRUE(far);
  EXPECT_NE(compact(*far, Bytes().text("abcdefgh"))
                .find(R"({"z":"","w":"00000000000000000000000000000000","s":"efgh"})"),
            std::string::npos);
  // A block too short even for its header.
  std::string out;
  ByteVec tiny = {'N', 'M', 'B', 'D'};
  EXPECT_TRUE(nmb_counters_block_to_json(out, nmb::ByteView(tiny),
                                         *nmb_counters_plan_create(*schema), false, false));
}

TEST_F(CountersExport, TextTableWithoutCounterSets) {
  CounterGroup g("g");
  g.granularity = "PACKAGE";
  g.num_counter_sets = 0;
  g.counter("a").counter("b");
  auto schema = load(CountersSchema().group(g));
  std::string out;
  nmb_print_counter_group_text(out, schema->groups[0], nmb::ByteView(Bytes().u64(1).u64(2).vec()));
  const std::string rule = std::string(47, '-') + "\n";
  EXPECT_EQ(out, rule + "| Counter values per PACKAGE                  |\n" + rule +
                     "|                    a |                    b |\n" + rule + rule);
}

// One text cell: the text right-aligned in `width` columns.
std::string col(const std::string& text, size_t width = 20) {
  return " " + std::string(width > text.size() ? width - text.size() : 0, ' ') + text + " |";
}

TEST_F(CountersExport, TextCells) {
  auto cell = [](Counter c, const ByteVec& values, uint64_t offset = 0) {
    nmb_counter_info_t info;
    info.name = c.name;
    info.data_type = nmb_counter_data_type_from_name(c.data_type.c_str());
    info.string_format =
        c.string_format ? nmb_string_format_from_name(c.string_format->c_str()) : 0;
    std::string out;
    nmb_print_counter_value_text(out, info, 20, nmb::ByteView(values), offset);
    return out;
  };
  EXPECT_EQ(cell(nmb::test::make_counter("u", "UINT64"), Bytes().u64(123)), col("123"));
  EXPECT_EQ(cell(nmb::test::make_counter("u", "UINT64"), Bytes().u64(123)).size(), 23u);
  EXPECT_EQ(cell(nmb::test::make_counter("b", "BIT64", "DECIMAL"), Bytes().u64(255)), col("255"));
  EXPECT_EQ(cell(nmb::test::make_counter("x", "Undefined"), Bytes().i64(123456)),
            " " + std::string(15, ' ') + "123 k |");
  EXPECT_EQ(cell(nmb::test::make_counter("x", "Undefined"), Bytes().i64(999)), col("999"));
  EXPECT_EQ(cell(nmb::test::make_counter("x", "Undefined"), Bytes().i64(-5000)), col("-5000"));
  EXPECT_EQ(cell(nmb::test::make_counter("i", "INT64"), Bytes().i64(-7)), col("-7"));
  EXPECT_EQ(cell(nmb::test::make_counter("f", "FP64"), Bytes().f64(2.5)), col("2.500000"));
  // Strings take up to 20 bytes from their slot on, past the slot's 8.
  EXPECT_EQ(
      cell(nmb::test::make_counter("s", "STRING"), Bytes().text("abcdefghijklmnopqrstuvwxyz")),
      " abcdefghijklmnopqrst |");
  EXPECT_EQ(cell(nmb::test::make_counter("s", "STRING"), Bytes().text("ab")), col("ab"));
  EXPECT_EQ(cell(nmb::test::make_counter("w", "UINT128", "HEXADECIMAL"), Bytes().u128(1, 0)),
            " 0x01000000000000000000000000000000 |");
  EXPECT_EQ(cell(nmb::test::make_counter("u", "UINT64"), Bytes().u64(1), 8), col("0"))
      << "a slot past the area reads zero";
}

TEST_F(CountersExport, TextBlockTitleAndValuesByPosition) {
  CounterGroup g("g");
  g.num_counter_sets = 2;
  g.counter("s", "STRING", 3).counter("a");
  auto schema = load(CountersSchema().group(g));
  std::string out;
  ByteVec block = nmb::test::counters_block(0, Bytes().text("hi").zeros(6).u64(1).u64(2).u64(3));
  nmb_print_counters_block_text(out, nmb::ByteView(block), *schema, false);
  EXPECT_EQ(out.substr(0, out.find('\n') + 1), "Data collected at 1970-01-01 00:00:00.000\n");
  EXPECT_NE(out.find("|    0 |" + col("hi") + col("1") + "\n"), std::string::npos) << out;
  EXPECT_NE(out.find("|    1 |" + col("\x02") + col("3") + "\n"), std::string::npos) << out;
}

TEST(CountersSchemaDocument, JsonifyAndDigest) {
  CounterGroup g("grp");
  g.provider = "p";
  Counter c;
  c.name = "c";
  c.data_type = "STRING";
  c.length = 4;
  c.hidden = 1;
  g.add(c);
  std::string text = CountersSchema().group(g).json();
  auto schema = nmb_counters_schema_from_text(text.data(), text.size());
  ASSERT_TRUE(schema);
  EXPECT_EQ(nmb_counters_schema_jsonify(*schema), R"({
    "title": "Nimbrel performance counters collector",
    "version": "1.5.0",
    "counter_groups": [
        {
            "granularity": "NODE",
            "name": "grp",
            "provider": "p",
            "num_counter_sets": 1,
            "num_counters": 1,
            "counters": [
                {
                    "name": "c",
                    "description": "",
                    "units": "",
                    "data_type": "STRING",
                    "length": 4,
                    "offset": 0,
                    "hidden": 1,
                    "mandatory": 0,
                    "counting_type": "ABSOLUTE",
                    "string_format": "DEFAULT",
                    "index": 0
                }
            ]
        }
    ]
})");
  uint8_t digest[16];
  ASSERT_TRUE(nmb_counters_schema_md5(*schema, digest));
  EXPECT_EQ(nmb::test::schema_id_of(nmb_counters_schema_jsonify(*schema)),
            (nmb::test::SchemaId{digest[0], digest[1], digest[2], digest[3], digest[4], digest[5],
                                 digest[6], digest[7], digest[8], digest[9], digest[10], digest[11],
                                 digest[12], digest[13], digest[14], digest[15]}));
}

}  // namespace
