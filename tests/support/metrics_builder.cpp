#include "tests/support/metrics_builder.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace nmb::test {

namespace {

// The builder's own picture of the layout.
constexpr size_t kTagSize = 4;
constexpr size_t kBatchHeaderSize = 14;  // length, timestamp, type, reserved, num_samples
constexpr size_t kLengthFieldSize = 4;   // "CNTX" is followed by total_size

void put_text(ByteVec& out, std::string_view text) {
  const size_t at = out.size();
  out.resize(at + text.size());
  if (!text.empty()) std::memcpy(out.data() + at, text.data(), text.size());
}

void put_counted(ByteVec& out, std::string_view text) {
  if (text.size() > 255) throw std::invalid_argument("counted strings hold at most 255 bytes");
  out.push_back(static_cast<uint8_t>(text.size()));
  put_text(out, text);
}

}  // namespace

LabelsBlock& LabelsBlock::id(uint8_t value_id) {
  if (encoding_ == 'M') body_.push_back('L');
  body_.push_back(value_id);
  ++values_;
  return *this;
}

LabelsBlock& LabelsBlock::text(std::string_view value) {
  if (encoding_ == 'M') body_.push_back('I');
  put_counted(body_, value);
  ++values_;
  return *this;
}

LabelsBlock& LabelsBlock::count(uint8_t stored) {
  count_ = stored;
  return *this;
}

LabelsBlock& LabelsBlock::raw(const ByteVec& bytes) {
  body_.insert(body_.end(), bytes.begin(), bytes.end());
  return *this;
}

LabelsBlock& LabelsBlock::cut(size_t size) {
  cut_ = size;
  return *this;
}

ByteVec LabelsBlock::bytes() const {
  ByteVec out(3 + body_.size());
  out[0] = label_set_;
  out[1] = count_.value_or(values_);
  out[2] = encoding_;
  if (!body_.empty()) std::memcpy(out.data() + 3, body_.data(), body_.size());
  if (cut_ && *cut_ < out.size()) out.resize(*cut_);
  return out;
}

Batch& Batch::sample(uint16_t id, uint64_t value) {
  samples_.emplace_back(id, value);
  return *this;
}

Batch& Batch::labels(LabelsBlock block) {
  labels_ = std::move(block);
  return *this;
}

Batch& Batch::num_samples(uint16_t stored) {
  num_samples_ = stored;
  return *this;
}

Batch& Batch::length(uint16_t stored) {
  length_ = stored;
  return *this;
}

ByteVec Batch::bytes() const {
  ByteVec labels = labels_.bytes();
  size_t size = kBatchHeaderSize + 10 * samples_.size() + labels.size();
  ByteVec out;
  put_le(out, length_.value_or(static_cast<uint16_t>(size)), 2);
  put_le(out, timestamp_, 8);
  out.push_back(type_);
  out.push_back(0);  // reserved
  put_le(out, num_samples_.value_or(static_cast<uint16_t>(samples_.size())), 2);
  for (const auto& [id, value] : samples_) {
    put_le(out, id, 2);
    put_le(out, value, 8);
  }
  out.insert(out.end(), labels.begin(), labels.end());
  return out;
}

MetricsPayload& MetricsPayload::add(std::string_view tag, size_t count_size,
                                    const std::vector<std::string>& strings,
                                    std::string_view suffix) {
  Section section{{}, count_size, 0};
  put_text(section.bytes, tag);
  put_le(section.bytes, strings.size(), count_size);
  for (const std::string& text : strings) {
    section.last_string = section.bytes.size();
    put_counted(section.bytes, text);
  }
  put_text(section.bytes, suffix);
  sections_.push_back(std::move(section));
  return *this;
}

MetricsPayload& MetricsPayload::label_names(const std::vector<std::string>& names) {
  return add("LBLN", 1, names, "lbln");
}

MetricsPayload& MetricsPayload::label_values(const std::vector<std::string>& values) {
  return add("LBLV", 2, values, "lblv");
}

MetricsPayload& MetricsPayload::metric_names(const std::vector<std::string>& names) {
  return add("CNTI", 2, names, "cnti");
}

MetricsPayload& MetricsPayload::common_labels(
    const std::vector<std::pair<std::string, std::string>>& pairs) {
  std::vector<std::string> flat;
  for (const auto& [name, value] : pairs) {
    flat.push_back(name);
    flat.push_back(value);
  }
  return add("CLBL", 2, flat, "clbl");
}

MetricsPayload& MetricsPayload::raw(const ByteVec& bytes) {
  sections_.push_back({bytes, 0, 0});
  return *this;
}

MetricsPayload& MetricsPayload::blocksize(uint32_t size) {
  blocksize_ = size;
  return *this;
}

MetricsPayload& MetricsPayload::batch(const Batch& batch) {
  batches_.push_back(batch);
  return *this;
}

MetricsPayload& MetricsPayload::suffix(std::string_view four) {
  ByteVec& bytes = sections_.back().bytes;
  std::copy(four.begin(), four.end(), bytes.end() - kTagSize);
  return *this;
}

MetricsPayload& MetricsPayload::count(uint16_t stored) {
  Section& section = sections_.back();
  poke_le(section.bytes, kTagSize, stored, section.count_size);
  return *this;
}

MetricsPayload& MetricsPayload::last_string_length(uint8_t stored) {
  Section& section = sections_.back();
  if (section.last_string == 0) throw std::logic_error("the last section has no string");
  section.bytes[section.last_string] = stored;
  return *this;
}

MetricsPayload& MetricsPayload::total_size(uint32_t size) {
  total_size_ = size;
  return *this;
}

MetricsPayload& MetricsPayload::trailer(std::string_view eight) {
  trailer_ = eight;
  return *this;
}

MetricsPayload& MetricsPayload::no_data_section() {
  data_section_ = false;
  return *this;
}

MetricsPayload& MetricsPayload::cut(size_t size) {
  cut_ = size;
  return *this;
}

ByteVec MetricsPayload::bytes() const {
  ByteVec out;
  put_text(out, "CNTX");
  put_le(out, 0, kLengthFieldSize);  // total_size, set below
  for (const Section& section : sections_)
    out.insert(out.end(), section.bytes.begin(), section.bytes.end());
  if (data_section_) {
    std::vector<ByteVec> batches;
    size_t largest = 0;
    for (const Batch& batch : batches_) {
      batches.push_back(batch.bytes());
      largest = std::max(largest, batches.back().size());
    }
    put_text(out, "CNTD");
    put_le(out, blocksize_.value_or(static_cast<uint32_t>(largest)), 4);
    for (const ByteVec& batch : batches) out.insert(out.end(), batch.begin(), batch.end());
  }
  put_text(out, trailer_);
  poke_le(out, kTagSize, total_size_.value_or(static_cast<uint32_t>(out.size())), kLengthFieldSize);
  if (cut_ && *cut_ < out.size()) out.resize(*cut_);
  return out;
}

}  // namespace nmb::test
