#include "metrics/metrics_export.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string>

#include "tests/support/log_capture.h"
#include "tests/support/metrics_builder.h"

namespace {

using nmb::metrics::MetricsTables;
using nmb::test::Batch;
using nmb::test::LabelsBlock;
using nmb::test::MetricsPayload;

class MetricsExport : public nmb::test::LoggedTest {
 protected:
  void SetUp() override {
    LoggedTest::SetUp();
    setenv("TZ", "UTC", 1);
    tzset();
  }

  static MetricsTables parsed(const MetricsPayload& payload) {
    MetricsTables tables;
    std::string error;
    EXPECT_TRUE(nmb::metrics::parse_metrics_payload(payload.bytes(), tables, error)) << error;
    return tables;
  }
  // The object written after "prefix"; the bare prefix when it failed.
  static std::string json(const MetricsPayload& payload, bool pretty = false,
                          bool microseconds = false) {
    std::string out = "prefix";
    nmb::JsonWriter writer(out, pretty);
    EXPECT_TRUE(nmb_metrics_to_json(writer, parsed(payload), microseconds));
    return out.substr(6);
  }
  // The message of the error thrown while writing; nothing may be written.
  static std::string failure(const MetricsPayload& payload) {
    std::string out;
    nmb::JsonWriter writer(out, false);
    try {
      nmb_metrics_to_json(writer, parsed(payload), false);
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(out, "");
      return e.what();
    }
    return "no error";
  }
};

MetricsPayload with_names() {
  return MetricsPayload()
      .label_names({"host"})
      .label_values({"node1", "bad\xff", ""})
      .metric_names({"rx", "tx"});
}

TEST_F(MetricsExport, OneBatchIsOneObject) {
  MetricsPayload payload = with_names().batch(
      Batch(1700000000123456).sample(0, 5).sample(1, 7).labels(LabelsBlock('L', 0).id(0)));
  EXPECT_EQ(json(payload, true),
            "{\n"
            "    \"timestamp\": 1700000000123456,\n"
            "    \"@timestamp\": \"2023-11-14 22:13:20.123\",\n"
            "    \"labels\": [\n"
            "        {\n"
            "            \"host\": \"node1\"\n"
            "        }\n"
            "    ],\n"
            "    \"metrics\": [\n"
            "        {\n"
            "            \"rx\": 5\n"
            "        },\n"
            "        {\n"
            "            \"tx\": 7\n"
            "        }\n"
            "    ]\n"
            "}");
  EXPECT_EQ(json(payload, false, true),
            "{\"timestamp\":1700000000123456,\"@timestamp\":\"2023-11-14 22:13:20.123456\","
            "\"labels\":[{\"host\":\"node1\"}],\"metrics\":[{\"rx\":5},{\"tx\":7}]}");
}

TEST_F(MetricsExport, LaterBatchesReplaceValuesInPlace) {
  // The first batch names a label set without a names section: no "labels"
  // until the second batch, which puts it after "metrics".
  MetricsPayload payload =
      with_names()
          .batch(Batch(1000000).sample(0, 1).labels(LabelsBlock('L', 5).id(0)))
          .batch(Batch(2000000).sample(1, UINT64_MAX).labels(LabelsBlock('I', 0).text("n2")));
  EXPECT_EQ(json(payload),
            "{\"timestamp\":2000000,\"@timestamp\":\"1970-01-01 00:00:02.000\","
            "\"metrics\":[{\"tx\":1.8446744073709552e+19}],\"labels\":[{\"host\":\"n2\"}]}");
  // A later batch without a label set leaves the earlier labels.
  payload.batch(Batch(3000000).labels(LabelsBlock('L', 9)));
  EXPECT_EQ(json(payload),
            "{\"timestamp\":3000000,\"@timestamp\":\"1970-01-01 00:00:03.000\","
            "\"metrics\":[],\"labels\":[{\"host\":\"n2\"}]}");
}

TEST_F(MetricsExport, LabelsStartFromTheCommonLabels) {
  MetricsPayload base = with_names().common_labels({{"host", "common"}, {"site", "lab"}});
  std::string out =
      json(MetricsPayload(base).batch(Batch(0).labels(LabelsBlock('M', 0).text("mine"))));
  const std::string start =
      "{\"timestamp\":0,\"@timestamp\":\"1970-01-01 00:00:00.000\",\"labels\":";
  const std::string end = ",\"metrics\":[]}";
  EXPECT_TRUE(out == start + "[{\"host\":\"mine\"},{\"site\":\"lab\"}]" + end ||
              out == start + "[{\"site\":\"lab\"},{\"host\":\"mine\"}]" + end)
      << out;
  // Without the batch's label set not even the common labels are written.
  EXPECT_EQ(json(MetricsPayload(base).batch(Batch(0).labels(LabelsBlock('L', 1)))),
            "{\"timestamp\":0,\"@timestamp\":\"1970-01-01 00:00:00.000\",\"metrics\":[]}");
  EXPECT_EQ(json(base, true), "{}") << "no batches";
}

TEST_F(MetricsExport, ABlockThatCannotBeWrittenWritesNothing) {
  // Label value 1 is not valid UTF-8; its batch is replaced, yet still fails.
  std::string out = "prefix";
  nmb::JsonWriter writer(out, true);
  MetricsTables bad_utf8 = parsed(with_names()
                                      .batch(Batch(1).labels(LabelsBlock('L', 0).id(1)))
                                      .batch(Batch(2).labels(LabelsBlock('L', 0).id(0))));
  EXPECT_FALSE(nmb_metrics_to_json(writer, bad_utf8, false));
  EXPECT_EQ(out, "prefix");

  start();
  EXPECT_EQ(failure(with_names().batch(Batch(1).labels(LabelsBlock('L', 0).id(3)))),
            "Failed to decode label value at index 0: invalid label id");
  EXPECT_EQ(failure(with_names().batch(Batch(1).labels(LabelsBlock('L', 0).id(0).id(0)))),
            "more label values than label names");
  EXPECT_EQ(failure(with_names().batch(Batch(1).sample(2, 0))), "sample id without a metric name");
  EXPECT_EQ(logged(),
            "[error] [nmb labels block] decode_label_value: invalid label id: 3 (max=3)\n"
            "[error] [nmb labels block] decode_label_values: failed to decode label 0: invalid "
            "label id\n"
            "[error] Label set 0 names 1 labels but the batch has 2 label values\n"
            "[error] Sample id 2 has no metric name (2 metric names)\n");
}

}  // namespace
