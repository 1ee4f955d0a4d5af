// Export of events blocks: each record of a selected type is written as one
// JSON (pretty or compact) record, or one Influx line, through the plan that
// was compiled for its type when the schema was loaded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

struct nmb_reader_context_t;
struct nmb_type_definition_t;
struct nmb_schema_t;

// Returns the bytes consumed, 0 on failure.
size_t nmb_export_events_block(nmb_reader_context_t& reader, std::span<const uint8_t> block);

// Compiles the export plan of every user type of a resolved schema; false
// (logged) when a type cannot be planned safely.
bool nmb_event_plans_compile(nmb_schema_t& schema);
