#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "metrics/labels_block.h"
#include "tests/support/log_capture.h"
#include "tests/support/metrics_builder.h"
#include "utils/log.h"

namespace {

using nmb::metrics::LabelEntry;
using nmb::metrics::LabelKind;
using nmb::test::ByteVec;
using nmb::test::LabelsBlock;

// A batch whose labels block starts at `start`, after `start` filler bytes.
ByteVec batch_with(const LabelsBlock& block, size_t start = 14) {
  ByteVec batch(start, 0xEE);
  ByteVec labels = block.bytes();
  batch.insert(batch.end(), labels.begin(), labels.end());
  return batch;
}

class LabelsBlockTest : public nmb::test::LoggedTest {
 protected:
  // The exception message of a failed decode; empty when it succeeds.
  static std::string failure(const ByteVec& batch, uint64_t start) {
    uint64_t set = 0;
    std::vector<LabelEntry> entries;
    try {
      nmb::metrics::parse_labels_block(batch, start, set, entries, "test");
    } catch (const std::runtime_error& e) {
      return e.what();
    }
    return "";
  }
};

TEST_F(LabelsBlockTest, EachEncodingDecodesAndReturnsTheBatchLength) {
  uint64_t set = 99;
  std::vector<LabelEntry> entries(4);
  EXPECT_EQ(
      nmb::metrics::parse_labels_block(batch_with(LabelsBlock('L', 2)), 14, set, entries, "t"),
      17u);
  EXPECT_EQ(set, 2u);
  EXPECT_TRUE(entries.empty()) << "the entries are cleared";

  ByteVec ids = batch_with(LabelsBlock('L', 1).id(7).id(0), 20);
  EXPECT_EQ(nmb::metrics::parse_labels_block(ids, 20, set, entries, "t"), 25u);
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].kind, LabelKind::kLabelValueId);
  EXPECT_EQ(entries[0].label_value_id, 7u);
  EXPECT_EQ(entries[1].label_value_id, 0u);

  ByteVec inline_texts = batch_with(LabelsBlock('I').text("node1").text(""));
  EXPECT_EQ(nmb::metrics::parse_labels_block(inline_texts, 14, set, entries, "t"), 14u + 3 + 6 + 1);
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].kind, LabelKind::kLabelValue);
  EXPECT_EQ(entries[0].label_value, "node1");
  EXPECT_EQ(entries[1].label_value, "");

  // 'L' 5 'I' 2 "ab", with trailing bytes that are not part of the block.
  ByteVec mixed = batch_with(LabelsBlock('M').id(5).text("ab"));
  mixed.push_back(0xFF);
  nmb_init_stderr_logger(NMB_LOG_DEBUG);
  start();
  EXPECT_EQ(nmb::metrics::parse_labels_block(mixed, 14, set, entries, "caller_name"), 14u + 3 + 6);
  EXPECT_EQ(logged(),
            "[debug] [nmb labels block] parse_labels_block: header - label_set_id=0, "
            "encoded_label_value_count=2, encoding_type=M, called by caller_name\n"
            "[debug] [nmb labels block] parsed M/L label value id [0]: 5\n"
            "[debug] [nmb labels block] parsed M/I label value [1]: 'ab'\n"
            "[debug] [nmb labels block] after decoding M: 23\n");
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].kind, LabelKind::kLabelValueId);
  EXPECT_EQ(entries[0].label_value_id, 5u);
  EXPECT_EQ(entries[1].kind, LabelKind::kLabelValue);
  EXPECT_EQ(entries[1].label_value, "ab");
}

