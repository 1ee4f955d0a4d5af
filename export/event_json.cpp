#include "export/event_json.h"

#include <cstring>
#include <string>
#include <string_view>

#include "export/event_plan.h"
#include "export/value_format.h"
#include "utils/log.h"

namespace {

using Kind = nmb_value_kind_t;
using Shape = nmb_value_shape_t;

constexpr int64_t kExact = int64_t{1} << 53;

bool write_members(nmb::JsonWriter& w, const nmb_event_plan_t& plan, const nmb::ByteView& rec,
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

bool write_element(nmb::JsonWriter& w, const nmb_field_plan_t& field, const nmb::ByteView& rec,
                   uint64_t at) {
  switch (field.kind) {
    case Kind::kU8:
      w.integer(rec.get<uint8_t>(at));
      return true;
    case Kind::kI8:
      w.integer(rec.get<int8_t>(at));
      return true;
    case Kind::kI16:
      w.integer(rec.get<int16_t>(at));
      return true;
    case Kind::kI32:
      w.integer(rec.get<int32_t>(at));
      return true;
    case Kind::kI64: {
      // Exact in a double below 2^53: the same digits either way.
      const int64_t v = rec.get<int64_t>(at);
      if (v > -kExact && v < kExact) {
        w.integer(v);
        return true;
      }
      return w.number(static_cast<double>(v));
    }
    case Kind::kU16:
      w.integer(rec.get<uint16_t>(at));
      return true;
    case Kind::kU32:
      w.integer(rec.get<uint32_t>(at));
      return true;
    case Kind::kU64: {
      const uint64_t v = rec.get<uint64_t>(at);
      if (v < static_cast<uint64_t>(kExact)) {
        w.integer(static_cast<int64_t>(v));
        return true;
      }
      return w.number(static_cast<double>(v));
    }
    case Kind::kF32:
      return w.number(rec.get<float>(at));
    case Kind::kF64:
      return w.number(rec.get<double>(at));
    case Kind::kHex64:
      write_guid(w, rec.get<uint64_t>(at));
      return true;
    case Kind::kNested:
      w.begin_object();
      if (field.nested != nullptr && !write_members(w, *field.nested, rec, at)) return false;
      w.end_object();
      return true;
  }
  return false;
}

bool write_value(nmb::JsonWriter& w, const nmb_field_plan_t& field, const nmb::ByteView& rec,
                 uint64_t base) {
  const uint64_t at = base + field.offset;
  if (field.guid_like && nmb_event_guid_conversion_on()) {
    write_guid(w, rec.get<uint64_t>(at));
    return true;
  }
  switch (field.shape) {
    case Shape::kScalar:
      return write_element(w, field, rec, at);
    case Shape::kCharString: {
      if (w.string(rec.chars(at, field.count))) return true;
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
bool check_value(const nmb_field_plan_t& field, const nmb::ByteView& rec, uint64_t base,
                 bool pretty, std::string& out) {
  size_t mark = out.size();
  nmb::JsonWriter scratch(out, pretty);
  bool ok = write_value(scratch, field, rec, base);
  out.resize(mark);
  return ok;
}

bool write_members(nmb::JsonWriter& w, const nmb_event_plan_t& plan, const nmb::ByteView& rec,
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

// The formatted header timestamp as a JSON string value (empty when it is not
// valid UTF-8, as string() then writes nothing). Records of a block share
// it, so the text is validated and quoted once while it stays the same.
std::string_view quoted_header_timestamp(const nmb_header_timestamp_t& ts) {
  struct Last {
    std::string text;
    std::string quoted;
  };
  static thread_local Last last;  // one per thread with -j
  const std::string_view text(ts.formatted, ts.formatted_length);
  if (text != last.text || last.quoted.empty()) {
    last.text.assign(text);
    last.quoted.clear();
    nmb::json_append_string(last.quoted, text);
  }
  return last.quoted;
}

}  // namespace

bool nmb_event_record_to_json(nmb::JsonWriter& w, const nmb_event_plan_t& plan, nmb::ByteView rec,
                              const nmb_header_timestamp_t& ts) {
  const bool replaces = plan.header_timestamp_member >= 0 || plan.formatted_timestamp_member >= 0;
  if (!replaces) {
    if (!write_members(w, plan, rec, 0)) return false;
  } else {
    // A field named like an added member: its value is built (it may fail) and
    // then replaced in place.
    for (size_t i = 0; i < plan.members.size(); ++i) {
      const nmb_field_plan_t& field = plan.members[i];
      w.escaped_key(field.key);
      int index = static_cast<int>(i);
      if (index == plan.header_timestamp_member) {
        if (!check_value(field, rec, 0, w.pretty(), w.out())) return false;
        w.number(static_cast<double>(ts.value));
      } else if (index == plan.formatted_timestamp_member && ts.formatted_length != 0) {
        if (!check_value(field, rec, 0, w.pretty(), w.out())) return false;
        w.raw_value(quoted_header_timestamp(ts));
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
    w.raw_value(quoted_header_timestamp(ts));
  }
  return true;
}
