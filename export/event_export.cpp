#include "export/event_export.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "data/format.h"
#include "data/reader.h"
#include "data/type_system.h"
#include "export/json_writer.h"
#include "export/value_format.h"
#include "filter/patterns.h"
#include "utils/log.h"
#include "utils/output.h"

// ---- plans --------------------------------------------------------------------
//
// A plan holds, for every member of a type's JSON object, everything that does
// not depend on the record: the escaped key text, where the value lies, how
// many elements it has and how each is rendered. Exporting a record is then
// one pass over the plan, appending to the output buffer.

namespace {

// How one element is read and written.
enum class Kind : uint8_t {
  kU8,
  kI8,
  kI16,
  kI32,
  kI64,
  kU16,
  kU32,
  kU64,
  kF32,
  kF64,
  kHex64,   // 64-bit integer of a field whose name has guid: "0x%016lx"
  kNested,  // a user type: a nested object
};

enum class Shape : uint8_t {
  kScalar,      // array_length 1
  kCharString,  // char or unsigned char array: a string up to the first zero
  kArray,       // any other array
};

struct FieldPlan {
  std::string key;  // quoted and escaped
  std::string name;
  uint64_t offset = 0;
  uint64_t stride = 0;  // the field's type_size
  uint32_t count = 1;
  Shape shape = Shape::kScalar;
  Kind kind = Kind::kU8;
  // A GUID-like name: with the conversion switch on, 8 bytes at the offset as
  // "0x%016lx" whatever the shape and kind.
  bool guid_like = false;
  const nmb_event_plan_t* nested = nullptr;
};

// Bytes of a record: reads beyond `size` (the end of the block) give zeros.
struct RecordBytes {
  const uint8_t* data;
  uint64_t size;

  void load(uint64_t offset, void* out, size_t length) const {
    size_t copied = 0;
    if (offset < size) {
      copied = size - offset < length ? static_cast<size_t>(size - offset) : length;
      std::memcpy(out, data + offset, copied);
    }
    std::memset(static_cast<uint8_t*>(out) + copied, 0, length - copied);
  }
  template <typename T>
  T get(uint64_t offset) const {
    T value;
    if (offset <= size && sizeof value <= size - offset) {
      std::memcpy(&value, data + offset, sizeof value);
    } else {
      load(offset, &value, sizeof value);
    }
    return value;
  }
};

bool kind_can_fail(Kind kind) {
  return kind == Kind::kF32 || kind == Kind::kF64;
}

// The event exporter's own copy of the GUID conversion switch, read when the
// first record is built (not at schema load: reading it may log the warning
// about conflicting environment variables, which belongs to the first export).
bool guid_conversion_on() {
  static const bool on = nmb_read_guid_conversion_switch();
  return on;
}

}  // namespace

struct nmb_event_plan_t {
  const nmb_type_definition_t* type = nullptr;
  // One entry per distinct field name, at the position of its first
  // occurrence, describing its last occurrence (a later field of the same name
  // replaces the value in place).
  std::vector<FieldPlan> members;
  // Replaced occurrences whose value can fail to build (strings, floats): the
  // record still fails when one of them does, so they are built and dropped.
  std::vector<FieldPlan> checks;
  // Members named like the two keys added to every top-level record: there
  // the added value replaces the field's (-1: no such member).
  int header_timestamp_member = -1;
  int formatted_timestamp_member = -1;
  bool can_fail = false;  // some value of a record may fail to build
  int8_t selected = -1;   // -i/-e selection, decided on first use
  std::string influx_measurement;
};

void nmb_event_plan_deleter::operator()(nmb_event_plan_t* plan) const {
  delete plan;
}

