#include "data/schema_json.h"

#include <cerrno>
#include <cstring>

#include "counters/counters_schema_json.h"
#include "utils/json_writer.h"
#include "utils/log.h"
#include "utils/md5.h"

namespace {

constexpr const char* kSchemaTemplate =
    "{\"nmb_version\" : \"\", \"provider_name\" : \"\", \"provider_version\" : \"\", \"types\" : "
    "[]}";
constexpr const char* kTypeTemplate = "{\"name\" : \"\", \"size\" : 0, \"fields\" : []}";
constexpr const char* kFieldTemplate =
    "{\"field_name\" : \"\", \"description\" : \"\", \"type_size\" : 0, \"offset\" : 0, "
    "\"type_name\" : \"\", \"counting_mode\" : \"\", \"index\" : 0}";
constexpr const char* kFieldTemplateWithoutIndex =
    "{\"field_name\" : \"\", \"description\" : \"\", \"type_size\" : 0, \"offset\" : 0, "
    "\"type_name\" : \"\", \"counting_mode\" : \"\"}";

const nmb::Json* parsed_template(const char* text) {
  // The templates are constants: parse each once.
  static std::optional<nmb::Json> schema = nmb::json_parse_text(kSchemaTemplate);
  static std::optional<nmb::Json> type = nmb::json_parse_text(kTypeTemplate);
  static std::optional<nmb::Json> field = nmb::json_parse_text(kFieldTemplate);
  static std::optional<nmb::Json> field_plain = nmb::json_parse_text(kFieldTemplateWithoutIndex);
  const std::optional<nmb::Json>* found = text == kSchemaTemplate  ? &schema
                                          : text == kTypeTemplate  ? &type
                                          : text == kFieldTemplate ? &field
                                                                   : &field_plain;
  return found->has_value() ? &**found : nullptr;
}

// Strings of a schema are C strings: one with an escaped zero byte ("a\u0000b")
// ends there, as names are compared and written everywhere else.
std::string string_member(const nmb::Json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return {};
  const std::string& text = it->get_ref<const std::string&>();
  return text.substr(0, text.find('\0'));
}

// A number member converted to an unsigned 64-bit integer the way a C
// conversion does: the fraction is dropped, negative values wrap around, and
// values no 64-bit integer holds give 0. Absent or not a number reads as 0.
uint64_t number_member(const nmb::Json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_number()) return 0;
  const double value = it->get<double>();
  if (!(value > -9223372036854775808.0 && value < 18446744073709551616.0)) return 0;
  if (value < 0) return static_cast<uint64_t>(static_cast<int64_t>(value));
  return static_cast<uint64_t>(value);
}

bool field_from_json(const nmb::Json& json, nmb_type_field_definition_t& field) {
  const nmb::Json* with_index = parsed_template(kFieldTemplate);
  if (with_index == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "Unable to parse schema to JSON value: '%s'", kFieldTemplate);
    return false;
  }
  if (!nmb::json_matches_template(json, *with_index)) {
    const nmb::Json* without_index = parsed_template(kFieldTemplateWithoutIndex);
    if (without_index == nullptr) {
      NMB_LOG(NMB_LOG_ERROR, "Unable to parse schema to JSON value (without index): '%s'",
              kFieldTemplateWithoutIndex);
      return false;
    }
    if (!nmb::json_matches_template(json, *without_index)) {
      NMB_LOG(NMB_LOG_WARNING,
              "Field definition JSON does not match schema with or without 'index'.");
      return false;
    }
  }
  field.field_name = string_member(json, "field_name");
  field.description = string_member(json, "description");
  field.type_name = string_member(json, "type_name");
  field.counting_mode = nmb_counting_mode_from_name(string_member(json, "counting_mode").c_str());
  // Untrusted sizes and offsets are kept as given: every read of a record is
  // bounds-checked, and offset sums that wrap around stay harmless.
  const auto array_length = static_cast<uint16_t>(number_member(json, "array_length"));
  if (json.contains("index")) field.index = static_cast<uint16_t>(number_member(json, "index"));
  field.type_size = number_member(json, "type_size");
  field.offset = number_member(json, "offset");
  field.array_length = array_length == 0 ? 1 : array_length;
  return true;
}

