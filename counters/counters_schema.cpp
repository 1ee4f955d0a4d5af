#include "counters/counters_schema.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <optional>

#include <openssl/evp.h>

#include "counters/counters_schema_json.h"
#include "data/version.h"
#include "utils/json_input.h"
#include "utils/json_writer.h"
#include "utils/log.h"

namespace {

using nmb::Json;

constexpr const char* kSchemaTemplate = "{\"version\" : \"\", \"counter_groups\" : []}";
constexpr const char* kGroupTemplate =
    "{\"granularity\" : \"\", \"num_counters\" : 0, \"num_counter_sets\" : 0, \"counters\" : []}";
constexpr const char* kCounterTemplate =
    "{\"name\" : \"\", \"description\" : \"\", \"units\" : \"\", \"data_type\" : \"\", "
    "\"counting_type\" : \"\"}";

constexpr const char* kDataTypeNames[] = {"Undefined", "UINT64", "FP64",    "BIT64",
                                          "INT64",     "STRING", "UINT128", "INT128"};
constexpr const char* kStringFormatNames[] = {"DEFAULT", "DECIMAL", "HEXADECIMAL", "UUID",
                                              "BINARY"};
constexpr const char* kCountingTypeNames[] = {"ABSOLUTE", "RUNNING_SUM", "DELTA"};
constexpr const char* kGranularityNames[] = {"NODE", "CPU", "PACKAGE"};

template <size_t N>
int32_t lookup_value(const char* const (&names)[N], const char* name) {
  if (!name) return -1;
  for (size_t i = 0; i < N; ++i)
    if (std::strcmp(names[i], name) == 0) return static_cast<int32_t>(i);
  return -1;
}

template <size_t N>
const char* lookup_name(const char* const (&names)[N], int32_t value) {
  return value >= 0 && static_cast<size_t>(value) < N ? names[value] : nullptr;
}

// Matches a document part against its template (a literal, parsed once).
bool matches(const Json& value, const char* templ_text, const std::optional<Json>& templ) {
  if (!templ) {
    NMB_LOG(NMB_LOG_ERROR, "Unable to parse schema to JSON value: '%s'", templ_text);
    return false;
  }
  return nmb::json_matches_template(value, *templ);
}

bool matches_schema(const Json& value) {
  static const std::optional<Json> templ = nmb::json_parse_text(kSchemaTemplate);
  return matches(value, kSchemaTemplate, templ);
}
bool matches_group(const Json& value) {
  static const std::optional<Json> templ = nmb::json_parse_text(kGroupTemplate);
  return matches(value, kGroupTemplate, templ);
}
bool matches_counter(const Json& value) {
  static const std::optional<Json> templ = nmb::json_parse_text(kCounterTemplate);
  return matches(value, kCounterTemplate, templ);
}

// A string member as the C string it would be (cut at a zero byte); empty
// when absent or not a string.
std::optional<std::string> get_string(const Json& object, const char* key) {
  auto found = object.find(key);
  if (found == object.end() || !found->is_string()) return std::nullopt;
  const std::string& text = found->get_ref<const std::string&>();
  return std::string(text.c_str());
}

// A number member; 0 when absent or not a number (a JSON true reads as 0).
double get_number(const Json& object, const char* key) {
  double value = 0;
  return nmb::json_get_double(object, key, value) ? value : 0;
}

// Number to an unsigned integer field the way a C conversion through a 64-bit
// integer truncates it; values that fit no 64-bit integer give 0.
uint64_t number_bits(double value) {
  if (!std::isfinite(value) || value >= 9223372036854775808.0 || value < -9223372036854775808.0)
    return 0;
  return static_cast<uint64_t>(static_cast<int64_t>(value));
}

std::optional<nmb_counter_info_t> counter_from_json(const Json& value) {
  if (!matches_counter(value)) {
    NMB_LOG(NMB_LOG_ERROR, "JSON does not match schema '%s'", kCounterTemplate);
    return std::nullopt;
  }
  nmb_counter_info_t counter;
  counter.name = *get_string(value, "name");
  counter.description = *get_string(value, "description");
  counter.units = *get_string(value, "units");
  counter.data_type = nmb_counter_data_type_from_name(get_string(value, "data_type")->c_str());
  counter.counting_type = nmb_counting_type_from_name(get_string(value, "counting_type")->c_str());
  auto format = get_string(value, "string_format");
  counter.string_format = format ? nmb_string_format_from_name(format->c_str()) : 0;
  counter.length = static_cast<uint32_t>(number_bits(get_number(value, "length")));
  counter.offset = static_cast<uint32_t>(number_bits(get_number(value, "offset")));
  counter.hidden = get_number(value, "hidden") != 0;
  counter.mandatory = get_number(value, "mandatory") != 0;
  counter.index = static_cast<uint16_t>(number_bits(get_number(value, "index")));
  return counter;
}

std::optional<nmb_counter_group_t> group_from_json(const Json& value,
                                                   const nmb_counter_filter_t* filter) {
  if (!matches_group(value)) {
    NMB_LOG(NMB_LOG_ERROR, "JSON does not match schema '%s'", kGroupTemplate);
    return std::nullopt;
  }
  nmb_counter_group_t group;
  group.num_counter_sets =
      static_cast<uint32_t>(number_bits(get_number(value, "num_counter_sets")));
  group.granularity = nmb_granularity_from_name(get_string(value, "granularity")->c_str());
  if (auto name = get_string(value, "name")) {
    group.has_name = true;
    group.name = std::move(*name);
  }
  if (auto provider = get_string(value, "provider")) {
    group.has_provider = true;
    group.provider = std::move(*provider);
  }
  const Json& counters = value["counters"];
  group.counters.reserve(counters.size());
  for (const Json& item : counters) {
    auto counter = counter_from_json(item);
    if (!counter) return std::nullopt;
    if (filter && filter->include && !filter->include(filter->context, counter->name.c_str())) {
      NMB_LOG(NMB_LOG_DEBUG,
              "Skipping counter '%s' as it is not included in the provided counter set",
              counter->name.c_str());
      continue;
    }
    group.counters.push_back(std::move(*counter));
  }
  group.num_counters = static_cast<uint32_t>(group.counters.size());
  return group;
}

// The bytes a counter takes in the offset computation (0 for a STRING
// without a length, which stops the computation).
uint32_t offset_size(const nmb_counter_info_t& counter) {
  switch (counter.data_type) {
    case NMB_COUNTER_DATA_TYPE_STRING:
      return counter.length;
    case NMB_COUNTER_DATA_TYPE_UINT128:
    case NMB_COUNTER_DATA_TYPE_INT128:
      return 16;
    default:
      return counter.length ? counter.length : 8;
  }
}

const char* group_name_or_null(const nmb_counter_group_t& group) {
  return group.has_name ? group.name.c_str() : "(null)";
}

}  // namespace