namespace {

bool field_can_fail(const FieldPlan& field) {
  if (field.shape == Shape::kCharString) return true;
  if (field.kind == Kind::kNested) return field.nested != nullptr && field.nested->can_fail;
  return kind_can_fail(field.kind);
}

Kind builtin_kind(uint32_t code, bool has_guid) {
  switch (code) {
    case NMB_TYPE_BOOL:
    case NMB_TYPE_UNSIGNED_CHAR:
    case NMB_TYPE_UINT8:
      return Kind::kU8;
    case NMB_TYPE_CHAR:
    case NMB_TYPE_INT8:
      return Kind::kI8;
    case NMB_TYPE_SHORT:
    case NMB_TYPE_INT16:
      return Kind::kI16;
    case NMB_TYPE_INT:
    case NMB_TYPE_INT32:
      return Kind::kI32;
    case NMB_TYPE_LONG:
    case NMB_TYPE_LONG_LONG:
      return Kind::kI64;
    case NMB_TYPE_UNSIGNED_SHORT:
    case NMB_TYPE_UINT16:
      return Kind::kU16;
    case NMB_TYPE_UNSIGNED_INT:
    case NMB_TYPE_UINT32:
      return Kind::kU32;
    case NMB_TYPE_UNSIGNED_LONG:
    case NMB_TYPE_UINT64:
    case NMB_TYPE_UNSIGNED_LONG_LONG:
    case NMB_TYPE_INT64:
      return has_guid ? Kind::kHex64 : (code == NMB_TYPE_INT64 ? Kind::kI64 : Kind::kU64);
    case NMB_TYPE_FLOAT:
      return Kind::kF32;
    case NMB_TYPE_DOUBLE:
      return Kind::kF64;
    default:  // NMB_TYPE_TIMESTAMP
      return Kind::kU64;
  }
}

FieldPlan plan_field(const nmb_type_field_definition_t& field) {
  FieldPlan plan;
  plan.key = nmb::json_escape_key(field.field_name);
  plan.name = field.field_name;
  plan.offset = field.offset;
  plan.stride = field.type_size;
  plan.count = field.array_length;
  const nmb_type_definition_t* type = field.type;
  if (type->type_code == NMB_TYPE_USER) {
    plan.kind = Kind::kNested;
    plan.nested = type->plan.get();
  } else {
    plan.kind = builtin_kind(type->type_code, nmb_name_has_guid(field.field_name.c_str()));
  }
  plan.guid_like = nmb_is_guid_field_name(field.field_name.c_str());
  if (plan.count == 1) {
    plan.shape = Shape::kScalar;
  } else if (type->type_code == NMB_TYPE_CHAR || type->type_code == NMB_TYPE_UNSIGNED_CHAR) {
    plan.shape = Shape::kCharString;
  } else {
    plan.shape = Shape::kArray;
  }
  return plan;
}

void compile_plan(nmb_event_plan_t& plan, const nmb_type_definition_t& type) {
  plan.type = &type;
  plan.influx_measurement.clear();
  for (char c : type.name) {
    if (c == ',' || c == ' ' || c == '\\') plan.influx_measurement.push_back('\\');
    plan.influx_measurement.push_back(c);
  }
  std::vector<FieldPlan> replaced;
  // Member position by name: a schema may hold a great many fields, and a
  // search per field would make the load quadratic.
  std::unordered_map<std::string_view, size_t> position;
  position.reserve(type.fields.size());
  for (const auto& field : type.fields) {
    FieldPlan field_plan = plan_field(field);
    auto [it, added] = position.emplace(field.field_name, plan.members.size());
    if (added) {
      plan.members.push_back(std::move(field_plan));
    } else {
      FieldPlan& member = plan.members[it->second];
      replaced.push_back(std::move(member));
      member = std::move(field_plan);
    }
  }
  // Whether a nested value can fail is known only once every plan of the
  // schema is compiled (below), so replaced nested values are all kept.
  for (auto& field : replaced) {
    if (field_can_fail(field) || field.kind == Kind::kNested)
      plan.checks.push_back(std::move(field));
  }
  for (size_t i = 0; i < plan.members.size(); ++i) {
    if (plan.members[i].name == "header_timestamp")
      plan.header_timestamp_member = static_cast<int>(i);
    if (plan.members[i].name == "@header_timestamp") {
      plan.formatted_timestamp_member = static_cast<int>(i);
    }
  }
}

}  // namespace