// Builds one type; empty with *skipped set when it is left out on purpose.
std::unique_ptr<nmb_type_definition_t> type_from_json(const nmb::Json& json,
                                                      const nmb_event_field_filter_t* filter,
                                                      bool* skipped) {
  *skipped = false;
  const nmb::Json* templ = parsed_template(kTypeTemplate);
  if (templ == nullptr || !nmb::json_matches_template(json, *templ)) {
    NMB_LOG(NMB_LOG_WARNING, "Type definition JSON does not match schema '%s'", kTypeTemplate);
    return nullptr;
  }
  auto type = std::make_unique<nmb_type_definition_t>();
  type->name = string_member(json, "name");
  if (filter && filter->type_of_interest &&
      !filter->type_of_interest(filter->context, type->name.c_str())) {
    NMB_LOG(NMB_LOG_DEBUG,
            "Skipping type definition '%s' as it is not required by the provided field set",
            type->name.c_str());
    *skipped = true;
    return nullptr;
  }
  type->size = number_member(json, "size");
  if (type->size == 0) return nullptr;
  const nmb::Json& fields = json["fields"];
  type->fields.reserve(fields.size());
  for (const nmb::Json& field_json : fields) {
    nmb_type_field_definition_t field;
    if (!field_from_json(field_json, field)) return nullptr;
    if (filter && filter->include_field) {
      int keep =
          filter->include_field(filter->context, type->name.c_str(), field.field_name.c_str());
      if (keep < 0) {
        NMB_LOG(NMB_LOG_ERROR, "fset query failed for field '%s.%s'", type->name.c_str(),
                field.field_name.c_str());
      }
      if (keep <= 0) {
        NMB_LOG(NMB_LOG_DEBUG,
                "Skipping field '%s.%s' as it is not required by the provided field set",
                type->name.c_str(), field.field_name.c_str());
        continue;
      }
    }
    type->fields.push_back(std::move(field));
  }
  *skipped = true;
  if (type->fields.empty()) {
    NMB_LOG(NMB_LOG_DEBUG,
            "Skipping type definition '%s' as it has no fields after filtering by field set",
            type->name.c_str());
    return nullptr;
  }
  return type;
}

// Blocks name their type by its position in the collector's schema: a type
// the field set leaves out moves every later type down one place, so their
// blocks are read as other types. Said once per load, with the pairs.
void warn_shifted_types(const nmb_schema_t& schema, const nmb::Json& types) {
  std::string pairs;
  for (uint32_t i = 0; i < schema.num_types && i < types.size(); ++i) {
    const nmb::Json& original = types[i];
    if (!original.is_object() || !original.contains("name") || !original["name"].is_string())
      continue;
    const std::string& written = original["name"].get_ref<const std::string&>();
    if (written == schema.types[i]->name) continue;
    if (!pairs.empty()) pairs += ", ";
    pairs += "'" + written + "' as '" + schema.types[i]->name + "'";
  }
  if (pairs.empty()) return;
  NMB_LOG(NMB_LOG_WARNING,
          "The field set leaves types of schema '%s' out, which moves the types after them: "
          "blocks are read in place of others (%s). Keep every type of the schema in the field "
          "set and leave types out of the output with -e instead",
          schema.name.c_str(), pairs.c_str());
}

void write_value(nmb::JsonWriter& w, const nmb::Json& value) {
  switch (value.type()) {
    case nmb::Json::value_t::object:
      w.begin_object();
      for (auto it = value.begin(); it != value.end(); ++it) {
        w.key(it.key());
        write_value(w, it.value());
      }
      w.end_object();
      break;
    case nmb::Json::value_t::array:
      w.begin_array();
      for (const auto& item : value) write_value(w, item);
      w.end_array();
      break;
    case nmb::Json::value_t::string:
      w.string(value.get_ref<const std::string&>());
      break;
    case nmb::Json::value_t::boolean:
      w.boolean(value.get<bool>());
      break;
    case nmb::Json::value_t::number_integer:
    case nmb::Json::value_t::number_unsigned:
    case nmb::Json::value_t::number_float:
      w.number(value.get<double>());
      break;
    default:
      w.null();
      break;
  }
}

