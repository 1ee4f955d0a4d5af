#include "counters/counters_schema.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/run_binary.h"
#include "utils/log.h"

namespace {

// A counter as it appears in a schema document; `extra` holds further members.
std::string counter(const std::string& name, const std::string& type,
                    const std::string& extra = "") {
  return R"({"name":")" + name + R"(","description":"d","units":"u","data_type":")" + type +
         R"(","counting_type":"ABSOLUTE")" + (extra.empty() ? "" : "," + extra) + "}";
}

std::string group(const std::vector<std::string>& counters, const std::string& extra = "",
                  int sets = 1) {
  std::string text = R"({"granularity":"NODE","num_counters":0,"num_counter_sets":)" +
                     std::to_string(sets) + R"(,"counters":[)";
  for (size_t i = 0; i < counters.size(); ++i) text += (i ? "," : "") + counters[i];
  return text + "]" + (extra.empty() ? "" : "," + extra) + "}";
}

std::string document(const std::vector<std::string>& groups, const std::string& version = "1.5.0") {
  std::string text = R"({"version":")" + version + R"(","counter_groups":[)";
  for (size_t i = 0; i < groups.size(); ++i) text += (i ? "," : "") + groups[i];
  return text + "]}";
}

std::unique_ptr<nmb_counters_schema_t> load(const std::string& text,
                                            const nmb_counter_filter_t* filter = nullptr) {
  return nmb_counters_schema_from_text(text.data(), text.size(), filter);
}

std::vector<uint32_t> offsets(const nmb_counters_schema_t& schema) {
  std::vector<uint32_t> result;
  for (const auto& g : schema.groups)
    for (const auto& c : g.counters) result.push_back(c.offset);
  return result;
}

TEST(CountersSchemaEnums, NamesAndValues) {
  EXPECT_EQ(nmb_counter_data_type_from_name("Undefined"), 0);
  EXPECT_EQ(nmb_counter_data_type_from_name("INT128"), 7);
  EXPECT_EQ(nmb_counter_data_type_from_name("uint64"), -1) << "lookups are case-sensitive";
  EXPECT_STREQ(nmb_counter_data_type_name(5), "STRING");
  EXPECT_EQ(nmb_counter_data_type_name(8), nullptr);
  EXPECT_EQ(nmb_string_format_from_name("BINARY"), 4);
  EXPECT_EQ(nmb_string_format_from_name("HEX"), -1);
  EXPECT_EQ(nmb_counting_type_from_name("DELTA"), 2);
  EXPECT_EQ(nmb_counting_type_from_name("ABSOLUTE_MONOTONIC"), -1);
  EXPECT_EQ(nmb_granularity_from_name("PACKAGE"), 2);
  EXPECT_STREQ(nmb_granularity_name(1), "CPU");
  EXPECT_STREQ(nmb_granularity_name(-1), "unknown");
  EXPECT_STREQ(nmb_granularity_name(3), "unknown");
}

TEST(CountersSchemaOffsets, RunAcrossGroupsWithoutPadding) {
  auto schema = load(
      document({group({counter("a", "UINT64"), counter("b", "UINT64"), counter("c", "UINT64")}),
                group({counter("d", "UINT64"), counter("e", "UINT64"), counter("f", "UINT64")})}));
  ASSERT_TRUE(schema);
  EXPECT_EQ(offsets(*schema), (std::vector<uint32_t>{0, 8, 16, 24, 32, 40}));
  EXPECT_EQ(schema->size, 48u);
  EXPECT_EQ(schema->num_groups, 2u);
  EXPECT_EQ(nmb_counters_schema_number_of_counters(*schema), 6u);
  EXPECT_GT(nmb_counters_schema_number_of_counters(*schema), 0u);
}

TEST(CountersSchemaOffsets, LengthRulesDifferBetweenOffsetsAndSize) {
  auto schema = load(document({group(
      {counter("short", "UINT64", R"("length":4)"), counter("wide", "UINT128", R"("length":0)"),
       counter("wide2", "INT128", R"("length":3)"), counter("text", "STRING", R"("length":5)"),
       counter("last", "FP64")})}));
  ASSERT_TRUE(schema);
  EXPECT_EQ(offsets(*schema), (std::vector<uint32_t>{0, 4, 20, 36, 41}));
  // The size counts 8 for the 4-byte counter.
  EXPECT_EQ(schema->size, 8u + 16 + 16 + 5 + 8);
}

TEST(CountersSchemaOffsets, ZeroLengthStringStopsTheComputation) {
  auto schema = load(document(
      {group({counter("a", "UINT64", R"("offset":100)"), counter("s", "STRING", R"("offset":200)"),
              counter("b", "UINT64", R"("offset":300)")}),
       group({counter("c", "INT64", R"("offset":400)")})}));
  ASSERT_TRUE(schema) << "a zero-length STRING does not fail the load";
  EXPECT_EQ(offsets(*schema), (std::vector<uint32_t>{0, 200, 300, 400}));
  EXPECT_EQ(schema->size, 8u + 0 + 8 + 8);
}

