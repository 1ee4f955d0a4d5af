#include "counters/counters_export.h"

struct nmb_counters_plan_t {};

void nmb_counters_plan_deleter::operator()(nmb_counters_plan_t* plan) const {
  delete plan;
}

int nmb_export_counters_block(nmb_reader_context_t&, std::span<const uint8_t>) {
  return 0;
}
nmb_counters_plan_ptr nmb_counters_plan_create(const nmb_counters_schema_t&) {
  return nmb_counters_plan_ptr(new nmb_counters_plan_t());
}
