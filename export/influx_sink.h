// -f influx: event records as Influx lines; counters blocks are reported as
// not supported.
#pragma once

#include <string>

#include "export/record_sink.h"

namespace nmb {

class InfluxSink : public RecordSink {
 public:
  InfluxSink(const ExportSettings& settings, OutputBuffer& buffer)
      : RecordSink(settings, buffer, false) {}

  bool write_counters(ByteView block) override;
  bool write_event(const nmb_event_plan_t& plan, ByteView record,
                   const nmb_header_timestamp_t& ts) override;
  bool write_metrics(const metrics::MetricsTables& /*tables*/) override {
    output().report("Influx line API output is not yet supported for metrics data");
    return true;
  }

 private:
  std::string key_prefix_;  // reused for every record
};

}  // namespace nmb
