#include "data/file_header.h"

#include <cstring>

namespace {

std::string text_field(const uint8_t* at, size_t size) {
  return std::string(reinterpret_cast<const char*>(at),
                     strnlen(reinterpret_cast<const char*>(at), size));
}

}  // namespace

nmb_file_header_t nmb_file_header_decode(std::span<const uint8_t, NMB_FILE_HEADER_SIZE> bytes) {
  const uint8_t* raw = bytes.data();
  nmb_file_header_t h;
  std::memcpy(h.magic, raw + NMB_FH_MAGIC, sizeof h.magic);
  h.version_major = raw[NMB_FH_VERSION];
  h.version_minor = raw[NMB_FH_VERSION + 1];
  h.version_patch = nmb_load_u16(raw + NMB_FH_VERSION + 2);
  h.file_size = nmb_load_u64(raw + NMB_FH_FILE_SIZE);
  h.source_id = text_field(raw + NMB_FH_SOURCE_ID, NMB_FH_SOURCE_ID_SIZE);
  h.source_tag = text_field(raw + NMB_FH_SOURCE_TAG, NMB_FH_SOURCE_TAG_SIZE);
  h.first_timestamp = nmb_load_u64(raw + NMB_FH_FIRST_TIMESTAMP);
  h.last_timestamp = nmb_load_u64(raw + NMB_FH_LAST_TIMESTAMP);
  h.block_size = nmb_load_u32(raw + NMB_FH_BLOCK_SIZE);
  std::memcpy(h.counters_schema_id, raw + NMB_FH_COUNTERS_SCHEMA_ID, sizeof h.counters_schema_id);
  std::memcpy(h.event_schema_ids, raw + NMB_FH_EVENT_SCHEMA_IDS, sizeof h.event_schema_ids);
  h.byte_order = raw[NMB_FH_BYTE_ORDER];
  std::memcpy(h.magic_end, raw + NMB_FH_MAGIC_END, sizeof h.magic_end);
  return h;
}
