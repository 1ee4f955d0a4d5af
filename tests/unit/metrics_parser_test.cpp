#include "metrics/metrics_parser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/metrics_builder.h"
#include "utils/log.h"

namespace {

using nmb::metrics::LabelKind;
using nmb::metrics::MetricsTables;
using nmb::metrics::NmbMetricsParser;
using nmb::test::Batch;
using nmb::test::Bytes;
using nmb::test::ByteVec;
using nmb::test::LabelsBlock;
using nmb::test::MetricsPayload;
using Strings = std::vector<std::string>;

class MetricsParser : public nmb::test::LoggedTest {
 protected:
  // The error message of a failed parse; empty when it succeeds.
  static std::string failure(const ByteVec& block) {
    MetricsTables tables;
    std::string error;
    return nmb::metrics::parse_metrics_payload(block, tables, error) ? "" : error;
  }
  static MetricsTables parsed(const ByteVec& block) {
    MetricsTables tables;
    std::string error;
    EXPECT_TRUE(nmb::metrics::parse_metrics_payload(block, tables, error)) << error;
    return tables;
  }
};

// The main parse finds the data section from where "CNTI" ends, and an absent
// list ends the search at the payload end: every payload that has batches
// holds both lists.
MetricsPayload minimal() {
  return MetricsPayload().label_values({}).metric_names({});
}

// A payload with every section and two batches.
MetricsPayload full_payload() {
  return MetricsPayload()
      .label_names({"host", "dev"})
      .label_names({"port"})
      .label_values({"node1", "mlx5_0"})
      .metric_names({"rx", "tx"})
      .common_labels({{"site", "lab"}, {"rack", "r1"}})
      .batch(Batch(1000).sample(0, 5).sample(1, UINT64_MAX).labels(LabelsBlock('L', 0).id(0).id(1)))
      .batch(Batch(2000, 'G').labels(LabelsBlock('I', 1).text("1")));
}

TEST_F(MetricsParser, AWellFormedPayloadGivesEveryTable) {
  ByteVec block = full_payload().bytes();
  block.resize(block.size() + 100, 0);  // the rest of the chunk
  MetricsTables t = parsed(block);
  EXPECT_EQ(t.label_names,
            (nmb::metrics::LabelNames{{0, Strings{"host", "dev"}}, {1, Strings{"port"}}}));
  EXPECT_EQ(t.label_values, (Strings{"node1", "mlx5_0"}));
  EXPECT_EQ(t.metric_names, (Strings{"rx", "tx"}));
  EXPECT_EQ(t.common_labels, (nmb::metrics::CommonLabels{{"site", "lab"}, {"rack", "r1"}}));
  ASSERT_EQ(t.batches.size(), 2u);
  EXPECT_EQ(t.batches[0].timestamp, 1000u);
  ASSERT_EQ(t.batches[0].samples.size(), 2u);
  EXPECT_EQ(t.batches[0].samples[1].sample_id, 1u);
  EXPECT_EQ(t.batches[0].samples[1].sample_value, UINT64_MAX);
  EXPECT_EQ(t.batches[0].label_set_id, 0u);
  ASSERT_EQ(t.batches[0].labels.size(), 2u);
  EXPECT_EQ(t.batches[0].labels[1].label_value_id, 1u);
  EXPECT_EQ(t.batches[1].timestamp, 2000u);
  EXPECT_TRUE(t.batches[1].samples.empty());
  EXPECT_EQ(t.batches[1].label_set_id, 1u);
  EXPECT_EQ(t.batches[1].labels[0].kind, LabelKind::kLabelValue);
}

TEST_F(MetricsParser, TotalSizeBoundsEverySearch) {
  // The common labels lie after the trailer: outside the payload.
  ByteVec block = minimal().bytes();
  ByteVec outside = MetricsPayload().common_labels({{"k", "v"}}).bytes();
  block.insert(block.end(), outside.begin(), outside.end());
  EXPECT_TRUE(parsed(block).common_labels.empty());

  // A tag cut by the payload end is not found.
  ByteVec cut = Bytes().text("xxCNT").vec();
  std::vector<std::string> out = {"stale"};
  EXPECT_EQ(NmbMetricsParser::parse_section(cut, 0, "CNTI", "cnti", out), cut.size());
  EXPECT_TRUE(out.empty());

  start();
  EXPECT_EQ(NmbMetricsParser::find_total_size(Bytes().text("CNT").vec()), 0u);
  EXPECT_EQ(failure(ByteVec(64, 0)), "Missing 'CNTD' magic number in the binary data");
  EXPECT_EQ(failure(minimal().total_size(200).bytes()),
            "Invalid binary data format: total_size exceeds the block");
  EXPECT_EQ(failure(minimal().batch(Batch(1)).total_size(50).bytes()),
            "Invalid magic numbers in the binary data")
      << "a payload cut before its trailer";
  EXPECT_EQ(logged(),
            "[error] [nmb metrics parser] Invalid binary data format: Missing 'CNTD' magic number\n"
            "[error] [nmb metrics parser] Invalid binary data format: total_size 200 exceeds the "
            "44 bytes of the block\n");
}

TEST_F(MetricsParser, TheSuffixIsComparedOnlyWhenTheSectionEndsAtThePayloadEnd) {
  ByteVec with_room = MetricsPayload().label_values({"a"}).suffix("xxxx").metric_names({}).bytes();
  EXPECT_EQ(parsed(with_room).label_values, Strings{"a"}) << "a wrong suffix with bytes after it";

  std::vector<std::string> out;
  ByteVec exact = Bytes().text("LBLV").u16(1).u8(1).text("a").text("xxxx").vec();
  EXPECT_EQ(NmbMetricsParser::parse_section(exact, 0, "LBLV", "lblv", out), exact.size())
      << "room for a suffix: not compared";
  ByteVec short_suffix = Bytes().text("LBLV").u16(1).u8(1).text("a").text("lbl").vec();
  start();
  EXPECT_THROW(NmbMetricsParser::parse_section(short_suffix, 0, "LBLV", "lblv", out),
               std::runtime_error);
  EXPECT_EQ(logged(),
            "[error] [nmb metrics parser] Invalid binary data format: Missing 'lblv' suffix\n");
}

TEST_F(MetricsParser, LabelNameSectionsUpdateTheMapInPlace) {
  nmb::metrics::LabelNames names;
  ByteVec two = MetricsPayload().label_names({"a", "b"}).label_names({"c"}).bytes();
  ByteVec one = MetricsPayload().label_names({"x"}).bytes();
  EXPECT_EQ(NmbMetricsParser::parse_label_names(two, names), 32u)
      << "past the trailer bytes of the second section";
  EXPECT_EQ(names, (nmb::metrics::LabelNames{{0, Strings{"a", "b"}}, {1, Strings{"c"}}}));
  EXPECT_EQ(NmbMetricsParser::parse_label_names(one, names), 19u);
  EXPECT_EQ(names, (nmb::metrics::LabelNames{{0, Strings{"x"}}})) << "key 1 erased";
  EXPECT_EQ(NmbMetricsParser::parse_label_names(MetricsPayload().bytes(), names), 4u);
  EXPECT_TRUE(names.empty());
}

TEST_F(MetricsParser, SectionsAreFoundBySearchFromWhereTheLastOneEnded) {
  // Common labels before the label values, unknown bytes between sections.
  ByteVec block = MetricsPayload()
                      .common_labels({{"k", "v"}})
                      .raw(Bytes().text("junk").vec())
                      .label_values({"a"})
                      .metric_names({"m"})
                      .bytes();
  MetricsTables t = parsed(block);
  EXPECT_EQ(t.common_labels.at("k"), "v");
  EXPECT_EQ(t.label_values, Strings{"a"});
  EXPECT_EQ(t.metric_names, Strings{"m"});
  // A name without its value is left out.
  EXPECT_TRUE(parsed(minimal().common_labels({{"k", "v"}}).count(1).bytes()).common_labels.empty());
  // Without label values the search for the next sections starts at the end.
  EXPECT_EQ(failure(MetricsPayload().metric_names({"m"}).batch(Batch(1)).bytes()),
            "Missing 'CNTD' magic number in the binary data");
}

TEST_F(MetricsParser, BatchesStepByTheirLabelsBlockWithinBlocksize) {
  // The length fields are wrong and blocksize is larger than either batch.
  ByteVec block = minimal()
                      .blocksize(200)
                      .batch(Batch(1).sample(3, 4).length(0).labels(LabelsBlock('I').text("abc")))
                      .batch(Batch(2).length(999))
                      .bytes();
  MetricsTables t = parsed(block);
  ASSERT_EQ(t.batches.size(), 2u);
  EXPECT_EQ(t.batches[0].labels[0].label_value, "abc");
  EXPECT_EQ(t.batches[1].timestamp, 2u);

  EXPECT_TRUE(parsed(minimal().bytes()).batches.empty()) << "blocksize only";
  // blocksize cuts a batch whose labels block runs past it.
  EXPECT_EQ(
      failure(
          minimal().blocksize(20).batch(Batch(1).labels(LabelsBlock('I').text("abcdef"))).bytes()),
      "insufficient data for 'I' encoding string");
}

TEST_F(MetricsParser, TheDataSectionChecksTypeAndTrailer) {
  EXPECT_EQ(parsed(minimal().batch(Batch(1, 'G')).trailer("cntdXXXX").bytes()).batches.size(), 1u)
      << "'G' is accepted and \"cntx\" is not compared";
  start();
  EXPECT_EQ(failure(minimal().batch(Batch(1, 'H')).bytes()), "invalid metric type");
  EXPECT_EQ(failure(minimal().batch(Batch(1, 'U')).bytes()), "invalid metric type");
  EXPECT_EQ(failure(minimal().batch(Batch(1)).trailer("XXXXcntx").bytes()),
            "Invalid magic numbers in the binary data");
  EXPECT_EQ(failure(minimal().no_data_section().trailer("").bytes()),
            "Missing 'CNTD' magic number in the binary data");
  EXPECT_EQ(
      logged(),
      "[error] [nmb metrics parser] invalid metric type\n"
      "[error] [nmb metrics parser] invalid metric type\n"
      "[error] [nmb metrics parser] Invalid binary data format: Missing 'CNTD' magic number\n");
}

TEST_F(MetricsParser, ReadsThatRunPastThePayloadFail) {
  EXPECT_EQ(failure(MetricsPayload().label_values({"a"}).last_string_length(200).bytes()),
            "'LBLV' string runs past the end of the payload");
  EXPECT_EQ(failure(MetricsPayload().label_values({}).metric_names({"a"}).count(60000).bytes()),
            "'CNTI' section runs past the end of the payload");
  EXPECT_EQ(failure(MetricsPayload().label_names({"a"}).last_string_length(90).bytes()),
            "'LBLN' string runs past the end of the payload");
  EXPECT_EQ(failure(minimal().batch(Batch(1).sample(0, 1).num_samples(50)).bytes()),
            "metrics batch samples runs past the end of the payload");
  // A header cut by the payload end (only the trailer follows the first bytes).
  ByteVec header_cut =
      minimal().raw(Bytes().text("CNTD").u32(30).u8(0).vec()).no_data_section().bytes();
  EXPECT_EQ(failure(header_cut), "metrics batch header runs past the end of the payload");
}

TEST_F(MetricsParser, TheBatchHeaderIsAPropertyBagOfExactTypes) {
  ByteVec bytes = Batch(77, 'G').sample(1, 2).bytes();
  nmb::metrics::PropertyBag bag = NmbMetricsParser::decode_batch_header(nmb::ByteView(bytes));
  EXPECT_EQ(nmb::metrics::bag_value<uint16_t>(bag, "length"), bytes.size());
  EXPECT_EQ(nmb::metrics::bag_value<uint64_t>(bag, "timestamp"), 77u);
  EXPECT_EQ(nmb::metrics::bag_value<uint64_t>(bag, "num_samples"), 1u);
  EXPECT_EQ(nmb::metrics::bag_value<std::string>(bag, "type"), "G");
  EXPECT_EQ(nmb::metrics::bag_value<nmb::metrics::MetricsBatch>(bag, "metrics").samples.size(), 1u);
  try {
    nmb::metrics::bag_value<uint16_t>(bag, "num_samples");
    ADD_FAILURE() << "num_samples is stored widened";
  } catch (const boost::bad_any_cast& e) {
    EXPECT_STREQ(e.what(), "boost::bad_any_cast: failed conversion using boost::any_cast");
  }
}

TEST_F(MetricsParser, DebugDumpsEveryTable) {
  ByteVec block = MetricsPayload()
                      .label_names({"host", "dev"})
                      .label_values({"node1"})
                      .metric_names({"rx"})
                      .batch(Batch(1000).sample(0, 5).labels(LabelsBlock('M').id(0).text("x")))
                      .bytes();
  nmb_init_stderr_logger(NMB_LOG_DEBUG);
  MetricsTables t;
  start();
  NmbMetricsParser::parse_names_and_batches(block, t.label_names, t.label_values, t.metric_names,
                                            t.batches);
  std::string log = logged();
  for (const char* line :
       {"[debug] [nmb metrics parser] total_size: 103\n"
        "[debug] [nmb metrics parser] Label Names [0] host, dev\n"
        "[debug] [nmb metrics parser] Label values count: 1\n"
        "[debug] [nmb metrics parser] Values: 'node1', Size: 5\n"
        "[debug] [nmb metrics parser] Metric names count: 1\n"
        "[debug] [nmb metrics parser] Values: 'rx', Size: 2\n"
        "[debug] [nmb metrics parser] data_len = 48\n"
        "[debug] [nmb metrics parser] End of data at 36\n"
        "[debug] [nmb metrics parser] blocksize= 32\n"
        "[debug] [nmb metrics parser] offset=4 end=36\n",
        "[debug] [nmb metrics parser] Metrics Batch:\n"
        "[debug] [nmb metrics parser] Timestamp: 1000\n"
        "[debug] [nmb metrics parser]   sample_id: 0, sample_value: 5\n"
        "[debug] [nmb metrics parser] encoded label: label_value_id: 0, decoded label[0]: node1\n"
        "[debug] [nmb metrics parser] encoded label: label_value: 0, decoded label[1]: x\n"}) {
    EXPECT_NE(log.find(line), std::string::npos) << line << "\nin:\n" << log;
  }
}

}  // namespace