TEST_F(LabelsBlockTest, MalformedBlocksFailInsideTheBatch) {
  struct Case {
    ByteVec batch;
    uint64_t start;
    const char* message;
    const char* log;  // after "[error] [nmb labels block] parse_labels_block: "
  };
  const Case cases[] = {
      {{}, 0, "invalid data pointers in parse_labels_block", "invalid data pointers"},
      {ByteVec(14, 0), 14, "start_offset exceeds data size",
       "start_offset (14) exceeds data size (14)"},
      {ByteVec{0, 0, 0, 1, 0}, 3, "insufficient data for header", "insufficient data for header"},
      {batch_with(LabelsBlock('X')), 14, "invalid encoding type", "invalid encoding type 'X'"},
      {batch_with(LabelsBlock('L').id(1).id(2).count(3)), 14, "insufficient data for 'L' encoding",
       "insufficient data for 'L' encoding"},
      {batch_with(LabelsBlock('I').text("a").count(2)), 14,
       "insufficient data for 'I' encoding length", "insufficient data for 'I' encoding length"},
      {batch_with(LabelsBlock('I').text("abc").cut(5)), 14,
       "insufficient data for 'I' encoding string", "insufficient data for 'I' encoding string"},
      {batch_with(LabelsBlock('M').id(1).count(2)), 14,
       "insufficient data for 'M' encoding sub-type",
       "insufficient data for 'M' encoding sub-type"},
      {batch_with(LabelsBlock('M').raw({'X', 1}).count(1)), 14, "invalid sub-encoding type",
       "invalid sub-encoding type 'X'"},
      {batch_with(LabelsBlock('M').text("abc").cut(4)), 14,
       "insufficient data for 'M/I' encoding length",
       "insufficient data for 'M/I' encoding length"},
      {batch_with(LabelsBlock('M').text("abc").cut(7)), 14,
       "insufficient data for 'M/I' encoding string",
       "insufficient data for 'M/I' encoding string"},
      {batch_with(LabelsBlock('M').id(9).cut(4)), 14, "insufficient data for 'M/L' encoding id",
       "insufficient data for 'M/L' encoding id"},
  };
  for (const Case& c : cases) {
    start();
    EXPECT_EQ(failure(c.batch, c.start), c.message);
    EXPECT_EQ(logged(),
              std::string("[error] [nmb labels block] parse_labels_block: ") + c.log + "\n")
        << c.message;
  }
}

TEST_F(LabelsBlockTest, ValuesResolveThroughTheLabelValuesList) {
  const std::vector<std::string> values = {"node1", ""};
  EXPECT_EQ(nmb::metrics::decode_label_value({LabelKind::kLabelValueId, 0, {}}, values), "node1");
  EXPECT_EQ(nmb::metrics::decode_label_value({LabelKind::kLabelValue, 0, ""}, values), "")
      << "an inline empty text is accepted";

  struct Case {
    LabelEntry entry;
    std::vector<std::string> values;
    const char* message;
    const char* log;  // after "[error] [nmb labels block] decode_label_value: "
  };
  const Case cases[] = {
      {{LabelKind::kLabelValueId, 0, {}},
       {},
       "empty label_values array",
       "empty label_values array"},
      {{LabelKind::kLabelValueId, 2, {}},
       values,
       "invalid label id",
       "invalid label id: 2 (max=2)"},
      {{LabelKind::kLabelValueId, 1, {}},
       values,
       "invalid label value",
       "empty string at label_values[1]"},
      {{static_cast<LabelKind>(7), 0, {}},
       values,
       "unknown label key type",
       "unknown label key type: 'unknown'"},
  };
  for (const Case& c : cases) {
    start();
    try {
      nmb::metrics::decode_label_value(c.entry, c.values);
      ADD_FAILURE() << c.message;
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(std::string(e.what()), c.message);
    }
    EXPECT_EQ(logged(),
              std::string("[error] [nmb labels block] decode_label_value: ") + c.log + "\n");
  }
  EXPECT_EQ(nmb::metrics::label_kind_name(static_cast<LabelKind>(7)), std::string("std:unknown"));
}

TEST_F(LabelsBlockTest, AFailedValueNamesItsIndex) {
  const std::vector<LabelEntry> entries = {{LabelKind::kLabelValue, 0, "a"},
                                           {LabelKind::kLabelValueId, 1, {}},
                                           {LabelKind::kLabelValueId, 2, {}}};
  const std::vector<std::string> values = {"x", "y"};
  EXPECT_EQ(nmb::metrics::decode_label_values({entries.begin(), entries.begin() + 2}, values),
            (std::vector<std::string>{"a", "y"}));
  start();
  try {
    nmb::metrics::decode_label_values(entries, values);
    ADD_FAILURE() << "the third entry has no value";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), "Failed to decode label value at index 2: invalid label id");
  }
  EXPECT_EQ(logged(),
            "[error] [nmb labels block] decode_label_value: invalid label id: 2 (max=2)\n"
            "[error] [nmb labels block] decode_label_values: failed to decode label 2: invalid "
            "label id\n");
}

}  // namespace
