#include "export/event_json.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <string_view>
#include <type_traits>

#include "export/event_json_layout.h"
#include "export/event_plan.h"
#include "export/value_format.h"
#include "utils/json_writer.h"
#include "utils/log.h"

// A record is written in one pass into a room reserved for the whole of its
// text: the text between values comes from the plan's pieces in fixed-size
// moves, values are written in place, and the record is appended to the
// output in one copy once every value has been built. Each member's value is
// written by the function its shape and kind pick from a table, so no value
// asks again what it is.

namespace {

using Kind = nmb_value_kind_t;
using Shape = nmb_value_shape_t;

// Keys, numbers and breaks of records are mostly short: a piece of up to
// kMove bytes is copied in one move of that size.
constexpr size_t kMove = 32;

char* put_piece(char* at, const char* from, size_t length) {
  return nmb::put_piece<kMove>(at, from, length);
}

// Every room leaves this many bytes spare after its text, for the
// fixed-size moves of short pieces.
constexpr size_t kCopy = nmb::kPiecePadding;

// The room a record is written into, one per thread and reused, so that a
// record costs no allocation and no clearing. It grows (keeping the text
// written so far) when a nested object asks for more than it holds.
class TextRoom {
 public:
  char* begin() { return bytes_.get(); }
  // `at`, or where the text up to it has moved, with at least `need` bytes
  // writable after it.
  char* ensure(char* at, uint64_t need) {
    const size_t used = static_cast<size_t>(at - begin());
    if (need <= size_ - used) return at;
    const size_t size = std::max<size_t>(used + need, 2 * size_);
    auto bytes = std::make_unique_for_overwrite<char[]>(size);
    if (used != 0) std::memcpy(bytes.get(), begin(), used);
    bytes_ = std::move(bytes);
    size_ = size;
    return begin() + used;
  }

 private:
  std::unique_ptr<char[]> bytes_;
  size_t size_ = 0;
};

// The texts of a block's header timestamp that each of its records writes:
// the value as a number, and the formatted text as a JSON string value
// (empty when it is not valid UTF-8, as a string value then writes nothing),
// each followed by kCopy readable bytes. Records of a block share them, so
// they are made again only when the timestamp changes.
struct HeaderTexts {
  std::string_view number;
  std::string_view quoted;
};

class HeaderCache {
 public:
  HeaderTexts texts(const nmb_header_timestamp_t& ts) {
    if (!made_ || ts.value != value_ || ts.formatted_length != formatted_length_ ||
        std::memcmp(ts.formatted, formatted_, formatted_length_) != 0) {
      make(ts);
    }
    return {std::string_view(number_, number_length_),
            std::string_view(quoted_.data(), quoted_length_)};
  }

 private:
  [[gnu::noinline]] void make(const nmb_header_timestamp_t& ts) {
    made_ = true;
    value_ = ts.value;
    formatted_length_ = std::min(ts.formatted_length, sizeof formatted_);
    std::memcpy(formatted_, ts.formatted, formatted_length_);
    number_length_ = static_cast<size_t>(
        nmb::json_write_number(number_, static_cast<double>(ts.value)) - number_);
    quoted_.clear();
    nmb::json_append_string(quoted_, std::string_view(formatted_, formatted_length_));
    quoted_length_ = quoted_.size();
    quoted_.append(kCopy, '\0');
  }