TEST(CountersSchemaLoad, CounterMembers) {
  auto schema = load(document({group(
      {counter("c", "BIT64",
               R"("string_format":"HEXADECIMAL","hidden":true,"mandatory":2,"index":65537)"),
       counter("d", "NOPE", R"("string_format":7)"),
       R"({"name":"m","description":"","units":"","data_type":"INT64","counting_type":"ABSOLUTE_MONOTONIC","hidden":1})"},
      R"("name":"grp","provider":"prov")")}));
  ASSERT_TRUE(schema);
  const auto& g = schema->groups[0];
  EXPECT_TRUE(g.has_name);
  EXPECT_EQ(g.name, "grp");
  EXPECT_EQ(g.provider, "prov");
  EXPECT_EQ(g.num_counters, 3u);
  const auto& c = g.counters[0];
  EXPECT_EQ(c.data_type, NMB_COUNTER_DATA_TYPE_BIT64);
  EXPECT_EQ(c.string_format, NMB_STRING_FORMAT_HEXADECIMAL);
  EXPECT_FALSE(c.hidden) << "flags are numbers: a JSON true reads as 0";
  EXPECT_TRUE(c.mandatory);
  EXPECT_EQ(c.index, 1u);
  EXPECT_EQ(g.counters[1].data_type, -1);
  EXPECT_EQ(g.counters[1].string_format, 0) << "a non-string format reads as absent";
  EXPECT_EQ(g.counters[2].counting_type, -1);
  EXPECT_TRUE(g.counters[2].hidden);
}

TEST(CountersSchemaLoad, StructureAndVersion) {
  EXPECT_TRUE(load(document({group({counter("a", "UINT64")})}, "2.0.0")))
      << "an incompatible version is only logged";
  auto empty = load(document({}));
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty->size, 0u);
  EXPECT_EQ(nmb_counters_schema_number_of_counters(*empty), 0u);

  EXPECT_FALSE(load(R"({"counter_groups":[]})"));
  EXPECT_FALSE(load(R"({"version":"1.5.0","counter_groups":{}})"));
  EXPECT_FALSE(load(R"([1,2])"));
  EXPECT_FALSE(load(document({R"({"granularity":"NODE","num_counter_sets":1,"counters":[]})"})))
      << "num_counters must be present";
  EXPECT_FALSE(load(document(
      {group({R"({"name":"a","description":"","data_type":"UINT64","counting_type":"DELTA"})"})})))
      << "a counter without units fails the whole schema";
  EXPECT_FALSE(load(document({group({counter("a", "UINT64")}), "7"})));
}

TEST(CountersSchemaLoad, CounterSetCountRule) {
  auto schema =
      load(document({group({counter("a", "UINT64")}), group({counter("b", "UINT64")}, "", 2)}));
  ASSERT_TRUE(schema);
  EXPECT_EQ(schema->groups[1].num_counter_sets, 2u);
  EXPECT_EQ(nmb_counters_schema_number_of_counters(*schema), 0u) << "so its blocks are skipped";
  // Any count loads; a count other than 1 makes the schema count no counters.
  auto huge = load(document({group({counter("a", "UINT64")}, "", -1)}));
  ASSERT_TRUE(huge);
  EXPECT_EQ(huge->groups[0].num_counter_sets, 4294967295u);
  EXPECT_EQ(nmb_counters_schema_number_of_counters(*huge), 0u);
}

TEST(CountersSchemaLoad, CounterFilterDropsCountersAndEmptyGroups) {
  nmb_counter_filter_t filter;
  filter.include = [](const void*, const char* name) { return name[0] != 'x'; };
  auto schema =
      load(document({group({counter("a", "UINT64"), counter("x1", "UINT64")}),
                     group({counter("x2", "UINT64")}),
                     group({counter("b", "STRING", R"("length":3)"), counter("c", "UINT64")})}),
           &filter);
  ASSERT_TRUE(schema);
  ASSERT_EQ(schema->num_groups, 2u);
  EXPECT_EQ(schema->groups[0].num_counters, 1u);
  EXPECT_EQ(offsets(*schema), (std::vector<uint32_t>{0, 8, 11}));
  EXPECT_EQ(schema->size, 19u);

  // Without a filter an empty group stays.
  auto unfiltered = load(document({group({}), group({counter("a", "UINT64")})}));
  ASSERT_TRUE(unfiltered);
  EXPECT_EQ(unfiltered->num_groups, 2u);
  auto only_empty = load(document({group({})}));
  ASSERT_TRUE(only_empty);
  EXPECT_EQ(nmb_counters_schema_number_of_counters(*only_empty), 0u);
}

// The messages of a load, byte for byte: the version error, one debug line
// per counter with its declared length (so 64-bit counters show size=0 unless
// they declare one), the per-group set counts with "(null)" for a group
// without a name, and the total with its trailing " d".
TEST(CountersSchemaLoad, MessagesOfALoad) {
  nmb_init_stderr_logger(NMB_LOG_DEBUG);
  nmb::test::capture_stderr();
  auto schema = load(document(
      {group({counter("a", "UINT64", R"("length":4)"), counter("s", "STRING", R"("length":3)")},
             R"("name":"g")"),
       group({counter("w", "UINT128")}, "", 2)},
      "2.0.0"));
  std::string err = nmb::test::captured_log();
  nmb::test::capture_stderr();
  auto mismatch = load(R"({"version":"1.5.0"})");
  std::string warning = nmb::test::captured_log();
  nmb_logger_reset_for_tests();
  ASSERT_TRUE(schema);
  EXPECT_FALSE(mismatch);
  EXPECT_EQ(schema->size, 27u);
  EXPECT_EQ(err,
            "[error] Version '2.0.0' of parsing schema is incompatible with current schema "
            "version '1.5.0'\n"
            "[debug] [schema] Set up counter a  size=4  offset=0\n"
            "[debug] [schema] Set up counter s  size=3  offset=4\n"
            "[debug] [schema] Set up counter w  size=0  offset=7\n"
            "[debug] nmb_counters_schema_size_of_counters group g has 1 counter sets\n"
            "[debug] nmb_counters_schema_size_of_counters group (null) has 2 counter sets\n"
            "[debug] nmb_counters_schema_size_of_counters returning 27 d\n");
  EXPECT_EQ(warning,
            "[warning] JSON does not match schema '{\"version\" : \"\", \"counter_groups\" : "
            "[]}'\n");
}

}  // namespace
