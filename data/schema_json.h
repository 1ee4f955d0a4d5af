// Event schema and type-system documents: reading them (with the template
// checks and the field set hooks) and writing them in the pretty form that
// also feeds their MD5 digests. Include only where documents are handled:
// it pulls in the JSON input library.
// Stage: model.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "data/type_system.h"
#include "utils/json_input.h"

// Decides which types and fields of an event schema are loaded (the -F field
// set). include_field returns 1 to keep a field, 0 to drop it, and a negative
// value when the query itself failed (the field is dropped).
struct nmb_event_field_filter_t {
  bool (*type_of_interest)(const void* context, const char* type_name) = nullptr;
  int (*include_field)(const void* context, const char* type_name,
                       const char* field_name) = nullptr;
  const void* context = nullptr;
};

// Builds a schema (types and fields, not yet resolved) from its document.
// *out_skipped is set to 1 once the types are read, so an empty result with
// the flag set means "nothing of it is wanted by the filter".
std::unique_ptr<nmb_schema_t> nmb_schema_from_json(const nmb::Json& json,
                                                   const nmb_event_field_filter_t* filter,
                                                   bool* out_skipped);

// The schema document in the pretty form; false (nothing written) when the
// schema has no types or a value cannot be written.
bool nmb_schema_to_json_text(const nmb_schema_t& schema, std::string& out);

// The whole type system as one pretty document.
bool nmb_type_system_to_json_text(const nmb_type_system_t& ts, std::string& out);
std::unique_ptr<nmb_type_system_t> nmb_type_system_from_json(const nmb::Json& json);
std::unique_ptr<nmb_type_system_t> nmb_type_system_from_json_string(std::string_view text);

// Loads one event schema file into the next slot and resolves its field
// types; nullptr on failure (then *out_loaded is 0) or when the filter wanted
// nothing of it (*out_loaded 1).
nmb_schema_t* nmb_type_system_load_schema(nmb_type_system_t& ts, const char* path, bool* out_loaded,
                                          const nmb_event_field_filter_t* filter = nullptr);
// Adds an empty schema (its digest computed from its document).
nmb_schema_t* nmb_type_system_add_schema(nmb_type_system_t& ts, const char* name, uint32_t version,
                                         uint8_t* out_index);
// Computes the MD5 digest and id of the schema document; false when the
// schema has no types (digest and id stay clear).
bool nmb_schema_fill_md5(nmb_schema_t& schema);
