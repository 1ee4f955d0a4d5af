// Decoding a counters schema from an already parsed document (for readers of
// documents that embed one, such as the type-system document). Includes the
// JSON library: include only where documents are read.
// Stage: model.
#pragma once

#include <memory>

#include "counters/counters_schema.h"
#include "utils/json_input.h"

// nullptr on failure (logged); `filter` may be nullptr.
std::unique_ptr<nmb_counters_schema_t> nmb_counters_schema_from_json(
    const nmb::Json& value, const nmb_counter_filter_t* filter = nullptr);
