// Counters blocks with metadata (-M): each counter set becomes an array of
// one-member objects with the shown name, "indexes" and "labels".
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "counters/counters_export.h"
#include "counters/counters_schema.h"
#include "filter/metadata.h"
#include "tests/support/data_builder.h"

namespace {

using nmb::test::Bytes;
using nmb::test::ByteVec;
using nmb::test::CounterGroup;
using nmb::test::CountersSchema;

class CountersMetadata : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
  }

  // The block of `values` written with the schema and metadata items.
  static std::string json(const CountersSchema& schema, const std::string& items,
                          const ByteVec& values, bool pretty = false) {
    std::string text = schema.json();
    auto loaded = nmb_counters_schema_from_text(text.data(), text.size());
    auto md = nmb_metadata_load_text(
        R"({"metadata_content":{"counters":{"name_match_labels":[)" + items + "]}}}", "m.json");
    EXPECT_TRUE(loaded && md);
    auto plan = nmb_counters_plan_create(*loaded, md.get());
    md.reset();  // the plan holds copies
    std::string out = "prefix";
    ByteVec block = nmb::test::counters_block(1000000, values);
    if (!nmb_counters_block_to_json(out, nmb::ByteView(block), *plan, false, pretty)) {
      EXPECT_EQ(out, "prefix") << "a failed block leaves nothing behind";
      return "FAILED";
    }
    return out.substr(6);
  }
};

constexpr const char* kPorts =
    R"({"pattern":"port_$MATCH_","index_names":["port"],"matches_and_labels":[
         {"pattern_match":["1"],"labels":{"type":"eth","speed":"100G"}}]})";

TEST_F(CountersMetadata, CounterSetsBecomeArrays) {
  CounterGroup ports("ports");
  ports.counter("port_1_rcv_data").counter("port_1_").counter("other");
  CounterGroup empty("empty");
  auto schema = CountersSchema().group(ports).group(empty);
  EXPECT_EQ(json(schema, kPorts, Bytes().u64(5).u64(6).u64(7).vec()),
            R"({"timestamp":1000000,"@timestamp":"1970-01-01 00:00:01.000","groups":[)"
            R"({"granularity":"NODE","name":"ports","counter_sets":[[)"
            R"({"rcv_data":5,"indexes":{"port":"1"},"labels":{"type":"eth","speed":"100G"}},)"
            R"({"port_1_":6,"indexes":{"port":"1"},"labels":{"type":"eth","speed":"100G"}},)"
            R"({"other":7}]]},)"
            R"({"granularity":"NODE","name":"empty","counter_sets":[[]]}]})");
}

TEST_F(CountersMetadata, PrettyForm) {
  CounterGroup ports("ports");
  ports.counter("port_1_rcv_data");
  EXPECT_EQ(json(CountersSchema().group(ports), kPorts, Bytes().u64(5).vec(), true), R"({
    "timestamp": 1000000,
    "@timestamp": "1970-01-01 00:00:01.000",
    "groups": [
        {
            "granularity": "NODE",
            "name": "ports",
            "counter_sets": [
                [
                    {
                        "rcv_data": 5,
                        "indexes": {
                            "port": "1"
                        },
                        "labels": {
                            "type": "eth",
                            "speed": "100G"
                        }
                    }
                ]
            ]
        }
    ]
})");
}

TEST_F(CountersMetadata, RepeatedKeysKeepTheirFirstPlaceAndTakeTheLastValue) {
  CounterGroup g("g");
  g.counter("x_indexes").counter("y_labels").counter("x_a").counter("x_indexes");
  const std::string items =
      R"({"pattern":"x_","index_names":["i","j","i"],"matches_and_labels":[
           {"pattern_match":["1","2","3"]}]},
         {"pattern":"y_","matches_and_labels":[{"pattern_match":[],"labels":{"l":"v"}}]})";
  EXPECT_EQ(json(CountersSchema().group(g), items, Bytes().u64(1).u64(2).u64(3).u64(4).vec()),
            R"({"timestamp":1000000,"@timestamp":"1970-01-01 00:00:01.000","groups":[)"
            R"({"granularity":"NODE","name":"g","counter_sets":[[)"
            R"({"indexes":{"i":"3","j":"2"}},{"labels":{"l":"v"}},)"
            R"({"a":3,"indexes":{"i":"3","j":"2"}}]]}]})");
}

TEST_F(CountersMetadata, AValueReplacedByItsIndexesIsStillBuilt) {
  CounterGroup g("g");
  g.counter("x_indexes", "FP64");
  const std::string items =
      R"({"pattern":"x_","index_names":["i"],"matches_and_labels":[{"pattern_match":["1"]}]})";
  EXPECT_EQ(json(CountersSchema().group(g), items, Bytes().u64(0x7ff8000000000000).vec()),
            "FAILED");
}

TEST_F(CountersMetadata, MetadataWithoutEntriesStillMakesArrays) {
  CounterGroup g("g");
  g.counter("a");
  EXPECT_EQ(json(CountersSchema().group(g), R"({"matches_and_labels":[{"pattern_match":[]}]})",
                 Bytes().u64(1).vec()),
            R"({"timestamp":1000000,"@timestamp":"1970-01-01 00:00:01.000","groups":[)"
            R"({"granularity":"NODE","name":"g","counter_sets":[[{"a":1}]]}]})");
}

}  // namespace
