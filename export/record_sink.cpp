#include "export/record_sink.h"

#include <cinttypes>
#include <string>

#include "data/events_block.h"
#include "data/file_header.h"
#include "data/format.h"
#include "data/type_system.h"
#include "export/header_print.h"
#include "export/value_format.h"
#include "metrics/metrics_parser.h"
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
  events_outside_bounds_ = 0;
  batches_outside_bounds_ = 0;
  short_values_warned_ = false;
  metadata_ = nullptr;
  schemas_loaded(nullptr);
  return true;
}

void RecordSink::end_data(bool /*ok*/) {
  if (events_outside_bounds_ == 0 && batches_outside_bounds_ == 0) return;
  NMB_LOG(NMB_LOG_WARNING,
          "%" PRIu64 " event records and %" PRIu64
          " metrics batches of %s lie outside -g/-l and were exported all the same: the time "
          "bounds select counters blocks only. Filter records by their time with jq "
          "(\"header_timestamp\", \"timestamp\"), or use -f openmetrics, which bounds every sample",
          events_outside_bounds_, batches_outside_bounds_, output_.path());
}

void RecordSink::header_read(const nmb_file_header_t& header) {
  if (output_.settings().print_headers) nmb_print_file_header(header);
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
  const ExportSettings& settings = output_.settings();
  bool ok = true;
  if (!counters_plan_) {
    // No counters schema: nothing to print or write.
  } else if (settings.print_headers) {
    uint8_t header[NMB_COUNTERS_BLOCK_HEADER_SIZE];
    block.copy(0, header, sizeof header);
    nmb_print_counters_block_header(header);
  } else {
    const uint64_t timestamp = block.u64(NMB_COUNTERS_BLOCK_TIMESTAMP);
    const uint64_t values = block.size() - NMB_COUNTERS_BLOCK_HEADER_SIZE;
    const uint32_t laid_out = counters_schema()->size;
    if (values < laid_out && !short_values_warned_) {
      // Read past the block, the values are zeros.
      short_values_warned_ = true;
      NMB_LOG(NMB_LOG_WARNING,
              "A counters block of %s holds %" PRIu64
              " value bytes, fewer than the %u its counters schema lays out: the counters past "
              "them read as 0. A counter set (-C) fits only data collected with it",
              output_.path(), values, laid_out);
    }
    if (timestamp >= settings.timestamp_gt && timestamp <= settings.timestamp_lt)
      ok = write_counters(block);
  }
  // Counted whatever was written (skipped by the time bounds or only
  // printed as a header too), so the next json record gets its separator.
  output_.count_record();
  return ok;
}

size_t RecordSink::events_block(ByteView area) {
  const ExportSettings& settings = output_.settings();
  const nmb_events_block_t block = nmb_events_block_read(area);
  if (settings.print_headers) nmb_print_event_block_header(block.header);
  const nmb_type_definition_t* type = nmb_events_block_type(type_system_, block);
  const nmb_event_plan_t* plan =
      type != nullptr ? event_plans_.find(block.schema_index, block.type_index) : nullptr;
  if (plan == nullptr) return 0;

  nmb_header_timestamp_t stamp;
  stamp.value = block.timestamp;
  if (plan->selected) {
    stamp.formatted_length = nmb_format_timestamp_into(stamp.value, settings.microsecond_precision,
                                                       stamp.formatted, sizeof stamp.formatted);
  }
  const bool outside = events_unbounded_ &&
                       (stamp.value < settings.timestamp_gt || stamp.value > settings.timestamp_lt);
  return nmb_events_block_for_each(block, type->size, area, [&](ByteView record) {
    if (!plan->selected) return true;
    if (write_event(*plan, record, stamp)) {
      output_.count_record();
      events_outside_bounds_ += outside;
      return true;
    }
    NMB_LOG(NMB_LOG_ERROR, "Failed to print");
    return false;
  });
}

bool RecordSink::metrics_block(ByteView block) {
  metrics::MetricsTables tables;
  std::string error;
  if (!metrics::parse_metrics_payload(block.span(), tables, error)) {
    NMB_LOG(NMB_LOG_ERROR, "failed to parse full block: %s", error.c_str());
  } else if (write_metrics(tables) && metrics_unbounded_) {
    const ExportSettings& settings = output_.settings();
    for (const metrics::BatchRecord& batch : tables.batches) {
      batches_outside_bounds_ +=
          batch.timestamp < settings.timestamp_gt || batch.timestamp > settings.timestamp_lt;
    }
  }
  // Counted whatever was written; a block that failed is logged and reading
  // goes on with the next one.
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
