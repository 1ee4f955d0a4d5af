#include "counters/counters_plan.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <unordered_map>

#include "utils/json_writer.h"

namespace nmb {

std::vector<CounterGroupPlan> compile_counter_groups(const nmb_counters_schema_t& schema,
                                                     const nmb_metadata_t* metadata) {
  std::optional<CounterEnrichment> enrichment;
  if (metadata != nullptr) enrichment.emplace(*metadata);
  std::vector<CounterGroupPlan> groups;
  groups.reserve(schema.groups.size());
  for (const auto& group : schema.groups) {
    CounterGroupPlan& gp = groups.emplace_back();
    JsonWriter text(gp.granularity, false);
    text.string(nmb_granularity_name(group.granularity));
    JsonWriter name(gp.name, false);
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
            CounterMember{json_escape_key(counter.name), nmb_counter_render_compile(counter)});
      } else {
        gp.members[it->second].value = nmb_counter_render_compile(counter);
        repeated = true;
      }
    }
    if (repeated) {
      gp.steps.reserve(group.counters.size());
      for (const auto& counter : group.counters)
        gp.steps.push_back(CounterGroupPlan::Step{
            nmb_counter_render_compile(counter), static_cast<uint32_t>(position.at(counter.name))});
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
  return groups;
}

}  // namespace nmb
