// -M: counters blocks enriched from the metadata of their counters schema,
// and what the run does when there is none or it is broken.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/data_builder.h"
#include "tests/support/e2e_test.h"
#include "tests/support/run_binary.h"

namespace {

using namespace nmb::test;

constexpr uint64_t kT0 = 1700000000000000;  // 2023-11-14 22:13:20 UTC

constexpr const char* kPortsMetadata =
    R"({"metadata_content":{"counters":{"name_match_labels":[
         {"pattern":"port_$MATCH_","index_names":["port"],
          "matches_and_labels":[{"pattern_match":["1"],"labels":{"type":"eth"}}]}]}}})";

class MetadataE2E : public E2ETest {
 protected:
  // A file of one counters block of a schema with the given counters (value
  // i + 1 for the i-th); returns its path.
  std::string write(const std::string& name, const std::vector<std::string>& counters) {
    CounterGroup g("g");
    Bytes values;
    for (size_t i = 0; i < counters.size(); ++i) {
      g.counter(counters[i]);
      values.u64(i + 1);
    }
    SchemaId id = write_schema_file(dir_.file("schema"), CountersSchema().group(g));
    ids_.push_back(schema_id_hex(id));
    DataFile file;
    file.block_size(256).times(kT0, kT0).counters_schema(id).chunk(Chunk().counters(kT0, values));
    return file.write(dir_.file(name));
  }
  // The metadata of the schema written last, in the "metadata" folder beside
  // the schema folder.
  void metadata(const std::string& text) {
    std::filesystem::create_directories(dir_.file("metadata"));
    write_text_file(dir_.file("metadata/metadata_" + ids_.back() + ".json"), text);
  }

  std::vector<std::string> ids_;
};

TEST_F(MetadataE2E, NdjsonCountersAreEnriched) {
  std::string path = write("data.bin", {"port_1_rcv_data", "uptime"});
  metadata(kPortsMetadata);
  RunResult r = run({"-M", "-f", "ndjson", path});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "[info] Loaded metadata with 1 entries from " +
                       dir_.file("metadata/metadata_" + ids_.back() + ".json") + "\n");
  EXPECT_EQ(r.out,
            R"({"timestamp":1700000000000000,"@timestamp":"2023-11-14 22:13:20.000","groups":[)"
            R"({"granularity":"NODE","name":"g","counter_sets":[[)"
            R"({"rcv_data":1,"indexes":{"port":"1"},"labels":{"type":"eth"}},{"uptime":2}]]}]})"
            "\n");
}

TEST_F(MetadataE2E, WithoutMetadataTheOutputIsUnchanged) {
  std::string path = write("data.bin", {"port_1_rcv_data"});
  for (const char* format : {"json", "ndjson"}) {
    RunResult plain = run({"-f", format, path});
    RunResult with_m = run({"-M", "-f", format, path});
    EXPECT_EQ(with_m.status, 0) << with_m.err;
    EXPECT_EQ(with_m.out, plain.out) << format;
    EXPECT_EQ(with_m.err, "");
  }
}

TEST_F(MetadataE2E, BrokenMetadataIsLoggedAndPassedOver) {
  std::string path = write("data.bin", {"port_1_rcv_data"});
  metadata("{\"metadata_content\":");
  RunResult plain = run({"-f", "ndjson", path});
  RunResult r = run({"-M", "-f", "ndjson", path});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, plain.out);
  EXPECT_EQ(r.err, "[error] Failed to parse metadata JSON " + dir_.file("metadata/metadata_") +
                       ids_.back() + ".json\n");
}

TEST_F(MetadataE2E, OnlyJsonFormatsAreEnriched) {
  std::string path = write("data.bin", {"port_1_rcv_data"});
  metadata(kPortsMetadata);
  RunResult plain = run({"-f", "txt", path});
  RunResult r = run({"-M", "-f", "txt", path});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, plain.out);
  EXPECT_NE(r.out.find("port_1_rcv_data"), std::string::npos);
}

TEST_F(MetadataE2E, EachFileTakesTheMetadataOfItsSchema) {
  std::string with = write("with.bin", {"port_1_a"});
  metadata(kPortsMetadata);
  std::string without = write("without.bin", {"port_1_b"});
  RunResult r = run({"-M", with, without});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find(R"("counter_sets": [
                [
                    {
                        "a": 1,)"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find(R"("counter_sets": [
                {
                    "port_1_b": 1
                }
            ])"),
            std::string::npos)
      << r.out;
}

}  // namespace
