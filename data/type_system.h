// The type system of one data file: the built-in scalar types, the event
// schemas named by the file (each a versioned list of record types made of
// named fields) and the counters schema: plain models, immutable once loaded.
// Loading schema documents is in data/schema_json.h.
// Stage: model.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "counters/counters_schema.h"
#include "data/version.h"

inline constexpr uint32_t NMB_MAX_TYPES = 254;
inline constexpr uint32_t NMB_MAX_SCHEMAS = 255;
inline constexpr const char* NMB_SCHEMA_CURRENT_VERSION = "1.5.0";
inline constexpr const char* NMB_BUILTIN_SCHEMA_NAME = "<built-in>";

// Built-in type codes (user types have code 0).
enum nmb_builtin_type_code_t : uint32_t {
  NMB_TYPE_USER = 0,
  NMB_TYPE_BOOL = 1,
  NMB_TYPE_CHAR = 2,
  NMB_TYPE_SHORT = 3,
  NMB_TYPE_INT = 4,
  NMB_TYPE_LONG = 5,
  NMB_TYPE_LONG_LONG = 6,
  NMB_TYPE_UNSIGNED_CHAR = 7,
  NMB_TYPE_UNSIGNED_SHORT = 8,
  NMB_TYPE_UNSIGNED_INT = 9,
  NMB_TYPE_UNSIGNED_LONG = 10,
  NMB_TYPE_UNSIGNED_LONG_LONG = 11,
  NMB_TYPE_FLOAT = 12,
  NMB_TYPE_DOUBLE = 13,
  NMB_TYPE_INT8 = 14,
  NMB_TYPE_INT16 = 15,
  NMB_TYPE_INT32 = 16,
  NMB_TYPE_INT64 = 17,
  NMB_TYPE_UINT8 = 18,
  NMB_TYPE_UINT16 = 19,
  NMB_TYPE_UINT32 = 20,
  NMB_TYPE_UINT64 = 21,
  NMB_TYPE_TIMESTAMP = 22,
};
inline constexpr uint32_t NMB_MAX_BUILTIN_TYPE_CODE = 22;

struct nmb_builtin_type_row_t {
  uint32_t code;  // 0 ends the table
  const char* name;
  uint64_t size;
};
// The 22 built-in types in registration order, ended by a row with code 0.
extern const nmb_builtin_type_row_t nmb_builtin_types[];

// Counting mode of an event field (-1 for an unknown name, stored as is).
enum nmb_counting_mode_t : int32_t {
  NMB_COUNTING_MODE_ABSOLUTE = 0,
  NMB_COUNTING_MODE_RUNNING_SUM = 1,
  NMB_COUNTING_MODE_DELTA = 2,
};
// "ABSOLUTE_MONOTONIC" maps to RUNNING_SUM; other unknown names give -1.
int32_t nmb_counting_mode_from_name(const char* name);
// nullptr for an unknown value.
const char* nmb_counting_mode_name(int32_t mode);

struct nmb_type_definition_t;

struct nmb_type_field_definition_t {
  std::string field_name;
  std::string description;
  std::string type_name;
  uint64_t type_size = 0;
  int32_t counting_mode = NMB_COUNTING_MODE_ABSOLUTE;
  uint16_t array_length = 1;
  uint64_t offset = 0;
  const nmb_type_definition_t* type = nullptr;  // filled by field type resolution
  uint16_t index = 0;                           // 0: no index
};

struct nmb_type_definition_t {
  std::string name;
  uint32_t type_code = NMB_TYPE_USER;
  std::vector<nmb_type_field_definition_t> fields;
  uint64_t size = 0;

  uint32_t num_fields() const { return static_cast<uint32_t>(fields.size()); }
};

struct nmb_schema_t {
  uint32_t version = 0;
  std::string name;
  std::unique_ptr<nmb_type_definition_t> types[NMB_MAX_TYPES];
  uint8_t num_types = 0;
  const nmb_schema_t* parent = nullptr;
  uint8_t md5_digest[16] = {};
  char id[33] = {};
};

struct nmb_type_system_t {
  std::unique_ptr<nmb_schema_t> builtin;
  std::unique_ptr<nmb_schema_t> schemas[NMB_MAX_SCHEMAS];
  uint8_t num_schemas = 0;
  std::unique_ptr<nmb_counters_schema_t> counters_schema;
  uint8_t counters_schema_md5[16] = {};
};

// A field description for nmb_schema_add_type.
struct nmb_field_info_t {
  const char* field_name;
  const char* description;
  const char* type_name;
  int32_t counting_mode;
  uint16_t array_length;
};

// nmb_schema_add_type statuses.
enum : int {
  NMB_SCHEMA_OK = 0,
  NMB_SCHEMA_FAILED = 1,
  NMB_SCHEMA_DUPLICATE = 2,
  NMB_SCHEMA_UNDEFINED_TYPE = 3,
  NMB_SCHEMA_TYPE_LIMIT = 5,
};

std::unique_ptr<nmb_type_system_t> nmb_type_system_create();
bool nmb_type_system_get_counters_schema_md5(nmb_type_system_t& ts, uint8_t (&out)[16]);

std::unique_ptr<nmb_schema_t> nmb_schema_create(const char* name, uint32_t version);
const nmb_type_definition_t* nmb_schema_find_type(const nmb_schema_t& schema, const char* name);
uint64_t nmb_schema_get_type_size(const nmb_schema_t& schema, const char* name);
int nmb_schema_add_type(nmb_schema_t& schema, const char* name, const nmb_field_info_t* fields_info,
                        size_t count, uint8_t* out_index);
int nmb_schema_set_field_indexes(nmb_schema_t* schema, uint32_t type_index,
                                 const char* const* names, size_t count);
// Names (borrowed from the schema) of the indexed fields, in field order.
std::vector<const char*> nmb_schema_get_indexed_field_names(const nmb_schema_t* schema,
                                                            uint32_t type_index, size_t* out_count);
// Resolves every field's type through the schema and its parent chain; false
// (logged) when a type is missing.
bool nmb_schema_resolve_field_types(nmb_schema_t& schema, const nmb_schema_t& builtin);
