// One event record as a JSON object: the record's members through its plan,
// then "header_timestamp" and "@header_timestamp".
// Stage: writer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "data/bytes.h"

struct nmb_event_plan_t;
class nmb_event_json_layouts_t;  // export/event_json_layout.h

// A block's header timestamp and its formatted text (shared by its records).
struct nmb_header_timestamp_t {
  uint64_t value = 0;
  char formatted[64];
  size_t formatted_length = 0;  // 0: formatting failed, the member is left out
};

// Appends one record as a JSON object, compact or pretty (at depth 0), with
// the layouts compiled from the plan's set; false, with nothing appended,
// when a value cannot be a JSON value.
bool nmb_event_record_to_json(std::string& out, const nmb_event_plan_t& plan,
                              const nmb_event_json_layouts_t& layouts, nmb::ByteView record,
                              const nmb_header_timestamp_t& ts, bool pretty);
