#include "counters/counters_export.h"

#include <cstring>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "counters/counter_value.h"
#include "counters/counters_json_text.h"
#include "counters/counters_plan.h"
#include "data/format.h"
#include "export/value_format.h"
#include "utils/json_writer.h"
#include "utils/text_pieces.h"

struct nmb_counters_plan_t {
  std::vector<nmb::CounterGroupPlan> groups;
  nmb::CountersJsonText forms[2];  // compact, pretty
};

namespace {

using nmb::TextPiece;
using CounterRender = nmb_counter_render_t;
using FormText = nmb::CountersJsonText;
using GroupPlan = nmb::CounterGroupPlan;
using GroupText = nmb::GroupText;
using EnrichedMember = nmb::EnrichedMember;
using PairList = nmb::PairList;

// Values of a group that repeats a name, built in counter order before the
// members are written: their text and, per member, where its value starts
// and ends. Reused, so a block allocates nothing once they have grown.
struct StepScratch {
  std::string text;
  std::vector<std::pair<size_t, size_t>> spans;
};
StepScratch& step_scratch() {
  static thread_local StepScratch scratch;  // one per thread with -j
  return scratch;
}

// Builds the values of a group that repeats a name into the scratch text.
bool build_step_values(const GroupPlan& group, const nmb::ByteView& values, StepScratch& scratch) {
  scratch.text.clear();
  scratch.spans.assign(group.members.size(), {0, 0});
  for (const auto& step : group.steps) {
    const size_t start = scratch.text.size();
    nmb::JsonWriter value(scratch.text, false);
    if (!nmb_counter_value_to_json(value, step.value, values)) return false;
    scratch.spans[step.member] = {start, scratch.text.size()};
  }
  return true;
}

std::string_view step_value(const StepScratch& scratch, size_t member) {
  const auto [start, end] = scratch.spans[member];
  return std::string_view(scratch.text).substr(start, end - start);
}

void write_pairs(nmb::JsonWriter& w, const PairList& pairs) {
  w.begin_object();
  for (const auto& [key, value] : pairs) {
    w.escaped_key(key);
    w.raw_value(value);
  }
  w.end_object();
}

// A counter set with metadata: an array of one object per member. `built`
// holds the values when the group repeats a name.
bool write_enriched_set(nmb::JsonWriter& w, const GroupPlan& group, const nmb::ByteView& values,
                        const StepScratch* built) {
  w.begin_array();
  for (size_t i = 0; i < group.members.size(); ++i) {
    const EnrichedMember& enriched = group.enriched[i];
    const CounterRender& value = group.members[i].value;
    if (enriched.value_hidden && built == nullptr) {
      // The scratch is free: only groups that repeat a name use it.
      std::string& discarded = step_scratch().text;
      discarded.clear();
      nmb::JsonWriter hidden(discarded, false);
      if (!nmb_counter_value_to_json(hidden, value, values)) return false;
    }
    w.begin_object();
    for (const auto& part : enriched.parts) {
      w.escaped_key(part.key);
      if (part.pairs) {
        write_pairs(w, *part.pairs);
      } else if (built != nullptr) {
        w.raw_value(step_value(*built, i));
      } else if (!nmb_counter_value_to_json(w, value, values)) {
        return false;
      }
    }
    w.end_object();
  }
  w.end_array();
  return true;
}

// A counter set of a group that repeats a name or is enriched. Kept out of
// line, so that the common path below stays small enough to be inlined whole
// into the block's loop.
[[gnu::noinline]] bool write_built_counter_set(nmb::JsonWriter& w, const GroupPlan& group,
                                               const nmb::ByteView& values) {
  const StepScratch* built = nullptr;
  if (!group.steps.empty()) {
    StepScratch& scratch = step_scratch();
    if (!build_step_values(group, values, scratch)) return false;
    built = &scratch;
  }
  if (group.enrich) return write_enriched_set(w, group, values, built);
  w.begin_object();
  for (size_t i = 0; i < group.members.size(); ++i) {
    w.escaped_key(group.members[i].key);
    w.raw_value(step_value(*built, i));
  }
  w.end_object();
  return true;
}

void append_piece(std::string& out, const FormText& form, TextPiece piece) {
  out.append(form.text.view(piece));
}

char* put_piece(char* at, const FormText& form, TextPiece piece) {
  return nmb::put_piece(at, form.text, piece);
}

template <bool kInBounds>
char* write_members(char* at, const GroupPlan& group, const FormText& form, const GroupText& g,
                    const nmb::ByteView& values) {
  const bool guid_switch = nmb_counters_guid_switch();
  const size_t count = group.members.size();
  for (size_t i = 0; i < count; ++i) {
    at = put_piece(at, form, g.keys[i]);
    at = nmb_counter_value_write<kInBounds>(at, group.members[i].value, values, guid_switch);
    if (at == nullptr) return nullptr;
  }
  return at;
}

// Room for one counter set's text, reused: grown (never zero-filled) when a
// set needs more, so that a set costs no allocation and no clearing.
char* set_room(size_t room) {
  struct Room {
    std::unique_ptr<char[]> bytes;
    size_t size = 0;
  };
  static thread_local Room scratch;  // one per thread with -j
  if (room > scratch.size) {
    scratch.bytes = std::make_unique_for_overwrite<char[]>(room);
    scratch.size = room;
  }
  return scratch.bytes.get();
}

// A counter set in one pass: its room is made once, its pieces and values
// written straight into it, and the text appended to the output in one
// copy. False when a value cannot be a JSON value.
bool write_counter_set(std::string& out, const GroupPlan& group, const FormText& form,
                       const GroupText& g, bool first, const nmb::ByteView& values) {
  size_t room = g.set_room;
  for (uint32_t i : group.string_members)
    room += nmb_counter_value_room(group.members[i].value, values);
  char* const begin = set_room(room);
  char* at = put_piece(begin, form, first ? g.open_first : g.open_next);
  if (!group.members.empty()) {
    at = values.readable() >= group.values_end ? write_members<true>(at, group, form, g, values)
                                               : write_members<false>(at, group, form, g, values);
    if (at == nullptr) return false;
  }
  at = put_piece(at, form, g.close);
  out.append(begin, static_cast<size_t>(at - begin));
  return true;
}

bool write_group(std::string& out, const GroupPlan& group, const FormText& form, const GroupText& g,
                 bool pretty, const nmb::ByteView& values) {
  append_piece(out, form, g.head);
  // Every counter set object holds the same values, but each is built on its
  // own, so that the formatters' warnings (and the debug dumps of strings)
  // come once per set, as for any other value that is built.
  for (uint32_t set = 0; set < group.num_counter_sets; ++set) {
    if (group.built()) {
      nmb::JsonWriter w(out, pretty, nmb::kCounterSetDepth, set == 0);
      if (!write_built_counter_set(w, group, values)) return false;
    } else if (!write_counter_set(out, group, form, g, set == 0, values)) {
      return false;
    }
  }
  append_piece(out, form, g.tail);
  return true;
}

}  // namespace

