#include "metrics/labels_block.h"

#include <exception>
#include <stdexcept>

#include "data/bytes.h"
#include "utils/log.h"

namespace nmb::metrics {

namespace {

constexpr uint64_t kHeaderSize = 3;  // label set id, count, encoding type

// The failures whose log line and exception carry the same text.
[[noreturn]] void fail(const char* message) {
  NMB_LOG(NMB_LOG_ERROR, "[nmb labels block] parse_labels_block: %s", message);
  throw std::runtime_error(message);
}

// The text whose length byte is at `at`; returns the offset past the text.
// Every check is against the batch size, so a length that runs past the batch
// fails instead of reading beyond it.
uint64_t read_inline_text(const ByteView& block, uint64_t at, std::string& text,
                          const char* missing_length, const char* missing_text) {
  if (at >= block.size()) fail(missing_length);
  uint64_t length = block.u8(at);
  if (at + 1 + length > block.size()) fail(missing_text);
  text.assign(block.chars(at + 1, length));
  return at + 1 + length;
}

}  // namespace

const char* label_kind_name(LabelKind kind) {
  switch (kind) {
    case LabelKind::kLabelValueId:
      return "label_value_id";
    case LabelKind::kLabelValue:
      return "label_value";
  }
  return "std:unknown";
}

uint64_t parse_labels_block(std::span<const uint8_t> batch, uint64_t start_offset,
                            uint64_t& label_set_id, std::vector<LabelEntry>& entries,
                            const char* caller) {
  if (batch.data() == nullptr || batch.empty()) {
    NMB_LOG(NMB_LOG_ERROR, "[nmb labels block] parse_labels_block: invalid data pointers");
    throw std::runtime_error("invalid data pointers in parse_labels_block");
  }
  const ByteView block(batch);
  const uint64_t size = block.size();
  if (size <= start_offset) {
    NMB_LOG(NMB_LOG_ERROR,
            "[nmb labels block] parse_labels_block: start_offset (%lu) exceeds data size (%lu)",
            start_offset, size);
    throw std::runtime_error("start_offset exceeds data size");
  }
  if (start_offset + kHeaderSize > size) fail("insufficient data for header");

  label_set_id = block.u8(start_offset);
  const uint64_t count = block.u8(start_offset + 1);
  const char encoding = static_cast<char>(block.u8(start_offset + 2));
  NMB_LOG(NMB_LOG_DEBUG,
          "[nmb labels block] parse_labels_block: header - label_set_id=%lu, "
          "encoded_label_value_count=%lu, encoding_type=%c, called by %s",
          label_set_id, count, encoding, caller);
  if (encoding != 'L' && encoding != 'M' && encoding != 'I') {
    NMB_LOG(NMB_LOG_ERROR, "[nmb labels block] parse_labels_block: invalid encoding type '%c'",
            encoding);
    throw std::runtime_error("invalid encoding type");
  }

  entries.clear();
  entries.reserve(count);
  uint64_t pos = start_offset + kHeaderSize;
  if (encoding == 'L') {
    if (pos + count > size) fail("insufficient data for 'L' encoding");
    for (uint64_t i = 0; i < count; ++i) {
      uint64_t id = block.u8(pos + i);
      NMB_LOG(NMB_LOG_DEBUG, "[nmb labels block] L label value id [%lu]: %lu", i, id);
      entries.push_back({LabelKind::kLabelValueId, id, {}});
    }
    pos += count;
    NMB_LOG(NMB_LOG_DEBUG, "[nmb labels block] after decoding L: %lu", pos);
  } else if (encoding == 'I') {
    for (uint64_t i = 0; i < count; ++i) {
      LabelEntry& entry = entries.emplace_back(LabelEntry{LabelKind::kLabelValue, 0, {}});
      pos = read_inline_text(block, pos, entry.label_value,
                             "insufficient data for 'I' encoding length",
                             "insufficient data for 'I' encoding string");
      NMB_LOG(NMB_LOG_DEBUG, "[nmb labels block] I label value [%lu]: '%s'", i,
              entry.label_value.c_str());
    }
    NMB_LOG(NMB_LOG_DEBUG, "[nmb labels block] after decoding I: %lu", pos);
  } else {
    for (uint64_t i = 0; i < count; ++i) {
      if (pos >= size) fail("insufficient data for 'M' encoding sub-type");
      const char sub_type = static_cast<char>(block.u8(pos));
      if (sub_type == 'I') {
        LabelEntry& entry = entries.emplace_back(LabelEntry{LabelKind::kLabelValue, 0, {}});
        pos = read_inline_text(block, pos + 1, entry.label_value,
                               "insufficient data for 'M/I' encoding length",
                               "insufficient data for 'M/I' encoding string");
        NMB_LOG(NMB_LOG_DEBUG, "[nmb labels block] parsed M/I label value [%lu]: '%s'", i,
                entry.label_value.c_str());
      } else if (sub_type == 'L') {
        if (pos + 1 >= size) fail("insufficient data for 'M/L' encoding id");
        uint64_t id = block.u8(pos + 1);
        NMB_LOG(NMB_LOG_DEBUG, "[nmb labels block] parsed M/L label value id [%lu]: %lu", i, id);
        entries.push_back({LabelKind::kLabelValueId, id, {}});
        pos += 2;
      } else {
        NMB_LOG(NMB_LOG_ERROR,
                "[nmb labels block] parse_labels_block: invalid sub-encoding type '%c'", sub_type);
        throw std::runtime_error("invalid sub-encoding type");
      }
    }
    NMB_LOG(NMB_LOG_DEBUG, "[nmb labels block] after decoding M: %lu", pos);
  }

  if (entries.size() != count) {
    NMB_LOG(NMB_LOG_ERROR,
            "[nmb labels block] parse_labels_block: processed %lu labels, expected %lu",
            entries.size(), count);
    throw std::runtime_error("label count mismatch");
  }
  return pos;
}

std::string decode_label_value(const LabelEntry& entry,
                               const std::vector<std::string>& label_values) {
  switch (entry.kind) {
    case LabelKind::kLabelValueId: {
      if (label_values.empty()) {
        NMB_LOG(NMB_LOG_ERROR, "[nmb labels block] decode_label_value: empty label_values array");
        throw std::runtime_error("empty label_values array");
      }
      if (entry.label_value_id >= label_values.size()) {
        NMB_LOG(NMB_LOG_ERROR,
                "[nmb labels block] decode_label_value: invalid label id: %lu (max=%lu)",
                entry.label_value_id, label_values.size());
        throw std::runtime_error("invalid label id");
      }
      const std::string& value = label_values[entry.label_value_id];
      if (value.empty()) {
        NMB_LOG(NMB_LOG_ERROR,
                "[nmb labels block] decode_label_value: empty string at label_values[%lu]",
                entry.label_value_id);
        throw std::runtime_error("invalid label value");
      }
      return value;
    }
    case LabelKind::kLabelValue:
      return entry.label_value;
  }
  NMB_LOG(NMB_LOG_ERROR, "[nmb labels block] decode_label_value: unknown label key type: '%s'",
          "unknown");
  throw std::runtime_error("unknown label key type");
}

std::vector<std::string> decode_label_values(const std::vector<LabelEntry>& entries,
                                             const std::vector<std::string>& label_values) {
  std::vector<std::string> texts;
  if (entries.empty()) return texts;
  texts.reserve(entries.size());
  for (size_t i = 0; i < entries.size(); ++i) {
    try {
      texts.push_back(decode_label_value(entries[i], label_values));
    } catch (const std::exception& e) {
      NMB_LOG(NMB_LOG_ERROR,
              "[nmb labels block] decode_label_values: failed to decode label %lu: %s", i,
              e.what());
      throw std::runtime_error("Failed to decode label value at index " + std::to_string(i) + ": " +
                               e.what());
    }
  }
  return texts;
}

}  // namespace nmb::metrics
