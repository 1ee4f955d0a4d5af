#include "export/influx_sink.h"

#include <cinttypes>
#include <string_view>

#include "data/file_header.h"
#include "data/type_system.h"
#include "utils/log.h"

namespace nmb {

bool InfluxSink::file_opened(const char* path) {
  serializer_.set_source({}, {});
  records_without_field_ = 0;
  first_type_without_field_.clear();
  return RecordSink::file_opened(path);
}

void InfluxSink::header_checked(const nmb_file_header_t& header) {
  serializer_.set_source(header.source_id, header.source_tag);
}

void InfluxSink::schemas_loaded(const nmb_type_system_t* ts) {
  serializer_.clear_types();  // the plans it refers to go now
  RecordSink::schemas_loaded(ts);
}

void InfluxSink::end_data(bool ok) {
  RecordSink::end_data(ok);
  if (records_without_field_ == 0) return;
  NMB_LOG(NMB_LOG_WARNING,
          "%" PRIu64
          " event records of %s were not written as Influx lines: no field value "
          "left (the first of type %s)",
          records_without_field_, output().path(), first_type_without_field_.c_str());
}

bool InfluxSink::write_counters(ByteView /*block*/) {
  output().report("Influx line API output is not yet supported for counters data");
  return true;
}

bool InfluxSink::write_event(const nmb_event_plan_t& plan, ByteView record,
                             const nmb_header_timestamp_t& ts) {
  if (refuse_unsafe_plan(plan)) {
    output().report("Failed to serialize event data to Influx line API format");
    return false;
  }
  if (!serializer_.serialize(plan, record, ts.value, output().text())) {
    // Only tags, or floats that are not finite: a line needs a field.
    if (records_without_field_++ == 0) first_type_without_field_ = plan.type->name;
  }
  return true;
}

}  // namespace nmb