void nmb_counters_plan_deleter::operator()(nmb_counters_plan_t* plan) const {
  delete plan;
}

nmb_counters_plan_ptr nmb_counters_plan_create(const nmb_counters_schema_t& schema,
                                               const nmb_metadata_t* metadata) {
  nmb_counters_plan_ptr plan(new nmb_counters_plan_t());
  plan->groups = nmb::compile_counter_groups(schema, metadata);
  nmb::record_counters_json_text(plan->groups, plan->forms[0], false);
  nmb::record_counters_json_text(plan->groups, plan->forms[1], true);
  return plan;
}

bool nmb_counters_block_to_json(std::string& out, nmb::ByteView block,
                                const nmb_counters_plan_t& plan, bool microsecond_precision,
                                bool pretty) {
  const size_t mark = out.size();
  const uint64_t timestamp = block.u64(NMB_COUNTERS_BLOCK_TIMESTAMP);
  const nmb::ByteView values = block.from(NMB_COUNTERS_BLOCK_HEADER_SIZE);
  const FormText& form = plan.forms[pretty ? 1 : 0];

  append_piece(out, form, form.open);
  nmb::json_append_number(out, static_cast<double>(timestamp));
  char text[64];
  size_t length = nmb_format_timestamp_into(timestamp, microsecond_precision, text, sizeof text);
  if (length != 0) {
    append_piece(out, form, form.at_key);
    nmb::json_append_string(out, std::string_view(text, length));
  }
  append_piece(out, form, form.groups_key);
  for (size_t i = 0; i < plan.groups.size(); ++i) {
    const GroupPlan& group = plan.groups[i];
    if (group.name.empty() || !write_group(out, group, form, form.groups[i], pretty, values)) {
      out.resize(mark);
      return false;
    }
  }
  append_piece(out, form, form.close);
  return true;
}
