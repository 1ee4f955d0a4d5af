#include "counters/counters_export.h"

#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "data/format.h"
#include "export/record_output.h"
#include "export/value_format.h"
#include "filter/metadata.h"
#include "utils/json_writer.h"
#include "utils/log.h"

namespace {

// How one counter's value is written, decided from its type, string format
// and name when the schema is loaded.
enum class Render : uint8_t {
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
};

struct CounterRender {
  Render render = Render::kSignedNumber;
  int32_t format = 0;
  // A GUID-like name in DECIMAL format: hex text while the GUID switch is on.
  bool guid_switched = false;
  uint32_t offset = 0;
  uint32_t length = 0;
  const char* name = nullptr;  // the schema's copy (for messages)
};

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
};

// Read from the environment on the first counter value written.
bool guid_conversion_switch() {
  static const bool on = nmb_read_guid_conversion_switch();
  return on;
}

CounterRender compile_counter(const nmb_counter_info_t& counter) {
  CounterRender r;
  r.format = counter.string_format;
  r.offset = counter.offset;
  r.length = counter.length;
  r.name = counter.name.c_str();
  const int32_t format = counter.string_format;
  const bool has_guid = nmb_name_has_guid(r.name);
  r.guid_switched = format == NMB_STRING_FORMAT_DECIMAL && nmb_is_guid_field_name(r.name);
  const bool plain = format == NMB_STRING_FORMAT_DEFAULT || format == NMB_STRING_FORMAT_DECIMAL;
  switch (counter.data_type) {
    case NMB_COUNTER_DATA_TYPE_UINT64:
    case NMB_COUNTER_DATA_TYPE_BIT64:
      if (format == NMB_STRING_FORMAT_DEFAULT)
        r.render = counter.data_type == NMB_COUNTER_DATA_TYPE_BIT64 || has_guid
                       ? Render::kHex
                       : Render::kUnsignedNumber;
      else if (format == NMB_STRING_FORMAT_DECIMAL)
        r.render = has_guid ? Render::kHex : Render::kUnsignedNumber;
      else
        r.render = Render::kUnsignedFormatted;
      break;
    case NMB_COUNTER_DATA_TYPE_FP64:
      r.render = plain ? Render::kDoubleNumber : Render::kDoubleFormatted;
      break;
    case NMB_COUNTER_DATA_TYPE_INT64:
      r.render = plain ? Render::kSignedNumber : Render::kSignedFormatted;
      break;
    case NMB_COUNTER_DATA_TYPE_STRING:
      r.render = Render::kString;
      break;
    case NMB_COUNTER_DATA_TYPE_UINT128:
    case NMB_COUNTER_DATA_TYPE_INT128:
      r.render = counter.data_type == NMB_COUNTER_DATA_TYPE_UINT128 ? Render::kUnsigned128
                                                                    : Render::kSigned128;
      // DEFAULT counts as DECIMAL: the plain hex digits, with the warning.
      if (format == NMB_STRING_FORMAT_DEFAULT) r.format = NMB_STRING_FORMAT_DECIMAL;
      break;
    default:
      r.render = Render::kSignedNumber;
  }
  return r;
}

void quoted_ascii(nmb::JsonWriter& w, const char* text, size_t length) {
  char quoted[NMB_VALUE_TEXT_ROOM + 2];
  quoted[0] = '"';
  std::memcpy(quoted + 1, text, length);
  quoted[length + 1] = '"';
  w.raw_value(std::string_view(quoted, length + 2));
}

