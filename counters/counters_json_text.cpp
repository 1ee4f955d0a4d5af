#include "counters/counters_json_text.h"

#include <algorithm>
#include <string>

#include "utils/json_writer.h"

namespace nmb {

namespace {

// Records the writer's text for a plan's shape piece by piece.
class FormBuilder {
 public:
  FormBuilder(CountersJsonText& form, bool pretty) : form_(form), writer_(scratch_, pretty) {}
  JsonWriter& w() { return writer_; }
  // The text written since the last piece.
  TextPiece take() {
    const TextPiece piece = form_.text.add(scratch_);
    scratch_.clear();
    return piece;
  }

 private:
  CountersJsonText& form_;
  std::string scratch_;
  JsonWriter writer_;
};

// A counter set written twice gives the pieces of the first and of later
// sets; values are empty placeholders (they write no text).
void record_group_text(FormBuilder& b, const CounterGroupPlan& group, GroupText& g) {
  JsonWriter& w = b.w();
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
  g.set_room = std::max(g.open_first.length, g.open_next.length) + g.close.length + kPiecePadding;
  for (size_t i = 0; i < g.keys.size(); ++i)
    g.set_room += g.keys[i].length + nmb_counter_value_room(group.members[i].value, ByteView());
}

}  // namespace

void record_counters_json_text(const std::vector<CounterGroupPlan>& groups, CountersJsonText& form,
                               bool pretty) {
  FormBuilder b(form, pretty);
  JsonWriter& w = b.w();
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
  for (const auto& group : groups) {
    // A group whose name cannot be written fails the block where it stands.
    if (group.name.empty()) break;
    record_group_text(b, group, form.groups.emplace_back());
  }
  w.end_array();
  w.end_object();
  form.close = b.take();
  form.text.seal();
}

}  // namespace nmb
