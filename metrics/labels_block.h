// The labels block that closes every metrics batch: a label set id, a count
// and an encoding, then the label values as ids into the payload's label
// values list ('L'), as inline texts ('I'), or as a mix of both ('M').
//
// Labels block layout (offsets from its start inside the batch):
//   0  label_set_id (u8): the label names section whose names apply
//   1  encoded_label_value_count (u8)
//   2  encoding_type: 'L', 'I' or 'M'
//   3  the values: 'L' one id byte each; 'I' a length byte and the text;
//      'M' a sub-type byte 'L' or 'I', then the id or the length and text
// There is no trailer: the batch ends where the last value ends.
// Stage: model.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace nmb::metrics {

enum class LabelKind : uint8_t {
  kLabelValueId = 0,  // an index into the label values list
  kLabelValue = 1,    // a literal text
};

struct LabelEntry {
  LabelKind kind = LabelKind::kLabelValueId;
  uint64_t label_value_id = 0;  // kind kLabelValueId only
  std::string label_value;      // kind kLabelValue only
};

// "label_value_id", "label_value", or "std:unknown" for any other kind.
const char* label_kind_name(LabelKind kind);

// Decodes the labels block at `start_offset` of `batch` into `entries`
// (cleared first) and its label set id; returns the offset just past the last
// value, which is the batch's length. `caller` names the calling function in
// the debug header line. Throws std::runtime_error on a malformed block; every
// read stays inside `batch`.
uint64_t parse_labels_block(std::span<const uint8_t> batch, uint64_t start_offset,
                            uint64_t& label_set_id, std::vector<LabelEntry>& entries,
                            const char* caller);

// The text of one entry: the referenced label value (which must exist and not
// be empty) or the inline text. Throws std::runtime_error otherwise.
std::string decode_label_value(const LabelEntry& entry,
                               const std::vector<std::string>& label_values);

// The texts of all entries in order. A failure names the entry's index:
// "Failed to decode label value at index <i>: <reason>".
std::vector<std::string> decode_label_values(const std::vector<LabelEntry>& entries,
                                             const std::vector<std::string>& label_values);

}  // namespace nmb::metrics
