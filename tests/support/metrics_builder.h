// Metrics block builder: composes metrics payloads ("CNTX" ... "cntx") from a
// readable description, so that a test spells out a malformed block in a few
// lines.
//
//   MetricsPayload()
//       .label_names({"host", "dev"})          // label set 0
//       .label_values({"node1", "mlx5_0"})
//       .metric_names({"rx", "tx"})
//       .common_labels({{"site", "lab"}})
//       .batch(Batch(1000).sample(0, 5).sample(1, 7)
//                  .labels(LabelsBlock('L', 0).id(0).id(1)))
//       .bytes();
//
// Sections are written in the order they are added, then the data section
// ("CNTD", blocksize, batches) and the trailer "cntd" "cntx". The payload can
// be placed as a block in a data file chunk (its fourth byte makes it a
// metrics block).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/support/data_builder.h"

namespace nmb::test {

// The labels block that ends a batch: label set id, value count, encoding
// ('L' ids, 'I' inline texts, 'M' mixed), then the values.
class LabelsBlock {
 public:
  explicit LabelsBlock(char encoding = 'L', uint8_t label_set = 0)
      : encoding_(static_cast<uint8_t>(encoding)), label_set_(label_set) {}

  // A value by id: the id byte ('M': "L" and the id).
  LabelsBlock& id(uint8_t value_id);
  // An inline value: its length byte and text ('M': "I", length, text).
  LabelsBlock& text(std::string_view value);

  // Corruptions.
  LabelsBlock& count(uint8_t stored);      // stored instead of the number of values
  LabelsBlock& raw(const ByteVec& bytes);  // appended to the values as they are
  LabelsBlock& cut(size_t size);           // only the first `size` bytes

  ByteVec bytes() const;

 private:
  uint8_t encoding_;
  uint8_t label_set_;
  uint8_t values_ = 0;
  ByteVec body_;
  std::optional<uint8_t> count_;
  std::optional<size_t> cut_;
};

// One metrics batch: header, samples, labels block.
class Batch {
 public:
  explicit Batch(uint64_t timestamp, char type = 'C')
      : timestamp_(timestamp), type_(static_cast<uint8_t>(type)) {}

  Batch& sample(uint16_t id, uint64_t value);
  Batch& labels(LabelsBlock block);

  // Corruptions.
  Batch& num_samples(uint16_t stored);  // stored instead of the number of samples
  Batch& length(uint16_t stored);       // the length field (default: the batch's size)

  ByteVec bytes() const;

 private:
  uint64_t timestamp_;
  uint8_t type_;
  std::vector<std::pair<uint16_t, uint64_t>> samples_;
  LabelsBlock labels_;
  std::optional<uint16_t> num_samples_;
  std::optional<uint16_t> length_;
};

class MetricsPayload {
 public:
  // One "LBLN" section: the names of the next label set (0, 1, ...).
  MetricsPayload& label_names(const std::vector<std::string>& names);
  MetricsPayload& label_values(const std::vector<std::string>& values);  // "LBLV"
  MetricsPayload& metric_names(const std::vector<std::string>& names);   // "CNTI"
  MetricsPayload& common_labels(const std::vector<std::pair<std::string, std::string>>& pairs);
  // Bytes placed between sections as they are.
  MetricsPayload& raw(const ByteVec& bytes);

  MetricsPayload& blocksize(uint32_t size);  // default: the size of the largest batch
  MetricsPayload& batch(const Batch& batch);

  // Corruptions of the section added last.
  MetricsPayload& suffix(std::string_view four);       // its suffix (or "LBLN" trailer bytes)
  MetricsPayload& count(uint16_t stored);              // its count (a byte for "LBLN")
  MetricsPayload& last_string_length(uint8_t stored);  // the length byte of its last string
  // Corruptions of the whole payload.
  MetricsPayload& total_size(uint32_t size);        // default: the payload's length
  MetricsPayload& trailer(std::string_view eight);  // instead of "cntdcntx"
  MetricsPayload& no_data_section();                // no "CNTD" section at all
  MetricsPayload& cut(size_t size);                 // only the first `size` bytes

  ByteVec bytes() const;

 private:
  struct Section {
    ByteVec bytes;
    size_t count_size = 0;   // 1 for "LBLN", 2 for the counted-string lists, 0 for raw bytes
    size_t last_string = 0;  // offset of the last string's length byte (0: none)
  };
  MetricsPayload& add(std::string_view tag, size_t count_size,
                      const std::vector<std::string>& strings, std::string_view suffix);

  std::vector<Section> sections_;
  std::vector<Batch> batches_;
  std::optional<uint32_t> blocksize_;
  std::optional<uint32_t> total_size_;
  std::string trailer_ = "cntdcntx";
  bool data_section_ = true;
  std::optional<size_t> cut_;
};

}  // namespace nmb::test