int32_t nmb_counter_data_type_from_name(const char* name) {
  return lookup_value(kDataTypeNames, name);
}
const char* nmb_counter_data_type_name(int32_t value) {
  return lookup_name(kDataTypeNames, value);
}
int32_t nmb_string_format_from_name(const char* name) {
  return lookup_value(kStringFormatNames, name);
}
const char* nmb_string_format_name(int32_t value) {
  return lookup_name(kStringFormatNames, value);
}
int32_t nmb_counting_type_from_name(const char* name) {
  return lookup_value(kCountingTypeNames, name);
}
const char* nmb_counting_type_name(int32_t value) {
  return lookup_name(kCountingTypeNames, value);
}
int32_t nmb_granularity_from_name(const char* name) {
  return lookup_value(kGranularityNames, name);
}
const char* nmb_granularity_name(int32_t value) {
  const char* name = lookup_name(kGranularityNames, value);
  return name ? name : "unknown";
}

std::unique_ptr<nmb_counters_schema_t> nmb_counters_schema_from_json(
    const Json& value, const nmb_counter_filter_t* filter) {
  if (!matches_schema(value)) {
    NMB_LOG(NMB_LOG_WARNING, "JSON does not match schema '%s'", kSchemaTemplate);
    return nullptr;
  }
  // An incompatible version is only reported: counters schemas load anyway.
  std::string version = *get_string(value, "version");
  if (!nmb_version_is_compatible(version.c_str(), NMB_COUNTERS_SCHEMA_VERSION)) {
    NMB_LOG(NMB_LOG_ERROR,
            "Version '%s' of parsing schema is incompatible with current schema version '%s'",
            version.c_str(), NMB_COUNTERS_SCHEMA_VERSION);
  }
  auto schema = std::make_unique<nmb_counters_schema_t>();
  const Json& groups = value["counter_groups"];
  if (!groups.is_array()) {
    NMB_LOG(NMB_LOG_ERROR, "Schema JSON is missing counter groups information");
    return nullptr;
  }
  schema->groups.reserve(groups.size());
  for (const Json& item : groups) {
    auto group = group_from_json(item, filter);
    if (!group) {
      NMB_LOG(NMB_LOG_ERROR, "Failed to decode counter group from JSON");
      return nullptr;
    }
    if (filter && filter->include && group->counters.empty()) {
      NMB_LOG(NMB_LOG_DEBUG,
              "No counters found in the counter group after filtering by counter set");
      continue;
    }
    schema->groups.push_back(std::move(*group));
  }
  schema->num_groups = static_cast<uint32_t>(schema->groups.size());
  nmb_counters_schema_update_counter_offsets(*schema);
  schema->size = nmb_counters_schema_size_of_counters(*schema);
  return schema;
}

