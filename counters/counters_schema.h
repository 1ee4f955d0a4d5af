// Counters schemas: the ordered groups of counters that give the flat value
// area of a counters block its meaning. Offsets are computed at load time from
// the order and sizes of the counters.
// Stage: model.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// Data type of a counter (an unknown name gives -1).
enum nmb_counter_data_type_t : int32_t {
  NMB_COUNTER_DATA_TYPE_UNDEFINED = 0,
  NMB_COUNTER_DATA_TYPE_UINT64 = 1,
  NMB_COUNTER_DATA_TYPE_FP64 = 2,
  NMB_COUNTER_DATA_TYPE_BIT64 = 3,
  NMB_COUNTER_DATA_TYPE_INT64 = 4,
  NMB_COUNTER_DATA_TYPE_STRING = 5,
  NMB_COUNTER_DATA_TYPE_UINT128 = 6,
  NMB_COUNTER_DATA_TYPE_INT128 = 7,
};

// String format of a counter's value (an unknown name gives -1).
enum nmb_string_format_t : int32_t {
  NMB_STRING_FORMAT_DEFAULT = 0,
  NMB_STRING_FORMAT_DECIMAL = 1,
  NMB_STRING_FORMAT_HEXADECIMAL = 2,
  NMB_STRING_FORMAT_UUID = 3,
  NMB_STRING_FORMAT_BINARY = 4,
};

// Counting type of a counter. "ABSOLUTE_MONOTONIC" is not a counters counting
// type (it is one of event fields only) and reads as -1.
enum nmb_counting_type_t : int32_t {
  NMB_COUNTING_TYPE_ABSOLUTE = 0,
  NMB_COUNTING_TYPE_RUNNING_SUM = 1,
  NMB_COUNTING_TYPE_DELTA = 2,
};

// Granularity of a counter group (an unknown value names itself "unknown").
enum nmb_granularity_t : int32_t {
  NMB_GRANULARITY_NODE = 0,
  NMB_GRANULARITY_CPU = 1,
  NMB_GRANULARITY_PACKAGE = 2,
};

inline constexpr const char* NMB_COUNTERS_SCHEMA_VERSION = "1.5.0";

// Name to value (-1 when unknown; exact, case-sensitive) and value to name
// (nullptr when unknown, except granularity which gives "unknown").
int32_t nmb_counter_data_type_from_name(const char* name);
const char* nmb_counter_data_type_name(int32_t value);
int32_t nmb_string_format_from_name(const char* name);
const char* nmb_string_format_name(int32_t value);
int32_t nmb_counting_type_from_name(const char* name);
const char* nmb_counting_type_name(int32_t value);
int32_t nmb_granularity_from_name(const char* name);
const char* nmb_granularity_name(int32_t value);

struct nmb_counter_info_t {
  std::string name;
  std::string description;
  std::string units;
  int32_t data_type = NMB_COUNTER_DATA_TYPE_UNDEFINED;
  int32_t counting_type = NMB_COUNTING_TYPE_ABSOLUTE;
  uint32_t offset = 0;  // byte offset in the value area (computed)
  uint32_t length = 0;  // declared size ("length"), 0 when absent
  bool hidden = false;
  bool mandatory = false;
  uint16_t index = 0;
  int32_t string_format = NMB_STRING_FORMAT_DEFAULT;
};

struct nmb_counter_group_t {
  int32_t granularity = NMB_GRANULARITY_NODE;
  uint32_t num_counter_sets = 0;
  uint32_t num_counters = 0;  // kept counters (== counters.size())
  std::vector<nmb_counter_info_t> counters;
  bool has_name = false;
  std::string name;
  bool has_provider = false;
  std::string provider;
};

struct nmb_counters_schema_t {
  uint32_t size = 0;  // total size of the value area
  uint32_t num_groups = 0;
  std::vector<nmb_counter_group_t> groups;
};

// Decides whether a counter name is kept (the -C counter set); nullptr keeps all.
struct nmb_counter_filter_t {
  bool (*include)(const void* context, const char* counter_name) = nullptr;
  const void* context = nullptr;
};

// Loads a counters schema file; nullptr on failure (logged).
std::unique_ptr<nmb_counters_schema_t> nmb_counters_schema_load_file(
    const char* path, const nmb_counter_filter_t* filter = nullptr);
// Decodes a counters schema document given as text; nullptr on failure.
std::unique_ptr<nmb_counters_schema_t> nmb_counters_schema_from_text(
    const char* text, size_t length, const nmb_counter_filter_t* filter = nullptr);

void nmb_counters_schema_update_counter_offsets(nmb_counters_schema_t& schema);
uint32_t nmb_counters_schema_size_of_counters(const nmb_counters_schema_t& schema);
uint32_t nmb_counters_schema_number_of_counters(const nmb_counters_schema_t& schema);

// The schema document, pretty-printed (empty on failure), and its MD5 digest.
std::string nmb_counters_schema_jsonify(const nmb_counters_schema_t& schema);
bool nmb_counters_schema_md5(const nmb_counters_schema_t& schema, uint8_t (&digest)[16]);
