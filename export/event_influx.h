// One event record as an Influx line: the type name as measurement, every
// numeric value as a field (integers with the "i" suffix, unsigned values
// above the signed range with "u"), char arrays and GUID hex values as string
// fields, nested values and array elements under dotted and indexed keys
// ("port.rx", "lanes_2"), and the header timestamp in nanoseconds. Floats
// that are not finite are left out, since the protocol cannot carry them.
#pragma once

#include <cstdint>
#include <string>

#include "data/bytes.h"

struct nmb_event_plan_t;

// Appends the line and its newline to `out`; false (nothing appended) when
// the record has no field to write. `scratch` holds key prefixes.
bool nmb_event_record_to_influx(std::string& out, const nmb_event_plan_t& plan,
                                nmb::ByteView record, uint64_t header_timestamp,
                                std::string& scratch);
