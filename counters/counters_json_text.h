// The literal JSON text of a counters block between its values, recorded
// once per plan and form (compact, pretty) from what the JSON writer writes
// for the block's shape, so that the one-pass block writer copies pieces of
// that writer's own text.
// Stage: plan.
#pragma once

#include <cstddef>
#include <vector>

#include "counters/counters_plan.h"
#include "utils/text_pieces.h"

namespace nmb {

// The pieces of one group.
struct GroupText {
  TextPiece head;                   // separator, "{", granularity, name, "counter_sets": [
  TextPiece open_first, open_next;  // separator and "{" of the first and later sets
  std::vector<TextPiece> keys;      // separator and key before each member's value
  TextPiece close;                  // "}" of a set
  TextPiece tail;                   // "]" and "}" of the group
  size_t set_room = 0;              // room of a set without its strings
};

// The pieces of a block in one form.
struct CountersJsonText {
  PieceText text;
  TextPiece open;                 // "{" and the "timestamp" key
  TextPiece at_key;               // the "@timestamp" key
  TextPiece groups_key;           // the "groups" key and "["
  TextPiece close;                // "]" and "}"
  std::vector<GroupText> groups;  // up to the first group whose name cannot be written
};

// Counter sets sit four levels deep: the block object, the "groups" array,
// the group object, the "counter_sets" array.
inline constexpr uint32_t kCounterSetDepth = 4;

void record_counters_json_text(const std::vector<CounterGroupPlan>& groups, CountersJsonText& form,
                               bool pretty);

}  // namespace nmb
