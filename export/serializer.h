// A serializer turns one event record into one line of text in a line-based
// output format, through the record type's export plan.
#pragma once

#include <cstdint>
#include <string>

#include "data/bytes.h"

struct nmb_event_plan_t;

namespace nmb::data {

class Serializer {
 public:
  virtual ~Serializer() = default;

  // Appends the record's line and its newline to `out`. False, with nothing
  // appended, when the record leaves nothing to write.
  virtual bool serialize(const nmb_event_plan_t& plan, ByteView record, uint64_t header_timestamp,
                         std::string& out) = 0;
};

}  // namespace nmb::data
