// Counters blocks as OpenMetrics samples: each loaded counters schema (with
// its metadata under -M) is compiled once into one series per counter, its
// family declared and its labels written out, so a block is one pass that
// appends a line per counter.
//
// A counter whose value ndjson shows as a number is a sample of a gauge
// family (a counter family when its counting type is RUNNING_SUM); one whose
// value ndjson shows as a string (STRING, hex and GUID renderings, the
// string formats, 128-bit values) is an info family whose "value" label
// holds that text.
// Stage: plan.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "counters/counter_value.h"
#include "counters/counters_schema.h"
#include "data/bytes.h"
#include "export/openmetrics_families.h"

struct nmb_metadata_t;

namespace nmb::openmetrics {

struct CounterSeries {
  enum class Value : uint8_t { kUnsigned, kSigned, kDouble, kText };
  Family* family = nullptr;
  std::string labels;    // after the source labels: ",granularity=..." ...
  bool writable = true;  // false: a label value is not valid UTF-8
  Value value = Value::kUnsigned;
  nmb_counter_render_t render;  // its kind with the GUID switch applied
  std::string help;             // the counter's description (help_text)
  // With the source labels of `CountersLayout::source`: the text before the
  // value ("<sample name>{<labels>} "; a text counter's ends at its labels).
  std::string prefix;
};

struct CountersLayout {
  std::vector<CounterSeries> series;  // in counter order
  std::string source;                 // the source labels the prefixes are made with
  bool bound = false;
  // The most text a block's lines take (with the source bound), and whether
  // the families have been announced (before the first block).
  size_t room = 0;
  bool announced = false;
};

// The series of every counter of `schema`. With `metadata`, a counter named
// by an entry is shown under the rest of its name, with the entry's indexes
// and labels as labels.
CountersLayout compile_counters_layout(const nmb_counters_schema_t& schema,
                                       const nmb_metadata_t* metadata, Families& families,
                                       bool guid_switch);

// Counts what a file could not write.
struct SampleTally {
  uint64_t unwritable = 0;  // samples whose labels cannot be written
  const Family* first_unwritable = nullptr;
};

// Texts reused from sample to sample.
struct Scratch {
  std::string format;  // a formatted value
  std::string label;   // a label made from a value
};

// Appends one line per counter of the block's values area at `timestamp`.
// `source_labels` are the file's labels (",source_id=...").
void write_counters_block(std::string& out, CountersLayout& layout, ByteView values,
                          uint64_t timestamp, const std::string& source_labels, Scratch& scratch,
                          SampleTally& tally);

// Appends "<sample name>{<labels>} " for a series, the labels being the two
// pieces given (the first ',' becomes '{'; no braces when there are none).
void append_series(std::string& out, const Family& family, std::string_view source_labels,
                   std::string_view labels);

}  // namespace nmb::openmetrics
