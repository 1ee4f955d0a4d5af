// The counter set the reader holds while it loads a counters schema (-C):
// the token lines of a counter set file, each parsed once, and the file's
// meta fields. The counters schema loader asks it about every counter.
// Stage: model.
#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "counters/counters_schema.h"
#include "filter/counter_set.h"
#include "utils/string_array.h"

struct nmb_provider_counter_set_t {
  nmb_string_array_t tokens;             // the token lines, trimmed, in file order
  std::vector<nmb_cset_token_t> parsed;  // the same lines, parsed
  nmb_counter_set_t counter_set;         // the file name and the meta fields
};

// Loads a counter set file; null (logged) when the name is null or the file
// cannot be read.
std::unique_ptr<nmb_provider_counter_set_t> nmb_provider_counter_set_create(
    const char* cset_filename);
// The same over text held in memory; `cset_filename` names it in messages.
std::unique_ptr<nmb_provider_counter_set_t> nmb_provider_counter_set_create_from_text(
    const char* cset_filename, std::string_view text);

// 1 to keep the counter, 0 to drop it (also, logged, for a null argument). A
// set without token lines keeps every counter.
int nmb_provider_counter_set_should_include_counter(const nmb_provider_counter_set_t* set,
                                                    const char* counter_name);

// The counters schema loader's hook asking `set` (which must outlive it).
nmb_counter_filter_t nmb_provider_counter_set_filter(const nmb_provider_counter_set_t& set);
