#include "data/type_system.h"

#include <cstdio>
#include <cstring>

#include "utils/log.h"

const nmb_builtin_type_row_t nmb_builtin_types[] = {
    {NMB_TYPE_BOOL, "bool", 1},
    {NMB_TYPE_CHAR, "char", 1},
    {NMB_TYPE_SHORT, "short", 2},
    {NMB_TYPE_INT, "int", 4},
    {NMB_TYPE_LONG, "long", 8},
    {NMB_TYPE_LONG_LONG, "long long", 8},
    {NMB_TYPE_UNSIGNED_CHAR, "unsigned char", 1},
    {NMB_TYPE_UNSIGNED_SHORT, "unsigned short", 2},
    {NMB_TYPE_UNSIGNED_INT, "unsigned int", 4},
    {NMB_TYPE_UNSIGNED_LONG, "unsigned long", 8},
    {NMB_TYPE_UNSIGNED_LONG_LONG, "unsigned long long", 8},
    {NMB_TYPE_FLOAT, "float", 4},
    {NMB_TYPE_DOUBLE, "double", 8},
    {NMB_TYPE_INT8, "int8_t", 1},
    {NMB_TYPE_INT16, "int16_t", 2},
    {NMB_TYPE_INT32, "int32_t", 4},
    {NMB_TYPE_INT64, "int64_t", 8},
    {NMB_TYPE_UINT8, "uint8_t", 1},
    {NMB_TYPE_UINT16, "uint16_t", 2},
    {NMB_TYPE_UINT32, "uint32_t", 4},
    {NMB_TYPE_UINT64, "uint64_t", 8},
    {NMB_TYPE_TIMESTAMP, "timestamp", 8},
    {0, nullptr, 0},
};

namespace {

constexpr const char* kCountingModeNames[] = {"ABSOLUTE", "RUNNING_SUM", "DELTA"};

}  // namespace

int32_t nmb_counting_mode_from_name(const char* name) {
  if (name == nullptr) return -1;
  if (std::strcmp(name, "ABSOLUTE_MONOTONIC") == 0) name = "RUNNING_SUM";
  for (int32_t i = 0; i < 3; ++i) {
    if (std::strcmp(name, kCountingModeNames[i]) == 0) return i;
  }
  return -1;
}

const char* nmb_counting_mode_name(int32_t mode) {
  return mode >= 0 && mode < 3 ? kCountingModeNames[mode] : nullptr;
}

// ---- versions -------------------------------------------------------------

std::unique_ptr<nmb_schema_t> nmb_schema_create(const char* name, uint32_t version) {
  auto schema = std::make_unique<nmb_schema_t>();
  schema->version = version;
  if (name != nullptr) schema->name = name;
  NMB_LOG(NMB_LOG_DEBUG, "clearing md5_digest of schema: %p", static_cast<void*>(schema.get()));
  return schema;
}

const nmb_type_definition_t* nmb_schema_find_type(const nmb_schema_t& schema, const char* name) {
  if (name == nullptr) return nullptr;
  for (const nmb_schema_t* s = &schema; s != nullptr; s = s->parent) {
    for (uint32_t i = 0; i < s->num_types; ++i) {
      if (s->types[i] && s->types[i]->name == name) return s->types[i].get();
    }
  }
  return nullptr;
}

uint64_t nmb_schema_get_type_size(const nmb_schema_t& schema, const char* name) {
  const nmb_type_definition_t* type = nmb_schema_find_type(schema, name);
  return type ? type->size : 0;
}

int nmb_schema_add_type(nmb_schema_t& schema, const char* name, const nmb_field_info_t* fields_info,
                        size_t count, uint8_t* out_index) {
  static constexpr const char* kFn = "nmb_schema_add_type";
  if (schema.num_types > NMB_MAX_TYPES - 1) {
    NMB_LOG(NMB_LOG_ERROR,
            "[%s] Unable to add new type, reached NMB_MAX_TYPES. schema->num_types = %d", kFn,
            schema.num_types);
    return NMB_SCHEMA_TYPE_LIMIT;
  }
  if (name == nullptr || (count > 0 && fields_info == nullptr)) return NMB_SCHEMA_FAILED;
  if (nmb_schema_find_type(schema, name) != nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "Schema '%s' already contains type '%s'",
            schema.name.empty() ? "<undefined>" : schema.name.c_str(), name);
    return NMB_SCHEMA_DUPLICATE;
  }
  for (size_t i = 0; i < count; ++i) {
    if (fields_info[i].field_name == nullptr || fields_info[i].type_name == nullptr) {
      return NMB_SCHEMA_FAILED;
    }
    if (nmb_schema_find_type(schema, fields_info[i].type_name) == nullptr) {
      NMB_LOG(NMB_LOG_ERROR,
              "Unable to register type '%s': type '%s' of the field '%s' is undefined", name,
              fields_info[i].type_name, fields_info[i].field_name);
      return NMB_SCHEMA_UNDEFINED_TYPE;
    }
  }
  // Deliberate bounds: positions 1 to count - 2 only, so types of one or two
  // fields are not checked and the last field is never compared.
  for (size_t i = 1; i + 1 < count; ++i) {
    for (size_t j = 0; j < i; ++j) {
      if (std::strcmp(fields_info[i].field_name, fields_info[j].field_name) == 0) {
        NMB_LOG(NMB_LOG_ERROR,
                "[%s] Failed to register new type '%s': field name '%s' occurs more than once.",
                kFn, name, fields_info[i].field_name);
        return NMB_SCHEMA_DUPLICATE;
      }
    }
  }
  auto type = std::make_unique<nmb_type_definition_t>();
  type->name = name;
  type->size = 0;
  type->fields.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    const nmb_field_info_t& info = fields_info[i];
    nmb_type_field_definition_t field;
    field.field_name = info.field_name;
    if (info.description) field.description = info.description;
    field.type_name = info.type_name;
    field.counting_mode = info.counting_mode;
    field.array_length = info.array_length;
    field.offset = type->size;
    field.type = nmb_schema_find_type(schema, info.type_name);
    if (field.type == nullptr) {
      NMB_LOG(NMB_LOG_ERROR,
              "[%s] cannot find type_definition of type_field_definition '%s', number %d", kFn,
              info.field_name, static_cast<int>(i));
      return NMB_SCHEMA_FAILED;
    }
    field.type_size = field.type->size;
    type->size += static_cast<uint64_t>(field.array_length) * field.type_size;
    type->fields.push_back(std::move(field));
  }
  uint8_t index = schema.num_types;
  schema.types[index] = std::move(type);
  if (out_index) *out_index = index;
  ++schema.num_types;
  return NMB_SCHEMA_OK;
}