// Writes one counter value; false when it cannot be a JSON value.
bool render_value(nmb::JsonWriter& w, const CounterRender& r, const nmb::ByteView& values) {
  char text[NMB_VALUE_TEXT_ROOM];
  const Render render = guid_conversion_switch() && r.guid_switched ? Render::kHex : r.render;
  switch (render) {
    case Render::kUnsignedNumber:
      return w.number(static_cast<double>(values.u64(r.offset)));
    case Render::kSignedNumber:
      return w.number(static_cast<double>(static_cast<int64_t>(values.u64(r.offset))));
    case Render::kHex: {
      char hex[NMB_GUID_HEX_LENGTH + 1];
      nmb_format_guid_hex_into(values.u64(r.offset), hex);
      quoted_ascii(w, hex, NMB_GUID_HEX_LENGTH);
      return true;
    }
    case Render::kUnsignedFormatted:
      quoted_ascii(w, text, nmb_format_uint64_into(values.u64(r.offset), r.format, text));
      return true;
    case Render::kSignedFormatted:
      quoted_ascii(
          w, text,
          nmb_format_int64_into(static_cast<int64_t>(values.u64(r.offset)), r.format, text));
      return true;
    case Render::kDoubleNumber:
    case Render::kDoubleFormatted: {
      uint64_t bits = values.u64(r.offset);
      double value;
      std::memcpy(&value, &bits, sizeof value);
      if (render == Render::kDoubleNumber) return w.number(value);
      quoted_ascii(w, text, nmb_format_fp64_into(r.format, value, text));
      return true;
    }
    case Render::kString: {
      // Past the end of the area the bytes read as zeros, which ends the text.
      std::span<const uint8_t> bytes = values.bytes(r.offset, r.length);
      if (nmb_log_enabled(NMB_LOG_DEBUG)) nmb_log_hex_dump(bytes.data(), bytes.size());
      if (bytes.empty()) return w.string(std::string_view(""));
      const char* chars = reinterpret_cast<const char*>(bytes.data());
      return w.string(std::string_view(chars, bytes.size()));
    }
    case Render::kUnsigned128:
    case Render::kSigned128: {
      uint8_t bytes[16];
      values.copy(r.offset, bytes, sizeof bytes);
      quoted_ascii(w, text, nmb_format_uint128_into(bytes, r.format, text));
      return true;
    }
  }
  return false;
}

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
    if (!render_value(value, step.value, values)) return false;
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
      if (!render_value(hidden, value, values)) return false;
    }
    w.begin_object();
    for (const auto& part : enriched.parts) {
      w.escaped_key(part.key);
      if (part.pairs) {
        write_pairs(w, *part.pairs);
      } else if (built != nullptr) {
        w.raw_value(step_value(*built, i));
      } else if (!render_value(w, value, values)) {
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

bool write_counter_set(nmb::JsonWriter& w, const GroupPlan& group, const nmb::ByteView& values) {
  if (!group.steps.empty() || group.enrich) return write_built_counter_set(w, group, values);
  w.begin_object();
  for (const auto& member : group.members) {
    w.escaped_key(member.key);
    if (!render_value(w, member.value, values)) return false;
  }
  w.end_object();
  return true;
}

bool write_group(nmb::JsonWriter& w, const GroupPlan& group, const nmb::ByteView& values) {
  if (group.name.empty()) return false;
  w.begin_object();
  w.escaped_key("\"granularity\"");
  w.raw_value(group.granularity);
  w.escaped_key("\"name\"");
  w.raw_value(group.name);
  w.escaped_key("\"counter_sets\"");
  w.begin_array();
  // Every counter set object holds the same values, but each is built on its
  // own, so that the formatters' warnings (and the debug dumps of strings)
  // come once per set, as for any other value that is built.
  for (uint32_t i = 0; i < group.num_counter_sets; ++i)
    if (!write_counter_set(w, group, values)) return false;
  w.end_array();
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
};

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
        gp.members.push_back(Member{nmb::json_escape_key(counter.name), compile_counter(counter)});
      } else {
        gp.members[it->second].value = compile_counter(counter);
        repeated = true;
      }
    }
    if (repeated) {
      gp.steps.reserve(group.counters.size());
      for (const auto& counter : group.counters)
        gp.steps.push_back(GroupPlan::Step{compile_counter(counter),
                                           static_cast<uint32_t>(position.at(counter.name))});
    }
    if (enrichment) {
      gp.enrich = true;
      gp.enriched.reserve(gp.members.size());
      for (const auto& member : gp.members)
        gp.enriched.push_back(enrichment->compile(member.value.name));
    }
  }
  return plan;
}

bool nmb_counters_block_to_json(std::string& out, nmb::ByteView block,
                                const nmb_counters_plan_t& plan, bool microsecond_precision,
                                bool pretty) {
  const size_t mark = out.size();
  const uint64_t timestamp = block.u64(NMB_COUNTERS_BLOCK_TIMESTAMP);
  const nmb::ByteView values = block.from(NMB_COUNTERS_BLOCK_HEADER_SIZE);

  nmb::JsonWriter w(out, pretty);
  w.begin_object();
  w.escaped_key("\"timestamp\"");
  w.number(static_cast<double>(timestamp));
  char text[64];
  size_t length = nmb_format_timestamp_into(timestamp, microsecond_precision, text, sizeof text);
  if (length != 0) {
    w.escaped_key("\"@timestamp\"");
    w.string(std::string_view(text, length));
  }
  w.escaped_key("\"groups\"");
  w.begin_array();
  for (const auto& group : plan.groups) {
    if (!write_group(w, group, values)) {
      out.resize(mark);
      return false;
    }
  }
  w.end_array();
  w.end_object();
  return true;
}

int nmb_export_counters_block(nmb::RecordOutput& out, nmb::ByteView block,
                              nmb_counters_writer_t& writer) {
  const nmb::ExportSettings& settings = out.settings();
  if (settings.print_headers) {
    uint8_t header[NMB_COUNTERS_BLOCK_HEADER_SIZE];
    block.copy(0, header, sizeof header);
    nmb_print_counters_block_header(header);
    return 1;
  }
  const uint64_t timestamp = block.u64(NMB_COUNTERS_BLOCK_TIMESTAMP);
  if (timestamp < settings.timestamp_gt || timestamp > settings.timestamp_lt) return 1;
  return writer.write_counters(block) ? 1 : 0;
}
