#include "export/record_sink.h"

#include "data/type_system.h"
#include "export/event_export.h"
#include "utils/log.h"

namespace nmb {

namespace {
const nmb_string_array_t kNoPatterns;
}

RecordSink::RecordSink(const ExportSettings& settings, OutputBuffer& buffer, bool json_separators)
    : output_(settings, buffer, json_separators) {}

RecordSink::~RecordSink() = default;

bool RecordSink::file_opened(const char* path) {
  output_.start_file(path);
  metadata_ = nullptr;
  schemas_loaded(nullptr);
  return true;
}

void RecordSink::schemas_loaded(const nmb_type_system_t* ts) {
  type_system_ = ts;
  event_plans_.clear();
  counters_plan_.reset();
  if (ts == nullptr) return;
  const ExportSettings& settings = output_.settings();
  nmb_event_plans_compile(*ts, settings.include ? *settings.include : kNoPatterns,
                          settings.exclude ? *settings.exclude : kNoPatterns, event_plans_);
  compile_counters_plan();
}

void RecordSink::metadata_loaded(const nmb_metadata_t* metadata) {
  if (metadata == metadata_) return;  // none again (no -M): the plan stands
  metadata_ = metadata;
  compile_counters_plan();
}

void RecordSink::compile_counters_plan() {
  counters_plan_.reset();
  const nmb_counters_schema_t* schema = counters_schema();
  if (schema != nullptr) counters_plan_ = nmb_counters_plan_create(*schema, metadata_);
}

const nmb_counters_schema_t* RecordSink::counters_schema() const {
  return type_system_ != nullptr ? type_system_->counters_schema.get() : nullptr;
}

bool RecordSink::counters_block(ByteView block) {
  const int result = counters_plan_ ? nmb_export_counters_block(output_, block, *this) : 1;
  // Counted whatever the export did (skipped by the time filter or only
  // printed as a header too), so the next json record gets its separator.
  output_.count_record();
  return result != 0;
}

size_t RecordSink::events_block(ByteView area) {
  return nmb_export_events_block(output_, type_system_, event_plans_, area, *this);
}

bool RecordSink::metrics_block(ByteView block) {
  nmb_export_metrics_block(output_, block, *this);
  // Counted whatever the export did; a block that failed is logged and
  // reading goes on with the next one.
  output_.count_record();
  return true;
}

bool refuse_unsafe_plan(const nmb_event_plan_t& plan) {
  const std::string& refusal =
      nmb_event_guid_conversion_on() ? plan.refusal : plan.refusal_guid_plain;
  if (refusal.empty()) return false;
  NMB_LOG(NMB_LOG_ERROR, "%s", refusal.c_str());
  return true;
}

}  // namespace nmb
