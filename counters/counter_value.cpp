#include "counters/counter_value.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <string_view>

#include "data/format.h"
#include "export/value_format.h"
#include "utils/json_writer.h"
#include "utils/log.h"

using Kind = nmb_counter_render_kind_t;

nmb_counter_render_t nmb_counter_render_compile(const nmb_counter_info_t& counter) {
  nmb_counter_render_t r;
  r.format = counter.string_format;
  r.offset = counter.offset;
  r.length = counter.length;
  r.name = counter.name.c_str();
  const int32_t format = counter.string_format;
  const bool has_guid = nmb_name_has_guid(r.name);
  const bool plain = format == NMB_STRING_FORMAT_DEFAULT || format == NMB_STRING_FORMAT_DECIMAL;
  switch (counter.data_type) {
    case NMB_COUNTER_DATA_TYPE_UINT64:
    case NMB_COUNTER_DATA_TYPE_BIT64:
      if (format == NMB_STRING_FORMAT_DEFAULT)
        r.kind = counter.data_type == NMB_COUNTER_DATA_TYPE_BIT64 || has_guid
                     ? Kind::kHex
                     : Kind::kUnsignedNumber;
      else if (format == NMB_STRING_FORMAT_DECIMAL)
        r.kind = has_guid ? Kind::kHex : Kind::kUnsignedNumber;
      else
        r.kind = Kind::kUnsignedFormatted;
      break;
    case NMB_COUNTER_DATA_TYPE_FP64:
      r.kind = plain ? Kind::kDoubleNumber : Kind::kDoubleFormatted;
      break;
    case NMB_COUNTER_DATA_TYPE_INT64:
      r.kind = plain ? Kind::kSignedNumber : Kind::kSignedFormatted;
      break;
    case NMB_COUNTER_DATA_TYPE_STRING:
      r.kind = Kind::kString;
      break;
    case NMB_COUNTER_DATA_TYPE_UINT128:
    case NMB_COUNTER_DATA_TYPE_INT128:
      r.kind = counter.data_type == NMB_COUNTER_DATA_TYPE_UINT128 ? Kind::kUnsigned128
                                                                  : Kind::kSigned128;
      // DEFAULT counts as DECIMAL: the plain hex digits, with the warning.
      if (format == NMB_STRING_FORMAT_DEFAULT) r.format = NMB_STRING_FORMAT_DECIMAL;
      break;
    default:
      r.kind = Kind::kSignedNumber;
  }
  // Whatever the data type: the switch is read when the value is written.
  if (format == NMB_STRING_FORMAT_DECIMAL && nmb_is_guid_field_name(r.name)) {
    r.unswitched = r.kind;
    r.kind = Kind::kGuidSwitched;
  }
  return r;
}

bool nmb_counters_guid_switch() {
  static const bool on = nmb_read_guid_conversion_switch();
  return on;
}

namespace {

uint64_t value_end(Kind kind, uint32_t offset) {
  switch (kind) {
    case Kind::kString:
      return 0;
    case Kind::kUnsigned128:
    case Kind::kSigned128:
      return uint64_t{offset} + 16;
    default:
      return uint64_t{offset} + 8;
  }
}

}  // namespace

uint64_t nmb_counter_value_end(const nmb_counter_render_t& render) {
  if (render.kind == Kind::kGuidSwitched)
    return std::max(uint64_t{render.offset} + 8, value_end(render.unswitched, render.offset));
  return value_end(render.kind, render.offset);
}

bool nmb_counter_value_room_varies(const nmb_counter_render_t& render) {
  return render.kind == Kind::kString ||
         (render.kind == Kind::kGuidSwitched && render.unswitched == Kind::kString);
}

size_t nmb_counter_value_room(const nmb_counter_render_t& render, const nmb::ByteView& values) {
  switch (render.kind) {
    case Kind::kGuidSwitched: {
      nmb_counter_render_t unswitched = render;
      unswitched.kind = render.unswitched;
      return std::max<size_t>(NMB_GUID_HEX_LENGTH + 2, nmb_counter_value_room(unswitched, values));
    }
    case Kind::kUnsignedNumber:
    case Kind::kSignedNumber:
    case Kind::kDoubleNumber:
      return nmb::kJsonNumberRoom;
    case Kind::kHex:
      return NMB_GUID_HEX_LENGTH + 2;
    case Kind::kString:
      return nmb::json_string_room(values.bytes(render.offset, render.length).size());
    default:
      return NMB_VALUE_TEXT_ROOM + 2;
  }
}

