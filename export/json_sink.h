// -f json and -f ndjson: one JSON object per counters block and per event
// record. json writes one document for the whole run,
// {"<file base name>":[record,\n record, ...], ...}, records pretty-printed;
// ndjson writes each record compact on a line of its own.
// Stage: writer.
#pragma once

#include <memory>
#include <string_view>

#include "export/event_json_layout.h"
#include "export/record_sink.h"

namespace nmb {

class JsonSink : public RecordSink {
 public:
  JsonSink(const ExportSettings& settings, OutputBuffer& buffer, bool pretty);

  void schemas_loaded(const nmb_type_system_t* ts) override;
  void begin_run() override;
  void end_run(bool completed) override;
  void begin_data(const char* path, bool first) override;
  void end_data(bool ok) override;

 protected:
  bool write_counters(ByteView block) override;
  bool write_event(const nmb_event_plan_t& plan, ByteView record,
                   const nmb_header_timestamp_t& ts) override;
  bool write_metrics(const metrics::MetricsTables& tables) override;

 private:
  const bool pretty_;                 // json; ndjson otherwise
  nmb_event_json_layouts_t layouts_;  // of the event plans
};

// The name under which json puts a file's records: its base name, cut
// before its first '.'.
std::string_view json_file_key(std::string_view path);

}  // namespace nmb
