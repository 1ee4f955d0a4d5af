// Test-data builder: event and counters schema files.
#include <filesystem>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "tests/support/data_builder.h"

namespace nmb::test {

// ---------------------------------------------------------------------------
// Schema files.

Counter make_counter(std::string name, std::string data_type, std::string string_format,
                     uint32_t length) {
  Counter c;
  c.name = std::move(name);
  c.data_type = std::move(data_type);
  if (!string_format.empty()) c.string_format = std::move(string_format);
  if (length) c.length = length;
  return c;
}

EventType every_builtin_type() {
  EventType t("all");
  t.field("b", "bool", 1)
      .field("c", "char", 1)
      .field("s", "short", 2)
      .field("i", "int", 4)
      .field("l", "long", 8)
      .field("ll", "long long", 8)
      .field("uc", "unsigned char", 1)
      .field("us", "unsigned short", 2)
      .field("ui", "unsigned int", 4)
      .field("ul", "unsigned long", 8)
      .field("ull", "unsigned long long", 8)
      .field("f", "float", 4)
      .field("d", "double", 8)
      .field("i8", "int8_t", 1)
      .field("i16", "int16_t", 2)
      .field("i32", "int32_t", 4)
      .field("i64", "int64_t", 8)
      .field("u8", "uint8_t", 1)
      .field("u16", "uint16_t", 2)
      .field("u32", "uint32_t", 4)
      .field("u64", "uint64_t", 8)
      .field("ts", "timestamp", 8);
  return t;
}

EventType& EventType::field(std::string field_name, std::string type_name, uint64_t type_size,
                            uint16_t array_length, std::string counting_mode) {
  EventField f;
  f.name = std::move(field_name);
  f.type_name = std::move(type_name);
  f.type_size = type_size;
  f.offset = size;
  f.counting_mode = std::move(counting_mode);
  if (array_length != 1) f.array_length = array_length;
  size += type_size * (array_length == 0 ? 1 : array_length);
  fields.push_back(std::move(f));
  return *this;
}

EventType& EventType::add(EventField field) {
  fields.push_back(std::move(field));
  return *this;
}

EventType& EventType::record_size(uint64_t record_size) {
  size = record_size;
  return *this;
}

EventType& EventType::index(uint16_t position) {
  fields.back().index = position;
  return *this;
}

EventSchema& EventSchema::type(EventType type) {
  types.push_back(std::move(type));
  return *this;
}

std::string EventSchema::json() const {
  using nlohmann::ordered_json;
  ordered_json doc;
  doc["title"] = "Nimbrel schema";
  doc["nmb_version"] = nmb_version;
  doc["provider_name"] = provider_name;
  doc["provider_version"] = provider_version;
  ordered_json types_json = ordered_json::array();
  for (size_t t = 0; t < types.size(); ++t) {
    const EventType& type = types[t];
    ordered_json fields = ordered_json::array();
    for (const EventField& f : type.fields) {
      ordered_json fj;
      fj["field_name"] = f.name;
      fj["description"] = f.description;
      fj["type_name"] = f.type_name;
      fj["counting_mode"] = f.counting_mode;
      if (f.array_length) fj["array_length"] = *f.array_length;
      fj["offset"] = f.offset;
      fj["type_size"] = f.type_size;
      if (f.index) fj["index"] = *f.index;
      fields.push_back(std::move(fj));
    }
    ordered_json tj;
    tj["name"] = type.name;
    tj["size"] = type.size;
    tj["fields"] = std::move(fields);
    tj["type_index"] = t;
    types_json.push_back(std::move(tj));
  }
  doc["types"] = std::move(types_json);
  return doc.dump(4);
}

CounterGroup& CounterGroup::counter(std::string counter_name, std::string data_type,
                                    uint32_t length) {
  Counter c;
  c.name = std::move(counter_name);
  c.data_type = std::move(data_type);
  if (length) c.length = length;
  counters.push_back(std::move(c));
  return *this;
}

CounterGroup& CounterGroup::add(Counter counter) {
  counters.push_back(std::move(counter));
  return *this;
}

CountersSchema& CountersSchema::group(CounterGroup group) {
  groups.push_back(std::move(group));
  return *this;
}

std::string CountersSchema::json() const {
  using nlohmann::ordered_json;
  ordered_json doc;
  doc["title"] = "Nimbrel performance counters collector";
  doc["version"] = version;
  ordered_json groups_json = ordered_json::array();
  for (const CounterGroup& g : groups) {
    ordered_json gj;
    gj["granularity"] = g.granularity;
    if (g.name) gj["name"] = *g.name;
    if (g.provider) gj["provider"] = *g.provider;
    gj["num_counter_sets"] = g.num_counter_sets;
    gj["num_counters"] = g.counters.size();
    ordered_json counters = ordered_json::array();
    for (const Counter& c : g.counters) {
      ordered_json cj;
      cj["name"] = c.name;
      cj["description"] = c.description;
      cj["units"] = c.units;
      cj["data_type"] = c.data_type;
      if (c.length) cj["length"] = *c.length;
      if (c.hidden) cj["hidden"] = *c.hidden;
      if (c.mandatory) cj["mandatory"] = *c.mandatory;
      cj["counting_type"] = c.counting_type;
      if (c.string_format) cj["string_format"] = *c.string_format;
      if (c.index) cj["index"] = *c.index;
      counters.push_back(std::move(cj));
    }
    gj["counters"] = std::move(counters);
    groups_json.push_back(std::move(gj));
  }
  doc["counter_groups"] = std::move(groups_json);
  return doc.dump(4);
}

std::string schema_file_path(const std::string& dir, const SchemaId& id) {
  return dir + "/schema_" + schema_id_hex(id) + ".json";
}

SchemaId write_schema_file(const std::string& dir, const std::string& text,
                           std::optional<SchemaId> id) {
  SchemaId sid = id.value_or(schema_id_of(text));
  std::filesystem::create_directories(dir);
  write_text_file(schema_file_path(dir, sid), text);
  return sid;
}

SchemaId write_schema_file(const std::string& dir, const EventSchema& schema,
                           std::optional<SchemaId> id) {
  return write_schema_file(dir, schema.json(), id);
}

SchemaId write_schema_file(const std::string& dir, const CountersSchema& schema,
                           std::optional<SchemaId> id) {
  return write_schema_file(dir, schema.json(), id);
}

}  // namespace nmb::test