bool nmb_event_plans_compile(nmb_schema_t& schema) {
  // Plans refer to the plans of nested types, so all exist before any is filled.
  for (uint32_t t = 0; t < schema.num_types; ++t) {
    if (schema.types[t]) schema.types[t]->plan.reset(new nmb_event_plan_t);
  }
  for (uint32_t t = 0; t < schema.num_types; ++t) {
    if (!schema.types[t]) continue;
    for (const auto& field : schema.types[t]->fields) {
      if (field.type == nullptr) {
        NMB_LOG(NMB_LOG_ERROR, "Field %s of type %s has no resolved type", field.field_name.c_str(),
                schema.types[t]->name.c_str());
        return false;
      }
    }
    compile_plan(*schema.types[t]->plan, *schema.types[t]);
  }
  // Whether a record can fail depends on nested plans: settle it bottom-up.
  // Types never contain themselves (checked at resolution), so this ends
  // after at most one round per nesting level.
  for (bool changed = true; changed;) {
    changed = false;
    for (uint32_t t = 0; t < schema.num_types; ++t) {
      if (!schema.types[t]) continue;
      nmb_event_plan_t& plan = *schema.types[t]->plan;
      if (plan.can_fail) continue;
      bool can_fail = !plan.checks.empty();
      for (const auto& member : plan.members) can_fail = can_fail || field_can_fail(member);
      if (can_fail) {
        plan.can_fail = true;
        changed = true;
      }
    }
  }
  return true;
}

// ---- JSON records -------------------------------------------------------------

