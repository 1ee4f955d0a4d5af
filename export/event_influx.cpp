#include "export/event_influx.h"

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <string_view>

#include "export/event_plan.h"
#include "export/value_format.h"

namespace {

using Kind = nmb_value_kind_t;
using Shape = nmb_value_shape_t;

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

void influx_members(std::string& out, const nmb_event_plan_t& plan, const nmb::ByteView& rec,
                    uint64_t base, std::string& prefix, bool& first);

void influx_element(std::string& out, const nmb_field_plan_t& field, const nmb::ByteView& rec,
                    uint64_t at, std::string& prefix, bool& first) {
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

void influx_members(std::string& out, const nmb_event_plan_t& plan, const nmb::ByteView& rec,
                    uint64_t base, std::string& prefix, bool& first) {
  for (const auto& field : plan.members) {
    size_t mark = prefix.size();
    influx_key(prefix, field.name);
    const uint64_t at = base + field.offset;
    if (field.guid_like && nmb_event_guid_conversion_on()) {
      char hex[NMB_GUID_HEX_LENGTH + 1];
      nmb_format_guid_hex_into(rec.get<uint64_t>(at), hex);
      influx_separator(out, first);
      out.append(prefix);
      out.push_back('=');
      influx_string(out, hex);
    } else if (field.shape == Shape::kCharString) {
      std::string_view text = rec.chars(at, field.count);
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

}  // namespace

bool nmb_event_record_to_influx(std::string& out, const nmb_event_plan_t& plan,
                                nmb::ByteView record, uint64_t header_timestamp,
                                std::string& scratch) {
  const size_t mark = out.size();
  out.append(plan.influx_measurement);
  bool first = true;
  scratch.clear();
  influx_members(out, plan, record, 0, scratch, first);
  if (first) {
    out.resize(mark);
    return false;
  }
  char time[32];
  int length = std::snprintf(time, sizeof time, " %" PRIu64 "000\n", header_timestamp);
  out.append(time, static_cast<size_t>(length));
  return true;
}
