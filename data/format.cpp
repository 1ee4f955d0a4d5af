#include "data/format.h"

nmb_block_type_t nmb_classify_block(const uint8_t*) {
  return NMB_UNKNOWN_BLOCK;
}
const char* nmb_block_type_name(int) {
  return "Unknown block";
}
void nmb_schema_id_to_text(const uint8_t*, char (&out)[NMB_SCHEMA_ID_TEXT_SIZE]) {
  out[0] = '\0';
}
std::string nmb_schema_id_to_string(const uint8_t*) {
  return {};
}
bool nmb_schema_id_is_zero(const uint8_t*) {
  return true;
}
bool nmb_check_file_header(const uint8_t*) {
  return false;
}
bool nmb_file_version_is_compatible(uint8_t, uint8_t) {
  return false;
}
void nmb_print_file_header(const uint8_t*) {}
void nmb_print_counters_block_header(const uint8_t*) {}
void nmb_print_event_block_header(const uint8_t*) {}
void nmb_print_blob_block_header(const uint8_t*) {}
void nmb_print_file_header_fields() {}
void nmb_print_counters_block_fields() {}
void nmb_print_event_block_fields() {}
void nmb_print_blob_block_fields() {}
