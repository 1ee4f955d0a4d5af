#include "filter/patterns.h"

#include <fnmatch.h>

#include <cstring>
#include <string>

namespace {

bool wildcard_match(const std::string& pattern, const char* name) {
  if (fnmatch(pattern.c_str(), name, FNM_CASEFOLD) == 0) return true;
  // A pattern also selects the names that continue with a dot.
  std::string dotted = pattern + ".*";
  return fnmatch(dotted.c_str(), name, FNM_CASEFOLD) == 0;
}

bool pattern_matches(const std::string& pattern, const char* name, int mode) {
  switch (mode) {
    case NMB_MATCH_EXACT:
      return pattern == name;
    case NMB_MATCH_WILDCARD:
      return wildcard_match(pattern, name);
    case NMB_MATCH_CONTAINS:
      return std::strstr(name, pattern.c_str()) != nullptr;
    default:
      return false;
  }
}

}  // namespace

const char* nmb_match_mode_name(int mode) {
  static const char* const names[] = {"exact", "wildcard", "regexp", "contains"};
  return mode >= 0 && mode < 4 ? names[mode] : nullptr;
}

bool nmb_string_array_match(const char* name, const nmb_string_array_t& patterns, int mode) {
  if (name == nullptr) return false;
  for (const std::string& pattern : patterns) {
    if (pattern_matches(pattern, name, mode)) return true;
  }
  return false;
}

bool nmb_type_name_is_selected(const char* name, const nmb_string_array_t& include,
                               const nmb_string_array_t& exclude) {
  return nmb_string_array_match(name, include, NMB_MATCH_WILDCARD) &&
         !nmb_string_array_match(name, exclude, NMB_MATCH_WILDCARD);
}
