#include "metrics/metrics_export.h"

#include <array>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "export/value_format.h"
#include "utils/log.h"

namespace {

using nmb::metrics::BatchRecord;
using nmb::metrics::MetricsTables;
using LabelMap = std::unordered_map<std::string, std::string>;

enum class Member : uint8_t { kTimestamp, kAtTimestamp, kLabels, kMetrics };

// What the object will hold once every batch has set its members: the
// members in the order they were first set, and the last value of each.
struct ObjectPlan {
  std::array<Member, 4> order{};
  size_t members = 0;
  std::array<bool, 4> present{};
  const BatchRecord* last = nullptr;  // "timestamp" and "metrics"
  char at_timestamp[64] = {};
  size_t at_timestamp_length = 0;
  LabelMap labels;

  void set(Member member) {
    auto index = static_cast<size_t>(member);
    if (present[index]) return;
    present[index] = true;
    order[members++] = member;
  }
};

// The labels of a batch: the common labels, then each decoded text under its
// name (a later name replacing an earlier value).
LabelMap batch_labels(const MetricsTables& tables, std::vector<std::string> texts,
                      const std::vector<std::string>& names) {
  LabelMap labels = tables.common_labels;
  for (size_t i = 0; i < texts.size(); ++i) labels[names[i]] = std::move(texts[i]);
  return labels;
}

// A string value ends at its first zero byte.
bool is_valid_utf8_value(const std::string& value) {
  return nmb::json_is_valid_utf8(value.c_str(), std::strlen(value.c_str()));
}

bool values_are_valid_utf8(const LabelMap& labels) {
  for (const auto& [name, value] : labels) {
    if (!is_valid_utf8_value(value)) return false;
  }
  return true;
}

void check_sample_ids(const MetricsTables& tables, const BatchRecord& batch) {
  for (const nmb::metrics::Sample& sample : batch.samples) {
    if (sample.sample_id < tables.metric_names.size()) continue;
    NMB_LOG(NMB_LOG_ERROR, "Sample id %u has no metric name (%lu metric names)",
            static_cast<unsigned>(sample.sample_id), tables.metric_names.size());
    throw std::runtime_error("sample id without a metric name");
  }
}

// Sets the members batch by batch as the object is defined, resolving and
// checking every batch's labels (each can fail the block) but building only
// the last ones. False when a label value cannot be a JSON string.
bool plan_object(const MetricsTables& tables, bool microsecond_precision, ObjectPlan& plan) {
  bool common_valid = true;
  for (const auto& [name, value] : tables.common_labels) {
    common_valid = common_valid && is_valid_utf8_value(value);
  }
  std::vector<std::string> texts;
  const std::vector<std::string>* label_names = nullptr;
  for (const BatchRecord& batch : tables.batches) {
    plan.last = &batch;
    plan.set(Member::kTimestamp);
    char text[sizeof plan.at_timestamp];
    size_t length =
        nmb_format_timestamp_into(batch.timestamp, microsecond_precision, text, sizeof text);
    if (length != 0) {  // otherwise an earlier batch's text stays
      std::memcpy(plan.at_timestamp, text, length);
      plan.at_timestamp_length = length;
      plan.set(Member::kAtTimestamp);
    }
    auto names = tables.label_names.find(batch.label_set_id);
    if (names != tables.label_names.end()) {
      std::vector<std::string> batch_texts =
          nmb::metrics::decode_label_values(batch.labels, tables.label_values);
      if (batch_texts.size() > names->second.size()) {
        NMB_LOG(NMB_LOG_ERROR, "Label set %lu names %lu labels but the batch has %lu label values",
                batch.label_set_id, names->second.size(), batch_texts.size());
        throw std::runtime_error("more label values than label names");
      }
      // Valid texts over valid common labels make valid labels; only
      // otherwise does a replaced value decide, and the labels are built.
      bool valid = common_valid;
      for (const std::string& value : batch_texts) valid = valid && is_valid_utf8_value(value);
      if (!valid && !values_are_valid_utf8(batch_labels(tables, batch_texts, names->second))) {
        return false;
      }
      texts = std::move(batch_texts);
      label_names = &names->second;
      plan.set(Member::kLabels);
    }
    check_sample_ids(tables, batch);
    plan.set(Member::kMetrics);
  }
  if (label_names != nullptr) plan.labels = batch_labels(tables, std::move(texts), *label_names);
  return true;
}

bool write_metrics(nmb::JsonWriter& writer, const MetricsTables& tables, const BatchRecord& batch) {
  writer.begin_array();
  for (const nmb::metrics::Sample& sample : batch.samples) {
    writer.begin_object();
    writer.key(tables.metric_names[sample.sample_id]);
    // Exact in a double below 2^53: the same digits either way.
    const uint64_t value = sample.sample_value;
    if (value < (uint64_t{1} << 53)) {
      writer.integer(static_cast<int64_t>(value));
    } else if (!writer.number(static_cast<double>(value))) {
      return false;
    }
    writer.end_object();
  }
  writer.end_array();
  return true;
}

}  // namespace

bool nmb_labels_to_json_array(nmb::JsonWriter& writer, const LabelMap& labels) {
  writer.begin_array();
  for (const auto& [name, value] : labels) {
    writer.begin_object();
    writer.key(name);
    if (!writer.string(value)) return false;
    writer.end_object();
  }
  writer.end_array();
  return true;
}

bool nmb_metrics_to_json(nmb::JsonWriter& writer, const MetricsTables& tables,
                         bool microsecond_precision) {
  ObjectPlan plan;
  if (!plan_object(tables, microsecond_precision, plan)) return false;

  writer.begin_object();
  for (size_t i = 0; i < plan.members; ++i) {
    switch (plan.order[i]) {
      case Member::kTimestamp:
        writer.key("timestamp");
        writer.number(static_cast<double>(plan.last->timestamp));
        break;
      case Member::kAtTimestamp:
        writer.key("@timestamp");
        if (!writer.string({plan.at_timestamp, plan.at_timestamp_length})) return false;
        break;
      case Member::kLabels:
        writer.key("labels");
        if (!nmb_labels_to_json_array(writer, plan.labels)) return false;
        break;
      case Member::kMetrics:
        writer.key("metrics");
        if (!write_metrics(writer, tables, *plan.last)) return false;
        break;
    }
  }
  writer.end_object();
  return true;
}