std::unique_ptr<nmb_counters_schema_t> nmb_counters_schema_from_text(
    const char* text, size_t length, const nmb_counter_filter_t* filter) {
  auto value = nmb::json_parse_text(std::string_view(text, length));
  if (!value) return nullptr;
  return nmb_counters_schema_from_json(*value, filter);
}

std::unique_ptr<nmb_counters_schema_t> nmb_counters_schema_load_file(
    const char* path, const nmb_counter_filter_t* filter) {
  errno = 0;
  auto value = nmb::json_parse_file(path);
  if (!value) {
    NMB_LOG(NMB_LOG_ERROR, "Failed reading counters schema JSON from file '%s': %s", path,
            std::strerror(errno));
    return nullptr;
  }
  auto schema = nmb_counters_schema_from_json(*value, filter);
  if (!schema)
    NMB_LOG(NMB_LOG_ERROR, "Failed to parse JSON into counters schema for file '%s'.", path);
  return schema;
}

void nmb_counters_schema_update_counter_offsets(nmb_counters_schema_t& schema) {
  uint32_t offset = 0;
  for (auto& group : schema.groups) {
    for (auto& counter : group.counters) {
      uint32_t size = offset_size(counter);
      if (size == 0) {
        // Only a STRING without a length gets here; the counters from this one
        // on keep the offsets their documents gave.
        NMB_LOG(NMB_LOG_ERROR, "[%s] Fail: received 0 length string counter %s",
                "nmb_counters_schema_update_counter_offsets", counter.name.c_str());
        return;
      }
      counter.offset = offset;
      NMB_LOG(NMB_LOG_DEBUG, "[schema] Set up counter %s  size=%d  offset=%d", counter.name.c_str(),
              static_cast<int>(counter.length), static_cast<int>(offset));
      offset += size;
    }
  }
}

uint32_t nmb_counters_schema_size_of_counters(const nmb_counters_schema_t& schema) {
  static const char* const kFunction = "nmb_counters_schema_size_of_counters";
  uint32_t size = 0;
  for (const auto& group : schema.groups) {
    NMB_LOG(NMB_LOG_DEBUG, "%s group %s has %d counter sets", kFunction, group_name_or_null(group),
            static_cast<int>(group.num_counter_sets));
    for (const auto& counter : group.counters) {
      switch (counter.data_type) {
        case NMB_COUNTER_DATA_TYPE_STRING:
          size += counter.length;
          break;
        case NMB_COUNTER_DATA_TYPE_UINT128:
        case NMB_COUNTER_DATA_TYPE_INT128:
          size += 16;
          break;
        default:
          size += 8;  // a declared length is not counted here
      }
    }
  }
  NMB_LOG(NMB_LOG_DEBUG, "%s returning %d d", kFunction, static_cast<int>(size));
  return size;
}