// Writes the members of one schema document (the caller opened the object).
bool write_schema(nmb::JsonWriter& w, const nmb_schema_t& schema) {
  bool ok = true;
  w.begin_object();
  w.key("title");
  w.string("Nimbrel schema");
  w.key("nmb_version");
  w.string(NMB_SCHEMA_CURRENT_VERSION);
  w.key("provider_name");
  ok &= w.string(schema.name);
  w.key("provider_version");
  w.string(nmb_version_to_string(schema.version));
  w.key("types");
  w.begin_array();
  for (uint32_t t = 0; t < schema.num_types; ++t) {
    const nmb_type_definition_t* type = schema.types[t].get();
    if (type == nullptr) continue;
    w.begin_object();
    w.key("name");
    ok &= w.string(type->name);
    w.key("size");
    w.number(static_cast<double>(type->size));
    w.key("fields");
    w.begin_array();
    for (const auto& field : type->fields) {
      w.begin_object();
      w.key("field_name");
      ok &= w.string(field.field_name);
      w.key("description");
      ok &= w.string(field.description);
      w.key("type_name");
      ok &= w.string(field.type_name);
      // An unknown counting mode has no name, and the member is left out.
      if (const char* mode = nmb_counting_mode_name(field.counting_mode)) {
        w.key("counting_mode");
        w.string(mode);
      }
      if (field.array_length > 1) {
        w.key("array_length");
        w.number(field.array_length);
      }
      w.key("offset");
      w.number(static_cast<double>(field.offset));
      w.key("type_size");
      w.number(static_cast<double>(field.type_size));
      w.key("index");
      w.number(field.index);
      w.end_object();
    }
    w.end_array();
    w.key("type_index");
    w.number(t);
    w.end_object();
  }
  w.end_array();
  w.end_object();
  return ok;
}

}  // namespace

std::unique_ptr<nmb_schema_t> nmb_schema_from_json(const nmb::Json& json,
                                                   const nmb_event_field_filter_t* filter,
                                                   bool* out_skipped) {
  bool skipped_dummy = false;
  if (out_skipped == nullptr) out_skipped = &skipped_dummy;
  *out_skipped = false;
  const nmb::Json* templ = parsed_template(kSchemaTemplate);
  if (templ == nullptr) {
    NMB_LOG(NMB_LOG_ERROR, "Unable to parse schema to JSON value: '%s'", kSchemaTemplate);
    return nullptr;
  }
  if (!nmb::json_matches_template(json, *templ)) {
    NMB_LOG(NMB_LOG_INFO, "Not an event schema");
    return nullptr;
  }
  std::string version = string_member(json, "nmb_version");
  if (!nmb_version_is_compatible(version.c_str(), NMB_SCHEMA_CURRENT_VERSION)) {
    NMB_LOG(NMB_LOG_ERROR, "Schema version %s is incompatible with current version %s",
            version.c_str(), NMB_SCHEMA_CURRENT_VERSION);
    return nullptr;
  }
  auto schema =
      nmb_schema_create(string_member(json, "provider_name").c_str(),
                        nmb_version_parse(string_member(json, "provider_version").c_str()));
  const nmb::Json& types = json["types"];
  int position = 0;
  for (const nmb::Json& type_json : types) {
    if (!type_json.is_object()) {
      NMB_LOG(NMB_LOG_ERROR, "Failed to get type #%d from JSON array", position);
      return nullptr;
    }
    bool type_skipped = false;
    auto type = type_from_json(type_json, filter, &type_skipped);
    if (type) {
      // The types array is fixed: a file that declares more types than it
      // holds is refused rather than overrunning it.
      if (schema->num_types >= NMB_MAX_TYPES) {
        NMB_LOG(NMB_LOG_ERROR, "Schema %s has more than %u types", schema->name.c_str(),
                NMB_MAX_TYPES);
        return nullptr;
      }
      schema->types[schema->num_types++] = std::move(type);
    } else if (!type_skipped) {
      NMB_LOG(NMB_LOG_ERROR, "Failed to deserialize type #%d from JSON array", position);
      return nullptr;
    }
    ++position;
  }
  *out_skipped = true;
  if (filter != nullptr) warn_shifted_types(*schema, types);
  if (filter != nullptr && schema->num_types == 0) {
    NMB_LOG(NMB_LOG_DEBUG, "No types found in the schema after filtering by field set");
    return nullptr;
  }
  return schema;
}

bool nmb_schema_to_json_text(const nmb_schema_t& schema, std::string& out) {
  if (schema.num_types == 0) return false;
  std::string text;
  nmb::JsonWriter w(text, true);
  if (!write_schema(w, schema)) return false;
  out.append(text);
  return true;
}

bool nmb_type_system_to_json_text(const nmb_type_system_t& ts, std::string& out) {
  std::string text;
  nmb::JsonWriter w(text, true);
  w.begin_object();
  w.key("name");
  w.string("Nimbrel type system");
  w.key("version");
  w.string(NMB_SCHEMA_CURRENT_VERSION);
  if (ts.counters_schema) {
    // The counters schema writes its own document; it is re-indented here.
    std::string counters_text = nmb_counters_schema_jsonify(*ts.counters_schema);
    if (!counters_text.empty()) {
      auto counters = nmb::json_parse_text(counters_text);
      if (!counters) return false;
      w.key("counters_schema");
      write_value(w, *counters);
    }
  }
  w.key("schemas");
  w.begin_array();
  for (uint32_t s = 0; s < ts.num_schemas; ++s) {
    if (!ts.schemas[s] || ts.schemas[s]->num_types == 0) continue;
    if (!write_schema(w, *ts.schemas[s])) return false;
  }
  w.end_array();
  w.end_object();
  out.append(text);
  return true;
}

