// The JSON text writer: streams values straight into a std::string (normally
// the standard output buffer) in the compact form (ndjson records) or the
// pretty form (json records, schema documents). Builds no document tree.
//
// Text rules: numbers are doubles printed like "%1.17g" (NaN and infinities
// are refused); strings end at their first zero byte; string values must be
// valid UTF-8 (keys are not checked); '/' is not escaped; control bytes are
// escaped with the short forms or \u00xx.
// Stage: base.
#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "utils/decimal.h"

namespace nmb {

// True when the bytes are valid UTF-8 (RFC 3629).
bool json_is_valid_utf8(const char* data, size_t length);

// Appends the escaped text of `text` (up to its first zero byte) without
// quotes and without validation.
void json_append_escaped(std::string& out, std::string_view text);

// The quoted, escaped text of a key, computed once so that plans can write
// keys without escaping them per record ("name" -> "\"name\"").
std::string json_escape_key(std::string_view key);

// Room that json_write_number needs at its destination.
// (the longest "%1.17g" text: a sign, 17 digits, a point and "e-308").
inline constexpr size_t kJsonNumberRoom = 24;

// Writes a number at `at` (kJsonNumberRoom bytes of room) and returns the end
// of its text; nullptr (nothing written) for NaN and infinities.
char* json_write_number(char* at, double value);

// Appends a number; false (nothing written) for NaN and infinities.
bool json_append_number(std::string& out, double value);

// Writes the decimal digits of an integer at `at` (21 bytes of room) and
// returns their end.
template <typename Integer>
char* json_write_integer(char* at, Integer value) {
  if constexpr (std::is_signed_v<Integer>) {
    return write_decimal(at, static_cast<int64_t>(value));
  } else {
    return write_decimal(at, static_cast<uint64_t>(value));
  }
}

// The text of an unsigned value read from data as number() writes it for the
// value converted to a double: plain digits while the double holds the value
// exactly (up to 2^53), otherwise through the double.
inline char* json_write_unsigned_as_number(char* at, uint64_t value) {
  if (value <= (uint64_t{1} << 53)) return json_write_integer(at, value);
  return json_write_number(at, static_cast<double>(value));
}
// The same for a signed value (exact from -2^53 to 2^53).
inline char* json_write_signed_as_number(char* at, int64_t value) {
  constexpr int64_t kExact = int64_t{1} << 53;
  if (value >= -kExact && value <= kExact) return json_write_integer(at, value);
  return json_write_number(at, static_cast<double>(value));
}

// Appends the decimal digits of an integer.
inline void json_append_integer(std::string& out, int64_t value) {
  char buffer[24];
  char* end = json_write_integer(buffer, value);
  out.append(buffer, static_cast<size_t>(end - buffer));
}

// Appends a quoted string value (up to its first zero byte); false (nothing
// written) when the bytes are not valid UTF-8.
bool json_append_string(std::string& out, std::string_view text);

// Room that json_write_string needs for `length` bytes of text: quotes and
// the longest escape of every byte.
inline constexpr size_t json_string_room(size_t length) {
  return 2 + 6 * length;
}
// Writes a quoted string value at `at` and returns its end; nullptr when the
// bytes are not valid UTF-8.
char* json_write_string(char* at, std::string_view text);

class JsonWriter {
 public:
  JsonWriter(std::string& out, bool pretty) : out_(out), pretty_(pretty) {}
  // A writer that continues inside a container opened `depth` levels deep
  // by text written elsewhere; `empty` when that container has no member yet.
  JsonWriter(std::string& out, bool pretty, uint32_t depth, bool empty)
      : out_(out), pretty_(pretty), empty_(empty), depth_(depth) {}

  void begin_object() {
    separate();
    out_.push_back('{');
    open();
  }
  void end_object() { close('}'); }
  void begin_array() {
    separate();
    out_.push_back('[');
    open();
  }
  void end_array() { close(']'); }

  // A key given as raw text (escaped here, not validated).
  void key(std::string_view raw) {
    separate();
    out_.push_back('"');
    json_append_escaped(out_, raw);
    out_.push_back('"');
    colon();
  }
  // A key given as the output of json_escape_key.
  void escaped_key(std::string_view quoted) {
    separate();
    out_.append(quoted);
    colon();
  }

  // Values. number and string return false, writing nothing, when the value
  // cannot be a JSON value (NaN/infinity, invalid UTF-8). After such a failure
  // the caller discards the whole document it was writing.
  bool number(double value) {
    separate();
    return json_append_number(out_, value);
  }
  // An integer (the same text as number() gives for it, without the double
  // round trip).
  void integer(int64_t value) {
    separate();
    json_append_integer(out_, value);
  }
  bool string(std::string_view text) {
    separate();
    return json_append_string(out_, text);
  }
  void boolean(bool value) {
    separate();
    out_.append(value ? "true" : "false");
  }
  void null() {
    separate();
    out_.append("null");
  }
  // A value whose JSON text was produced elsewhere (a quoted string known to
  // be valid, a number).
  void raw_value(std::string_view json_text) {
    separate();
    out_.append(json_text);
  }

  std::string& out() { return out_; }
  bool pretty() const { return pretty_; }

 private:
  void open() {
    ++depth_;
    empty_ = true;
  }
  void close(char bracket) {
    --depth_;
    if (!empty_ && pretty_) newline_indent();
    out_.push_back(bracket);
    empty_ = false;
    after_key_ = false;
  }
  void colon() {
    if (pretty_) {
      out_.append(": ", 2);
    } else {
      out_.push_back(':');
    }
    after_key_ = true;
  }
  // Writes what comes before a member or item of the current container.
  void separate() {
    if (after_key_) {
      after_key_ = false;
      return;
    }
    if (depth_ == 0) return;
    if (!empty_) out_.push_back(',');
    if (pretty_) newline_indent();
    empty_ = false;
  }
  void newline_indent() {
    out_.push_back('\n');
    out_.append(static_cast<size_t>(depth_) * 4, ' ');
  }

  std::string& out_;
  bool pretty_;
  bool empty_ = false;      // the innermost open container has no member yet
  bool after_key_ = false;  // a key was written, its value comes next
  uint32_t depth_ = 0;
};

}  // namespace nmb
