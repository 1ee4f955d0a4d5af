// Stub, replaced by the real exporter.
#include "export/event_export.h"

#include "data/type_system.h"

struct nmb_event_plan_t {};
void nmb_event_plan_deleter::operator()(nmb_event_plan_t* plan) const {
  delete plan;
}

size_t nmb_export_events_block(nmb_reader_context_t&, std::span<const uint8_t>) {
  return 0;
}
bool nmb_event_plans_compile(nmb_schema_t&) {
  return false;
}
