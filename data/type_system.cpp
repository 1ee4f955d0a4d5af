#include "data/type_system.h"

#include <cstdio>
#include <cstring>

#include "data/schema_json.h"
#include "export/event_export.h"
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

uint32_t nmb_version_parse(const char* text) {
  if (text == nullptr) return 0;
  unsigned char major = 0, minor = 0;
  unsigned short patch = 0;
  if (std::sscanf(text, "%hhu.%hhu .%hu", &major, &minor, &patch) < 2) return 0;
  return static_cast<uint32_t>(major) | static_cast<uint32_t>(minor) << 8 |
         static_cast<uint32_t>(patch) << 16;
}

const char* nmb_version_to_string(uint32_t version) {
  static char text[16];
  std::snprintf(text, sizeof text, "%u.%u.%u", version & 0xFF, (version >> 8) & 0xFF,
                version >> 16);
  return text;
}

bool nmb_version_is_compatible(const char* schema_version, const char* current_version) {
  uint32_t v = nmb_version_parse(schema_version);
  uint32_t current = nmb_version_parse(current_version);
  if (v == 0 || current == 0) return false;
  return (v & 0xFF) == (current & 0xFF) && ((current >> 8) & 0xFF) >= ((v >> 8) & 0xFF);
}

int nmb_version_compare(uint32_t a, uint32_t b) {
  int major_a = static_cast<int>(a & 0xFF), major_b = static_cast<int>(b & 0xFF);
  if (major_a == major_b) {
    return static_cast<int>((a >> 8) & 0xFF) - static_cast<int>((b >> 8) & 0xFF);
  }
  return major_a - major_b;
}

// ---- schemas and types ----------------------------------------------------

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

// ---- field type resolution and the safety of untrusted schemas --------------

namespace {

// Values one record of a type may expand to (a char string counts one value
// per 8 bytes of it). Nested arrays multiply: a few bytes of schema could
// otherwise ask for billions of values, gigabytes of text, per record.
constexpr uint64_t kMaxValuesPerRecord = uint64_t{1} << 20;
// Text one record may expand to. Values alone do not bound it: every line of
// a nested object is indented once more per level in the pretty form (and
// carries the whole dotted key path in Influx lines), and long field names
// are written once per array element of a nested type.
constexpr uint64_t kMaxTextPerRecord = uint64_t{64} << 20;

// An upper bound of the text of one value written at depth 0: its lines
// (each gets the indentation or key prefix of the levels around it) and bytes.
struct TextCost {
  uint64_t lines = 0;
  uint64_t bytes = 0;
};

// Saturating arithmetic: bounds of hostile schemas may not wrap around.
constexpr uint64_t kSaturated = uint64_t{1} << 62;
uint64_t sat_add(uint64_t a, uint64_t b) {
  return a + b > kSaturated ? kSaturated : a + b;
}
uint64_t sat_mul(uint64_t a, uint64_t b) {
  return a != 0 && b > kSaturated / a ? kSaturated : a * b;
}

struct TypeState {
  enum class Visit : uint8_t { kNew, kOpen, kDone };
  const nmb_type_definition_t* type = nullptr;
  Visit visit = Visit::kNew;
  uint64_t values = 0;
  TextCost text;
};

// Depth-first walk over the user types reachable from `type`: refuses a type
// that contains itself (directly or through other types), which would make
// the export recurse forever, and bounds the values and text of one record.
bool check_type(const nmb_type_definition_t* type, const nmb_schema_t& schema,
                std::vector<TypeState>& state) {
  using Visit = TypeState::Visit;
  size_t slot = 0;
  while (slot < state.size() && state[slot].type != type) ++slot;
  if (slot == state.size()) return true;  // a built-in
  if (state[slot].visit == Visit::kDone) return true;
  if (state[slot].visit == Visit::kOpen) {
    NMB_LOG(NMB_LOG_ERROR, "Type %s of schema %s contains itself", type->name.c_str(),
            schema.name.c_str());
    return false;
  }
  state[slot].visit = Visit::kOpen;
  uint64_t total = 0;
  TextCost text;
  for (const auto& field : type->fields) {
    // A key escapes to at most 6 bytes per byte; 16 covers quotes, colon,
    // separators and an Influx "_<index>".
    const uint64_t key = 6 * static_cast<uint64_t>(field.field_name.size()) + 16;
    const uint64_t count = field.array_length;
    uint64_t per_element = 1;
    TextCost element{1, 40};  // a number, a hex string, a comma and newline
    if (field.type->type_code == NMB_TYPE_USER) {
      if (!check_type(field.type, schema, state)) return false;
      size_t nested = 0;
      while (state[nested].type != field.type) ++nested;
      per_element = state[nested].values;
      const TextCost& inner = state[nested].text;
      element.lines = sat_add(inner.lines, 2);
      element.bytes = sat_add(sat_add(inner.bytes, sat_mul(inner.lines, key)), 16);
    }
    bool chars = field.array_length > 1 && (field.type->type_code == NMB_TYPE_CHAR ||
                                            field.type->type_code == NMB_TYPE_UNSIGNED_CHAR);
    total += chars ? 1 + field.array_length / 8 : per_element * field.array_length;
    if (chars) {
      text.lines = sat_add(text.lines, 1);
      text.bytes = sat_add(text.bytes, key + 6 * count + 16);
    } else {
      text.lines = sat_add(text.lines, sat_add(sat_mul(count, element.lines), 2));
      text.bytes = sat_add(
          text.bytes,
          sat_add(key, sat_mul(count, sat_add(element.bytes, sat_mul(element.lines, key)))));
    }
    if (total > kMaxValuesPerRecord) {
      NMB_LOG(NMB_LOG_ERROR, "Type %s of schema %s has more than %llu values per record",
              type->name.c_str(), schema.name.c_str(),
              static_cast<unsigned long long>(kMaxValuesPerRecord));
      return false;
    }
    if (sat_add(text.bytes, sat_mul(text.lines, 4)) > kMaxTextPerRecord) {
      NMB_LOG(NMB_LOG_ERROR,
              "Type %s of schema %s can expand to more than %llu bytes of text per record",
              type->name.c_str(), schema.name.c_str(),
              static_cast<unsigned long long>(kMaxTextPerRecord));
      return false;
    }
  }
  state[slot].values = total;
  state[slot].text = text;
  state[slot].visit = Visit::kDone;
  return true;
}

}  // namespace

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
  std::vector<TypeState> state;
  for (uint32_t t = 0; t < schema.num_types; ++t) state.emplace_back().type = schema.types[t].get();
  for (uint32_t t = 0; t < schema.num_types; ++t) {
    if (schema.types[t] && !check_type(schema.types[t].get(), schema, state)) return false;
  }
  return true;
}

