#include "export/event_json_layout.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "export/value_format.h"
#include "utils/json_writer.h"
#include "utils/saturating.h"

namespace {

using Kind = nmb_value_kind_t;
using Shape = nmb_value_shape_t;
using nmb::saturating_add;
using nmb::saturating_mul;

// The key of a member of an object whose members sit at depth 1, as the JSON
// writer writes it, appended to the form's text.
nmb::TextPiece key_piece(nmb::PieceText& text, std::string_view quoted_key, bool pretty,
                         bool first) {
  std::string piece;
  nmb::JsonWriter w(piece, pretty, 1, first);
  w.escaped_key(quoted_key);
  return text.add(piece);
}

// The text a member's value can take in the pretty form at depth 1 (the
// member's line excluded), and the lines it adds.
struct ValueRoom {
  uint64_t bytes = 0;
  uint64_t lines = 0;
};

ValueRoom value_room(const nmb_field_plan_t& field) {
  constexpr uint64_t kHex = NMB_GUID_HEX_LENGTH + 2;
  // A nested object makes room for its own text; only "{}" stands for a
  // type that is missing.
  const uint64_t element = field.kind == Kind::kNested  ? 2
                           : field.kind == Kind::kHex64 ? kHex
                                                        : nmb::kJsonNumberRoom;
  ValueRoom room;
  if (field.shape == Shape::kCharString) {
    room.bytes = nmb::json_string_room(field.count);
  } else if (field.shape == Shape::kScalar) {
    room.bytes = element;
  } else {
    // "[", per element ",\n", the indent at depth 2 and the element, then
    // "\n", the indent at depth 1 and "]".
    room.bytes =
        saturating_add(saturating_mul(field.count, saturating_add(element, 2 + 8)), 1 + 1 + 4 + 1);
    room.lines = saturating_add(field.count, 1);
  }
  if (field.guid_like) room.bytes = std::max(room.bytes, kHex);
  return room;
}

void compile_layout(const nmb_event_plan_t& plan, nmb_event_json_layout_t& json) {
  for (int form = 0; form < 2; ++form) {
    const bool pretty = form == 1;
    nmb::PieceText& text = json.text[form];
    json.keys[form].reserve(plan.members.size());
    bool first = true;
    for (const auto& member : plan.members) {
      json.keys[form].push_back(key_piece(text, member.key, pretty, first));
      first = false;
    }
    // The added members follow the record's own, "@header_timestamp" at
    // least "header_timestamp".
    json.header_timestamp_key[form] = key_piece(text, "\"header_timestamp\"", pretty, first);
    json.formatted_timestamp_key[form] = key_piece(text, "\"@header_timestamp\"", pretty, false);
    text.seal();
  }
  // "{", and "\n}" closing the object.
  uint64_t room = 3;
  uint64_t lines = 1;
  auto count = [&](const nmb_field_plan_t& field, uint64_t key) {
    const ValueRoom value = value_room(field);
    room = saturating_add(room, saturating_add(key, value.bytes));
    lines = saturating_add(lines, saturating_add(1, value.lines));
  };
  for (size_t i = 0; i < plan.members.size(); ++i) count(plan.members[i], json.keys[1][i].length);
  for (const auto& check : plan.checks) count(check, 0);
  json.room = room;
  json.lines = lines;
}

}  // namespace

void nmb_event_json_layouts_t::compile(const nmb_event_plans_t& plans) {
  layouts_.clear();
  layouts_.resize(plans.size());
  for (size_t id = 0; id < plans.size(); ++id) compile_layout(plans[id], layouts_[id]);
}
