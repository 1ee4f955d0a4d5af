#include "data/events_block.h"

#include "data/type_system.h"
#include "utils/log.h"

nmb_events_block_t nmb_events_block_read(nmb::ByteView area) {
  nmb_events_block_t block;
  area.copy(0, block.header, sizeof block.header);
  block.schema_index = block.header[NMB_EVENT_BLOCK_SCHEMA_INDEX];
  // The type index is stored in 16 bits, but types are numbered in 8 (a
  // schema holds at most 254): only its low byte names the type.
  block.type_index = nmb_load_u16(block.header + NMB_EVENT_BLOCK_TYPE_INDEX) & 0xFF;
  block.num_events = block.header[NMB_EVENT_BLOCK_NUM_EVENTS];
  block.timestamp = nmb_load_u64(block.header + NMB_EVENT_BLOCK_TIMESTAMP);
  return block;
}

const nmb_type_definition_t* nmb_events_block_type(const nmb_type_system_t* ts,
                                                   const nmb_events_block_t& block) {
  const nmb_schema_t* schema = ts != nullptr && block.schema_index < ts->num_schemas
                                   ? ts->schemas[block.schema_index].get()
                                   : nullptr;
  const nmb_type_definition_t* type = schema != nullptr && block.type_index < schema->num_types
                                          ? schema->types[block.type_index].get()
                                          : nullptr;
  if (type == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "Type definition %u:%u not found", block.schema_index, block.type_index);
  }
  return type;
}
