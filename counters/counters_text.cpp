// Counters blocks as text tables: one table per group, a row per counter set,
// a 20-column cell per counter.
#include <cinttypes>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "counters/counters_text.h"
#include "data/format.h"
#include "export/value_format.h"

namespace {

constexpr int kCellWidth = 20;

__attribute__((format(printf, 2, 3))) void appendf(std::string& out, const char* format, ...) {
  char text[256];
  va_list args;
  va_start(args, format);
  int n = std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  if (n < 0) return;
  if (static_cast<size_t>(n) < sizeof text) {
    out.append(text, static_cast<size_t>(n));
    return;
  }
  size_t start = out.size();
  out.resize(start + static_cast<size_t>(n) + 1);
  va_start(args, format);
  std::vsnprintf(out.data() + start, static_cast<size_t>(n) + 1, format, args);
  va_end(args);
  out.resize(start + static_cast<size_t>(n));
}

// " %*s |": the text right-aligned in `width` columns, as printf pads it.
void append_cell(std::string& out, const char* text, int width) {
  size_t length = std::strlen(text);
  out.push_back(' ');
  if (width > 0 && length < static_cast<size_t>(width)) {
    out.append(static_cast<size_t>(width) - length, ' ');
  }
  out.append(text, length);
  out.append(" |", 2);
}

// The format a cell is written in: DEFAULT is hexadecimal for BIT64 and
// decimal for everything else.
int32_t cell_format(const nmb_counter_info_t& counter) {
  if (counter.string_format != NMB_STRING_FORMAT_DEFAULT) return counter.string_format;
  return counter.data_type == NMB_COUNTER_DATA_TYPE_BIT64 ? NMB_STRING_FORMAT_HEXADECIMAL
                                                          : NMB_STRING_FORMAT_DECIMAL;
}

}  // namespace

void nmb_print_counter_value_text(std::string& out, const nmb_counter_info_t& counter, int width,
                                  nmb::ByteView values, uint64_t offset) {
  char text[NMB_VALUE_TEXT_ROOM];
  int32_t format = cell_format(counter);
  switch (counter.data_type) {
    case NMB_COUNTER_DATA_TYPE_UINT64:
    case NMB_COUNTER_DATA_TYPE_BIT64:
      nmb_format_uint64_into(values.u64(offset), format, text);
      append_cell(out, text, width);
      return;
    case NMB_COUNTER_DATA_TYPE_FP64: {
      uint64_t bits = values.u64(offset);
      double value;
      std::memcpy(&value, &bits, sizeof value);
      nmb_format_fp64_into(format, value, text);
      append_cell(out, text, width);
      return;
    }
    case NMB_COUNTER_DATA_TYPE_INT64:
      nmb_format_int64_into(static_cast<int64_t>(values.u64(offset)), format, text);
      append_cell(out, text, width);
      return;
    case NMB_COUNTER_DATA_TYPE_STRING: {
      // At most 20 characters, up to a zero byte; they may run past the
      // counter's own 8-byte slot.
      uint8_t bytes[kCellWidth + 1] = {};
      values.copy(offset, bytes, kCellWidth);
      appendf(out, " %*.*s |", width, kCellWidth, reinterpret_cast<const char*>(bytes));
      return;
    }
    case NMB_COUNTER_DATA_TYPE_UINT128:
    case NMB_COUNTER_DATA_TYPE_INT128: {
      uint8_t bytes[16];
      values.copy(offset, bytes, sizeof bytes);
      nmb_format_uint128_into(bytes, format, text);
      append_cell(out, text, width);
      return;
    }
    default: {
      long long value = static_cast<long long>(values.u64(offset));
      if (value > 999)
        appendf(out, " %*lld k |", width - 2, value / 1000);
      else
        appendf(out, " %*lld |", width, value);
      return;
    }
  }
}

void nmb_print_counter_group_text(std::string& out, const nmb_counter_group_t& group,
                                  nmb::ByteView values) {
  const char* granularity = nmb_granularity_name(group.granularity);
  const int g = static_cast<int>(std::strlen(granularity));
  const uint64_t n = group.counters.size();
  const uint64_t sets = group.num_counter_sets;
  const uint64_t width64 = 23 * n + (sets != 0 ? static_cast<uint64_t>(g) + 3 : 0);
  if (width64 > INT_MAX / 2) return;  // no table this wide could be allocated
  const int width = static_cast<int>(width64);

  auto rule = [&] {
    out.append(static_cast<size_t>(width) + 1, '-');
    out.push_back('\n');
  };
  rule();
  appendf(out, "| Counter values per %-*.*s |\n", width - 22, width - 22, granularity);
  rule();
  if (sets != 0)
    appendf(out, "| %*s |", g, granularity);
  else
    out.push_back('|');
  for (const auto& counter : group.counters) append_cell(out, counter.name.c_str(), kCellWidth);
  out.push_back('\n');
  rule();
  // Without counter sets no value row follows, so the rule under the heading
  // and the closing rule stand one after the other: the table ends in two
  // rules (not three).
  for (uint64_t i = 0; i < sets; ++i) {
    appendf(out, "| %*d |", g, static_cast<int>(i));
    for (uint64_t j = 0; j < n; ++j)
      nmb_print_counter_value_text(out, group.counters[j], kCellWidth, values, 8 * (n * i + j));
    out.push_back('\n');
  }
  rule();
}

void nmb_print_counters_block_text(std::string& out, nmb::ByteView block,
                                   const nmb_counters_schema_t& schema,
                                   bool microsecond_precision) {
  const uint64_t timestamp = block.u64(NMB_COUNTERS_BLOCK_TIMESTAMP);
  const nmb::ByteView values = block.from(NMB_COUNTERS_BLOCK_HEADER_SIZE);
  char text[64];
  size_t length = nmb_format_timestamp_into(timestamp, microsecond_precision, text, sizeof text);
  if (length != 0)
    appendf(out, "Data collected at %.*s\n", static_cast<int>(length), text);
  else
    appendf(out, "Data collected at %" PRId64 "\n", static_cast<int64_t>(timestamp));
  for (const auto& group : schema.groups) nmb_print_counter_group_text(out, group, values);
}
