// Metrics blocks as JSON: one object per block, written through the
// streaming writer (pretty or compact as the writer is set up).
//
// The object shows the block's last batch: its members are set batch by batch
// ("timestamp", "@timestamp", "labels", "metrics"), a later batch replacing
// the values while each member keeps the position where it was first set.
// "labels" is left out for a batch whose label set has no names section, and
// "@timestamp" when the timestamp cannot be formatted. A block without
// batches is {}.
// Stage: writer.
#pragma once

#include <string>
#include <unordered_map>

#include "data/bytes.h"
#include "metrics/metrics_parser.h"
#include "utils/json_writer.h"

// [{"name": "value"}, ...] in the map's iteration order. False when a value is
// not valid UTF-8 (the array is then left unfinished).
bool nmb_labels_to_json_array(nmb::JsonWriter& writer,
                              const std::unordered_map<std::string, std::string>& labels);

// Writes the block's object. Every batch is resolved and checked before the
// first byte is written, so neither failure writes anything:
//  - throws std::runtime_error when a batch's labels cannot be resolved
//    (decode_label_values), a batch has more label values than its label set
//    has names, or a sample id has no metric name: structural errors of the
//    block, to be reported like those of the parse;
//  - returns false when a value cannot be a JSON value: a label value that
//    is not valid UTF-8, in any batch (a replaced batch fails the block too).
bool nmb_metrics_to_json(nmb::JsonWriter& writer, const nmb::metrics::MetricsTables& tables,
                         bool microsecond_precision);
