#include "export/openmetrics_sink.h"

#include <algorithm>
#include <cinttypes>
#include <map>
#include <stdexcept>

#include "counters/counter_value.h"
#include "data/file_header.h"
#include "data/format.h"
#include "data/type_system.h"
#include "metrics/metrics_parser.h"
#include "utils/log.h"
#include "utils/openmetrics_text.h"

namespace nmb {

namespace om = openmetrics;

OpenMetricsSink::OpenMetricsSink(const ExportSettings& settings, OutputBuffer& buffer)
    : RecordSink(settings, buffer, false), families_(std::make_shared<om::Families>()) {}

OpenMetricsSink::~OpenMetricsSink() = default;

bool OpenMetricsSink::file_opened(const char* path) {
  source_labels_.clear();
  last_time_ = nullptr;
  tally_ = {};
  blocks_back_in_time_ = 0;
  return RecordSink::file_opened(path);
}

void OpenMetricsSink::header_checked(const nmb_file_header_t& header) {
  om::LabelText labels;
  labels.add("source_id", header.source_id);
  labels.add("source_tag", header.source_tag);
  source_labels_ = labels.writable ? std::move(labels.text) : std::string();
  if (!labels.writable) {
    NMB_LOG(NMB_LOG_WARNING,
            "The source id or source tag of %s is not valid UTF-8: its OpenMetrics samples carry "
            "neither",
            output().path());
  }
  last_time_ = &last_counters_time_.try_emplace(source_labels_, 0).first->second;
}

void OpenMetricsSink::schemas_loaded(const nmb_type_system_t* ts) {
  events_.clear();
  counters_.reset();
  RecordSink::schemas_loaded(ts);
  metadata_loaded(metadata());
}

void OpenMetricsSink::metadata_loaded(const nmb_metadata_t* metadata) {
  if (counters_ && metadata == this->metadata()) return;  // the layout stands
  RecordSink::metadata_loaded(metadata);
  counters_.reset();
  if (const nmb_counters_schema_t* schema = counters_schema()) {
    counters_ = std::make_unique<om::CountersLayout>(
        om::compile_counters_layout(*schema, metadata, *families_, nmb_counters_guid_switch()));
  }
}

bool OpenMetricsSink::in_bounds(uint64_t time) {
  const ExportSettings& settings = output().settings();
  return time >= settings.timestamp_gt && time <= settings.timestamp_lt;
}

bool OpenMetricsSink::write_counters(ByteView block) {
  if (!counters_) return true;
  const uint64_t time = block.u64(NMB_COUNTERS_BLOCK_TIMESTAMP);
  if (last_time_ != nullptr) {
    if (time <= *last_time_ && *last_time_ != 0) ++blocks_back_in_time_;
    *last_time_ = std::max(*last_time_, time);
  }
  om::write_counters_block(output().text(), *counters_, block.from(NMB_COUNTERS_BLOCK_HEADER_SIZE),
                           time, source_labels_, scratch_, tally_);
  return true;
}

bool OpenMetricsSink::write_event(const nmb_event_plan_t& plan, ByteView record,
                                  const nmb_header_timestamp_t& ts) {
  if (refuse_unsafe_plan(plan)) {
    output().report("Failed to write event data as OpenMetrics");
    return false;
  }
  if (events_.size() <= plan.id) events_.resize(plan.id + 1);
  std::unique_ptr<om::EventLayout>& layout = events_[plan.id];
  if (!layout) {
    layout = std::make_unique<om::EventLayout>(
        om::compile_event_layout(plan, *families_, nmb_event_guid_conversion_on()));
  }
  const uint64_t time = om::event_time(*layout, record, ts.value);
  if (in_bounds(time))
    om::write_event_record(output().text(), *layout, record, time, source_labels_, scratch_,
                           tally_);
  return true;
}

namespace {

using metrics::BatchRecord;
using metrics::MetricsTables;

// The label text of every batch, all resolved before anything is written;
// throws what a malformed block throws.
std::vector<om::LabelText> batch_labels(const MetricsTables& tables) {
  std::vector<om::LabelText> all;
  all.reserve(tables.batches.size());
  for (const BatchRecord& batch : tables.batches) {
    std::map<std::string, std::string> pairs(tables.common_labels.begin(),
                                             tables.common_labels.end());
    auto names = tables.label_names.find(batch.label_set_id);
    if (names != tables.label_names.end()) {
      std::vector<std::string> texts =
          metrics::decode_label_values(batch.labels, tables.label_values);
      if (texts.size() > names->second.size()) {
        NMB_LOG(NMB_LOG_ERROR, "Label set %lu names %lu labels but the batch has %lu label values",
                batch.label_set_id, names->second.size(), texts.size());
        throw std::runtime_error("more label values than label names");
      }
      for (size_t i = 0; i < texts.size(); ++i) pairs[names->second[i]] = std::move(texts[i]);
    }
    for (const metrics::Sample& sample : batch.samples) {
      if (sample.sample_id >= tables.metric_names.size()) {
        NMB_LOG(NMB_LOG_ERROR, "Sample id %u has no metric name (%lu metric names)",
                static_cast<unsigned>(sample.sample_id), tables.metric_names.size());
        throw std::runtime_error("sample id without a metric name");
      }
    }
    om::LabelText labels;
    labels.take_name("source_id");
    labels.take_name("source_tag");
    for (const auto& [name, value] : pairs) {
      // A string value ends at its first zero byte, as in the json output.
      labels.add(name, std::string_view(value.c_str()));
    }
    all.push_back(std::move(labels));
  }
  return all;
}

}  // namespace

bool OpenMetricsSink::write_metrics(const metrics::MetricsTables& tables) {
  std::vector<om::LabelText> labels;
  try {
    labels = batch_labels(tables);
  } catch (const std::exception& e) {
    NMB_LOG(NMB_LOG_ERROR, "failed to parse full block: %s", e.what());
    return false;
  }
  // The family of each metric name, by batch type.
  std::vector<om::Family*> families[2];
  std::string& out = output().text();
  for (size_t b = 0; b < tables.batches.size(); ++b) {
    const BatchRecord& batch = tables.batches[b];
    if (!in_bounds(batch.timestamp) || batch.samples.empty()) continue;
    const bool counter = batch.type == 'C';
    std::vector<om::Family*>& by_id = families[counter ? 1 : 0];
    by_id.resize(tables.metric_names.size());
    auto family_of = [&](uint16_t id) -> om::Family& {
      om::Family*& family = by_id[id];
      if (family == nullptr) {
        family = &families_->declare(om::valid_name(tables.metric_names[id], false),
                                     counter ? om::FamilyType::kCounter : om::FamilyType::kGauge);
      }
      return *family;
    };
    if (!labels[b].writable) {
      if (tally_.unwritable == 0)
        tally_.first_unwritable = &family_of(batch.samples.front().sample_id);
      tally_.unwritable += batch.samples.size();
      continue;
    }
    char time[om::kLineEndRoom];
    const size_t time_length = om::write_line_end(time, batch.timestamp);
    for (const metrics::Sample& sample : batch.samples) {
      om::Family* family = &family_of(sample.sample_id);
      om::Families::announce(out, *family);
      om::append_series(out, *family, source_labels_, labels[b].text);
      char value[om::kValueRoom];
      out.append(value, om::write_unsigned(value, sample.sample_value));
      out.append(time, time_length);
    }
  }
  return true;
}

void OpenMetricsSink::end_data(bool ok) {
  RecordSink::end_data(ok);
  if (tally_.unwritable != 0) {
    NMB_LOG(NMB_LOG_WARNING,
            "%" PRIu64
            " OpenMetrics samples of %s were not written: a label value is not valid UTF-8 (the "
            "first of family %s)",
            tally_.unwritable, output().path(),
            tally_.first_unwritable != nullptr ? tally_.first_unwritable->name.c_str() : "?");
  }
  if (blocks_back_in_time_ != 0) {
    NMB_LOG(NMB_LOG_WARNING,
            "%" PRIu64
            " counters blocks of %s are not later than an earlier block of their source: "
            "Prometheus drops the samples of such blocks; export a source's files in time order "
            "(-Sfirst_timestamp)",
            blocks_back_in_time_, output().path());
  }
}

void OpenMetricsSink::share_run_with(BlockSink& run) {
  if (auto* sink = dynamic_cast<OpenMetricsSink*>(&run)) families_ = sink->families_;
}

void OpenMetricsSink::end_run(bool /*completed*/) {
  output().text().append("# EOF\n");
}

}  // namespace nmb
