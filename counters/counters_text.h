// Counters blocks as aligned text tables (-f txt, and plain counters blocks
// under -f bin). Values are taken by position: value k of a counter set is
// the k-th 8-byte word of the value area.
// Stage: writer.
#pragma once

#include <cstdint>
#include <string>

#include "counters/counters_schema.h"
#include "data/bytes.h"

void nmb_print_counters_block_text(std::string& out, nmb::ByteView block,
                                   const nmb_counters_schema_t& schema, bool microsecond_precision);
void nmb_print_counter_group_text(std::string& out, const nmb_counter_group_t& group,
                                  nmb::ByteView values);
// One cell of `width` columns for the value at `offset` of the value area.
void nmb_print_counter_value_text(std::string& out, const nmb_counter_info_t& counter, int width,
                                  nmb::ByteView values, uint64_t offset);
