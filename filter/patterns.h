// Testing a name against a list of patterns in one of four match modes.
// Stage: model.
#pragma once

#include "utils/string_array.h"

enum nmb_match_mode_t : int {
  NMB_MATCH_EXACT = 0,
  NMB_MATCH_WILDCARD = 1,
  NMB_MATCH_REGEXP = 2,  // named but never matches
  NMB_MATCH_CONTAINS = 3,
};

// Name of a mode ("exact", "wildcard", "regexp", "contains"), or nullptr.
const char* nmb_match_mode_name(int mode);

// True when some pattern of `patterns` matches `name` in `mode`.
bool nmb_string_array_match(const char* name, const nmb_string_array_t& patterns, int mode);

// The event type rule: matches the include list and not the exclude list.
bool nmb_type_name_is_selected(const char* name, const nmb_string_array_t& include,
                               const nmb_string_array_t& exclude);
