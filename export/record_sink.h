// The block sink of every format that writes records: it compiles the export
// plans when a type system has been loaded, walks events, counters and
// metrics blocks through their exporters, and leaves to each output format
// only what it writes for one record (the write_* hooks).
//
// To add an output format, derive from RecordSink, implement the hooks (and
// the run and file framing the format needs), and add one line to the sink
// selection in app/.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "counters/counters_export.h"
#include "data/block_sink.h"
#include "export/event_export.h"
#include "export/event_json.h"
#include "export/event_plan.h"
#include "export/record_output.h"
#include "metrics/metrics_export.h"

struct nmb_counters_schema_t;

namespace nmb {

class RecordSink : public BlockSink,
                   protected nmb_counters_writer_t,
                   protected nmb_event_writer_t,
                   protected nmb_metrics_writer_t {
 public:
  // `json_separators`: the format separates a file's records with ",\n".
  RecordSink(const ExportSettings& settings, OutputBuffer& buffer, bool json_separators);
  ~RecordSink() override;

  bool file_opened(const char* path) override;
  void schemas_loaded(const nmb_type_system_t* ts) override;
  void metadata_loaded(const nmb_metadata_t* metadata) override;
  bool counters_block(ByteView block) override;
  size_t events_block(ByteView area) override;
  bool metrics_block(ByteView block) override;

  // What one record becomes in this format (the hooks of the writers):
  // write_counters for a counters block that passed -p and the time bounds,
  // write_event for one record of a selected event type, write_metrics for
  // a parsed metrics block (refused by most formats). Each returns false
  // when the file fails, and counts the record in output() when it was
  // handled.

  RecordOutput& output() { return output_; }
  const nmb_type_system_t* type_system() const { return type_system_; }
  const nmb_counters_schema_t* counters_schema() const;
  const nmb_counters_plan_t* counters_plan() const { return counters_plan_.get(); }
  const nmb_event_plans_t& event_plans() const { return event_plans_; }

 private:
  // The counters plan of the current schema with the current metadata.
  void compile_counters_plan();

  RecordOutput output_;
  const nmb_type_system_t* type_system_ = nullptr;
  const nmb_metadata_t* metadata_ = nullptr;
  nmb_event_plans_t event_plans_;
  nmb_counters_plan_ptr counters_plan_;
};

// The refusal of a plan that cannot be written, logged; true when refused.
bool refuse_unsafe_plan(const nmb_event_plan_t& plan);

}  // namespace nmb
