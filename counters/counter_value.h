// How one counter value is written as JSON: decided from the counter's type,
// string format and name when its schema is compiled, then written straight
// into the output text with no formatting buffer in between.
// Stage: plan.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include "counters/counters_schema.h"
#include "data/bytes.h"
#include "utils/json_writer.h"

enum class nmb_counter_render_kind_t : uint8_t {
  kUnsignedNumber,     // 64-bit unsigned as a number
  kSignedNumber,       // 64-bit signed as a number
  kHex,                // "0x%016lx" (GUIDs, BIT64 and guid names by default)
  kUnsignedFormatted,  // nmb_format_uint64_string
  kDoubleNumber,       // FP64 as a number
  kDoubleFormatted,    // nmb_format_fp64_string
  kSignedFormatted,    // nmb_format_int64_string
  kString,             // STRING: at most `length` bytes up to a zero byte
  kUnsigned128,        // nmb_format_uint128_string
  kSigned128,          // nmb_format_int128_string
  // A GUID-like name in DECIMAL format: "0x%016lx" of the 64 bits at the
  // offset while the GUID switch is on, else `unswitched`.
  kGuidSwitched,
};

struct nmb_counter_render_t {
  nmb_counter_render_kind_t kind = nmb_counter_render_kind_t::kSignedNumber;
  nmb_counter_render_kind_t unswitched = nmb_counter_render_kind_t::kSignedNumber;
  int32_t format = 0;
  uint32_t offset = 0;
  uint32_t length = 0;
  const char* name = nullptr;  // the schema's copy (for messages)
};

nmb_counter_render_t nmb_counter_render_compile(const nmb_counter_info_t& counter);

// The GUID conversion switch, read from the environment the first time it is
// asked for (just before the first counter value is written).
bool nmb_counters_guid_switch();

// Bytes of the values area a value's fixed-size reads need (where their last
// byte ends); 0 when it has none (strings, whose reads are cut at the end of
// the buffer).
uint64_t nmb_counter_value_end(const nmb_counter_render_t& render);

// True when the room of the value's text depends on the bytes (strings).
bool nmb_counter_value_room_varies(const nmb_counter_render_t& render);

// Room the value's text needs; for strings, the room for the bytes the area
// holds at its offset.
size_t nmb_counter_value_room(const nmb_counter_render_t& render, const nmb::ByteView& values);

// Writes the value's JSON text at `at` (nmb_counter_value_room bytes of room)
// and returns its end; nullptr when it cannot be a JSON value. `guid_switch`
// is nmb_counters_guid_switch(). kInBounds: the caller has checked that the
// values area is readable up to nmb_counter_value_end, so fixed-size values
// are read without a check each.
template <bool kInBounds>
char* nmb_counter_value_write_any(char* at, const nmb_counter_render_t& render,
                                  const nmb::ByteView& values, bool guid_switch);

// The same, with plain numbers written inline (most counters are).
template <bool kInBounds>
inline char* nmb_counter_value_write(char* at, const nmb_counter_render_t& render,
                                     const nmb::ByteView& values, bool guid_switch) {
  if (kInBounds && render.kind == nmb_counter_render_kind_t::kUnsignedNumber) {
    uint64_t value;
    std::memcpy(&value, values.data() + render.offset, sizeof value);
    return nmb::json_write_unsigned_as_number(at, value);
  }
  return nmb_counter_value_write_any<kInBounds>(at, render, values, guid_switch);
}

// The value through a writer (the counter sets that are not written in one
// pass); false when it cannot be a JSON value.
bool nmb_counter_value_to_json(nmb::JsonWriter& w, const nmb_counter_render_t& render,
                               const nmb::ByteView& values);
