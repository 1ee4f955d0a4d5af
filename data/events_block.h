// Events blocks: a 16-byte header naming the record type (schema and type
// index), the timestamp and the number of records, then the records back to
// back, each as large as its type.
// Stage: model.
#pragma once

#include <cstddef>
#include <cstdint>

#include "data/bytes.h"
#include "data/format.h"

struct nmb_type_definition_t;
struct nmb_type_system_t;

struct nmb_events_block_t {
  uint8_t header[NMB_EVENT_BLOCK_HEADER_SIZE] = {};
  uint32_t schema_index = 0;
  uint32_t type_index = 0;  // the low byte of the stored 16-bit index
  uint32_t num_events = 0;
  uint64_t timestamp = 0;
};

// Reads the header of the events block at the start of `area`.
nmb_events_block_t nmb_events_block_read(nmb::ByteView area);
// The block's record type; nullptr (logged: "Type definition %u:%u not
// found") when the type system has no such type.
const nmb_type_definition_t* nmb_events_block_type(const nmb_type_system_t* ts,
                                                   const nmb_events_block_t& block);

// Hands each whole record of the block to `record` (a view from the record's
// start to the end of the area) and returns the bytes taken: the header and
// the records. A block with no records, or too short for one, takes its
// header only. 0 when `record` returns false.
template <typename RecordFn>
size_t nmb_events_block_for_each(const nmb_events_block_t& block, uint64_t record_size,
                                 nmb::ByteView area, RecordFn&& record) {
  const size_t length = area.size();
  if (block.num_events == 0 || length < NMB_EVENT_BLOCK_HEADER_SIZE ||
      record_size > length - NMB_EVENT_BLOCK_HEADER_SIZE) {
    return NMB_EVENT_BLOCK_HEADER_SIZE;
  }
  size_t offset = NMB_EVENT_BLOCK_HEADER_SIZE;
  for (uint32_t n = 0; n < block.num_events && record_size <= length - offset; ++n) {
    if (!record(area.from(offset))) return 0;
    offset += static_cast<size_t>(record_size);
  }
  return offset;
}