bool nmb_schema_fill_md5(nmb_schema_t& schema) {
  std::string text;
  if (!nmb_schema_to_json_text(schema, text)) return false;
  uint8_t digest[16];
  if (!nmb_md5(text.data(), text.size(), digest)) return false;
  std::memcpy(schema.md5_digest, digest, sizeof digest);
  for (int i = 0; i < 16; ++i) std::snprintf(schema.id + 2 * i, 3, "%02x", digest[i]);
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

nmb_schema_t* nmb_type_system_load_schema(nmb_type_system_t& ts, const char* path, bool* out_loaded,
                                          const nmb_event_field_filter_t* filter) {
  if (out_loaded) *out_loaded = false;
  if (ts.num_schemas >= NMB_MAX_SCHEMAS) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to load schema: schema limit exceeded '%u'", NMB_MAX_SCHEMAS);
    return nullptr;
  }
  std::unique_ptr<nmb_schema_t> schema;
  bool skipped = false;
  {
    std::optional<nmb::Json> json = nmb::json_parse_file(path);
    if (!json) {
      NMB_LOG(NMB_LOG_ERROR, "Failed reading schema JSON from file '%s'", path);
      return nullptr;
    }
    schema = nmb_schema_from_json(*json, filter, &skipped);
  }
  if (!schema) {
    if (out_loaded) *out_loaded = skipped;
    return nullptr;
  }
  if (!nmb_schema_resolve_field_types(*schema, *ts.builtin) || !nmb_event_plans_compile(*schema)) {
    NMB_LOG(NMB_LOG_ERROR, "Failed to adjust type fields within schema %s", schema->name.c_str());
    return nullptr;
  }
  nmb_schema_t* loaded = schema.get();
  ts.schemas[ts.num_schemas++] = std::move(schema);
  if (out_loaded) *out_loaded = true;
  return loaded;
}

nmb_schema_t* nmb_type_system_add_schema(nmb_type_system_t& ts, const char* name, uint32_t version,
                                         uint8_t* out_index) {
  if (ts.num_schemas >= NMB_MAX_SCHEMAS) return nullptr;
  auto schema = nmb_schema_create(name, version);
  schema->parent = ts.builtin.get();
  nmb_schema_fill_md5(*schema);  // an empty schema has no document: digest stays clear
  uint8_t index = ts.num_schemas;
  nmb_schema_t* added = schema.get();
  ts.schemas[ts.num_schemas++] = std::move(schema);
  if (out_index) *out_index = index;
  return added;
}

void nmb_type_system_remove_last_schema(nmb_type_system_t& ts) {
  if (ts.num_schemas == 0) return;
  ts.schemas[--ts.num_schemas].reset();
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
