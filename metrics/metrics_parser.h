// Metrics blocks: a dictionary-compressed set of metric samples.
//
// Payload layout (little-endian, no padding, strings are a length byte and
// that many bytes):
//   "CNTX", total_size (u32, the whole payload from "CNTX" to the trailer)
//   "LBLN" sections, one per label set: a u8 count, the label names, four
//          unread trailer bytes
//   "LBLV" label values, "CNTI" metric names and "CLBL" common labels (name,
//          value, name, ...): a u16 count, the strings, a lower-case suffix
//   "CNTD", blocksize (u32, the bound of every batch), the metrics batches
//   "cntd" "cntx"
// Metrics batch: length (u16, not used for stepping), timestamp (u64), type
// ('C' or 'G'), a reserved byte, num_samples (u16), num_samples samples
// (u16 sample id, u64 value), then the labels block (metrics/labels_block.h).
//
// Sections are found by searching for their tags, never by walking lengths.
// Every read stays inside the payload: strings, samples and labels that run
// past its end fail the block.
// Stage: model.
#pragma once

#include <boost/any.hpp>

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "data/bytes.h"
#include "metrics/labels_block.h"

namespace nmb::metrics {

// One sample as the payload stores it: 10 bytes, no padding, so a batch's
// samples are copied in one piece.
struct __attribute__((packed)) Sample {
  uint16_t sample_id = 0;
  uint64_t sample_value = 0;
};
static_assert(sizeof(Sample) == 10);

// The "metrics" entry of a decoded batch header.
class MetricsBatch {
 public:
  std::vector<Sample> samples;
  uint32_t word = 0;  // reserved; the reader leaves it zero
};

struct BatchRecord {
  uint64_t timestamp = 0;
  std::vector<Sample> samples;
  uint32_t word = 0;
  std::vector<LabelEntry> labels;
  uint64_t label_set_id = 0;  // selects the label names that go with `labels`
  char type = 'G';            // 'C' (counter) or 'G' (gauge)
};

// Label set index (the ordinal of its "LBLN" section) to its label names.
using LabelNames = std::map<uint64_t, std::vector<std::string>>;
using CommonLabels = std::unordered_map<std::string, std::string>;
// A decoded batch header: "length" (u16), "timestamp" (u64), "num_samples"
// (u64), "metrics" (MetricsBatch), "type" (std::string of one character).
using PropertyBag = std::map<std::string, boost::any>;
// The value of `key` as a T (boost::bad_any_cast when it holds another type,
// std::out_of_range when it is missing).
template <typename T>
T& bag_value(PropertyBag& bag, const std::string& key) {
  return boost::any_cast<T&>(bag.at(key));
}

// Everything one payload holds, owned by the export of one block.
struct MetricsTables {
  LabelNames label_names;
  std::vector<std::string> label_values;  // index = label value id
  std::vector<std::string> metric_names;  // index = sample id
  std::vector<BatchRecord> batches;
  CommonLabels common_labels;
};

// The parser keeps no state: every function reads the payload it is given.
// Offsets count from the payload start; the payload ends total_size bytes
// after it. Structural errors are logged and thrown as std::runtime_error;
// an exact-type extraction from a property bag can throw boost::bad_any_cast.
class NmbMetricsParser {
 public:
  // The u32 after the first "CNTX" in `bytes`, or 0 when there is none.
  static uint64_t find_total_size(std::span<const uint8_t> bytes);
  // Label names, label values, metric names and batches, in that order.
  static void parse_names_and_batches(std::span<const uint8_t> payload, LabelNames& label_names,
                                      std::vector<std::string>& label_values,
                                      std::vector<std::string>& metric_names,
                                      std::vector<BatchRecord>& batches);
  // Every "LBLN" section into `label_names`, updated in place (keys past the
  // last section are erased); returns the offset past the last section, or 4
  // when there is none.
  static size_t parse_label_names(std::span<const uint8_t> payload, LabelNames& label_names);
  // A counted-string list found from `from`; returns the offset past its
  // suffix, or the payload size (with `out` cleared) when the tag is absent.
  static size_t parse_section(std::span<const uint8_t> payload, size_t from, const char* upper_tag,
                              const char* lower_tag, std::vector<std::string>& out);
  // The data section found from `from`.
  static std::vector<BatchRecord> parse_metrics(std::span<const uint8_t> payload, size_t from);
  // The "CLBL" pairs, searched from the payload start.
  static CommonLabels parse_common_labels(std::span<const uint8_t> payload);
  // The 14-byte header and the samples of the batch at the start of `batch`;
  // they may run past the batch span but not past the payload (the view's
  // readable bytes).
  static PropertyBag decode_batch_header(const ByteView& batch);
};

// Parses one metrics block: finds total_size, then runs the main parse and
// the common labels parse over the payload it bounds. False with the error's
// message in `error` when the block is malformed (including a total_size
// larger than the block).
bool parse_metrics_payload(std::span<const uint8_t> block, MetricsTables& tables,
                           std::string& error);

}  // namespace nmb::metrics
