// Counters blocks to standard output: one JSON object per block (json,
// ndjson) or text tables (txt and the other text formats).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "counters/counters_schema.h"

struct nmb_reader_context_t;

// 1 on success or skip, 0 on failure.
int nmb_export_counters_block(nmb_reader_context_t& reader, std::span<const uint8_t> block);

// Compiles the export plan of a loaded schema (called by the schema load).
nmb_counters_plan_ptr nmb_counters_plan_create(const nmb_counters_schema_t& schema);

// Appends the block as one JSON object (pretty or compact) to out; false when
// a value cannot be a JSON value (out is then cut back to where it was).
bool nmb_counters_block_to_json(std::string& out, std::span<const uint8_t> block,
                                const nmb_counters_schema_t& schema, bool microsecond_precision,
                                bool pretty);

// Text tables (counters/counters_text.cpp). Values are taken by position:
// value k of a counter set is the k-th 8-byte word of the value area.
void nmb_print_counters_block_text(std::string& out, std::span<const uint8_t> block,
                                   const nmb_counters_schema_t& schema, bool microsecond_precision);
void nmb_print_counter_group_text(std::string& out, const nmb_counter_group_t& group,
                                  std::span<const uint8_t> values);
// One cell of `width` columns for the value at `offset` of the value area.
void nmb_print_counter_value_text(std::string& out, const nmb_counter_info_t& counter, int width,
                                  std::span<const uint8_t> values, uint64_t offset);