std::unique_ptr<nmb_type_system_t> nmb_type_system_from_json(const nmb::Json& json) {
  if (!json.is_object()) {
    NMB_LOG(NMB_LOG_ERROR, "[ts] Failed to deserialize: schema is not a JSON object");
    return nullptr;
  }
  auto version_it = json.find("version");
  if (version_it == json.end() || !version_it->is_string()) {
    NMB_LOG(NMB_LOG_ERROR, "[ts] Failed to deserialize: missing Nimbrel schema version");
    return nullptr;
  }
  std::string version = version_it->get<std::string>();
  if (nmb_version_compare(nmb_version_parse(version.c_str()), nmb_version_parse("1.4.0")) < 0) {
    NMB_LOG(NMB_LOG_ERROR,
            "[ts] Failed to deserialize: schema version %s is incompatible with the deserializer, "
            "the minimal supported schema version is %s",
            version.c_str(), "1.4.0");
    return nullptr;
  }
  auto ts = nmb_type_system_create();
  if (!ts) {
    NMB_LOG(NMB_LOG_ERROR, "[ts] Failed to deserialize: unable to create type system object");
    return nullptr;
  }
  auto decode_counters = [](const nmb::Json& value) {
    return nmb_counters_schema_from_json(value);
  };
  if (auto it = json.find("counters_schema"); it != json.end()) {
    ts->counters_schema = decode_counters(*it);
    if (!ts->counters_schema) {
      NMB_LOG(NMB_LOG_ERROR, "[ts] Failed to deserialize: unable to decode counters schema");
      return nullptr;
    }
  }
  auto schemas_it = json.find("schemas");
  if (schemas_it == json.end() || !schemas_it->is_array()) {
    if (json.contains("counter_groups")) {
      ts->counters_schema = decode_counters(json);
      if (!ts->counters_schema) {
        NMB_LOG(NMB_LOG_ERROR,
                "[ts] Failed to deserialize: unable to decode JSON as counters schema");
        return nullptr;
      }
      return ts;
    }
    NMB_LOG(NMB_LOG_ERROR,
            "[schema writer] schema was not recognized as either type system or counters schema");
    return nullptr;
  }
  if (schemas_it->size() > NMB_MAX_SCHEMAS) {
    NMB_LOG(NMB_LOG_ERROR, "[ts] Failed to deserialize: number of schemas %zu exceeds limit %d",
            schemas_it->size(), static_cast<int>(NMB_MAX_SCHEMAS));
    return nullptr;
  }
  int position = 0;
  for (const nmb::Json& schema_json : *schemas_it) {
    if (!schema_json.is_object()) {
      NMB_LOG(NMB_LOG_ERROR, "[ts] Failed to deserialize: unable to get schema #%d from the array",
              position);
      return nullptr;
    }
    auto schema = nmb_schema_from_json(schema_json, nullptr, nullptr);
    if (!schema) {
      NMB_LOG(NMB_LOG_ERROR, "[ts] Failed to deserialize: unable to decode type schema");
      return nullptr;
    }
    if (!nmb_schema_fill_md5(*schema)) {
      NMB_LOG(NMB_LOG_ERROR, "[ts] Failed to fill schema '%s' md5 digest", schema->name.c_str());
      return nullptr;
    }
    if (!nmb_schema_resolve_field_types(*schema, *ts->builtin)) {
      NMB_LOG(NMB_LOG_ERROR,
              "[ts] Failed to deserialize: unable to adjust type fields of schema %s",
              schema->name.c_str());
      return nullptr;
    }
    ts->schemas[ts->num_schemas++] = std::move(schema);
    ++position;
  }
  return ts;
}

std::unique_ptr<nmb_type_system_t> nmb_type_system_from_json_string(std::string_view text) {
  auto json = nmb::json_parse_text(text);
  if (!json) {
    NMB_LOG(NMB_LOG_ERROR, "Failed parsing schema JSON string");
    return nullptr;
  }
  return nmb_type_system_from_json(*json);
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
  if (!nmb_schema_resolve_field_types(*schema, *ts.builtin)) {
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