namespace {

bool write_members(nmb::JsonWriter& w, const nmb_event_plan_t& plan, const RecordBytes& rec,
                   uint64_t base);

// "0x%016lx" as a string value (always valid UTF-8).
void write_guid(nmb::JsonWriter& w, uint64_t value) {
  char hex[NMB_GUID_HEX_LENGTH + 1];
  nmb_format_guid_hex_into(value, hex);
  char text[NMB_GUID_HEX_LENGTH + 2];
  text[0] = '"';
  std::memcpy(text + 1, hex, NMB_GUID_HEX_LENGTH);
  text[NMB_GUID_HEX_LENGTH + 1] = '"';
  w.raw_value(std::string_view(text, sizeof text));
}

bool write_element(nmb::JsonWriter& w, const FieldPlan& field, const RecordBytes& rec,
                   uint64_t at) {
  switch (field.kind) {
    case Kind::kU8:
      return w.number(rec.get<uint8_t>(at));
    case Kind::kI8:
      return w.number(rec.get<int8_t>(at));
    case Kind::kI16:
      return w.number(rec.get<int16_t>(at));
    case Kind::kI32:
      return w.number(rec.get<int32_t>(at));
    case Kind::kI64:
      return w.number(static_cast<double>(rec.get<int64_t>(at)));
    case Kind::kU16:
      return w.number(rec.get<uint16_t>(at));
    case Kind::kU32:
      return w.number(rec.get<uint32_t>(at));
    case Kind::kU64:
      return w.number(static_cast<double>(rec.get<uint64_t>(at)));
    case Kind::kF32:
      return w.number(rec.get<float>(at));
    case Kind::kF64:
      return w.number(rec.get<double>(at));
    case Kind::kHex64: {
      write_guid(w, rec.get<uint64_t>(at));
      return true;
    }
    case Kind::kNested:
      w.begin_object();
      if (field.nested != nullptr && !write_members(w, *field.nested, rec, at)) return false;
      w.end_object();
      return true;
  }
  return false;
}

bool write_value(nmb::JsonWriter& w, const FieldPlan& field, const RecordBytes& rec,
                 uint64_t base) {
  const uint64_t at = base + field.offset;
  if (field.guid_like && guid_conversion_on()) {
    write_guid(w, rec.get<uint64_t>(at));
    return true;
  }
  switch (field.shape) {
    case Shape::kScalar:
      return write_element(w, field, rec, at);
    case Shape::kCharString: {
      uint64_t length = 0;
      if (at < rec.size) length = rec.size - at < field.count ? rec.size - at : field.count;
      const char* text = reinterpret_cast<const char*>(rec.data) + (length ? at : 0);
      if (w.string(std::string_view(text, static_cast<size_t>(length)))) return true;
      NMB_LOG(NMB_LOG_ERROR, "Failed to serialize field %s of type %s[%u] as string",
              field.name.c_str(), field.kind == Kind::kI8 ? "char" : "unsigned char", field.count);
      return false;
    }
    case Shape::kArray:
      w.begin_array();
      for (uint32_t k = 0; k < field.count; ++k) {
        if (!write_element(w, field, rec, at + k * field.stride)) return false;
      }
      w.end_array();
      return true;
  }
  return false;
}

// Builds a value only to learn whether it can be built; the text is dropped.
bool check_value(const FieldPlan& field, const RecordBytes& rec, uint64_t base, bool pretty,
                 std::string& out) {
  size_t mark = out.size();
  nmb::JsonWriter scratch(out, pretty);
  bool ok = write_value(scratch, field, rec, base);
  out.resize(mark);
  return ok;
}

bool write_members(nmb::JsonWriter& w, const nmb_event_plan_t& plan, const RecordBytes& rec,
                   uint64_t base) {
  for (const auto& field : plan.members) {
    w.escaped_key(field.key);
    if (!write_value(w, field, rec, base)) return false;
  }
  for (const auto& field : plan.checks) {
    if (!check_value(field, rec, base, w.pretty(), w.out())) return false;
  }
  return true;
}

// A block's header timestamp as the text of its two added members.
struct HeaderTimestamp {
  uint64_t value = 0;
  char formatted[64];
  size_t formatted_length = 0;  // 0: formatting failed, the member is left out
};

bool write_top_level(nmb::JsonWriter& w, const nmb_event_plan_t& plan, const RecordBytes& rec,
                     const HeaderTimestamp& ts) {
  const bool replaces = plan.header_timestamp_member >= 0 || plan.formatted_timestamp_member >= 0;
  if (!replaces) {
    if (!write_members(w, plan, rec, 0)) return false;
  } else {
    // A field named like an added member: its value is built (it may fail) and
    // then replaced in place.
    for (size_t i = 0; i < plan.members.size(); ++i) {
      const FieldPlan& field = plan.members[i];
      w.escaped_key(field.key);
      int index = static_cast<int>(i);
      if (index == plan.header_timestamp_member) {
        if (!check_value(field, rec, 0, w.pretty(), w.out())) return false;
        w.number(static_cast<double>(ts.value));
      } else if (index == plan.formatted_timestamp_member && ts.formatted_length != 0) {
        if (!check_value(field, rec, 0, w.pretty(), w.out())) return false;
        w.string(std::string_view(ts.formatted, ts.formatted_length));
      } else if (!write_value(w, field, rec, 0)) {
        return false;
      }
    }
    for (const auto& field : plan.checks) {
      if (!check_value(field, rec, 0, w.pretty(), w.out())) return false;
    }
  }
  if (plan.header_timestamp_member < 0) {
    w.escaped_key("\"header_timestamp\"");
    w.number(static_cast<double>(ts.value));
  }
  if (plan.formatted_timestamp_member < 0 && ts.formatted_length != 0) {
    w.escaped_key("\"@header_timestamp\"");
    w.string(std::string_view(ts.formatted, ts.formatted_length));
  }
  return true;
}

// ---- Influx lines ---------------------------------------------------------------
//
// One line per record: the type name as measurement, every numeric value as a
// field (integers with the "i" suffix, unsigned values above the signed range
// with "u"), char arrays and GUID hex values as string fields, nested values
// and array elements under dotted and indexed keys ("port.rx", "lanes_2"), and
// the header timestamp in nanoseconds. Floats that are not finite are left
// out, since the protocol cannot carry them.

void influx_key(std::string& out, std::string_view name) {
  for (char c : name) {
    if (c == ',' || c == '=' || c == ' ' || c == '\\') out.push_back('\\');
    out.push_back(c);
  }
}

void influx_separator(std::string& out, bool& first) {
  out.push_back(first ? ' ' : ',');
  first = false;
}

void influx_string(std::string& out, std::string_view text) {
  out.push_back('"');
  for (char c : text) {
    if (c == '"' || c == '\\') out.push_back('\\');
    if (c == '\n') {
      out.append("\\n");
      continue;
    }
    out.push_back(c);
  }
  out.push_back('"');
}

void influx_members(std::string& out, const nmb_event_plan_t& plan, const RecordBytes& rec,
                    uint64_t base, std::string& prefix, bool& first);

void influx_element(std::string& out, const FieldPlan& field, const RecordBytes& rec, uint64_t at,
                    std::string& prefix, bool& first) {
  char text[40];
  int length = -1;
  switch (field.kind) {
    case Kind::kU8:
      length = std::snprintf(text, sizeof text, "%ui", rec.get<uint8_t>(at));
      break;
    case Kind::kI8:
      length = std::snprintf(text, sizeof text, "%di", rec.get<int8_t>(at));
      break;
    case Kind::kI16:
      length = std::snprintf(text, sizeof text, "%di", rec.get<int16_t>(at));
      break;
    case Kind::kI32:
      length = std::snprintf(text, sizeof text, "%di", rec.get<int32_t>(at));
      break;
    case Kind::kI64:
      length = std::snprintf(text, sizeof text, "%" PRId64 "i", rec.get<int64_t>(at));
      break;
    case Kind::kU16:
      length = std::snprintf(text, sizeof text, "%ui", rec.get<uint16_t>(at));
      break;
    case Kind::kU32:
      length = std::snprintf(text, sizeof text, "%ui", rec.get<uint32_t>(at));
      break;
    case Kind::kU64: {
      uint64_t v = rec.get<uint64_t>(at);
      length = std::snprintf(text, sizeof text, "%" PRIu64 "%c", v, v > INT64_MAX ? 'u' : 'i');
      break;
    }
    case Kind::kF32:
    case Kind::kF64: {
      double v = field.kind == Kind::kF32 ? rec.get<float>(at) : rec.get<double>(at);
      if (std::isfinite(v)) length = std::snprintf(text, sizeof text, "%.17g", v);
      break;
    }
    case Kind::kHex64: {
      char hex[NMB_GUID_HEX_LENGTH + 1];
      nmb_format_guid_hex_into(rec.get<uint64_t>(at), hex);
      length = std::snprintf(text, sizeof text, "\"%s\"", hex);
      break;
    }
    case Kind::kNested:
      if (field.nested != nullptr) {
        size_t mark = prefix.size();
        prefix.push_back('.');
        influx_members(out, *field.nested, rec, at, prefix, first);
        prefix.resize(mark);
      }
      return;
  }
  if (length <= 0) return;
  influx_separator(out, first);
  out.append(prefix);
  out.push_back('=');
  out.append(text, static_cast<size_t>(length));
}

void influx_members(std::string& out, const nmb_event_plan_t& plan, const RecordBytes& rec,
                    uint64_t base, std::string& prefix, bool& first) {
  for (const auto& field : plan.members) {
    size_t mark = prefix.size();
    influx_key(prefix, field.name);
    const uint64_t at = base + field.offset;
    if (field.guid_like && guid_conversion_on()) {
      char hex[NMB_GUID_HEX_LENGTH + 1];
      nmb_format_guid_hex_into(rec.get<uint64_t>(at), hex);
      influx_separator(out, first);
      out.append(prefix);
      out.push_back('=');
      influx_string(out, hex);
    } else if (field.shape == Shape::kCharString) {
      uint64_t length = 0;
      if (at < rec.size) length = rec.size - at < field.count ? rec.size - at : field.count;
      std::string_view text(reinterpret_cast<const char*>(rec.data) + (length ? at : 0),
                            static_cast<size_t>(length));
      text = text.substr(0, text.find('\0'));
      influx_separator(out, first);
      out.append(prefix);
      out.push_back('=');
      influx_string(out, text);
    } else if (field.shape == Shape::kArray) {
      for (uint32_t k = 0; k < field.count; ++k) {
        size_t element_mark = prefix.size();
        char index[16];
        std::snprintf(index, sizeof index, "_%u", k);
        prefix.append(index);
        influx_element(out, field, rec, at + k * field.stride, prefix, first);
        prefix.resize(element_mark);
      }
    } else {
      influx_element(out, field, rec, at, prefix, first);
    }
    prefix.resize(mark);
  }
}

// ---- one record -------------------------------------------------------------------

bool export_event(nmb_reader_context_t& reader, const nmb_event_plan_t& plan,
                  const RecordBytes& rec, const HeaderTimestamp& ts, std::string& scratch) {
  const int format = reader.options->format;
  std::string& out = nmb::stdout_buffer().text();
  switch (format) {
    case NMB_FORMAT_JSON:
    case NMB_FORMAT_NDJSON: {
      const size_t mark = out.size();
      guid_conversion_on();  // read on the first record built, as its first field asks
      nmb_reader_begin_json_record(reader);
      nmb::JsonWriter w(out, format == NMB_FORMAT_JSON);
      w.begin_object();
      if (!write_top_level(w, plan, rec, ts)) {
        out.resize(mark);  // the record is taken back whole
        nmb_reader_report(reader, "Failed to JSONify event values");
        return false;
      }
      w.end_object();
      if (format == NMB_FORMAT_NDJSON) out.push_back('\n');
      break;
    }
    case NMB_FORMAT_CSV:
      nmb_reader_report(reader, "CSV output is not supported yet");
      break;
    case NMB_FORMAT_TXT:
      nmb_reader_report(reader, "Text output is not yet supported for counters data");
      break;
    case NMB_FORMAT_INFLUX: {
      const size_t mark = out.size();
      guid_conversion_on();
      out.append(plan.influx_measurement);
      bool first = true;
      scratch.clear();
      influx_members(out, plan, rec, 0, scratch, first);
      if (first) {
        out.resize(mark);
        nmb_reader_report(reader, "Failed to serialize event data to Influx line API format");
        return false;
      }
      char time[32];
      int length = std::snprintf(time, sizeof time, " %" PRIu64 "000\n", ts.value);
      out.append(time, static_cast<size_t>(length));
      break;
    }
    default:
      nmb_reader_report(reader, "Unknown output format %d", format);
      return false;
  }
  ++reader.records_written;
  nmb::stdout_buffer().commit();
  return true;
}

}  // namespace

