// One event record as a JSON object: the record's members through its plan,
// then "header_timestamp" and "@header_timestamp".
#pragma once

#include <cstddef>
#include <cstdint>

#include "data/bytes.h"
#include "utils/json_writer.h"

struct nmb_event_plan_t;

// A block's header timestamp and its formatted text (shared by its records).
struct nmb_header_timestamp_t {
  uint64_t value = 0;
  char formatted[64];
  size_t formatted_length = 0;  // 0: formatting failed, the member is left out
};

// Writes the members of one record (the writer has the object open); false
// when a value cannot be a JSON value.
bool nmb_event_record_to_json(nmb::JsonWriter& w, const nmb_event_plan_t& plan,
                              nmb::ByteView record, const nmb_header_timestamp_t& ts);
