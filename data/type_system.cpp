// Stub, replaced by the real type system.
#include "data/type_system.h"

const nmb_builtin_type_row_t nmb_builtin_types[] = {{0, nullptr, 0}};
int32_t nmb_counting_mode_from_name(const char*) {
  return -1;
}
const char* nmb_counting_mode_name(int32_t) {
  return nullptr;
}
uint32_t nmb_version_parse(const char*) {
  return 0;
}
const char* nmb_version_to_string(uint32_t) {
  return "";
}
bool nmb_version_is_compatible(const char*, const char*) {
  return false;
}
int nmb_version_compare(uint32_t, uint32_t) {
  return 0;
}
std::unique_ptr<nmb_type_system_t> nmb_type_system_create() {
  return nullptr;
}
nmb_schema_t* nmb_type_system_load_schema(nmb_type_system_t&, const char*, bool* out_loaded) {
  if (out_loaded) *out_loaded = false;
  return nullptr;
}
nmb_schema_t* nmb_type_system_add_schema(nmb_type_system_t&, const char*, uint32_t, uint8_t*) {
  return nullptr;
}
void nmb_type_system_remove_last_schema(nmb_type_system_t&) {}
bool nmb_type_system_get_counters_schema_md5(nmb_type_system_t&, uint8_t (&)[16]) {
  return false;
}
std::unique_ptr<nmb_schema_t> nmb_schema_create(const char*, uint32_t) {
  return nullptr;
}
const nmb_type_definition_t* nmb_schema_find_type(const nmb_schema_t&, const char*) {
  return nullptr;
}
uint64_t nmb_schema_get_type_size(const nmb_schema_t&, const char*) {
  return 0;
}
int nmb_schema_add_type(nmb_schema_t&, const char*, const nmb_field_info_t*, size_t, uint8_t*) {
  return NMB_SCHEMA_FAILED;
}
int nmb_schema_set_field_indexes(nmb_schema_t*, uint32_t, const char* const*, size_t) {
  return 3;
}
std::vector<const char*> nmb_schema_get_indexed_field_names(const nmb_schema_t*, uint32_t,
                                                            size_t* out_count) {
  if (out_count) *out_count = 0;
  return {};
}
bool nmb_schema_resolve_field_types(nmb_schema_t&, const nmb_schema_t&) {
  return false;
}
bool nmb_schema_fill_md5(nmb_schema_t&) {
  return false;
}
