// -f openmetrics: counters blocks, event records and metrics blocks as
// OpenMetrics samples, in the text that `promtool tsdb create-blocks-from
// openmetrics` backfills into Prometheus (docs/OPENMETRICS.md). One sink
// writes the whole run: each family's # TYPE and # HELP come once, before
// its first sample, and # EOF ends the run. The time bounds -g/-l hold for
// every sample.
// Stage: writer.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "export/openmetrics_counters.h"
#include "export/openmetrics_events.h"
#include "export/openmetrics_families.h"
#include "export/record_sink.h"

namespace nmb {

class OpenMetricsSink : public RecordSink {
 public:
  OpenMetricsSink(const ExportSettings& settings, OutputBuffer& buffer);
  ~OpenMetricsSink() override;

  bool file_opened(const char* path) override;
  void header_checked(const nmb_file_header_t& header) override;
  void schemas_loaded(const nmb_type_system_t* ts) override;
  void metadata_loaded(const nmb_metadata_t* metadata) override;
  void end_data(bool ok) override;
  void end_run(bool completed) override;
  void share_run_with(BlockSink& run) override;

 protected:
  bool write_counters(ByteView block) override;
  bool write_event(const nmb_event_plan_t& plan, ByteView record,
                   const nmb_header_timestamp_t& ts) override;
  bool write_metrics(const metrics::MetricsTables& tables) override;

 private:
  bool in_bounds(uint64_t time);

  // Of the whole run; shared with the run's sink when this one writes one
  // followed file.
  std::shared_ptr<openmetrics::Families> families_;
  std::string source_labels_;  // of the current file
  std::unique_ptr<openmetrics::CountersLayout> counters_;
  std::vector<std::unique_ptr<openmetrics::EventLayout>> events_;  // by plan id
  openmetrics::Scratch scratch_;
  // The time of the last counters block of each source, over the run.
  std::unordered_map<std::string, uint64_t> last_counters_time_;
  uint64_t* last_time_ = nullptr;  // the current file's source
  // Of the current file.
  openmetrics::SampleTally tally_;
  uint64_t blocks_back_in_time_ = 0;
};

}  // namespace nmb