int nmb_schema_set_field_indexes(nmb_schema_t* schema, uint32_t type_index,
                                 const char* const* names, size_t count) {
  static constexpr const char* kFn = "nmb_schema_set_field_indexes";
  if (schema == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] Schema pointer is NULL!", kFn);
    return 3;
  }
  if (names == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] Index names array is NULL!", kFn);
    return 3;
  }
  if (type_index >= schema->num_types || !schema->types[type_index]) {
    NMB_LOG(NMB_LOG_ERROR, "[%s] Invalid type_index: %u (out of range, max: %u)", kFn, type_index,
            schema->num_types - 1u);
    return 3;
  }
  nmb_type_definition_t& type = *schema->types[type_index];
  for (auto& field : type.fields) field.index = 0;
  if (count == 0) return 0;
  uint32_t counter = 1;
  for (size_t n = 0; n < count; ++n) {
    if (names[n] == nullptr) continue;
    for (auto& field : type.fields) {
      if (field.field_name == names[n]) {
        field.index = static_cast<uint16_t>(counter++);
        break;
      }
    }
  }
  uint32_t assigned = counter - 1;
  if (assigned != count) {
    NMB_LOG(NMB_LOG_DEBUG, "Mismatch in assigned indices: expected %zu, but assigned %u (%s).",
            count, assigned, type.name.c_str());
  }
  return 0;
}

std::vector<const char*> nmb_schema_get_indexed_field_names(const nmb_schema_t* schema,
                                                            uint32_t type_index,
                                                            size_t* out_count) {
  static constexpr const char* kSource = "src/data/schema";
  if (out_count == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "[%s %i] out_count is NULL", kSource, __LINE__);
    return {};
  }
  *out_count = 0;
  if (schema == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "[%s %i] schema is NULL", kSource, __LINE__);
    return {};
  }
  if (type_index >= schema->num_types) {
    NMB_LOG(NMB_LOG_ERROR, "[%s %i] type_index %u out of bounds (max: %u)", kSource, __LINE__,
            type_index, static_cast<unsigned>(schema->num_types));
    return {};
  }
  if (!schema->types[type_index]) {
    NMB_LOG(NMB_LOG_ERROR, "[%s %i] schema->types[%u] is NULL", kSource, __LINE__, type_index);
    return {};
  }
  std::vector<const char*> names;
  for (const auto& field : schema->types[type_index]->fields) {
    if (field.index != 0) names.push_back(field.field_name.c_str());
  }
  *out_count = names.size();
  return names;
}

// ---- field type resolution -------------------------------------------------

bool nmb_schema_resolve_field_types(nmb_schema_t& schema, const nmb_schema_t& builtin) {
  schema.parent = &builtin;
  for (uint32_t t = 0; t < schema.num_types; ++t) {
    if (!schema.types[t]) continue;
    for (auto& field : schema.types[t]->fields) {
      field.type = nmb_schema_find_type(schema, field.type_name.c_str());
      if (field.type == nullptr) {
        NMB_LOG(NMB_LOG_ERROR, "Definition of type %s not found within the schema %s",
                field.type_name.c_str(), schema.name.c_str());
        return false;
      }
    }
  }
  return true;
}

// ---- the type system --------------------------------------------------------

std::unique_ptr<nmb_type_system_t> nmb_type_system_create() {
  auto ts = std::make_unique<nmb_type_system_t>();
  ts->builtin =
      nmb_schema_create(NMB_BUILTIN_SCHEMA_NAME, nmb_version_parse(NMB_SCHEMA_CURRENT_VERSION));
  for (const nmb_builtin_type_row_t* row = nmb_builtin_types; row->code != 0; ++row) {
    if (ts->builtin->num_types > NMB_MAX_TYPES - 1) {
      NMB_LOG(NMB_LOG_ERROR, "Failed to register built-in types");
      return nullptr;
    }
    auto type = std::make_unique<nmb_type_definition_t>();
    type->name = row->name;
    type->type_code = row->code;
    type->size = row->size;
    ts->builtin->types[ts->builtin->num_types++] = std::move(type);
  }
  ts->counters_schema = std::make_unique<nmb_counters_schema_t>();
  return ts;
}

bool nmb_type_system_get_counters_schema_md5(nmb_type_system_t& ts, uint8_t (&out)[16]) {
  if (!ts.counters_schema) return true;
  static constexpr uint8_t kZero[16] = {};
  if (std::memcmp(ts.counters_schema_md5, kZero, 16) == 0) {
    uint8_t digest[16];
    if (!nmb_counters_schema_md5(*ts.counters_schema, digest)) return false;
    std::memcpy(ts.counters_schema_md5, digest, 16);
  }
  std::memcpy(out, ts.counters_schema_md5, 16);
  return true;
}
