// -f influx: event records as Influx lines through the Influx serializer;
// counters and metrics blocks are reported as not supported. Records that
// leave no field are not written, and are counted and logged once per file.
// Stage: writer.
#pragma once

#include <cstdint>
#include <string>

#include "export/influx_serializer.h"
#include "export/record_sink.h"

namespace nmb {

class InfluxSink : public RecordSink {
 public:
  InfluxSink(const ExportSettings& settings, OutputBuffer& buffer)
      : RecordSink(settings, buffer, false) {
    events_unbounded_ = true;
  }

  bool file_opened(const char* path) override;
  void header_checked(const nmb_file_header_t& header) override;
  void schemas_loaded(const nmb_type_system_t* ts) override;
  void end_data(bool ok) override;

 protected:
  bool write_counters(ByteView block) override;
  bool write_event(const nmb_event_plan_t& plan, ByteView record,
                   const nmb_header_timestamp_t& ts) override;
  bool write_metrics(const metrics::MetricsTables& /*tables*/) override {
    output().report("Influx line API output is not yet supported for metrics data");
    return true;
  }

 private:
  data::InfluxSerializer serializer_;
  uint64_t records_without_field_ = 0;  // in the current file
  std::string first_type_without_field_;
};

}  // namespace nmb
