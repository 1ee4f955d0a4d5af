// Event records as OpenMetrics samples: each record type is compiled, on its
// first record, into the labels its records carry and one series per numeric
// value, so a record is one pass that appends a line per value.
//
// Labels: the type's key fields and char arrays (the tags of the Influx
// output, by the same rule), every GUID and hex value, and the char arrays
// of nested values, under the path of the value ("outer_inner"). Values:
// every other number, nested members and array elements under stable names
// ("<type>_<outer>_<inner>_<index>"); a field of type timestamp at the top
// level gives the record's time.
// Stage: plan.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "data/bytes.h"
#include "export/event_plan.h"
#include "export/openmetrics_counters.h"
#include "export/openmetrics_families.h"
#include "utils/record_seq.h"

namespace nmb::openmetrics {

struct EventLayout {
  struct Label {
    std::string key;  // ",<name>=\""
    uint64_t offset = 0;
    uint32_t count = 0;  // chars: the array's length
    enum class How : uint8_t { kChars, kHex, kNumber } how = How::kChars;
    nmb_value_kind_t kind = nmb_value_kind_t::kU64;
  };
  struct Value {
    Family* family = nullptr;
    std::string help;  // the field's description (help_text)
    uint64_t offset = 0;
    nmb_value_kind_t kind = nmb_value_kind_t::kU64;
  };
  std::vector<Label> labels;
  std::vector<Value> values;
  int64_t time_offset = -1;  // a top-level timestamp field; -1: the block's time
  RecordSeq seq;             // records with one time and one label set
  // Set with the first record: the families announced, and the bytes of
  // the values' sample names.
  bool announced = false;
  size_t names_room = 0;
};

// The layout of records of `plan` (a plan that is not refused).
EventLayout compile_event_layout(const nmb_event_plan_t& plan, Families& families,
                                 bool guid_switch);

// The record's time: its timestamp field, or the block's.
uint64_t event_time(const EventLayout& layout, ByteView record, uint64_t block_time);

// Appends one line per value of the record at `time`; the labels text is
// built in `scratch`. A record with a label value that is not valid UTF-8
// writes nothing and counts all its values as unwritable.
void write_event_record(std::string& out, EventLayout& layout, ByteView record, uint64_t time,
                        const std::string& source_labels, Scratch& scratch, SampleTally& tally);

}  // namespace nmb::openmetrics
