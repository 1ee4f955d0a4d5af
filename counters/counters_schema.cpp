#include "counters/counters_schema.h"

std::unique_ptr<nmb_counters_schema_t> nmb_counters_schema_load_file(const char*,
                                                                     const nmb_counter_filter_t*) {
  return nullptr;
}
std::unique_ptr<nmb_counters_schema_t> nmb_counters_schema_from_text(const char*, size_t,
                                                                     const nmb_counter_filter_t*) {
  return nullptr;
}
bool nmb_counters_schema_has_counters(const nmb_counters_schema_t& schema) {
  for (const auto& g : schema.groups)
    if (!g.counters.empty()) return true;
  return false;
}
