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

  bool file_opened(const char* path) override;
  // Warns once per file when the tables will show counters from other
  // counters' bytes (they read a counter by its position in its group).
  void schemas_loaded(const nmb_type_system_t* ts) override;

 protected:
  bool write_counters(ByteView block) override;
  bool write_event(const nmb_event_plan_t& plan, ByteView record,
                   const nmb_header_timestamp_t& ts) override;
  bool write_metrics(const metrics::MetricsTables& /*tables*/) override {
    output().report("Unsupported output format");
    return true;
  }

 private:
  bool layout_warned_ = false;
};

}  // namespace nmb
