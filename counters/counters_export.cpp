#include "counters/counters_export.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "counters/counter_value.h"
#include "data/format.h"
#include "export/value_format.h"
#include "filter/metadata.h"
#include "utils/json_writer.h"
#include "utils/log.h"
#include "utils/text_pieces.h"

namespace {

using CounterRender = nmb_counter_render_t;

// One member of a counter set object.
struct Member {
  std::string key;  // quoted and escaped
  CounterRender value;
};

// The "indexes" or "labels" object of a metadata entry: (key, value) as
// quoted JSON strings, a repeated key holding its last value at its first
// position.
using PairList = std::vector<std::pair<std::string, std::string>>;

// With metadata, the object that stands for one member in its counter set's
// array: its members in order, each the counter value (pairs == nullptr) or
// an "indexes" or "labels" object.
struct EnrichedMember {
  struct Part {
    std::string key;  // quoted and escaped
    std::shared_ptr<const PairList> pairs;
  };
  std::vector<Part> parts;
  // The shown name is "indexes" or "labels" and that object took the value's
  // place: the value is still built (it can fail the block), not written.
  bool value_hidden = false;
};

struct GroupPlan {
  std::string granularity;  // quoted JSON string
  std::string name;         // quoted JSON string; empty when the name is not valid UTF-8
  uint32_t num_counter_sets = 0;
  std::vector<Member> members;
  // Only for groups that repeat a name: every counter in counter order with
  // the member it sets. The member keeps the first position and takes the
  // last value, but every value is still built, in counter order (they can
  // fail the record or log warnings).
  struct Step {
    CounterRender value;
    uint32_t member = 0;
  };
  std::vector<Step> steps;
  // With metadata counter sets are arrays, of one object per member.
  bool enrich = false;
  std::vector<EnrichedMember> enriched;
  // Members whose text has no fixed bound (strings), and the end of the last
  // fixed-size value in the values area.
  std::vector<uint32_t> string_members;
  uint64_t values_end = 0;

  // Counter sets written through a writer instead of in one pass.
  bool built() const { return enrich || !steps.empty(); }
};

using nmb::TextPiece;

// The literal text of one output form (compact or pretty) between the values
// of a block.
struct GroupText {
  TextPiece head;                   // separator, "{", granularity, name, "counter_sets": [
  TextPiece open_first, open_next;  // separator and "{" of the first and later sets
  std::vector<TextPiece> keys;      // separator and key before each member's value
  TextPiece close;                  // "}" of a set
  TextPiece tail;                   // "]" and "}" of the group
  size_t set_room = 0;              // room of a set without its strings
};

struct FormText {
  nmb::PieceText text;
  TextPiece open;        // "{" and the "timestamp" key
  TextPiece at_key;      // the "@timestamp" key
  TextPiece groups_key;  // the "groups" key and "["
  TextPiece close;       // "]" and "}"
  std::vector<GroupText> groups;
};

// Counter sets sit four levels deep: the block object, the "groups" array,
// the group object, the "counter_sets" array.
constexpr uint32_t kSetDepth = 4;

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

// The rendered "indexes" or "labels" object of an entry; nullptr when empty.
std::shared_ptr<const PairList> render_pairs(const std::vector<nmb_metadata_pair_t>& pairs) {
  if (pairs.empty()) return nullptr;
  auto list = std::make_shared<PairList>();
  std::unordered_map<std::string_view, size_t> position;
  for (const auto& pair : pairs) {
    auto [at, inserted] = position.emplace(pair.name, list->size());
    std::string value = nmb::json_escape_key(pair.value);
    if (inserted) {
      list->emplace_back(nmb::json_escape_key(pair.name), std::move(value));
    } else {
      (*list)[at->second].second = std::move(value);
    }
  }
  return list;
}

// Looks counter names up in the metadata and compiles their enriched form.
// An entry's objects are rendered once and shared by every counter using it.
class EnrichmentCompiler {
 public:
  explicit EnrichmentCompiler(const nmb_metadata_t& metadata) : metadata_(metadata) {}

  EnrichedMember compile(std::string_view name) {
    const nmb_metadata_entry_t* entry = nmb_metadata_find(metadata_, name);
    const std::string_view shown = nmb_metadata_shown_name(entry, name);
    EnrichedMember member;
    member.parts.push_back({nmb::json_escape_key(shown), nullptr});
    if (entry == nullptr) return member;
    auto [at, inserted] = rendered_.try_emplace(entry);
    if (inserted) at->second = {render_pairs(entry->indexes), render_pairs(entry->labels)};
    // Set as members of an object are: a key already present (the shown name
    // can be "indexes") keeps its position and takes the new value.
    std::vector<std::string_view> keys{shown};
    auto set = [&](std::string_view key, const std::shared_ptr<const PairList>& pairs) {
      if (!pairs) return;
      for (size_t i = 0; i < keys.size(); ++i) {
        if (keys[i] != key) continue;
        if (!member.parts[i].pairs) member.value_hidden = true;
        member.parts[i].pairs = pairs;
        return;
      }
      keys.push_back(key);
      member.parts.push_back({nmb::json_escape_key(key), pairs});
    };
    set("indexes", at->second.first);
    set("labels", at->second.second);
    return member;
  }