namespace {

// A formatter's text, quoted: the formatter writes after the opening quote.
template <typename Format>
char* quoted(char* at, Format&& format) {
  *at = '"';
  const size_t length = format(at + 1);
  at[length + 1] = '"';
  return at + length + 2;
}

}  // namespace

template <bool kInBounds>
char* nmb_counter_value_write_any(char* at, const nmb_counter_render_t& r,
                                  const nmb::ByteView& values, bool guid_switch) {
  Kind kind = r.kind;
  if (kind == Kind::kGuidSwitched) kind = guid_switch ? Kind::kHex : r.unswitched;
  switch (kind) {
    case Kind::kGuidSwitched:
      return nullptr;  // never the kind a value is written as
    case Kind::kUnsignedNumber:
      return nmb::json_write_unsigned_as_number(at, values.read<uint64_t, kInBounds>(r.offset));
    case Kind::kSignedNumber:
      return nmb::json_write_signed_as_number(
          at, static_cast<int64_t>(values.read<uint64_t, kInBounds>(r.offset)));
    case Kind::kHex: {
      *at = '"';
      at = nmb_write_guid_hex(at + 1, values.read<uint64_t, kInBounds>(r.offset));
      *at = '"';
      return at + 1;
    }
    case Kind::kUnsignedFormatted: {
      const uint64_t value = values.read<uint64_t, kInBounds>(r.offset);
      return quoted(at, [&](char* text) { return nmb_format_uint64_into(value, r.format, text); });
    }
    case Kind::kSignedFormatted: {
      const auto value = static_cast<int64_t>(values.read<uint64_t, kInBounds>(r.offset));
      return quoted(at, [&](char* text) { return nmb_format_int64_into(value, r.format, text); });
    }
    case Kind::kDoubleNumber:
    case Kind::kDoubleFormatted: {
      const uint64_t bits = values.read<uint64_t, kInBounds>(r.offset);
      double value;
      std::memcpy(&value, &bits, sizeof value);
      if (kind == Kind::kDoubleNumber) return nmb::json_write_number(at, value);
      return quoted(at, [&](char* text) { return nmb_format_fp64_into(r.format, value, text); });
    }
    case Kind::kString: {
      // Past the end of the area the bytes read as zeros, which ends the text.
      std::span<const uint8_t> bytes = values.bytes(r.offset, r.length);
      if (nmb_log_enabled(NMB_LOG_DEBUG)) nmb_log_hex_dump(bytes.data(), bytes.size());
      const char* chars = reinterpret_cast<const char*>(bytes.data());
      return nmb::json_write_string(at, std::string_view(bytes.empty() ? "" : chars, bytes.size()));
    }
    case Kind::kUnsigned128:
    case Kind::kSigned128: {
      uint8_t bytes[16];
      values.copy(r.offset, bytes, sizeof bytes);
      return quoted(at, [&](char* text) { return nmb_format_uint128_into(bytes, r.format, text); });
    }
  }
  return nullptr;
}

template char* nmb_counter_value_write_any<true>(char*, const nmb_counter_render_t&,
                                                 const nmb::ByteView&, bool);
template char* nmb_counter_value_write_any<false>(char*, const nmb_counter_render_t&,
                                                  const nmb::ByteView&, bool);

bool nmb_counter_value_to_json(nmb::JsonWriter& w, const nmb_counter_render_t& render,
                               const nmb::ByteView& values) {
  const bool guid_switch = nmb_counters_guid_switch();
  w.raw_value({});  // the separator before the value
  std::string& out = w.out();
  const size_t start = out.size();
  out.resize(start + nmb_counter_value_room(render, values));
  char* end = nmb_counter_value_write<false>(out.data() + start, render, values, guid_switch);
  out.resize(end != nullptr ? static_cast<size_t>(end - out.data()) : start);
  return end != nullptr;
}
