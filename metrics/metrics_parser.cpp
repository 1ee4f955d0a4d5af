#include "metrics/metrics_parser.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "utils/log.h"

namespace nmb::metrics {

namespace {

constexpr size_t kTagSize = 4;
constexpr size_t kTrailerSize = 8;            // "cntd" "cntx"
constexpr size_t kLabelNamesTrailerSize = 4;  // skipped unread
constexpr size_t kBatchHeaderSize = 14;
constexpr size_t kSampleSize = 10;
constexpr const char* kCaller = "NmbMetricsParser::parse_metrics";

std::string_view as_chars(std::span<const uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// The offset of the first whole `tag` at or after `from`, or npos. A tag cut
// by the payload end is not found.
size_t find_tag(std::span<const uint8_t> payload, size_t from, std::string_view tag) {
  if (from > payload.size()) return std::string_view::npos;
  return as_chars(payload).find(tag, from);
}

// True when the four bytes at `at` are `tag`; bytes past the payload never match.
bool has_tag_at(const ByteView& payload, size_t at, std::string_view tag) {
  return payload.fits(at, kTagSize) && payload.chars(at, kTagSize) == tag;
}

[[noreturn]] void runs_past_end(const std::string& what) {
  NMB_LOG(NMB_LOG_ERROR,
          "[nmb metrics parser] Invalid binary data format: %s runs past the end of the payload",
          what.c_str());
  throw std::runtime_error(what + " runs past the end of the payload");
}

// Reads out.size() counted strings from `at` into `out`; returns the offset
// past the last one. `count` is checked against the bytes left before `out`
// is resized, so a count cannot allocate more strings than the payload holds.
size_t read_strings(const ByteView& payload, size_t at, size_t count, std::vector<std::string>& out,
                    const char* tag) {
  // Every string takes at least its length byte.
  if (!payload.fits(at, count)) runs_past_end(std::string("'") + tag + "' section");
  out.resize(count);
  for (std::string& text : out) {
    size_t length = payload.u8(at);
    if (!payload.fits(at + 1, length)) runs_past_end(std::string("'") + tag + "' string");
    text.assign(payload.chars(at + 1, length));
    at += 1 + length;
  }
  return at;
}

void dump_strings(const char* what, const std::vector<std::string>& strings) {
  if (!nmb_log_enabled(NMB_LOG_DEBUG)) return;
  nmb_log(NMB_LOG_DEBUG, "[nmb metrics parser] %s count: %lu", what, strings.size());
  for (const std::string& text : strings)
    nmb_log(NMB_LOG_DEBUG, "[nmb metrics parser] Values: '%s', Size: %lu", text.c_str(),
            text.size());
}

void dump_label_names(const LabelNames& label_names) {
  if (!nmb_log_enabled(NMB_LOG_DEBUG)) return;
  if (label_names.empty()) nmb_log(NMB_LOG_DEBUG, "[nmb metrics parser] empty label names vector");
  for (const auto& [index, names] : label_names) {
    std::string joined;
    for (const std::string& name : names) {
      if (!joined.empty()) joined += ", ";
      joined += name;
    }
    nmb_log(NMB_LOG_DEBUG, "[nmb metrics parser] Label Names [%lu] %s", index, joined.c_str());
  }
}

// Resolving the labels here can fail the block, as it would in the export.
void dump_batches(const std::vector<BatchRecord>& batches,
                  const std::vector<std::string>& label_values) {
  if (!nmb_log_enabled(NMB_LOG_DEBUG)) return;
  for (const BatchRecord& batch : batches) {
    nmb_log(NMB_LOG_DEBUG, "[nmb metrics parser] Metrics Batch:");
    nmb_log(NMB_LOG_DEBUG, "[nmb metrics parser] Timestamp: %lu", batch.timestamp);
    for (const Sample& sample : batch.samples) {
      nmb_log(NMB_LOG_DEBUG, "[nmb metrics parser]   sample_id: %lu, sample_value: %lu",
              static_cast<unsigned long>(sample.sample_id),
              static_cast<unsigned long>(sample.sample_value));
    }
    std::vector<std::string> texts = decode_label_values(batch.labels, label_values);
    for (size_t i = 0; i < texts.size(); ++i) {
      const LabelEntry& entry = batch.labels[i];
      nmb_log(NMB_LOG_DEBUG, "[nmb metrics parser] encoded label: %s: %lu, decoded label[%lu]: %s",
              label_kind_name(entry.kind), entry.label_value_id, i, texts[i].c_str());
    }
  }
}

}  // namespace

uint64_t NmbMetricsParser::find_total_size(std::span<const uint8_t> bytes) {
  size_t tag = find_tag(bytes, 0, "CNTX");
  if (tag == std::string_view::npos) {
    NMB_LOG(NMB_LOG_DEBUG, "[nmb metrics parser] Missing 'CNTX' magic number in the binary data");
    return 0;
  }
  // A size cut by the end of the bytes reads zeros for what is missing.
  uint64_t total_size = ByteView(bytes).u32(tag + kTagSize);
  NMB_LOG(NMB_LOG_DEBUG, "[nmb metrics parser] total_size: %lu", total_size);
  return total_size;
}

size_t NmbMetricsParser::parse_label_names(std::span<const uint8_t> payload,
                                           LabelNames& label_names) {
  const ByteView view(payload);
  uint64_t label_set = 0;
  size_t position = 0;
  size_t last_end = kTagSize;  // just past "CNTX" when there is no section
  for (;;) {
    size_t tag = find_tag(payload, position, "LBLN");
    if (tag == std::string_view::npos) break;
    if (!view.fits(tag + kTagSize, 1)) runs_past_end("'LBLN' section");
    size_t count = view.u8(tag + kTagSize);
    size_t strings_end =
        read_strings(view, tag + kTagSize + 1, count, label_names[label_set], "LBLN");
    last_end = strings_end + kLabelNamesTrailerSize;
    ++label_set;
    if (last_end == payload.size()) break;
    position = last_end;
  }
  label_names.erase(label_names.lower_bound(label_set), label_names.end());
  return last_end;
}

size_t NmbMetricsParser::parse_section(std::span<const uint8_t> payload, size_t from,
                                       const char* upper_tag, const char* lower_tag,
                                       std::vector<std::string>& out) {
  size_t tag = find_tag(payload, from, upper_tag);
  if (tag == std::string_view::npos) {
    out.clear();
    return payload.size();
  }
  const ByteView view(payload);
  const size_t remaining = payload.size() - tag;
  if (remaining < kTagSize) {
    NMB_LOG(NMB_LOG_ERROR, "[nmb metrics parser] Invalid binary data format: Missing '%s' prefix",
            upper_tag);
    throw std::runtime_error("Invalid binary data format: Missing prefix");
  }
  if (!view.fits(tag + kTagSize, 2)) runs_past_end(std::string("'") + upper_tag + "' section");
  size_t count = view.u16(tag + kTagSize);
  const size_t offset = read_strings(view, tag + kTagSize + 2, count, out, upper_tag) - tag;
  // Well-formed data always has room for the suffix, so it is compared only
  // when the section ends too close to the payload end for it; since bytes
  // past the payload never match, such a section always fails here.
  if (remaining < offset + kTagSize && !has_tag_at(view, tag + offset, lower_tag)) {
    NMB_LOG(NMB_LOG_ERROR, "[nmb metrics parser] Invalid binary data format: Missing '%s' suffix",
            lower_tag);
    throw std::runtime_error("Invalid binary data format: Missing suffix");
  }
  return tag + offset + kTagSize;
}

std::vector<BatchRecord> NmbMetricsParser::parse_metrics(std::span<const uint8_t> payload,
                                                         size_t from) {
  size_t tag = find_tag(payload, from, "CNTD");
  if (tag == std::string_view::npos) {
    NMB_LOG(NMB_LOG_ERROR,
            "[nmb metrics parser] Invalid binary data format: Missing 'CNTD' magic number");
    throw std::runtime_error("Missing 'CNTD' magic number in the binary data");
  }
  const ByteView view(payload);
  const size_t size = payload.size();
  const size_t data_len = size - tag;
  NMB_LOG(NMB_LOG_DEBUG, "[nmb metrics parser] data_len = %lu", data_len);
  if (data_len <= 7 || !has_tag_at(view, size - kTrailerSize, "cntd"))
    throw std::runtime_error("Invalid magic numbers in the binary data");

  // "cntd" cannot overlap "CNTD", so the section holds at least its
  // blocksize before the trailer.
  const size_t section = tag + kTagSize;
  const size_t payload_end_len = size - kTrailerSize - section;
  NMB_LOG(NMB_LOG_DEBUG, "[nmb metrics parser] End of data at %lu", payload_end_len);
  const uint32_t blocksize = view.u32(section);
  NMB_LOG(NMB_LOG_DEBUG, "[nmb metrics parser] blocksize= %u", blocksize);

  std::vector<BatchRecord> batches;
  if (payload_end_len <= 4) return batches;
  size_t offset = 4;
  do {
    NMB_LOG(NMB_LOG_DEBUG, "[nmb metrics parser] offset=%lu end=%lu", offset, payload_end_len);
    // blocksize bounds every batch; the payload end bounds the last ones.
    const size_t batch_start = section + offset;
    const size_t readable = size - batch_start;
    const ByteView batch(payload.data() + batch_start, std::min<size_t>(blocksize, readable),
                         readable);
    PropertyBag bag = decode_batch_header(batch);
    const uint64_t num_samples = bag_value<uint64_t>(bag, "num_samples");
    const uint64_t timestamp = bag_value<uint64_t>(bag, "timestamp");
    MetricsBatch& metrics = bag_value<MetricsBatch>(bag, "metrics");

    BatchRecord record;
    const uint64_t length =
        parse_labels_block(batch.span(), kBatchHeaderSize + kSampleSize * num_samples,
                           record.label_set_id, record.labels, kCaller);
    record.timestamp = timestamp;
    record.type = bag_value<std::string>(bag, "type").front();
    record.samples = std::move(metrics.samples);
    record.word = metrics.word;
    batches.push_back(std::move(record));
    offset += length;
  } while (offset < payload_end_len);
  return batches;
}

CommonLabels NmbMetricsParser::parse_common_labels(std::span<const uint8_t> payload) {
  std::vector<std::string> pairs;
  parse_section(payload, 0, "CLBL", "clbl", pairs);
  CommonLabels labels;
  // A name without a value (an odd count) is left out.
  for (size_t i = 0; i + 1 < pairs.size(); i += 2)
    labels[std::move(pairs[i])] = std::move(pairs[i + 1]);
  return labels;
}

PropertyBag NmbMetricsParser::decode_batch_header(const ByteView& batch) {
  if (batch.readable() < kBatchHeaderSize) runs_past_end("metrics batch header");
  const uint16_t length = batch.u16(0);
  const uint64_t timestamp = batch.u64(2);
  const uint8_t type = batch.u8(10);
  const uint16_t num_samples = batch.u16(12);
  if ((type & 0xFB) != 0x43) {  // 'C' or 'G'
    NMB_LOG(NMB_LOG_ERROR, "[nmb metrics parser] invalid metric type");
    throw std::runtime_error("invalid metric type");
  }
  const size_t samples_size = kSampleSize * num_samples;
  if (samples_size > batch.readable() - kBatchHeaderSize) runs_past_end("metrics batch samples");
  MetricsBatch metrics;
  metrics.samples.resize(num_samples);
  if (num_samples != 0)
    std::memcpy(metrics.samples.data(), batch.data() + kBatchHeaderSize, samples_size);

  PropertyBag bag;
  bag.emplace("length", length);
  bag.emplace("timestamp", timestamp);
  bag.emplace("num_samples", uint64_t{num_samples});
  bag.emplace("metrics", std::move(metrics));
  bag.emplace("type", std::string(1, static_cast<char>(type)));
  return bag;
}

void NmbMetricsParser::parse_names_and_batches(std::span<const uint8_t> payload,
                                               LabelNames& label_names,
                                               std::vector<std::string>& label_values,
                                               std::vector<std::string>& metric_names,
                                               std::vector<BatchRecord>& batches) {
  find_total_size(payload);  // for its debug line
  size_t position = parse_label_names(payload, label_names);
  dump_label_names(label_names);
  position = parse_section(payload, position, "LBLV", "lblv", label_values);
  dump_strings("Label values", label_values);
  position = parse_section(payload, position, "CNTI", "cnti", metric_names);
  dump_strings("Metric names", metric_names);
  batches = parse_metrics(payload, position);
  dump_batches(batches, label_values);
}

bool parse_metrics_payload(std::span<const uint8_t> block, MetricsTables& tables,
                           std::string& error) {
  try {
    const uint64_t total_size = NmbMetricsParser::find_total_size(block);
    if (total_size > block.size()) {
      NMB_LOG(NMB_LOG_ERROR,
              "[nmb metrics parser] Invalid binary data format: total_size %lu exceeds the %lu "
              "bytes of the block",
              total_size, block.size());
      throw std::runtime_error("Invalid binary data format: total_size exceeds the block");
    }
    const std::span<const uint8_t> payload = block.first(total_size);
    NmbMetricsParser::parse_names_and_batches(payload, tables.label_names, tables.label_values,
                                              tables.metric_names, tables.batches);
    tables.common_labels = NmbMetricsParser::parse_common_labels(payload);
    return true;
  } catch (const std::exception& e) {
    error = e.what();
    return false;
  }
}

}  // namespace nmb::metrics
