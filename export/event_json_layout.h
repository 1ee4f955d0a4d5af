// What the JSON writer needs of each event plan beyond the plan itself,
// compiled once per loaded type system by the sinks that write JSON: the key
// text of every member in the compact and the pretty form, the keys of the
// two added members, and the room an object's own text takes.
// Stage: plan.
#pragma once

#include <cstdint>
#include <vector>

#include "export/event_plan.h"
#include "utils/text_pieces.h"

struct nmb_event_json_layout_t {
  // The members' key pieces of each form (compact, pretty), and after them
  // the keys of the two added members. A key is the text before the value as
  // a member of an object whose members sit at depth 1 (",\"key\":" and
  // ",\n    \"key\": ", the first member's without the ",").
  nmb::PieceText text[2];
  std::vector<nmb::TextPiece> keys[2];
  nmb::TextPiece header_timestamp_key[2];
  nmb::TextPiece formatted_timestamp_key[2];
  // The most text the object writes itself (pretty, members at depth 1,
  // checks included; nested objects are not counted but make room for their
  // own text when written), and its lines, which each deeper level of depth
  // indents by 4 more bytes.
  uint64_t room = 0;
  uint64_t lines = 0;
};

// The layouts of every plan of a set, found by the plan's id.
class nmb_event_json_layouts_t {
 public:
  const nmb_event_json_layout_t& of(const nmb_event_plan_t& plan) const {
    return layouts_[plan.id];
  }
  void compile(const nmb_event_plans_t& plans);

 private:
  std::vector<nmb_event_json_layout_t> layouts_;
};