 private:
  using Rendered = std::pair<std::shared_ptr<const PairList>, std::shared_ptr<const PairList>>;
  const nmb_metadata_t& metadata_;
  std::unordered_map<const nmb_metadata_entry_t*, Rendered> rendered_;
};

}  // namespace

struct nmb_counters_plan_t {
  std::vector<GroupPlan> groups;
  FormText forms[2];  // compact, pretty
};

namespace {

// Records the writer's text for a plan's shape piece by piece.
class FormBuilder {
 public:
  FormBuilder(FormText& form, bool pretty) : form_(form), writer_(scratch_, pretty) {}
  nmb::JsonWriter& w() { return writer_; }
  // The text written since the last piece.
  TextPiece take() {
    const TextPiece piece = form_.text.add(scratch_);
    scratch_.clear();
    return piece;
  }

 private:
  FormText& form_;
  std::string scratch_;
  nmb::JsonWriter writer_;
};

// A counter set written twice gives the pieces of the first and of later
// sets; values are empty placeholders (they write no text).
void build_group_text(FormBuilder& b, const GroupPlan& group, GroupText& g) {
  nmb::JsonWriter& w = b.w();
  w.begin_object();
  w.escaped_key("\"granularity\"");
  w.raw_value(group.granularity);
  w.escaped_key("\"name\"");
  w.raw_value(group.name);
  w.escaped_key("\"counter_sets\"");
  w.begin_array();
  g.head = b.take();
  for (uint32_t set = 0; set < group.num_counter_sets && set < 2; ++set) {
    w.begin_object();
    (set == 0 ? g.open_first : g.open_next) = b.take();
    for (const auto& member : group.members) {
      w.escaped_key(member.key);
      const TextPiece key = b.take();
      if (set == 0) g.keys.push_back(key);
      w.raw_value({});
    }
    w.end_object();
    g.close = b.take();
  }
  w.end_array();
  w.end_object();
  g.tail = b.take();
  g.set_room =
      std::max(g.open_first.length, g.open_next.length) + g.close.length + nmb::kPiecePadding;
  for (size_t i = 0; i < g.keys.size(); ++i)
    g.set_room +=
        g.keys[i].length + nmb_counter_value_room(group.members[i].value, nmb::ByteView());
}

void build_form_text(const nmb_counters_plan_t& plan, FormText& form, bool pretty) {
  FormBuilder b(form, pretty);
  nmb::JsonWriter& w = b.w();
  w.begin_object();
  w.escaped_key("\"timestamp\"");
  form.open = b.take();
  w.raw_value({});
  w.escaped_key("\"@timestamp\"");
  form.at_key = b.take();
  w.raw_value({});
  w.escaped_key("\"groups\"");
  w.begin_array();
  form.groups_key = b.take();
  for (const auto& group : plan.groups) {
    // A group whose name cannot be written fails the block where it stands.
    if (group.name.empty()) break;
    build_group_text(b, group, form.groups.emplace_back());
  }
  w.end_array();
  w.end_object();
  form.close = b.take();
  form.text.seal();
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
      nmb::JsonWriter w(out, pretty, kSetDepth, set == 0);
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
  std::optional<EnrichmentCompiler> enrichment;
  if (metadata != nullptr) enrichment.emplace(*metadata);
  plan->groups.reserve(schema.groups.size());
  for (const auto& group : schema.groups) {
    GroupPlan& gp = plan->groups.emplace_back();
    nmb::JsonWriter text(gp.granularity, false);
    text.string(nmb_granularity_name(group.granularity));
    nmb::JsonWriter name(gp.name, false);
    if (!name.string(group.has_name ? std::string_view(group.name) : std::string_view("unset")))
      gp.name.clear();
    gp.num_counter_sets = group.num_counter_sets;

    // A repeated name keeps its first position and takes the last value.
    std::unordered_map<std::string_view, size_t> position;
    position.reserve(group.counters.size());
    gp.members.reserve(group.counters.size());
    bool repeated = false;
    for (const auto& counter : group.counters) {
      auto [it, inserted] = position.emplace(counter.name, gp.members.size());
      if (inserted) {
        gp.members.push_back(
            Member{nmb::json_escape_key(counter.name), nmb_counter_render_compile(counter)});
      } else {
        gp.members[it->second].value = nmb_counter_render_compile(counter);
        repeated = true;
      }
    }
    if (repeated) {
      gp.steps.reserve(group.counters.size());
      for (const auto& counter : group.counters)
        gp.steps.push_back(GroupPlan::Step{nmb_counter_render_compile(counter),
                                           static_cast<uint32_t>(position.at(counter.name))});
    }
    if (enrichment) {
      gp.enrich = true;
      gp.enriched.reserve(gp.members.size());
      for (const auto& member : gp.members)
        gp.enriched.push_back(enrichment->compile(member.value.name));
    }
    for (size_t i = 0; i < gp.members.size(); ++i) {
      if (nmb_counter_value_room_varies(gp.members[i].value))
        gp.string_members.push_back(static_cast<uint32_t>(i));
      gp.values_end = std::max(gp.values_end, nmb_counter_value_end(gp.members[i].value));
    }
  }
  build_form_text(*plan, plan->forms[0], false);
  build_form_text(*plan, plan->forms[1], true);
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
