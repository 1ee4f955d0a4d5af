// -f txt: counters blocks as aligned text tables; event records are reported
// as not supported in text.
// Stage: writer.
#pragma once

#include "export/record_sink.h"

namespace nmb {

class TextSink : public RecordSink {
 public:
  TextSink(const ExportSettings& settings, OutputBuffer& buffer)
      : RecordSink(settings, buffer, false) {}

 protected:
  bool write_counters(ByteView block) override;
  bool write_event(const nmb_event_plan_t& plan, ByteView record,
                   const nmb_header_timestamp_t& ts) override;
  bool write_metrics(const metrics::MetricsTables& /*tables*/) override {
    output().report("Unsupported output format");
    return true;
  }
};

}  // namespace nmb
