// Metrics blocks as nmb_read writes them: one object per block showing its
// last batch, labels from the common labels and the batch's label set, the
// json separators they share with counters blocks, malformed blocks logged
// and passed over, and the formats that refuse them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/data_builder.h"
#include "tests/support/e2e_test.h"
#include "tests/support/metrics_builder.h"
#include "tests/support/run_binary.h"

namespace {

using namespace nmb::test;

class MetricsE2E : public E2ETest {
 protected:
  // A file whose chunks each hold one block; the counters schema has one
  // counter "c".
  std::string write(const std::vector<ByteVec>& blocks) {
    CounterGroup g("g");
    g.counter("c");
    SchemaId id = write_schema_file(dir_.file("schema"), CountersSchema().group(g));
    DataFile file;
    file.block_size(512).times(1, 2).counters_schema(id);
    for (const ByteVec& block : blocks) file.chunk(Chunk().raw(block));
    return file.write(dir_.file("data.bin"));
  }
};

// Label set 0 names "host"; the common labels set "host" too.
MetricsPayload host_payload() {
  MetricsPayload p;
  p.label_names({"host"}).label_values({"b"}).metric_names({"rx", "tx"});
  p.common_labels({{"host", "a"}});
  return p;
}

TEST_F(MetricsE2E, LastBatchWinsAndBatchLabelsOverrideCommonOnes) {
  ByteVec block =
      host_payload()
          .batch(Batch(1000).sample(0, 5).labels(LabelsBlock('L', 0).id(0)))
          .batch(
              Batch(2000).sample(1, 7).sample(0, UINT64_MAX).labels(LabelsBlock('I', 0).text("c")))
          .bytes();
  RunResult r = run({"-f", "ndjson", write({block})});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, R"({"timestamp":2000,"@timestamp":"1970-01-01 00:00:00.002",)"
                   R"("labels":[{"host":"c"}],"metrics":[{"tx":7},{"rx":1.8446744073709552e+19}]})"
                   "\n");
  EXPECT_EQ(r.err, "");
}

// Every metrics block counts as a record, printed or not: the json separator
// comes before the next object even after a malformed block printed nothing.
TEST_F(MetricsE2E, MalformedBlocksAreLoggedAndPassedOverInJson) {
  ByteVec bad = host_payload()
                    .batch(Batch(1).sample(0, 1).labels(LabelsBlock('L', 0).id(0)))
                    .total_size(600)
                    .bytes();
  ByteVec good = host_payload().bytes();
  RunResult r = run({"-f", "json", write({bad, good, counters_block(1, Bytes().u64(2).vec())})});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "{\"data\":[,\n{},\n{\n    \"timestamp\": 1,\n"
            "    \"@timestamp\": \"1970-01-01 00:00:00.000\",\n"
            "    \"groups\": [\n        {\n            \"granularity\": \"NODE\",\n"
            "            \"name\": \"g\",\n            \"counter_sets\": [\n"
            "                {\n                    \"c\": 2\n                }\n"
            "            ]\n        }\n    ]\n}]}");
  EXPECT_NE(r.err.find("[error] failed to parse full block: Invalid binary data format: "
                       "total_size exceeds the block\n"),
            std::string::npos)
      << r.err;
}

TEST_F(MetricsE2E, OtherFormatsRefuseMetricsBlocks) {
  std::string path = write({host_payload().bytes()});
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"txt", "Unsupported output format"},
      {"bin", "Unsupported output format"},
      {"csv", "CSV output is not supported yet"},
      {"influx", "Influx line API output is not yet supported for metrics data"},
  };
  for (const auto& [format, message] : cases) {
    RunResult r = run({"-f", format, "-o", dir_.path(), path});
    EXPECT_EQ(r.status, 0) << format;
    EXPECT_EQ(r.out, "") << format;
    std::string err = "Failed processing file " + path + ": " + message + "\n";
    if (format == "bin") {
      err += "[warning] " + path +
             " holds 1 blocks outside packed pages: -f bin writes the blocks of packed pages "
             "only, so these are in no output file (counters blocks were printed as txt tables "
             "instead)\n";
    }
    EXPECT_EQ(r.err, err) << format;
  }
}

}  // namespace
