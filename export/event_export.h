// Events blocks: the header (printed under -p), the record type and its plan,
// and each record of a selected type handed to the sink's format.
#pragma once

#include <cstddef>

#include "data/bytes.h"
#include "export/event_json.h"

struct nmb_event_plan_t;
class nmb_event_plans_t;
struct nmb_type_system_t;

namespace nmb {
class RecordOutput;
}

// What an output format writes for one record of a selected type (`record`
// runs to the end of its block).
class nmb_event_writer_t {
 public:
  virtual ~nmb_event_writer_t() = default;
  virtual bool write_event(const nmb_event_plan_t& plan, nmb::ByteView record,
                           const nmb_header_timestamp_t& ts) = 0;
};

// Returns the bytes consumed, 0 on failure.
size_t nmb_export_events_block(nmb::RecordOutput& out, const nmb_type_system_t* ts,
                               const nmb_event_plans_t& plans, nmb::ByteView area,
                               nmb_event_writer_t& writer);