uint32_t nmb_counters_schema_number_of_counters(const nmb_counters_schema_t& schema) {
  uint32_t count = 0;
  for (const auto& group : schema.groups) {
    if (group.num_counter_sets != 1) {
      NMB_LOG(NMB_LOG_ERROR, "[%s] num_counter_sets should be 1, not %d",
              "nmb_counters_schema_number_of_counters", static_cast<int>(group.num_counter_sets));
      return 0;
    }
    count += group.num_counters;
  }
  return count;
}

namespace {

// Writes a string member; false when the text is not valid UTF-8.
bool string_member(nmb::JsonWriter& w, const char* key, const char* text) {
  if (text == nullptr) return true;  // a missing name leaves the member out
  w.key(key);
  return w.string(text);
}

bool jsonify_counter(nmb::JsonWriter& w, const nmb_counter_info_t& counter) {
  w.begin_object();
  bool ok = string_member(w, "name", counter.name.c_str()) &&
            string_member(w, "description", counter.description.c_str()) &&
            string_member(w, "units", counter.units.c_str()) &&
            string_member(w, "data_type", nmb_counter_data_type_name(counter.data_type));
  if (!ok) return false;
  w.key("length");
  w.number(counter.length);
  w.key("offset");
  w.number(counter.offset);
  w.key("hidden");
  w.number(counter.hidden ? 1 : 0);
  w.key("mandatory");
  w.number(counter.mandatory ? 1 : 0);
  if (!string_member(w, "counting_type", nmb_counting_type_name(counter.counting_type)) ||
      !string_member(w, "string_format", nmb_string_format_name(counter.string_format)))
    return false;
  w.key("index");
  w.number(counter.index);
  w.end_object();
  return true;
}

bool jsonify_group(nmb::JsonWriter& w, const nmb_counter_group_t& group) {
  w.begin_object();
  if (!string_member(w, "granularity", nmb_granularity_name(group.granularity)) ||
      !string_member(w, "name", group.has_name ? group.name.c_str() : nullptr) ||
      !string_member(w, "provider", group.has_provider ? group.provider.c_str() : nullptr))
    return false;
  w.key("num_counter_sets");
  w.number(group.num_counter_sets);
  w.key("num_counters");
  w.number(group.num_counters);
  w.key("counters");
  w.begin_array();
  for (const auto& counter : group.counters)
    if (!jsonify_counter(w, counter)) return false;
  w.end_array();
  w.end_object();
  return true;
}

}  // namespace

std::string nmb_counters_schema_jsonify(const nmb_counters_schema_t& schema) {
  std::string text;
  nmb::JsonWriter w(text, true);
  w.begin_object();
  w.key("title");
  w.string("Nimbrel performance counters collector");
  w.key("version");
  w.string(NMB_COUNTERS_SCHEMA_VERSION);
  w.key("counter_groups");
  w.begin_array();
  for (size_t i = 0; i < schema.groups.size(); ++i) {
    if (!jsonify_group(w, schema.groups[i])) {
      NMB_LOG(NMB_LOG_ERROR, "Failed to JSONify counter group #%d", static_cast<int>(i));
      return {};
    }
  }
  w.end_array();
  w.end_object();
  return text;
}

bool nmb_counters_schema_md5(const nmb_counters_schema_t& schema, uint8_t (&digest)[16]) {
  std::string text = nmb_counters_schema_jsonify(schema);
  if (text.empty()) return false;
  unsigned int length = 0;
  return EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr) == 1 &&
         length == 16;
}