size_t nmb_export_events_block(nmb_reader_context_t& reader, std::span<const uint8_t> block) {
  // The header is read from a zero-padded copy, so a short block cannot be
  // read beyond its end.
  uint8_t header[NMB_EVENT_BLOCK_HEADER_SIZE] = {};
  std::memcpy(header, block.data(), std::min(block.size(), sizeof header));
  if (reader.options->print_headers) nmb_print_event_block_header(header);

  const uint32_t schema_index = header[NMB_EVENT_BLOCK_SCHEMA_INDEX];
  // The type index is stored in 16 bits, but types are numbered in 8 (a
  // schema holds at most 254): only its low byte names the type.
  const uint32_t type_index = nmb_load_u16(header + NMB_EVENT_BLOCK_TYPE_INDEX) & 0xFF;
  const uint32_t num_events = header[NMB_EVENT_BLOCK_NUM_EVENTS];
  const nmb_type_system_t* ts = reader.type_system.get();
  const nmb_schema_t* schema =
      ts != nullptr && schema_index < ts->num_schemas ? ts->schemas[schema_index].get() : nullptr;
  const nmb_type_definition_t* type = schema != nullptr && type_index < schema->num_types
                                          ? schema->types[type_index].get()
                                          : nullptr;
  if (type == nullptr || !type->plan) {
    NMB_LOG(NMB_LOG_ERROR, "Type definition %u:%u not found", schema_index, type_index);
    return 0;
  }
  nmb_event_plan_t& plan = *type->plan;
  if (plan.selected < 0) {
    plan.selected = nmb_type_name_is_selected(type->name.c_str(), reader.options->include,
                                              reader.options->exclude)
                        ? 1
                        : 0;
  }
  const uint64_t size = type->size;
  const size_t length = block.size();
  if (num_events == 0 || length < NMB_EVENT_BLOCK_HEADER_SIZE ||
      size > length - NMB_EVENT_BLOCK_HEADER_SIZE) {
    return NMB_EVENT_BLOCK_HEADER_SIZE;
  }
  HeaderTimestamp ts_text;
  ts_text.value = nmb_load_u64(header + NMB_EVENT_BLOCK_TIMESTAMP);
  if (plan.selected) {
    ts_text.formatted_length =
        nmb_format_timestamp_into(ts_text.value, reader.options->microsecond_precision,
                                  ts_text.formatted, sizeof ts_text.formatted);
  }
  static thread_local std::string influx_prefix;
  size_t offset = NMB_EVENT_BLOCK_HEADER_SIZE;
  for (uint32_t n = 0; n < num_events && size <= length - offset; ++n) {
    if (plan.selected) {
      RecordBytes rec{block.data() + offset, length - offset};
      if (!export_event(reader, plan, rec, ts_text, influx_prefix)) {
        NMB_LOG(NMB_LOG_ERROR, "Failed to print");
        return 0;
      }
    }
    offset += size;
  }
  return offset;
}
