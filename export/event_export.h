// Events blocks: the header (printed under -p), the record type and its plan,
// and each record of a selected type handed to the sink's format.
#pragma once

#include <cstddef>

#include "data/bytes.h"

namespace nmb {
class RecordSink;
}

// Returns the bytes consumed, 0 on failure.
size_t nmb_export_events_block(nmb::RecordSink& sink, nmb::ByteView area);
