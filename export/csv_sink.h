// -f csv: every record is reported as not supported.
// Stage: writer.
#pragma once

#include "export/record_sink.h"

namespace nmb {

class CsvSink : public RecordSink {
 public:
  CsvSink(const ExportSettings& settings, OutputBuffer& buffer)
      : RecordSink(settings, buffer, false) {}

 protected:
  bool write_counters(ByteView /*block*/) override {
    output().report("CSV output is not supported yet");
    return true;
  }
  bool write_event(const nmb_event_plan_t& /*plan*/, ByteView /*record*/,
                   const nmb_header_timestamp_t& /*ts*/) override {
    output().report("CSV output is not supported yet");
    return true;
  }
  bool write_metrics(const metrics::MetricsTables& /*tables*/) override {
    output().report("CSV output is not supported yet");
    return true;
  }
};

}  // namespace nmb
