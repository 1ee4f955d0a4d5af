// What a counters block needs, compiled once per counters schema: per group
// its quoted granularity and name, a renderer per counter, the members an
// object of repeated names keeps, and with metadata (-M) each counter's
// enriched form. Output-neutral: the JSON text is recorded apart.
// Stage: plan.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "counters/counter_enrichment.h"
#include "counters/counter_value.h"
#include "counters/counters_schema.h"

namespace nmb {

// One member of a counter set object.
struct CounterMember {
  std::string key;  // quoted and escaped
  nmb_counter_render_t value;
};

struct CounterGroupPlan {
  std::string granularity;  // quoted JSON string
  std::string name;         // quoted JSON string; empty when the name is not valid UTF-8
  uint32_t num_counter_sets = 0;
  std::vector<CounterMember> members;
  // Only for groups that repeat a name: every counter in counter order with
  // the member it sets. The member keeps the first position and takes the
  // last value, but every value is still built, in counter order (they can
  // fail the record or log warnings).
  struct Step {
    nmb_counter_render_t value;
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

// The groups of `schema` in order; with `metadata`, enriched.
std::vector<CounterGroupPlan> compile_counter_groups(const nmb_counters_schema_t& schema,
                                                     const nmb_metadata_t* metadata);

}  // namespace nmb