  bool made_ = false;
  uint64_t value_ = 0;
  char formatted_[sizeof nmb_header_timestamp_t::formatted] = {};
  size_t formatted_length_ = 0;
  char number_[nmb::kJsonNumberRoom + kCopy] = {};
  size_t number_length_ = 0;
  std::string quoted_;  // and kCopy bytes of padding
  size_t quoted_length_ = 0;
};

// What every value writer of one record shares.
struct Record {
  const nmb::ByteView& bytes;
  const nmb_event_json_layouts_t& layouts;
  TextRoom& room;
  bool guid_switch;  // nmb_event_guid_conversion_on()
  // The top-level record's added values, which replace members named like
  // them (the second only when the timestamp could be formatted).
  const nmb_header_timestamp_t& ts;
  HeaderTexts header;
};

// ---- text between values ----------------------------------------------------

// What comes before an item of a container whose items sit at `depth`:
// "," unless it is the first, and in the pretty form a new line indented.
template <bool kPretty>
char* put_break(char* at, bool first, uint32_t depth) {
  if constexpr (!kPretty) {
    *at = ',';
    return at + !first;
  } else {
    // ",\n" and the indent of up to 15 levels.
    static constexpr char kBreak[] =
        ",\n                                                              ";
    static_assert(sizeof kBreak > kMove + 1);
    const size_t length = 2 + 4 * size_t{depth};
    if (length <= kMove) {
      std::memcpy(at, kBreak + first, kMove);
      return at + length - first;
    }
    if (!first) *at++ = ',';
    *at++ = '\n';
    std::memset(at, ' ', length - 2);
    return at + length - 2;
  }
}

// A member's separator and key, for members at `depth`. The pieces are
// those of depth 1; a deeper member takes the key from after the piece's
// separator and indent (",\n    ", or "\n    " for a first member).
template <bool kPretty>
char* put_key(char* at, const char* text, nmb::TextPiece piece, uint32_t depth) {
  if (!kPretty || depth == 1) return put_piece(at, text + piece.at, piece.length);
  const bool first = text[piece.at] != ',';
  const uint32_t key_at = 2 + 4 - first;
  at = put_break<true>(at, first, depth);
  return put_piece(at, text + piece.at + key_at, piece.length - key_at);
}

// The closing bracket of a container that began at `depth`.
template <bool kPretty>
char* put_close(char* at, char bracket, bool empty, uint32_t depth) {
  if (kPretty && !empty) at = put_break<true>(at, true, depth);
  *at = bracket;
  return at + 1;
}

// ---- values -------------------------------------------------------------------

// One element's text: integers as digits (64-bit ones through a double
// beyond 2^53, as a number value holds them), floating values as numbers
// (nullptr for NaN and infinities), kHex as a quoted "0x%016lx".
template <typename T, bool kHex>
char* put_element(char* at, T value) {
  if constexpr (kHex) {
    *at = '"';
    at = nmb_write_guid_hex(at + 1, value);
    *at = '"';
    return at + 1;
  } else if constexpr (std::is_floating_point_v<T>) {
    return nmb::json_write_number(at, value);
  } else if constexpr (std::is_same_v<T, int64_t>) {
    return nmb::json_write_signed_as_number(at, value);
  } else if constexpr (std::is_same_v<T, uint64_t>) {
    return nmb::json_write_unsigned_as_number(at, value);
  } else {
    return nmb::json_write_integer(at, value);
  }
}

// Writes the value of `field` found at `pos`, as a member at `depth`; `keep`
// is the room the text after it needs. nullptr when it cannot be a JSON value.
using ValueWriter = char* (*)(Record& r, char* at, const nmb_field_plan_t& field, uint64_t pos,
                              uint32_t depth, uint64_t keep);

// A value of a built-in kind: one element, or (kArray) an array of them.
template <typename T, bool kHex, bool kInBounds, bool kPretty, bool kArray>
char* elements(Record& r, char* at, const nmb_field_plan_t& field, uint64_t pos, uint32_t depth,
               uint64_t /*keep*/) {
  if constexpr (!kArray) {
    return put_element<T, kHex>(at, r.bytes.read<T, kInBounds>(pos));
  } else {
    *at++ = '[';
    for (uint32_t k = 0; k < field.count; ++k, pos += field.stride) {
      at = put_break<kPretty>(at, k == 0, depth + 1);
      at = put_element<T, kHex>(at, r.bytes.read<T, kInBounds>(pos));
      if constexpr (std::is_floating_point_v<T>) {
        if (at == nullptr) return nullptr;
      }
    }
    return put_close<kPretty>(at, ']', field.count == 0, depth);
  }
}

template <bool kInBounds, bool kPretty>
char* char_string(Record& r, char* at, const nmb_field_plan_t& field, uint64_t pos,
                  uint32_t /*depth*/, uint64_t /*keep*/) {
  const std::string_view text =
      kInBounds ? std::string_view(reinterpret_cast<const char*>(r.bytes.data() + pos), field.count)
                : r.bytes.chars(pos, field.count);
  if (char* end = nmb::json_write_string(at, text)) return end;
  NMB_LOG(NMB_LOG_ERROR, "Failed to serialize field %s of type %s[%u] as string",
          field.name.c_str(), field.kind == Kind::kI8 ? "char" : "unsigned char", field.count);
  return nullptr;
}

template <bool kPretty>
char* object(Record& r, char* at, const nmb_event_plan_t* plan, uint64_t base, uint32_t depth,
             uint64_t keep);

template <bool kInBounds, bool kPretty>
char* nested(Record& r, char* at, const nmb_field_plan_t& field, uint64_t pos, uint32_t depth,
             uint64_t keep) {
  return object<kPretty>(r, at, field.nested, pos, depth + 1, keep);
}

template <bool kInBounds, bool kPretty>
char* nested_array(Record& r, char* at, const nmb_field_plan_t& field, uint64_t pos, uint32_t depth,
                   uint64_t keep) {
  *at++ = '[';
  for (uint32_t k = 0; k < field.count; ++k, pos += field.stride) {
    at = put_break<kPretty>(at, k == 0, depth + 1);
    at = object<kPretty>(r, at, field.nested, pos, depth + 2, keep);
    if (at == nullptr) return nullptr;
  }
  return put_close<kPretty>(at, ']', field.count == 0, depth);
}

// The writers of one shape by kind (in the order of the kinds).
template <bool kIn, bool kPretty, bool kArray>
constexpr std::array<ValueWriter, 12> kElementWriters = {
    elements<uint8_t, false, kIn, kPretty, kArray>,
    elements<int8_t, false, kIn, kPretty, kArray>,
    elements<int16_t, false, kIn, kPretty, kArray>,
    elements<int32_t, false, kIn, kPretty, kArray>,
    elements<int64_t, false, kIn, kPretty, kArray>,
    elements<uint16_t, false, kIn, kPretty, kArray>,
    elements<uint32_t, false, kIn, kPretty, kArray>,
    elements<uint64_t, false, kIn, kPretty, kArray>,
    elements<float, false, kIn, kPretty, kArray>,
    elements<double, false, kIn, kPretty, kArray>,
    elements<uint64_t, true, kIn, kPretty, kArray>,
    kArray ? nested_array<kIn, kPretty> : nested<kIn, kPretty>};

// The writers by shape and kind (in the order of their enumerations); a char
// string is one whatever its kind.
template <bool kIn, bool kPretty>
constexpr std::array<std::array<ValueWriter, 12>, 3> kWriters = {
    kElementWriters<kIn, kPretty, false>,
    [] {
      std::array<ValueWriter, 12> strings{};
      strings.fill(char_string<kIn, kPretty>);
      return strings;
    }(),
    kElementWriters<kIn, kPretty, true>,
};
static_assert(static_cast<int>(Shape::kScalar) == 0 && static_cast<int>(Shape::kCharString) == 1 &&
              static_cast<int>(Shape::kArray) == 2);
static_assert(static_cast<int>(Kind::kU8) == 0 && static_cast<int>(Kind::kI64) == 4 &&
              static_cast<int>(Kind::kU64) == 7 && static_cast<int>(Kind::kHex64) == 10 &&
              static_cast<int>(Kind::kNested) == 11);

template <bool kInBounds, bool kPretty>
char* value(Record& r, char* at, const nmb_field_plan_t& field, uint64_t pos, uint32_t depth,
            uint64_t keep) {
  // A GUID-like name under the switch: 8 bytes as hex, whatever the field.
  if (field.guid_like && r.guid_switch)
    return elements<uint64_t, true, kInBounds, kPretty, false>(r, at, field, pos, depth, keep);
  const auto shape = static_cast<size_t>(field.shape);
  const auto kind = static_cast<size_t>(field.kind);
  return kWriters<kInBounds, kPretty>[shape][kind](r, at, field, pos, depth, keep);
}

// Builds a value only to learn whether it can be built; its text is dropped.
template <bool kInBounds, bool kPretty>
char* check(Record& r, char* at, const nmb_field_plan_t& field, uint64_t pos, uint32_t depth,
            uint64_t keep) {
  const size_t mark = static_cast<size_t>(at - r.room.begin());
  if (value<kInBounds, kPretty>(r, at, field, pos, depth, keep) == nullptr) return nullptr;
  return r.room.begin() + mark;
}

// The room an object's own text takes with its members at `depth`.
template <bool kPretty>
uint64_t object_room(const nmb_event_json_layout_t& json, uint32_t depth) {
  return kPretty ? json.room + json.lines * 4 * (depth - 1) : json.room;
}

// The members of an object whose members sit at `depth`, then its checks.
// kReplace (top-level records): members named like the added values take
// them, once their own value has been built.
template <bool kInBounds, bool kPretty, bool kReplace>
char* members(Record& r, char* at, const nmb_event_plan_t& plan,
              const nmb_event_json_layout_t& json, uint64_t base, uint32_t depth, uint64_t keep) {
  const char* text = json.text[kPretty].data();
  const nmb::TextPiece* keys = json.keys[kPretty].data();
  // A nested value leaves room for the rest of this object after it.
  const uint64_t inner_keep = object_room<kPretty>(json, depth) + keep;
  const nmb::TextPiece* key = keys;
  for (const nmb_field_plan_t& field : plan.members) {
    at = put_key<kPretty>(at, text, *key++, depth);
    const uint64_t pos = base + field.offset;
    if constexpr (kReplace) {
      const auto i = static_cast<int>(&field - plan.members.data());
      const bool header = i == plan.header_timestamp_member;
      if (header || (i == plan.formatted_timestamp_member && r.ts.formatted_length != 0)) {
        at = check<kInBounds, kPretty>(r, at, field, pos, depth, inner_keep);
        if (at == nullptr) return nullptr;
        const std::string_view added = header ? r.header.number : r.header.quoted;
        at = put_piece(at, added.data(), added.size());
        continue;
      }
    }
    at = value<kInBounds, kPretty>(r, at, field, pos, depth, inner_keep);
    if (at == nullptr) return nullptr;
  }
  for (const auto& field : plan.checks) {
    at = check<kInBounds, kPretty>(r, at, field, base + field.offset, depth, inner_keep);
    if (at == nullptr) return nullptr;
  }
  return at;
}

// Whether every value of the object at `base` reads inside what the record
// holds, so that no read needs a check.
bool reads_in_bounds(const Record& r, const nmb_event_plan_t& plan, uint64_t base) {
  const uint64_t end = plan.read_end;
  return end <= r.bytes.readable() && base <= r.bytes.readable() - end;
}

template <bool kPretty>
char* object(Record& r, char* at, const nmb_event_plan_t* plan, uint64_t base, uint32_t depth,
             uint64_t keep) {
  if (plan == nullptr) {
    std::memcpy(at, "{}", 2);
    return at + 2;
  }
  const nmb_event_json_layout_t& json = r.layouts.of(*plan);
  at = r.room.ensure(at, object_room<kPretty>(json, depth) + keep);
  *at++ = '{';
  at = reads_in_bounds(r, *plan, base)
           ? members<true, kPretty, false>(r, at, *plan, json, base, depth, keep)
           : members<false, kPretty, false>(r, at, *plan, json, base, depth, keep);
  if (at == nullptr) return nullptr;
  return put_close<kPretty>(at, '}', plan->members.empty(), depth - 1);
}

template <bool kPretty>
bool write_record(std::string& out, const nmb_event_plan_t& plan,
                  const nmb_event_json_layouts_t& layouts, const nmb::ByteView& bytes,
                  const nmb_header_timestamp_t& ts) {
  static thread_local TextRoom room;             // one per thread with -j
  static thread_local HeaderCache header_cache;  // one per thread with -j
  const HeaderTexts header = header_cache.texts(ts);
  Record r{bytes, layouts, room, nmb_event_guid_conversion_on(), ts, header};
  const nmb_event_json_layout_t& json = layouts.of(plan);
  const char* text = json.text[kPretty].data();

  // After the members: the two added ones (or a replaced member's value),
  // the closing line and the spare bytes.
  const uint64_t tail = json.header_timestamp_key[1].length +
                        json.formatted_timestamp_key[1].length +
                        2 * (header.number.size() + header.quoted.size()) + 2 + kCopy;
  char* at = room.ensure(room.begin(), object_room<kPretty>(json, 1) + tail);
  *at++ = '{';
  const bool in_bounds = reads_in_bounds(r, plan, 0);
  if (plan.header_timestamp_member >= 0 || plan.formatted_timestamp_member >= 0) {
    at = in_bounds ? members<true, kPretty, true>(r, at, plan, json, 0, 1, tail)
                   : members<false, kPretty, true>(r, at, plan, json, 0, 1, tail);
  } else {
    at = in_bounds ? members<true, kPretty, false>(r, at, plan, json, 0, 1, tail)
                   : members<false, kPretty, false>(r, at, plan, json, 0, 1, tail);
  }
  if (at == nullptr) return false;
  if (plan.header_timestamp_member < 0) {
    at = put_key<kPretty>(at, text, json.header_timestamp_key[kPretty], 1);
    at = put_piece(at, header.number.data(), header.number.size());
  }
  if (plan.formatted_timestamp_member < 0 && ts.formatted_length != 0) {
    at = put_key<kPretty>(at, text, json.formatted_timestamp_key[kPretty], 1);
    at = put_piece(at, header.quoted.data(), header.quoted.size());
  }
  // Never empty: a record without members still has "header_timestamp".
  at = put_close<kPretty>(at, '}', false, 0);
  out.append(room.begin(), static_cast<size_t>(at - room.begin()));
  return true;
}

}  // namespace

bool nmb_event_record_to_json(std::string& out, const nmb_event_plan_t& plan,
                              const nmb_event_json_layouts_t& layouts, nmb::ByteView record,
                              const nmb_header_timestamp_t& ts, bool pretty) {
  return pretty ? write_record<true>(out, plan, layouts, record, ts)
                : write_record<false>(out, plan, layouts, record, ts);
}
