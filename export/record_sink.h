// The block sink of every format that writes records. It compiles the export
// plans when a type system has been loaded and walks every block itself:
// -p header printing, the time bounds, the records of an events block, the
// parse of a metrics block, and the count of records written per file (which
// puts the json ",\n" between records). A format writes one record in each
// of its three hooks and nothing else.
//
// To add an output format, derive from RecordSink, implement the hooks (and
// the run and file framing the format needs), and add its row to the format
// table in app/.
// Stage: writer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "counters/counters_export.h"
#include "data/block_sink.h"
#include "export/event_json.h"
#include "export/event_plan.h"
#include "export/record_output.h"
#include "metrics/metrics_export.h"

struct nmb_counters_schema_t;

namespace nmb {

class RecordSink : public BlockSink {
 public:
  // `json_separators`: the format separates a file's records with ",\n".
  RecordSink(const ExportSettings& settings, OutputBuffer& buffer, bool json_separators);
  ~RecordSink() override;

  bool file_opened(const char* path) override;
  // Warns (once per file) about event and metrics records exported outside
  // -g/-l by a format that exports them; a format overriding it calls it.
  void end_data(bool ok) override;
  void header_read(const nmb_file_header_t& header) override;
  void schemas_loaded(const nmb_type_system_t* ts) override;
  void metadata_loaded(const nmb_metadata_t* metadata) override;
  bool counters_block(ByteView block) override;
  size_t events_block(ByteView area) override;
  bool metrics_block(ByteView block) override;

  RecordOutput& output() { return output_; }
  const nmb_type_system_t* type_system() const { return type_system_; }
  const nmb_metadata_t* metadata() const { return metadata_; }
  const nmb_counters_schema_t* counters_schema() const;
  const nmb_counters_plan_t* counters_plan() const { return counters_plan_.get(); }
  const nmb_event_plans_t& event_plans() const { return event_plans_; }

 protected:
  // What one record becomes in this format, written (or reported) through
  // output(). The walk counts the record; a hook never does.
  //  - write_counters: a counters block that passed -p and the time bounds,
  //    with a counters plan; false fails the file (the hook has reported).
  //  - write_event: one record of a selected type (`record` runs to the end
  //    of its block); false fails the file, after "Failed to print".
  //  - write_metrics: a parsed metrics block; false loses the block (the
  //    hook has logged why) and reading goes on.
  virtual bool write_counters(ByteView block) = 0;
  virtual bool write_event(const nmb_event_plan_t& plan, ByteView record,
                           const nmb_header_timestamp_t& ts) = 0;
  virtual bool write_metrics(const metrics::MetricsTables& tables) = 0;

  // The format writes every selected event record (metrics batch) whatever
  // its time, which -g/-l do not bound: such records are counted and warned
  // about at the end of the file.
  bool events_unbounded_ = false;
  bool metrics_unbounded_ = false;

 private:
  // The counters plan of the current schema with the current metadata.
  void compile_counters_plan();

  RecordOutput output_;
  const nmb_type_system_t* type_system_ = nullptr;
  const nmb_metadata_t* metadata_ = nullptr;
  nmb_event_plans_t event_plans_;
  nmb_counters_plan_ptr counters_plan_;
  // Of the current file.
  uint64_t events_outside_bounds_ = 0;
  uint64_t batches_outside_bounds_ = 0;
  bool short_values_warned_ = false;
};

// The refusal of a plan that cannot be written, logged; true when refused.
bool refuse_unsafe_plan(const nmb_event_plan_t& plan);

}  // namespace nmb
